// packet_writer.h - packets of any connection without memory of their own.
//
// A packet is written into one of a few buffers just before it is handed in, as a network card does
// it: what is measured then is the memory of the engine, not that of a million prepared packets.
// Even connections are TCP, odd ones UDP.

#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace zon_bench {

enum class families { ipv4, ipv6, mixed };

inline const char* name_of(families family) {
    constexpr const char* names[] = {"ipv4", "ipv6", "mixed"};
    return names[static_cast<size_t>(family)];
}

inline uint32_t big_endian(uint32_t word) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

// Bytes that may be read of every packet; the headers' lengths are shorter.
inline constexpr uint32_t packet_size = 66;

class packet_writer {
public:
    struct tcp_fields {
        uint32_t seq;
        uint32_t ack;
        uint8_t flags;
    };
    static constexpr tcp_fields syn{1000, 0, 0x02};
    static constexpr tcp_fields syn_ack{2000, 1001, 0x12};
    static constexpr tcp_fields ack_of_initiator{1001, 2001, 0x10};
    static constexpr tcp_fields ack_of_responder{2001, 1001, 0x10};

    explicit packet_writer(families family = families::ipv4) : family_(family) {
        for (auto& packet : packets_[0])
            prepare_ipv4(packet, protocol_tcp);
        for (auto& packet : packets_[1])
            prepare_ipv4(packet, protocol_udp);
        for (auto& packet : packets_[2])
            prepare_ipv6(packet, protocol_tcp);
        for (auto& packet : packets_[3])
            prepare_ipv6(packet, protocol_udp);
    }

    static bool is_tcp(uint32_t connection) { return (connection & 1) == 0; }
    // Of mixed connections, every other pair.
    bool is_ipv6(uint32_t connection) const {
        return family_ == families::ipv6 || (family_ == families::mixed && (connection & 2) != 0);
    }

    // A packet of an established connection.
    uint8_t* established(uint32_t connection, bool back) {
        if (!is_tcp(connection))
            return udp(connection, back);
        return tcp(connection, back, back ? ack_of_responder : ack_of_initiator);
    }
    // What a connection begins with.
    uint8_t* first(uint32_t connection) {
        return is_tcp(connection) ? tcp(connection, false, syn) : udp(connection, false);
    }
    uint8_t* tcp(uint32_t connection, bool back, const tcp_fields& fields) {
        uint8_t* packet = next(protocol_tcp, connection);
        uint8_t* l4 = address(packet, connection, back);
        put(l4 + 4, fields.seq);
        put(l4 + 8, fields.ack);
        l4[13] = fields.flags;
        return packet;
    }
    uint8_t* udp(uint32_t connection, bool back) {
        uint8_t* packet = next(protocol_udp, connection);
        address(packet, connection, back);
        return packet;
    }

private:
    enum protocol : uint8_t { protocol_tcp = 6, protocol_udp = 17 };
    static constexpr uint32_t buffers = 32;  // as many as a burst may hold at once
    using buffer = std::array<uint8_t, 128>;

    uint8_t* next(protocol wanted, uint32_t connection) {
        const size_t kind = 2 * size_t{is_ipv6(connection)} + size_t{wanted == protocol_udp};
        return packets_[kind][next_++ % buffers].data();
    }

    static void put(uint8_t* at, uint32_t host_order) {
        const uint32_t word = big_endian(host_order);
        std::memcpy(at, &word, sizeof word);
    }
    static void prepare_ipv4(buffer& packet, protocol wanted) {
        packet = {0x45, 0,  0,     wanted == protocol_tcp ? uint8_t{40} : uint8_t{46}, 0, 0, 0,
                  0,    64, wanted};
        prepare_l4(packet.data() + 20, wanted);
    }
    static void prepare_ipv6(buffer& packet, protocol wanted) {
        packet = {0x60, 0, 0, 0, 0, wanted == protocol_tcp ? uint8_t{20} : uint8_t{26}, wanted, 64};
        put(packet.data() + 8, 0x20010DB8);
        put(packet.data() + 24, 0x20010DB8);
        prepare_l4(packet.data() + 40, wanted);
    }
    static void prepare_l4(uint8_t* l4, protocol wanted) {
        if (wanted == protocol_tcp) {
            l4[12] = 0x50;
            l4[14] = l4[15] = 0xFF;
        } else {
            l4[5] = 26;
        }
    }

    // From 10.0.0.0 or 2001:db8:: plus the number to one of 16 servers, and back. Returns where the
    // transport header stands.
    uint8_t* address(uint8_t* packet, uint32_t connection, bool back) const {
        const uint32_t server = 0xC0000200 + connection % 16;
        const uint32_t client_port = 1024 + (connection * 7) % 60000;
        const uint32_t ports = back ? 443U << 16 | client_port : client_port << 16 | 443U;
        if (is_ipv6(connection)) {
            put(packet + 12, back ? 1 : 0);
            put(packet + 20, back ? server : connection);
            put(packet + 28, back ? 0 : 1);
            put(packet + 36, back ? connection : server);
            put(packet + 40, ports);
            return packet + 40;
        }
        const uint32_t client = 0x0A000000 + connection;
        put(packet + 12, back ? server : client);
        put(packet + 16, back ? client : server);
        put(packet + 20, ports);
        return packet + 20;
    }

    families family_;
    std::array<std::array<buffer, buffers>, 4> packets_;
    uint32_t next_ = 0;
};

}  // namespace zon_bench

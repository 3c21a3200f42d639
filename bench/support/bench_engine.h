// bench_engine.h - an engine of a given size, and packets of any of its connections without memory
// of their own.
//
// A packet is written into one of a few buffers just before it is handed in, as a network card does
// it: what is measured then is the memory of the engine, not that of a million prepared packets.
// Even connections are TCP, odd ones UDP.

#pragma once

#include <array>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zon.h"

namespace zon_bench {

inline void require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::exit(1);
}

inline uint32_t big_endian(uint32_t word) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

// Cheap numbers for the order of packets; the sequence is the same on every run.
class random_order {
public:
    explicit random_order(uint32_t below) : below_(below) {}
    uint32_t operator()() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<uint32_t>(((state_ >> 32) * below_) >> 32);
    }

private:
    uint64_t state_ = 88172645463325252ULL;
    uint64_t below_;
};

// IPv4 headers of 20 bytes, and behind them 20 bytes of TCP or 8 of UDP and some payload.
inline constexpr uint32_t packet_size = 46;

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

    packet_writer() {
        for (auto& packet : tcp_)
            prepare(packet, 6);
        for (auto& packet : udp_)
            prepare(packet, 17);
    }

    static bool is_tcp(uint32_t connection) { return (connection & 1) == 0; }

    // A packet of an established connection.
    uint8_t* established(uint32_t connection, bool back) {
        if (!is_tcp(connection))
            return udp(connection, back);
        return tcp(connection, back, back ? ack_of_responder : ack_of_initiator);
    }
    uint8_t* tcp(uint32_t connection, bool back, const tcp_fields& fields) {
        uint8_t* packet = address(tcp_[next_++ % buffers].data(), connection, back);
        put(packet + 24, fields.seq);
        put(packet + 28, fields.ack);
        packet[33] = fields.flags;
        return packet;
    }
    uint8_t* udp(uint32_t connection, bool back) {
        return address(udp_[next_++ % buffers].data(), connection, back);
    }

private:
    static constexpr uint32_t buffers = 32;  // as many as a burst may hold at once
    using buffer = std::array<uint8_t, 64>;

    static void put(uint8_t* at, uint32_t host_order) {
        const uint32_t word = big_endian(host_order);
        std::memcpy(at, &word, sizeof word);
    }
    static void prepare(buffer& packet, uint8_t protocol) {
        packet = {0x45, 0, 0, packet_size, 0, 0, 0, 0, 64, protocol};
        if (protocol == 6) {
            packet[3] = 40;
            packet[32] = 0x50;
            packet[34] = packet[35] = 0xFF;
        } else {
            packet[25] = packet_size - 20;
        }
    }
    // From 10.0.0.0 plus the number to one of 16 servers, and back.
    static uint8_t* address(uint8_t* packet, uint32_t connection, bool back) {
        const uint32_t client = 0x0A000000 + connection;
        const uint32_t server = 0xC0000200 + connection % 16;
        const uint32_t client_port = 1024 + (connection * 7) % 60000;
        put(packet + 12, back ? server : client);
        put(packet + 16, back ? client : server);
        put(packet + 20, back ? 443U << 16 | client_port : client_port << 16 | 443U);
        return packet;
    }

    std::array<buffer, buffers> tcp_;
    std::array<buffer, buffers> udp_;
    uint32_t next_ = 0;
};

class bench_engine {
public:
    explicit bench_engine(uint32_t max_flows) {
        require(zon_init(max_flows, 0, ZON_DEFAULT_MIN_INIT_FLOWS, ZON_DEFAULT_MAX_CONCURRENCY,
                         ZON_DEFAULT_MAX_COLLISION_SIZE, ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS,
                         ZON_DEFAULT_MAX_MEM_BUFFER_INIT) == zon_error_none,
                "no engine");
        require(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                  &g_zon->zon_timer_process_create),
                "no timers");
        zon_client_id_e client = 0;
        require(zon_client_feature_register(&client) == zon_error_none, "no client");
        constexpr auto wanted = ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP |
                                ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS;
        require(zon_client_enable_engine_capability(
                    client, static_cast<zon_capability_e>(wanted)) == zon_error_none,
                "no capabilities");
        // Nothing ages while it is measured.
        for (const uint8_t protocol : {uint8_t{6}, uint8_t{17}})
            for (int state = ZON_L4_ENUM_START; state < ZON_L4_ENUM_END; ++state)
                zon_set_default_aging(protocol, static_cast<zon_l4_flow_state_e>(state), 3'600'000);
    }
    ~bench_engine() { zon_destroy(); }
    bench_engine(const bench_engine&) = delete;
    bench_engine& operator=(const bench_engine&) = delete;

    zon_fid_t send(uint8_t* packet) {
        zon_error_t error;
        return zon_handle_packet(packet, 0, nullptr, &seen, &error);
    }
    zon_fid_t send_captured(uint8_t* packet) {
        zon_error_t error;
        return zon_handle_captured_packet(packet, packet_size, 0, nullptr, &seen, &error);
    }

    static constexpr uint32_t burst_size = 32;
    void put_into_burst(uint32_t slot, uint8_t* packet) {
        burst_[slot].iphdr = packet;
        burst_[slot].captured_length = packet_size;
        burst_[slot].pkt_indications = &burst_seen_[slot];
    }
    // How many packets have no flow.
    uint32_t send_burst() {
        return burst_size - zon_handle_packet_burst(burst_.data(), burst_size);
    }

    // Both sides have sent, so that the packets of packet_writer::established fit.
    void establish(uint32_t connection) {
        if (packet_writer::is_tcp(connection)) {
            send(packets.tcp(connection, false, packet_writer::syn));
            send(packets.tcp(connection, true, packet_writer::syn_ack));
        }
        for (const bool back : {false, true}) {
            require(send(packets.established(connection, back)) != 0, "a packet without a flow");
            require(seen.l4_error == ZON_L4_NOERR, "a packet that the tracker complains of");
        }
    }

    packet_writer packets;
    zon_pkt_indications_t seen{};

private:
    std::array<zon_burst_packet_t, burst_size> burst_{};
    std::array<zon_pkt_indications_t, burst_size> burst_seen_{};
};

class stopwatch {
public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    double ns_per(double count) const { return seconds() * 1e9 / count; }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace zon_bench

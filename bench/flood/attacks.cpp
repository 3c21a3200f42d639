// attacks.cpp - the packets of each flood.

#include <algorithm>
#include <cstring>
#include <numeric>

#include "attack.h"
#include "support/bench_engine.h"

namespace zon_bench {
namespace {

constexpr uint8_t tcp = 6;
constexpr uint8_t udp = 17;
constexpr uint8_t syn = 0x02;
constexpr uint8_t rst_ack = 0x14;

constexpr uint32_t ipv4_size = 20;
constexpr uint32_t ipv6_size = 40;
constexpr uint32_t tcp_size = 20;
constexpr uint32_t udp_size = 8;

void put16(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}
void put32(uint8_t* at, uint32_t value) {
    const uint32_t word = big_endian(value);
    std::memcpy(at, &word, sizeof word);
}
uint32_t get16(const uint8_t* at) {
    return static_cast<uint32_t>(at[0] << 8 | at[1]);
}
uint32_t get32(const uint8_t* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return big_endian(word);
}

// The header's length comes in units of four bytes.
uint8_t* put_ipv4(wire_packet& packet, uint8_t protocol, uint32_t payload, uint32_t source,
                  uint32_t destination, uint32_t header = ipv4_size) {
    uint8_t* ip = packet.bytes.data();
    std::fill_n(ip, header, uint8_t{0});
    ip[0] = static_cast<uint8_t>(0x40 | header / 4);
    put16(ip + 2, header + payload);
    ip[8] = 64;
    ip[9] = protocol;
    put32(ip + 12, source);
    put32(ip + 16, destination);
    packet.captured = header + payload;
    return ip + header;
}

uint8_t* put_ipv6(wire_packet& packet, uint8_t next_header, uint32_t payload, uint32_t source) {
    uint8_t* ip = packet.bytes.data();
    std::fill_n(ip, ipv6_size, uint8_t{0});
    ip[0] = 0x60;
    put16(ip + 4, payload);
    ip[6] = next_header;
    ip[7] = 64;
    put32(ip + 8, 0x20010DB8);
    put32(ip + 20, source);
    put32(ip + 24, 0x20010DB8);
    put32(ip + 36, 1);
    packet.captured = ipv6_size + payload;
    return ip + ipv6_size;
}

void put_tcp(uint8_t* at, uint32_t source, uint32_t destination, uint8_t flags,
             uint32_t header = tcp_size) {
    std::fill_n(at, header, uint8_t{0});
    put16(at, source);
    put16(at + 2, destination);
    at[12] = static_cast<uint8_t>(header / 4 << 4);
    at[13] = flags;
    put16(at + 14, 0xFFFF);
}

void put_udp(uint8_t* at, uint32_t source, uint32_t destination, uint32_t length) {
    put16(at, source);
    put16(at + 2, destination);
    put16(at + 4, length);
    put16(at + 6, 0);
}

constexpr uint32_t target = 0xC6336401;  // a host that nobody talks to but the attackers

class syn_flood_attack : public attack {
public:
    // An odd factor leads every number to another source.
    void write(uint64_t number, wire_packet& packet) override {
        const uint32_t source = static_cast<uint32_t>(number) * 2'654'435'761U;
        put_tcp(put_ipv4(packet, tcp, tcp_size, source, target), 40'000, 80, syn);
    }
};

class fragment_attack : public attack {
public:
    void write(uint64_t number, wire_packet& packet) override {
        const auto turn = static_cast<uint32_t>(number / 2);
        const uint32_t source = turn % sources;
        const uint32_t datagram = turn / sources;
        if (number % 2 == 0)
            write_ipv4(packet, source, datagram);
        else
            write_ipv6(packet, source, datagram);
    }

private:
    static constexpr uint32_t sources = 4096;
    static constexpr uint32_t data = 16;

    static void write_ipv4(wire_packet& packet, uint32_t source, uint32_t datagram) {
        put_udp(put_ipv4(packet, udp, udp_size + data, 0x0B000000 + source, target), 40'000, 53,
                1000);
        put16(&packet.bytes[4], datagram);
        put16(&packet.bytes[6], 0x2000);  // more fragments
    }
    static void write_ipv6(wire_packet& packet, uint32_t source, uint32_t datagram) {
        uint8_t* fragment = put_ipv6(packet, 44, 8 + udp_size + data, source);
        fragment[0] = udp;
        fragment[1] = 0;
        put16(fragment + 2, 1);  // offset 0, more fragments
        put32(fragment + 4, datagram);
        put_udp(fragment + 8, 40'000, 53, 1000);
    }
};

class short_packet_attack : public attack {
public:
    short_packet_attack() {
        constexpr uint32_t options = 8;
        constexpr uint32_t data = 12;
        const auto add = [this](uint32_t headers) {
            shapes_.push_back({wire_packet{}, headers});
            return &shapes_.back().whole;
        };
        wire_packet* next = add(ipv4_size + tcp_size);
        put_tcp(put_ipv4(*next, tcp, tcp_size + data, 0x0B000001, target), 40'000, 80, syn);
        next = add(ipv4_size + options + tcp_size + options);
        put_tcp(put_ipv4(*next, tcp, tcp_size + options, 0x0B000002, target, ipv4_size + options),
                40'000, 80, syn, tcp_size + options);
        next = add(ipv4_size + udp_size);
        put_udp(put_ipv4(*next, udp, udp_size + data, 0x0B000003, target), 40'000, 53,
                udp_size + data);
        next = add(ipv6_size + tcp_size);
        put_tcp(put_ipv6(*next, tcp, tcp_size + data, 4), 40'000, 80, syn);
        next = add(ipv6_size + options + udp_size);
        uint8_t* hop_by_hop = put_ipv6(*next, 0, options + udp_size + data, 5);
        hop_by_hop[0] = udp;
        put_udp(hop_by_hop + options, 40'000, 53, udp_size + data);
        for (const shape& each : shapes_)
            turn_ += each.whole.captured + 1;
    }

    // Every shape at every length, the whole one included, and then again.
    void write(uint64_t number, wire_packet& packet) override {
        auto at = static_cast<uint32_t>(number % turn_);
        auto next = shapes_.begin();
        for (; at > next->whole.captured; ++next)
            at -= next->whole.captured + 1;
        packet = next->whole;
        packet.captured = at;
    }
    uint64_t broken_of(uint64_t packets) const override {
        const uint64_t a_turn =
            std::accumulate(shapes_.begin(), shapes_.end(), uint64_t{0},
                            [](uint64_t sum, const shape& each) { return sum + each.headers; });
        uint64_t broken = packets / turn_ * a_turn;
        uint64_t left = packets % turn_;
        for (auto next = shapes_.begin(); left > 0; ++next) {
            broken += std::min<uint64_t>(left, next->headers);
            left -= std::min<uint64_t>(left, next->whole.captured + 1);
        }
        return broken;
    }

private:
    struct shape {
        wire_packet whole;
        uint32_t headers;  // bytes that a packet needs to be read
    };
    std::vector<shape> shapes_;
    uint32_t turn_ = 0;
};

class port_scan_attack : public attack {
public:
    // One port in 64 is silent, and asked once more.
    void write(uint64_t number, wire_packet& packet) override {
        const auto probe = static_cast<uint32_t>(number / 2);
        const uint32_t host = target + probe / ports;
        const uint32_t port = 1 + probe % ports;
        if (number % 2 == 0 || port % 64 == 0)
            put_tcp(put_ipv4(packet, tcp, tcp_size, scanner, host), 40'000, port, syn);
        else
            put_answer(put_ipv4(packet, tcp, tcp_size, host, scanner), port);
    }

private:
    static constexpr uint32_t ports = 65'535;
    static constexpr uint32_t scanner = 0xC6336301;

    // RFC 9293 3.10.7.1: the number of the SYN is acknowledged.
    static void put_answer(uint8_t* at, uint32_t port) {
        put_tcp(at, port, 40'000, rst_ack);
        put32(at + 8, 1);
    }
};

class first_packets_attack : public attack {
public:
    explicit first_packets_attack(std::vector<zon_flow_tuple_t> tuples)
        : tuples_(std::move(tuples)) {}

    std::span<const zon_flow_tuple_t> tuples() const override { return tuples_; }

    void write(uint64_t number, wire_packet& packet) override {
        const zon_flow_tuple_t& tuple = tuples_[number / 2 % tuples_.size()];
        const uint32_t source = tuple.src_ip.u.v4_addr;
        const uint32_t destination = tuple.dst_ip.u.v4_addr;
        if (number % 2 == 0)
            put_tcp(put_ipv4(packet, tcp, tcp_size, source, destination), tuple.src_port,
                    tuple.dst_port, syn);
        else
            put_udp(put_ipv4(packet, udp, udp_size, source, destination), tuple.src_port,
                    tuple.dst_port, udp_size);
    }

private:
    std::vector<zon_flow_tuple_t> tuples_;
};

}  // namespace

std::unique_ptr<attack> syn_flood() {
    return std::make_unique<syn_flood_attack>();
}
std::unique_ptr<attack> first_fragments() {
    return std::make_unique<fragment_attack>();
}
std::unique_ptr<attack> short_packets() {
    return std::make_unique<short_packet_attack>();
}
std::unique_ptr<attack> port_scan() {
    return std::make_unique<port_scan_attack>();
}
std::unique_ptr<attack> first_packets_of(std::vector<zon_flow_tuple_t> tuples) {
    return std::make_unique<first_packets_attack>(std::move(tuples));
}

zon_flow_tuple_t tuple_of(const uint8_t* packet) {
    const uint8_t* ports = packet + ipv4_size;
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    tuple.src_ip.u.v4_addr = get32(packet + 12);
    tuple.dst_ip.u.v4_addr = get32(packet + 16);
    tuple.src_port = static_cast<uint16_t>(get16(ports));
    tuple.dst_port = static_cast<uint16_t>(get16(ports + 2));
    tuple.l4_protocol = packet[9];
    return tuple;
}

}  // namespace zon_bench

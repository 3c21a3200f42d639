// day_packets.h - the kinds of traffic of a long run, as packets that are cheap to vary.

#pragma once

#include <array>
#include <cstdint>

#include "support/packet_builder.h"
#include "zon.h"

namespace zon_test {

enum class traffic {
    udp,
    udp6,
    tcp_opening,
    tcp_midway,
    tcp6,
    tunneled,
    announced,
    fragmented,
    end
};
inline constexpr size_t traffic_kinds = static_cast<size_t>(traffic::end);

inline constexpr uint32_t opening_ms = 5000;
inline constexpr uint32_t announced_ms = 10000;

// From client number n, 10.0.0.0 or 2001:db8:: + n, to one server, or back.
class day_packet {
public:
    static bytes of(traffic kind, uint32_t connection, bool back = false) {
        return addressed(pattern(kind, false), kind, connection, back);
    }
    // It closes the session.
    static bytes reset(traffic kind, uint32_t connection) {
        return addressed(pattern(kind, true), kind, connection, false);
    }
    static bytes first_fragment(uint32_t connection, uint16_t ident) {
        static const bytes first =
            packet_builder::ipv4(0u, 0u).udp(1, 1).payload(8).fragment(0, true, 0).build();
        bytes packet = addressed(first, traffic::fragmented, connection, false);
        put16(packet, 4, ident);
        return packet;
    }
    static bool is_ipv6(traffic kind) {
        return kind == traffic::udp6 || kind == traffic::tcp6 || kind == traffic::tunneled;
    }
    static bool is_udp(traffic kind) { return !is_tcp(kind) && kind != traffic::announced; }
    static bool is_tcp(traffic kind) {
        return kind == traffic::tcp_opening || kind == traffic::tcp_midway || kind == traffic::tcp6;
    }
    static zon_flow_tuple_t tuple(uint32_t connection) {
        zon_flow_tuple_t tuple{};
        tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
        tuple.src_ip.u.v4_addr = clients + connection;
        tuple.dst_ip.u.v4_addr = server;
        tuple.src_port = client_port;
        tuple.dst_port = server_port;
        tuple.l4_protocol = 17;
        return tuple;
    }

private:
    static constexpr uint32_t clients = 0x0A000000;
    static constexpr uint32_t server = 0xC0000201;
    static constexpr uint16_t client_port = 40000;
    static constexpr uint16_t server_port = 5000;

    static bytes build(traffic kind, bool resets) {
        const packet_builder ip = is_ipv6(kind) ? packet_builder::ipv6("2001:db8::", "2001:db8::")
                                                : packet_builder::ipv4(0u, 0u);
        packet_builder packet = ip;
        if (is_tcp(kind)) {
            const uint8_t flag = kind == traffic::tcp_midway ? tcp_ack : tcp_syn;
            return packet.tcp(1, 1).flags(resets ? tcp_rst : flag).build();
        }
        packet.udp(1, 1).payload(1);
        return kind == traffic::tunneled ? in_ipv4("198.51.100.1", "198.51.100.2", packet.build())
                                         : packet.build();
    }

    static const bytes& pattern(traffic kind, bool resets) {
        static const auto patterns = [] {
            std::array<std::array<bytes, 2>, traffic_kinds> all;
            for (size_t which = 0; which < traffic_kinds; ++which)
                all[which] = {build(static_cast<traffic>(which), false),
                              build(static_cast<traffic>(which), true)};
            return all;
        }();
        return patterns[static_cast<size_t>(kind)][resets ? 1 : 0];
    }

    static bytes addressed(bytes packet, traffic kind, uint32_t connection, bool back) {
        const bool ipv6 = is_ipv6(kind);
        const size_t start = kind == traffic::tunneled ? 20 : 0;
        const size_t source = start + (ipv6 ? 20 : 12);
        const size_t destination = start + (ipv6 ? 36 : 16);
        const size_t ports = start + (ipv6 ? 40 : 20);
        put32(packet, back ? destination : source, clients + connection);
        put32(packet, back ? source : destination, server);
        put16(packet, ports, back ? server_port : client_port);
        put16(packet, ports + 2, back ? client_port : server_port);
        return packet;
    }
};

}  // namespace zon_test

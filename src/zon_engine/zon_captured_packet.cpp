// zon_captured_packet.cpp - the checks of captured packets, header by header.
//
// Knows nothing of flows, counters or capabilities.

#include "zon_engine/zon_captured_packet.h"

#include <algorithm>

#include "zon_bytes.h"
#include "zon_fe_inline.h"
#include "zon_fe_ondemand.h"

namespace {

constexpr size_t ipv4_min_size = 20;
constexpr size_t ipv6_size = 40;
constexpr size_t tcp_min_size = 20;
constexpr size_t udp_size = 8;
constexpr uint8_t no_next_header = 59;
constexpr size_t longest_datagram = 65535;

// What a later fragment is read for: the would-be ports, and the would-be TCP header's length.
constexpr size_t later_tcp_bytes = 13;
constexpr size_t later_udp_bytes = 4;

packet_check require(bool holds) {
    return holds ? packet_check::sound : packet_check::refused;
}

// room: bytes from the header on that may be read.
packet_check check_tcp(const uint8_t* tcp, size_t room) {
    if (room < tcp_min_size)
        return packet_check::refused;
    const size_t header = (tcp[12] >> 4) * 4U;
    return require(header >= tcp_min_size && header <= room);
}

// datagram: bytes that the IP header promises from the UDP header on. The length field of a first
// fragment covers the whole datagram, so that it may promise more.
packet_check check_udp(const uint8_t* udp, size_t room, size_t datagram, bool is_first_fragment) {
    if (room < udp_size)
        return packet_check::refused;
    const size_t length = load_be16(udp + 4);
    return require(length >= udp_size && (is_first_fragment || length <= datagram));
}

packet_check check_later_fragment(uint8_t protocol, size_t room) {
    const size_t read = protocol == ZON_TCP_PROT   ? later_tcp_bytes
                        : protocol == ZON_UDP_PROT ? later_udp_bytes
                                                   : 0;
    return room < read ? packet_check::unreadable_fragment : packet_check::sound;
}

// A packet inside IP protocol 41. What is not IPv6 is not looked into. The look is a silent one: a
// packet that is classified is parsed again, and a host that reads the trace expects its lines
// once.
packet_check check_inner(uint8_t* inner, size_t room) {
    if (room < 1)
        return packet_check::refused;
    if (inner[0] >> 4 != 6)
        return packet_check::sound;
    zon_dp_fe_t fe{};
    return require(zon_check_captured_ipv6(inner, room, fe, fe_lines::silent) !=
                   packet_check::refused);
}

packet_check check_ipv4(uint8_t* ip, size_t available, zon_dp_fe_t& fe) {
    const size_t header = (ip[0] & 15) * 4U;
    const size_t total = load_be16(ip + 2);
    if (header < ipv4_min_size || total < header) {
        fe = {};
        return packet_check::refused;
    }
    // Bytes behind the datagram are padding of the link layer.
    const size_t room = std::min(available, total) - header;
    const zon_ip_frag_e fragment = zon_ipv4_frag_type(&fe);
    const bool is_later = fragment == zon_ip_frag_middle || fragment == zon_ip_frag_last;
    switch (fe.protocol) {
    case ZON_TCP_PROT:
    case ZON_UDP_PROT:
    case ZON_IPV6_ENCAPSULATION_PROT:
        break;
    default:
        return packet_check::sound;
    }
    if (is_later) {
        const size_t offset = (load_be16(ip + 6) & 0x1FFFU) * 8U;
        if (offset + (total - header) > longest_datagram)
            return packet_check::refused;
        return check_later_fragment(fe.protocol, room);
    }
    if (fe.protocol == ZON_TCP_PROT)
        return check_tcp(fe.l4_start, room);
    if (fe.protocol == ZON_UDP_PROT)
        return check_udp(fe.l4_start, room, total - header, fragment == zon_ip_frag_first);
    return check_inner(fe.l4_start, room);
}

}  // namespace

packet_check zon_check_captured_ipv6(uint8_t* ip, size_t available, zon_dp_fe_t& fe,
                                     fe_lines lines) {
    if (available < ipv6_size)
        return packet_check::refused;
    const size_t payload = load_be16(ip + 4);
    const size_t limit = std::min(available, ipv6_size + payload);
    const fe_extent extent = zon_fe_extract_fields_within(ip, limit, &fe, lines);
    const bool is_jumbogram = payload == 0 && ip[6] != no_next_header;
    if (extent == fe_extent::broken || is_jumbogram)
        return packet_check::refused;
    if (extent == fe_extent::hidden)
        return packet_check::unreadable_fragment;
    if (fe.l4_start == nullptr)
        return packet_check::sound;
    const auto header = static_cast<size_t>(fe.l4_start - ip);
    const size_t room = limit - header;
    const zon_ip_frag_e fragment = zon_ipv6_frag_type(&fe);
    if (fragment == zon_ip_frag_middle || fragment == zon_ip_frag_last)
        return check_later_fragment(fe.protocol, room);
    switch (fe.protocol) {
    case ZON_TCP_PROT:
        return check_tcp(fe.l4_start, room);
    case ZON_UDP_PROT:
        return check_udp(fe.l4_start, room, ipv6_size + payload - header,
                         fragment == zon_ip_frag_first);
    default:
        return packet_check::sound;
    }
}

packet_check zon_check_captured_packet(uint8_t* ip, size_t available, zon_dp_fe_t& fe) {
    if (available < 1)
        return packet_check::refused;
    if (ip[0] >> 4 == 6)
        return zon_check_captured_ipv6(ip, available, fe);
    if (zon_fe_extract_fields_within(ip, available, &fe) != fe_extent::complete)
        return packet_check::refused;
    // Of an unknown version nothing more is read.
    return fe.l3_proto == ZON_L3_IPV4 ? check_ipv4(ip, available, fe) : packet_check::sound;
}

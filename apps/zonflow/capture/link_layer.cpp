// link_layer.cpp - steps over link-layer headers, each checked against the captured bytes before it
// is read.
#include "capture/link_layer.h"

#include <array>

namespace zonflow {

namespace {

using bytes = std::span<const uint8_t>;

constexpr uint16_t ethertype_ipv4 = 0x0800;
constexpr uint16_t ethertype_ipv6 = 0x86dd;
constexpr uint16_t ethertype_mpls_unicast = 0x8847;
constexpr uint16_t ethertype_mpls_multicast = 0x8848;  // RFC 5332: both are MPLS
constexpr uint16_t ethertype_pppoe_session = 0x8864;
constexpr uint16_t ethertype_customer_vlan = 0x8100;
constexpr uint16_t ethertype_service_vlan = 0x88a8;
constexpr uint16_t ethertype_older_service_vlan = 0x9100;

// PPP protocol numbers; without the leading zero byte where the sender compressed it (RFC
// 1661 6.5).
constexpr uint16_t ppp_ipv4 = 0x0021;
constexpr uint16_t ppp_ipv6 = 0x0057;
constexpr uint16_t ppp_mpls_unicast = 0x0281;
constexpr uint16_t ppp_mpls_multicast = 0x0283;

constexpr link_result not_ip{link_verdict::not_ip, {}, 0};
constexpr link_result cut{link_verdict::cut, {}, 0};

uint16_t big_endian_16(bytes data, size_t at) {
    return static_cast<uint16_t>(data[at] << 8 | data[at + 1]);
}

link_result ip_at(bytes rest) {
    return rest.empty() ? cut : link_result{link_verdict::ip, rest, 0};
}

// The label stack says nothing of its payload; the first four bits tell IP from anything else (RFC
// 4928 3).
link_result behind_mpls(bytes rest) {
    for (bool bottom_of_stack = false; !bottom_of_stack; rest = rest.subspan(4)) {
        if (rest.size() < 4) {
            return cut;
        }
        bottom_of_stack = (rest[2] & 1) != 0;
    }
    if (rest.empty()) {
        return cut;
    }
    const int nibble = rest[0] >> 4;
    return nibble == 4 || nibble == 6 ? ip_at(rest) : not_ip;
}

link_result behind_ppp_protocol(uint16_t protocol, bytes rest) {
    switch (protocol) {
    case ppp_ipv4:
    case ppp_ipv6:
        return ip_at(rest);
    case ppp_mpls_unicast:
    case ppp_mpls_multicast:
        return behind_mpls(rest);
    default:
        return not_ip;
    }
}

// RFC 2516 4 and 6: six bytes of header, then a PPP packet. A code other than 0 carries no data.
link_result behind_pppoe(bytes rest) {
    if (rest.size() < 7) {
        return cut;
    }
    if (rest[1] != 0) {
        return not_ip;
    }
    rest = rest.subspan(6);
    if ((rest[0] & 1) != 0) {
        return behind_ppp_protocol(rest[0], rest.subspan(1));
    }
    if (rest.size() < 2) {
        return cut;
    }
    return behind_ppp_protocol(big_endian_16(rest, 0), rest.subspan(2));
}

bool is_vlan_tag(uint16_t ethertype) {
    return ethertype == ethertype_customer_vlan || ethertype == ethertype_service_vlan ||
           ethertype == ethertype_older_service_vlan;
}

link_result behind_ethertype(uint16_t ethertype, bytes rest) {
    uint16_t outer_vlan = 0;
    for (bool outermost = true; is_vlan_tag(ethertype); outermost = false) {
        if (rest.size() < 4) {
            return cut;
        }
        if (outermost) {
            outer_vlan = big_endian_16(rest, 0) & 0x0fff;
        }
        ethertype = big_endian_16(rest, 2);
        rest = rest.subspan(4);
    }
    link_result result = not_ip;
    switch (ethertype) {
    case ethertype_ipv4:
    case ethertype_ipv6:
        result = ip_at(rest);
        break;
    case ethertype_mpls_unicast:
    case ethertype_mpls_multicast:
        result = behind_mpls(rest);
        break;
    case ethertype_pppoe_session:
        result = behind_pppoe(rest);
        break;
    default:
        break;
    }
    result.outer_vlan = outer_vlan;
    return result;
}

link_result find_in_ethernet(bytes frame) {
    return frame.size() < 14 ? cut : behind_ethertype(big_endian_16(frame, 12), frame.subspan(14));
}

link_result find_in_linux_cooked(bytes frame) {
    return frame.size() < 16 ? cut : behind_ethertype(big_endian_16(frame, 14), frame.subspan(16));
}

link_result find_in_linux_cooked_v2(bytes frame) {
    return frame.size() < 20 ? cut : behind_ethertype(big_endian_16(frame, 0), frame.subspan(20));
}

// Four bytes with an address family, in the byte order of whatever machine captured the frame. The
// families are small numbers, so the order shows. IPv6 has another number on nearly every system.
link_result find_in_bsd_loopback(bytes frame) {
    if (frame.size() < 4) {
        return cut;
    }
    const bool big_endian = frame[0] == 0 && frame[1] == 0;
    const uint32_t family = big_endian
                                ? big_endian_16(frame, 2)
                                : static_cast<uint32_t>(frame[0] | frame[1] << 8 | frame[2] << 16);
    switch (family) {
    case 2:   // every system: IPv4
    case 10:  // Linux
    case 24:  // NetBSD, OpenBSD
    case 28:  // FreeBSD
    case 30:  // macOS
        return ip_at(frame.subspan(4));
    default:
        return not_ip;
    }
}

link_result find_in_raw_ip(bytes frame) {
    return ip_at(frame);
}

struct known_type {
    int link_type;
    const char* name;
    link_result (*find)(bytes);
};

// The numbers of both the files and the systems that have numbers of their own for raw IP.
constexpr std::array<known_type, 10> known_types{{
    {0, "BSD loopback", find_in_bsd_loopback},
    {1, "Ethernet", find_in_ethernet},
    {12, "raw IP", find_in_raw_ip},
    {14, "raw IP", find_in_raw_ip},
    {101, "raw IP", find_in_raw_ip},
    {108, "OpenBSD loopback", find_in_bsd_loopback},
    {113, "Linux cooked v1", find_in_linux_cooked},
    {228, "raw IPv4", find_in_raw_ip},
    {229, "raw IPv6", find_in_raw_ip},
    {276, "Linux cooked v2", find_in_linux_cooked_v2},
}};

}  // namespace

std::optional<link_layer> link_layer::of_type(int link_type) {
    for (const known_type& known : known_types) {
        if (known.link_type == link_type) {
            return link_layer(known.find);
        }
    }
    return std::nullopt;
}

std::string known_link_types() {
    std::string text;
    for (const known_type& known : known_types) {
        text += (text.empty() ? "" : ", ") + std::to_string(known.link_type) + " " + known.name;
    }
    return text;
}

}  // namespace zonflow

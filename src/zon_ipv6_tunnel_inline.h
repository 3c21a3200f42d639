// zon_ipv6_tunnel_inline.h - finds the IPv6 packet inside a Teredo datagram (RFC 4380), whatever
// its ports.
//
// The search reads nothing behind the end that the caller gives it; a search that would have to is
// no Teredo.

#pragma once

#include <cstddef>
#include <cstdint>

#include "zon_bytes.h"

inline constexpr uint16_t zon_teredo_port = 3544;
inline constexpr uint32_t zon_teredo_prefix = 0x20010000;  // 2001::/32
inline constexpr uint8_t zon_link_local_byte =
    0xFE;  // Teredo clients and servers also use link-local addresses

// Offsets have 8 bits and one bit remembers an authentication: a search of more steps than these
// two can make goes round in circles.
inline constexpr unsigned zon_teredo_max_steps = 512;

inline bool zon_teredo_address_at(const uint8_t* udp, size_t available, size_t offset) {
    if (offset + 4 > available)
        return false;
    return load_be32(udp + offset) == zon_teredo_prefix || udp[offset] == zon_link_local_byte;
}

// Does an IPv6 header with an address that Teredo uses stand at the offset?
inline bool zon_teredo_check_ipv6_header(const uint8_t* udp, size_t available, uint8_t offset) {
    if (offset >= available || udp[offset] >> 4 != 6)
        return false;
    return zon_teredo_address_at(udp, available, offset + 8U) ||
           zon_teredo_address_at(udp, available, offset + 24U);
}

// Steps over the indicators that may stand before the inner packet.
inline uint8_t* zon_teredo_walk_indicators(uint8_t* udp, size_t available) {
    constexpr uint16_t origin_indication = 0;
    constexpr uint16_t authentication = 1;
    uint8_t offset = 8;
    bool authenticated = false;
    for (unsigned step = 0; step < zon_teredo_max_steps; ++step) {
        if (offset + 2U > available)
            return nullptr;
        const uint16_t type = load_be16(udp + offset);
        if (type == authentication) {
            if (authenticated || offset + 4U > available)
                return nullptr;
            authenticated = true;
            offset = static_cast<uint8_t>(offset + 13 + udp[offset + 2] + udp[offset + 3]);
        } else if (type == origin_indication) {
            offset = static_cast<uint8_t>(offset + 8);
        } else {
            return nullptr;
        }
        if (zon_teredo_check_ipv6_header(udp, available, offset))
            return udp + offset;
    }
    return nullptr;
}

// The inner packet of the UDP datagram at udp, of which available bytes may be read, header
// included (at least 4); null when it is no Teredo.
inline uint8_t* zon_teredo_find_inner_packet(uint8_t* udp, size_t available) {
    if (available <= 8)
        return nullptr;
    if (udp[8] >> 4 == 6) {
        const bool teredo_port =
            load_be16(udp) == zon_teredo_port || load_be16(udp + 2) == zon_teredo_port;
        return teredo_port || zon_teredo_check_ipv6_header(udp, available, 8) ? udp + 8 : nullptr;
    }
    return zon_teredo_walk_indicators(udp, available);
}

// zon_fe_ondemand.h - finds out where a packet's headers are.
//
// Extraction touches the IP header and the IPv6 extension headers only; everything else is read
// later, by the accessors of zon_fe_inline.h. It is written once for packets that are trusted and
// for captured ones: the caller says how many bytes may be read, or that nobody knows.
//
// Threads    any; only the caller's handle is written.

#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "osal/zon_debug.h"
#include "zon_bytes.h"
#include "zon_engine_defs.h"

// The limit of a packet that the host vouches for.
inline constexpr size_t zon_no_end = SIZE_MAX;

// More extension headers than any sender has a use for; counted in captured packets only.
inline constexpr unsigned zon_max_extension_headers = 16;

enum class fe_extent {
    complete,  // every header up to the transport layer lies within the limit
    broken,    // a header does not, or there are too many of them
    hidden     // a later fragment whose data would have to be read as further headers
};

// Whether the FE component may trace what is found; a first look at a packet that is parsed again
// later is silent, so that its lines are printed once.
enum class fe_lines { shown, silent };

// Fills fe from the packet at iphdr, of which limit bytes may be read. Fields of the other family
// are not written, nor is i2r_flag. For an unknown version only l3_proto and tunneled_flow_type
// are. After a broken chain l4_start is null.
fe_extent zon_fe_extract_fields_within(uint8_t* iphdr, size_t limit, zon_dp_fe_t* fe,
                                       fe_lines lines = fe_lines::shown);

constexpr bool zon_is_ipv6_extension(uint8_t next_header) {
    switch (next_header) {
    case 0:   // hop-by-hop options
    case 43:  // routing
    case 44:  // fragment
    case 50:  // encapsulating security payload
    case 51:  // authentication header
    case 60:  // destination options
        return true;
    default:
        return false;
    }
}

inline void zon_dp_fe_extract_fields_ipv4(void* iphdr, zon_dp_fe_t* fe) {
    auto* ip = static_cast<uint8_t*>(iphdr);
    fe->l3_proto = ZON_L3_IPV4;
    fe->network_start = ip;
    fe->l4_start = ip + (ip[0] & 15) * 4;
    fe->protocol = ip[9];
}

// Four host-order words, two at a time: as one store of eight bytes they are quick to read again in
// pieces of four or eight.
inline void zon_load_ipv6_address(uint32_t (&words)[4], const uint8_t* at) {
    for (size_t half = 0; half < 2; ++half) {
        uint64_t pair;
        std::memcpy(&pair, at + 8 * half, sizeof pair);
        pair = std::rotl(__builtin_bswap64(pair), 32);
        std::memcpy(&words[2 * half], &pair, sizeof pair);
    }
}

// The fixed header alone: l4_start stands right behind it, for a packet without extension headers.
inline void zon_dp_fe_extract_ipv6_header(uint8_t* ip, zon_dp_fe_t* fe) {
    fe->l3_proto = ZON_L3_IPV6;
    fe->network_start = ip;
    fe->l4_start = ip + 40;
    fe->protocol = ip[6];
    zon_load_ipv6_address(fe->ipv6_srcaddr, ip + 8);
    zon_load_ipv6_address(fe->ipv6_dstaddr, ip + 24);
    fe->ipv6_frag_hdr = nullptr;
    fe->ipv6_options_len = 0;
}

// The fixed header and the extension headers of a trusted packet.
void zon_dp_fe_extract_fields_ipv6(void* iphdr, zon_dp_fe_t* fe);

// Steps over the extension header of type current_prot at ptr. Null after an encrypted payload,
// which reports protocol 59 (no next header).
uint8_t* zon_ipv6_get_next_header(uint8_t* ptr, uint8_t current_prot, uint8_t* next_prot,
                                  zon_dp_fe_t* fe);

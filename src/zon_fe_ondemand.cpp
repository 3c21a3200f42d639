// zon_fe_ondemand.cpp - walks the extension headers of IPv6 packets, and dumps their headers for
// the trace.

#include "zon_fe_ondemand.h"

#include <cstdio>

#include "zon_fe_inline.h"
#include "zon_layout_check.h"
#include "zon_pkt_inline.h"

static_assert(sizeof(zon_dp_fe_t) == 88);

namespace {

constexpr uint8_t fragment_header = 44;
constexpr uint8_t encrypted_payload = 50;
constexpr uint8_t authentication_header = 51;
constexpr uint8_t no_next_header = 59;
constexpr size_t ipv4_min_header_size = 20;
constexpr size_t ipv6_header_size = 40;

// Bytes of the header at ptr (RFC 8200 4, RFC 4302 2.2).
unsigned extension_size(const uint8_t* ptr, uint8_t type) {
    switch (type) {
    case fragment_header:
        return 8;
    case authentication_header:
        return ptr[1] * 4U + 8;
    default:
        return ptr[1] * 8U + 8;
    }
}

bool is_later_fragment(const uint8_t* header) {
    return (load_be16(header + 2) & 0xFFF8) != 0;
}

void print_address(const uint32_t (&words)[4]) {
    for (const uint32_t word : words)
        std::printf("%x:%x:", word >> 16, word & 0xFFFF);
}

[[gnu::cold, gnu::noinline]] void dump_ipv6_header(const zon_dp_fe_t* fe) {
    zon_buginf("\nZON FE: ------- QAT IPv6 Packet Dump ----------\n");
    std::printf("ZON FE: src addr: ");
    print_address(fe->ipv6_srcaddr);
    std::printf(" dst addr: ");
    print_address(fe->ipv6_dstaddr);
    std::printf("\n");
    if (zon_tracing_fe())
        zon_buginf("\nZON FE: next header: 0x%x\n", fe->protocol);
}

// Steps over the header of type current_prot at ptr, without a word.
uint8_t* step_over(uint8_t* ptr, uint8_t current_prot, uint8_t* next_prot, zon_dp_fe_t* fe) {
    if (current_prot == encrypted_payload) {
        fe->protocol = no_next_header;
        *next_prot = no_next_header;
        return nullptr;
    }
    if (current_prot == fragment_header)
        fe->ipv6_frag_hdr = ptr;
    fe->protocol = ptr[0];
    *next_prot = ptr[0];
    return ptr + extension_size(ptr, current_prot);
}

// A trusted chain is followed wherever it leads: any number of headers, and the last fragment
// header counts. A captured one has to make sense.
fe_extent walk_extension_headers(zon_dp_fe_t* fe, size_t limit, fe_lines lines) {
    const auto next_header = lines == fe_lines::shown ? zon_ipv6_get_next_header : step_over;
    const bool trusted = limit == zon_no_end;
    uint8_t* const ip = fe->network_start;
    uint8_t* at = ip + ipv6_header_size;
    uint8_t type = fe->protocol;
    fe->l4_start = nullptr;
    fe->ipv6_frag_hdr = nullptr;
    fe->ipv6_options_len = 0;
    for (unsigned headers = 0; zon_is_ipv6_extension(type); ++headers) {
        if (!trusted && type != encrypted_payload) {
            const auto offset = static_cast<size_t>(at - ip);
            if (headers == zon_max_extension_headers || offset + 2 > limit ||
                offset + extension_size(at, type) > limit)
                return fe_extent::broken;
            if (type == fragment_header) {
                if (fe->ipv6_frag_hdr != nullptr)
                    return fe_extent::broken;
                if (is_later_fragment(at) && zon_is_ipv6_extension(at[0])) {
                    at = next_header(at, type, &type, fe);
                    fe->l4_start = at;
                    fe->ipv6_options_len = static_cast<uint16_t>(at - (ip + ipv6_header_size));
                    return fe_extent::hidden;
                }
            }
        }
        at = next_header(at, type, &type, fe);
        if (at == nullptr)
            return fe_extent::complete;
    }
    fe->l4_start = at;
    fe->ipv6_options_len = static_cast<uint16_t>(at - (ip + ipv6_header_size));
    return fe_extent::complete;
}

fe_extent extract_ipv6(uint8_t* ip, size_t limit, zon_dp_fe_t* fe, fe_lines lines) {
    if (limit < ipv6_header_size)
        return fe_extent::broken;
    zon_dp_fe_extract_ipv6_header(ip, fe);
    if (lines == fe_lines::shown && relaxed_load(zon_debug_flag_fe)) [[unlikely]]
        dump_ipv6_header(fe);
    return walk_extension_headers(fe, limit, lines);
}

}  // namespace

uint8_t* zon_ipv6_get_next_header(uint8_t* ptr, uint8_t current_prot, uint8_t* next_prot,
                                  zon_dp_fe_t* fe) {
    uint8_t* next = step_over(ptr, current_prot, next_prot, fe);
    if (next != nullptr && zon_tracing_fe()) [[unlikely]]
        zon_buginf(
            "\nZON FE: zon_ipv6_get_next_header: Get next header, new proto %d (0x%x), header len "
            "= %d\n",
            ptr[0], static_cast<unsigned>(ptr[0]), static_cast<int>(next - ptr));
    return next;
}

void zon_dp_fe_extract_fields_ipv6(void* iphdr, zon_dp_fe_t* fe) {
    extract_ipv6(static_cast<uint8_t*>(iphdr), zon_no_end, fe, fe_lines::shown);
}

fe_extent zon_fe_extract_fields_within(uint8_t* iphdr, size_t limit, zon_dp_fe_t* fe,
                                       fe_lines lines) {
    fe->l3_proto = ZON_L3_OTHER;
    fe->tunneled_flow_type = ZON_TUNNEL_TYPE_NONE;
    if (limit < 1)
        return fe_extent::broken;
    switch (iphdr[0] >> 4) {
    case 4:
        if (limit < ipv4_min_header_size || limit < (iphdr[0] & 15U) * 4)
            return fe_extent::broken;
        zon_dp_fe_extract_fields_ipv4(iphdr, fe);
        return fe_extent::complete;
    case 6:
        return extract_ipv6(iphdr, limit, fe, lines);
    default:
        return fe_extent::complete;
    }
}

void zon_fe_extract_fields(void* iphdr, zon_fe_handle fe) {
    zon_fe_extract_fields_within(static_cast<uint8_t*>(iphdr), zon_no_end,
                                 static_cast<zon_dp_fe_t*>(fe));
}

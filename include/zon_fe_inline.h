/* zon_fe_inline.h - reads fields of a parsed packet on demand.
 *
 * A parse handle (zon_dp_fe_t) holds little more than where the headers start; whatever else is
 * wanted is read from the packet here. Nothing is checked: the bytes must be there, and the
 * accessor must suit the packet's family and protocol.
 *
 * Threads    any; only the handle and the packet are read.
 * Byte order results are in host order; packets may stand at any address.
 */
#ifndef ZON_FE_INLINE_H
#define ZON_FE_INLINE_H

#include "zon_engine_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Big-endian words at any address. */
static inline uint16_t zon_be16_at(const void* at) {
    const uint8_t* bytes = (const uint8_t*)at;
    return (uint16_t)((bytes[0] << 8) | bytes[1]);
}
static inline uint32_t zon_be32_at(const void* at) {
    const uint8_t* bytes = (const uint8_t*)at;
    return ((uint32_t)bytes[0] << 24) | ((uint32_t)bytes[1] << 16) | ((uint32_t)bytes[2] << 8) |
           bytes[3];
}

/* The same under their short names. <arpa/nameser.h> and <resolv.h> have macros of these names that
 * mean something else: a host that includes one of them has those, whichever comes first. */
#ifndef GETSHORT
static inline uint16_t GETSHORT(const void* at) {
    return zon_be16_at(at);
}
#endif
#ifndef GETLONG
static inline uint32_t GETLONG(const void* at) {
    return zon_be32_at(at);
}
#endif

/* Bytes of storage that a parse handle needs. */
static inline size_t zon_fe_size(void) {
    return sizeof(zon_dp_fe_t);
}

/* ---- network layer ---- */

/* IPv4: total length without the header, modulo 2^16 (RFC 791 3.1). IPv6: the payload length field,
 * extension headers included (RFC 8200 3). 0 for neither. */
static inline uint32_t zon_token_ip_l3_payload_size(const zon_fe_handle fe) {
    const zon_dp_fe_t* parsed = (const zon_dp_fe_t*)fe;
    switch (parsed->l3_proto) {
    case ZON_L3_IPV4:
        return (uint16_t)(zon_be16_at(parsed->network_start + 2) -
                          (parsed->network_start[0] & 15) * 4);
    case ZON_L3_IPV6:
        return zon_be16_at(parsed->network_start + 4);
    default:
        return 0;
    }
}

static inline uint32_t zon_ipv4_srcip(const zon_fe_handle fe) {
    return zon_be32_at(((const zon_dp_fe_t*)fe)->network_start + 12);
}
static inline uint32_t zon_ipv4_dstip(const zon_fe_handle fe) {
    return zon_be32_at(((const zon_dp_fe_t*)fe)->network_start + 16);
}

/* The four host-order words of an address, inside the handle. */
static inline const uint32_t* zon_ipv6_srcip(const zon_fe_handle fe) {
    return ((const zon_dp_fe_t*)fe)->ipv6_srcaddr;
}
static inline const uint32_t* zon_ipv6_dstip(const zon_fe_handle fe) {
    return ((const zon_dp_fe_t*)fe)->ipv6_dstaddr;
}

/* Non-zero when the packet runs from the flow's initiator to its responder; known once the engine
 * has seen it. */
static inline uint8_t zon_token_pack_dir_i2r(const zon_fe_handle fe) {
    return ((const zon_dp_fe_t*)fe)->i2r_flag;
}

/* ---- fragments ---- */

/* Where a packet stands in its datagram, by its fragment offset (in any unit) and its
 * more-fragments bit. */
static inline zon_ip_frag_e zon_ip_frag_logic(uint16_t frag_offset, uint16_t more_frag) {
    if (frag_offset == 0)
        return more_frag != 0 ? zon_ip_frag_first : zon_ip_frag_none;
    return more_frag != 0 ? zon_ip_frag_middle : zon_ip_frag_last;
}

static inline zon_ip_frag_e zon_ipv4_frag_type(const zon_fe_handle fe) {
    const uint16_t word = zon_be16_at(((const zon_dp_fe_t*)fe)->network_start + 6);
    return zon_ip_frag_logic((uint16_t)(word & 0x1FFF), (uint16_t)(word & 0x2000));
}
static inline bool zon_ipv4_is_frag(const zon_fe_handle fe) {
    return zon_ipv4_frag_type(fe) != zon_ip_frag_none;
}
static inline bool zon_ipv4_is_first_frag(const zon_fe_handle fe) {
    return zon_ipv4_frag_type(fe) == zon_ip_frag_first;
}
/* A packet without a fragment header is not a fragment. */
static inline zon_ip_frag_e zon_ipv6_frag_type(const zon_fe_handle fe) {
    const uint8_t* header = ((const zon_dp_fe_t*)fe)->ipv6_frag_hdr;
    if (header == NULL)
        return zon_ip_frag_none;
    return zon_ip_frag_logic((uint16_t)(zon_be16_at(header + 2) & 0xFFF8),
                             (uint16_t)(header[3] & 1));
}

static inline uint16_t zon_ipv4_frag_id(const zon_fe_handle fe) {
    return zon_be16_at(((const zon_dp_fe_t*)fe)->network_start + 4);
}
/* Only for a packet with a fragment header. */
static inline uint32_t zon_ipv6_frag_id(const zon_fe_handle fe) {
    return zon_be32_at(((const zon_dp_fe_t*)fe)->ipv6_frag_hdr + 4);
}

/* ---- transport layer ---- */

/* Ports of a TCP or UDP packet. */
static inline uint16_t zon_srcport(const zon_fe_handle fe) {
    return zon_be16_at(((const zon_dp_fe_t*)fe)->l4_start);
}
static inline uint16_t zon_dstport(const zon_fe_handle fe) {
    return zon_be16_at(((const zon_dp_fe_t*)fe)->l4_start + 2);
}

/* First byte behind the TCP or UDP header; NULL for another protocol. */
static inline uint8_t* zon_token_l4_payload_start(const zon_fe_handle fe) {
    const zon_dp_fe_t* parsed = (const zon_dp_fe_t*)fe;
    switch (parsed->protocol) {
    case ZON_TCP_PROT:
        return parsed->l4_start + (parsed->l4_start[12] >> 4) * 4;
    case ZON_UDP_PROT:
        return parsed->l4_start + 8;
    default:
        return NULL;
    }
}

/* The length field without the header, modulo 2^16 (RFC 768). */
static inline uint32_t zon_token_udp_datalen(const zon_fe_handle fe) {
    return (uint16_t)(zon_be16_at(((const zon_dp_fe_t*)fe)->l4_start + 4) - 8);
}

/* TCP payload by the length fields, modulo 2^16; 0 when the packet is neither IPv4 nor IPv6. */
static inline uint32_t zon_token_tcp_datalen(const zon_fe_handle fe) {
    const zon_dp_fe_t* parsed = (const zon_dp_fe_t*)fe;
    const uint32_t tcp_header = (parsed->l4_start[12] >> 4) * 4u;
    switch (parsed->l3_proto) {
    case ZON_L3_IPV4:
        return (uint16_t)(zon_token_ip_l3_payload_size(fe) - tcp_header);
    case ZON_L3_IPV6:
        return (uint16_t)(zon_token_ip_l3_payload_size(fe) - parsed->ipv6_options_len - tcp_header);
    default:
        return 0;
    }
}

/* RFC 9293 3.1. */
static inline uint32_t zon_token_tcp_seq(const zon_fe_handle fe) {
    return zon_be32_at(((const zon_dp_fe_t*)fe)->l4_start + 4);
}
static inline uint32_t zon_token_tcp_acknum(const zon_fe_handle fe) {
    return zon_be32_at(((const zon_dp_fe_t*)fe)->l4_start + 8);
}
static inline uint16_t zon_token_tcp_window(const zon_fe_handle fe) {
    return zon_be16_at(((const zon_dp_fe_t*)fe)->l4_start + 14);
}
static inline bool zon_token_tcp_flags_fin(const zon_fe_handle fe) {
    return (((const zon_dp_fe_t*)fe)->l4_start[13] & 0x01) != 0;
}
static inline bool zon_token_tcp_flags_syn(const zon_fe_handle fe) {
    return (((const zon_dp_fe_t*)fe)->l4_start[13] & 0x02) != 0;
}
static inline bool zon_token_tcp_flags_rst(const zon_fe_handle fe) {
    return (((const zon_dp_fe_t*)fe)->l4_start[13] & 0x04) != 0;
}
static inline bool zon_token_tcp_flags_psh(const zon_fe_handle fe) {
    return (((const zon_dp_fe_t*)fe)->l4_start[13] & 0x08) != 0;
}
static inline bool zon_token_tcp_flags_ack(const zon_fe_handle fe) {
    return (((const zon_dp_fe_t*)fe)->l4_start[13] & 0x10) != 0;
}
static inline bool zon_token_tcp_flags_urg(const zon_fe_handle fe) {
    return (((const zon_dp_fe_t*)fe)->l4_start[13] & 0x20) != 0;
}

#ifdef __cplusplus
}
#endif

#endif

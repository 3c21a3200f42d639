/* zon_flow_tuple.h - how a client describes a connection.
 *
 * Byte order  IPv4 addresses and ports are in host order: 10.0.0.1 is 0x0A000001. The 16 bytes of
 *             an IPv6 address are four 32-bit words in host order as well, so on x86-64 each group
 *             of four bytes is reversed: 2001:db8::1 is b8 0d 01 20, eight zero bytes, 01 00 00 00.
 */
#ifndef ZON_FLOW_TUPLE_H
#define ZON_FLOW_TUPLE_H

#include "zon_api_enum.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum zon_ip_addr_e_ ZON_ENUM_BASE {
    ZON_IP_ADDR_IPV4 = 10,
    ZON_IP_ADDR_IPV6 = 11
} zon_ip_addr_e;

typedef uint8_t zon_ipv6_addr_t[16];

typedef struct zon_ip_addr_ {
    zon_ip_addr_e addr_type;
    union {
        uint32_t v4_addr;
        zon_ipv6_addr_t v6_addr;
    } u;
} zon_ip_addr_t;

/* Only src_ip.addr_type decides the family of the tuple; dst_ip.addr_type is not read. */
typedef struct zon_flow_tuple_ {
    zon_ip_addr_t src_ip;
    zon_ip_addr_t dst_ip;
    uint16_t src_port;
    uint16_t dst_port;
    uint32_t vrf_id;
    uint8_t l4_protocol; /* IP protocol number */
} zon_flow_tuple_t;

#ifdef __cplusplus
}
#endif

#endif

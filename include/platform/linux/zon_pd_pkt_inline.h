/* zon_pd_pkt_inline.h - the platform's side of packets: the host hooks and the packet context that
 * one of them reads.
 *
 * A host replaces a hook by defining a function of the same name; the library's own definitions are
 * weak and are called through the dynamic linker.
 *
 * Threads    the NAT hooks run on the packet threads, with the new flow locked.
 * Byte order addresses and ports in host order.
 */
#ifndef ZON_PD_PKT_INLINE_H
#define ZON_PD_PKT_INLINE_H

#include "../../zon_engine_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The packet context that zon_cleanup_packet reads. The pkt_ctx that travels with a packet stays
 * the host's own and is never looked into. */
typedef struct zon_pkt_ctx_ {
    zon_pkt_indications_t pkt_indications;
} zon_pkt_ctx_t;

/* VRF of a packet, for a host that computes vrf_id with it. Here: 0. */
ZON_API uint32_t zon_get_vrf_table_id(void* pak_type);

/* Whether the addresses of this packet are translated. Here: false. */
ZON_API bool zon_ipnat_enabled(void* pkt_ctx);
ZON_API bool zon_ipnat_translation_required(void* pkt_ctx);

/* Rewrites addresses and ports to their translated values, so that the responder's side of a new
 * flow is found under them. Called for IPv4 while a flow is created and NAT is enabled. What was
 * written counts, whatever is returned. Here: false, nothing changed. */
ZON_API bool zon_ipv4nat_fixup_ip_port(void* pkt_ctx, uint32_t* src_ip, uint16_t* src_port,
                                       uint32_t* dst_ip, uint16_t* dst_port, uint8_t protocol);
ZON_API bool zon_ipv4nat_get_translated_ip_port(void* pkt_ctx, uint32_t* src_ip, uint16_t* src_port,
                                                uint32_t* dst_ip, uint16_t* dst_port);

/* Called by the host when it is done with a packet (pak_ctx is a zon_pkt_ctx_t). A flow whose last
 * packet this was is given the idle time ZON_DEFAULT_MIN_AGING, so that it leaves within about a
 * second; true when that was done. An identifier above the engine's capacity aborts. */
ZON_API bool zon_cleanup_packet(void* pak_ctx);

#ifdef __cplusplus
}
#endif

#endif

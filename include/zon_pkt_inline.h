/* zon_pkt_inline.h - hands packets to the engine, and reads fields of parsed ones.
 *
 * A host hands in each IP packet once, from its IPv4 or IPv6 header on, and gets the packet's flow
 * and a record of indications. A packet that belongs to no flow returns 0, and the host forwards it
 * untouched. Where the error is 0 too, nothing went wrong:
 *   l3_protocol 0       an unknown IP version
 *   l4_error 14         a later fragment whose first one was not seen, or too short to be read
 *   tunnel_type not 0   a tunnelled packet whose protocol no client enabled, or a new one in a
 *                       tunnel that was disabled meanwhile
 *   none of these       a protocol that no client enabled (ICMP always); the data of a fragment
 *                       that looks like a tunnelled packet; rarely, an announced flow for which the
 *                       table had no room
 *
 * Threads    any number at once. The packet's bytes must not change during the call.
 * Locks      no call returns with a lock held.
 * Byte order the packet is in network order; everything that comes back is in host order.
 */
#ifndef ZON_PKT_INLINE_H
#define ZON_PKT_INLINE_H

#include "platform/linux/zon_pd_pkt_inline.h"
#include "zon_engine_defs.h"
#include "zon_fe_inline.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Classifies a packet that the host vouches for: whole, and with lengths that tell the truth.
 * Nothing behind those lengths is searched for a Teredo tunnel. Packets from outside belong to
 * zon_handle_captured_packet. Returns the flow's identifier or 0,
 * and always writes *zon_error:
 *   9 null indications, 15 no engine, 11 and 2 as zon_engine, else 0 */
ZON_API zon_fid_t zon_handle_packet(uint8_t* iphdr, uint32_t vrf_id, void* pkt_ctx,
                                    zon_pkt_indications_t* pkt_indications, zon_error_t* zon_error);

/* The same for a packet whose flow the platform already knows: the flow's state and packet count
 * are taken from the report. A platform_reported_dft_fid of 0 makes it zon_handle_packet; for one
 * that names no flow any more 0 is returned with the error 0. One above the engine's capacity is a
 * programming error and aborts, here and in zon_sync_captured_packet. */
ZON_API zon_fid_t zon_sync_packet(uint8_t* iphdr, uint32_t vrf_id, void* pkt_ctx,
                                  zon_pkt_indications_t* pkt_indications, zon_error_t* zon_error,
                                  zon_fid_t platform_reported_dft_fid,
                                  zon_l4_flow_state_e platform_reported_dft_flow_state,
                                  uint32_t platform_reported_flow_packet_number);

/* Classifies a packet of which captured_length bytes are there, whatever its headers claim: nothing
 * outside them is ever read. A packet whose headers do not fit into them, or contradict each other,
 * is refused: no flow, counter, fragment entry or client sees it, and the indications tell what
 * could be read (l3_start NULL: not even the IP header). Accepted packets are treated as by
 * zon_handle_packet, save that later fragments are read with more care: one too short to be read,
 * or whose data would have to be taken for further headers, returns 0 with is_fragment 1 and
 * l4_error 14; one whose data looks like a tunnelled packet is not classified. After a success the
 * host may read at most captured_length - (l7_start - iphdr) bytes of payload, and none where
 * l7_start lies behind the captured bytes, as it may in a later fragment (l4_error 14), whatever
 * l4_payload_size says: captures may be cut off, and the UDP length of a first fragment covers the
 * whole datagram.
 *   35 refused, also for a null iphdr or (without a place to say so) a null zon_error; else as
 *      zon_handle_packet */
ZON_API zon_fid_t zon_handle_captured_packet(uint8_t* iphdr, uint32_t captured_length,
                                             uint32_t vrf_id, void* pkt_ctx,
                                             zon_pkt_indications_t* pkt_indications,
                                             zon_error_t* zon_error);
ZON_API zon_fid_t zon_sync_captured_packet(uint8_t* iphdr, uint32_t captured_length,
                                           uint32_t vrf_id, void* pkt_ctx,
                                           zon_pkt_indications_t* pkt_indications,
                                           zon_error_t* zon_error,
                                           zon_fid_t platform_reported_dft_fid,
                                           zon_l4_flow_state_e platform_reported_dft_flow_state,
                                           uint32_t platform_reported_flow_packet_number);

/* One packet of a burst. The indications are the packet's own; a host that supplies hashes does so
 * in them, as ever. By the end of the burst the flow may have ended, and a later packet, with fif
 * 1, may have begun another of the same fid. */
typedef struct zon_burst_packet_ {
    uint8_t* iphdr;
    uint32_t captured_length; /* bytes that may be read from iphdr on */
    uint32_t vrf_id;
    void* pkt_ctx;
    zon_pkt_indications_t* pkt_indications;
    zon_error_t error; /* out */
    zon_fid_t fid;     /* out: the packet's flow, or 0 */
} zon_burst_packet_t;

/* Does with count packets, in their order, exactly what zon_handle_captured_packet does with each,
 * and returns how many have a flow: 0 for a null array. For hosts that poll rings: the memory that
 * one packet waits for is fetched while others are worked on, so that bursts of some 32 packets
 * take a fraction of the time wherever the flows do not fit into the caches. No packet and no
 * element may change meanwhile, not even in a client's function that the burst runs. */
ZON_API uint32_t zon_handle_packet_burst(zon_burst_packet_t* packets, uint32_t count);

/* Fills the parse handle fe (a zon_dp_fe_t) from the IP header of a whole packet. Fields of the
 * other family are not written; i2r_flag is the engine's. */
ZON_API void zon_fe_extract_fields(void* iphdr, zon_fe_handle fe);

#ifdef __cplusplus
}
#endif

#endif

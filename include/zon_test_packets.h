/* zon_test_packets.h - drives the engine without a network: packets are built from plain fields and
 * classified like any other.
 *
 * A packet of the kit is a minimal IP header with a TCP or UDP header some bytes behind it. Its
 * length fields speak of a payload that is not there: a client that reads payload must not meet
 * these packets.
 *
 * Threads    any number at once.
 * Locks      none is held on return.
 * Ownership  a builder's packet is the caller's until zon_fe_test_cleanup; a handler's is gone when
 *            it returns.
 * Units      bytes. payload_size goes into 16-bit length fields and counts modulo 2^16 there.
 * Byte order addresses and ports are given in host order, an IPv6 address as four host-order words;
 *            packets are in network order.
 */
#ifndef ZON_TEST_PACKETS_H
#define ZON_TEST_PACKETS_H

#include "zon_engine_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- builders ----
 *
 * Each puts a packet into a fresh buffer and fills the parse handle fe_hdl (a zon_dp_fe_t) for it:
 * network_start, l4_start, l3_proto and protocol, with IPv6 both addresses. i2r_flag, ipv6_frag_hdr
 * and tunneled_flow_type are the caller's. Without memory nothing is written: clear the handle
 * before, and a null network_start tells.
 *
 * The transport header is where l4_start says: at byte 24 of an IPv4 packet although the header's
 * length says 20, at byte 40 of an IPv6 packet. Whatever is not named below is 0. */

/* 52 bytes, IPv4. The TCP header's data offset is 0 and the total length counts 20 bytes less than
 * a true one, so that the payload length read from the packet is payload_size. Flags are SYN, ACK,
 * RST and FIN as asked, the window is 1024. */
ZON_API void zon_fe_test_fill_tcp_packet_fields(uint32_t saddr, uint32_t daddr, uint16_t sport,
                                                uint16_t dport, uint32_t seq_num, uint32_t ack_num,
                                                bool syn, bool ack, bool rst, bool fin,
                                                uint32_t payload_size, zon_fe_handle fe_hdl);
/* 52 bytes, IPv4. The handle, not the packet, tells the protocol. proto 6: ports, data offset 5 and
 * a total length for payload_size bytes of payload, no flag. proto 17: ports, the UDP length is
 * payload_size, which a reader takes to include the header of 8 bytes (RFC 768). Others: addresses
 * only. */
ZON_API void zon_fe_test_fill_packet_fields(uint32_t saddr, uint32_t daddr, uint16_t sport,
                                            uint16_t dport, uint8_t proto, uint32_t payload_size,
                                            zon_fe_handle fe_hdl);
/* 68 bytes, IPv6, with a true data offset. The addresses, four words each, are in the handle
 * alone; ipv6_options_len is set to 0. */
ZON_API void zon_fe_test_fill_ipv6_tcp_packet_fields(uint32_t* saddr, uint32_t* daddr,
                                                     uint16_t sport, uint16_t dport,
                                                     uint32_t seq_num, uint32_t ack_num, bool syn,
                                                     bool ack, bool rst, bool fin,
                                                     uint32_t payload_size, zon_fe_handle fe_hdl);
/* 68 bytes, IPv6. The next header is proto and the payload length payload_size, whichever
 * transport header is counted in; the rest is as for IPv4. */
ZON_API void zon_fe_test_fill_ipv6_packet_fields(uint32_t* saddr, uint32_t* daddr, uint16_t sport,
                                                 uint16_t dport, uint8_t proto,
                                                 uint32_t payload_size, zon_fe_handle fe_hdl);

/* Frees the packet of a handle that a builder filled, once. */
ZON_API void zon_fe_test_cleanup(zon_fe_handle fe);

/* ---- handlers ----
 *
 * Each builds a packet and classifies it with zon_engine, whatever capabilities are enabled.
 * pkt_indications, NULL where they are not wanted, are preset and filled as for any packet;
 * hash_valid is not read. The three pointers into the packet tell that it was seen, but it is gone.
 * Returns the flow's identifier, or 0 with *zon_error (NULL where it is not wanted):
 *   15 no engine
 *   2  no memory for the packet or its key, the indications are as they were; or as zon_engine
 *   11 as zon_engine
 *   unchanged when the table had no room for an announced flow
 * After a success, too, *zon_error may be as it was: set it to 0 before. */

ZON_API zon_fid_t zon_test_handle_tcp_packet_fields(uint32_t saddr, uint32_t daddr, uint16_t sport,
                                                    uint16_t dport, uint32_t vrfid,
                                                    uint32_t seq_num, uint32_t ack_num, bool syn,
                                                    bool ack, bool rst, bool fin,
                                                    uint32_t payload_size, void* pkt_ctx,
                                                    zon_pkt_indications_t* pkt_indications,
                                                    zon_error_t* zon_error);
/* A UDP packet of payload_size 0 to 7 counts as one with 65528 to 65535 bytes of payload, an IPv6
 * packet of proto 6 and payload_size 0 to 19 as one with 65516 to 65535; an IPv4 packet that is
 * neither TCP nor UDP has an l3_payload_size of 65516. A flow of such a protocol has ports 0. */
ZON_API zon_fid_t zon_test_handle_packet_fields(uint32_t saddr, uint32_t daddr, uint16_t sport,
                                                uint16_t dport, uint8_t proto, uint32_t vrfid,
                                                uint32_t payload_size, void* pkt_ctx,
                                                zon_pkt_indications_t* pkt_indications,
                                                zon_error_t* zon_error);
/* The same for IPv6; the addresses must not be NULL. */
ZON_API zon_fid_t zon_test_handle_ipv6_tcp_packet_fields(
    uint32_t* saddr, uint32_t* daddr, uint16_t sport, uint16_t dport, uint32_t vrfid,
    uint32_t seq_num, uint32_t ack_num, bool syn, bool ack, bool rst, bool fin,
    uint32_t payload_size, void* pkt_ctx, zon_pkt_indications_t* pkt_indications,
    zon_error_t* zon_error);
ZON_API zon_fid_t zon_test_handle_ipv6_packet_fields(uint32_t* saddr, uint32_t* daddr,
                                                     uint16_t sport, uint16_t dport, uint8_t proto,
                                                     uint32_t vrfid, uint32_t payload_size,
                                                     void* pkt_ctx,
                                                     zon_pkt_indications_t* pkt_indications,
                                                     zon_error_t* zon_error);

#ifdef __cplusplus
}
#endif

#endif

/* host.h - what the parts of the host share: the checks that it counts, packets, and what the
 * library prints.
 *
 * The host has only include/ and the shared library. Each part makes its own engine and leaves none
 * behind.
 */
#ifndef WHOLE_INTERFACE_HOST_H
#define WHOLE_INTERFACE_HOST_H

#include <stdio.h>
#include <string.h>
#include <zon.h>

#include "../udp_packet.h"

/* Counts what does not hold and prints it. */
void check(bool holds, const char* what);

/* An engine with timers, whose clock is turned by hand, and a client with TCP, UDP and bypass
 * enabled. */
zon_client_id_e make_engine(void);
void end_engine(void);

static const uint32_t host_a = 0x0a000001; /* 10.0.0.1 */
static const uint32_t host_b = 0x0a000002;

/* Hands in a UDP packet from host_a to host_b. */
zon_fid_t udp_flow(uint16_t from_port, uint16_t to_port, zon_pkt_indications_t* seen);
/* A SYN from host_a to host_b, by the packet kit. */
zon_fid_t tcp_flow(uint16_t from_port, uint16_t to_port, zon_pkt_indications_t* seen,
                   zon_error_t* error);
zon_flow_tuple_t tuple_of(uint16_t from_port, uint16_t to_port);

/* What is printed on a stream between the two calls; the text lives until the next one. */
void watch(FILE* stream);
const char* watched(FILE* stream);

void use_engine(void);
void use_clock_and_aging(void);
void use_texts_and_defaults(void);
void use_clients(void);
void use_groups(void);
void use_packets(void);
void use_packet_kit(void);
void use_hooks(void);
void use_lookups(void);
void use_feature_objects(void);
void use_announcements(void);
void use_queries(void);
void use_new_keys(void);
void use_figures(void);
void use_reports(void);

#endif

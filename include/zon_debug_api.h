/* zon_debug_api.h - what operators look at: reports of flows, dumps and statistics on standard
 * output.
 *
 * Threads    any; a dump runs beside traffic and may be slightly inconsistent. zon_destroy
 *            refuses while a dump runs, but that test and the destruction are not one step: do not
 *            start a dump while the engine is being destroyed.
 */
#ifndef ZON_DEBUG_API_H
#define ZON_DEBUG_API_H

#include "zon_engine_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef union zon_report_key_ {
    zon_key_t key;
    zon_ipv4_key_t ipv4;
    zon_ipv6_key_t ipv6;
} zon_report_key_t;

/* One flow at one moment. */
typedef struct zon_flow_report_ {
    zon_fid_t fid;
    uint8_t l4_sess_state;
    zon_tcp_state_t l4_tcp_state;
    uint64_t num_l7_bytes;
    uint32_t packet_number;
    uint32_t first_payload_seen_on_pkt_num;
    uint32_t app_id;
    uint32_t age_ms;
    uint8_t is_dropped : 1;
    uint8_t marked_for_delete : 1;
    zon_fid_t parent_fid;
    uint8_t hasFO[32]; /* every entry: does any client have a feature object on the flow */
    zon_report_key_t initiator_key;
    zon_report_key_t responder_key;
} zon_flow_report_t;

/* What a dump prints, and which flows pass its filter. */
typedef struct zon_dump_output_ {
    bool stats;
    bool active_flows;
    bool deleted_flows;
    bool histogram;
    uint8_t ip_type;  /* 0 no filter, 1 IPv4, 20 IPv6 */
    uint32_t* ipaddr; /* one or four words, as keys hold them */
    uint16_t port;
} zon_dump_output;

typedef struct zon_dump_flow_context_ {
    bool print_title;
    bool print_deleted;
    bool print_active;
    uint8_t ip_type;
    uint32_t* ipaddr;
    uint16_t port;
} zon_dump_flow_context;

typedef void (*fid_table_iterate_by_flow_cb_t)(zon_flow_report_t* report, void* user);

#ifdef __cplusplus
}
#endif

#endif

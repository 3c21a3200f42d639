/* zon_debug_api.h - what operators look at: reports of flows, dumps and statistics on standard
 * output.
 *
 * Threads    any; a dump runs beside traffic and may be slightly inconsistent. zon_destroy
 *            refuses while a dump runs, but that test and the destruction are not one step: do not
 *            start a dump while the engine is being destroyed. Dumps and walks give way to other
 *            threads at every hash bucket and every identifier: where others keep all processors
 *            busy, large tables take seconds to minutes.
 * Locks      every call returns with no lock taken; flows are locked one at a time, inside. Only
 *            zon_debug_flow_populate_report wants its flow locked by the caller.
 * Ownership  what a host passes stays its own; reports hold copies.
 * Errors     none: without an engine dumps, statistics and walks do nothing and write nothing. What
 *            works on a record of the host's own (reports, keys, the comparison) needs no engine.
 * Units      milliseconds (_ms), bytes; addresses and ports in host order, as keys hold them.
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
    uint8_t l4_sess_state; /* zon_l4_flow_state_e */
    zon_tcp_state_t l4_tcp_state;
    uint64_t num_l7_bytes;
    uint32_t packet_number;
    uint32_t first_payload_seen_on_pkt_num; /* 0 while none was seen */
    uint32_t app_id;
    uint32_t age_ms;
    uint8_t is_dropped : 1; /* never filled */
    uint8_t marked_for_delete : 1;
    zon_fid_t parent_fid; /* 0 without a parent */
    uint8_t hasFO[32];    /* every entry: does any client have a feature object on the flow */
    zon_report_key_t initiator_key;
    zon_report_key_t responder_key;
} zon_flow_report_t;

/* The families that a filter may name; 0 means no filter. */
typedef enum zon_dump_filter_e_ ZON_ENUM_BASE {
    L3_ADDR_IPV4 = 1,
    L3_ADDR_IPV6 = 20
} zon_dump_filter_e;

/* What a dump prints, and which flows pass its filter. A flow passes when either end of either
 * direction's key is the address and the port. */
typedef struct zon_dump_output_ {
    bool stats;
    bool active_flows;
    bool deleted_flows; /* prints the title alone: flows on their way out are not visited */
    bool histogram;
    uint8_t ip_type;  /* 0, L3_ADDR_IPV4 or L3_ADDR_IPV6; no flow passes another value */
    uint32_t* ipaddr; /* one or four host-order words; no flow passes NULL */
    uint16_t port;
} zon_dump_output;

/* The same for each flow of a walk. */
typedef struct zon_dump_flow_context_ {
    bool print_title;
    bool print_deleted;
    bool print_active;
    uint8_t ip_type;
    uint32_t* ipaddr;
    uint16_t port;
} zon_dump_flow_context;

/* Called with each report of a walk, outside all locks; the report is used again for the next. */
typedef void (*fid_table_iterate_by_flow_cb_t)(zon_flow_report_t* report, void* user);

/* ---- dumps ---- */

/* Prints what the engine was created with. */
ZON_API void zon_debug_global_params(void);

/* Prints, in this order and as *out asks: the statistics with the parameters, a line for each flow
 * in use, the depth of each hash bucket. "active flows" of the statistics counts half flows, two a
 * flow. A dump with a filter also prints a line of its own for each flow that it looks at. With
 * NULL the tables are walked and nothing is printed. */
ZON_API void zon_debug_flow_table_dump(zon_dump_output* out);

/* The figures of the flow table; NULL where one is not wanted.
 *   used            half flows in the table, two a flow
 *   bucket_average  over the buckets that are not empty
 *   distribution    receives an array of *size depths, or NULL without memory; free() it
 *   preflow_counts  receives the address of the table's own count of half flows per key type
 *                   (ZON_MAX_KEY entries, 0 and 5 unused), which lives as long as the engine and
 *                   goes on changing */
ZON_API void zon_debug_flow_table_stats(int32_t* size, int32_t* used, int32_t* empty,
                                        int32_t* occupied, int32_t* bucket_average,
                                        int32_t* bucket_maximum, int32_t** distribution,
                                        int32_t** preflow_counts);

/* Sets the counts of allocation failures, of insertions, deletions and passively aged flows to 0.
 */
ZON_API void zon_debug_flow_table_clear_stats(void);

/* ---- reports ---- */

/* Fills the report of a flow that the caller holds locked; of a snapshot (zon_flow_get_fo_by_fid)
 * while its flow is still locked. False, with the report untouched, when the filter of ctx rejects
 * the flow and for a NULL flow or report; a NULL ctx has no filter. The key of a side that the flow
 * lacks is zero. */
ZON_API bool zon_debug_flow_populate_report(zon_flow_t* flow, zon_flow_report_t* report,
                                            zon_dump_flow_context* ctx);

/* Calls cb with a report of each flow in use, in the order of identifiers. user also is the filter:
 * NULL, or the address of a zon_dump_flow_context, which a host may put at the head of a record of
 * its own. cb may call any operation of the library but those that end the engine. */
ZON_API void zon_test_fid_table_iterate_flow(fid_table_iterate_by_flow_cb_t cb, void* user);

/* Prints the title while ctx asks for it; else the line of one flow, if ctx (NULL: any) wants flows
 * like it. "Null report" for NULL. */
ZON_API void zon_debug_flow_print_report(zon_flow_report_t* report, zon_dump_flow_context* ctx);
/* The same, as a callback of a walk. */
ZON_API void zon_debug_iterate_call_back(zon_flow_report_t* report, void* user);

/* Prints a full key of its type's family, without a newline. Keys that were announced with a
 * complete tuple (types 3 and 8) print nothing at all, and operators know such flows by their
 * missing keys; nor does an unknown type. */
ZON_API void zon_debug_flow_key_dump(zon_key_t* key);

/* Whether one end of a key is this address and port; false for a family other than the two. key is
 * a full key of its type's family, except that an announced IPv4 key with unknown VRF (type 4)
 * passes for an IPv6 key, on purpose, and must have that key's storage. */
ZON_API bool zon_flow_compare_ip_and_port(uint8_t ip_type, uint32_t* ipaddr, uint16_t port,
                                          zon_key_t* key);

#ifdef __cplusplus
}
#endif

#endif

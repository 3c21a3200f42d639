/* zon_engine_defs.h - the engine: its records, its life cycle, its configuration and the
 * classification entry.
 *
 * The records stand here because a host may hold them by value: the indications of a packet, the
 * parse handle, a snapshot of a flow. Fields of the engine instance and of flows are read by hosts
 * only where an operation hands them out; they are written by the engine alone.
 *
 * Threads    zon_init, zon_destroy, zon_restart and the setters run while no packet, timer or
 *            client call runs.
 * Locks      no call returns with a lock held. zon_destroy runs clients' functions with the flow
 *            locked that they are told of, as any deletion does.
 * Ownership  the engine owns every record that it hands out; handles, keys and indications are the
 *            host's. What g_zon leads to goes with zon_destroy.
 * Units      milliseconds (_ms), seconds (_sec), bytes.
 * Byte order addresses and ports in keys are in host order; an IPv6 address is four host-order
 *            words.
 */
#ifndef ZON_ENGINE_DEFS_H
#define ZON_ENGINE_DEFS_H

#include "zon_api_enum.h"
#include "zon_error.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- keys and flows ---- */

/* The common head of every key; key_type tells which of the two full keys follows. */
typedef struct zon_key_ {
    uint32_t key_type; /* zon_key_type_t */
    uint32_t l4_protocol;
    uint32_t hash_value;
    uint32_t hash_valid; /* 1 while hash_value is the key's hash */
    uint32_t vrf_id;
} zon_key_t;

typedef struct zon_ipv4_key_ {
    uint32_t key_type;
    uint32_t l4_protocol;
    uint32_t hash_value;
    uint32_t hash_valid;
    uint32_t vrf_id;
    uint32_t src_ip;
    uint32_t src_port;
    uint32_t dst_ip;
    uint32_t dst_port;
} zon_ipv4_key_t;

typedef struct zon_ipv6_key_ {
    uint32_t key_type;
    uint32_t l4_protocol;
    uint32_t hash_value;
    uint32_t hash_valid;
    uint32_t vrf_id;
    uint32_t src_ip[4];
    uint32_t src_port;
    uint32_t dst_ip[4];
    uint32_t dst_port;
} zon_ipv6_key_t;

/* Link of an item in a hash bucket. */
typedef struct zon_hashset_hdr_ {
    struct zon_hashset_hdr_** pointer_to_us;
    struct zon_hashset_hdr_* next;
} zon_hashset_hdr;

typedef struct zon_flow_ zon_flow_t;
typedef struct zon_super_context_ zon_super_context_t;

/* One feature object of one client on one flow or direction. */
typedef struct zon_flow_fo_ {
    zon_client_id_e id;
    void* fo;
    struct zon_flow_fo_* next;
} zon_flow_fo_t;

#if defined(__GNUC__)
#define ZON_MAY_ALIAS __attribute__((may_alias))
#else
#define ZON_MAY_ALIAS
#endif

/* One direction of a flow: the head that both families share. The key continues behind it in
 * storage of the family's size (zon_ipv4_half_flow_t, zon_ipv6_half_flow_t); never copy a half flow
 * by assigning this head. */
typedef struct ZON_MAY_ALIAS zon_half_flow_ {
    zon_hashset_hdr hdr;
    zon_flow_t* flow;
    zon_flow_fo_t* fo_list;
    zon_key_t key;
} zon_half_flow_t;

typedef struct ZON_MAY_ALIAS zon_ipv4_half_flow_ {
    zon_hashset_hdr hdr;
    zon_flow_t* flow;
    zon_flow_fo_t* fo_list;
    zon_ipv4_key_t key;
} zon_ipv4_half_flow_t;

typedef struct ZON_MAY_ALIAS zon_ipv6_half_flow_ {
    zon_hashset_hdr hdr;
    zon_flow_t* flow;
    zon_flow_fo_t* fo_list;
    zon_ipv6_key_t key;
} zon_ipv6_half_flow_t;

/* Accounted sizes of one half flow. */
extern ZON_API const uint8_t ipv4_half_flow_buf_size; /* 72 */
extern ZON_API const uint8_t ipv6_half_flow_buf_size; /* 96 */

/* One side of a TCP connection, sequence numbers modulo 2^32 (RFC 9293 3.3.1). */
typedef struct zon_tcp_state_info_ {
    zon_tcp_next_seq_valid_e valid_next_seq_number;
    uint32_t iseq;   /* initial sequence number */
    uint32_t rcvnxt; /* what this side expects next: the highest acknowledgement that it has sent */
    uint32_t sndnxt; /* what this side will send next */
    uint32_t rcvwnd; /* the window it advertised last, unscaled */
    uint32_t rcvlmt; /* right edge of its receive window; never moves back */
} zon_tcp_state_info;

typedef struct zon_l4_state_t_ {
    uint8_t sess_state; /* zon_l4_flow_state_e */
    zon_tcp_state_t tcp_state;
    /* 1 the initiator's FIN, 4 the responder's, 2 the responder acknowledged, 8 the initiator */
    uint8_t term_flags;
    uint8_t pkt_count; /* UDP packets, modulo 256 */
    zon_tcp_state_info i_info;
    zon_tcp_state_info r_info;
} zon_l4_state_t;

struct zon_flow_ {
    zon_half_flow_t* initiator_flow;
    zon_half_flow_t* responder_flow;
    zon_flow_t* next_free;
    zon_flow_t* next_flow;
    zon_flow_t* bundle_parent;
    zon_flow_t* bundle_child;
    zon_flow_t* bundle_sibling;
    zon_fid_t fid;
    zon_l4_state_t l4state;
    uint32_t packet_number;
    uint32_t first_payload_seen_on_pkt_num;
    uint64_t num_l7_bytes;
    uint32_t app_id;
    uint32_t age_ms;
    zon_tw_timer_t timer;
    zon_lock_t flow_lock;
    uint8_t is_dropped : 1;
    uint8_t marked_for_delete : 1;
    uint8_t should_reset_timer : 1;
    uint8_t private_dying;      /* the engine's own: the flow is past the point of no return */
    uint8_t private_given_back; /* the engine's own: sides that a refused re-keying took away */
    uint8_t private_indexed;    /* the engine's own: packets find the flow without a search */
    uint32_t private_half_open; /* the engine's own: the number of a half-open flow's last packet */
    zon_flow_fo_t* fo_list;
    uint32_t bypass_id;
    zon_tunnel_type_e tunnel_type;
    zon_super_context_t* super_ctx[4];
};

/* ---- packets ---- */

typedef struct zon_l4_port_ {
    uint16_t src_port;
    uint16_t dst_port;
} zon_l4_port_t;

/* What the engine found in one packet. hash_valid and hash_value are the host's input and never
 * cleared: a host that supplies hashes does so for every packet, the same for both directions, and
 * gives up the matching of pre-flows. */
typedef struct zon_pkt_indications_ {
    zon_flow_ptr_t flow;      /* the packet's flow, or 0 */
    uint64_t l7_flow_bytes;   /* payload bytes of the flow, this packet included */
    uint32_t flow_pkt_count;  /* packets of the flow, this packet included */
    uint32_t l4_payload_size; /* by the headers' length fields; a capture may hold less */
    uint32_t l3_payload_size;
    uint32_t l3_header_size;
    uint32_t bypass_id;
    uint32_t hash_valid; /* in: 1 when hash_value is the packet's hash */
    uint32_t hash_value; /* in */
    zon_l4_port_t l4_port;
    uint16_t l3_protocol; /* ZON_L3_IPV4, ZON_L3_IPV6 or 0 */
    /* The packet runs from the initiator to the responder: its source is the initiator's address.
     * Ports do not decide, on purpose: in a flow with one address at both ends, all packets do. */
    uint8_t is_initiator;
    uint8_t fif; /* first packet in the flow */
    uint8_t lif; /* last packet in the flow: its session is closed */
    uint8_t first_payload;
    uint8_t was_promoted;
    uint8_t packet_seen;
    uint8_t l4_protocol;
    uint8_t is_fragment;
    zon_l4_retcode l4_error;
    zon_tunnel_type_e tunnel_type;
    uint8_t* l3_start;
    uint8_t* l4_start;
    uint8_t* l7_start; /* NULL for other protocols than TCP and UDP */
} zon_pkt_indications_t;

/* Parse handle of one packet; the host or the entry owns its storage. */
typedef struct zon_dp_fe_t_ {
    uint8_t* network_start;
    uint16_t l3_proto; /* zon_l3_protocol_enum */
    uint8_t* l4_start; /* behind the IP header and the extension headers; NULL after ESP */
    uint8_t protocol;
    uint32_t ipv6_srcaddr[4]; /* host-order words */
    uint32_t ipv6_dstaddr[4];
    uint8_t i2r_flag; /* set by the engine: initiator to responder */
    zon_tunnel_type_e tunneled_flow_type;
    uint8_t* ipv6_frag_hdr; /* NULL without a fragment header */
    uint16_t ipv6_options_len;
} zon_dp_fe_t;

/* ---- the engine instance ---- */

/* How many clients have each capability enabled. */
typedef struct zon_capability_counter_ {
    uint32_t zon_engine_flow_tcp;
    uint32_t zon_engine_flow_udp;
    uint32_t zon_engine_flow_icmp;
    uint32_t zon_engine_tcp_state_checks;
    uint32_t zon_engine_tunnel_ipv6inip;
    uint32_t zon_engine_tunnel_teredo;
    uint32_t zon_engine_client_bypass;
} zon_capability_counter_t;

/* What the engine was created with, and what its clients have enabled since. */
typedef struct zon_params_ {
    uint32_t max_flows;
    uint32_t pre_flow_timer;        /* ms that pre-flows are awaited; 0: about a second */
    uint32_t min_init_flows;        /* flow records made per step, and at the start; 0: none ever */
    uint32_t max_threads;           /* flow locks and bucket locks, up to 2^31 - 1; 0 gives one */
    uint32_t create_chunk_elements; /* records by which a memory chunk grows; 0 counts as 1 */
    uint32_t max_mem_buffer_init;   /* flows whose records (IPv4) are made ready at creation */
    uint8_t max_bucket_depth;       /* half flows per bucket; 0 is unlimited */
    zon_capability_counter_t capability_counter;
    zon_capability_e client_enabled_capability[32]; /* by client id, as bits; 0 is unused */
} zon_params_t;

/* Idle time-outs in milliseconds by the state of a session, with what zon_init sets them to. Flows
 * of other protocols than TCP and UDP have 30000. */
typedef struct zon_timer_defaults_ {
    uint32_t tcp_opening;      /* 5000: closed, opening */
    uint32_t tcp_estab;        /* 30000: uni- or bi-established */
    uint32_t tcp_closing;      /* 5000 */
    uint32_t udp_opening;      /* 5000: closed, opening */
    uint32_t udp_estab;        /* 30000: all others */
    uint32_t pre_flow_default; /* the pre_flow_timer of zon_init */
} zon_timer_defaults_t;

typedef struct error_stats_ {
    uint32_t flow_alloc_errors;
    uint32_t half_flow_alloc_errors;
} error_stats_t;

typedef struct memory_usage_stats_ {
    uint32_t ipv4_half_flow_alloc_count;
    uint32_t ipv6_half_flow_alloc_count;
    uint32_t super_context_alloc_count;
    uint32_t list_element_alloc_count;
} memory_usage_stats_t;

typedef vem_chunk_type zon_ipv4_half_flow_mem_t;
typedef vem_chunk_type zon_ipv6_half_flow_mem_t;
typedef vem_chunk_type zon_flow_mem_t;
typedef vem_chunk_type zon_super_ctx_mem_t;
typedef vem_chunk_type zon_flow_list_mem_t;
typedef vem_chunk_type zon_flow_fo_mem_t;

typedef struct zon_chunk_mem_ {
    zon_ipv4_half_flow_mem_t zon_ipv4_half_flow_mem;
    zon_ipv6_half_flow_mem_t zon_ipv6_half_flow_mem;
    zon_flow_mem_t zon_flow_mem;
    zon_super_ctx_mem_t zon_super_ctx_mem;
    zon_flow_list_mem_t zon_flow_list_mem;
    zon_flow_fo_mem_t zon_flow_fo_mem;
} zon_chunk_mem_t;

struct zon_flow_table_;
struct zon_fid_table_;
struct zon_frag_table_;
struct zon_super_context_table_;
struct zon_client_info_list_entry_;
struct zon_client_id_list_entry_;

/* The engine. A host reads params and passes the addresses of the three timer fields to
 * zon_timer_tw_init. */
typedef struct zon_ {
    struct zon_flow_table_* flow_tbl;
    struct zon_fid_table_* fid_table;
    zon_timer_defaults_t timer_defaults;
    zon_tw_wheel_t zon_tw;
    zon_tw_dm_handle_t zon_timer_vdm;
    zon_tw_pid_t zon_timer_process_create;
    struct zon_client_info_list_entry_* clients;
    error_stats_t error_stats;
    memory_usage_stats_t memory_usage_stats;
    bool memory_chunk_created;
    bool in_use;
    zon_chunk_mem_t zon_chunk_ptr;
    zon_params_t params;
    struct zon_frag_table_* frag_table;
    struct zon_super_context_table_* super_ctx_table;
    struct zon_client_id_list_entry_* free_client_ids;
} zon_t;

typedef struct zon_flow_memory_usage_ {
    uint32_t bytes_used_for_ipv4_half_flows;
    uint32_t bytes_used_for_ipv6_half_flows;
    uint32_t bytes_used_for_flows;
    uint32_t bytes_used_for_flow_aggregation;
    uint32_t active_flow_count; /* flow records made so far */
} zon_flow_memory_usage_t;

/* The one engine of the process; NULL while there is none. */
extern ZON_API zon_t* g_zon;

/* Flows to a bucket of the flow table; read while the engine is made, 0 counts as 1. */
extern ZON_API uint32_t ZON_DEFAULT_FLOW_TO_HASH_SIZE_RATIO; /* 1 */
/* What a host passes to zon_init unless it knows better. zon_init itself reads none of them. */
extern ZON_API uint32_t ZON_DEFAULT_MAX_FLOWS;                 /* 5000 */
extern ZON_API uint32_t ZON_DEFAULT_MIN_INIT_FLOWS;            /* 10 */
extern ZON_API uint32_t ZON_DEFAULT_MAX_CONCURRENCY;           /* 10 */
extern ZON_API uint32_t ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS; /* 16 */
extern ZON_API uint32_t ZON_DEFAULT_MAX_MEM_BUFFER_INIT;       /* 10 */
extern ZON_API uint8_t ZON_DEFAULT_MAX_COLLISION_SIZE;         /* 0 */
/* Read by nothing. */
extern ZON_API uint32_t ZON_DEFAULT_FLOW_CHUNK_SIZE; /* 10 */
/* The idle time that zon_cleanup_packet gives a finished flow. */
extern ZON_API uint32_t ZON_DEFAULT_MIN_AGING; /* 0 seconds */

/* Switches of the trace, all off at load; a host sets them directly at any time. */
extern ZON_API bool zon_debug_flag_engine; /* life cycle, making and deletion, fragments, clients */
extern ZON_API bool zon_debug_flag_fe;     /* parsing, with a dump of IPv6 headers */
extern ZON_API bool zon_debug_flag_l4;     /* packets that the trackers object to */
extern ZON_API bool zon_debug_flag_ager;   /* idle time-outs */
extern ZON_API bool zon_debug_flag_all;    /* all four, without that dump */
/* The error log for client-facing failures. */
extern ZON_API bool zon_errlog;

/* ---- life cycle ---- */

/* Creates the engine, destroying an existing one first. The parameters are those of zon_params_t.
 *   18, 19, 20                 the old engine is busy and goes on as it was
 *   26                         the old engine is gone, its memory chunks resisted; no new one was
 *                              made and g_zon is NULL
 *   21, 25, 22, 24, 29, 30     a part could not be created; what was built so far stays: call
 *                              zon_destroy */
ZON_API zon_error_t zon_init(uint32_t max_flows_supported, uint32_t pre_flow_timer,
                             uint32_t min_init_flows, uint32_t max_threads,
                             uint8_t max_bucket_depth, uint32_t create_chunk_elements,
                             uint32_t max_mem_buffer_init);
/* Deletes every flow (the clients' delete callbacks run), stops the timer thread and frees
 * everything.
 * The test for walks and the destruction are not one step: start no dump meanwhile.
 *   18, 19, 20 a table is being walked, nothing was destroyed
 *   26         the memory chunks resisted; the engine is gone all the same */
ZON_API zon_error_t zon_destroy(void);
/* Destroys and creates again with the same parameters; capabilities stay counted, clients and the
 * timer thread are gone and are set up anew. False without an engine or when a step failed. The
 * failure may come after the old engine went: zon_is_init tells whether there is one. */
ZON_API bool zon_restart(void);
/* zon_error_none while there is an engine, else 15. */
ZON_API zon_error_t zon_is_init(void);
/* Turns the per-packet trace of state changes on or off. */
ZON_API void zon_set_debug(bool val);

/* The number of flows that the engine was created for.
 *   9 null pointer, 15 no engine */
ZON_API zon_error_t zon_config_get_max_flows(uint32_t* max_flows);
/* Sets ZON_DEFAULT_MAX_FLOWS.
 *   9 zero, 35 below ZON_DEFAULT_MIN_INIT_FLOWS */
ZON_API zon_error_t zon_config_set_max_flows(uint32_t max_flows);
/* Seeds the hash of the flow, the fragment and the super-context tables, from the next zon_init or
 * zon_restart on. 0, as it is at load, leaves the hash plain: then whoever knows it can choose
 * addresses that share one bucket. Live traffic wants a random seed, kept from packets' senders.
 * Hashes that a host supplies with its packets are taken as they are. Always 0. */
ZON_API zon_error_t zon_config_set_hash_seed(uint32_t seed);
/* Bounds what share of max_flows half-open flows may hold, in percent, from the next zon_init or
 * zon_restart on. 0, as it is at load, sets no bound. A flow that a packet made is half-open until
 * its other side is heard, of TCP until the handshake is complete; flows that were announced never
 * are.
 *   With the share used up, or no record left, the flow of a new connection takes the place of a
 * half-open one: the one of its bucket and the next buckets (256 at most) whose last packet is
 * oldest. That one is deleted on the packet's thread, with
 * ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE, before the new flow is made; nothing of the packet is
 * locked while delete callbacks run. A flow whose lock a thread holds, this one included, is passed
 * over. Without one to replace the packet is refused with 2, as by a full table. Packets that
 * delete callbacks hand in replace nothing.
 *   35 above 100; the share stays as it was */
ZON_API zon_error_t zon_config_set_half_open_share(uint32_t percent);
/* Whether the next engine (zon_init, zon_restart) asks the system for huge pages (2 MiB) for its
 * tables and its flows: with many flows, packets then wait less for memory. Tables are touched as a
 * whole when they are made, and memory is taken 2 MiB at a time. false at load. Where the system
 * has none to give (/sys/kernel/mm/transparent_hugepage/enabled is "never") nothing changes. Always
 * 0. */
ZON_API zon_error_t zon_config_set_huge_pages(bool wanted);
/* Flows of IPv4 that fit into so many bytes: one is accounted at 392 bytes, its record of 248 and
 * two half flows of 72. The tables and what surrounds a record are not in it: all in, a flow of a
 * full table takes some 500.
 *   9 null pointer */
ZON_API zon_error_t zon_config_calc_max_flows_for_given_memory(uint32_t mem_bytes,
                                                               uint32_t* num_max_flows);
/* Bytes in use by kind of record, modulo 2^32.
 *   9 null pointer, 15 no engine */
ZON_API zon_error_t zon_config_calc_crnt_memory_usage(zon_flow_memory_usage_t* usage);
/* Copies six of the parameters into the ZON_DEFAULT_* globals.
 *   9 null pointer */
ZON_API zon_error_t zon_set_default_params(zon_params_t* params);

/* ---- timers and aging ---- */

/* Creates the timer wheel, its dispatch manager and the timer thread, on the three fields of g_zon:
 *   zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
 *                     &g_zon->zon_timer_process_create)
 * Call it after zon_init, once: there are no such fields before, and to name them then is an error
 * of the host's that nothing catches. Without it flows do not age. False when a step failed; a line
 * on standard output says which. */
ZON_API bool zon_timer_tw_init(zon_tw_wheel_t* zon_tw, zon_tw_dm_handle_t* zon_timer_vdm,
                               zon_tw_pid_t* zon_timer_process_create);
/* Undoes it; joins the thread when vdm_pid is given. Waits for a handler that is running, also
 * without vdm_pid: call it with no lock held that a delete callback may want. zon_destroy does this
 * itself. */
ZON_API void zon_timer_tw_destroy(zon_tw_wheel_t* zon_tw, zon_tw_dm_handle_t* zon_timer_vdm,
                                  zon_tw_pid_t* vdm_pid);
/* The address of the engine's wheel. Not before zon_init: without an engine it is none. */
ZON_API zon_tw_wheel_t* zon_get_tw_internal(void);
/* A hook for platforms that tell kinds of timers apart; does nothing here. */
typedef enum zon_timer_type_ ZON_ENUM_BASE {
    ZON_TIMER_TYPE_MIN = 0,
    ZON_TIMER_FLOW_IDLE = 1,
    ZON_TIMER_FRAG_FLOW_IDLE = 2,
    ZON_TIMER_TYPE_MAX = 3
} zon_timer_type;
ZON_API void zon_timer_set_type(zon_tw_wheel_t* zon_tw, zon_tw_timer_t* timer, zon_timer_type type);

/* Default idle time-out, in milliseconds, of flows whose first packet comes from now on, announced
 * or not. prot is 6 or 17;
 * false otherwise, for a state outside 0 to 6, and without an engine. 0 ms is armed as 1024 ms.
 * A flow takes its time-out once, by its state after its first packet, and keeps it: a TCP flow
 * that begins with a SYN has that of an opening one until the host gives it another with
 * zon_flow_set_aging. A flow ends after one to two time-outs without a packet, save that packets of
 * a closed session do not keep it; see there. */
ZON_API bool zon_set_default_aging(uint8_t prot, zon_l4_flow_state_e state, uint32_t time);
/* UDP flows become established on a responder's packet once so many (modulo 256) packets have been
 * counted. One value for the process, which outlives the engine. */
ZON_API void zon_set_open_flow_after_pkts(uint32_t count);

/* ---- classification ---- */

/* Finds or creates the flow of a parsed packet; the packet entries of zon_pkt_inline.h do the
 * parsing and call this. There must be an engine. half_flow_key holds the packet's key in its own
 * direction and is used as scratch: it must have the storage of its family. The indications must
 * have been preset. Returns the flow, or 0 with fif 0:
 *   11 a client forbade the flow; 2 no memory or no room in the table; unchanged for a refused
 *      tunnel and when the table had no room for an announced flow
 * With a platform_reported_dft_fid the packet belongs to that flow, which takes the reported state
 * and number of packets; where it is gone, 0 comes back and nothing is written. Success makes
 * *zon_error 0, except for a flow that is closing, which leaves it. */
ZON_API zon_fid_t zon_engine(zon_half_flow_t* half_flow_key, zon_fe_handle fe, void* pkt_ctx,
                             zon_pkt_indications_t* pkt_indications, zon_error_t* zon_error,
                             zon_tunnel_type_e tunnel_type,
                             zon_capability_counter_t* capability_counter,
                             zon_fid_t platform_reported_dft_fid,
                             zon_l4_flow_state_e platform_reported_dft_flow_state,
                             uint32_t platform_reported_flow_packet_number);

#ifdef __cplusplus
}
#endif

#endif

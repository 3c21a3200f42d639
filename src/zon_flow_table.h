// zon_flow_table.h - the keyed index of all half flows, and the list of all flow records.
//
// Every flow is indexed twice, once per direction, so that a packet of either finds it. The hash
// leaves out VRF and protocol: flows that differ only in those share a bucket and are told apart by
// the matcher.
//
// Locks      flow_table_lock guards the list of records and the walks; the packet path takes it
//            only when it makes new records or promotes a pre-flow with unknown parts.

#pragma once

#include <cstdint>

#include "zon_engine_defs.h"
#include "zon_flow_defs.h"
#include "zon_hashset.h"

struct zon_active_tunnel_flows_t {
    uint32_t active_ipv6inip_flows_count;
    uint32_t active_teredo_flows_count;
};

struct zon_flow_table_ {
    zon_hashset table;
    zon_flow_t* flow_head;
    zon_flow_t* flow_tail;
    zon_lock_t flow_table_lock;
    uint32_t profile_insert;
    uint32_t profile_delete;
    uint32_t profile_passively_aged;
    uint32_t active_preflow_count[ZON_MAX_KEY];
    bool in_use;
    bool has_incomplete_inserts;
    zon_active_tunnel_flows_t active_tunnel_flows_count;
};
using zon_flow_table_t = zon_flow_table_;

static_assert(sizeof(zon_flow_table_t) == 96);

zon_flow_table_t* zon_flow_table_create(uint32_t max_flows, uint32_t max_threads,
                                        uint8_t max_bucket_depth);
void zon_flow_table_destroy(zon_flow_table_t* tbl);

// The caller holds the flow's lock before and after. False when the bucket is full.
bool zon_flow_table_insert(zon_flow_table_t* tbl, zon_half_flow_t* half_flow);
bool zon_flow_table_insert_direct(zon_flow_table_t* tbl, zon_half_flow_t* half_flow, int bucket);

// The buckets of a new flow's two keys. The responder's is below 0 where it is not known; who knows
// it has made the responder's key by reversing the initiator's.
struct flow_buckets {
    int initiator;
    int responder;
};

// Links both halves of a new flow in one step unless a flow of the initiator's key is there; the
// initiator's bucket is the one that a failed lookup reported. After second_refused neither is
// linked.
pair_insert_result zon_flow_table_insert_flow(zon_flow_table_t* tbl, zon_flow_t* flow,
                                              flow_buckets buckets);

// Gives both halves of a flow that was announced with unknown parts the keys of a packet and moves
// them to their new buckets in one step: the initiator takes the packet's key, the responder its
// reverse. The key's type is the complete one. When a flow of the new keys is there, nothing
// changes. When a bucket is full, both halves stay outside the table.
pair_insert_result zon_flow_table_relink_flow(zon_flow_table_t* tbl, zon_flow_t* flow,
                                              const zon_key_t* key);

// The half flow of a key, its flow locked; null without one. The key's bucket goes to *bucket in
// either case.
zon_half_flow_t* zon_flow_table_lookup_locked(zon_flow_table_t* tbl,
                                              const zon_half_flow_t* half_flow, int* bucket);
// The same for a complete key that the index was asked for in vain: only the set is searched, and
// while it is, what a new flow of the key needs is fetched. Buckets that are known are taken as
// they are.
zon_half_flow_t* zon_flow_table_search_locked(zon_flow_table_t* tbl,
                                              const zon_half_flow_t* half_flow,
                                              flow_buckets* buckets);
inline zon_half_flow_t* zon_flow_table_lookup(zon_flow_table_t* tbl,
                                              const zon_half_flow_t* half_flow, int* bucket) {
    return zon_flow_table_lookup_locked(tbl, half_flow, bucket);
}

// The flow is locked. Before a half flow of it leaves its bucket or changes its key, packets must
// no longer find it without a search; afterwards they may again, unless another flow of the same
// keys is newer.
void zon_flow_table_unindex(zon_flow_table_t* tbl, zon_flow_t* flow);
void zon_flow_table_index_anew(zon_flow_table_t* tbl, zon_flow_t* flow);
// A packet has found the flow by a search: from here on packets need none, if there is room by now.
void zon_flow_table_index_again(zon_flow_table_t* tbl, zon_flow_t* flow);

// lock tells whether flow_table_lock is taken; the bucket locks always are.
bool zon_flow_table_delete(zon_flow_table_t* tbl, zon_half_flow_t* half_flow, bool lock);
bool zon_flow_table_delete_full_flow(zon_flow_table_t* tbl, zon_half_flow_t* half_flow1,
                                     zon_half_flow_t* half_flow2, bool lock);

void zon_flow_table_link(zon_flow_table_t* tbl, zon_flow_t* flow);

using zon_flow_callback = bool (*)(zon_flow_t* flow, void* user);
using zon_half_flow_callback = bool (*)(zon_half_flow_t* half_flow, void* user);
void zon_flow_table_iterate_flow(zon_flow_table_t* tbl, zon_flow_callback cb, void* user);
void zon_flow_table_iterate_half_flow(zon_flow_table_t* tbl, zon_half_flow_callback cb, void* user);

uint32_t zon_flow_table_num_elements(zon_flow_table_t* tbl);
zon_error_t zon_flow_table_is_available(zon_flow_table_t* tbl);
void zon_flow_table_statistics(zon_flow_table_t* tbl, int32_t* size, int32_t* used, int32_t* empty,
                               int32_t* occupied, int32_t* bucket_ave, int32_t* bucket_max,
                               uint32_t* inserts, uint32_t* deletes, uint32_t* passively_aged,
                               int32_t** distribution, int32_t** preflow_count);
void zon_flow_table_statistics_clear(zon_flow_table_t* tbl);
zon_error_t zon_flow_table_remove_client_fo(zon_flow_table_t* tbl, zon_client_id_e cid);

// The hash and match functions of half flows; key and item are zon_half_flow_t.
unsigned int zon_hash_calc(void* element, void* ctx);
bool zon_matcher(void* element1, void* element2, void* ctx);

// zon_preflow_insert.cpp - makes an announced flow.
//
// Locks  the parent is looked at and let go at once; the new flow stays locked from its making to
//        the end, so that nobody sees it half made. No other flow's lock is held meanwhile.

#include "osal/zon_debug.h"
#include "osal/zon_errlog.h"
#include "osal/zon_timer.h"
#include "zon_api/zon_api_internal.h"
#include "zon_engine/zon_quarantine.h"
#include "zon_hashset_internal.h"
#include "zon_key_hash.h"

namespace {

struct half_flow_pair {
    zon_half_flow_t* initiator = nullptr;
    zon_half_flow_t* responder = nullptr;
};

void give_back(const half_flow_pair& halves) {
    for (zon_half_flow_t* half : {halves.initiator, halves.responder})
        if (half != nullptr)
            zon_deallocate_half_flow(half);
}

zon_half_flow_t* make_half_flow(const zon_key_t* key) {
    zon_half_flow_t* half = zon_allocate_half_flow(static_cast<uint8_t>(key->key_type));
    if (half != nullptr) {
        half->hdr = {nullptr, nullptr};
        zon_copy_key_to_half_flow(half, key);
    }
    return half;
}

// Both or none.
half_flow_pair make_half_flows(const zon_key_t* key) {
    half_flow_pair halves = {make_half_flow(key), nullptr};
    if (halves.initiator == nullptr)
        return {};
    halves.responder = make_half_flow(key);
    if (halves.responder == nullptr) {
        give_back(halves);
        return {};
    }
    zon_swap_key(&halves.responder->key);
    return halves;
}

zon_error_t no_memory() {
    zon_trace_engine_text(zon_no_memory_text);
    return zon_error_memory;
}

struct parent_of_new {
    zon_flow_t* record;
    zon_fid_t fid;
};

// The parent is not kept locked: it is looked at again once the new flow is bound to it.
parent_of_new look_at_parent(zon_fid_t parent_fid) {
    return {zon_fid_table_lookup(g_zon->fid_table, parent_fid).get(), parent_fid};
}

void prepare(zon_flow_t* flow, const half_flow_pair& halves, const parent_of_new& parent) {
    flow->l4state.tcp_state = ZON_TCP_LISTEN;
    flow->age_ms = 0;
    zon_timer_set_type(&g_zon->zon_tw, &flow->timer, ZON_TIMER_FLOW_IDLE);
    flow->initiator_flow = halves.initiator;
    flow->responder_flow = halves.responder;
    halves.initiator->flow = flow;
    halves.responder->flow = flow;
    zon_private_set_parent(flow, parent.record, parent.fid);
}

// Counted before they can be found: a packet that promotes the flow at once takes away what is
// there.
class counted_types {
public:
    explicit counted_types(const half_flow_pair& halves)
        : initiator_(halves.initiator->key.key_type), responder_(halves.responder->key.key_type) {
        zon_private_increment_incomplete_inserts(g_zon->flow_tbl, initiator_);
        zon_private_increment_incomplete_inserts(g_zon->flow_tbl, responder_);
    }
    void take_back() const {
        zon_private_decrement_incomplete_inserts(g_zon->flow_tbl, initiator_);
        zon_private_decrement_incomplete_inserts(g_zon->flow_tbl, responder_);
    }

private:
    uint32_t initiator_;
    uint32_t responder_;
};

int bucket_for(const zon_half_flow_t* half) {
    return static_cast<int>(bucket_of(g_zon->flow_tbl->table, hash_of_key(half)));
}

// One half at a time, without a look for the same connection. The first stays in when the second is
// refused.
pair_insert_result insert_singly(zon_flow_t* flow) {
    if (!zon_flow_table_insert(g_zon->flow_tbl, flow->initiator_flow))
        return pair_insert_result::first_refused;
    if (zon_flow_table_insert(g_zon->flow_tbl, flow->responder_flow))
        return pair_insert_result::linked;
    zon_flow_table_delete(g_zon->flow_tbl, flow->initiator_flow, false);
    return pair_insert_result::second_refused;
}

// Hides a flow that was not linked, before its lock is let go, and gives its record back.
void give_record_back(locked_flow flow) {
    zon_flow_t* record = flow.get();
    record->initiator_flow = nullptr;
    record->responder_flow = nullptr;
    zon_flow_set_dying(record, true);
    flow.release();
    zon_private_deallocate_flow(record);
}

// Kept on purpose: when only the second half was refused, the place that the first one took in the
// table stays taken.
void keep_place_of(half_flow_pair& halves) {
    // The removal that the attempt counted did not last.
    relaxed_add(g_zon->flow_tbl->profile_insert, -1);
    relaxed_add(g_zon->flow_tbl->profile_delete, -1);
    if (zon_private_quarantine_half_flow(halves.initiator))
        halves.initiator = nullptr;
}

zon_error_t prevented(zon_fid_t parent_fid) {
    zon_log_error_message(
        ZON_ERRMSG_FLOW_CREATION_PREVENTED,
        "Flow creation was prevented because of hash table bucket depth",
        "zon_private_insert_incomplete_tuple, parent_fid:", static_cast<int>(parent_fid));
    return zon_error_flow_creation_prevented;
}

struct insertion {
    pair_insert_result result;
    zon_error_t error;
};

// compare tells whether a flow of the same connection, made meanwhile, stops the insertion.
insertion make_and_insert(const zon_key_t* key, zon_fid_t parent_fid, bool compare,
                          zon_fid_t* pre_flow_fid, zon_lock_t* flow_lock) {
    const parent_of_new parent = look_at_parent(parent_fid);
    half_flow_pair halves = make_half_flows(key);
    if (halves.initiator == nullptr)
        return {pair_insert_result::first_refused, no_memory()};
    locked_flow flow = locked_flow::adopt(zon_fid_table_new_flow_locked(g_zon->fid_table));
    if (!flow) {
        relaxed_add(g_zon->error_stats.flow_alloc_errors, 1);
        give_back(halves);
        return {pair_insert_result::first_refused, no_memory()};
    }
    prepare(flow.get(), halves, parent);
    const counted_types counts(halves);
    const pair_insert_result result =
        compare ? zon_flow_table_insert_flow(g_zon->flow_tbl, flow.get(),
                                             {bucket_for(halves.initiator), -1})
                : insert_singly(flow.get());
    if (result == pair_insert_result::linked) {
        zon_timer_flow_start(zon_get_tw_internal(), &flow->timer,
                             relaxed_load(g_zon->timer_defaults.pre_flow_default), &flow->fid);
        flow->should_reset_timer = 0;
        zon_hand_over_found_flow(std::move(flow), pre_flow_fid, flow_lock);
        return {result, zon_error_none};
    }
    counts.take_back();
    give_record_back(std::move(flow));
    if (result == pair_insert_result::second_refused)
        keep_place_of(halves);
    give_back(halves);
    if (result == pair_insert_result::already_present)
        return {result, zon_error_none};
    return {result, prevented(parent_fid)};
}

zon_half_flow_t* find_same_connection(const zon_key_t* key) {
    zon_any_key_t wanted;
    zon_copy_key(&wanted.head, key);
    // A complete tuple is looked for under both of its types.
    if (key->key_type == ZON_IPV4_KEY_PRE_FLOW_COMPLETE)
        wanted.head.key_type = ZON_IPV4_KEY_COMPLETE;
    else if (key->key_type == ZON_IPV6_KEY_PRE_FLOW_COMPLETE)
        wanted.head.key_type = ZON_IPV6_KEY_COMPLETE;
    return zon_find_half_flow(&wanted);
}

}  // namespace

zon_error_t zon_private_insert_incomplete_tuple(const zon_key_t* key, zon_fid_t parent_fid,
                                                zon_fid_t* pre_flow_fid, zon_lock_t* flow_lock) {
    // A flow that stands in the way and cannot be found, because a host supplied its hash, is not
    // waited for for ever.
    constexpr int comparing_attempts = 8;
    for (int attempt = 1;; ++attempt) {
        const insertion made = make_and_insert(key, parent_fid, attempt <= comparing_attempts,
                                               pre_flow_fid, flow_lock);
        if (made.result != pair_insert_result::already_present)
            return made.error;
        if (const zon_half_flow_t* half = find_same_connection(key)) {
            zon_hand_over_found_flow(locked_flow::adopt(half->flow), pre_flow_fid, flow_lock);
            return zon_error_none;
        }
    }
}

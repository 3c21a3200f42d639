// zon_rekey.cpp - moves a flow to other addresses, ports or another VRF.
//
// Locks  the flow is locked throughout; a half flow changes its key and its bucket in one step.

#include "osal/zon_debug.h"
#include "osal/zon_errlog.h"
#include "zon_api_internal.h"
#include "zon_hashset_move.h"

namespace {

// The two operations report in different ways, on purpose: the initiator's through the error log,
// the responder's as trace lines.
struct reporter {
    zon_flow_direction_e side;
    zon_fid_t fid;

    void report(zon_errmsg_index_e index, const char* message, const char* trace) const {
        if (side == ZON_DIR_INITIATOR)
            zon_log_error_message(static_cast<unsigned int>(index), message,
                                  "zon_flow_update_initiator, fid:", static_cast<int>(fid));
        else
            zon_trace_engine_text(trace);
    }
    zon_error_t not_found() const {
        report(ZON_ERRMSG_CLIENT_API, "Could not find the flow for given fid", zon_client_api_text);
        return zon_error_flow_not_found;
    }
    // A missing buffer of the larger family is not reported, on purpose.
    zon_error_t no_memory(zon_ip_addr_e family) const {
        if (family == ZON_IP_ADDR_IPV4)
            report(ZON_ERRMSG_NO_MEMORY, "Could not allocate memory for half flow",
                   zon_no_memory_text);
        return zon_error_memory;
    }
    zon_error_t bucket_full() const {
        report(ZON_ERRMSG_FLOW_CREATION_PREVENTED,
               "Flow creation was prevented because of hash table bucket depth",
               zon_creation_prevented_text);
        return zon_error_flow_creation_prevented;
    }
};

zon_half_flow_t*& slot_of(zon_flow_t* flow, zon_flow_direction_e side) {
    return side == ZON_DIR_INITIATOR ? flow->initiator_flow : flow->responder_flow;
}

// A half flow keeps its type. A new one is complete and of the family that the flow has: a tuple of
// another one meets the assertion of the key builder, and no flow ever mixes families.
zon_key_type_t type_of_side(const zon_flow_t* flow, zon_flow_direction_e side,
                            zon_ip_addr_e tuple_family) {
    if (const zon_half_flow_t* half = zon_half_flow_of(flow, side))
        return static_cast<zon_key_type_t>(half->key.key_type);
    bool is_ipv4 = tuple_family == ZON_IP_ADDR_IPV4;
    for (const zon_half_flow_t* named : {flow->initiator_flow, flow->responder_flow})
        if (named != nullptr)
            is_ipv4 = zon_key_is_ipv4(named->key.key_type);
    return is_ipv4 ? ZON_IPV4_KEY_COMPLETE : ZON_IPV6_KEY_COMPLETE;
}

// A half flow for a side that lacks one, outside the table.
zon_half_flow_t* make_side(zon_flow_t* flow, zon_flow_direction_e side, zon_key_type_t type) {
    zon_any_key_t key{};
    key.head.key_type = static_cast<uint32_t>(type);
    zon_half_flow_t* half = zon_allocate_half_flow(static_cast<uint8_t>(key.head.key_type));
    if (half == nullptr)
        return nullptr;
    half->hdr = {nullptr, nullptr};
    zon_copy_key_to_half_flow(half, &key.head);
    half->flow = flow;
    if (zon_side_is_given_back(flow, side)) {
        zon_uncount_announced(slot_of(flow, side));
        zon_free_given_back(flow, side);
    }
    slot_of(flow, side) = half;
    return half;
}

// Counted as a removal, unless the half flow is new, and an insertion.
bool move_half_flow(zon_half_flow_t* half, const zon_any_key_t& key, bool is_new) {
    zon_flow_table_t* tbl = g_zon->flow_tbl;
    zon_ipv6_half_flow_t wanted{};
    auto* wanted_half = reinterpret_cast<zon_half_flow_t*>(&wanted);
    zon_copy_key_to_half_flow(wanted_half, &key.head);
    if (!is_new)
        relaxed_add(tbl->profile_delete, 1);
    const bool linked = zon_hashset_move(
        tbl->table, half, wanted_half, [](zon_hashset_item item, const void* rewritten) {
            zon_copy_key(&static_cast<zon_half_flow_t*>(item)->key,
                         &static_cast<const zon_half_flow_t*>(rewritten)->key);
        });
    if (linked)
        relaxed_add(tbl->profile_insert, 1);
    return linked;
}

uint32_t& usage_of(const zon_half_flow_t* half) {
    memory_usage_stats_t& usage = g_zon->memory_usage_stats;
    return zon_key_is_ipv4(half->key.key_type) ? usage.ipv4_half_flow_alloc_count
                                               : usage.ipv6_half_flow_alloc_count;
}

// The flow goes on naming the half flow, so its buffer cannot serve another one yet: only the count
// goes down.
void give_side_back(zon_flow_t* flow, zon_flow_direction_e side, zon_half_flow_t* half) {
    zon_flow_fo_release_side(flow, half);
    relaxed_add(usage_of(half), -1);
    flow->private_given_back |= zon_given_back_mark(side);
}

zon_error_t update_side(const reporter& report, const zon_flow_tuple_t* flow_tuple) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (flow_tuple == nullptr)
        return zon_error_flow_tuple_is_null;
    locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, report.fid);
    // What runs inside a deletion still finds its flow, but no side of it.
    if (!flow || zon_flow_is_dying(flow.get()))
        return report.not_found();
    const zon_ip_addr_e family = flow_tuple->src_ip.addr_type;
    if (family != ZON_IP_ADDR_IPV4 && family != ZON_IP_ADDR_IPV6)
        return zon_error_none;

    const zon_key_type_t type = type_of_side(flow.get(), report.side, family);
    zon_any_key_t key;
    zon_build_key(&key, type, flow_tuple);
    zon_half_flow_t* half = zon_half_flow_of(flow.get(), report.side);
    const bool is_new = half == nullptr;
    if (is_new) {
        half = make_side(flow.get(), report.side, type);
        if (half == nullptr) {
            flow.release();
            return report.no_memory(family);
        }
    }
    zon_flow_table_unindex(g_zon->flow_tbl, flow.get());
    if (move_half_flow(half, key, is_new)) {
        zon_flow_table_index_anew(g_zon->flow_tbl, flow.get());
        return zon_error_none;
    }
    give_side_back(flow.get(), report.side, half);
    flow.release();
    return report.bucket_full();
}

}  // namespace

void zon_private_reclaim_sides(zon_flow_t* flow) {
    for (const zon_flow_direction_e side : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER}) {
        if (!zon_side_is_given_back(flow, side))
            continue;
        relaxed_add(usage_of(slot_of(flow, side)), 1);
        flow->private_given_back &= static_cast<uint8_t>(~zon_given_back_mark(side));
    }
}

zon_error_t zon_flow_update_initiator(zon_fid_t fid, const zon_flow_tuple_t* flow_tuple) {
    return update_side({ZON_DIR_INITIATOR, fid}, flow_tuple);
}

zon_error_t zon_flow_update_responder(zon_fid_t fid, const zon_flow_tuple_t* flow_tuple) {
    return update_side({ZON_DIR_RESPONDER, fid}, flow_tuple);
}

int zon_flow_update_vrf(zon_fid_t fid, uint32_t new_vrf_id) {
    if (g_zon == nullptr)
        return 0;
    locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
    if (!flow)
        return 0;
    zon_flow_table_unindex(g_zon->flow_tbl, flow.get());
    // The half flows stay in their buckets: the VRF is not part of the hash. Lookups compare it
    // meanwhile, so it is stored as one atomic word.
    for (const zon_flow_direction_e side : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER})
        if (zon_half_flow_t* half = zon_half_flow_of(flow.get(), side))
            relaxed_store(half->key.vrf_id, new_vrf_id);
    zon_flow_table_index_anew(g_zon->flow_tbl, flow.get());
    // Kept on purpose: this level of the lock stays with the caller.
    std::move(flow).hand_over();
    return 0;
}

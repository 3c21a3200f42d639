// zon_half_flows.cpp - half flows and flow records for the other units: made, found, given back.
//
// Owns   nothing.
// Locks  the memory stacks' own; lookups return with the flow locked.

#include "zon_engine_inline.h"

#include "osal/zon_debug.h"
#include "osal/zon_timer.h"
#include "zon_lane_counts.h"

namespace {

struct half_flow_kind {
    zon_memory_type memory;
    uint32_t memory_usage_stats_t::*usage;
};

half_flow_kind kind_of(uint32_t key_type) {
    if (zon_key_is_ipv4(key_type))
        return {ZON_IPV4_HALF_FLOW_MEM_TYPE, &memory_usage_stats_t::ipv4_half_flow_alloc_count};
    return {ZON_IPV6_HALF_FLOW_MEM_TYPE, &memory_usage_stats_t::ipv6_half_flow_alloc_count};
}

// Hosts read the figure: it is never counted in lanes.
inline void count_usage(const half_flow_kind& kind, int by) {
    relaxed_add(g_zon->memory_usage_stats.*kind.usage, by);
}

template <class family>
zon_half_flow_t* lookup_complete_or_announced(const typename family::key* key) {
    typename family::half_flow wanted;
    wanted.key = *key;
    auto* half_flow = reinterpret_cast<zon_half_flow_t*>(&wanted);
    zon_half_flow_t* found = zon_flow_table_lookup_locked(g_zon->flow_tbl, half_flow, nullptr);
    if (found == nullptr && wanted.key.key_type == family::complete) {
        wanted.key.key_type = family::pre_flow_complete;
        found = zon_flow_table_lookup_locked(g_zon->flow_tbl, half_flow, nullptr);
        // It may have been promoted between the two lookups.
        wanted.key.key_type = family::complete;
        if (found == nullptr)
            found = zon_flow_table_lookup_locked(g_zon->flow_tbl, half_flow, nullptr);
    }
    return found;
}

}  // namespace

zon_half_flow_t* zon_allocate_half_flow(uint8_t half_flow_key_type) {
    zon_require(half_flow_key_type <= ZON_IPV6_LAST_KEY, "half_flow_key_type <= ZON_IPV6_LAST_KEY");
    const half_flow_kind kind = kind_of(half_flow_key_type);
    auto* half_flow =
        static_cast<zon_half_flow_t*>(zon_private_chunk_malloc(kind.memory, &g_zon->zon_chunk_ptr));
    // Counts the attempt: after a failure the figure stays one too high, and monitors know it so.
    count_usage(kind, 1);
    if (half_flow == nullptr) [[unlikely]] {
        relaxed_add(g_zon->error_stats.half_flow_alloc_errors, 1);
        return nullptr;
    }
    half_flow->fo_list = nullptr;
    return half_flow;
}

bool zon_allocate_half_flows(uint8_t half_flow_key_type, zon_flow_t* flow) {
    zon_require(half_flow_key_type <= ZON_IPV6_LAST_KEY, "half_flow_key_type <= ZON_IPV6_LAST_KEY");
    const half_flow_kind kind = kind_of(half_flow_key_type);
    // Straight into the two fields of the flow, which stand in a row.
    static_assert(offsetof(zon_flow_t, responder_flow) ==
                  offsetof(zon_flow_t, initiator_flow) + sizeof(void*));
    flow->initiator_flow = flow->responder_flow = nullptr;
    const uint32_t taken = zon_private_chunk_malloc_many(
        kind.memory, reinterpret_cast<void**>(&flow->initiator_flow), 2, &g_zon->zon_chunk_ptr);
    // Counts the attempts, as if there had been one after another.
    count_usage(kind, taken == 0 ? 1 : 2);
    if (taken < 2) [[unlikely]] {
        relaxed_add(g_zon->error_stats.half_flow_alloc_errors, 1);
        return false;
    }
    flow->initiator_flow->fo_list = nullptr;
    flow->responder_flow->fo_list = nullptr;
    return true;
}

void zon_deallocate_half_flows(zon_half_flow_t* one, zon_half_flow_t* other) {
    const bool of_one_family =
        zon_key_is_ipv4(one->key.key_type) == zon_key_is_ipv4(other->key.key_type);
    if (!of_one_family || !zon_key_type_is_valid(one->key.key_type) ||
        !zon_key_type_is_valid(other->key.key_type)) [[unlikely]] {
        zon_deallocate_half_flow(one);
        zon_deallocate_half_flow(other);
        return;
    }
    const half_flow_kind kind = kind_of(one->key.key_type);
    void* const halves[] = {one, other};
    if (!zon_private_chunk_free_many(kind.memory, halves, 2, &g_zon->zon_chunk_ptr)) [[unlikely]]
        zon_buginf("Could not free memory %s: %d", __FILE__, __LINE__);
    count_usage(kind, -2);
}

void zon_deallocate_half_flow(zon_half_flow_t* half_flow) {
    zon_require(zon_key_type_is_valid(half_flow->key.key_type),
                "half_flow->key.key_type <= ZON_IPV6_LAST_KEY");
    const half_flow_kind kind = kind_of(half_flow->key.key_type);
    zon_private_chunk_free_or_trace(kind.memory, half_flow, &g_zon->zon_chunk_ptr);
    count_usage(kind, -1);
}

zon_half_flow_t* zon_private_flow_lookup_ipv4(const zon_ipv4_key_t* key) {
    return lookup_complete_or_announced<ipv4_family>(key);
}

zon_half_flow_t* zon_private_flow_lookup_ipv6(const zon_ipv6_key_t* key) {
    return lookup_complete_or_announced<ipv6_family>(key);
}

zon_flow_t* zon_get_flow(zon_fid_t fid) {
    return zon_fid_table_lookup(g_zon->fid_table, fid).hand_over();
}

bool zon_private_add_half_flow(zon_half_flow_t* half_flow) {
    return zon_flow_table_insert(g_zon->flow_tbl, half_flow);
}

bool zon_private_remove_half_flow(zon_half_flow_t* half_flow) {
    return zon_flow_table_delete(g_zon->flow_tbl, half_flow, false);
}

void zon_private_link_flow(zon_flow_t* flow) {
    zon_flow_table_link(g_zon->flow_tbl, flow);
}

void zon_private_deallocate_flow(zon_flow_t* flow) {
    zon_fid_table_recycle_flow(g_zon->fid_table, flow->fid);
}

void zon_inst_mark_flow_for_delete(zon_flow_t* flow) {
    if (flow == nullptr)
        return;
    held_lock held(flow->flow_lock);
    flow->marked_for_delete = true;
}

void zon_private_stop_timer(zon_flow_t* flow) {
    zon_timer_stop(&flow->timer);
}

// zon_quarantine.cpp - half flows that were given up while the flow table still links them.
//
// Owns   the quarantined buffers, and one stand-in flow that they all belong to. The stand-in is
//        dying for ever, so that lookups pass over its half flows.
// Locks  one private lock for the list; the stand-in has a flow lock like any flow.

#include "zon_engine/zon_quarantine.h"

#include <cstdlib>
#include <mutex>

#include "osal/zon_lock.h"
#include "osal/zon_mem.h"
#include "zon_engine_inline.h"

namespace {

ordered_mutex<lock_class::quarantine> guard_of_list;
zon_half_flow_t* quarantined = nullptr;
zon_flow_t stand_in;

// Nobody attaches objects to a half flow that cannot be found: the head of its list serves as the
// link of ours.
zon_half_flow_t* next_of(const zon_half_flow_t* half) {
    return reinterpret_cast<zon_half_flow_t*>(half->fo_list);
}
void set_next(zon_half_flow_t* half, zon_half_flow_t* next) {
    half->fo_list = reinterpret_cast<zon_flow_fo_t*>(next);
}

bool stand_in_is_ready() {
    if (stand_in.flow_lock != nullptr)
        return true;
    const zon_lock_t lock = zon_lock_allocate();
    if (lock == nullptr)
        return false;
    zon_lock_init(lock);
    zon_lock_set_class(lock, lock_class::stand_in);
    zon_flow_set_dying(&stand_in, true);
    stand_in.marked_for_delete = 1;
    stand_in.flow_lock = lock;
    return true;
}

bool insert_for_stand_in(zon_half_flow_t* half_flow) {
    const held_lock held(stand_in.flow_lock);
    half_flow->flow = &stand_in;
    return zon_flow_table_insert(g_zon->flow_tbl, half_flow);
}

uint32_t& usage_of(const zon_half_flow_t* half) {
    memory_usage_stats_t& usage = g_zon->memory_usage_stats;
    return zon_key_is_ipv4(half->key.key_type) ? usage.ipv4_half_flow_alloc_count
                                               : usage.ipv6_half_flow_alloc_count;
}

}  // namespace

bool zon_private_quarantine_half_flow(zon_half_flow_t* half_flow) {
    const std::lock_guard guard(guard_of_list);
    if (!stand_in_is_ready() || !insert_for_stand_in(half_flow))
        return false;
    relaxed_add(usage_of(half_flow), -1);
    set_next(half_flow, quarantined);
    quarantined = half_flow;
    return true;
}

void zon_private_release_quarantine() {
    const std::lock_guard guard(guard_of_list);
    while (zon_half_flow_t* half = quarantined) {
        quarantined = next_of(half);
        const zon_memory_type type = zon_key_is_ipv4(half->key.key_type)
                                         ? ZON_IPV4_HALF_FLOW_MEM_TYPE
                                         : ZON_IPV6_HALF_FLOW_MEM_TYPE;
        zon_private_chunk_free_or_trace(type, half, &g_zon->zon_chunk_ptr);
    }
    if (stand_in.flow_lock != nullptr) {
        zon_lock_destroy(stand_in.flow_lock);
        std::free(stand_in.flow_lock);
        stand_in.flow_lock = nullptr;
    }
}

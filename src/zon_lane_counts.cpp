// zon_lane_counts.cpp - adds up what threads have counted in their lanes.
//
// Owns   what was counted and not yet added.
// Locks  one mutex, so that two readers see the same figures.

#include "zon_lane_counts.h"

#include <mutex>

#include "osal/zon_lock_order.h"
#include "zon_flow_table.h"

constinit lane_counts zon_counts_of_lanes[zon_lane_count]{};

namespace {

constinit ordered_mutex<lock_class::lane_counts> settling;

template <class word>
void settle(lane_count what, word& shared) {
    for (lane_counts& lane : zon_counts_of_lanes) {
        uint32_t& counted = lane.words[static_cast<size_t>(what)];
        if (relaxed_load(counted) != 0)
            relaxed_add(shared,
                        static_cast<int>(__atomic_exchange_n(&counted, 0U, __ATOMIC_RELAXED)));
    }
}

}  // namespace

void zon_lane_counts_settle() {
    if (!zon_lanes_are_used() || g_zon == nullptr)
        return;
    const std::lock_guard guard(settling);
    if (g_zon->flow_tbl == nullptr)
        return;
    settle(lane_count::inserts, g_zon->flow_tbl->profile_insert);
    settle(lane_count::deletes, g_zon->flow_tbl->profile_delete);
    settle(lane_count::linked, g_zon->flow_tbl->table->used);
}

void zon_lane_counts_clear() {
    for (lane_counts& lane : zon_counts_of_lanes)
        for (uint32_t& word : lane.words)
            relaxed_store(word, 0);
}

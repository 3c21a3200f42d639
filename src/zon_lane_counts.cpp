// zon_lane_counts.cpp - adds up what threads have counted in their lanes.
//
// Owns   what was counted and not yet added.
// Locks  one mutex, so that no reader misses what another one is about to add.

#include "zon_lane_counts.h"

#include <mutex>

#include "osal/zon_lock_order.h"
#include "zon_flow_table.h"

constinit lane_counts zon_counts_of_lanes[zon_lane_count]{};

namespace {

constinit ordered_mutex<lock_class::lane_counts> settling;

uint32_t take_from_lanes(lane_count what) {
    uint32_t sum = 0;
    for (lane_counts& lane : zon_counts_of_lanes) {
        uint32_t& counted = lane.words[static_cast<size_t>(what)];
        if (relaxed_load(counted) != 0)
            sum += __atomic_exchange_n(&counted, 0U, __ATOMIC_ACQUIRE);
    }
    return sum;
}

template <class word>
word add(word& shared, word by) {
    return by == 0 ? __atomic_load_n(&shared, __ATOMIC_ACQUIRE)
                   : __atomic_add_fetch(&shared, by, __ATOMIC_ACQUIRE);
}

// First what is gone, then what was counted without a lane, last what has come: in the meantime
// flows come and go.
table_counts settle(zon_flow_table_t& tbl) {
    const std::lock_guard guard(settling);
    table_counts now;
    now.deletes = add(tbl.profile_delete, take_from_lanes(lane_count::deletes));
    const auto unlinked = static_cast<int>(take_from_lanes(lane_count::unlinked));
    const int without_lane = add(tbl.table->used, 0);
    const auto linked = static_cast<int>(take_from_lanes(lane_count::linked));
    add(tbl.table->used, linked - unlinked);
    now.items = without_lane + linked - unlinked;
    now.inserts = add(tbl.profile_insert, take_from_lanes(lane_count::inserts));
    return now;
}

zon_flow_table_t* table_of_engine() {
    return g_zon != nullptr ? g_zon->flow_tbl : nullptr;
}

}  // namespace

table_counts zon_counts_of(zon_flow_table_t* tbl) {
    if (tbl == table_of_engine())
        return settle(*tbl);
    return {relaxed_load(tbl->profile_delete), relaxed_load(tbl->profile_insert),
            relaxed_load(tbl->table->used)};
}

int zon_items_in(zon_hashset set) {
    zon_flow_table_t* tbl = table_of_engine();
    return tbl != nullptr && tbl->table == set ? settle(*tbl).items : relaxed_load(set->used);
}

void zon_lane_counts_settle() {
    if (zon_flow_table_t* tbl = table_of_engine())
        settle(*tbl);
}

void zon_lane_counts_clear() {
    for (lane_counts& lane : zon_counts_of_lanes)
        for (uint32_t& word : lane.words)
            relaxed_store(word, 0);
}

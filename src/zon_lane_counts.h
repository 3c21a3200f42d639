// zon_lane_counts.h - figures of the engine that every flow's beginning and end changes.
//
// A thread that owns a lane (osal/zon_lanes.h) counts there, so that no line of memory goes to and
// fro between threads. The figures are whole when what was counted in lanes has been added to them.
// Words of lanes only grow: what has come and what has gone are counted apart, because another
// thread than the one that made a flow may end it.
//
// Threads    any.

#pragma once

#include <cstdlib>

#include "osal/zon_lanes.h"
#include "zon_flow_table.h"
#include "zon_relaxed.h"

enum class lane_count : size_t { inserts, deletes, linked, unlinked, end };

struct alignas(64) lane_counts {
    uint32_t words[static_cast<size_t>(lane_count::end)];
};
extern lane_counts zon_counts_of_lanes[zon_lane_count];

// Adds to a figure of the engine's. Whoever wants to know it asks zon_lane_counts_settle.
inline void zon_count(uint32_t& shared, lane_count what, uint32_t by) {
    const int lane = zon_own_lane();
    uint32_t& counted =
        lane < 0 ? shared : zon_counts_of_lanes[lane].words[static_cast<size_t>(what)];
    __atomic_fetch_add(&counted, by, __ATOMIC_RELEASE);
}
// So many items came into the set; fewer than none: left it.
inline void zon_count_items(zon_hashset set, int by) {
    const int lane = zon_own_lane();
    if (lane < 0) {
        __atomic_fetch_add(&set->used, by, __ATOMIC_RELEASE);
        return;
    }
    const auto what = static_cast<size_t>(by < 0 ? lane_count::unlinked : lane_count::linked);
    __atomic_fetch_add(&zon_counts_of_lanes[lane].words[what], static_cast<uint32_t>(std::abs(by)),
                       __ATOMIC_RELEASE);
}

// Of a flow table. Nothing is counted as gone that is not counted as come.
struct table_counts {
    uint32_t deletes = 0;
    uint32_t inserts = 0;
    int items = 0;
};
table_counts zon_counts_of(zon_flow_table_t* tbl);
// How many items are in a set, which may be the engine's.
int zon_items_in(zon_hashset set);
// Adds what was counted in lanes to the figures of the engine that runs.
void zon_lane_counts_settle();
// Forgets it; for the end of an engine.
void zon_lane_counts_clear();

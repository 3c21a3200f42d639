// zon_lane_counts.h - figures of the engine that every flow's beginning and end changes.
//
// A thread that owns a lane (osal/zon_lanes.h) counts there, so that no line of memory goes to and
// fro between threads. The figure is whole when what was counted in lanes has been added to it.
//
// Threads    any.

#pragma once

#include "osal/zon_lanes.h"
#include "zon_relaxed.h"

enum class lane_count : size_t { inserts, deletes, linked, end };

struct alignas(64) lane_counts {
    uint32_t words[static_cast<size_t>(lane_count::end)];
};
extern lane_counts zon_counts_of_lanes[zon_lane_count];

// Adds to a figure of the engine's. Whoever reads it asks for zon_lane_counts_settle first.
template <class word>
inline void zon_count(word& shared, lane_count what, int by) {
    const int lane = zon_own_lane();
    if (lane < 0)
        relaxed_add(shared, by);
    else
        relaxed_add(zon_counts_of_lanes[lane].words[static_cast<size_t>(what)], by);
}

// Adds what was counted in lanes to the figures of the engine that runs.
void zon_lane_counts_settle();
// Forgets it; for the end of an engine.
void zon_lane_counts_clear();

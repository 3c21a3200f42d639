// zon_lanes.h - which threads meet others at the engine's shared lists, and their part of what is
// shared.
//
// A thread that finds the lock of such a list busy a few times owns a lane from then on: it takes
// and gives records in batches, keeps those that wait in its lane, and counts there
// (zon_lane_counts.h). A thread that never meets another one owns none, and everything is as if
// there were no lanes.
//
// A lane outlives its thread, with all that waits in it: the next owner goes on where the last one
// ended, and whoever is short of records gathers them from all lanes.
//
// Threads    any; zon_lanes_end runs while nothing else does.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "osal/zon_lock.h"

inline constexpr size_t zon_lane_count = 32;

namespace lane_detail {

inline constexpr int none = -1;

// Of this thread. It is true only in the engine's life that it was written in.
struct membership {
    uint32_t life;
    int lane;
    int meetings;
};
[[gnu::tls_model("initial-exec")]] extern constinit thread_local membership mine;

// Which of the engine's lives this is; no thread has a lane in one that has just begun.
extern std::atomic<uint32_t> life;
// Whether any thread had a lane in this life.
extern std::atomic<bool> any;

}  // namespace lane_detail

// The lane of this thread, or -1.
inline int zon_own_lane() {
    const lane_detail::membership& mine = lane_detail::mine;
    if (mine.lane < 0) [[likely]]
        return lane_detail::none;
    return mine.life == lane_detail::life.load(std::memory_order_relaxed) ? mine.lane
                                                                          : lane_detail::none;
}

// Whether any thread has had a lane since the engine was made: if not, nothing waits in one.
inline bool zon_lanes_are_used() {
    return lane_detail::any.load();
}

// This thread has found a shared lock busy. After a few times it owns a lane, if there is one left.
void zon_lane_met_another();

// Takes the lock of a shared list, and remembers when it was busy.
inline void zon_lock_shared_list(zon_lock_t lock) {
    const uint64_t holder = lock_at(lock)->holder.load(std::memory_order_relaxed);
    if (holder != 0 && !lock_detail::is_held_by(holder, lock_detail::this_thread())) [[unlikely]]
        zon_lane_met_another();
    zon_lock_internal(lock);
}

// Nobody owns a lane any more. Who keeps something in lanes empties them.
void zon_lanes_end();

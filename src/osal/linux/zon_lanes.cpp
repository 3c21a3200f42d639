// zon_lanes.cpp - who owns which lane.
//
// Owns   the lanes' numbers.
// Locks  none.
// Knows  nothing of what waits in lanes.

#include "osal/zon_lanes.h"

#include <bit>
#include <utility>

namespace lane_detail {

constinit thread_local membership mine{0, none, 0};
constinit std::atomic<uint32_t> life{1};
constinit std::atomic<bool> any{false};

}  // namespace lane_detail

namespace {

using lane_detail::mine;

// One thread that is interrupted with a lock in hand makes no crowd.
constexpr int meetings_for_a_lane = 4;

// The life, and a bit for each lane that has an owner. One word: a thread that ends late cannot
// give up a lane of the next life.
constinit std::atomic<uint64_t> owned{uint64_t{1} << 32};
static_assert(zon_lane_count == 32);

constexpr uint32_t life_of(uint64_t word) {
    return static_cast<uint32_t>(word >> 32);
}

void give_up(int lane) {
    uint64_t before = owned.load();
    while (life_of(before) == mine.life &&
           !owned.compare_exchange_weak(before, before & ~(uint64_t{1} << lane))) {
    }
}

// Made by a thread with its first lane, destroyed when the thread ends.
struct departure {
    bool awaited = false;
    ~departure() {
        if (const int lane = std::exchange(mine.lane, lane_detail::none); lane != lane_detail::none)
            give_up(lane);
    }
};
thread_local departure on_departure;

int first_free_lane() {
    uint64_t before = owned.load();
    for (;;) {
        const int lane = std::countr_one(static_cast<uint32_t>(before));
        if (lane == static_cast<int>(zon_lane_count) || life_of(before) != mine.life)
            return lane_detail::none;
        if (owned.compare_exchange_weak(before, before | uint64_t{1} << lane))
            return lane;
    }
}

void own_a_lane() {
    on_departure.awaited = true;
    lane_detail::any.store(true);
    mine.lane = first_free_lane();
    if (mine.lane == lane_detail::none)
        mine.meetings = 0;
}

}  // namespace

void zon_lane_met_another() {
    if (const uint32_t life = lane_detail::life.load(); mine.life != life)
        mine = {life, lane_detail::none, 0};
    if (mine.lane == lane_detail::none && mine.meetings < meetings_for_a_lane &&
        ++mine.meetings == meetings_for_a_lane)
        own_a_lane();
}

void zon_lanes_end() {
    const uint32_t life = lane_detail::life.load() + 1;
    owned.store(uint64_t{life} << 32);
    lane_detail::life.store(life);
    lane_detail::any.store(false);
}

// zon_half_open.h - bounds how many flows may wait for their other side to answer.
//
// A flow that a packet makes is half-open until its responder is heard; of TCP, until the tracker
// has seen the handshake through. With a bound in force, half-open flows are counted and carry a
// mark, and at the bound a new flow takes the place of the oldest one nearby.
//
// The mark is private_half_open: 0, or the number of the flow's last packet among all packets of
// half-open flows. It is written under the flow's lock; searches read it without, as a guess.
// Without a bound every mark is 0, and packets of known flows do no more than to see that.

#pragma once

#include "zon_engine_defs.h"
#include "zon_relaxed.h"

struct half_open_flows {
    uint32_t bound;   // 0: there is none, and nothing is marked or counted
    uint32_t count;   // flows with a mark
    uint32_t newest;  // the number given last
};
extern half_open_flows zon_half_open;

// With a new engine: at most so many percent of its flows; 0 takes the bound away.
void zon_half_open_bound(uint32_t max_flows, uint32_t percent);

inline bool zon_half_open_is_bounded() {
    return zon_half_open.bound != 0;
}
inline bool zon_half_open_is_at_bound() {
    return zon_half_open_is_bounded() && relaxed_load(zon_half_open.count) >= zon_half_open.bound;
}

// Deletes the half-open flow of the buckets from the given one on whose last packet is oldest. The
// caller holds no lock. False when there is none, or all that were found are in use elsewhere.
bool zon_half_open_replace_oldest(int bucket);

// The callers below hold the flow's lock.

void zon_half_open_mark(zon_flow_t* flow);
[[gnu::cold]] void zon_half_open_go_on(zon_flow_t* flow, const zon_dp_fe_t* fe);
void zon_half_open_unmark(zon_flow_t* flow);

// A packet has made the flow, and will follow.
inline void zon_half_open_begin(zon_flow_t* flow) {
    if (zon_half_open_is_bounded())
        zon_half_open_mark(flow);
}
// A packet of the flow has been tracked.
inline void zon_half_open_follow(zon_flow_t* flow, const zon_dp_fe_t* fe) {
    if (flow->private_half_open != 0) [[unlikely]]
        zon_half_open_go_on(flow, fe);
}
// The flow is on its way out, or waits no longer.
inline void zon_half_open_leave(zon_flow_t* flow) {
    if (flow->private_half_open != 0)
        zon_half_open_unmark(flow);
}

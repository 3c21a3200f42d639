// flow_deadlines.h - when every flow has to end, to the tick, and how far that may be from its last
// packet.
//
// With a clock that is turned by hand and timers that run inline, a timer fires at the first tick
// that is not before its deadline. Ticks count from the making of the wheel. The model follows
// them one by one, and holds each end against the promise of zon_flow_set_aging, too.

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <vector>

namespace zon_test {

inline constexpr uint64_t endurance_tick_us = 15'000;
inline constexpr uint64_t ms_us = 1000;

class tick_grid {
public:
    explicit tick_grid(uint64_t made_at_us) : made_at_us_(made_at_us) {}

    // No time at all counts as 1024 ms.
    uint64_t fires_at(uint64_t now_us, uint32_t ms) const {
        const uint64_t since_us = now_us - made_at_us_ + (ms == 0 ? 1024 : ms) * ms_us;
        return made_at_us_ +
               (since_us + endurance_tick_us - 1) / endurance_tick_us * endurance_tick_us;
    }

private:
    uint64_t made_at_us_;
};

struct modelled_flow {
    uint32_t fid = 0;
    uint32_t connection = 0;
    uint32_t kind = 0;
    uint32_t idle_ms = 0;
    uint64_t due_us = 0;   // when its timer fires next
    uint64_t kept_us = 0;  // its last packet, or its idle time was set
    bool renewed = false;  // by a packet: the timer that fires starts anew
    bool closed = false;   // packets keep it no longer
};

inline std::ostream& operator<<(std::ostream& out, const modelled_flow& flow) {
    return out << "flow " << flow.fid << " of kind " << flow.kind << ", idle time " << flow.idle_ms
               << " ms, due at " << flow.due_us << ", kept at " << flow.kept_us << " us"
               << (flow.closed ? ", closed" : "");
}

class flow_deadlines {
public:
    struct margins {
        uint64_t ends = 0;
        uint64_t after_renewals = 0;
        uint64_t latest_beyond_rule_us = 0;  // behind twice the idle time, at worst
        uint64_t longest_idle_ms = 0;
    };

    flow_deadlines(tick_grid grid, uint32_t capacity) : grid_(grid), place_of_(capacity + 1, 0) {
        flows_.reserve(capacity);
    }

    size_t size() const { return flows_.size(); }
    modelled_flow& at(size_t place) { return flows_[place]; }
    const margins& seen() const { return seen_; }

    modelled_flow* find(uint32_t fid) {
        const uint32_t place = fid < place_of_.size() ? place_of_[fid] : 0;
        return place == 0 ? nullptr : &flows_[place - 1];
    }

    modelled_flow& begin(uint32_t fid, uint64_t now_us, uint32_t idle_ms) {
        EXPECT_EQ(find(fid), nullptr) << "two flows of one identifier";
        flows_.push_back({});
        place_of_.at(fid) = static_cast<uint32_t>(flows_.size());
        flows_.back().fid = fid;
        arm(flows_.back(), now_us, idle_ms);
        return flows_.back();
    }

    void arm(modelled_flow& flow, uint64_t now_us, uint32_t idle_ms) {
        flow.idle_ms = idle_ms;
        flow.due_us = grid_.fires_at(now_us, idle_ms);
        flow.kept_us = now_us;
        flow.renewed = false;
    }

    void packet(modelled_flow& flow, uint64_t now_us, bool of_closed_session) {
        catch_up(flow, now_us);
        flow.renewed = !of_closed_session;
        flow.closed = of_closed_session;
        if (!of_closed_session)
            flow.kept_us = now_us;
    }

    // The engine says that the flow ends now, for lack of packets.
    void idled_out(uint32_t fid, uint64_t now_us) {
        modelled_flow* flow = find(fid);
        ASSERT_NE(flow, nullptr) << "flow " << fid << " ends twice";
        catch_up(*flow, now_us);
        EXPECT_FALSE(flow->renewed) << *flow << " ends at " << now_us << ", early by a period";
        EXPECT_EQ(flow->due_us, now_us) << *flow << " ends at " << now_us;
        keep_margins(*flow, now_us);
        forget(*flow);
    }

    void forget(modelled_flow& flow) {
        const uint32_t place = place_of_[flow.fid];
        place_of_[flow.fid] = 0;
        if (place != flows_.size()) {
            flows_[place - 1] = flows_.back();
            place_of_[flows_[place - 1].fid] = place;
        }
        flows_.pop_back();
    }

    // No flow is there that should have ended.
    void expect_none_overdue(uint64_t now_us) {
        for (modelled_flow& flow : flows_) {
            catch_up(flow, now_us + 1);
            EXPECT_GT(flow.due_us, now_us) << flow << " is still there at " << now_us;
        }
    }

private:
    // The timer of a renewed flow has fired before this moment and started anew.
    void catch_up(modelled_flow& flow, uint64_t now_us) {
        while (flow.due_us < now_us && flow.renewed) {
            flow.due_us = grid_.fires_at(flow.due_us, flow.idle_ms);
            flow.renewed = false;
            ++seen_.after_renewals;
        }
    }

    // At least the idle time after its last packet, at most twice that and two ticks.
    void keep_margins(const modelled_flow& flow, uint64_t now_us) {
        ++seen_.ends;
        seen_.longest_idle_ms = std::max<uint64_t>(seen_.longest_idle_ms, flow.idle_ms);
        const uint64_t idle_us = (flow.idle_ms == 0 ? 1024 : flow.idle_ms) * ms_us;
        if (flow.closed)
            return;
        EXPECT_GE(now_us, flow.kept_us + idle_us) << flow << " ends too early, at " << now_us;
        EXPECT_LE(now_us, flow.kept_us + 2 * idle_us + 2 * endurance_tick_us)
            << flow << " ends too late, at " << now_us;
        if (now_us > flow.kept_us + 2 * idle_us)
            seen_.latest_beyond_rule_us =
                std::max(seen_.latest_beyond_rule_us, now_us - flow.kept_us - 2 * idle_us);
    }

    const tick_grid grid_;
    std::vector<modelled_flow> flows_;
    std::vector<uint32_t> place_of_;  // by identifier; 0: none
    margins seen_;
};

}  // namespace zon_test

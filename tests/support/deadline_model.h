// deadline_model.h - when a timer is expected to fire: between its deadline and two ticks later.
//
// Scripts never let anything happen inside of such an interval, where engine and model may both be
// right.

#pragma once

#include <cstdint>

namespace zon_test {

struct deadline {
    static constexpr uint64_t tick_us = 15000;

    uint64_t from = 0, to = 0;

    // No time at all counts as 1024 ms.
    static deadline after(uint64_t now_us, uint32_t ms) {
        return deadline{now_us, now_us}.later_by(ms);
    }
    deadline later_by(uint32_t ms) const {
        const uint64_t us = (ms == 0 ? 1024 : ms) * uint64_t{1000};
        return {from + us, to + us + 2 * tick_us};
    }
    // Moves a moment that lies inside behind the end.
    bool step_out(uint64_t& moment) const {
        const bool inside = from <= moment && moment <= to;
        if (inside)
            moment = to + 1;
        return inside;
    }
    // Five renewals make it too uncertain to be compared.
    bool is_vague() const { return to - from > 5 * 2 * tick_us; }
};

}  // namespace zon_test

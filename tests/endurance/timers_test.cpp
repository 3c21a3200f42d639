// timers_test.cpp - millions of timers on a wheel of the engine's shape, each against its deadline.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <utility>
#include <vector>

#include "endurance/footprint.h"
#include "vem/vem_attached_wheel.h"

namespace zon_test {
namespace {

constexpr uint64_t tick_us = 15'000;
constexpr uint64_t ms_us = 1000;

struct crowd_timer {
    vem_tw_timer timer{};
    uint64_t deadline_us = 0;  // 0: it does not run
};

class crowd {
public:
    crowd(vem_tw_wheel wheel, size_t count) : wheel_(wheel), timers_(count) {}

    ~crowd() {
        for (crowd_timer& timer : timers_)
            vem_tw_timer_stop(&timer.timer);
    }
    crowd(const crowd&) = delete;
    crowd& operator=(const crowd&) = delete;

    // The clock goes on meanwhile, so that some fire while others are yet to start.
    void start_all() {
        for (crowd_timer& timer : timers_) {
            start(timer);
            if (random_() % 16 == 0)
                vem_clock_advance_us(random_() % 2000);
        }
    }

    // One in eight is stopped, one in eight started anew.
    void stir() {
        for (crowd_timer& timer : timers_) {
            const auto what = random_() % 8;
            if (what == 0)
                stop(timer);
            else if (what == 1)
                start(timer);
        }
    }

    void expect_none_overdue() const {
        const uint64_t now_us = vem_clock_now_us();
        const auto overdue = std::count_if(timers_.begin(), timers_.end(), [&](const auto& timer) {
            return timer.deadline_us != 0 && timer.deadline_us + 2 * tick_us < now_us;
        });
        EXPECT_EQ(overdue, 0) << "timers did not fire";
    }

    uint64_t fired = 0, early = 0, late = 0, unexpected = 0, out_of_order = 0;
    uint64_t latest_us = 0;  // behind its deadline, at worst
    uint64_t started = 0, stopped = 0;
    uint64_t armed = 0;  // started while they did not run: each fires or is stopped, once

private:
    static void expired(vem_tw_wheel, vem_tw_timer* timer, void* context) {
        static_cast<crowd*>(context)->judge(*reinterpret_cast<crowd_timer*>(timer));
    }
    void judge(crowd_timer& timer) {
        const uint64_t now_us = vem_clock_now_us();
        ++fired;
        out_of_order += now_us < last_us_ ? 1U : 0U;
        last_us_ = now_us;
        const uint64_t deadline_us = std::exchange(timer.deadline_us, 0);
        if (deadline_us == 0) {
            ++unexpected;
        } else if (now_us < deadline_us) {
            ++early;
        } else {
            latest_us = std::max(latest_us, now_us - deadline_us);
            late += now_us - deadline_us > 2 * tick_us ? 1U : 0U;
        }
    }

    // Logarithms spread evenly up to the longest time, so that every level gets its share.
    void start(crowd_timer& timer) {
        static const double longest = std::log(static_cast<double>(UINT32_MAX));
        const auto ms =
            static_cast<uint32_t>(std::exp(std::uniform_real_distribution<>(0, longest)(random_)));
        armed += timer.deadline_us == 0 ? 1U : 0U;
        timer.deadline_us = vem_clock_now_us() + std::max(ms, 1U) * ms_us;
        ++started;
        ASSERT_EQ(vem_tw_timer_start(wheel_, &timer.timer, ms, expired, this), 0);
    }
    void stop(crowd_timer& timer) {
        stopped += timer.deadline_us != 0 ? 1U : 0U;
        timer.deadline_us = 0;
        ASSERT_EQ(vem_tw_timer_stop(&timer.timer), 0);
    }

    vem_tw_wheel wheel_;
    std::vector<crowd_timer> timers_;
    std::mt19937_64 random_{5};
    uint64_t last_us_ = 0;
};

TEST(crowded_wheel, fires_each_of_millions_of_timers_once_and_in_time) {
    const size_t count = is_long_form() ? 10'000'000 : 200'000;
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    const attached_wheel wheel;
    crowd timers(wheel.wheel, count);
    timers.start_all();
    timers.stir();
    const footprint before = footprint::of_this_process();
    const uint64_t end_us = vem_clock_now_us() + (uint64_t{UINT32_MAX} + 1) * ms_us + 2 * tick_us;
    for (uint64_t stride_us = 1000; vem_clock_now_us() < end_us; stride_us *= 3) {
        ASSERT_EQ(vem_clock_advance_us(stride_us), 0);
        timers.expect_none_overdue();
    }
    const footprint after = footprint::of_this_process();

    EXPECT_EQ(timers.early, 0U);
    EXPECT_EQ(timers.late, 0U);
    EXPECT_EQ(timers.unexpected, 0U);
    EXPECT_EQ(timers.out_of_order, 0U);
    EXPECT_EQ(timers.fired + timers.stopped, timers.armed);
    EXPECT_GT(timers.fired, count / 2);
    EXPECT_LE(growth(before.heap_bytes, after.heap_bytes), heap_slack_bytes)
        << "expiries take memory";
    std::printf(
        "%zu timers, %llu starts, %llu stops, %llu fired, at worst %llu us after the"
        " deadline\n",
        count, static_cast<unsigned long long>(timers.started),
        static_cast<unsigned long long>(timers.stopped),
        static_cast<unsigned long long>(timers.fired),
        static_cast<unsigned long long>(timers.latest_us));
}

}  // namespace
}  // namespace zon_test

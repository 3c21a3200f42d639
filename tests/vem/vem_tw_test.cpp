// vem_tw_test.cpp - what one timer and one wheel promise, with the clock turned by hand on the
// testing thread.
#include "vem/vem_tw.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "vem_attached_wheel.h"

namespace {

constexpr uint64_t ms_us = 1000;

class vem_tw : public ::testing::Test {
protected:
    clock_in_mode clock_{VEM_CLOCK_MANUAL_INLINE};
    attached_wheel wheel_;
};

// A timer whose callback is what the test says.
struct acting_timer {
    vem_tw_timer timer{};
    std::function<void()> act;
    int expiries = 0;

    acting_timer() = default;
    ~acting_timer() { vem_tw_timer_stop(&timer); }
    acting_timer(const acting_timer&) = delete;
    acting_timer& operator=(const acting_timer&) = delete;

    static void expired(vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* self = static_cast<acting_timer*>(context);
        ++self->expiries;
        if (self->act) {
            self->act();
        }
    }
    int start(vem_tw_wheel wheel, uint32_t ms) {
        return vem_tw_timer_start(wheel, &timer, ms, expired, this);
    }
};

void ignore_expiry(vem_tw_wheel, vem_tw_timer*, void*) {}

TEST_F(vem_tw, fires_once) {
    counted_timer timer;
    ASSERT_EQ(timer.start(wheel_.wheel, 1000), 0);
    EXPECT_TRUE(vem_tw_timer_running(&timer.timer));
    vem_clock_advance_us(10'000 * ms_us);
    EXPECT_EQ(timer.expiries, 1U);
    EXPECT_FALSE(vem_tw_timer_running(&timer.timer));
    vem_clock_advance_us(10'000 * ms_us);
    EXPECT_EQ(timer.expiries, 1U);
}

TEST_F(vem_tw, hands_wheel_timer_and_context_to_the_callback) {
    struct seen {
        vem_tw_wheel wheel;
        vem_tw_timer* timer;
    } got{};
    vem_tw_timer timer{};
    const auto note = [](vem_tw_wheel wheel, vem_tw_timer* fired, void* context) {
        *static_cast<seen*>(context) = {wheel, fired};
    };
    ASSERT_EQ(vem_tw_timer_start(wheel_.wheel, &timer, 1, note, &got), 0);
    vem_clock_advance_us(100 * ms_us);
    EXPECT_EQ(got.wheel, wheel_.wheel);
    EXPECT_EQ(got.timer, &timer);
}

TEST_F(vem_tw, restart_replaces_the_first_deadline) {
    counted_timer timer;
    timer.start(wheel_.wheel, 1000);
    vem_clock_advance_us(900 * ms_us);
    timer.start(wheel_.wheel, 1000);
    vem_clock_advance_us(999 * ms_us);
    EXPECT_EQ(timer.expiries, 0U);
    vem_clock_advance_us(31 * ms_us);
    EXPECT_EQ(timer.expiries, 1U);
}

TEST_F(vem_tw, restart_may_bring_the_deadline_forward) {
    counted_timer timer;
    timer.start(wheel_.wheel, 3'600'000);
    timer.start(wheel_.wheel, 20);
    vem_clock_advance_us(50 * ms_us);
    EXPECT_EQ(timer.expiries, 1U);
}

TEST_F(vem_tw, a_stopped_timer_does_not_fire) {
    counted_timer timer;
    timer.start(wheel_.wheel, 1000);
    EXPECT_EQ(vem_tw_timer_stop(&timer.timer), 0);
    EXPECT_FALSE(vem_tw_timer_running(&timer.timer));
    vem_clock_advance_us(5000 * ms_us);
    EXPECT_EQ(timer.expiries, 0U);
}

TEST_F(vem_tw, stop_is_harmless_on_a_timer_that_does_not_run) {
    counted_timer timer;
    EXPECT_EQ(vem_tw_timer_stop(&timer.timer), 0);
    timer.start(wheel_.wheel, 1);
    vem_clock_advance_us(100 * ms_us);
    EXPECT_EQ(vem_tw_timer_stop(&timer.timer), 0);
    EXPECT_EQ(vem_tw_timer_stop(&timer.timer), 0);
    EXPECT_EQ(timer.expiries, 1U);
}

TEST_F(vem_tw, zero_milliseconds_count_as_one) {
    counted_timer timer;
    timer.start(wheel_.wheel, 0);
    const uint64_t started_at = vem_clock_now_us();
    vem_clock_advance_us(100 * ms_us);
    EXPECT_EQ(timer.expiries, 1U);
    EXPECT_GE(timer.expired_at_us, started_at + ms_us);
}

TEST_F(vem_tw, does_not_run_inside_its_own_callback_until_started_again) {
    acting_timer timer;
    bool before = true;
    bool after = false;
    timer.act = [&] {
        before = vem_tw_timer_running(&timer.timer);
        vem_tw_timer_stop(&timer.timer);
        timer.start(wheel_.wheel, 50);
        after = vem_tw_timer_running(&timer.timer);
        timer.act = nullptr;
    };
    timer.start(wheel_.wheel, 50);
    vem_clock_advance_us(65 * ms_us);
    EXPECT_FALSE(before);
    EXPECT_TRUE(after);
    EXPECT_EQ(timer.expiries, 1);
    vem_clock_advance_us(65 * ms_us);
    EXPECT_EQ(timer.expiries, 2);
}

TEST_F(vem_tw, timers_of_one_tick_fire_in_the_order_of_their_starts) {
    // The first two start on an upper level, the others beside them after a cascade.
    std::vector<int> order;
    std::vector<acting_timer> timers(5);
    const uint64_t deadline = vem_clock_now_us() + 100'000 * ms_us;
    for (size_t i = 0; i < timers.size(); ++i) {
        timers[i].act = [&order, i] { order.push_back(static_cast<int>(i)); };
        const uint64_t left_us = deadline - vem_clock_now_us();
        timers[i].start(wheel_.wheel, static_cast<uint32_t>(left_us / ms_us));
        vem_clock_advance_us(24'000 * ms_us);
    }
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(vem_tw, a_callback_may_stop_another_timer_of_the_same_tick) {
    acting_timer first;
    counted_timer second;
    first.act = [&] { vem_tw_timer_stop(&second.timer); };
    first.start(wheel_.wheel, 100);
    second.start(wheel_.wheel, 100);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(first.expiries, 1);
    EXPECT_EQ(second.expiries, 0U);
}

TEST_F(vem_tw, a_callback_may_restart_another_timer_of_the_same_tick) {
    acting_timer first;
    counted_timer second;
    first.act = [&] { second.start(wheel_.wheel, 500); };
    first.start(wheel_.wheel, 100);
    second.start(wheel_.wheel, 100);
    const uint64_t started_at = vem_clock_now_us();
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(second.expiries, 1U);
    EXPECT_GE(second.expired_at_us, started_at + 600 * ms_us);
}

TEST_F(vem_tw, an_expiry_is_not_cancelled_as_long_as_nobody_touches_the_timer) {
    acting_timer timer;
    bool cancelled = true;
    timer.act = [&] { cancelled = vem_tw_expiry_cancelled(&timer.timer); };
    timer.start(wheel_.wheel, 10);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(timer.expiries, 1);
    EXPECT_FALSE(cancelled);
}

TEST_F(vem_tw, stop_and_start_cancel_the_expiry_that_is_being_run) {
    for (const bool by_start : {false, true}) {
        acting_timer timer;
        bool cancelled = false;
        timer.act = [&] {
            if (by_start) {
                timer.start(wheel_.wheel, 3'600'000);
            } else {
                vem_tw_timer_stop(&timer.timer);
            }
            cancelled = vem_tw_expiry_cancelled(&timer.timer);
        };
        timer.start(wheel_.wheel, 10);
        vem_clock_advance_us(1000 * ms_us);
        EXPECT_TRUE(cancelled) << "by_start " << by_start;
        vem_tw_timer_stop(&timer.timer);
    }
}

TEST_F(vem_tw, a_cancelled_expiry_says_nothing_of_the_next_one) {
    acting_timer timer;
    std::vector<bool> cancelled;
    timer.act = [&] {
        if (cancelled.empty()) {
            timer.start(wheel_.wheel, 10);
        }
        cancelled.push_back(vem_tw_expiry_cancelled(&timer.timer));
    };
    timer.start(wheel_.wheel, 10);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(cancelled, (std::vector<bool>{true, false}));
}

TEST_F(vem_tw, outside_a_dispatch_no_expiry_is_cancelled) {
    counted_timer timer;
    EXPECT_FALSE(vem_tw_expiry_cancelled(&timer.timer));
    timer.start(wheel_.wheel, 10);
    vem_tw_timer_stop(&timer.timer);
    EXPECT_FALSE(vem_tw_expiry_cancelled(&timer.timer));
}

TEST_F(vem_tw, a_detached_wheel_fires_when_it_is_attached_again) {
    counted_timer timer;
    timer.start(wheel_.wheel, 100);
    EXPECT_FALSE(vem_tw_is_detached(wheel_.wheel));
    ASSERT_EQ(vem_tw_attach_vdm(wheel_.wheel, nullptr), 0);
    EXPECT_TRUE(vem_tw_is_detached(wheel_.wheel));
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(timer.expiries, 0U);
    ASSERT_EQ(vem_tw_attach_vdm(wheel_.wheel, wheel_.manager), 0);
    EXPECT_FALSE(vem_tw_is_detached(wheel_.wheel));
    vem_clock_advance_us(0);
    EXPECT_EQ(timer.expiries, 1U);
}

TEST_F(vem_tw, quiesce_inside_a_callback_returns_and_holds_back_the_rest) {
    acting_timer first;
    counted_timer second;
    int result = -1;
    first.act = [&] { result = vem_tw_quiesce(wheel_.wheel); };
    first.start(wheel_.wheel, 100);
    second.start(wheel_.wheel, 100);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(vem_tw_is_detached(wheel_.wheel));
    EXPECT_EQ(second.expiries, 0U);
    EXPECT_TRUE(vem_tw_timer_running(&second.timer));
    vem_tw_attach_vdm(wheel_.wheel, wheel_.manager);
    vem_clock_advance_us(0);
    EXPECT_EQ(second.expiries, 1U);
}

TEST_F(vem_tw, starts_and_stops_stay_allowed_on_a_quiescent_wheel) {
    counted_timer timer;
    vem_tw_quiesce(wheel_.wheel);
    EXPECT_EQ(timer.start(wheel_.wheel, 100), 0);
    EXPECT_TRUE(vem_tw_timer_running(&timer.timer));
    EXPECT_EQ(vem_tw_timer_stop(&timer.timer), 0);
    EXPECT_FALSE(vem_tw_timer_running(&timer.timer));
}

TEST_F(vem_tw, destroying_a_wheel_disarms_its_timers) {
    counted_timer near_timer;
    counted_timer far_timer;
    near_timer.start(wheel_.wheel, 1);
    far_timer.start(wheel_.wheel, UINT32_MAX);
    vem_tw_wheel dead = wheel_.wheel;
    ASSERT_EQ(vem_tw_destroy_wheel(&wheel_.wheel), 0);
    EXPECT_EQ(wheel_.wheel, nullptr);
    for (counted_timer* timer : {&near_timer, &far_timer}) {
        EXPECT_FALSE(vem_tw_timer_running(&timer->timer));
        EXPECT_EQ(timer->timer.timer.tm_links.tw_next, nullptr);
        EXPECT_EQ(vem_tw_timer_stop(&timer->timer), 0);
    }
    EXPECT_NE(near_timer.start(dead, 1), 0);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(near_timer.expiries, 0U);
}

TEST_F(vem_tw, a_dead_handle_is_refused_even_after_its_place_is_taken) {
    vem_tw_wheel dead = wheel_.wheel;
    vem_tw_destroy_wheel(&wheel_.wheel);
    ASSERT_EQ(vem_tw_init_wheel(&wheel_.wheel, 1024, 15000, 3, 0, 0, 0), 0);
    ASSERT_NE(dead, wheel_.wheel);
    counted_timer timer;
    EXPECT_NE(timer.start(dead, 1), 0);
    EXPECT_NE(vem_tw_attach_vdm(dead, wheel_.manager), 0);
    EXPECT_NE(vem_tw_quiesce(dead), 0);
    EXPECT_TRUE(vem_tw_is_detached(dead));
    EXPECT_NE(vem_tw_destroy_wheel(&dead), 0);
    EXPECT_EQ(timer.start(wheel_.wheel, 1), 0);
    vem_tw_timer_stop(&timer.timer);
}

TEST_F(vem_tw, a_callback_may_destroy_its_wheel_and_is_then_cancelled) {
    acting_timer first;
    counted_timer second;
    bool cancelled = false;
    first.act = [&] {
        vem_tw_destroy_wheel(&wheel_.wheel);
        cancelled = vem_tw_expiry_cancelled(&first.timer);
    };
    first.start(wheel_.wheel, 100);
    second.start(wheel_.wheel, 100);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(first.expiries, 1);
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(second.expiries, 0U);
    EXPECT_FALSE(vem_tw_timer_running(&second.timer));
}

TEST_F(vem_tw, a_timer_may_move_to_another_wheel) {
    attached_wheel other;
    counted_timer timer;
    timer.start(wheel_.wheel, 100);
    timer.start(other.wheel, 500);
    vem_clock_advance_us(400 * ms_us);
    EXPECT_EQ(timer.expiries, 0U);
    vem_clock_advance_us(400 * ms_us);
    EXPECT_EQ(timer.expiries, 1U);
}

TEST_F(vem_tw, a_zeroed_timer_does_not_run_whatever_its_padding_holds) {
    vem_tw_timer timer;
    std::memset(&timer, 0xA5, sizeof(timer));
    timer.timer.tm_links = {nullptr, nullptr};
    timer.timer.tm_ticks = 0;
    EXPECT_FALSE(vem_tw_timer_running(&timer));
    EXPECT_EQ(vem_tw_timer_stop(&timer), 0);
    EXPECT_EQ(vem_tw_timer_start(wheel_.wheel, &timer, 10, ignore_expiry, nullptr), 0);
    EXPECT_TRUE(vem_tw_timer_running(&timer));
    vem_clock_advance_us(100 * ms_us);
    EXPECT_FALSE(vem_tw_timer_running(&timer));
}

TEST_F(vem_tw, accepts_null_everywhere) {
    vem_tw_wheel none = nullptr;
    vem_tw_timer timer{};
    EXPECT_NE(vem_tw_init_wheel(nullptr, 1024, 15000, 3, 0, 0, 0), 0);
    EXPECT_NE(vem_tw_attach_vdm(nullptr, wheel_.manager), 0);
    EXPECT_NE(vem_tw_attach_vdm(nullptr, nullptr), 0);
    EXPECT_NE(vem_tw_destroy_wheel(nullptr), 0);
    EXPECT_NE(vem_tw_destroy_wheel(&none), 0);
    EXPECT_EQ(vem_tw_timer_start(nullptr, &timer, 1, counted_timer::expired, nullptr), EINVAL);
    EXPECT_EQ(vem_tw_timer_start(wheel_.wheel, nullptr, 1, counted_timer::expired, nullptr),
              EINVAL);
    EXPECT_EQ(vem_tw_timer_start(wheel_.wheel, &timer, 1, nullptr, nullptr), EINVAL);
    EXPECT_NE(vem_tw_timer_stop(nullptr), 0);
    EXPECT_FALSE(vem_tw_timer_running(nullptr));
    EXPECT_FALSE(vem_tw_timer_running(&timer));
    EXPECT_FALSE(vem_tw_expiry_cancelled(nullptr));
    EXPECT_NE(vem_tw_quiesce(nullptr), 0);
    EXPECT_FALSE(vem_tw_is_detached(nullptr));
}

TEST_F(vem_tw, refuses_shapes_that_make_no_wheel) {
    vem_tw_wheel wheel = nullptr;
    EXPECT_EQ(vem_tw_init_wheel(&wheel, 0, 15000, 3, 0, 0, 0), EINVAL);
    EXPECT_EQ(vem_tw_init_wheel(&wheel, 65537, 15000, 3, 0, 0, 0), EINVAL);
    EXPECT_EQ(vem_tw_init_wheel(&wheel, 1024, 0, 3, 0, 0, 0), EINVAL);
    EXPECT_EQ(vem_tw_init_wheel(&wheel, 1024, 15000, 0, 0, 0, 0), EINVAL);
    EXPECT_EQ(wheel, nullptr);
}

TEST_F(vem_tw, says_when_the_process_has_as_many_wheels_as_it_can) {
    std::vector<vem_tw_wheel> wheels;
    int result = 0;
    while (result == 0 && wheels.size() < 1000) {
        vem_tw_wheel wheel = nullptr;
        result = vem_tw_init_wheel(&wheel, 2, 1'000'000, 1, 0, 0, 0);
        if (result == 0) {
            wheels.push_back(wheel);
        }
    }
    EXPECT_EQ(result, EAGAIN);
    EXPECT_GE(wheels.size(), 64U);
    for (vem_tw_wheel& wheel : wheels) {
        EXPECT_EQ(vem_tw_destroy_wheel(&wheel), 0);
    }
}

TEST_F(vem_tw, a_million_timers_fire_once_each_and_on_time) {
    constexpr uint32_t count = 1'000'000;
    std::vector<counted_timer> timers(count);
    std::vector<uint64_t> deadlines(count);
    std::mt19937 random(7);
    std::uniform_int_distribution<uint32_t> some_ms(1, 3'600'000);
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t ms = some_ms(random);
        deadlines[i] = vem_clock_now_us() + ms * ms_us;
        timers[i].start(wheel_.wheel, ms);
    }
    vem_clock_advance_us(3'700'000 * ms_us);
    for (uint32_t i = 0; i < count; ++i) {
        ASSERT_EQ(timers[i].expiries, 1U) << "timer " << i;
        ASSERT_GE(timers[i].expired_at_us, deadlines[i]) << "timer " << i;
        ASSERT_LE(timers[i].expired_at_us, deadlines[i] + 30 * ms_us) << "timer " << i;
    }
}

}  // namespace

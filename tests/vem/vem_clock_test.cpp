// vem_clock_test.cpp - the clock as the system's and turned by hand.
#include "vem/vem_clock.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <cerrno>
#include <semaphore>
#include <thread>
#include <vector>

#include "vem_attached_wheel.h"

namespace {

constexpr uint64_t ms_us = 1000;
constexpr uint64_t half_an_hour_us = 1'800'000'000;

// Starts itself again in its callback and notes when, and on which thread, that was.
struct repeating_timer {
    vem_tw_timer timer{};
    uint32_t every_ms = 0;
    std::vector<uint64_t> expired_at_us;
    std::vector<pthread_t> expired_on;

    repeating_timer() = default;
    ~repeating_timer() { vem_tw_timer_stop(&timer); }
    repeating_timer(const repeating_timer&) = delete;
    repeating_timer& operator=(const repeating_timer&) = delete;

    static void expired(vem_tw_wheel wheel, vem_tw_timer* timer, void* context) {
        auto* self = static_cast<repeating_timer*>(context);
        self->expired_at_us.push_back(vem_clock_now_us());
        self->expired_on.push_back(pthread_self());
        vem_tw_timer_start(wheel, timer, self->every_ms, expired, self);
    }
    void start(vem_tw_wheel wheel, uint32_t ms) {
        every_ms = ms;
        vem_tw_timer_start(wheel, &timer, ms, expired, this);
    }
};

uint64_t system_clock_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<uint64_t>(now.tv_nsec) / 1000;
}

TEST(vem_clock, goes_as_fast_as_the_systems_clock) {
    const uint64_t first_us = vem_clock_now_us();
    const uint64_t system_first_us = system_clock_us();
    while (system_clock_us() < system_first_us + 1000) {
    }
    const uint64_t second_us = vem_clock_now_us();
    EXPECT_GE(second_us - first_us, 1000U);
    const uint64_t third_us = vem_clock_now_us();
    EXPECT_LE(third_us - second_us, system_clock_us() - system_first_us);
}

TEST(vem_clock, refuses_unknown_modes_and_turns_of_the_systems_clock) {
    EXPECT_EQ(vem_clock_set_mode(-1), EINVAL);
    EXPECT_EQ(vem_clock_set_mode(3), EINVAL);
    EXPECT_EQ(vem_clock_advance_us(1), EPERM);
    EXPECT_EQ(vem_clock_advance_to_us(1), EPERM);
}

class vem_clock_by_hand : public ::testing::TestWithParam<int> {};

TEST_P(vem_clock_by_hand, stands_still_between_turns) {
    const uint64_t system_us = vem_clock_now_us();
    const clock_in_mode clock(GetParam());
    const uint64_t start_us = vem_clock_now_us();
    EXPECT_GE(start_us, system_us);
    EXPECT_EQ(vem_clock_advance_us(5), 0);
    EXPECT_EQ(vem_clock_now_us(), start_us + 5);
    EXPECT_EQ(vem_clock_advance_to_us(start_us + 7), 0);
    EXPECT_EQ(vem_clock_now_us(), start_us + 7);
}

TEST_P(vem_clock_by_hand, is_never_turned_back) {
    const clock_in_mode clock(GetParam());
    const uint64_t start_us = vem_clock_now_us();
    EXPECT_EQ(vem_clock_advance_to_us(start_us - 1), 0);
    EXPECT_EQ(vem_clock_advance_to_us(0), 0);
    EXPECT_EQ(vem_clock_now_us(), start_us);
}

TEST_P(vem_clock_by_hand, continues_where_it_stood_when_the_system_takes_over) {
    uint64_t stood_at_us = 0;
    {
        const clock_in_mode clock(GetParam());
        vem_clock_advance_us(half_an_hour_us);
        stood_at_us = vem_clock_now_us();
    }
    EXPECT_GE(vem_clock_now_us(), stood_at_us);
    EXPECT_LT(vem_clock_now_us(), stood_at_us + half_an_hour_us);
}

TEST_P(vem_clock_by_hand, refuses_to_leave_its_range) {
    const clock_in_mode clock(GetParam());
    const uint64_t start_us = vem_clock_now_us();
    EXPECT_EQ(vem_clock_advance_us(UINT64_MAX), EOVERFLOW);
    EXPECT_EQ(vem_clock_advance_to_us((uint64_t{1} << 62) + 1), EOVERFLOW);
    EXPECT_EQ(vem_clock_now_us(), start_us);
}

TEST_P(vem_clock_by_hand, only_moves_when_no_wheel_is_attached) {
    const clock_in_mode clock(GetParam());
    attached_wheel wheel;
    vem_tw_attach_vdm(wheel.wheel, nullptr);
    counted_timer timer;
    timer.start(wheel.wheel, 1);
    const uint64_t start_us = vem_clock_now_us();
    EXPECT_EQ(vem_clock_advance_us(half_an_hour_us), 0);
    EXPECT_EQ(vem_clock_now_us(), start_us + half_an_hour_us);
    EXPECT_EQ(timer.expiries, 0U);
}

TEST_P(vem_clock_by_hand, stops_at_every_due_time_on_its_way) {
    const clock_in_mode clock(GetParam());
    attached_wheel wheel;
    dispatching_thread dispatcher(wheel.manager);
    repeating_timer timer;
    const uint64_t start_us = vem_clock_now_us();
    timer.start(wheel.wheel, 30);
    vem_clock_advance_us(3000 * ms_us);
    ASSERT_EQ(timer.expired_at_us.size(), 100U);
    for (uint64_t i = 0; i < timer.expired_at_us.size(); ++i) {
        EXPECT_EQ(timer.expired_at_us[i], start_us + (i + 1) * 30 * ms_us);
    }
    EXPECT_EQ(vem_clock_now_us(), start_us + 3000 * ms_us);
    vem_dm_destroy(&wheel.manager);
}

TEST_P(vem_clock_by_hand, runs_the_timers_of_several_managers_in_the_order_of_their_due_times) {
    const clock_in_mode clock(GetParam());
    attached_wheel one;
    attached_wheel another;
    dispatching_thread dispatcher_of_one(one.manager);
    dispatching_thread dispatcher_of_another(another.manager);
    repeating_timer slow;
    repeating_timer quick;
    slow.start(one.wheel, 300);
    quick.start(another.wheel, 90);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(slow.expired_at_us.size(), 3U);
    EXPECT_EQ(quick.expired_at_us.size(), 11U);
    vem_dm_destroy(&one.manager);
    vem_dm_destroy(&another.manager);
}

TEST_P(vem_clock_by_hand, a_turn_returns_after_the_callbacks_it_caused) {
    const auto restart_and_dawdle = [](vem_tw_wheel wheel, vem_tw_timer* timer, void* context) {
        vem_tw_timer_start(wheel, timer, 1000, counted_timer::expired, nullptr);
        for (int i = 0; i < 100; ++i) {
            sched_yield();
        }
        *static_cast<bool*>(context) = true;
    };
    const clock_in_mode clock(GetParam());
    vem_tw_timer timer{};
    bool done = false;
    attached_wheel wheel;
    dispatching_thread dispatcher(wheel.manager);
    for (int round = 0; round < 20; ++round) {
        done = false;
        vem_tw_timer_start(wheel.wheel, &timer, 30, restart_and_dawdle, &done);
        vem_clock_advance_us(60 * ms_us);
        ASSERT_TRUE(done) << "round " << round;
    }
    vem_dm_destroy(&wheel.manager);
}

TEST_P(vem_clock_by_hand, callbacks_run_on_the_thread_of_the_mode) {
    const clock_in_mode clock(GetParam());
    attached_wheel wheel;
    dispatching_thread dispatcher(wheel.manager);
    repeating_timer timer;
    timer.start(wheel.wheel, 300);
    vem_clock_advance_us(1000 * ms_us);
    ASSERT_EQ(timer.expired_on.size(), 3U);
    for (const pthread_t thread : timer.expired_on) {
        EXPECT_EQ(pthread_equal(thread, pthread_self()) != 0,
                  GetParam() == VEM_CLOCK_MANUAL_INLINE);
    }
    vem_dm_destroy(&wheel.manager);
}

TEST_P(vem_clock_by_hand, cannot_be_turned_or_switched_from_a_callback) {
    struct results {
        int turn = 0;
        int turn_to = 0;
        int mode = 0;
        uint64_t before_us = 0;
        uint64_t after_us = 0;
    } got;
    const auto attempt = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* seen = static_cast<results*>(context);
        seen->before_us = vem_clock_now_us();
        seen->turn = vem_clock_advance_us(1);
        seen->turn_to = vem_clock_advance_to_us(seen->before_us + 1);
        seen->mode = vem_clock_set_mode(VEM_CLOCK_SYSTEM);
        seen->after_us = vem_clock_now_us();
    };
    const clock_in_mode clock(GetParam());
    attached_wheel wheel;
    dispatching_thread dispatcher(wheel.manager);
    vem_tw_timer timer{};
    vem_tw_timer_start(wheel.wheel, &timer, 1, attempt, &got);
    vem_clock_advance_us(100 * ms_us);
    EXPECT_EQ(got.turn, EDEADLK);
    EXPECT_EQ(got.turn_to, EDEADLK);
    EXPECT_EQ(got.mode, EDEADLK);
    EXPECT_EQ(got.before_us, got.after_us);
    EXPECT_NE(got.before_us, 0U);
    vem_dm_destroy(&wheel.manager);
}

TEST_P(vem_clock_by_hand, what_was_started_by_hand_fires_when_the_system_takes_over) {
    struct signal {
        std::binary_semaphore raised{0};
    } signal;
    const auto raise = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        static_cast<struct signal*>(context)->raised.release();
    };
    vem_tw_timer timer{};
    attached_wheel wheel({256, 1000, 3});
    dispatching_thread dispatcher(wheel.manager);
    {
        const clock_in_mode clock(GetParam());
        vem_tw_timer_start(wheel.wheel, &timer, 2, raise, &signal);
    }
    signal.raised.acquire();
    EXPECT_FALSE(vem_tw_timer_running(&timer));
    vem_dm_destroy(&wheel.manager);
}

std::string name_of(const ::testing::TestParamInfo<int>& row) {
    return row.param == VEM_CLOCK_MANUAL_WAIT ? "waiting" : "inline";
}
INSTANTIATE_TEST_SUITE_P(vem_clock, vem_clock_by_hand,
                         ::testing::Values(VEM_CLOCK_MANUAL_WAIT, VEM_CLOCK_MANUAL_INLINE),
                         name_of);

TEST(vem_clock, a_turn_does_not_walk_through_empty_ticks) {
    const auto cpu_us = [] {
        timespec used{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        return used.tv_sec * 1'000'000 + used.tv_nsec / 1000;
    };
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    attached_wheel wheel;
    counted_timer timer;
    const auto before_us = cpu_us();
    constexpr uint32_t turns = 20'000;
    for (uint32_t turn = 0; turn < turns; ++turn) {
        timer.start(wheel.wheel, 1'800'000 - 20);
        vem_clock_advance_us(half_an_hour_us);
    }
    EXPECT_EQ(timer.expiries, turns);
    // 2,400,000,000 ticks pass; a walk would take many seconds.
    EXPECT_LT(cpu_us() - before_us, 2'000'000);
}

TEST(vem_clock, several_threads_may_turn_it) {
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    attached_wheel wheel;
    repeating_timer timer;
    timer.start(wheel.wheel, 15);
    const uint64_t start_us = vem_clock_now_us();
    std::vector<std::thread> turners;
    for (int i = 0; i < 3; ++i) {
        turners.emplace_back([start_us] {
            for (uint64_t us = 0; us <= 1'500'000; us += 500) {
                vem_clock_advance_to_us(start_us + us);
            }
        });
    }
    for (std::thread& turner : turners) {
        turner.join();
    }
    EXPECT_EQ(vem_clock_now_us(), start_us + 1'500'000);
    EXPECT_EQ(timer.expired_at_us.size(), 100U);
}

}  // namespace

// vem_dm_test.cpp - threads that wait, dispatch, and find their manager gone.
#include "vem/vem_dm.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <semaphore>
#include <string>
#include <vector>

#include "vem/src/vem_schedule.h"
#include "vem_attached_wheel.h"

namespace {

constexpr uint64_t ms_us = 1000;
constexpr wheel_shape short_ticks = {256, 1000, 3};

// Lets the test wait for an expiry. It outlives the dispatching thread, which may be inside the
// callback still.
struct signalling_timer {
    vem_tw_timer timer{};
    std::binary_semaphore expired_once{0};

    static void expired(vem_tw_wheel, vem_tw_timer*, void* context) {
        static_cast<signalling_timer*>(context)->expired_once.release();
    }
    void start(vem_tw_wheel wheel, uint32_t ms) {
        ASSERT_EQ(vem_tw_timer_start(wheel, &timer, ms, expired, this), 0);
    }
};

TEST(vem_dm, refuses_null_and_dead_managers) {
    vem_dm_handle manager = nullptr;
    EXPECT_NE(vem_dm_create(nullptr, "name", 0), 0);
    EXPECT_NE(vem_dm_wait(nullptr), 0);
    EXPECT_NE(vem_dm_dispatch(nullptr), 0);
    EXPECT_NE(vem_dm_destroy(nullptr), 0);
    EXPECT_NE(vem_dm_destroy(&manager), 0);
    ASSERT_EQ(vem_dm_create(&manager, nullptr, 0), 0);
    vem_dm_handle dead = manager;
    ASSERT_EQ(vem_dm_destroy(&manager), 0);
    EXPECT_EQ(manager, nullptr);
    EXPECT_NE(vem_dm_wait(dead), 0);
    EXPECT_NE(vem_dm_dispatch(dead), 0);
    EXPECT_NE(vem_dm_destroy(&dead), 0);
}

TEST(vem_dm, says_when_the_process_has_as_many_managers_as_it_can) {
    std::vector<vem_dm_handle> managers;
    vem_dm_handle manager = nullptr;
    while (managers.size() < 1000 && vem_dm_create(&manager, "one of many", 0) == 0) {
        managers.push_back(manager);
    }
    EXPECT_EQ(vem_dm_create(&manager, "one too many", 0), EAGAIN);
    EXPECT_GE(managers.size(), 32U);
    for (vem_dm_handle& each : managers) {
        EXPECT_EQ(vem_dm_destroy(&each), 0);
    }
}

TEST(vem_dm, dispatch_with_nothing_due_is_no_error) {
    const clock_in_mode clock(VEM_CLOCK_MANUAL_WAIT);
    attached_wheel wheel;
    counted_timer timer;
    timer.start(wheel.wheel, 1000);
    EXPECT_EQ(vem_dm_dispatch(wheel.manager), 0);
    EXPECT_EQ(timer.expiries, 0U);
}

TEST(vem_dm, wait_returns_at_once_when_a_timer_is_due) {
    attached_wheel wheel(short_ticks);
    counted_timer timer;
    timer.start(wheel.wheel, 1);
    while (timer.expiries == 0) {
        ASSERT_EQ(vem_dm_wait(wheel.manager), 0);
        ASSERT_EQ(vem_dm_dispatch(wheel.manager), 0);
    }
    EXPECT_EQ(timer.expiries, 1U);
}

TEST(vem_dm, by_the_system_clock_no_timer_is_early) {
    signalling_timer timer;
    attached_wheel wheel(short_ticks);
    const dispatching_thread dispatcher(wheel.manager);
    for (const uint32_t ms : {1U, 2U, 5U, 20U}) {
        const uint64_t started_at = vem_clock_now_us();
        timer.start(wheel.wheel, ms);
        timer.expired_once.acquire();
        EXPECT_GE(vem_clock_now_us(), started_at + ms * ms_us);
    }
    vem_dm_destroy(&wheel.manager);
}

TEST(vem_dm, an_earlier_deadline_wakes_the_sleeping_thread) {
    signalling_timer late;
    signalling_timer early;
    attached_wheel wheel(short_ticks);
    const dispatching_thread dispatcher(wheel.manager);
    late.start(wheel.wheel, 3'600'000);
    early.start(wheel.wheel, 2);
    early.expired_once.acquire();
    EXPECT_TRUE(vem_tw_timer_running(&late.timer));
    vem_dm_destroy(&wheel.manager);
}

TEST(vem_dm, a_waiting_thread_does_not_tick) {
    signalling_timer timer;
    attached_wheel wheel(short_ticks);
    const dispatching_thread dispatcher(wheel.manager);
    const uint64_t before = vem::wake_ups_of(wheel.manager);
    timer.start(wheel.wheel, 100);
    timer.expired_once.acquire();
    // 100 ticks pass. It may be woken by the start and sleeps once or twice more, up to the due
    // slot.
    EXPECT_LE(vem::wake_ups_of(wheel.manager) - before, 4U);
    vem_dm_destroy(&wheel.manager);
}

TEST(vem_dm, later_deadlines_do_not_wake_the_waiting_thread) {
    signalling_timer first;
    std::vector<counted_timer> others(1000);
    attached_wheel wheel(short_ticks);
    const dispatching_thread dispatcher(wheel.manager);
    const uint64_t before = vem::wake_ups_of(wheel.manager);
    first.start(wheel.wheel, 50);
    for (counted_timer& other : others) {
        other.start(wheel.wheel, 3'600'000);
    }
    first.expired_once.acquire();
    EXPECT_LE(vem::wake_ups_of(wheel.manager) - before, 4U);
    vem_dm_destroy(&wheel.manager);
}

TEST(vem_dm, destruction_ends_the_waits) {
    for (int round = 0; round < 100; ++round) {
        vem_dm_handle manager = nullptr;
        ASSERT_EQ(vem_dm_create(&manager, "short-lived", 0), 0);
        dispatching_thread one(manager);
        dispatching_thread another(manager);
        for (int i = 0; i < round % 10; ++i) {
            sched_yield();
        }
        ASSERT_EQ(vem_dm_destroy(&manager), 0);
        one.join();
        another.join();
    }
}

TEST(vem_dm, a_callback_may_destroy_its_manager) {
    attached_wheel wheel(short_ticks);
    vem_tw_timer timer{};
    const auto destroy = [](vem_tw_wheel, vem_tw_timer*, void* manager) {
        vem_dm_destroy(static_cast<vem_dm_handle*>(manager));
    };
    vem_dm_handle manager = wheel.manager;
    ASSERT_EQ(vem_tw_timer_start(wheel.wheel, &timer, 1, destroy, &wheel.manager), 0);
    dispatching_thread dispatcher(manager);
    dispatcher.join();
    EXPECT_EQ(wheel.manager, nullptr);
    EXPECT_TRUE(vem_tw_is_detached(wheel.wheel));
}

TEST(vem_dm, dispatching_inside_its_own_callback_is_refused) {
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    attached_wheel wheel;
    struct attempt {
        vem_dm_handle manager;
        int result;
    } attempt{wheel.manager, 0};
    const auto dispatch = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* tried = static_cast<struct attempt*>(context);
        tried->result = vem_dm_dispatch(tried->manager);
    };
    vem_tw_timer timer{};
    vem_tw_timer_start(wheel.wheel, &timer, 1, dispatch, &attempt);
    vem_clock_advance_us(100 * ms_us);
    EXPECT_EQ(attempt.result, EDEADLK);
}

TEST(vem_dm, two_dispatching_threads_take_turns) {
    struct shared {
        std::atomic<int> inside{0};
        std::atomic<int> overlaps{0};
        std::atomic<int> left{200};
        std::binary_semaphore done{0};
    } shared;
    std::vector<vem_tw_timer> timers(200);
    attached_wheel wheel(short_ticks);
    const auto tick = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* all = static_cast<struct shared*>(context);
        all->overlaps += all->inside++ != 0 ? 1 : 0;
        sched_yield();
        --all->inside;
        if (--all->left == 0) {
            all->done.release();
        }
    };
    const dispatching_thread one(wheel.manager);
    const dispatching_thread another(wheel.manager);
    for (size_t i = 0; i < timers.size(); ++i) {
        vem_tw_timer_start(wheel.wheel, &timers[i], 1 + static_cast<uint32_t>(i) / 10, tick,
                           &shared);
    }
    shared.done.acquire();
    EXPECT_EQ(shared.overlaps, 0);
    vem_dm_destroy(&wheel.manager);
}

TEST(vem_dm, a_callback_that_ends_its_thread_leaves_wheel_and_manager_usable) {
    vem_tw_timer timer{};
    signalling_timer next;
    attached_wheel wheel(short_ticks);
    const auto end_thread = [](vem_tw_wheel, vem_tw_timer*, void*) { vem_thread_exit(0); };
    vem_tw_timer_start(wheel.wheel, &timer, 1, end_thread, nullptr);
    dispatching_thread first(wheel.manager);
    first.join();
    EXPECT_EQ(vem_tw_quiesce(wheel.wheel), 0);
    ASSERT_EQ(vem_tw_attach_vdm(wheel.wheel, wheel.manager), 0);
    const dispatching_thread second(wheel.manager);
    next.start(wheel.wheel, 1);
    next.expired_once.acquire();
    EXPECT_FALSE(vem_tw_timer_running(&next.timer));
    vem_dm_destroy(&wheel.manager);
}

TEST(vem_dm, runs_the_timers_of_all_its_wheels) {
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    attached_wheel one;
    attached_wheel another;
    ASSERT_EQ(vem_tw_attach_vdm(another.wheel, one.manager), 0);
    counted_timer of_one;
    counted_timer of_another;
    of_one.start(one.wheel, 10);
    of_another.start(another.wheel, 10);
    vem_clock_advance_us(100 * ms_us);
    EXPECT_EQ(of_one.expiries, 1U);
    EXPECT_EQ(of_another.expiries, 1U);
}

}  // namespace

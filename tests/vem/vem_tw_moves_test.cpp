// vem_tw_moves_test.cpp - a wheel that goes from one manager to another while its callback runs,
// and timers that start while the clock is being turned.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <semaphore>
#include <thread>
#include <utility>

#include "vem_attached_wheel.h"

namespace {

constexpr uint64_t ms_us = 1000;
constexpr wheel_shape short_ticks = {256, 1000, 3};

struct acting_timer {
    vem_tw_timer timer{};
    std::function<void()> act;

    acting_timer() = default;
    ~acting_timer() { vem_tw_timer_stop(&timer); }
    acting_timer(const acting_timer&) = delete;
    acting_timer& operator=(const acting_timer&) = delete;

    static void expired(vem_tw_wheel, vem_tw_timer*, void* context) {
        static_cast<acting_timer*>(context)->act();
    }
    void start(vem_tw_wheel wheel, uint32_t ms) {
        EXPECT_EQ(vem_tw_timer_start(wheel, &timer, ms, expired, this), 0);
    }
};

// Two timers that are due, in this order, on a wheel that is attached to one of two managers.
class vem_tw_moves : public ::testing::Test {
protected:
    vem_tw_moves() {
        EXPECT_EQ(vem_dm_create(&other_, "other manager", 0), 0);
        EXPECT_EQ(vem_tw_attach_vdm(wheel_.wheel, nullptr), 0);
    }
    ~vem_tw_moves() override { vem_dm_destroy(&other_); }

    void make_due() {
        first_.start(wheel_.wheel, 10);
        second_.start(wheel_.wheel, 40);
        EXPECT_EQ(vem_clock_advance_us(100 * ms_us), 0);
        EXPECT_EQ(vem_tw_attach_vdm(wheel_.wheel, wheel_.manager), 0);
    }

    clock_in_mode clock_{VEM_CLOCK_MANUAL_INLINE};
    attached_wheel wheel_;
    vem_dm_handle other_ = nullptr;
    acting_timer first_;
    acting_timer second_;
};

TEST_F(vem_tw_moves, the_new_manager_waits_for_the_callback_that_the_last_one_runs) {
    std::binary_semaphore entered{0};
    std::binary_semaphore may_go{0};
    std::atomic<bool> first_inside{false};
    std::atomic<bool> second_ran{false};
    bool together = false;
    bool first_cancelled = false;
    first_.act = [&] {
        first_inside = true;
        entered.release();
        may_go.acquire();
        first_cancelled = vem_tw_expiry_cancelled(&first_.timer);
        first_inside = false;
    };
    second_.act = [&] {
        together = first_inside;
        second_ran = true;
    };
    make_due();
    std::thread last([this] { EXPECT_EQ(vem_dm_dispatch(wheel_.manager), 0); });
    entered.acquire();
    ASSERT_EQ(vem_tw_attach_vdm(wheel_.wheel, other_), 0);
    std::thread next([this] { EXPECT_EQ(vem_dm_dispatch(other_), 0); });
    for (int i = 0; i < 2000 && !second_ran; ++i) {
        sched_yield();
    }
    vem_tw_timer_stop(&first_.timer);
    may_go.release();
    last.join();
    next.join();
    EXPECT_FALSE(together);
    EXPECT_TRUE(second_ran);
    EXPECT_TRUE(first_cancelled);
}

TEST_F(vem_tw_moves, a_callback_that_dispatches_its_wheels_new_manager_is_not_nested_in_itself) {
    bool first_inside = false;
    bool together = false;
    int second_runs = 0;
    int dispatched = -1;
    bool first_cancelled = false;
    first_.act = [&] {
        first_inside = true;
        vem_tw_attach_vdm(wheel_.wheel, other_);
        dispatched = vem_dm_dispatch(other_);
        vem_tw_timer_stop(&first_.timer);
        first_cancelled = vem_tw_expiry_cancelled(&first_.timer);
        first_inside = false;
    };
    second_.act = [&] {
        together = together || first_inside;
        ++second_runs;
    };
    make_due();
    ASSERT_EQ(vem_dm_dispatch(wheel_.manager), 0);
    EXPECT_EQ(dispatched, 0);
    EXPECT_EQ(second_runs, 0);
    EXPECT_TRUE(first_cancelled);
    ASSERT_EQ(vem_dm_dispatch(other_), 0);
    EXPECT_EQ(second_runs, 1);
    EXPECT_FALSE(together);
}

TEST_F(vem_tw_moves, no_two_callbacks_run_at_once_however_often_the_wheel_moves) {
    constexpr int moves = 2000;
    std::atomic<bool> stop{false};
    std::atomic<bool> inside{false};
    std::atomic<int> together{0};
    std::atomic<int> runs{0};
    for (acting_timer* timer : {&first_, &second_}) {
        timer->act = [&, timer] {
            together += inside.exchange(true) ? 1 : 0;
            ++runs;
            for (int i = 0; i < 50; ++i) {
                sched_yield();
            }
            inside = false;
            if (!stop) {
                vem_tw_expiry_retry(&timer->timer, 1);
            }
        };
    }
    vem_clock_set_mode(VEM_CLOCK_SYSTEM);
    attached_wheel quick(short_ticks);
    first_.start(quick.wheel, 1);
    second_.start(quick.wheel, 1);
    dispatching_thread one(quick.manager);
    dispatching_thread another(other_);
    for (int move = 0; move < moves || runs < 100; ++move) {
        ASSERT_EQ(vem_tw_attach_vdm(quick.wheel, move % 2 == 0 ? other_ : quick.manager), 0);
        sched_yield();
    }
    stop = true;
    EXPECT_EQ(vem_tw_quiesce(quick.wheel), 0);
    EXPECT_EQ(together, 0);
    vem_tw_timer_stop(&first_.timer);
    vem_tw_timer_stop(&second_.timer);
    vem_dm_destroy(&quick.manager);
    vem_dm_destroy(&other_);
}

TEST_F(vem_tw_moves, a_retry_wakes_the_thread_of_the_new_manager) {
    // That thread sleeps until an hour from now when the retry makes it a few milliseconds.
    std::binary_semaphore came_again{0};
    vem_clock_set_mode(VEM_CLOCK_SYSTEM);
    attached_wheel quick(short_ticks);
    vem_tw_attach_vdm(quick.wheel, nullptr);
    second_.act = [] {};
    second_.start(quick.wheel, 3'600'000);
    bool retried = false;
    first_.act = [&] {
        if (retried) {
            came_again.release();
            return;
        }
        retried = true;
        vem_tw_attach_vdm(quick.wheel, other_);
        second_.start(quick.wheel, 1'800'000);
        for (int i = 0; i < 1000; ++i) {
            sched_yield();
        }
        EXPECT_EQ(vem_tw_expiry_retry(&first_.timer, 2), 0);
    };
    first_.start(quick.wheel, 1);
    dispatching_thread another(other_);
    vem_tw_attach_vdm(quick.wheel, quick.manager);
    ASSERT_EQ(vem_dm_wait(quick.manager), 0);
    ASSERT_EQ(vem_dm_dispatch(quick.manager), 0);
    EXPECT_TRUE(came_again.try_acquire_for(std::chrono::seconds(30)));
    vem_tw_quiesce(quick.wheel);
    vem_dm_destroy(&other_);
}

// Rounds in which one thread turns the clock while another one starts a timer, each now a little
// earlier and now a little later than the other.
class two_threads_in_step {
public:
    explicit two_threads_in_step(std::function<void()> other) {
        thread_ = std::thread([this, other = std::move(other)] {
            std::minstd_rand random(1);
            for (int seen = 0;;) {
                const int now = wait_until_other_than(round_, seen);
                if (now < 0) {
                    return;
                }
                seen = now;
                dawdle(random);
                other();
                done_ = seen;
            }
        });
    }
    ~two_threads_in_step() {
        round_ = -1;
        thread_.join();
    }
    template <class mine>
    void run(mine act) {
        const int now = ++round_;
        dawdle(random_);
        act();
        wait_until_other_than(done_, now - 1);
    }

private:
    // Yields rarely: a thread that has to be woken comes too late for a race.
    static int wait_until_other_than(const std::atomic<int>& number, int last) {
        int now = last;
        for (uint32_t look = 1; (now = number.load()) == last; ++look) {
            if (look > 4096 && look % 64 == 0) {
                sched_yield();
            }
        }
        return now;
    }
    static void dawdle(std::minstd_rand& random) {
        const auto steps = random() % 256;
        for (std::atomic<uint32_t> step{0}; step < steps; ++step) {
        }
    }

    std::minstd_rand random_{2};
    std::atomic<int> round_{0};
    std::atomic<int> done_{0};
    std::thread thread_;
};

TEST(vem_clock_and_starts, a_start_during_a_turn_is_made_before_or_after_it) {
    constexpr int rounds = 20'000;
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    attached_wheel wheel(short_ticks);
    counted_timer timer;
    two_threads_in_step threads([&] { timer.start(wheel.wheel, 5); });
    int before = 0;
    for (int round = 0; round < rounds; ++round) {
        timer.expiries = 0;
        threads.run([] { vem_clock_advance_us(20 * ms_us); });
        if (timer.expiries == 1) {
            ++before;
            continue;
        }
        // After the turn: its whole time is still to come.
        vem_clock_advance_us(4 * ms_us);
        ASSERT_EQ(timer.expiries, 0U) << "round " << round;
        vem_clock_advance_us(3 * ms_us);
        ASSERT_EQ(timer.expiries, 1U) << "round " << round;
    }
    RecordProperty("made_before_the_turn", before);
}

TEST(vem_clock_and_starts, a_turn_runs_what_its_own_thread_started_beside_other_starts) {
    constexpr int rounds = 20'000;
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    attached_wheel wheel(short_ticks);
    counted_timer others;
    counted_timer own;
    int missed = 0;
    two_threads_in_step threads([&] { others.start(wheel.wheel, 2); });
    // Managers come and go, so that the other start has to wait for its last step.
    std::atomic<bool> stop{false};
    std::thread managers([&] {
        while (!stop) {
            vem_dm_handle manager = nullptr;
            vem_dm_create(&manager, "short-lived", 0);
            vem_dm_destroy(&manager);
            sched_yield();
        }
    });
    for (int round = 0; round < rounds; ++round) {
        threads.run([&] {
            own.start(wheel.wheel, 5);
            vem_clock_advance_us(20 * ms_us);
        });
        missed += own.expiries == 1 ? 0 : 1;
        vem_clock_advance_us(20 * ms_us);
        own.expiries = 0;
    }
    stop = true;
    managers.join();
    EXPECT_EQ(missed, 0);
}

}  // namespace

// vem_tw_shards_test.cpp - a wheel that many threads start timers on: who starts where, and that
// the timers of all shards are one wheel's.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <new>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include "vem/src/vem_timing_wheel.h"
#include "vem_attached_wheel.h"
#include "vem_entry_of_wheel.h"

// The program is linked so that every request for a timing wheel comes here (tests/CMakeLists.txt).
static std::atomic<bool> shards_fail{false};

extern "C" {
void* __real__ZnwmSt11align_val_tRKSt9nothrow_t(std::size_t, std::align_val_t,
                                                const std::nothrow_t&) noexcept;
void* __wrap__ZnwmSt11align_val_tRKSt9nothrow_t(std::size_t size, std::align_val_t alignment,
                                                const std::nothrow_t& nothrow) noexcept;
}

void* __wrap__ZnwmSt11align_val_tRKSt9nothrow_t(std::size_t size, std::align_val_t alignment,
                                                const std::nothrow_t& nothrow) noexcept {
    return shards_fail ? nullptr
                       : __real__ZnwmSt11align_val_tRKSt9nothrow_t(size, alignment, nothrow);
}

namespace {

using vem::most_shards;
using vem::wheel_entry;

constexpr uint64_t ms_us = 1000;

uint32_t shard_of(const vem_tw_timer& timer) {
    return (vem::timer_word::load(timer).wheel_number() - 1) % most_shards;
}

// A thread that does one thing after the other, as it is told.
class obedient_thread {
public:
    obedient_thread() : thread_([this] { loop(); }) {}
    ~obedient_thread() {
        run(nullptr);
        thread_.join();
    }
    obedient_thread(const obedient_thread&) = delete;
    obedient_thread& operator=(const obedient_thread&) = delete;

    void begin(std::function<void()> task) {
        task_ = std::move(task);
        told_.release();
    }
    void await_end() { done_.acquire(); }
    void run(std::function<void()> task) {
        begin(std::move(task));
        await_end();
    }

private:
    void loop() {
        for (bool more = true; more; done_.release()) {
            told_.acquire();
            more = static_cast<bool>(task_);
            if (more) {
                task_();
            }
        }
    }

    std::function<void()> task_;
    std::binary_semaphore told_{0};
    std::binary_semaphore done_{0};
    std::thread thread_;
};

// Notes its number when it expires, and may act.
struct noted_timer {
    vem_tw_timer timer{};
    std::vector<int>* order = nullptr;
    int number = 0;
    std::function<void()> act;

    noted_timer() = default;
    ~noted_timer() { vem_tw_timer_stop(&timer); }
    noted_timer(const noted_timer&) = delete;
    noted_timer& operator=(const noted_timer&) = delete;

    static void expired(vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* self = static_cast<noted_timer*>(context);
        self->order->push_back(self->number);
        if (self->act) {
            self->act();
        }
    }
    int start(vem_tw_wheel wheel, uint32_t ms) {
        return vem_tw_timer_start(wheel, &timer, ms, expired, this);
    }
};

class vem_tw_shards : public ::testing::Test {
protected:
    vem_tw_shards() {
        for (int number = 0; number < static_cast<int>(timers_.size()); ++number) {
            timers_[static_cast<size_t>(number)].number = number;
            timers_[static_cast<size_t>(number)].order = &order_;
        }
    }

    wheel_entry& entry() { return entry_of(wheel_.wheel); }
    void start(size_t timer, uint32_t ms) { EXPECT_EQ(timers_[timer].start(wheel_.wheel, ms), 0); }
    // The other thread starts the timer while this one keeps the first shard's lock.
    void start_beside(obedient_thread& thread, size_t timer, uint32_t ms) {
        const std::lock_guard busy(entry().mutex());
        thread.run([=, this] { start(timer, ms); });
    }
    // The thread has to wait for a shard's lock, which this one keeps until then.
    void start_behind(vem::wheel_shard& shard, obedient_thread& thread, size_t timer, uint32_t ms) {
        {
            const std::lock_guard busy(shard.mutex);
            thread.begin([=, this] { start(timer, ms); });
            while (shard.in_line.load() == 0) {
                std::this_thread::yield();
            }
        }
        thread.await_end();
    }
    void start_on(obedient_thread& thread, size_t timer, uint32_t ms) {
        thread.run([=, this] { start(timer, ms); });
    }
    uint32_t shard_of_timer(size_t timer) const { return shard_of(timers_[timer].timer); }
    bool runs(size_t timer) const { return vem_tw_timer_running(&timers_[timer].timer); }

    clock_in_mode clock_{VEM_CLOCK_MANUAL_INLINE};
    attached_wheel wheel_;
    std::vector<int> order_;
    std::vector<noted_timer> timers_{8};
    obedient_thread one_;
    obedient_thread another_;
};

TEST_F(vem_tw_shards, there_is_one_as_long_as_no_thread_finds_it_busy) {
    for (size_t timer = 0; timer < 6; timer += 3) {
        start(timer, 100);
        start_on(one_, timer + 1, 100);
        start_on(another_, timer + 2, 100);
    }
    EXPECT_EQ(entry().shards_made.load(), 1U);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

TEST_F(vem_tw_shards, a_thread_that_finds_the_first_one_busy_starts_elsewhere_from_then_on) {
    start(0, 100);
    start_beside(one_, 1, 100);
    start_on(one_, 2, 100);
    start_on(another_, 3, 100);
    EXPECT_EQ(shard_of_timer(0), 0U);
    EXPECT_NE(shard_of_timer(1), 0U);
    EXPECT_EQ(shard_of_timer(2), shard_of_timer(1));
    EXPECT_EQ(shard_of_timer(3), 0U);
}

TEST_F(vem_tw_shards, each_thread_has_a_home_of_its_own) {
    start_beside(one_, 0, 100);
    start_beside(another_, 1, 100);
    EXPECT_NE(shard_of_timer(0), shard_of_timer(1));
    EXPECT_NE(shard_of_timer(0), 0U);
    EXPECT_NE(shard_of_timer(1), 0U);
}

TEST_F(vem_tw_shards, a_thread_with_a_home_uses_the_first_one_of_a_wheel_where_nobody_waits) {
    start_beside(one_, 0, 100);
    attached_wheel other;
    one_.run([&] { timers_[1].start(other.wheel, 100); });
    EXPECT_EQ(shard_of_timer(1), 0U);
    EXPECT_EQ(entry_of(other.wheel).shards_made.load(), 1U);
    // Nor does it get one there because others have.
    another_.run([&] { leave_first_shard(other.wheel); });
    const uint32_t made = entry_of(other.wheel).shards_made.load();
    one_.run([&] { timers_[2].start(other.wheel, 100); });
    EXPECT_EQ(shard_of_timer(2), 0U);
    EXPECT_EQ(entry_of(other.wheel).shards_made.load(), made);
}

TEST_F(vem_tw_shards, a_start_waits_where_the_thread_is_at_home) {
    start_beside(one_, 0, 100);
    start_behind(entry().shards[shard_of_timer(0)], one_, 1, 100);
    EXPECT_EQ(shard_of_timer(1), shard_of_timer(0));
}

TEST_F(vem_tw_shards, a_timer_that_runs_stays_in_its_shard_whoever_starts_it) {
    start_beside(one_, 0, 100);
    const uint32_t home = shard_of_timer(0);
    start(0, 300);
    EXPECT_EQ(shard_of_timer(0), home);
    start_on(another_, 0, 500);
    EXPECT_EQ(shard_of_timer(0), home);
    vem_clock_advance_us(400 * ms_us);
    EXPECT_TRUE(order_.empty());
    vem_clock_advance_us(200 * ms_us);
    EXPECT_EQ(order_.size(), 1U);
}

TEST_F(vem_tw_shards, a_timer_that_was_stopped_goes_where_its_next_thread_is_at_home) {
    start_beside(one_, 0, 100);
    vem_tw_timer_stop(&timers_[0].timer);
    EXPECT_FALSE(runs(0));
    start(0, 100);
    EXPECT_EQ(shard_of_timer(0), 0U);
    start_on(one_, 1, 100);
    another_.run([this] { vem_tw_timer_stop(&timers_[1].timer); });
    EXPECT_FALSE(runs(1));
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0}));
}

TEST_F(vem_tw_shards, timers_of_all_of_them_fire_in_the_order_of_their_ticks) {
    start_beside(one_, 0, 300);
    start_beside(another_, 1, 100);
    start(2, 200);
    start_on(one_, 3, 150);
    start(4, 60'000);
    start_on(one_, 5, 45'000);
    vem_clock_advance_us(100'000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{1, 3, 2, 0, 5, 4}));
}

TEST_F(vem_tw_shards, what_became_due_on_a_detached_wheel_runs_in_the_order_of_its_ticks) {
    vem_tw_attach_vdm(wheel_.wheel, nullptr);
    start_beside(one_, 0, 100);
    start_on(one_, 1, 300);
    start(2, 200);
    start(3, 400);
    start_on(one_, 4, 400);
    start(5, 300);
    vem_clock_advance_us(1000 * ms_us);
    vem_tw_attach_vdm(wheel_.wheel, wheel_.manager);
    vem_clock_advance_us(0);
    EXPECT_EQ(order_, (std::vector<int>{0, 2, 5, 1, 3, 4}));
}

TEST_F(vem_tw_shards, timers_of_one_tick_fire_shard_by_shard) {
    start_beside(one_, 0, 100);
    start(1, 100);
    start_on(one_, 2, 100);
    start(3, 100);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{1, 3, 0, 2}));
}

TEST_F(vem_tw_shards, a_callback_may_stop_a_timer_that_is_due_in_another_one) {
    start_beside(one_, 1, 100);
    start_on(one_, 2, 100);
    start(0, 100);
    timers_[0].act = [this] { vem_tw_timer_stop(&timers_[1].timer); };
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0, 2}));
}

TEST_F(vem_tw_shards, an_expiry_of_any_of_them_is_cancelled_by_a_stop_or_a_start) {
    for (const bool by_start : {false, true}) {
        bool before = true;
        bool after = false;
        start_beside(one_, 0, 100);
        ASSERT_NE(shard_of_timer(0), 0U);
        timers_[0].act = [&] {
            before = vem_tw_expiry_cancelled(&timers_[0].timer);
            another_.run(
                [&] { by_start ? start(0, 1000) : void(vem_tw_timer_stop(&timers_[0].timer)); });
            after = vem_tw_expiry_cancelled(&timers_[0].timer);
            EXPECT_EQ(vem_tw_expiry_retry(&timers_[0].timer, 10), ECANCELED);
        };
        vem_clock_advance_us(500 * ms_us);
        EXPECT_FALSE(before);
        EXPECT_TRUE(after) << "by_start " << by_start;
        EXPECT_EQ(runs(0), by_start);
        vem_tw_timer_stop(&timers_[0].timer);
    }
}

TEST_F(vem_tw_shards, a_start_after_a_stop_in_the_callback_leaves_the_stopped_expiry_cancelled) {
    bool cancelled = false;
    start_beside(one_, 0, 100);
    timers_[0].act = [&] {
        vem_tw_timer_stop(&timers_[0].timer);
        start(0, 1000);
        cancelled = vem_tw_expiry_cancelled(&timers_[0].timer);
        EXPECT_EQ(vem_tw_expiry_retry(&timers_[0].timer, 10), ECANCELED);
        timers_[0].act = nullptr;
    };
    vem_clock_advance_us(500 * ms_us);
    EXPECT_TRUE(cancelled);
    EXPECT_TRUE(runs(0));
    EXPECT_EQ(shard_of_timer(0), 0U);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0, 0}));
}

TEST_F(vem_tw_shards, an_expiry_comes_again_where_it_came_from) {
    start_beside(one_, 0, 100);
    const uint32_t home = shard_of_timer(0);
    timers_[0].act = [this] {
        EXPECT_EQ(vem_tw_expiry_retry(&timers_[0].timer, 300), 0);
        timers_[0].act = nullptr;
    };
    vem_clock_advance_us(200 * ms_us);
    EXPECT_EQ(shard_of_timer(0), home);
    vem_clock_advance_us(300 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0, 0}));
}

TEST_F(vem_tw_shards, no_callback_starts_in_any_of_them_once_the_wheel_is_detached) {
    start_beside(one_, 1, 100);
    start_beside(another_, 2, 100);
    start(0, 100);
    timers_[0].act = [this] { vem_tw_quiesce(wheel_.wheel); };
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0}));
    EXPECT_TRUE(runs(1));
    vem_tw_attach_vdm(wheel_.wheel, wheel_.manager);
    vem_clock_advance_us(0);
    EXPECT_EQ(order_.size(), 3U);
}

TEST_F(vem_tw_shards, quiesce_waits_for_a_callback_of_any_of_them) {
    start_beside(one_, 0, 100);
    std::binary_semaphore entered{0};
    std::atomic<bool> done{false};
    timers_[0].act = [&] {
        entered.release();
        while (!vem_tw_is_detached(wheel_.wheel)) {
            std::this_thread::yield();
        }
        done = true;
    };
    std::thread turner([] { vem_clock_advance_us(1000 * ms_us); });
    entered.acquire();
    EXPECT_EQ(vem_tw_quiesce(wheel_.wheel), 0);
    EXPECT_TRUE(done);
    turner.join();
}

TEST_F(vem_tw_shards,
       a_wheel_that_moved_runs_none_of_theirs_beside_a_callback_of_the_last_manager) {
    attached_wheel other;
    start_beside(one_, 0, 100);
    start(1, 200);
    start_on(one_, 2, 200);
    vem_tw_attach_vdm(wheel_.wheel, nullptr);
    vem_clock_advance_us(1000 * ms_us);
    vem_tw_attach_vdm(wheel_.wheel, wheel_.manager);
    std::atomic<bool> inside{false};
    bool together = false;
    std::binary_semaphore entered{0};
    std::binary_semaphore may_go{0};
    timers_[0].act = [&] {
        inside = true;
        entered.release();
        may_go.acquire();
        inside = false;
    };
    timers_[1].act = timers_[2].act = [&] { together = together || inside; };
    std::thread last([this] { EXPECT_EQ(vem_dm_dispatch(wheel_.manager), 0); });
    entered.acquire();
    ASSERT_EQ(vem_tw_attach_vdm(wheel_.wheel, other.manager), 0);
    std::thread next([&] { EXPECT_EQ(vem_dm_dispatch(other.manager), 0); });
    for (int i = 0; i < 2000; ++i) {
        std::this_thread::yield();
    }
    may_go.release();
    last.join();
    next.join();
    EXPECT_FALSE(together);
    EXPECT_EQ(order_, (std::vector<int>{0, 1, 2}));
}

TEST_F(vem_tw_shards, destroying_a_wheel_disarms_the_timers_of_all_of_them) {
    start_beside(one_, 0, 100);
    start_beside(another_, 1, UINT32_MAX);
    start(2, 100);
    vem_tw_wheel dead = wheel_.wheel;
    ASSERT_EQ(vem_tw_destroy_wheel(&wheel_.wheel), 0);
    for (size_t timer = 0; timer < 3; ++timer) {
        EXPECT_FALSE(runs(timer)) << timer;
        EXPECT_EQ(vem_tw_timer_stop(&timers_[timer].timer), 0);
    }
    one_.run([&] { EXPECT_EQ(timers_[0].start(dead, 100), EINVAL); });
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_TRUE(order_.empty());
}

TEST_F(vem_tw_shards, a_new_wheel_in_a_destroyed_ones_place_has_one_and_takes_its_timers) {
    start_beside(one_, 0, 100);
    wheel_entry& place = entry();
    vem_tw_destroy_wheel(&wheel_.wheel);
    attached_wheel next;
    ASSERT_EQ(&entry_of(next.wheel), &place);
    EXPECT_EQ(place.shards_made.load(), 1U);
    one_.run([&] { EXPECT_EQ(timers_[0].start(next.wheel, 100), 0); });
    EXPECT_EQ(shard_of_timer(0), 0U);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0}));
}

TEST_F(vem_tw_shards, a_callback_of_any_of_them_may_destroy_the_wheel) {
    start_beside(one_, 0, 100);
    start(1, 200);
    start_on(one_, 2, 200);
    bool cancelled = false;
    timers_[0].act = [&] {
        vem_tw_destroy_wheel(&wheel_.wheel);
        cancelled = vem_tw_expiry_cancelled(&timers_[0].timer);
    };
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(order_, (std::vector<int>{0}));
    EXPECT_FALSE(runs(1));
    EXPECT_FALSE(runs(2));
}

TEST_F(vem_tw_shards, a_timer_moves_from_any_of_them_to_another_wheel) {
    start_beside(one_, 0, 100);
    attached_wheel other;
    timers_[0].start(other.wheel, 500);
    vem_clock_advance_us(400 * ms_us);
    EXPECT_TRUE(order_.empty());
    vem_clock_advance_us(200 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0}));
}

TEST_F(vem_tw_shards, an_earlier_timer_in_another_one_wakes_the_sleeping_thread) {
    vem_clock_set_mode(VEM_CLOCK_SYSTEM);
    std::binary_semaphore fired{0};
    start(1, 3'600'000);
    dispatching_thread dispatcher(wheel_.manager);
    for (int i = 0; i < 1000; ++i) {
        std::this_thread::yield();
    }
    timers_[0].act = [&] { fired.release(); };
    start_beside(one_, 0, 20);
    EXPECT_TRUE(fired.try_acquire_for(std::chrono::seconds(30)));
    vem_dm_destroy(&wheel_.manager);
}

TEST_F(vem_tw_shards, a_thread_whose_shard_cannot_be_made_waits_for_the_first_one) {
    shards_fail = true;
    start_behind(entry().shards[0], one_, 0, 100);
    EXPECT_EQ(shard_of_timer(0), 0U);
    EXPECT_EQ(entry().shards_made.load(), 1U);
    start_on(one_, 1, 100);
    vem_clock_advance_us(1000 * ms_us);
    EXPECT_EQ(order_, (std::vector<int>{0, 1}));
    shards_fail = false;
    start_beside(one_, 2, 100);
    EXPECT_NE(shard_of_timer(2), 0U);
}

}  // namespace

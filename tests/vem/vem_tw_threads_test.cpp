// vem_tw_threads_test.cpp - timers that many threads start and stop while another one dispatches.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "vem_attached_wheel.h"
#include "vem_entry_of_wheel.h"

namespace {

constexpr uint64_t ms_us = 1000;
constexpr wheel_shape short_ticks = {256, 1000, 3};

// A timer whose callback stays inside until the test lets it go.
struct held_timer {
    vem_tw_timer timer{};
    std::binary_semaphore entered{0};
    std::binary_semaphore may_go{0};
    bool cancelled = false;

    ~held_timer() { vem_tw_timer_stop(&timer); }

    static void expired(vem_tw_wheel, vem_tw_timer* timer, void* context) {
        auto* self = static_cast<held_timer*>(context);
        self->entered.release();
        self->may_go.acquire();
        self->cancelled = vem_tw_expiry_cancelled(timer);
    }
};

TEST(vem_tw_threads, stop_and_start_cancel_an_expiry_on_its_way_without_waiting_for_it) {
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    for (const bool by_start : {false, true}) {
        attached_wheel wheel;
        held_timer held;
        vem_tw_timer_start(wheel.wheel, &held.timer, 10, held_timer::expired, &held);
        std::thread turner([] { vem_clock_advance_us(100 * ms_us); });
        held.entered.acquire();
        if (by_start) {
            vem_tw_timer_start(wheel.wheel, &held.timer, 1000, held_timer::expired, &held);
        } else {
            vem_tw_timer_stop(&held.timer);
        }
        EXPECT_EQ(vem_tw_timer_running(&held.timer), by_start);
        held.may_go.release();
        turner.join();
        EXPECT_TRUE(held.cancelled) << "by_start " << by_start;
    }
}

TEST(vem_tw_threads, quiesce_waits_until_the_running_callback_is_done) {
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    attached_wheel wheel;
    struct state {
        std::binary_semaphore entered{0};
        std::atomic<bool> done{false};
    } state;
    const auto until_detached = [](vem_tw_wheel of, vem_tw_timer*, void* context) {
        auto* seen = static_cast<struct state*>(context);
        seen->entered.release();
        while (!vem_tw_is_detached(of)) {
            std::this_thread::yield();
        }
        seen->done = true;
    };
    vem_tw_timer timer{};
    vem_tw_timer_start(wheel.wheel, &timer, 10, until_detached, &state);
    std::thread turner([] { vem_clock_advance_us(100 * ms_us); });
    state.entered.acquire();
    EXPECT_EQ(vem_tw_quiesce(wheel.wheel), 0);
    EXPECT_TRUE(state.done);
    turner.join();
}

// A record with a timer in it, as owners use them: a lock of its own, held around starts and stops,
// and asked for by the callback.
struct owned_record {
    vem_tw_timer timer{};
    std::mutex mutex;
    bool armed = false;
    uint64_t deadline_us = 0;
    struct owned_records* all = nullptr;
};

struct owned_records {
    explicit owned_records(size_t count) : records(count) {
        for (owned_record& record : records) {
            record.all = this;
        }
    }

    static void expired(vem_tw_wheel, vem_tw_timer* timer, void* context) {
        auto* record = static_cast<owned_record*>(context);
        const std::lock_guard lock(record->mutex);
        if (vem_tw_expiry_cancelled(timer)) {
            ++record->all->cancelled;
            return;
        }
        ++record->all->expiries;
        if (!record->armed || vem_clock_now_us() < record->deadline_us) {
            ++record->all->wrong;
        }
        record->armed = false;
    }

    static void start(owned_record& record, vem_tw_wheel wheel, uint32_t ms) {
        const std::lock_guard lock(record.mutex);
        record.armed = true;
        record.deadline_us = vem_clock_now_us() + ms * ms_us;
        if (vem_tw_timer_start(wheel, &record.timer, ms, expired, &record) != 0) {
            record.armed = false;
        }
    }

    static void stop(owned_record& record) {
        const std::lock_guard lock(record.mutex);
        record.armed = false;
        vem_tw_timer_stop(&record.timer);
    }

    // One thread's part of the script, on any record.
    void stir(vem_tw_wheel wheel, uint32_t seed, uint32_t steps) {
        std::mt19937 random(seed);
        for (uint32_t step = 0; step < steps; ++step) {
            owned_record& record = records[random() % records.size()];
            if (random() % 3 == 0) {
                stop(record);
            } else {
                start(record, wheel, static_cast<uint32_t>(1 + random() % 400));
            }
        }
    }

    size_t armed() {
        size_t count = 0;
        for (owned_record& record : records) {
            const std::lock_guard lock(record.mutex);
            count += record.armed ? 1 : 0;
        }
        return count;
    }

    std::deque<owned_record> records;
    std::atomic<uint32_t> expiries{0};
    std::atomic<uint32_t> cancelled{0};
    std::atomic<uint32_t> wrong{0};
};

struct stress_row {
    const char* name;
    int threads;
    bool system_clock;
    bool apart;  // each in a shard of its own
};

std::string name_of(const ::testing::TestParamInfo<stress_row>& row) {
    return row.param.name;
}

class vem_tw_stress : public ::testing::TestWithParam<stress_row> {};

TEST_P(vem_tw_stress, every_expiry_that_nobody_cancelled_belongs_to_an_armed_timer) {
    constexpr uint32_t steps = 20'000;
    const clock_in_mode clock(GetParam().system_clock ? VEM_CLOCK_SYSTEM : VEM_CLOCK_MANUAL_WAIT);
    owned_records records(64);
    attached_wheel wheel(short_ticks);
    dispatching_thread dispatcher(wheel.manager);
    std::barrier all_ready(GetParam().threads + 1);
    std::atomic<int> busy{GetParam().threads};
    std::vector<std::thread> owners;
    for (int i = 0; i < GetParam().threads; ++i) {
        owners.emplace_back([&, i] {
            if (GetParam().apart) {
                leave_first_shard(wheel.wheel);
            }
            all_ready.arrive_and_wait();
            records.stir(wheel.wheel, static_cast<uint32_t>(i), steps);
            --busy;
        });
    }
    all_ready.arrive_and_wait();
    while (busy > 0) {
        vem_clock_advance_us(3 * ms_us);  // refused when the clock is the system's
        std::this_thread::yield();
    }
    for (std::thread& owner : owners) {
        owner.join();
    }
    while (records.armed() > 0) {
        vem_clock_advance_us(100 * ms_us);
        std::this_thread::yield();
    }
    EXPECT_EQ(records.wrong, 0U);
    EXPECT_GT(records.expiries, 0U);
    vem_dm_destroy(&wheel.manager);
    dispatcher.join();
}

constexpr stress_row stress_rows[] = {
    {"one_thread_clock_by_hand", 1, false, false},
    {"four_threads_clock_by_hand", 4, false, false},
    {"four_threads_apart_clock_by_hand", 4, false, true},
    {"one_thread_system_clock", 1, true, false},
    {"four_threads_system_clock", 4, true, false},
    {"four_threads_apart_system_clock", 4, true, true},
};
INSTANTIATE_TEST_SUITE_P(vem_tw, vem_tw_stress, ::testing::ValuesIn(stress_rows), name_of);

TEST(vem_tw_threads, no_callback_runs_between_quiesce_and_the_next_attachment) {
    owned_records records(64);
    attached_wheel wheel(short_ticks);
    dispatching_thread dispatcher(wheel.manager);
    std::atomic<bool> stop{false};
    std::thread owner([&] {
        leave_first_shard(wheel.wheel);
        for (uint32_t seed = 0; !stop; ++seed) {
            records.stir(wheel.wheel, seed, 200);
        }
    });
    for (int round = 0; round < 300; ++round) {
        ASSERT_EQ(vem_tw_quiesce(wheel.wheel), 0);
        const uint32_t before = records.expiries + records.cancelled;
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();
        }
        ASSERT_EQ(records.expiries + records.cancelled, before);
        ASSERT_EQ(vem_tw_attach_vdm(wheel.wheel, wheel.manager), 0);
        std::this_thread::yield();
    }
    stop = true;
    owner.join();
    for (owned_record& record : records.records) {
        owned_records::start(record, wheel.wheel, 1);
    }
    while (records.armed() > 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(records.wrong, 0U);
    vem_dm_destroy(&wheel.manager);
    dispatcher.join();
}

TEST(vem_tw_threads, wheel_and_manager_may_be_destroyed_while_others_use_their_handles) {
    for (uint32_t round = 0; round < 200; ++round) {
        owned_records records(16);
        attached_wheel wheel(short_ticks);
        dispatching_thread dispatcher(wheel.manager);
        std::barrier ready(2);
        vem_tw_wheel handle = wheel.wheel;
        std::thread owner([&] {
            if (round % 2 != 0) {
                leave_first_shard(handle);
            }
            ready.arrive_and_wait();
            records.stir(handle, round, 300);
        });
        ready.arrive_and_wait();
        for (uint32_t i = 0; i < round % 20; ++i) {
            std::this_thread::yield();
        }
        ASSERT_EQ(vem_tw_attach_vdm(wheel.wheel, nullptr), 0);
        ASSERT_EQ(vem_tw_destroy_wheel(&wheel.wheel), 0);
        ASSERT_EQ(vem_dm_destroy(&wheel.manager), 0);
        dispatcher.join();
        owner.join();
        for (owned_record& record : records.records) {
            ASSERT_FALSE(vem_tw_timer_running(&record.timer));
            owned_records::stop(record);
        }
    }
}

TEST(vem_tw_threads, starts_get_through_while_a_slot_of_many_timers_moves_down) {
    const clock_in_mode clock(VEM_CLOCK_MANUAL_INLINE);
    constexpr uint32_t count = 200'000;
    attached_wheel wheel;
    std::vector<counted_timer> timers(count);
    for (uint32_t i = 0; i < count; ++i) {
        timers[i].start(wheel.wheel, 300'000 + i % 10'000);
    }
    counted_timer bystander;
    std::atomic<bool> done{false};
    std::thread owner([&] {
        while (!done) {
            bystander.start(wheel.wheel, 600'000'000);
            vem_tw_timer_stop(&bystander.timer);
        }
    });
    vem_clock_advance_us(320'000 * ms_us);
    done = true;
    owner.join();
    for (const counted_timer& timer : timers) {
        ASSERT_EQ(timer.expiries, 1U);
    }
    EXPECT_EQ(bystander.expiries, 0U);
}

}  // namespace

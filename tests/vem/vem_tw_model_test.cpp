// vem_tw_model_test.cpp - wheels of many shapes beside a slow, obviously right model: a sorted list
// of due times.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <compare>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "vem_attached_wheel.h"
#include "vem_entry_of_wheel.h"

namespace {

constexpr uint64_t ms_us = 1000;

struct named_shape {
    const char* name;
    wheel_shape shape;
};

void PrintTo(const named_shape& shape, std::ostream* out) {
    *out << shape.name;
}

const named_shape shapes[] = {
    {"the_engines", {1024, 15000, 3}},
    {"four_slots", {4, 1000, 2}},
    {"two_slots_of_a_second", {2, 1'000'000, 1}},
    {"odd_slots_and_tick", {7, 333, 1}},
    {"many_short_ticks", {64, 1, 3}},
    {"more_levels_than_needed", {256, 5000, 9}},
    {"wide", {65536, 20000, 1}},
};

std::string name_of(const ::testing::TestParamInfo<named_shape>& row) {
    return row.param.name;
}

// Steps of each shape's script. The thread sanitizer makes a script ten times slower and has little
// to find in it.
#if defined(__SANITIZE_THREAD__)
constexpr uint32_t script_steps = 50'000;
#else
constexpr uint32_t script_steps = 200'000;
#endif

// Values whose logarithms are spread evenly, so that every level gets its share.
class some_time {
public:
    explicit some_time(uint32_t seed) : random_(seed) {}

    uint32_t ms(double most) {
        const double exponent = std::uniform_real_distribution<>(0, std::log(most))(random_);
        return static_cast<uint32_t>(std::min(std::exp(exponent), most));
    }
    uint32_t below(uint32_t end) {
        return std::uniform_int_distribution<uint32_t>(0, end - 1)(random_);
    }

private:
    std::mt19937 random_;
};

class wheel_of_any_shape : public ::testing::TestWithParam<named_shape> {
protected:
    clock_in_mode clock_{VEM_CLOCK_MANUAL_INLINE};
    attached_wheel wheel_{GetParam().shape};
};

TEST_P(wheel_of_any_shape, is_never_early_and_at_most_two_ticks_late) {
    const uint64_t tick_us = GetParam().shape.tick_us;
    std::vector<uint32_t> values = {1, 2, 14, 15, 16, 29, 30, 31, UINT32_MAX - 1, UINT32_MAX};
    for (const uint64_t slots : {4UL, 64UL, 1024UL, 65536UL}) {
        for (uint64_t span_us = slots * tick_us; span_us / ms_us < UINT32_MAX; span_us *= slots) {
            for (const uint64_t off_by : {0UL, 1UL, 2UL}) {
                values.push_back(
                    static_cast<uint32_t>(std::max<uint64_t>(span_us / ms_us, 2) - 1 + off_by));
            }
        }
    }
    some_time random(11);
    for (int i = 0; i < 2000; ++i) {
        values.push_back(random.ms(UINT32_MAX));
    }
    for (const uint32_t ms : values) {
        vem_clock_advance_us(random.below(3'000'000));
        counted_timer timer;
        const uint64_t deadline = vem_clock_now_us() + ms * ms_us;
        ASSERT_EQ(timer.start(wheel_.wheel, ms), 0);
        vem_clock_advance_to_us(deadline - 1);
        ASSERT_EQ(timer.expiries, 0U) << ms << " ms fired early";
        vem_clock_advance_to_us(deadline + 2 * tick_us);
        ASSERT_EQ(timer.expiries, 1U) << ms << " ms fired too late";
        ASSERT_GE(timer.expired_at_us, deadline);
        ASSERT_LE(timer.expired_at_us, deadline + 2 * tick_us);
    }
}

enum class shards { one, all };

// Many timers, a model of when each has to fire and in which order, and a script that stirs both.
class stirred_timers {
public:
    stirred_timers(attached_wheel& wheel, uint64_t tick_us, uint32_t seed, shards used)
        : wheel_(wheel), tick_us_(tick_us), random_(seed), used_(used), timers_(timer_count) {
        for (record& timer : timers_) {
            timer.owner = this;
        }
    }

    void run(uint32_t steps) {
        for (step_ = 0; step_ < steps && !::testing::Test::HasFailure(); ++step_) {
            if (random_.below(4) == 0) {
                const uint64_t to_us = vem_clock_now_us() + random_.ms(longest_ms()) * ms_us / 8;
                vem_clock_advance_to_us(to_us + random_.below(1000));
                ASSERT_TRUE(expected_.empty() ||
                            expected_.begin()->first.due_us > vem_clock_now_us())
                    << "a timer did not fire, step " << step_;
            } else {
                stir();
            }
        }
        for (record& timer : timers_) {
            vem_tw_timer_stop(&timer.timer);
        }
    }

    uint64_t expiries() const { return expiries_; }

private:
    static constexpr uint32_t timer_count = 400;

    struct timer_place {
        uint64_t due_us = 0;
        uint32_t shard = 0;
        uint64_t start = 0;
        auto operator<=>(const timer_place&) const = default;
    };

    struct record {
        vem_tw_timer timer{};
        stirred_timers* owner = nullptr;
        timer_place place;  // in expected_
        bool armed = false;
        bool sits_in_shard = false;  // it runs or has expired: started again, it stays there
    };

    // Mostly short, so that much happens; now and then as long as can be.
    double longest_ms() { return random_.below(50) == 0 ? UINT32_MAX : 400'000; }

    void stir() {
        record& timer = timers_[random_.below(timer_count)];
        if (random_.below(3) == 0) {
            forget(timer);
            timer.sits_in_shard = false;
            vem_tw_timer_stop(&timer.timer);
        } else {
            start(timer, random_.ms(longest_ms()));
        }
        ASSERT_EQ(vem_tw_timer_running(&timer.timer), timer.armed) << "step " << step_;
    }

    void start(record& timer, uint32_t ms) {
        forget(timer);
        const uint64_t since_us = vem_clock_now_us() - wheel_.made_at_us() + ms * ms_us;
        const uint64_t due_tick = (since_us + tick_us_ - 1) / tick_us_;
        if (used_ == shards::all) {
            vem::home_shard() = random_.below(vem::most_shards);
        }
        const uint32_t shard = timer.sits_in_shard ? timer.place.shard : vem::home_shard();
        timer.place = {wheel_.made_at_us() + due_tick * tick_us_, shard, ++starts_};
        timer.sits_in_shard = true;
        timer.armed = true;
        expected_.emplace(timer.place, &timer);
        ASSERT_EQ(vem_tw_timer_start(wheel_.wheel, &timer.timer, ms, expired, &timer), 0);
    }

    void forget(record& timer) {
        if (timer.armed) {
            expected_.erase(timer.place);
            timer.armed = false;
        }
    }

    static void expired(vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* timer = static_cast<record*>(context);
        timer->owner->check_expiry(*timer);
    }

    void check_expiry(record& timer) {
        ++expiries_;
        ASSERT_FALSE(expected_.empty()) << "step " << step_;
        ASSERT_EQ(expected_.begin()->second, &timer) << "out of order, step " << step_;
        ASSERT_EQ(timer.place.due_us, vem_clock_now_us()) << "at the wrong time, step " << step_;
        forget(timer);
        ASSERT_FALSE(vem_tw_timer_running(&timer.timer));
        if (random_.below(2) == 0) {
            stir();
        }
    }

    attached_wheel& wheel_;
    const uint64_t tick_us_;
    some_time random_;
    const shards used_;
    std::vector<record> timers_;
    std::map<timer_place, record*> expected_;
    uint64_t starts_ = 0;
    uint64_t expiries_ = 0;
    uint32_t step_ = 0;
};

TEST_P(wheel_of_any_shape, does_what_a_sorted_list_does) {
    stirred_timers timers(wheel_, GetParam().shape.tick_us, 23, shards::one);
    timers.run(script_steps);
    EXPECT_GT(timers.expiries(), script_steps / 20);
}

// This thread starts each timer where another one might.
TEST_P(wheel_of_any_shape, does_what_a_sorted_list_does_with_several_shards) {
    for (uint32_t shard = 1; shard < vem::most_shards; ++shard) {
        vem::home_shard() = shard;
        leave_first_shard(wheel_.wheel);
    }
    stirred_timers timers(wheel_, GetParam().shape.tick_us, 29, shards::all);
    timers.run(script_steps / 4);
    vem::home_shard() = 0;
    EXPECT_GT(timers.expiries(), script_steps / 80);
    EXPECT_EQ(entry_of(wheel_.wheel).shards_made.load(), (1U << vem::most_shards) - 1);
}

INSTANTIATE_TEST_SUITE_P(vem_tw, wheel_of_any_shape, ::testing::ValuesIn(shapes), name_of);

}  // namespace

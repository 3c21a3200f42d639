// vem_tw_retry_test.cpp - an expiry that comes again because its callback could not serve it.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <utility>
#include <vector>

#include "vem_attached_wheel.h"

namespace {

constexpr uint64_t ms_us = 1000;

// A timer whose callback is what the test says.
struct retried_timer {
    vem_tw_timer timer{};
    std::function<void()> act;
    std::vector<uint64_t> expired_at_us;

    retried_timer() = default;
    ~retried_timer() { vem_tw_timer_stop(&timer); }
    retried_timer(const retried_timer&) = delete;
    retried_timer& operator=(const retried_timer&) = delete;

    static void expired(vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* self = static_cast<retried_timer*>(context);
        self->expired_at_us.push_back(vem_clock_now_us());
        if (self->act) {
            // Once: the next expiry does nothing.
            std::exchange(self->act, nullptr)();
        }
    }
    int start(vem_tw_wheel wheel, uint32_t ms) {
        return vem_tw_timer_start(wheel, &timer, ms, expired, this);
    }
};

class vem_tw_retry : public ::testing::Test {
protected:
    // Has the timer expire; its callback acts and then wants the expiry again, 300 ms later.
    int retry_after(const std::function<void()>& act) {
        int result = -1;
        timer_.act = [&] {
            act();
            result = vem_tw_expiry_retry(&timer_.timer, 300);
        };
        timer_.start(wheel_.wheel, 30);
        vem_clock_advance_us(30 * ms_us);
        EXPECT_EQ(timer_.expired_at_us.size(), 1U);
        return result;
    }

    clock_in_mode clock_{VEM_CLOCK_MANUAL_INLINE};
    attached_wheel wheel_;
    retried_timer timer_;
};

TEST_F(vem_tw_retry, brings_the_same_expiry_again_at_its_time) {
    const uint64_t start_us = vem_clock_now_us();
    EXPECT_EQ(retry_after([] {}), 0);
    EXPECT_TRUE(vem_tw_timer_running(&timer_.timer));
    vem_clock_advance_us(10'000 * ms_us);
    EXPECT_EQ(timer_.expired_at_us,
              (std::vector<uint64_t>{start_us + 30 * ms_us, start_us + 330 * ms_us}));
    EXPECT_FALSE(vem_tw_timer_running(&timer_.timer));
}

TEST_F(vem_tw_retry, is_refused_outside_the_timers_own_callback) {
    EXPECT_EQ(vem_tw_expiry_retry(nullptr, 1), EINVAL);
    EXPECT_EQ(vem_tw_expiry_retry(&timer_.timer, 1), EINVAL);
    timer_.start(wheel_.wheel, 30);
    EXPECT_EQ(vem_tw_expiry_retry(&timer_.timer, 1), EINVAL);
    retried_timer other;
    int of_other = 0;
    timer_.act = [&] { of_other = vem_tw_expiry_retry(&other.timer, 1); };
    vem_clock_advance_us(30 * ms_us);
    EXPECT_EQ(of_other, EINVAL);
    EXPECT_FALSE(vem_tw_timer_running(&other.timer));
    EXPECT_EQ(vem_tw_expiry_retry(&timer_.timer, 1), EINVAL);
    EXPECT_FALSE(vem_tw_timer_running(&timer_.timer));
}

TEST_F(vem_tw_retry, does_not_undo_a_stop) {
    EXPECT_EQ(retry_after([this] { vem_tw_timer_stop(&timer_.timer); }), ECANCELED);
    EXPECT_FALSE(vem_tw_timer_running(&timer_.timer));
    vem_clock_advance_us(10'000 * ms_us);
    EXPECT_EQ(timer_.expired_at_us.size(), 1U);
}

TEST_F(vem_tw_retry, does_not_undo_a_start) {
    const uint64_t start_us = vem_clock_now_us();
    EXPECT_EQ(retry_after([this] { timer_.start(wheel_.wheel, 3000); }), ECANCELED);
    EXPECT_TRUE(vem_tw_timer_running(&timer_.timer));
    vem_clock_advance_us(10'000 * ms_us);
    EXPECT_EQ(timer_.expired_at_us,
              (std::vector<uint64_t>{start_us + 30 * ms_us, start_us + 3030 * ms_us}));
}

TEST_F(vem_tw_retry, does_not_outlive_its_wheel) {
    EXPECT_EQ(retry_after([this] { vem_tw_destroy_wheel(&wheel_.wheel); }), ECANCELED);
    EXPECT_FALSE(vem_tw_timer_running(&timer_.timer));
    vem_clock_advance_us(10'000 * ms_us);
    EXPECT_EQ(timer_.expired_at_us.size(), 1U);
}

TEST_F(vem_tw_retry, waits_on_a_wheel_that_was_detached_meanwhile) {
    EXPECT_EQ(retry_after([this] { vem_tw_attach_vdm(wheel_.wheel, nullptr); }), 0);
    EXPECT_TRUE(vem_tw_timer_running(&timer_.timer));
    vem_clock_advance_us(10'000 * ms_us);
    EXPECT_EQ(timer_.expired_at_us.size(), 1U);
    ASSERT_EQ(vem_tw_attach_vdm(wheel_.wheel, wheel_.manager), 0);
    vem_clock_advance_us(0);
    EXPECT_EQ(timer_.expired_at_us.size(), 2U);
}

TEST_F(vem_tw_retry, follows_its_wheel_to_another_manager) {
    attached_wheel other;
    const uint64_t start_us = vem_clock_now_us();
    EXPECT_EQ(retry_after([&] { vem_tw_attach_vdm(wheel_.wheel, other.manager); }), 0);
    vem_dm_destroy(&wheel_.manager);
    vem_clock_advance_us(10'000 * ms_us);
    EXPECT_EQ(timer_.expired_at_us,
              (std::vector<uint64_t>{start_us + 30 * ms_us, start_us + 330 * ms_us}));
}

}  // namespace

// zon_timer_fixture.h - a timer wheel of its own, without an engine, whose clock is turned by hand.

#pragma once

#include <gtest/gtest.h>

#include "osal/zon_timer.h"
#include "zon_clock.h"

namespace zon_test {

inline constexpr uint64_t two_ticks_ms = 30;

class wheel_fixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE), zon_error_none);
    }
    void TearDown() override {
        if (wheel != nullptr)
            zon_timer_tw_destroy(&wheel, &manager, &thread);
        EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
    }

    void make_wheel() { ASSERT_TRUE(zon_timer_tw_init(&wheel, &manager, &thread)); }
    static void advance_ms(uint64_t by_ms) {
        ASSERT_EQ(zon_clock_advance_us(by_ms * 1000), zon_error_none);
    }

    zon_tw_wheel_t wheel = nullptr;
    zon_tw_dm_handle_t manager = nullptr;
    zon_tw_pid_t thread{};
    zon_tw_timer_t timer{};
    zon_fid_t no_fid = ZON_NULL_FID;
};

}  // namespace zon_test

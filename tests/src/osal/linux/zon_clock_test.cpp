// zon_clock_test.cpp - the clock as hosts turn it.

#include "zon_clock.h"

#include <gtest/gtest.h>

namespace {

class manual_clock : public ::testing::TestWithParam<zon_clock_mode_e> {
protected:
    void SetUp() override { ASSERT_EQ(zon_clock_set_mode(GetParam()), zon_error_none); }
    void TearDown() override { EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none); }
};

}  // namespace

TEST_P(manual_clock, stands_still_until_it_is_turned) {
    const uint64_t start = zon_clock_now_us();
    EXPECT_EQ(zon_clock_now_us(), start);
    EXPECT_EQ(zon_clock_advance_us(1'800'000'000), zon_error_none);
    EXPECT_EQ(zon_clock_now_us(), start + 1'800'000'000);
    EXPECT_EQ(zon_clock_advance_to_us(start + 2'000'000'000), zon_error_none);
    EXPECT_EQ(zon_clock_now_us(), start + 2'000'000'000);
}

TEST_P(manual_clock, is_not_turned_back) {
    const uint64_t start = zon_clock_now_us();
    EXPECT_EQ(zon_clock_advance_us(1000), zon_error_none);
    EXPECT_EQ(zon_clock_advance_to_us(start), zon_error_none);
    EXPECT_EQ(zon_clock_now_us(), start + 1000);
}

TEST_P(manual_clock, refuses_to_run_over) {
    const uint64_t start = zon_clock_now_us();
    EXPECT_EQ(zon_clock_advance_us(UINT64_MAX), zon_error_parameter_invalid);
    EXPECT_EQ(zon_clock_advance_to_us(UINT64_MAX), zon_error_parameter_invalid);
    EXPECT_EQ(zon_clock_now_us(), start);
}

INSTANTIATE_TEST_SUITE_P(, manual_clock,
                         ::testing::Values(ZON_CLOCK_MANUAL_WAIT, ZON_CLOCK_MANUAL_INLINE));

TEST(system_clock, cannot_be_turned) {
    EXPECT_EQ(zon_clock_advance_us(1), zon_error_parameter_invalid);
    EXPECT_EQ(zon_clock_advance_to_us(UINT64_MAX), zon_error_parameter_invalid);
}

TEST(system_clock, goes_forward) {
    const uint64_t start = zon_clock_now_us();
    for (int spin = 0; spin < 100'000'000 && zon_clock_now_us() == start; ++spin) {
    }
    EXPECT_GT(zon_clock_now_us(), start);
}

TEST(clock_mode, that_is_unknown_is_refused) {
    for (const int mode : {-1, 3, 1000})
        EXPECT_EQ(zon_clock_set_mode(static_cast<zon_clock_mode_e>(mode)),
                  zon_error_parameter_invalid);
    EXPECT_EQ(zon_clock_advance_us(1), zon_error_parameter_invalid)
        << "the clock is still the system's";
}

// vem_time_test.cpp - the time of day as text.
#include "vem/vem_time.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>

namespace {

constexpr timespec some_time = {1'738'328'709, 123'456};  // 2025-01-31 13:05:09 UTC

TEST(vem_time, reads_the_time_of_day) {
    timespec now{};
    ASSERT_EQ(vem_time_get_timespec(&now), 0);
    timespec check{};
    clock_gettime(CLOCK_REALTIME, &check);
    EXPECT_GT(now.tv_sec, some_time.tv_sec);
    EXPECT_LE(now.tv_sec, check.tv_sec);
    EXPECT_NE(vem_time_get_timespec(nullptr), 0);
}

TEST(vem_time, formats_universal_time) {
    std::array<char, 96> text{};
    EXPECT_EQ(vem_time_format_system_default(&some_time, VEM_TIME_FORMAT_TZONE_UTC, text.data(),
                                             text.size()),
              text.data());
    EXPECT_STREQ(text.data(), "2025-01-31 13:05:09.000123 GMT");
}

TEST(vem_time, formats_local_time) {
    const char* before = std::getenv("TZ");
    const std::string kept = before == nullptr ? "" : before;
    setenv("TZ", "XST-2", 1);
    tzset();
    std::array<char, 96> text{};
    EXPECT_NE(vem_time_format_system_default(&some_time, VEM_TIME_FORMAT_TZONE_LOCAL, text.data(),
                                             text.size()),
              nullptr);
    EXPECT_STREQ(text.data(), "2025-01-31 15:05:09.000123 XST");
    before == nullptr ? unsetenv("TZ") : setenv("TZ", kept.c_str(), 1);
    tzset();
}

TEST(vem_time, gives_null_when_it_cannot) {
    std::array<char, 96> text{};
    const auto format = [&](const timespec* time, int zone, char* buf, size_t len) {
        return vem_time_format_system_default(time, zone, buf, len);
    };
    EXPECT_EQ(format(nullptr, VEM_TIME_FORMAT_TZONE_UTC, text.data(), text.size()), nullptr);
    EXPECT_EQ(format(&some_time, VEM_TIME_FORMAT_TZONE_UTC, nullptr, 96), nullptr);
    EXPECT_EQ(format(&some_time, 0, text.data(), text.size()), nullptr);
    EXPECT_EQ(format(&some_time, 3, text.data(), text.size()), nullptr);
    EXPECT_EQ(format(&some_time, VEM_TIME_FORMAT_TZONE_UTC, text.data(), 30), nullptr);
    EXPECT_NE(format(&some_time, VEM_TIME_FORMAT_TZONE_UTC, text.data(), 31), nullptr);
    const timespec past_all_calendars = {INT64_MAX, 0};
    EXPECT_EQ(format(&past_all_calendars, VEM_TIME_FORMAT_TZONE_UTC, text.data(), text.size()),
              nullptr);
}

}  // namespace

// zon_debug_test.cpp - trace lines, the switches before them, and the end of a program.

#include "osal/zon_debug.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "support/captured_output.h"
#include "support/fixed_time_stamp.h"

using zon_test::captured_output;
using zon_test::fixed_time_stamp;

TEST(trace_line, is_framed_by_stamp_and_colon) {
    const fixed_time_stamp stamp;
    captured_output errors(stderr);
    zon_buginf("flow %d of %s", 7, "ten");
    EXPECT_EQ(errors.text(), "noon : flow 7 of ten");
}

TEST(trace_line, carries_the_local_time) {
    captured_output errors(stderr);
    zon_buginf("\nhello\n");
    const std::regex stamped(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \S+ : \nhello\n)");
    EXPECT_TRUE(std::regex_match(errors.text(), stamped)) << errors.text();
}

TEST(trace_line, asks_for_the_local_zone_and_offers_96_characters) {
    static int zone_asked;
    static size_t room_offered;
    const fixed_time_stamp restores_the_formatter;
    zon_trace_time_formatter = [](const timespec*, int zone, char*, size_t room) -> const char* {
        zone_asked = zone;
        room_offered = room;
        return "t";
    };
    captured_output errors(stderr);
    zon_buginf("x");
    EXPECT_EQ(zone_asked, 2);
    EXPECT_EQ(room_offered, 96u);
}

TEST(trace_line, is_given_the_present_time) {
    static time_t stamped;
    const fixed_time_stamp restores_the_formatter;
    zon_trace_time_formatter = [](const timespec* at, int, char*, size_t) -> const char* {
        stamped = at->tv_sec;
        return "t";
    };
    captured_output errors(stderr);
    const time_t before = time(nullptr);
    zon_buginf("x");
    EXPECT_GE(stamped, before - 1);  // the coarse clock of time() may lag
    EXPECT_LE(stamped, time(nullptr) + 1);
}

TEST(trace_line, of_199_characters_is_whole) {
    const fixed_time_stamp stamp;
    captured_output errors(stderr);
    const std::string message(199, 'm');
    zon_buginf("%s", message.c_str());
    EXPECT_EQ(errors.text(), "noon : " + message);
}

TEST(trace_line, longer_than_199_characters_is_cut) {
    const fixed_time_stamp stamp;
    captured_output errors(stderr);
    const std::string message(1000, 'm');
    zon_buginf("%s", message.c_str());
    EXPECT_EQ(errors.text(), "noon : " + std::string(199, 'm'));
}

TEST(trace_line, without_a_stamp_has_no_separator) {
    const fixed_time_stamp stamp(fixed_time_stamp::none);
    captured_output errors(stderr);
    zon_buginf("\nZON Engine: %s", "bare");
    EXPECT_EQ(errors.text(), "\nZON Engine: bare");
}

TEST(trace_line, is_not_read_as_a_format_twice) {
    const fixed_time_stamp stamp(fixed_time_stamp::none);
    captured_output errors(stderr);
    zon_buginf("%s", "100%d");
    EXPECT_EQ(errors.text(), "100%d");
}

TEST(trace_line, leaves_standard_output_alone) {
    captured_output errors(stderr);
    captured_output output(stdout);
    zon_buginf("x");
    EXPECT_EQ(output.text(), "");
}

struct switch_row {
    const char* name;
    bool* own;
    bool (*tracing)();
};

class trace_switch : public ::testing::TestWithParam<switch_row> {
protected:
    void TearDown() override { *GetParam().own = zon_debug_flag_all = false; }
};

TEST_P(trace_switch, of_its_own_or_of_all_opens_a_component) {
    const auto& [name, own, tracing] = GetParam();
    EXPECT_FALSE(tracing());
    *own = true;
    EXPECT_TRUE(tracing());
    *own = false;
    zon_debug_flag_all = true;
    EXPECT_TRUE(tracing());
    zon_debug_flag_all = false;
    EXPECT_FALSE(tracing());
}

TEST_P(trace_switch, leaves_the_other_components_closed) {
    *GetParam().own = true;
    const int open =
        zon_tracing_engine() + zon_tracing_fe() + zon_tracing_l4() + zon_tracing_ager();
    EXPECT_EQ(open, 1);
}

INSTANTIATE_TEST_SUITE_P(
    , trace_switch,
    ::testing::Values(switch_row{"engine", &zon_debug_flag_engine, zon_tracing_engine},
                      switch_row{"fe", &zon_debug_flag_fe, zon_tracing_fe},
                      switch_row{"l4", &zon_debug_flag_l4, zon_tracing_l4},
                      switch_row{"ager", &zon_debug_flag_ager, zon_tracing_ager}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(invariant, that_holds_prints_nothing) {
    captured_output errors(stderr);
    zon_require(true, "it holds");
    EXPECT_EQ(errors.text(), "");
}

TEST(invariant_death, prints_place_function_and_text_and_aborts) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        zon_require(false, "fid_is_valid(fid_table, fid)", "a_function", "src/a_file.cpp", 42),
        ::testing::KilledBySignal(SIGABRT),
        "src/a_file\\.cpp:42: a_function: Assertion `fid_is_valid\\(fid_table, fid\\)' "
        "failed\\.\n");
}

static void breaks_its_invariant() {
    zon_require(false, "broken");
}

TEST(invariant_death, names_the_function_and_the_file_that_it_stands_in) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        breaks_its_invariant(), ::testing::KilledBySignal(SIGABRT),
        "zon_debug_test\\.cpp:[0-9]+: breaks_its_invariant: Assertion `broken' failed\\.\n");
}

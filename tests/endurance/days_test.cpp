// days_test.cpp - sixty days of mixed traffic, past the wrap of every word of 32 bits that counts
// milliseconds or ticks: each flow ends when it has to, and memory stays flat.
#include <cstdio>
#include <sstream>

#include "endurance/footprint.h"
#include "endurance/mixed_days.h"

namespace zon_test {
namespace {

constexpr uint64_t days = 60;

// The table fills early; from then on nothing may grow but by what the allocator rounds up.
constexpr uint64_t warm_up_days = 6;
constexpr uint64_t most_heap_growth_bytes = 64 * 1024;

struct start_of_days {
    const char* name;
    zon_clock_mode_e clock;
    uint64_t wheel_age_us;  // passes with no traffic before the first day
};

void PrintTo(const start_of_days& start, std::ostream* out) {
    *out << start.name;
}

// The engine's milliseconds wrap on day 50 of either; its ticks on day 30 of the second.
const start_of_days starts[] = {
    {"of_a_new_engine", ZON_CLOCK_MANUAL_INLINE, 0},
    {"of_one_whose_ticks_are_about_to_wrap", ZON_CLOCK_MANUAL_INLINE,
     (uint64_t{1} << 32) * endurance_tick_us - days / 2 * day_us},
    {"of_one_whose_timers_run_on_a_thread", ZON_CLOCK_MANUAL_WAIT, 0},
};

class virtual_days : public engine_fixture, public ::testing::WithParamInterface<start_of_days> {
protected:
    virtual_days() {
        parameters.max_flows = mixed_days::capacity;
        parameters.pre_flow_timer = announced_ms;
    }
};

TEST_P(virtual_days, let_no_flow_end_early_or_late_and_no_memory_grow) {
    ASSERT_EQ(zon_clock_set_mode(GetParam().clock), zon_error_none);
    const uint64_t longest_gap_us = is_long_form() ? 60 * sec_us : 50'000 * sec_us;
    const uint64_t made_at_us = zon_clock_now_us();
    mixed_days traffic(made_at_us, client, 20250131);
    ASSERT_EQ(zon_clock_advance_us(GetParam().wheel_age_us), zon_error_none);
    const uint64_t first_us = zon_clock_now_us();

    traffic.fill();
    traffic.run_until(first_us + warm_up_days * day_us, longest_gap_us);
    const footprint warm = footprint::of_this_process();
    traffic.run_until(first_us + days * day_us, longest_gap_us);
    const footprint after = footprint::of_this_process();
    traffic.run_out();

    const flow_deadlines::margins& seen = traffic.margins();
    EXPECT_GT(zon_clock_now_us() - made_at_us, uint64_t{UINT32_MAX} * ms_us);
    EXPECT_GT(seen.ends, 5000U) << "hardly any flow ended for lack of packets";
    EXPECT_GT(seen.after_renewals, 1000U) << "hardly any timer was renewed";
    EXPECT_GT(seen.longest_idle_ms, 30 * day_us / ms_us) << "no flow waited for long";
    EXPECT_LE(growth(warm.heap_bytes, after.heap_bytes), most_heap_growth_bytes) << after;
    EXPECT_LE(growth(warm.resident_bytes, after.resident_bytes), page_slack_bytes) << after;
    EXPECT_EQ(after.threads, warm.threads);
    EXPECT_EQ(after.handles, warm.handles);

    std::ostringstream held;
    held << "  day " << warm_up_days << ":  " << warm << "\n  day " << days << ": " << after;
    std::printf(
        "%llu packets, %llu flows, %zu at most at once, %llu ended by age, %llu renewals,"
        " idle times up to %llu ms\n  at worst %llu us beyond twice the idle time\n%s\n",
        static_cast<unsigned long long>(traffic.packets()),
        static_cast<unsigned long long>(traffic.begun()), traffic.most_at_once(),
        static_cast<unsigned long long>(seen.ends),
        static_cast<unsigned long long>(seen.after_renewals),
        static_cast<unsigned long long>(seen.longest_idle_ms),
        static_cast<unsigned long long>(seen.latest_beyond_rule_us), held.str().c_str());
}

INSTANTIATE_TEST_SUITE_P(endurance, virtual_days, ::testing::ValuesIn(starts),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace zon_test

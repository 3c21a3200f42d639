// zon_timer_test.cpp - the engine's timers: starts, stops, expiries, and what is printed of them.

#include "osal/zon_timer.h"

#include <cstring>
#include <string>

#include "src/osal/linux/zon_timer_fixture.h"
#include "support/captured_output.h"
#include "support/engine_fixture.h"
#include "vem/vem_tw.h"

using namespace zon_test;

namespace {

using idle_timer = wheel_fixture;

// Which of the two kinds of timer a test starts. Both are given contexts that their handlers only
// complain of.
struct kind_row {
    const char* name;
    void (*start)(zon_tw_wheel_t* wheel, zon_tw_timer_t* timer, uint32_t ms);
    const char* cannot_start;
};

void start_flow(zon_tw_wheel_t* wheel, zon_tw_timer_t* timer, uint32_t ms) {
    static zon_fid_t fid = ZON_NULL_FID;
    zon_timer_flow_start(wheel, timer, ms, &fid);
}
void start_frag(zon_tw_wheel_t* wheel, zon_tw_timer_t* timer, uint32_t ms) {
    zon_timer_frag_start(wheel, timer, ms, nullptr);
}

const kind_row kind_rows[] = {
    {"flow", start_flow, "zon_timer_flow_start: Error: Timer cannot start\n"},
    {"frag", start_frag, "zon_timer_frag_start: Error: Timer cannot start\n"},
};

class timer_kind : public zon_test::engine_fixture, public ::testing::WithParamInterface<kind_row> {
protected:
    void start(uint32_t ms) { GetParam().start(zon_get_tw_internal(), &timer, ms); }

    void TearDown() override {
        zon_timer_stop(&timer);
        engine_fixture::TearDown();
    }

    zon_tw_timer_t timer{};
};

}  // namespace

// ---- starts and stops ----

TEST_P(timer_kind, runs_until_its_time_and_no_longer) {
    captured_output output(stdout);
    start(5000);
    EXPECT_TRUE(zon_timer_running(&timer));
    advance_ms(4999);
    EXPECT_TRUE(zon_timer_running(&timer));
    advance_ms(1 + two_ticks_ms);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_P(timer_kind, of_zero_is_armed_for_1024_ms) {
    captured_output output(stdout);
    start(0);
    advance_ms(1023);
    EXPECT_TRUE(zon_timer_running(&timer));
    advance_ms(1 + two_ticks_ms);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_P(timer_kind, of_one_is_armed_for_1_ms) {
    captured_output output(stdout);
    start(1);
    EXPECT_TRUE(zon_timer_running(&timer));
    advance_ms(1 + two_ticks_ms);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_P(timer_kind, is_restarted_without_a_stop) {
    captured_output output(stdout);
    start(1000);
    advance_ms(900);
    start(1000);
    advance_ms(900);
    EXPECT_TRUE(zon_timer_running(&timer));
    advance_ms(100 + two_ticks_ms);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_P(timer_kind, is_stopped_and_never_fires) {
    captured_output output(stdout);
    start(1000);
    zon_timer_stop(&timer);
    EXPECT_FALSE(zon_timer_running(&timer));
    advance_ms(10000);
    EXPECT_EQ(output.text(), "");
}

TEST_P(timer_kind, without_a_wheel_is_not_started_and_prints_nothing) {
    captured_output output(stdout);
    captured_output errors(stderr);
    zon_tw_wheel_t none = nullptr;
    GetParam().start(&none, &timer, 1000);
    GetParam().start(nullptr, &timer, 1000);
    GetParam().start(zon_get_tw_internal(), nullptr, 1000);
    EXPECT_FALSE(zon_timer_running(&timer));
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(errors.text(), "");
}

TEST_P(timer_kind, on_a_destroyed_wheel_cannot_start) {
    zon_tw_wheel_t wheel = nullptr;
    ASSERT_EQ(vem_tw_init_wheel(&wheel, 1024, 15000, 3, 0, 0, 0), 0);
    zon_tw_wheel_t stale = wheel;
    ASSERT_EQ(vem_tw_destroy_wheel(&wheel), 0);
    captured_output output(stdout);
    GetParam().start(&stale, &timer, 0);
    const std::string text = output.text();
    ASSERT_GE(text.size(), strlen(GetParam().cannot_start));
    EXPECT_EQ(text.substr(text.size() - strlen(GetParam().cannot_start)), GetParam().cannot_start);
    EXPECT_FALSE(zon_timer_running(&timer));
}

INSTANTIATE_TEST_SUITE_P(, timer_kind, ::testing::ValuesIn(kind_rows),
                         [](const auto& row) { return std::string(row.param.name); });

struct refusal_row {
    uint32_t requested;
    const char* line;
};

TEST_F(idle_timer, of_a_flow_that_is_refused_names_the_error_and_the_requested_time) {
    ASSERT_EQ(vem_tw_init_wheel(&wheel, 1024, 15000, 3, 0, 0, 0), 0);
    zon_tw_wheel_t stale = wheel;
    ASSERT_EQ(vem_tw_destroy_wheel(&wheel), 0);
    constexpr refusal_row rows[] = {
        {0, "zon_timer_flow_start: start error: Invalid argument, trying to start timer at 0\n"},
        {30000,
         "zon_timer_flow_start: start error: Invalid argument, trying to start timer at 30000\n"},
    };
    for (const refusal_row& row : rows) {
        captured_output output(stdout);
        zon_timer_flow_start(&stale, &timer, row.requested, &no_fid);
        EXPECT_EQ(output.text(),
                  std::string(row.line) + "zon_timer_flow_start: Error: Timer cannot start\n");
    }
}

TEST_F(idle_timer, of_a_fragment_that_is_refused_prints_one_line_only) {
    ASSERT_EQ(vem_tw_init_wheel(&wheel, 1024, 15000, 3, 0, 0, 0), 0);
    zon_tw_wheel_t stale = wheel;
    ASSERT_EQ(vem_tw_destroy_wheel(&wheel), 0);
    captured_output output(stdout);
    zon_timer_frag_start(&stale, &timer, 30000, nullptr);
    EXPECT_EQ(output.text(), "zon_timer_frag_start: Error: Timer cannot start\n");
}

TEST_F(idle_timer, that_never_ran_is_stopped_without_harm) {
    zon_timer_stop(&timer);
    zon_timer_stop(nullptr);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_F(idle_timer, keeps_its_content_when_its_type_is_set) {
    make_wheel();
    memset(&timer, 0x5a, sizeof timer);
    const zon_tw_timer_t before = timer;
    zon_timer_set_type(&wheel, &timer, ZON_TIMER_FLOW_IDLE);
    zon_timer_set_type(nullptr, nullptr, ZON_TIMER_FRAG_FLOW_IDLE);
    EXPECT_EQ(memcmp(&timer, &before, sizeof timer), 0);
}

TEST(timer_type, has_the_values_of_the_interface) {
    EXPECT_EQ(static_cast<int>(ZON_TIMER_TYPE_MIN), 0);
    EXPECT_EQ(static_cast<int>(ZON_TIMER_FLOW_IDLE), 1);
    EXPECT_EQ(static_cast<int>(ZON_TIMER_FRAG_FLOW_IDLE), 2);
    EXPECT_EQ(static_cast<int>(ZON_TIMER_TYPE_MAX), 3);
}

// ---- expiries under way ----

namespace {

// What a handler of a test does when it runs, and how often it ran.
struct expiry {
    int runs = 0;
    bool cancelled = false;
    bool retry = false;
    bool stop_first = false;
};

void handle(vem_tw_wheel, vem_tw_timer* timer, void* context) {
    auto* seen = static_cast<expiry*>(context);
    ++seen->runs;
    if (seen->stop_first)
        zon_timer_stop(timer);
    seen->cancelled = zon_timer_expiry_cancelled(timer);
    if (seen->retry)
        zon_timer_retry_expiry(timer);
}

}  // namespace

TEST_F(idle_timer, counts_as_cancelled_only_inside_its_handler) {
    make_wheel();
    expiry seen;
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, handle, &seen), 0);
    zon_timer_stop(&timer);
    EXPECT_FALSE(zon_timer_expiry_cancelled(&timer));
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, handle, &seen), 0);
    advance_ms(10 + two_ticks_ms);
    EXPECT_EQ(seen.runs, 1);
    EXPECT_FALSE(seen.cancelled);
    EXPECT_FALSE(zon_timer_expiry_cancelled(&timer));
}

TEST_F(idle_timer, that_is_stopped_while_its_handler_runs_is_cancelled) {
    make_wheel();
    expiry seen;
    seen.stop_first = true;
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, handle, &seen), 0);
    advance_ms(10 + two_ticks_ms);
    EXPECT_EQ(seen.runs, 1);
    EXPECT_TRUE(seen.cancelled);
}

TEST_F(idle_timer, that_is_retried_comes_again_very_soon_with_the_same_context) {
    make_wheel();
    expiry seen;
    seen.retry = true;
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, handle, &seen), 0);
    advance_ms(10 + two_ticks_ms);
    EXPECT_GE(seen.runs, 1);
    EXPECT_TRUE(zon_timer_running(&timer));
    seen.retry = false;
    const int before = seen.runs;
    advance_ms(1 + two_ticks_ms);
    EXPECT_EQ(seen.runs, before + 1);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_F(idle_timer, that_was_cancelled_is_not_retried) {
    make_wheel();
    expiry seen;
    seen.stop_first = seen.retry = true;
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, handle, &seen), 0);
    advance_ms(1000);
    EXPECT_EQ(seen.runs, 1);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_F(idle_timer, may_be_started_and_stopped_on_a_quiet_wheel_but_does_not_fire) {
    make_wheel();
    expiry seen;
    zon_timer_quiesce(wheel);
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, handle, &seen), 0);
    advance_ms(1000);
    EXPECT_EQ(seen.runs, 0);
    EXPECT_TRUE(zon_timer_running(&timer));
    zon_timer_stop(&timer);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_F(idle_timer, may_quiet_the_wheel_from_its_own_handler) {
    make_wheel();
    static int runs;
    runs = 0;
    const auto quiet = [](vem_tw_wheel tw, vem_tw_timer*, void*) {
        ++runs;
        zon_timer_quiesce(tw);
    };
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, quiet, nullptr), 0);
    advance_ms(10 + two_ticks_ms);
    EXPECT_EQ(runs, 1);
}

// zon_timer_test.cpp - the engine's layer over the timer wheel: set-up, starts, stops, and what it
// prints.

#include "osal/zon_timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <semaphore>
#include <string>
#include <thread>

#include "support/captured_output.h"
#include "support/engine_fixture.h"
#include "vem/vem_dm.h"
#include "vem/vem_tw.h"
#include "zon_clock.h"

using zon_test::captured_output;

namespace {

constexpr uint64_t two_ticks_ms = 30;

bool timer_thread_lives() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name == "ZON Timer Wheel")  // the system keeps 15 characters of a name
            return true;
    }
    return false;
}

// A thread names itself once it runs, and the system lists it for a moment after its end.
bool timer_thread_becomes(bool alive) {
    for (int look = 0; look < 100'000 && timer_thread_lives() != alive; ++look)
        std::this_thread::yield();
    return timer_thread_lives() == alive;
}

// A wheel of its own, without an engine.
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

using timer_wheel = wheel_fixture;
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

// ---- set-up ----

TEST_F(timer_wheel, is_set_up_with_a_manager_and_a_named_thread) {
    EXPECT_TRUE(timer_thread_becomes(false));
    captured_output output(stdout);
    make_wheel();
    EXPECT_NE(wheel, nullptr);
    EXPECT_NE(manager, nullptr);
    EXPECT_TRUE(timer_thread_becomes(true));
    EXPECT_EQ(output.text(), "");
}

TEST_F(timer_wheel, is_destroyed_with_its_thread_joined) {
    make_wheel();
    EXPECT_TRUE(timer_thread_becomes(true));
    zon_timer_tw_destroy(&wheel, &manager, &thread);
    EXPECT_EQ(wheel, nullptr);
    EXPECT_EQ(manager, nullptr);
    EXPECT_TRUE(timer_thread_becomes(false));
}

namespace {

std::atomic<bool> thread_has_ended;

// Makes the end of the thread that runs it slow, and noted.
void slow_down_the_end(vem_tw_wheel, vem_tw_timer*, void*) {
    struct note_at_end {
        bool armed = true;
        ~note_at_end() {
            for (int turn = 0; turn < 1000; ++turn)
                std::this_thread::yield();
            thread_has_ended = armed;
        }
    };
    thread_local note_at_end note;
    note.armed = true;
}

}  // namespace

TEST_F(timer_wheel, is_destroyed_only_after_its_thread_has_ended) {
    thread_has_ended = false;
    ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_MANUAL_WAIT), zon_error_none);
    make_wheel();
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, slow_down_the_end, nullptr), 0);
    advance_ms(10 + two_ticks_ms);
    zon_timer_tw_destroy(&wheel, &manager, &thread);
    EXPECT_TRUE(thread_has_ended) << "the thread was not joined";
}

TEST_F(timer_wheel, is_destroyed_without_a_join_when_no_thread_id_is_given) {
    make_wheel();
    zon_timer_tw_destroy(&wheel, &manager, nullptr);
    EXPECT_EQ(wheel, nullptr);
    EXPECT_EQ(pthread_join(thread, nullptr), 0) << "the thread was joined already, or does not end";
}

TEST_F(timer_wheel, that_cannot_be_made_is_reported) {
    captured_output output(stdout);
    EXPECT_FALSE(zon_timer_tw_init(nullptr, &manager, &thread));
    EXPECT_EQ(output.text(), "\nzon_timer_tw_init: ZON Timer Wheel Creation Failed\n");
    EXPECT_EQ(manager, nullptr);
}

TEST_F(timer_wheel, is_undone_and_reported_when_the_manager_cannot_be_made) {
    captured_output output(stdout);
    EXPECT_FALSE(zon_timer_tw_init(&wheel, nullptr, &thread));
    EXPECT_EQ(output.text(), "\nzon_timer_tw_init: Creating Timer Wheel VDM Failed\n");
    EXPECT_EQ(wheel, nullptr);
}

TEST_F(timer_wheel, is_undone_and_reported_when_the_thread_cannot_be_made) {
    pthread_attr_t kept;
    ASSERT_EQ(pthread_getattr_default_np(&kept), 0);
    pthread_attr_t impossible;
    pthread_attr_init(&impossible);
    ASSERT_EQ(pthread_attr_setstacksize(&impossible, size_t{1} << 50),
              0);  // more than there are addresses
    ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
    const zon_tw_pid_t untouched = thread;
    {
        captured_output output(stdout);
        EXPECT_FALSE(zon_timer_tw_init(&wheel, &manager, &thread));
        EXPECT_EQ(output.text(), "\nzon_timer_tw_init: ZON Timer Process Creation Failed\n");
    }
    ASSERT_EQ(pthread_setattr_default_np(&kept), 0);
    pthread_attr_destroy(&impossible);
    pthread_attr_destroy(&kept);
    EXPECT_EQ(wheel, nullptr);
    EXPECT_EQ(manager, nullptr);
    EXPECT_EQ(thread, untouched);
}

TEST_F(timer_wheel, may_be_set_up_again) {
    for (int round = 0; round < 200;
         ++round) {  // more often than the process could have managers and wheels at once
        make_wheel();
        zon_timer_tw_destroy(&wheel, &manager, &thread);
    }
}

namespace {

// A handler that is running while somebody destroys the wheel.
struct running_handler {
    zon_tw_wheel_t* wheel = nullptr;
    std::binary_semaphore entered{0};
    bool had_wheel = false;
    zon_tw_timer_t other{};
    zon_fid_t no_fid = ZON_NULL_FID;

    zon_tw_wheel_t seen() const { return std::atomic_ref(*wheel).load(std::memory_order_acquire); }
    static void run(vem_tw_wheel tw, vem_tw_timer*, void* context) {
        auto* self = static_cast<running_handler*>(context);
        self->entered.release();
        while (!vem_tw_is_detached(tw))
            std::this_thread::yield();
        for (int turn = 0; turn < 1000 && self->seen() != nullptr; ++turn)
            std::this_thread::yield();
        self->had_wheel = self->seen() != nullptr;
        zon_timer_flow_start(self->wheel, &self->other, 1000, &self->no_fid);
    }
};

}  // namespace

TEST_F(timer_wheel, stays_until_the_handler_that_is_running_has_done_with_it) {
    ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
    captured_output output(stdout);
    make_wheel();
    running_handler handler;
    handler.wheel = &wheel;
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 1, running_handler::run, &handler), 0);
    handler.entered.acquire();
    zon_timer_tw_destroy(&wheel, &manager, &thread);
    EXPECT_TRUE(handler.had_wheel);
    EXPECT_FALSE(zon_timer_running(&handler.other)) << "destruction disarms what was started last";
    EXPECT_EQ(wheel, nullptr);
    EXPECT_EQ(output.text(), "");
}

TEST_F(timer_wheel, may_be_made_and_destroyed_while_packets_start_timers) {
    captured_output output(stdout);  // starts may be refused for a moment, and say so
    std::atomic<bool> stop{false};
    std::thread packets([&] {
        while (!stop) {
            zon_timer_flow_start(&wheel, &timer, 1000, &no_fid);
            zon_timer_stop(&timer);
        }
    });
    for (int round = 0; round < 50; ++round) {
        make_wheel();
        std::this_thread::yield();
        zon_timer_tw_destroy(&wheel, &manager, &thread);
    }
    stop = true;
    packets.join();
    EXPECT_EQ(wheel, nullptr);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_F(timer_wheel, may_be_destroyed_by_its_own_handler) {
    struct engine_fields {
        zon_tw_wheel_t* wheel;
        zon_tw_dm_handle_t* manager;
    } fields{&wheel, &manager};
    const auto destroy = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        const auto* own = static_cast<engine_fields*>(context);
        zon_timer_tw_destroy(own->wheel, own->manager, nullptr);
    };
    for (const zon_clock_mode_e mode : {ZON_CLOCK_MANUAL_INLINE, ZON_CLOCK_MANUAL_WAIT}) {
        ASSERT_EQ(zon_clock_set_mode(mode), zon_error_none);
        make_wheel();
        ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, destroy, &fields), 0);
        advance_ms(10 + two_ticks_ms);
        EXPECT_EQ(pthread_join(thread, nullptr), 0);
        EXPECT_EQ(wheel, nullptr);
        EXPECT_EQ(manager, nullptr);
    }
}

TEST_F(timer_wheel, lets_no_handler_turn_or_switch_the_clock) {
    struct refusals {
        zon_error_t turn = zon_error_none;
        zon_error_t turn_to = zon_error_none;
        zon_error_t mode = zon_error_none;
    } got;
    const auto attempt = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* seen = static_cast<refusals*>(context);
        seen->turn = zon_clock_advance_us(1);
        seen->turn_to = zon_clock_advance_to_us(zon_clock_now_us() + 1);
        seen->mode = zon_clock_set_mode(ZON_CLOCK_SYSTEM);
    };
    make_wheel();
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, attempt, &got), 0);
    advance_ms(10 + two_ticks_ms);
    EXPECT_EQ(got.turn, zon_error_parameter_invalid);
    EXPECT_EQ(got.turn_to, zon_error_parameter_invalid);
    EXPECT_EQ(got.mode, zon_error_parameter_invalid);
}

// Outside a thread of the runtime's own the entry returns and says why.
TEST(timer_thread, without_a_manager_ends_with_a_line) {
    captured_output output(stdout);
    EXPECT_EQ(zon_timer_create_process(nullptr), nullptr);
    EXPECT_EQ(output.text(), "zon_timer_create_process: Failed thread\n");
}

TEST(timer_thread, of_a_destroyed_manager_ends_with_a_line) {
    vem_dm_handle manager = nullptr;
    ASSERT_EQ(vem_dm_create(&manager, "short-lived", 0), 0);
    vem_dm_handle stale = manager;
    ASSERT_EQ(vem_dm_destroy(&manager), 0);
    captured_output output(stdout);
    EXPECT_EQ(zon_timer_create_process(stale), nullptr);
    EXPECT_EQ(output.text(), "zon_timer_create_process: Failed wait\n");
}

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

// machine_clock_test.cpp - a clock of the machine that jumps, in either direction and by years,
// changes nothing.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "endurance/machine_clock.h"
#include "endurance/mixed_days.h"
#include "osal/zon_debug.h"
#include "zon_relaxed.h"

namespace zon_test {
namespace {

using machine_clock::behaviour;

class jumping_clock : public engine_fixture {
protected:
    jumping_clock() {
        parameters.max_flows = mixed_days::capacity;
        parameters.pre_flow_timer = announced_ms;
    }
    void TearDown() override {
        engine_fixture::TearDown();
        machine_clock::behave(behaviour::honest);
    }
};

// The clock is turned by hand: those of the machine are not read at all.
class turned_clock : public jumping_clock {
protected:
    uint64_t history_under(behaviour machine) {
        if (g_zon != nullptr)
            destroy_engine();
        jumping_clock::SetUp();
        machine_clock::behave(machine);
        mixed_days traffic(zon_clock_now_us(), client, 7);
        traffic.run_until(zon_clock_now_us() + day_us, 600 * sec_us);
        EXPECT_GT(traffic.margins().ends, 100U);
        EXPECT_EQ(machine_clock::readings_of_time_of_day(), 0U);
        EXPECT_EQ(machine_clock::readings_of_monotonic(), 0U);
        traffic.run_out();
        // The clock of the process follows the machine's again after the test: by a right reading.
        machine_clock::behave(behaviour::honest);
        return traffic.history();
    }
};

TEST_F(turned_clock, has_the_same_history_whatever_the_machines_clocks_do) {
    const uint64_t expected = history_under(behaviour::honest);
    EXPECT_EQ(history_under(behaviour::all_jump), expected);
}

// The system's clock, which the engine follows unless it is told otherwise: the timer thread sleeps
// by CLOCK_MONOTONIC, which this test turns, and the time of day jumps at every reading.
class followed_clock : public jumping_clock {
protected:
    followed_clock() { parameters.timers = false; }
    void SetUp() override {
        machine_clock::behave(behaviour::monotonic_by_hand);
        jumping_clock::SetUp();
        ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
        ASSERT_TRUE(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                      &g_zon->zon_timer_process_create));
        ASSERT_EQ(zon_client_register_delete_cb(client, told_deleted), zon_error_none);
    }

    // Told by the timer thread. To ask for the flow again and again would keep it locked, and its
    // end would be put off.
    static void told_deleted(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                             zon_client_id_e) {
        ++ended;
    }
    static inline std::atomic<uint32_t> ended;

    // Far longer than a timer thread takes for anything, and never waited for when all is well.
    template <class condition>
    static bool comes_about(condition holds) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!holds() && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        return holds();
    }
    // Looked at the turned clock anew, and found that there is nothing to do.
    static bool timer_thread_sleeps_on() {
        const uint64_t looks = machine_clock::looks_of_sleepers();
        return comes_about([looks] { return machine_clock::looks_of_sleepers() > looks + 1; });
    }

    void live_through_an_idle_time(uint32_t connection) {
        const uint64_t idle_us = opening_ms * ms_us;
        ended = 0;
        const zon_fid_t fid = handle(day_packet::of(traffic::udp, connection)).fid;
        ASSERT_NE(fid, 0U);
        machine_clock::turn_by_us(idle_us - 1000);
        ASSERT_TRUE(timer_thread_sleeps_on());
        ASSERT_EQ(ended, 0U) << "ended early";
        machine_clock::turn_by_us(1000 + 2 * endurance_tick_us);
        ASSERT_TRUE(comes_about([] { return ended == 1; })) << "did not end";
    }
};

TEST_F(followed_clock, keeps_its_deadlines_while_the_time_of_day_jumps) {
    for (uint32_t connection = 0; connection < 50 && !HasFailure(); ++connection)
        live_through_an_idle_time(connection);
    EXPECT_GT(machine_clock::readings_of_monotonic(), 0U);
    EXPECT_EQ(machine_clock::readings_of_time_of_day(), 0U) << "somebody asks for the time of day";
    EXPECT_EQ(machine_clock::waits_by_time_of_day(), 0U) << "somebody sleeps by the time of day";
}

// What people read shows the time of day, and only that.
TEST_F(followed_clock, keeps_its_deadlines_while_traces_show_a_time_of_day_that_jumps) {
    ::testing::internal::CaptureStderr();
    relaxed_store(zon_debug_flag_ager, true);
    for (uint32_t connection = 0; connection < 10 && !HasFailure(); ++connection)
        live_through_an_idle_time(connection);
    relaxed_store(zon_debug_flag_ager, false);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("aged out"), std::string::npos);
    EXPECT_GT(machine_clock::readings_of_time_of_day(), 0U);
    EXPECT_EQ(machine_clock::waits_by_time_of_day(), 0U);
}

}  // namespace
}  // namespace zon_test

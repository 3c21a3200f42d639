// engine_destroy_test.cpp - the engine goes while its timer thread is at work.
#include <atomic>
#include <utility>

#include "support/stress_engine.h"
#include "zon_fid_table.h"

namespace zon_test {
namespace {

constexpr uint64_t sec_us = 1'000'000;
constexpr uint32_t flows = 40;

std::atomic<uint32_t> told;
std::atomic<bool> pause_when_told;
std::atomic<uint32_t> inside;
zon_lock_t kept_lock;  // of a flow that the destroying thread has locked

void count_told(zon_flow_ptr_t fid, void*, void*, void*, zon_flow_deletion_reason_e reason,
                zon_client_id_e) {
    ++inside;
    // The timer thread is slow to come back from a client.
    if (pause_when_told && reason == ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT)
        for (int i = 0; i < 20; ++i)
            std::this_thread::yield();
    // The engine is still whole.
    uint32_t count = 0;
    EXPECT_EQ(zon_flow_get_packet_count(fid, &count), zon_error_none);
    ++told;
    --inside;
    if (reason == ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED && kept_lock != nullptr) {
        EXPECT_EQ(zon_flow_unlock(std::exchange(kept_lock, nullptr)), zon_error_none);
    }
}

class destroyed_engine : public ::testing::TestWithParam<schedule> {
protected:
    void SetUp() override {
        std::printf("seed %u\n", stress_seed);
        told = 0;
        inside = 0;
        ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_MANUAL_WAIT), zon_error_none);
    }
    void TearDown() override { EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none); }

    static void build_engine() {
        ASSERT_EQ(zon_init(100, 0, 10, 2, 0, 16, 10), zon_error_none);
        ASSERT_TRUE(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                      &g_zon->zon_timer_process_create));
        zon_client_id_e client = 0;
        ASSERT_EQ(zon_client_feature_register(&client), zon_error_none);
        ASSERT_EQ(zon_client_register_delete_cb(client, count_told), zon_error_none);
        ASSERT_EQ(zon_client_enable_engine_capability(client, ZON_CAPABILITY_ENABLE_UDP),
                  zon_error_none);
        for (uint32_t number = 0; number < flows; ++number) {
            const zon_fid_t fid = send(connection_packet::udp(number)).fid;
            ASSERT_NE(fid, 0u);
            ASSERT_EQ(zon_flow_set_aging(fid, 1 + number % 3), zon_error_none);
            send(connection_packet::first_fragment(number, static_cast<uint16_t>(number)));
        }
    }
};

TEST_P(destroyed_engine, tells_of_each_flow_once_while_flows_age) {
    constexpr uint32_t rounds = 60;
    stress_crew crew;
    crew.add("clock", [](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            self.meet();
            for (uint32_t i = 0; i < 40; ++i) {
                self.doing("turn the clock");
                zon_clock_advance_us(sec_us / 8);
            }
            self.meet();
        }
    });
    crew.add("host", [](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            told = 0;
            pause_when_told = round % 2 != 0;
            build_engine();
            self.meet();
            for (uint32_t i = 0; i < 4 * (round % 20); ++i)
                std::this_thread::yield();
            self.doing("destroy");
            EXPECT_EQ(zon_destroy(), zon_error_none);
            EXPECT_EQ(g_zon, nullptr);
            EXPECT_EQ(inside, 0u) << "a client's function outlived the engine";
            EXPECT_EQ(told, flows);
            self.meet();
        }
    });
    crew.run(GetParam());
}

// The destroying thread keeps the lock of a flow that is due until the flow goes: the timer thread
// must not wait for it.
TEST_P(destroyed_engine, does_not_wait_for_a_flow_that_its_own_thread_keeps_locked) {
    const watchdog watched(std::chrono::seconds(120), [] {});
    build_engine();
    const zon_flow_tuple_t tuple = tuple_of(3);
    zon_fid_t fid = 0;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &kept_lock),
              zon_error_none);
    std::thread turner([] { zon_clock_advance_us(10 * sec_us); });
    if (GetParam() == schedule::one_thread)
        turner.join();
    EXPECT_EQ(zon_destroy(), zon_error_none);
    if (turner.joinable())
        turner.join();
    EXPECT_EQ(told, flows);
}

// The thread that waits on the runtime and the one that takes it down meet at every point.
TEST_P(destroyed_engine, ends_its_timer_thread_wherever_it_is) {
    constexpr uint32_t rounds = 300;
    stress_crew crew;
    crew.add("host", [](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            ASSERT_EQ(zon_init(10, 0, 5, 1, 0, 4, 4), zon_error_none);
            ASSERT_TRUE(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                          &g_zon->zon_timer_process_create));
            for (uint32_t i = 0; i < self.below(20); ++i)
                std::this_thread::yield();
            self.doing("destroy the timers");
            if (round % 2 != 0)
                zon_timer_tw_destroy(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                     &g_zon->zon_timer_process_create);
            self.doing("destroy the engine");
            EXPECT_EQ(zon_destroy(), zon_error_none);
        }
    });
    crew.add("clock", [](stress_thread& self) {
        for (uint32_t round = 0; round < 10 * rounds; ++round) {
            self.doing("turn the clock");
            zon_clock_advance_us(1000);
        }
    });
    crew.run(GetParam());
}

INSTANTIATE_TEST_SUITE_P(stress, destroyed_engine, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test

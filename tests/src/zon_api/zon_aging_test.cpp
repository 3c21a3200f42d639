// zon_aging_test.cpp - the idle time of a single flow.

#include "api_fixture.h"
#include "osal/zon_timer.h"

using namespace zon_test;

namespace {

class flow_aging : public api_fixture {
protected:
    static uint32_t aging_of(zon_fid_t fid) {
        uint32_t sec = 99;
        EXPECT_EQ(zon_flow_get_aging(fid, &sec), zon_error_none);
        return sec;
    }
};

TEST(flow_aging_without_an_engine, says_so) {
    uint32_t sec = 0;
    EXPECT_EQ(zon_flow_set_aging(1, 1), zon_error_engine_not_init);
    EXPECT_EQ(zon_flow_get_aging(1, &sec), zon_error_engine_not_init);
}

TEST_F(flow_aging, of_no_flow_is_not_found_and_reads_0) {
    for (const zon_fid_t missing : {0u, 1u}) {
        uint32_t sec = 7;
        EXPECT_EQ(zon_flow_set_aging(missing, 1), zon_error_flow_not_found);
        EXPECT_EQ(zon_flow_get_aging(missing, &sec), zon_error_flow_not_found);
        EXPECT_EQ(sec, 0u);
    }
    EXPECT_EQ(zon_flow_get_aging(parameters.max_flows + 1, nullptr), zon_error_parameter_is_null);
}

TEST_F(flow_aging, is_read_as_it_was_set_in_whole_seconds) {
    const zon_fid_t fid = udp_flow(1000);
    EXPECT_EQ(zon_flow_set_aging(fid, 5), zon_error_none);
    EXPECT_EQ(aging_of(fid), 5u);
    record_of(fid)->age_ms = 1999;
    EXPECT_EQ(aging_of(fid), 1u);
    EXPECT_FALSE(is_locked(record_of(fid)));
}

TEST_F(flow_aging, wraps_with_the_milliseconds) {
    const zon_fid_t fid = udp_flow(1000);
    EXPECT_EQ(zon_flow_set_aging(fid, 4294968), zon_error_none);
    EXPECT_EQ(record_of(fid)->age_ms, 704u);
    EXPECT_EQ(aging_of(fid), 0u);
}

TEST_F(flow_aging, of_an_announced_flow_was_never_chosen) {
    EXPECT_EQ(aging_of(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2))), 0u);
}

TEST_F(flow_aging, starts_the_idle_time_anew) {
    const zon_fid_t fid = udp_flow(1000);
    advance_ms(900);
    EXPECT_EQ(zon_flow_set_aging(fid, 60), zon_error_none);
    advance_sec(59);
    EXPECT_NE(record_of(fid), nullptr);
    advance_sec(2);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(flow_aging, of_0_seconds_ends_the_flow_after_1024_ms) {
    const zon_fid_t fid = udp_flow(1000);
    EXPECT_EQ(zon_flow_set_aging(fid, 0), zon_error_none);
    EXPECT_EQ(aging_of(fid), 0u);
    advance_ms(1023);
    EXPECT_NE(record_of(fid), nullptr);
    advance_ms(32);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(flow_aging, forgets_the_packets_seen_before) {
    const zon_fid_t fid = udp_flow(1000);
    handle(udp_packet(1000, 53));
    EXPECT_EQ(record_of(fid)->should_reset_timer, 1);
    EXPECT_EQ(zon_flow_set_aging(fid, 2), zon_error_none);
    EXPECT_EQ(record_of(fid)->should_reset_timer, 0);
    advance_ms(2100);
    EXPECT_EQ(record_of(fid), nullptr);
}

class flow_aging_without_a_wheel : public flow_aging {
protected:
    flow_aging_without_a_wheel() { parameters.timers = false; }
};

TEST_F(flow_aging_without_a_wheel, is_kept_all_the_same) {
    const zon_fid_t fid = udp_flow(1000);
    EXPECT_EQ(zon_flow_set_aging(fid, 5), zon_error_none);
    EXPECT_EQ(aging_of(fid), 5u);
    EXPECT_FALSE(zon_timer_running(&record_of(fid)->timer));
}

}  // namespace

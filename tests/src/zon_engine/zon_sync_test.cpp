// zon_sync_test.cpp - packets of flows that the host reports: its numbers and states count, not the
// tracker's.

#include <gtest/gtest.h>

#include "osal/zon_timer.h"
#include "support/captured_output.h"
#include "support/engine_call.h"
#include "support/engine_fixture.h"
#include "support/flow_reader.h"

namespace {

using namespace zon_test;

packet_builder tcp4() {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80);
}

class reported_packet : public engine_fixture {
protected:
    void SetUp() override {
        engine_fixture::SetUp();
        fid = engine_call(tcp4().flags(tcp_syn)).run();
        flow = record_of(fid);
        ASSERT_NE(flow, nullptr);
    }
    void TearDown() override {
        EXPECT_TRUE(no_lock_is_held());
        zon_set_debug(false);
        engine_fixture::TearDown();
    }
    zon_fid_t fid = 0;
    zon_flow_t* flow = nullptr;
};

TEST_F(reported_packet, brings_number_and_state_with_it_and_is_not_tracked) {
    engine_call call(tcp4().reversed().flags(tcp_ack).payload(10));
    EXPECT_EQ(call.report(fid, ZON_L4_BI_ESTABLISHED, 17), fid);
    EXPECT_EQ(flow->packet_number, 17U);
    EXPECT_EQ(flow->l4state.sess_state, ZON_L4_BI_ESTABLISHED);
    EXPECT_EQ(flow->l4state.tcp_state, ZON_TCP_SYNSENT) << "the tracker is not asked";
    EXPECT_EQ(call.seen.flow, fid);
    EXPECT_EQ(call.seen.flow_pkt_count, 17U);
    EXPECT_EQ(call.seen.fif, 0);
    EXPECT_EQ(call.seen.is_initiator, 0);
    EXPECT_EQ(call.seen.l4_error, ZON_L4_NOERR);
    EXPECT_EQ(call.seen.l4_payload_size, 10U);
    EXPECT_EQ(call.seen.l7_flow_bytes, 10U);
    EXPECT_EQ(call.error, zon_error_none);
    EXPECT_TRUE(flow->should_reset_timer);
}

TEST_F(reported_packet, counts_its_payload_once_however_often_it_is_reported) {
    for (int repeat = 0; repeat < 3; ++repeat) {
        engine_call call(tcp4().flags(tcp_ack).payload(10));
        call.report(fid, ZON_L4_BI_ESTABLISHED, 2);
        EXPECT_EQ(call.seen.l7_flow_bytes, 10U);
    }
    engine_call next(tcp4().flags(tcp_ack).payload(5));
    next.report(fid, ZON_L4_BI_ESTABLISHED, 3);
    EXPECT_EQ(next.seen.l7_flow_bytes, 15U);
}

TEST_F(reported_packet, has_the_first_payload_while_none_is_noted_and_notes_none_itself) {
    for (uint32_t number = 2; number <= 3; ++number) {
        engine_call call(tcp4().flags(tcp_ack).payload(10));
        call.report(fid, ZON_L4_BI_ESTABLISHED, number);
        EXPECT_EQ(call.seen.first_payload, 1) << "packet " << number;
    }
    EXPECT_EQ(flow->first_payload_seen_on_pkt_num, 0U);
    flow->first_payload_seen_on_pkt_num = 5;
    engine_call other(tcp4().flags(tcp_ack).payload(10));
    other.report(fid, ZON_L4_BI_ESTABLISHED, 4);
    EXPECT_EQ(other.seen.first_payload, 0);
    engine_call same(tcp4().flags(tcp_ack).payload(10));
    same.report(fid, ZON_L4_BI_ESTABLISHED, 5);
    EXPECT_EQ(same.seen.first_payload, 1);
    engine_call empty(tcp4().flags(tcp_ack));
    empty.report(fid, ZON_L4_BI_ESTABLISHED, 5);
    EXPECT_EQ(empty.seen.first_payload, 0);
}

TEST_F(reported_packet, of_number_one_is_a_first_packet_and_starts_the_timer) {
    zon_timer_stop(&flow->timer);
    flow->age_ms = 0;
    engine_call call(tcp4().flags(tcp_syn));
    call.report(fid, ZON_L4_BI_ESTABLISHED, 1);
    EXPECT_EQ(call.seen.fif, 1);
    EXPECT_EQ(flow->age_ms, 30000U) << "by the reported state";
    EXPECT_TRUE(zon_timer_running(&flow->timer));
    EXPECT_FALSE(flow->should_reset_timer);
}

TEST_F(reported_packet, of_a_closed_flow_is_its_last) {
    engine_call call(tcp4().flags(tcp_rst));
    call.report(fid, ZON_L4_CLOSED, 9);
    EXPECT_EQ(call.seen.lif, 1);
    EXPECT_EQ(call.error, zon_error_none);
    EXPECT_FALSE(flow->should_reset_timer);
}

TEST_F(reported_packet, of_a_closing_flow_leaves_the_error_as_it_was) {
    engine_call call(tcp4());
    call.report(fid, ZON_L4_CLOSING, 9);
    EXPECT_EQ(call.error, untouched_error);
    EXPECT_EQ(call.seen.lif, 0);
}

TEST_F(reported_packet, of_a_flow_that_is_not_there_sets_nothing) {
    engine_call call(tcp4());
    EXPECT_EQ(call.report(fid + 1, ZON_L4_BI_ESTABLISHED, 1), 0U);
    EXPECT_EQ(call.error, untouched_error);
    EXPECT_EQ(call.seen.fif, 0);
    EXPECT_EQ(call.seen.flow_pkt_count, 0U);
}

TEST_F(reported_packet, is_matched_to_its_flow_by_the_report_and_not_by_its_key) {
    engine_call call(packet_builder::ipv4("203.0.113.1", "203.0.113.2").udp(1, 2));
    EXPECT_EQ(call.report(fid, ZON_L4_BI_ESTABLISHED, 2), fid);
    EXPECT_EQ(flows_in_use(), 1U);
    EXPECT_EQ(call.seen.is_initiator, 0);
    engine_call same_source(packet_builder::ipv4("10.0.0.1", "203.0.113.2").udp(1, 2));
    same_source.report(fid, ZON_L4_BI_ESTABLISHED, 3);
    EXPECT_EQ(same_source.seen.is_initiator, 1);
}

TEST_F(reported_packet, of_the_other_family_is_judged_by_the_flows_family) {
    engine_call call(packet_builder::ipv6("2001:db8::1", "2001:db8::2").udp(1, 2).payload(4));
    EXPECT_EQ(call.report(fid, ZON_L4_BI_ESTABLISHED, 2), fid);
    EXPECT_EQ(call.seen.l4_payload_size, 4U);
    const zon_fid_t fid6 =
        engine_call(packet_builder::ipv6("2001:db8::1", "2001:db8::2").udp(1, 2)).run();
    engine_call other(tcp4());
    EXPECT_EQ(other.report(fid6, ZON_L4_UNI_ESTABLISHED, 2), fid6);
    EXPECT_EQ(other.seen.is_initiator, 0);
}

TEST_F(reported_packet, traces_no_change_of_state) {
    zon_set_debug(true);
    captured_output trace(stderr);
    engine_call call(tcp4());
    call.report(fid, ZON_L4_BI_ESTABLISHED, 2);
    EXPECT_EQ(trace.text(), "");
}

int bypass_calls = 0;
void count_bypass(uint32_t, bool, bool, bool, uint32_t*) {
    ++bypass_calls;
}

TEST_F(reported_packet, is_shown_to_bypassing_clients) {
    bypass_calls = 0;
    ASSERT_EQ(zon_client_register_bypass_cb(client, count_bypass), zon_error_none);
    enable(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS);
    engine_call call(tcp4());
    call.report(fid, ZON_L4_BI_ESTABLISHED, 2);
    EXPECT_EQ(bypass_calls, 1);
}

class reported_packet_DeathTest : public reported_packet {
protected:
    reported_packet_DeathTest() { parameters.timers = false; }
};

TEST_F(reported_packet_DeathTest, with_an_identifier_above_the_capacity_stops_the_program) {
    engine_call call(tcp4());
    EXPECT_DEATH(call.report(parameters.max_flows + 1, ZON_L4_BI_ESTABLISHED, 2),
                 "Assertion `fid_is_valid\\(fid_table, fid\\)' failed");
}

TEST_F(reported_packet_DeathTest, of_a_flow_with_an_unknown_key_stops_the_program) {
    engine_call call(tcp4());
    flow->initiator_flow->key.key_type = ZON_MAX_KEY;
    EXPECT_DEATH(call.report(fid, ZON_L4_BI_ESTABLISHED, 2),
                 "Assertion `flow->initiator_flow->key.key_type <= ZON_IPV6_LAST_KEY' failed");
    flow->initiator_flow->key.key_type = ZON_IPV4_KEY_COMPLETE;
}

}  // namespace

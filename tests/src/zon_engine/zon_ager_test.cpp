// zon_ager_test.cpp - idle flows are deleted, busy ones live on, and what is said when a timer
// finds nothing.

#include <gtest/gtest.h>

#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "osal/zon_timer.h"
#include "support/captured_output.h"
#include "support/engine_call.h"
#include "support/engine_fixture.h"
#include "support/flow_reader.h"
#include "support/noted_deletions.h"

namespace {

using namespace zon_test;

packet_builder udp_from(uint16_t port) {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(port, 53);
}

class ager : public engine_fixture {
protected:
    void SetUp() override {
        engine_fixture::SetUp();
        noted_deletions.clear();
        ASSERT_EQ(zon_client_register_delete_cb(client, note_deletion), zon_error_none);
    }
    void TearDown() override {
        zon_debug_flag_ager = zon_debug_flag_all = false;
        EXPECT_TRUE(no_lock_is_held());
        engine_fixture::TearDown();
    }
    // The handler as the wheel would call it.
    static void expire(zon_flow_t* flow) {
        zon_timer_handle_flow_idle_timeout_full(g_zon->zon_tw, &flow->timer, &flow->fid);
    }
    static constexpr auto timed_out = ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT;
};

TEST_F(ager, deletes_a_flow_after_one_idle_period_and_counts_it) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    advance_ms(4900);
    EXPECT_TRUE(noted_deletions.empty());
    advance_ms(200);
    EXPECT_EQ(noted_deletions, (std::vector<noted_deletion>{{fid, timed_out}}));
    EXPECT_EQ(g_zon->flow_tbl->profile_passively_aged, 1U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0U);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(ager, keeps_a_flow_that_goes_on_receiving_packets) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    for (int second = 0; second < 60; second += 4) {
        advance_sec(4);
        EXPECT_EQ(handle(udp_from(1)).fid, fid) << "after " << second << " s";
    }
    EXPECT_TRUE(noted_deletions.empty());
    // The last packet came 4 s into a period: that period ends, and one more.
    advance_sec(11);
    EXPECT_EQ(noted_deletions, (std::vector<noted_deletion>{{fid, timed_out}}));
}

TEST_F(ager, grants_one_more_whole_period_from_the_expiry_and_not_from_the_packet) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    advance_sec(1);
    handle(udp_from(1));
    advance_ms(8800);  // 9.8 s: the first expiry at 5 s armed anew
    EXPECT_NE(record_of(fid), nullptr);
    EXPECT_FALSE(record_of(fid)->should_reset_timer);
    advance_ms(400);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(ager, arms_anew_with_the_idle_time_that_the_flow_has_then) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    handle(udp_from(1));
    record_of(fid)->age_ms = 20000;
    advance_sec(24);
    EXPECT_NE(record_of(fid), nullptr);
    advance_sec(2);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(ager, takes_0_for_1024_ms) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    ASSERT_EQ(zon_flow_set_aging(fid, 0), zon_error_none);
    advance_ms(1020);
    EXPECT_NE(record_of(fid), nullptr);
    advance_ms(60);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(ager, takes_0_for_1024_ms_when_it_arms_anew_too) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    record_of(fid)->age_ms = 0;
    record_of(fid)->should_reset_timer = 1;
    expire(record_of(fid));
    EXPECT_FALSE(record_of(fid)->should_reset_timer);
    advance_ms(1020);
    EXPECT_NE(record_of(fid), nullptr);
    advance_ms(60);
    EXPECT_EQ(record_of(fid), nullptr);
}

class ager_without_a_time_for_announcements : public ager {
protected:
    ager_without_a_time_for_announcements() { parameters.pre_flow_timer = 0; }
};

TEST_F(ager_without_a_time_for_announcements, deletes_an_announced_flow_after_about_a_second) {
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = ZON_IP_ADDR_IPV4;
    zon_fid_t fid = 0;
    ASSERT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, nullptr),
              zon_error_none);
    advance_ms(1000);
    EXPECT_NE(record_of(fid), nullptr);
    advance_ms(100);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(ager, traces_what_it_deleted_with_its_switch) {
    for (bool* flag : {&zon_debug_flag_ager, &zon_debug_flag_all}) {
        const zon_fid_t fid = handle(udp_from(1)).fid;
        *flag = true;
        captured_output trace(stderr);
        advance_sec(6);
        *flag = false;
        EXPECT_NE(trace.text().find("\nZON Ager: aged out flow " + std::to_string(fid) + "\n"),
                  std::string::npos)
            << trace.text();
    }
    handle(udp_from(1));
    captured_output trace(stderr);
    advance_sec(6);
    EXPECT_EQ(trace.text(), "");
}

TEST_F(ager, says_no_flow_context_for_a_flow_that_has_left_and_stops_its_timer) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    zon_flow_t* flow = record_of(fid);
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    zon_timer_flow_start(&g_zon->zon_tw, &flow->timer, 1000, &flow->fid);  // a timer nobody stopped
    captured_output out(stdout);
    advance_sec(2);
    EXPECT_EQ(out.text(), "no flow context\n");
    EXPECT_FALSE(zon_timer_running(&flow->timer));
    EXPECT_EQ(noted_deletions.size(), 1U);
}

TEST_F(ager, says_no_flow_context_for_the_identifier_0) {
    zon_fid_t none = 0;
    zon_tw_timer_t timer{};
    zon_timer_flow_start(&g_zon->zon_tw, &timer, 1000, &none);
    captured_output out(stdout);
    advance_sec(2);
    EXPECT_EQ(out.text(), "no flow context\n");
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_F(ager, says_nothing_when_flows_age_or_live_on) {
    captured_output out(stdout);
    handle(udp_from(1));
    handle(udp_from(1));
    advance_sec(20);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(noted_deletions.size(), 1U);
}

TEST_F(ager, takes_a_flow_that_was_marked_by_hand_for_aged_although_it_stays) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    zon_flow_t* flow = record_of(fid);
    zon_inst_mark_flow_for_delete(flow);
    zon_debug_flag_ager = true;
    captured_output trace(stderr);
    advance_sec(60);
    EXPECT_EQ(trace.text().find("aged out flow"), trace.text().rfind("aged out flow"))
        << "once: it is not armed anew";
    EXPECT_NE(trace.text().find("aged out flow"), std::string::npos);
    EXPECT_EQ(record_of(fid), flow);
    EXPECT_FALSE(zon_timer_running(&flow->timer));
    EXPECT_TRUE(noted_deletions.empty());
    flow->marked_for_delete = 0;
}

TEST_F(ager, comes_back_for_a_flow_that_a_client_keeps_locked) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    zon_flow_t* flow = record_of(fid);
    std::barrier<> meet(2);
    std::thread keeper([flow, &meet] {
        zon_lock_internal(flow->flow_lock);
        meet.arrive_and_wait();  // the flow is locked
        meet.arrive_and_wait();  // its time has run out
        zon_unlock_internal(flow->flow_lock);
    });
    meet.arrive_and_wait();
    advance_sec(6);
    EXPECT_EQ(record_of(fid), flow);
    EXPECT_TRUE(noted_deletions.empty());
    EXPECT_TRUE(zon_timer_running(&flow->timer));
    meet.arrive_and_wait();
    keeper.join();
    advance_ms(100);
    EXPECT_EQ(noted_deletions, (std::vector<noted_deletion>{{fid, timed_out}}));
}

TEST_F(ager, may_be_called_by_hand_for_an_idle_flow) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    expire(record_of(fid));
    EXPECT_EQ(noted_deletions, (std::vector<noted_deletion>{{fid, timed_out}}));
}

TEST_F(ager, may_be_called_by_hand_with_an_identifier_and_a_timer_of_the_callers_own) {
    for (const bool has_timer : {true, false}) {
        noted_deletions.clear();
        zon_fid_t fid = handle(udp_from(1)).fid;
        vem_tw_timer timer{};
        zon_timer_handle_flow_idle_timeout_full(nullptr, has_timer ? &timer : nullptr, &fid);
        EXPECT_EQ(noted_deletions, (std::vector<noted_deletion>{{fid, timed_out}}));
    }
}

// ---- timers that are started, stopped and missing ----

TEST_F(ager, forgets_a_timer_that_was_stopped) {
    const zon_fid_t fid = handle(udp_from(1)).fid;
    zon_private_stop_timer(record_of(fid));
    advance_sec(60);
    EXPECT_NE(record_of(fid), nullptr);
}

class ager_without_a_wheel : public ager {
protected:
    ager_without_a_wheel() { parameters.timers = false; }
};

TEST_F(ager_without_a_wheel, starts_nothing_and_says_nothing) {
    captured_output out(stdout);
    const zon_fid_t fid = handle(udp_from(1)).fid;
    EXPECT_FALSE(zon_timer_running(&record_of(fid)->timer));
    EXPECT_EQ(record_of(fid)->age_ms, 5000U);
    EXPECT_EQ(zon_flow_set_aging(fid, 3), zon_error_none);
    EXPECT_EQ(record_of(fid)->age_ms, 3000U);
    advance_sec(60);
    EXPECT_NE(record_of(fid), nullptr);
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(out.text(), "");
}

// ---- what a callback does while a flow ages ----

void make_a_flow(zon_flow_ptr_t fid, void*, void*, void*, zon_flow_deletion_reason_e reason,
                 zon_client_id_e) {
    noted_deletions.push_back({fid, reason});
    if (noted_deletions.size() == 1)
        engine_call(udp_from(999)).run();
}

TEST_F(ager, lets_a_delete_callback_create_flows) {
    ASSERT_EQ(zon_client_register_delete_cb(client, make_a_flow), zon_error_none);
    handle(udp_from(1));
    advance_sec(6);
    EXPECT_EQ(noted_deletions.size(), 1U);
    EXPECT_EQ(flows_in_use(), 1U);
    advance_sec(6);
    EXPECT_EQ(noted_deletions.size(), 2U);
}

// ---- fragments ----

TEST_F(ager, says_that_a_fragment_is_null_for_a_timer_without_context) {
    zon_tw_timer_t timer{};
    captured_output out(stdout);
    zon_timer_handle_frag_flow_idle_timeout_full(g_zon->zon_tw, &timer, nullptr);
    EXPECT_EQ(out.text(), "Frag Ager: fragment item is null\n");
}

TEST_F(ager, ages_a_fragment_entry_out_and_leaves_the_flow_to_its_own_timer) {
    const bytes datagram = udp_from(1).payload(100).build();
    const std::vector<bytes> fragments = fragments_of(datagram, 40);
    const zon_fid_t fid = handle(fragments[0]).fid;
    ASSERT_NE(fid, 0U);
    ASSERT_EQ(zon_flow_set_aging(fid, 3600), zon_error_none);
    EXPECT_EQ(handle(fragments[1]).fid, fid);
    advance_ms(29900);
    EXPECT_EQ(handle(fragments[1]).fid, fid);
    zon_debug_flag_ager = true;
    captured_output trace(stderr);
    advance_ms(200);
    zon_debug_flag_ager = false;
    EXPECT_NE(
        trace.text().find("\nZON Ager: fragment with fid=[" + std::to_string(fid) + "] aged out\n"),
        std::string::npos)
        << trace.text();
    EXPECT_EQ(handle(fragments[1]).fid, 0U);
    EXPECT_NE(record_of(fid), nullptr);
}

}  // namespace

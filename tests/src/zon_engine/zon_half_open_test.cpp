// zon_half_open_test.cpp - the share of the table that half-open flows may hold: which flows count,
// which of them gives way, and that the count follows them to their end.

#include "zon_engine/zon_half_open.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/engine_call.h"
#include "support/half_open_host.h"

namespace {

using namespace zon_test;

// ---- the setting ----

struct bound_row {
    const char* name;
    uint32_t max_flows;
    uint32_t percent;
    uint32_t bound;
};
class half_open_bound : public ::testing::TestWithParam<bound_row> {
protected:
    void TearDown() override { zon_half_open_bound(0, 0); }
};
TEST_P(half_open_bound, is_a_share_of_all_flows) {
    zon_half_open_bound(GetParam().max_flows, GetParam().percent);
    EXPECT_EQ(zon_half_open.bound, GetParam().bound);
    EXPECT_EQ(zon_half_open_is_bounded(), GetParam().percent != 0);
}
INSTANTIATE_TEST_SUITE_P(rows, half_open_bound,
                         ::testing::Values(bound_row{"none", 1000, 0, 0},
                                           bound_row{"a_tenth", 1000, 10, 100},
                                           bound_row{"all", 1000, 100, 1000},
                                           bound_row{"rounded_down", 99, 50, 49},
                                           bound_row{"one_at_least", 5, 1, 1},
                                           bound_row{"of_many", 0xffffffff, 100, 0xffffffff}),
                         [](const auto& row) { return row.param.name; });

class half_open_share : public half_open_host {};

TEST_F(half_open_share, is_refused_above_100_percent) {
    EXPECT_EQ(zon_config_set_half_open_share(40), zon_error_none);
    for (const uint32_t percent : {101U, 0x80000000U, 0xffffffffU})
        EXPECT_EQ(zon_config_set_half_open_share(percent), zon_error_parameter_invalid);
    EXPECT_EQ(zon_half_open_share_of_next_engine, 40U) << "it stays as it was";
    EXPECT_EQ(zon_config_set_half_open_share(100), zon_error_none);
}

TEST_F(half_open_share, comes_into_force_with_the_next_engine) {
    ASSERT_EQ(zon_config_set_half_open_share(10), zon_error_none);
    const zon_fid_t fid = syn(1).fid;
    EXPECT_EQ(record_of(fid)->private_half_open, 0U);
    EXPECT_FALSE(zon_half_open_is_bounded());
    EXPECT_TRUE(zon_restart());
    EXPECT_EQ(zon_half_open.bound, parameters.max_flows / 10);
    EXPECT_EQ(zon_config_set_half_open_share(0), zon_error_none);
    EXPECT_TRUE(zon_half_open_is_bounded());
    EXPECT_TRUE(zon_restart());
    EXPECT_FALSE(zon_half_open_is_bounded());
}

class unbounded_engine : public half_open_host {
protected:
    unbounded_engine() { parameters.max_flows = 5; }
};
TEST_F(unbounded_engine, marks_nothing_and_refuses_when_it_is_full) {
    for (uint32_t number = 1; number <= 5; ++number)
        EXPECT_NE(syn(number).fid, 0U);
    EXPECT_EQ(syn(6).error, zon_error_memory);
    EXPECT_EQ(zon_half_open.count, 0U);
    EXPECT_EQ(zon_half_open.newest, 0U);
    for (zon_fid_t fid = 1; fid <= 5; ++fid)
        EXPECT_EQ(record_of(fid)->private_half_open, 0U);
    EXPECT_TRUE(told.empty());
}

// ---- which flows are half-open ----

struct step_of_flow {
    bool back;  // from the responder
    uint8_t flags;
};
struct flow_row {
    const char* name;
    bool tcp;
    bool half_open;
    std::vector<step_of_flow> packets;
};
void PrintTo(const flow_row& row, std::ostream* out) {
    *out << row.name;
}

class packets_of_a_flow : public half_open_host, public ::testing::WithParamInterface<flow_row> {
protected:
    packets_of_a_flow() { share = 10; }
    void expect_state_after(const packet_builder& first) {
        zon_fid_t fid = 0;
        for (const step_of_flow& step : GetParam().packets) {
            packet_builder packet = step.back ? first.reversed() : first;
            if (GetParam().tcp)
                packet.flags(step.flags);
            fid = handle(packet).fid;
        }
        ASSERT_NE(fid, 0U);
        EXPECT_EQ(record_of(fid)->private_half_open != 0, GetParam().half_open);
        EXPECT_EQ(zon_half_open.count, GetParam().half_open ? 1U : 0U);
        EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        EXPECT_EQ(zon_half_open.count, 0U);
    }
};
TEST_P(packets_of_a_flow, decide_whether_it_is_half_open) {
    const auto ipv4 = packet_builder::ipv4("10.0.0.1", "10.0.0.2");
    const auto ipv6 = packet_builder::ipv6("2001:db8::1", "2001:db8::2");
    for (packet_builder network : {ipv4, ipv6})
        expect_state_after(GetParam().tcp ? network.tcp(4000, 80) : network.udp(4000, 53));
}

constexpr step_of_flow syn_step{false, tcp_syn};
constexpr step_of_flow syn_ack_step{true, tcp_syn | tcp_ack};
constexpr step_of_flow ack_step{false, tcp_ack};
constexpr step_of_flow udp_step{false, 0};
constexpr step_of_flow udp_reply{true, 0};
INSTANTIATE_TEST_SUITE_P(
    rows, packets_of_a_flow,
    ::testing::Values(
        flow_row{"udp", false, true, {udp_step}},
        flow_row{"udp_one_way", false, true, {udp_step, udp_step, udp_step}},
        flow_row{"udp_answered", false, false, {udp_step, udp_reply}},
        flow_row{"udp_answered_and_on", false, false, {udp_step, udp_reply, udp_step}},
        flow_row{"syn", true, true, {syn_step}},
        flow_row{"syn_again", true, true, {syn_step, syn_step}},
        flow_row{"syn_ack", true, true, {syn_step, syn_ack_step}},
        flow_row{"handshake", true, false, {syn_step, syn_ack_step, ack_step}},
        flow_row{"handshake_with_fin",
                 true,
                 false,
                 {syn_step, syn_ack_step, {false, tcp_fin | tcp_ack}}},
        flow_row{"port_closed", true, true, {syn_step, {true, tcp_rst | tcp_ack}}},
        flow_row{"reset_for_ack", true, true, {ack_step, {true, tcp_rst}}},
        flow_row{"client_gives_up", true, true, {syn_step, syn_ack_step, {false, tcp_rst}}},
        flow_row{
            "server_closes_first", true, true, {syn_step, syn_ack_step, {true, tcp_fin | tcp_ack}}},
        flow_row{"server_closes_first_acknowledged",
                 true,
                 false,
                 {syn_step, syn_ack_step, {true, tcp_fin | tcp_ack}, ack_step}},
        flow_row{"challenged_before_it_is_complete",
                 true,
                 true,
                 {syn_step, syn_ack_step, {true, tcp_ack}}},
        flow_row{"seen_from_the_middle_one_way", true, true, {ack_step, ack_step}},
        flow_row{"seen_from_the_middle", true, false, {ack_step, {true, tcp_ack}}},
        flow_row{"reset_later", true, false, {syn_step, syn_ack_step, ack_step, {true, tcp_rst}}}),
    [](const auto& row) { return row.param.name; });

class counted_engine : public half_open_host {
protected:
    counted_engine() { share = 10; }
};

TEST_F(counted_engine, takes_the_platforms_word_for_an_established_session) {
    const auto first = packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(4000, 80).flags(tcp_syn);
    engine_call call(first);
    const zon_fid_t fid = call.run();
    engine_call again(first);
    EXPECT_EQ(again.report(fid, ZON_L4_UNI_ESTABLISHED, 2), fid);
    EXPECT_EQ(zon_half_open.count, 1U);
    engine_call established(first);
    EXPECT_EQ(established.report(fid, ZON_L4_BI_ESTABLISHED, 3), fid);
    EXPECT_EQ(zon_half_open.count, 0U);
}

TEST_F(counted_engine, takes_a_clients_word_for_a_session_of_both_sides) {
    for (const auto state : {ZON_L4_CLOSED, ZON_L4_OPENING, ZON_L4_UNI_ESTABLISHED,
                             ZON_L4_UNI_ESTABLISHED_INCORRECT}) {
        EXPECT_EQ(zon_flow_set_l4_state(syn(1).fid, state), zon_error_none);
        EXPECT_EQ(zon_half_open.count, 1U) << state;
    }
    uint32_t number = 1;
    for (const auto state :
         {ZON_L4_BI_ESTABLISHED, ZON_L4_BI_ESTABLISHED_INCORRECT, ZON_L4_CLOSING}) {
        EXPECT_EQ(zon_flow_set_l4_state(syn(number++).fid, state), zon_error_none);
        EXPECT_EQ(zon_half_open.count, 0U) << state;
    }
    for (uint32_t more = 100; more < 300; ++more)
        syn(more);
    for (const told_deletion& gone : told)
        EXPECT_GT(gone.fid, 3U) << "a declared session gave way";
    EXPECT_FALSE(told.empty());
}

TEST_F(counted_engine, takes_a_flow_of_another_protocol_for_answered_by_its_reply) {
    auto echo = packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp();
    const zon_fid_t fid = engine_call(echo).run();
    EXPECT_NE(fid, 0U);
    EXPECT_EQ(zon_half_open.count, 1U);
    EXPECT_EQ(engine_call(echo.reversed()).run(), fid);
    EXPECT_EQ(zon_half_open.count, 0U);
}

// ---- announced flows ----

TEST_F(counted_engine, neither_counts_announced_flows_nor_replaces_them) {
    std::vector<zon_fid_t> announced;
    for (uint16_t port = 1; port <= 40; ++port)
        announced.push_back(announce("10.1.0.2", port));
    EXPECT_EQ(zon_half_open.count, 0U);
    const packet_result promoted =
        handle(packet_builder::ipv4("10.1.0.1", "10.1.0.2").tcp(9000, 1).flags(tcp_syn));
    EXPECT_EQ(promoted.fid, announced.front());
    EXPECT_EQ(promoted.indications.was_promoted, 1);
    EXPECT_EQ(zon_half_open.count, 0U);
    for (uint32_t number = 0; number < 500; ++number)
        EXPECT_NE(syn(number).fid, 0U);
    EXPECT_EQ(zon_half_open.count, zon_half_open.bound);
    for (const zon_fid_t fid : announced)
        EXPECT_EQ(times_told(fid), 0U);
    EXPECT_EQ(told.size(), (500 - zon_half_open.bound) * clients);
}

// ---- floods ----

class flooded_engine : public half_open_host, public ::testing::WithParamInterface<bool> {
protected:
    flooded_engine() { share = 10; }
    static bool is_ipv6() { return GetParam(); }
};

TEST_P(flooded_engine, keeps_established_flows_and_admits_new_ones) {
    std::vector<zon_fid_t> established;
    for (uint32_t number = 0; number < 60; ++number)
        established.push_back(shake_hands(number, is_ipv6()));
    for (uint32_t number = 100; number < 1100; ++number) {
        EXPECT_NE(syn(number, is_ipv6()).fid, 0U);
        if (number % 20 == 0)
            established.push_back(shake_hands(number + 10000, is_ipv6()));
    }
    EXPECT_EQ(zon_half_open.count, zon_half_open.bound);
    EXPECT_EQ(flows_in_use(), established.size() + zon_half_open.bound);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0U);
    for (const zon_fid_t fid : established) {
        ASSERT_NE(record_of(fid), nullptr);
        EXPECT_EQ(record_of(fid)->l4state.tcp_state, ZON_TCP_ESTAB);
        EXPECT_EQ(record_of(fid)->packet_number, 3U);
    }
    const size_t replaced = 1000 - zon_half_open.bound;
    EXPECT_EQ(told.size(), replaced * clients);
    for (const told_deletion& one : told)
        EXPECT_EQ(one.reason, ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE);
}

TEST_P(flooded_engine, tells_each_client_once_of_each_flow) {
    std::vector<zon_fid_t> made;
    for (uint32_t number = 0; number < 300; ++number)
        made.push_back(datagram(number, is_ipv6()).fid);
    for (const size_t client_told : {0U, 1U}) {
        std::vector<size_t> deletions(parameters.max_flows + 1);
        for (const told_deletion& one : told)
            deletions[one.fid] += one.client == both[client_told] ? 1U : 0U;
        std::vector<size_t> creations(parameters.max_flows + 1);
        for (const zon_fid_t fid : made)
            ++creations[fid];
        for (zon_fid_t fid = 1; fid <= parameters.max_flows; ++fid)
            EXPECT_EQ(deletions[fid] + (record_of(fid) != nullptr ? 1 : 0), creations[fid]) << fid;
    }
}
INSTANTIATE_TEST_SUITE_P(families, flooded_engine, ::testing::Bool(),
                         [](const auto& row) { return row.param ? "ipv6" : "ipv4"; });

// ---- a table that is full ----

class full_of_flows : public half_open_host {
protected:
    full_of_flows() {
        share = 50;
        parameters.max_flows = 10;
    }
};

TEST_F(full_of_flows, replaces_none_that_is_established) {
    for (uint32_t number = 1; number <= 10; ++number)
        EXPECT_NE(shake_hands(number), 0U);
    const packet_result refused = syn(11);
    EXPECT_EQ(refused.fid, 0U);
    EXPECT_EQ(refused.error, zon_error_memory);
    EXPECT_EQ(refused.indications.fif, 0);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 1U);
    EXPECT_EQ(flows_in_use(), 10U);
    EXPECT_TRUE(told.empty());
}

TEST_F(full_of_flows, replaces_a_half_open_one_though_the_share_is_not_used_up) {
    for (uint32_t number = 1; number <= 8; ++number)
        EXPECT_NE(shake_hands(number), 0U);
    const zon_fid_t oldest = syn(9).fid;
    const zon_fid_t newer = syn(10).fid;
    EXPECT_NE(syn(11).fid, 0U);
    EXPECT_EQ(times_told(oldest), 1U);
    EXPECT_EQ(times_told(newer), 0U);
    EXPECT_EQ(zon_half_open.count, 2U);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0U);
}

// ---- ends ----

TEST_F(counted_engine, counts_a_flow_out_however_it_ends) {
    EXPECT_TRUE(zon_delete_flow_tamonet(syn(1).fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    EXPECT_EQ(zon_half_open.count, 0U);
    zon_flow_t* locked = zon_get_flow(syn(2).fid);
    EXPECT_TRUE(zon_private_delete_locked_flow(locked, ZON_FLOW_CLOSE_REASON_END_OF_FLOW));
    EXPECT_EQ(zon_half_open.count, 0U);
    const zon_fid_t idle = syn(3).fid;
    EXPECT_EQ(zon_half_open.count, 1U);
    advance_sec(60);
    EXPECT_EQ(record_of(idle), nullptr);
    EXPECT_EQ(zon_half_open.count, 0U);
    const zon_fid_t reset = syn(4).fid;
    EXPECT_EQ(handle(connection(4).reversed().flags(tcp_rst | tcp_ack)).fid, reset);
    EXPECT_EQ(zon_half_open.count, 1U);
    advance_sec(60);
    EXPECT_EQ(zon_half_open.count, 0U);
    shake_hands(5);
    EXPECT_EQ(zon_half_open.count, 0U);
    delete_all_flows();
    EXPECT_EQ(zon_half_open.count, 0U);
}

TEST_F(counted_engine, counts_its_flows_out_when_it_is_destroyed) {
    for (uint32_t number = 0; number < 15; ++number)
        syn(number);
    EXPECT_EQ(zon_half_open.count, 15U);
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(zon_half_open.count, 0U);
    EXPECT_EQ(told.size(), 15 * clients);
}

TEST_F(counted_engine, keeps_its_share_and_counts_anew_after_a_restart) {
    for (uint32_t number = 0; number < 15; ++number)
        syn(number);
    ASSERT_TRUE(zon_restart());
    EXPECT_EQ(zon_half_open.bound, parameters.max_flows / 10);
    EXPECT_EQ(zon_half_open.count, 0U);
    EXPECT_NE(syn(1).fid, 0U);
    EXPECT_EQ(zon_half_open.count, 1U);
}

TEST_F(counted_engine, does_not_count_a_flow_that_could_not_be_made) {
    usage_may_drift = true;
    parameters.max_mem_buffer_init = 0;
    ASSERT_EQ(zon_init(20, 1000, 10, 10, 0, 1, 0), zon_error_none);
    for (const int made_before : {0, 1}) {
        const failing_record_memory fault(made_before);
        EXPECT_EQ(engine_call(connection(1)).run(), 0U);
        EXPECT_TRUE(fault.has_failed());
        EXPECT_EQ(zon_half_open.count, 0U);
    }
    ASSERT_EQ(zon_init(20, 1000, 10, 10, /* max_bucket_depth */ 1, 16, 10), zon_error_none);
    uint32_t made = 0;
    for (uint32_t number = 0; number < 200; ++number)
        made += engine_call(connection(number)).run() != 0 ? 1U : 0U;
    EXPECT_LT(made, 200U) << "some bucket was full";
    uint32_t marked = 0;
    for (zon_fid_t fid = 1; fid <= 20; ++fid)
        marked += record_of(fid) != nullptr && record_of(fid)->private_half_open != 0 ? 1U : 0U;
    EXPECT_EQ(zon_half_open.count, marked);
    EXPECT_LE(marked, zon_half_open.bound);
}

TEST_F(counted_engine, keeps_the_mark_of_a_flow_that_is_given_another_key) {
    const zon_fid_t fid = syn(1).fid;
    EXPECT_EQ(zon_flow_update_vrf(fid, 7), 0);
    zon_flow_unlock(record_of(fid)->flow_lock);  // it leaves one level with its caller
    EXPECT_EQ(zon_half_open.count, 1U);
    EXPECT_EQ(handle(connection(1).reversed().flags(tcp_syn | tcp_ack), 7).fid, fid);
    EXPECT_EQ(handle(connection(1).flags(tcp_ack), 7).fid, fid);
    EXPECT_EQ(zon_half_open.count, 0U);
}

}  // namespace

// zon_flow_creation_test.cpp - every way in which a packet is refused a flow, and that nothing is
// left of the attempt.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/captured_output.h"
#include "support/engine_call.h"
#include "support/engine_fixture.h"
#include "support/flow_reader.h"
#include "support/nat_host.h"
#include "zon_flow_table_inline.h"

namespace {

using namespace zon_test;

packet_builder udp_from(uint16_t port) {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(port, 53);
}
packet_builder udp6() {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2").udp(1000, 53);
}

class new_flow : public engine_fixture {
protected:
    void TearDown() override {
        zon_debug_flag_engine = zon_debug_flag_all = zon_errlog = false;
        EXPECT_TRUE(no_lock_is_held());
        engine_fixture::TearDown();
    }
    // Runs a packet that must get no flow, with the trace on; the trace comes back.
    static std::string expect_refused(engine_call& call, zon_error_t error) {
        zon_debug_flag_engine = true;
        zon_errlog = true;
        std::string text;
        {
            captured_output trace(stderr);
            call.seen.fif = 1;
            EXPECT_EQ(call.run(), 0U);
            text = trace.text();
        }
        zon_debug_flag_engine = zon_errlog = false;
        EXPECT_EQ(call.error, error);
        EXPECT_EQ(call.seen.fif, 0);
        EXPECT_EQ(call.seen.flow, 0U);
        EXPECT_TRUE(no_lock_is_held());
        return text;
    }
    static bool contains(const std::string& text, const char* line) {
        return text.find(line) != std::string::npos;
    }
};

// ---- tunnels ----

struct tunnel_row {
    const char* name;
    int tunnel;
    bool inip_enabled;
    bool teredo_enabled;
    bool allowed;
};
class tunnelled_flow : public new_flow, public ::testing::WithParamInterface<tunnel_row> {};

TEST_P(tunnelled_flow, is_made_only_while_its_tunnel_is_looked_through) {
    zon_capability_counter_t counters{};
    counters.zon_engine_tunnel_ipv6inip = GetParam().inip_enabled ? 1 : 0;
    counters.zon_engine_tunnel_teredo = GetParam().teredo_enabled ? 1 : 0;
    engine_call call(udp6());
    call.tunnel = static_cast<zon_tunnel_type_e>(GetParam().tunnel);
    zon_debug_flag_engine = true;
    captured_output trace(stderr);
    const zon_fid_t fid = call.run(&counters);
    zon_debug_flag_engine = false;
    EXPECT_EQ(fid != 0, GetParam().allowed);
    EXPECT_EQ(
        contains(trace.text(),
                 "\nZON Engine: Tunneled flow cannot be created because the stripping for the "
                 "specified tunnel type is not enabled"),
        !GetParam().allowed);
    if (!GetParam().allowed) {
        EXPECT_EQ(call.error, untouched_error);
        EXPECT_EQ(call.seen.fif, 0);
        EXPECT_EQ(flows_in_use(), 0U);
        EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0U);
        EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0U);
        return;
    }
    EXPECT_EQ(record_of(fid)->tunnel_type, call.tunnel);
    EXPECT_EQ(call.seen.tunnel_type, call.tunnel);
    for (const zon_tunnel_type_e tunnel : {ZON_TUNNEL_TYPE_IPV6INIP, ZON_TUNNEL_TYPE_TEREDO})
        EXPECT_EQ(zon_private_get_active_tunnel_flows_count(g_zon->flow_tbl, tunnel),
                  tunnel == call.tunnel ? 1U : 0U);
    // Packets of a known flow pass even when the tunnel is not looked through any more.
    zon_capability_counter_t nothing{};
    engine_call reply(udp6().reversed());
    reply.tunnel = call.tunnel;
    EXPECT_EQ(reply.run(&nothing), fid);
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_FALSE(zon_private_has_active_tunnel_flows(g_zon->flow_tbl, call.tunnel));
}

INSTANTIATE_TEST_SUITE_P(rows, tunnelled_flow,
                         ::testing::Values(tunnel_row{"none", 0, false, false, true},
                                           tunnel_row{"ipv6_in_ip", 1, true, false, true},
                                           tunnel_row{"ipv6_in_ip_off", 1, false, true, false},
                                           tunnel_row{"teredo", 2, false, true, true},
                                           tunnel_row{"teredo_off", 2, true, false, false},
                                           tunnel_row{"end_of_table", 3, true, true, false},
                                           tunnel_row{"negative", -1, true, true, false}),
                         [](const auto& row) { return row.param.name; });

// ---- no record ----

class full_engine : public new_flow {
protected:
    full_engine() { parameters.max_flows = 3; }
    void SetUp() override {
        new_flow::SetUp();
        for (const uint16_t port : {uint16_t{1}, uint16_t{2}, uint16_t{3}})
            ASSERT_NE(engine_call(udp_from(port)).run(), 0U);
    }
};

TEST_F(full_engine, refuses_a_fourth_flow_and_counts_it) {
    engine_call call(udp_from(4));
    EXPECT_TRUE(contains(expect_refused(call, zon_error_memory),
                         "\nZON Engine: Could not allocate memory for the flow"));
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 1U);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 0U);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 6U);
    EXPECT_EQ(flows_in_use(), 3U);
    engine_call again(udp_from(4));
    expect_refused(again, zon_error_memory);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 2U);
}

TEST_F(full_engine, still_knows_its_flows_and_takes_a_new_one_when_one_has_left) {
    EXPECT_EQ(engine_call(udp_from(2).reversed()).run(), 2U);
    zon_delete_flow_tamonet(2, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(engine_call(udp_from(4)).run(), 2U);
}

TEST_F(full_engine, says_nothing_unless_it_is_traced) {
    captured_output trace(stderr);
    engine_call(udp_from(4)).run();
    EXPECT_EQ(trace.text(), "");
}

// ---- no half flow ----

class engine_without_ready_half_flows : public new_flow {
protected:
    engine_without_ready_half_flows() {
        parameters.max_mem_buffer_init = 1;  // two half flows
        usage_may_drift = true;
    }
};

TEST_F(engine_without_ready_half_flows, gives_the_record_back_when_the_initiators_cannot_be_had) {
    const zon_ipv6_half_flow_mem_t chunk =
        std::exchange(g_zon->zon_chunk_ptr.zon_ipv6_half_flow_mem, nullptr);
    engine_call call(udp6());
    const std::string trace = expect_refused(call, zon_error_memory);
    g_zon->zon_chunk_ptr.zon_ipv6_half_flow_mem = chunk;
    EXPECT_TRUE(contains(trace, "\nZON Engine: Could not allocate memory for the half flow"));
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 1U);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0U);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv6_half_flow_alloc_count, 1U)
        << "the attempt stays counted";
    EXPECT_EQ(flows_in_use(), 0U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0U);
    EXPECT_EQ(g_zon->fid_table->free_tail->fid, 1U)
        << "the record went to the end of the free ones";
    EXPECT_EQ(engine_call(udp6()).run(), 2U);
}

TEST_F(engine_without_ready_half_flows,
       gives_the_initiators_back_too_when_the_responders_cannot_be_had) {
    ASSERT_EQ(zon_private_ipv4_flow_mem_buffer_count, 2);
    zon_half_flow_t* kept = zon_allocate_half_flow(ZON_IPV4_KEY_COMPLETE);  // one is left
    kept->key.key_type = ZON_IPV4_KEY_COMPLETE;
    const zon_ipv4_half_flow_mem_t chunk =
        std::exchange(g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem, nullptr);
    engine_call call(udp_from(1));
    expect_refused(call, zon_error_memory);
    g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem = chunk;
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer_count, 1) << "the first half flow is ready again";
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 1U);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2U)
        << "the one kept and the failed attempt";
    EXPECT_EQ(flows_in_use(), 0U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0U);
    zon_deallocate_half_flow(kept);
}

// ---- no room in a bucket ----

class engine_of_depth_one : public new_flow {
protected:
    engine_of_depth_one() {
        parameters.max_flows = 13;  // as many buckets
        parameters.max_bucket_depth = 1;
    }
    static int bucket_of(const packet_builder& built) {
        engine_call call(built);
        return static_cast<int>(zon_hash_calc(call.key(), nullptr) % 13);
    }
    // A packet whose key falls into one bucket and the key of its replies into another.
    static packet_builder find_packet(int forward, int backward, uint16_t from_port = 1) {
        for (uint16_t port = from_port; port != 0; ++port)
            if (bucket_of(udp_from(port)) == forward &&
                bucket_of(udp_from(port).reversed()) == backward)
                return udp_from(port);
        ADD_FAILURE() << "no port leads to buckets " << forward << " and " << backward;
        return udp_from(1);
    }
};

TEST_F(engine_of_depth_one, refuses_a_flow_whose_own_bucket_is_full) {
    const zon_fid_t first = engine_call(find_packet(1, 2)).run();
    ASSERT_NE(first, 0U);
    engine_call call(find_packet(1, 3));
    const std::string log = expect_refused(call, zon_error_memory);
    EXPECT_TRUE(contains(
        log,
        "ZON_MSG_INDEX: 0. Could not allocate memory for the flow  zon_flow_lookup, table insert "
        "failed::0\n"))
        << log;
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 2U);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, 0U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2U);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2U);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0U);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 0U);
    EXPECT_EQ(flows_in_use(), 1U);
    EXPECT_EQ(engine_call(find_packet(1, 2)).run(), first) << "the flow in the bucket stays found";
}

TEST_F(engine_of_depth_one, refuses_a_flow_whose_replies_find_their_bucket_full) {
    ASSERT_NE(engine_call(find_packet(1, 2)).run(), 0U);
    engine_call call(find_packet(3, 2));
    expect_refused(call, zon_error_memory);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 3U) << "one half was in";
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, 1U) << "and came out again";
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2U);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2U);
    EXPECT_EQ(flows_in_use(), 1U);
}

TEST_F(engine_of_depth_one, refuses_a_flow_whose_two_halves_want_one_bucket) {
    engine_call call(find_packet(4, 4));
    expect_refused(call, zon_error_memory);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0U);
    EXPECT_EQ(g_zon->flow_tbl->table->items_in_bucket[4], 0);
}

TEST_F(engine_of_depth_one, counts_no_tunnelled_flow_that_it_refused) {
    engine_call call(find_packet(4, 4));
    call.tunnel = ZON_TUNNEL_TYPE_TEREDO;
    expect_refused(call, zon_error_memory);
    EXPECT_FALSE(zon_private_has_active_tunnel_flows(g_zon->flow_tbl, ZON_TUNNEL_TYPE_TEREDO));
}

// ---- the record of a new flow ----

TEST_F(new_flow, listens_and_has_both_halves_inserted_under_its_lock) {
    engine_call call(packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2));
    const zon_flow_t* flow = record_of(call.run());
    EXPECT_EQ(flow->l4state.tcp_state, ZON_TCP_SYNSENT)
        << "any first packet of the initiator opens";
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 2U);
    EXPECT_EQ(flow->tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_EQ(flow->initiator_flow->fo_list, nullptr);
    EXPECT_EQ(flow->responder_flow->fo_list, nullptr);
}

TEST_F(new_flow, never_keeps_the_scratch_key_itself) {
    engine_call call(udp_from(1));
    const zon_flow_t* flow = record_of(call.run());
    EXPECT_NE(flow->initiator_flow, call.key());
    EXPECT_NE(flow->responder_flow, call.key());
}

// ---- NAT ----

TEST_F(new_flow, behind_a_nat_is_found_by_replies_to_the_translated_address) {
    nat_host nat(0xC0000201, 6000);
    int context = 0;
    engine_call call(packet_builder::ipv4("10.0.0.1", "198.51.100.7").udp(1000, 53));
    call.context = &context;
    const zon_fid_t fid = call.run();
    EXPECT_EQ(nat.calls, 1);
    EXPECT_EQ(nat.context, &context);
    EXPECT_EQ(nat.protocol, 17);
    const zon_ipv4_key_t& initiator = *zon_full_key<ipv4_family>(record_of(fid)->initiator_flow);
    EXPECT_EQ(initiator.src_ip, 0x0A000001U);
    EXPECT_EQ(initiator.src_port, 1000U);
    const zon_ipv4_key_t& responder = *zon_full_key<ipv4_family>(record_of(fid)->responder_flow);
    EXPECT_EQ(responder.src_ip, 0xC6336407U);
    EXPECT_EQ(responder.src_port, 53U);
    EXPECT_EQ(responder.dst_ip, 0xC0000201U);
    EXPECT_EQ(responder.dst_port, 6000U);

    engine_call reply(packet_builder::ipv4("198.51.100.7", "192.0.2.1").udp(53, 6000));
    EXPECT_EQ(reply.run(), fid);
    EXPECT_EQ(reply.seen.is_initiator, 0);
    EXPECT_EQ(nat.calls, 1) << "known flows are not translated again";
    EXPECT_NE(engine_call(packet_builder::ipv4("198.51.100.7", "10.0.0.1").udp(53, 1000)).run(),
              fid);
}

TEST_F(new_flow, of_ipv6_is_not_shown_to_a_nat) {
    nat_host nat(0xC0000201, 6000);
    engine_call(udp6()).run();
    EXPECT_EQ(nat.calls, 0);
}

TEST_F(new_flow, may_share_the_reverse_key_of_another_translated_flow) {
    nat_host nat(0xC0000201, 6000);
    const zon_fid_t one =
        engine_call(packet_builder::ipv4("10.0.0.1", "198.51.100.7").udp(1000, 53)).run();
    const zon_fid_t two =
        engine_call(packet_builder::ipv4("10.0.0.2", "198.51.100.7").udp(1000, 53)).run();
    EXPECT_NE(one, 0U);
    EXPECT_NE(two, 0U);
    EXPECT_NE(one, two);
    EXPECT_EQ(engine_call(packet_builder::ipv4("198.51.100.7", "192.0.2.1").udp(53, 6000)).run(),
              two)
        << "the newest answers";
}

// ---- a callback that hands the same packet in ----

bool nested = false;
zon_fid_t nested_fid = 0;
bool hand_the_same_packet_in(void*, zon_client_id_e) {
    if (nested)
        return true;
    nested = true;
    nested_fid = engine_call(udp_from(1)).run();
    return true;
}

TEST_F(new_flow, that_a_callback_made_meanwhile_is_taken_and_no_second_one_made) {
    nested = false;
    nested_fid = 0;
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, hand_the_same_packet_in),
              zon_error_none);
    engine_call call(udp_from(1));
    const zon_fid_t fid = call.run();
    EXPECT_NE(nested_fid, 0U);
    EXPECT_EQ(fid, nested_fid);
    EXPECT_EQ(call.seen.fif, 0);
    EXPECT_EQ(call.seen.flow_pkt_count, 2U);
    EXPECT_EQ(call.error, zon_error_none);
    EXPECT_EQ(flows_in_use(), 1U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2U);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 2U);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, 0U);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2U);
    EXPECT_TRUE(record_of(fid)->should_reset_timer);
}

bool hand_the_reply_in(void*, zon_client_id_e) {
    if (nested)
        return true;
    nested = true;
    nested_fid = engine_call(udp_from(1).reversed()).run();
    return true;
}

TEST_F(new_flow, that_a_callback_made_from_the_other_side_is_taken_as_it_is) {
    nested = false;
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, hand_the_reply_in), zon_error_none);
    engine_call call(udp_from(1));
    EXPECT_EQ(call.run(), nested_fid);
    EXPECT_EQ(call.seen.is_initiator, 0);
    EXPECT_EQ(flows_in_use(), 1U);
}

}  // namespace

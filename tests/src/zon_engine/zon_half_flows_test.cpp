// zon_half_flows_test.cpp - half flows come from the ready ones first, and flows are found by key
// and by identifier.

#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "support/engine_fixture.h"
#include "support/flow_reader.h"
#include "support/key_record.h"

namespace {

using zon_test::key_fields;
using zon_test::key_record;
using zon_test::key_type_name;
using zon_test::levels_held;
using zon_test::packet_builder;
using zon_test::record_of;

class half_flows : public zon_test::engine_fixture {
protected:
    half_flows() { parameters.max_mem_buffer_init = 2; }
    static const memory_usage_stats_t& usage() { return g_zon->memory_usage_stats; }
    static zon_half_flow_t* allocate(uint32_t type) {
        zon_half_flow_t* half = zon_allocate_half_flow(static_cast<uint8_t>(type));
        if (half != nullptr)
            half->key.key_type = type;
        return half;
    }
};

class half_flow_of_type : public half_flows, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(half_flow_of_type, is_counted_for_its_family_and_starts_without_objects) {
    const bool ipv4 = GetParam() < 5;
    zon_half_flow_t* half = allocate(GetParam());
    ASSERT_NE(half, nullptr);
    EXPECT_EQ(half->fo_list, nullptr);
    EXPECT_EQ(usage().ipv4_half_flow_alloc_count, ipv4 ? 1U : 0U);
    EXPECT_EQ(usage().ipv6_half_flow_alloc_count, ipv4 ? 0U : 1U);
    zon_deallocate_half_flow(half);
    EXPECT_EQ(usage().ipv4_half_flow_alloc_count, 0U);
    EXPECT_EQ(usage().ipv6_half_flow_alloc_count, 0U);
}

INSTANTIATE_TEST_SUITE_P(key_types, half_flow_of_type, ::testing::Range(0U, 10U),
                         [](const auto& row) { return key_type_name(row.param); });

TEST_F(half_flows, of_ipv4_come_from_the_ready_ones_last_in_first_out) {
    ASSERT_EQ(zon_private_ipv4_flow_mem_buffer_count, 4);
    std::vector<zon_half_flow_t*> taken;
    for (int left = 3; left >= 0; --left) {
        void* top = zon_private_ipv4_flow_mem_buffer[left];
        taken.push_back(allocate(ZON_IPV4_KEY_COMPLETE));
        EXPECT_EQ(taken.back(), top);
        EXPECT_EQ(zon_private_ipv4_flow_mem_buffer_count, left);
    }
    taken.push_back(allocate(ZON_IPV4_KEY_COMPLETE));
    EXPECT_NE(taken.back(), nullptr) << "then from the chunk";
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer_count, 0);
    for (zon_half_flow_t* half : taken)
        zon_deallocate_half_flow(half);
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer_count, 4) << "never more than were placed there";
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer[3], taken[3]);
}

TEST_F(half_flows, come_and_go_in_pairs_as_they_would_one_by_one) {
    ASSERT_EQ(zon_private_ipv4_flow_mem_buffer_count, 4);
    zon_half_flow_t* const top = static_cast<zon_half_flow_t*>(zon_private_ipv4_flow_mem_buffer[3]);
    zon_half_flow_t* const next =
        static_cast<zon_half_flow_t*>(zon_private_ipv4_flow_mem_buffer[2]);
    zon_flow_t flow{};
    ASSERT_TRUE(zon_allocate_half_flows(ZON_IPV4_KEY_COMPLETE, &flow));
    EXPECT_EQ(flow.initiator_flow, top);
    EXPECT_EQ(flow.responder_flow, next);
    EXPECT_EQ(top->fo_list, nullptr);
    EXPECT_EQ(next->fo_list, nullptr);
    EXPECT_EQ(usage().ipv4_half_flow_alloc_count, 2U);
    top->key.key_type = next->key.key_type = ZON_IPV4_KEY_COMPLETE;
    zon_deallocate_half_flows(top, next);
    EXPECT_EQ(usage().ipv4_half_flow_alloc_count, 0U);
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer[3], next) << "given back last";
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer[2], top);
}

TEST_F(half_flows, of_a_pair_go_to_the_memory_of_their_own_family) {
    zon_half_flow_t* ipv4 = allocate(ZON_IPV4_KEY_COMPLETE);
    zon_half_flow_t* ipv6 = allocate(ZON_IPV6_KEY_COMPLETE);
    zon_deallocate_half_flows(ipv4, ipv6);
    EXPECT_EQ(usage().ipv4_half_flow_alloc_count, 0U);
    EXPECT_EQ(usage().ipv6_half_flow_alloc_count, 0U);
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer_count, 4);
    EXPECT_EQ(allocate(ZON_IPV6_KEY_COMPLETE), ipv6);
    zon_deallocate_half_flow(ipv6);
}

TEST_F(half_flows, of_ipv6_always_come_from_the_chunk) {
    EXPECT_EQ(zon_private_ipv6_flow_mem_buffer_count_init, 0);
    zon_half_flow_t* half = allocate(ZON_IPV6_KEY_COMPLETE);
    zon_deallocate_half_flow(half);
    EXPECT_EQ(zon_private_ipv6_flow_mem_buffer_count, 0);
}

TEST_F(half_flows, that_cannot_be_had_are_counted_as_tried_and_as_failed) {
    usage_may_drift = true;
    std::vector<zon_half_flow_t*> ready;
    while (zon_private_ipv4_flow_mem_buffer_count > 0)
        ready.push_back(allocate(ZON_IPV4_KEY_COMPLETE));
    const zon_chunk_mem_t chunks = g_zon->zon_chunk_ptr;
    g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem = nullptr;
    g_zon->zon_chunk_ptr.zon_ipv6_half_flow_mem = nullptr;
    EXPECT_EQ(allocate(ZON_IPV4_KEY_COMPLETE), nullptr);
    EXPECT_EQ(usage().ipv4_half_flow_alloc_count, 5U);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 1U);
    EXPECT_EQ(allocate(ZON_IPV6_KEY_COMPLETE), nullptr);
    EXPECT_EQ(usage().ipv6_half_flow_alloc_count, 1U);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 2U);
    g_zon->zon_chunk_ptr = chunks;
    for (zon_half_flow_t* half : ready)
        zon_deallocate_half_flow(half);
}

class half_flows_DeathTest : public half_flows {
protected:
    half_flows_DeathTest() { parameters.timers = false; }
};

TEST_F(half_flows_DeathTest, of_an_unknown_type_stop_the_program) {
    EXPECT_DEATH(zon_allocate_half_flow(ZON_MAX_KEY),
                 "Assertion `half_flow_key_type <= ZON_IPV6_LAST_KEY' failed");
    zon_half_flow_t* half = allocate(ZON_IPV4_KEY_COMPLETE);
    half->key.key_type = ZON_MAX_KEY;
    EXPECT_DEATH(zon_deallocate_half_flow(half),
                 "Assertion `half_flow->key.key_type <= ZON_IPV6_LAST_KEY' failed");
    half->key.key_type = ZON_IPV4_KEY_COMPLETE;
    zon_deallocate_half_flow(half);
}

TEST_F(half_flows_DeathTest,
       are_not_found_by_an_identifier_above_the_capacity_which_stops_the_program) {
    EXPECT_DEATH(zon_get_flow(parameters.max_flows + 1),
                 "Assertion `fid_is_valid\\(fid_table, fid\\)' failed");
}

// ---- lookup by key and by identifier ----

class flow_lookup : public zon_test::engine_fixture {
protected:
    // Announces 10.0.0.1:40000 -> 10.0.0.2:80 over TCP, or what lies between two IPv6 addresses.
    static zon_fid_t announce(zon_flow_tuple_type_t type, bool ipv6 = false) {
        zon_flow_tuple_t tuple{};
        tuple.src_ip.addr_type = tuple.dst_ip.addr_type =
            ipv6 ? ZON_IP_ADDR_IPV6 : ZON_IP_ADDR_IPV4;
        const key_fields fields;
        if (ipv6) {
            std::memcpy(tuple.src_ip.u.v6_addr, fields.src_ip.data(), 16);
            std::memcpy(tuple.dst_ip.u.v6_addr, fields.dst_ip.data(), 16);
        } else {
            tuple.src_ip.u.v4_addr = fields.src_ip[0];
            tuple.dst_ip.u.v4_addr = fields.dst_ip[0];
        }
        tuple.src_port = static_cast<uint16_t>(fields.src_port);
        tuple.dst_port = static_cast<uint16_t>(fields.dst_port);
        tuple.l4_protocol = 6;
        zon_fid_t fid = 0;
        EXPECT_EQ(zon_pre_flow_add(type, &tuple, 0, &fid, nullptr), zon_error_none);
        return fid;
    }
    static zon_fid_t find(uint32_t type) {
        key_fields fields;
        fields.type = type;
        key_record wanted(fields);
        zon_half_flow_t* found = type < 5 ? zon_private_flow_lookup_ipv4(&wanted.ipv4())
                                          : zon_private_flow_lookup_ipv6(&wanted.ipv6());
        EXPECT_EQ(wanted.key().key_type, type) << "the caller's key is not changed";
        if (found == nullptr)
            return 0;
        EXPECT_EQ(levels_held(found->flow->flow_lock), 1);
        zon_unlock_internal(found->flow->flow_lock);
        return found->flow->fid;
    }
};

TEST_F(flow_lookup, of_a_complete_key_finds_an_announced_complete_one_as_well) {
    const zon_fid_t fid = announce(ZON_FLOW_TUPLE_TYPE_COMPLETE);
    const zon_fid_t fid6 = announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, true);
    ASSERT_NE(fid, 0U);
    ASSERT_NE(fid6, 0U);
    EXPECT_EQ(find(ZON_IPV4_KEY_COMPLETE), fid);
    EXPECT_EQ(find(ZON_IPV4_KEY_PRE_FLOW_COMPLETE), fid);
    EXPECT_EQ(find(ZON_IPV6_KEY_COMPLETE), fid6);
    EXPECT_EQ(find(ZON_IPV6_KEY_PRE_FLOW_COMPLETE), fid6);
}

TEST_F(flow_lookup, of_any_other_key_looks_for_its_own_type_only) {
    announce(ZON_FLOW_TUPLE_TYPE_COMPLETE);
    constexpr uint32_t types[] = {ZON_IPV4_KEY_DST_IP_PORT_ONLY, ZON_IPV4_KEY_SRC_IP_PORT_ONLY,
                                  ZON_IPV4_KEY_VRF_STAR};
    for (const uint32_t type : types)
        EXPECT_EQ(find(type), 0U) << key_type_name(type);
}

TEST_F(flow_lookup, of_a_complete_key_finds_no_announcement_with_unknown_parts) {
    announce(ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN);
    announce(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN);
    EXPECT_EQ(find(ZON_IPV4_KEY_COMPLETE), 0U);
    EXPECT_NE(find(ZON_IPV4_KEY_VRF_STAR), 0U);
    EXPECT_NE(find(ZON_IPV4_KEY_DST_IP_PORT_ONLY), 0U);
}

TEST_F(flow_lookup, by_identifier_returns_the_flow_locked_or_nothing) {
    EXPECT_EQ(zon_get_flow(0), nullptr);
    EXPECT_EQ(zon_get_flow(1), nullptr) << "a free identifier";
    const zon_fid_t fid = handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1, 2)).fid;
    zon_flow_t* flow = zon_get_flow(fid);
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(flow, record_of(fid));
    EXPECT_EQ(levels_held(flow->flow_lock), 1);
    EXPECT_TRUE(zon_test::is_free_for_others(g_zon->fid_table->fid_table_lock));
    zon_unlock_internal(flow->flow_lock);
}

TEST_F(flow_lookup, is_not_changed_by_a_mark_for_deletion_that_then_makes_the_flow_immortal) {
    zon_inst_mark_flow_for_delete(nullptr);
    const auto packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1, 2);
    const zon_fid_t fid = handle(packet).fid;
    zon_flow_t* flow = record_of(fid);
    zon_inst_mark_flow_for_delete(flow);
    EXPECT_TRUE(flow->marked_for_delete);
    EXPECT_EQ(levels_held(flow->flow_lock), 0);
    EXPECT_EQ(handle(packet).fid, fid);
    EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    EXPECT_EQ(handle(packet).fid, fid);
    flow->marked_for_delete = 0;
}

TEST_F(flow_lookup, sees_half_flows_that_are_added_and_removed_by_hand) {
    const zon_fid_t fid = handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80)).fid;
    zon_flow_t* flow = zon_get_flow(fid);
    const uint32_t removed = g_zon->flow_tbl->profile_delete;
    EXPECT_TRUE(zon_private_remove_half_flow(flow->initiator_flow));
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, removed + 1);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 1U);
    EXPECT_TRUE(zon_private_add_half_flow(flow->initiator_flow));
    EXPECT_EQ(levels_held(flow->flow_lock), 1);
    zon_unlock_internal(flow->flow_lock);
    EXPECT_EQ(find(ZON_IPV4_KEY_COMPLETE), fid);
}

}  // namespace

// zon_config_test.cpp - defaults, parameters and the figures of memory use.

#include <gtest/gtest.h>

#include <cstring>

#include "support/engine_fixture.h"
#include "zon_engine_inline.h"
#include "zon_frag.h"
#include "zon_key_hash_funcs_inline.h"
#include "zon_super_ctx_table.h"

namespace {

// Puts the process-wide defaults back.
class defaults : public ::testing::Test {
protected:
    void TearDown() override {
        zon_params_t initial{};
        initial.max_flows = 5000;
        initial.min_init_flows = 10;
        initial.max_threads = 10;
        initial.create_chunk_elements = 16;
        initial.max_mem_buffer_init = 10;
        initial.max_bucket_depth = 0;
        zon_set_default_params(&initial);
    }
};

TEST_F(defaults, have_their_initial_values) {
    EXPECT_EQ(ZON_DEFAULT_FLOW_TO_HASH_SIZE_RATIO, 1U);
    EXPECT_EQ(ZON_DEFAULT_MAX_FLOWS, 5000U);
    EXPECT_EQ(ZON_DEFAULT_MIN_INIT_FLOWS, 10U);
    EXPECT_EQ(ZON_DEFAULT_FLOW_CHUNK_SIZE, 10U);
    EXPECT_EQ(ZON_DEFAULT_MAX_CONCURRENCY, 10U);
    EXPECT_EQ(ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS, 16U);
    EXPECT_EQ(ZON_DEFAULT_MAX_MEM_BUFFER_INIT, 10U);
    EXPECT_EQ(ZON_DEFAULT_MAX_COLLISION_SIZE, 0U);
    EXPECT_EQ(ZON_DEFAULT_MIN_AGING, 0U);
    EXPECT_EQ(ipv4_half_flow_buf_size, 72);
    EXPECT_EQ(ipv6_half_flow_buf_size, 96);
}

TEST_F(defaults, of_the_trace_are_off) {
    for (const bool flag : {zon_debug_flag_engine, zon_debug_flag_fe, zon_debug_flag_l4,
                            zon_debug_flag_ager, zon_debug_flag_all, zon_errlog})
        EXPECT_FALSE(flag);
}

TEST_F(defaults, take_six_of_the_parameters) {
    zon_params_t params{};
    params.max_flows = 1;
    params.pre_flow_timer = 2;
    params.min_init_flows = 3;
    params.max_threads = 4;
    params.create_chunk_elements = 5;
    params.max_mem_buffer_init = 6;
    params.max_bucket_depth = 7;
    EXPECT_EQ(zon_set_default_params(&params), zon_error_none);
    EXPECT_EQ(ZON_DEFAULT_MAX_FLOWS, 1U);
    EXPECT_EQ(ZON_DEFAULT_MIN_INIT_FLOWS, 3U);
    EXPECT_EQ(ZON_DEFAULT_MAX_CONCURRENCY, 4U);
    EXPECT_EQ(ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS, 5U);
    EXPECT_EQ(ZON_DEFAULT_MAX_MEM_BUFFER_INIT, 6U);
    EXPECT_EQ(ZON_DEFAULT_MAX_COLLISION_SIZE, 7U);
    EXPECT_EQ(ZON_DEFAULT_FLOW_CHUNK_SIZE, 10U);
    EXPECT_EQ(ZON_DEFAULT_MIN_AGING, 0U);
    EXPECT_EQ(zon_set_default_params(nullptr), zon_error_parameter_is_null);
}

TEST_F(defaults, take_a_number_of_flows_that_is_at_least_the_first_block) {
    EXPECT_EQ(zon_config_set_max_flows(0), zon_error_parameter_is_null);
    EXPECT_EQ(zon_config_set_max_flows(9), zon_error_parameter_invalid);
    EXPECT_EQ(ZON_DEFAULT_MAX_FLOWS, 5000U);
    EXPECT_EQ(zon_config_set_max_flows(10), zon_error_none);
    EXPECT_EQ(ZON_DEFAULT_MAX_FLOWS, 10U);
}

// ---- without an engine ----

TEST(configuration, answers_what_it_can_without_an_engine) {
    ASSERT_EQ(g_zon, nullptr);
    uint32_t flows = 77;
    EXPECT_EQ(zon_config_get_max_flows(nullptr), zon_error_parameter_is_null);
    EXPECT_EQ(zon_config_get_max_flows(&flows), zon_error_engine_not_init);
    EXPECT_EQ(flows, 77U);
    zon_flow_memory_usage_t usage{};
    EXPECT_EQ(zon_config_calc_crnt_memory_usage(nullptr), zon_error_parameter_is_null);
    EXPECT_EQ(zon_config_calc_crnt_memory_usage(&usage), zon_error_engine_not_init);
    EXPECT_FALSE(zon_set_default_aging(6, ZON_L4_OPENING, 1000));
}

struct memory_row {
    uint32_t bytes;
    uint32_t flows;
};
class flows_for_memory : public ::testing::TestWithParam<memory_row> {};

TEST_P(flows_for_memory, are_counted_at_392_bytes_each) {
    uint32_t flows = 77;
    EXPECT_EQ(zon_config_calc_max_flows_for_given_memory(GetParam().bytes, &flows), zon_error_none);
    EXPECT_EQ(flows, GetParam().flows);
}

INSTANTIATE_TEST_SUITE_P(rows, flows_for_memory,
                         ::testing::Values(memory_row{0, 0}, memory_row{391, 0}, memory_row{392, 1},
                                           memory_row{783, 1}, memory_row{784, 2},
                                           memory_row{0xFFFFFFFF, 10956549}),
                         [](const auto& row) { return "of_" + std::to_string(row.param.bytes); });

TEST(configuration, needs_room_for_the_number_of_flows) {
    EXPECT_EQ(zon_config_calc_max_flows_for_given_memory(392, nullptr),
              zon_error_parameter_is_null);
}

// ---- with an engine ----

class configured_engine : public zon_test::engine_fixture {
protected:
    void TearDown() override {
        g_zon->memory_usage_stats = {};
        engine_fixture::TearDown();
    }
    static zon_flow_memory_usage_t usage() {
        zon_flow_memory_usage_t now{};
        EXPECT_EQ(zon_config_calc_crnt_memory_usage(&now), zon_error_none);
        return now;
    }
};

TEST_F(configured_engine, tells_its_own_number_of_flows_and_not_the_default) {
    uint32_t flows = 0;
    EXPECT_EQ(zon_config_get_max_flows(&flows), zon_error_none);
    EXPECT_EQ(flows, 1000U);
    EXPECT_EQ(zon_config_set_max_flows(6000), zon_error_none);
    EXPECT_EQ(zon_config_get_max_flows(&flows), zon_error_none);
    EXPECT_EQ(flows, 1000U);
    ZON_DEFAULT_MAX_FLOWS = 5000;
}

TEST_F(configured_engine, counts_the_records_of_its_first_block_while_it_is_idle) {
    const zon_flow_memory_usage_t now = usage();
    EXPECT_EQ(now.bytes_used_for_ipv4_half_flows, 0U);
    EXPECT_EQ(now.bytes_used_for_ipv6_half_flows, 0U);
    EXPECT_EQ(now.bytes_used_for_flows, 2480U);
    EXPECT_EQ(now.bytes_used_for_flow_aggregation, 0U);
    EXPECT_EQ(now.active_flow_count, 10U);
}

TEST_F(configured_engine, counts_two_half_flows_of_its_family_for_each_flow) {
    handle(zon_test::packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1000, 53));
    EXPECT_EQ(usage().bytes_used_for_ipv4_half_flows, 2U * 72);
    handle(zon_test::packet_builder::ipv6("2001:db8::1", "2001:db8::2").udp(1000, 53));
    EXPECT_EQ(usage().bytes_used_for_ipv4_half_flows, 2U * 72);
    EXPECT_EQ(usage().bytes_used_for_ipv6_half_flows, 2U * 96);
    delete_all_flows();
    EXPECT_EQ(usage().bytes_used_for_ipv4_half_flows, 0U);
    EXPECT_EQ(usage().bytes_used_for_ipv6_half_flows, 0U);
}

TEST_F(configured_engine, accounts_288_bytes_for_a_super_context_and_16_for_a_member) {
    g_zon->memory_usage_stats.super_context_alloc_count = 3;
    g_zon->memory_usage_stats.list_element_alloc_count = 5;
    EXPECT_EQ(usage().bytes_used_for_flow_aggregation, 3U * 288 + 5 * 16);
}

TEST_F(configured_engine, lets_its_figures_wrap_at_32_bits) {
    g_zon->memory_usage_stats.ipv4_half_flow_alloc_count = 0x40000001;
    g_zon->memory_usage_stats.ipv6_half_flow_alloc_count = 0x40000001;
    g_zon->memory_usage_stats.super_context_alloc_count = 0x10000000;
    EXPECT_EQ(usage().bytes_used_for_ipv4_half_flows, 72U);
    EXPECT_EQ(usage().bytes_used_for_ipv6_half_flows, 96U);
    EXPECT_EQ(usage().bytes_used_for_flow_aggregation, 0U);
}

TEST_F(configured_engine, has_its_wheel_where_it_says) {
    EXPECT_EQ(zon_get_tw_internal(), &g_zon->zon_tw);
}

using namespace zon_test;

class seeded_engine : public engine_fixture {
protected:
    static constexpr uint32_t seed = 0x5eed5eed;

    void TearDown() override {
        EXPECT_EQ(zon_config_set_hash_seed(0), zon_error_none);
        engine_fixture::TearDown();
        zon_hash_seed_in_force = 0;
    }
    static int bucket_of_a_flow() {
        zon_flow_tuple_t tuple{};
        tuple.src_ip.u.v4_addr = ipv4_address("10.0.0.1").value;
        tuple.dst_ip.u.v4_addr = ipv4_address("10.0.0.2").value;
        tuple.src_port = 1000;
        tuple.dst_port = 53;
        tuple.l4_protocol = 17;
        int bucket = -1;
        zon_flow_lookup_tamonet(&tuple, &bucket);
        return bucket;
    }
    static zon_fid_t fid_of_a_packet() {
        return handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1000, 53)).fid;
    }
};

TEST_F(seeded_engine, keeps_its_seed_until_it_is_made_anew) {
    const int plain = bucket_of_a_flow();
    const zon_fid_t fid = fid_of_a_packet();
    EXPECT_EQ(zon_config_set_hash_seed(seed), zon_error_none);
    EXPECT_EQ(bucket_of_a_flow(), plain);
    EXPECT_EQ(fid_of_a_packet(), fid);
    ASSERT_TRUE(zon_restart());
    const int seeded = bucket_of_a_flow();
    EXPECT_NE(seeded, plain);
    ASSERT_TRUE(zon_restart());
    EXPECT_EQ(bucket_of_a_flow(), seeded) << "one seed, one hash";
    EXPECT_EQ(zon_config_set_hash_seed(0), zon_error_none);
    ASSERT_TRUE(zon_restart());
    EXPECT_EQ(bucket_of_a_flow(), plain);
}

TEST_F(seeded_engine, finds_flows_from_both_sides_and_by_announcement) {
    EXPECT_EQ(zon_config_set_hash_seed(seed), zon_error_none);
    ASSERT_TRUE(zon_restart());
    const zon_fid_t fid = fid_of_a_packet();
    EXPECT_NE(fid, 0U);
    EXPECT_EQ(fid_of_a_packet(), fid);
    EXPECT_EQ(handle(packet_builder::ipv4("10.0.0.2", "10.0.0.1").udp(53, 1000)).fid, fid);
    const zon_fid_t ipv6 = handle(packet_builder::ipv6("2001:db8::1", "2001:db8::2").udp(1, 2)).fid;
    EXPECT_NE(ipv6, 0U);
    EXPECT_EQ(handle(packet_builder::ipv6("2001:db8::2", "2001:db8::1").udp(2, 1)).fid, ipv6);
}

TEST_F(seeded_engine, spreads_fragments_and_super_contexts_by_its_seed) {
    zon_super_context_t super_ctx{};
    super_ctx.context = 77;
    zon_super_context_table_t table{};
    table.max_size = 0xffffffff;
    constexpr uint32_t datagram[] = {7, 3, 17, 0x0A000001, 0x0A000002};
    for (const uint32_t in_force : {0U, seed}) {
        ASSERT_EQ(zon_config_set_hash_seed(in_force), zon_error_none);
        ASSERT_TRUE(zon_restart());
        EXPECT_EQ(zon_super_context_hash(&table, &super_ctx),
                  jenkins_hashword_2006(&super_ctx.context, 1, in_force) % table.max_size);
        zon_frag_table_t* fragments = g_zon->frag_table;
        ASSERT_EQ(zon_frag_flow_insert_ipv4(fragments, datagram[0], datagram[1], datagram[2],
                                            datagram[3], datagram[4], 1),
                  1U);
        EXPECT_EQ(fragments->list_head->table_index,
                  jenkins_hashword_2006(datagram, 5, in_force) & fragments->table_mask);
        EXPECT_EQ(fragments->table[fragments->list_head->table_index], fragments->list_head);
    }
}

struct aging_row {
    const char* name;
    uint8_t protocol;
    int state;
    bool accepted;
};
class default_aging : public configured_engine, public ::testing::WithParamInterface<aging_row> {};

TEST_P(default_aging, is_set_for_tcp_and_udp_and_the_seven_states_only) {
    const zon_timer_defaults_t before = g_zon->timer_defaults;
    EXPECT_EQ(zon_set_default_aging(GetParam().protocol,
                                    static_cast<zon_l4_flow_state_e>(GetParam().state), 4321),
              GetParam().accepted);
    EXPECT_EQ(std::memcmp(&before, &g_zon->timer_defaults, sizeof before) == 0,
              !GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(
    rows, default_aging,
    ::testing::Values(aging_row{"icmp", 1, 0, false}, aging_row{"tcp_closed", 6, 0, true},
                      aging_row{"tcp_closing", 6, 6, true}, aging_row{"tcp_end", 6, 7, false},
                      aging_row{"tcp_negative", 6, -1, false}, aging_row{"udp_closed", 17, 0, true},
                      aging_row{"udp_closing", 17, 6, true}, aging_row{"udp_end", 17, 7, false},
                      aging_row{"ipv6_in_ip", 41, 0, false}, aging_row{"other", 255, 0, false}),
    [](const auto& row) { return row.param.name; });

}  // namespace

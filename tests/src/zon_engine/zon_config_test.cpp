// zon_config_test.cpp - defaults, parameters and the figures of memory use.

#include <gtest/gtest.h>

#include <cstring>

#include "support/engine_fixture.h"
#include "zon_engine_inline.h"

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
    for (const bool flag : {zon_debug_flag_engine, zon_debug_flag_fe, zon_debug_flag_l4, zon_debug_flag_ager,
                            zon_debug_flag_all, zon_errlog})
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
    EXPECT_EQ(zon_config_calc_max_flows_for_given_memory(392, nullptr), zon_error_parameter_is_null);
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

TEST_F(configured_engine, has_its_wheel_where_it_says) { EXPECT_EQ(zon_get_tw_internal(), &g_zon->zon_tw); }

struct aging_row {
    const char* name;
    uint8_t protocol;
    int state;
    bool accepted;
};
class default_aging : public configured_engine, public ::testing::WithParamInterface<aging_row> {};

TEST_P(default_aging, is_set_for_tcp_and_udp_and_the_seven_states_only) {
    const zon_timer_defaults_t before = g_zon->timer_defaults;
    EXPECT_EQ(zon_set_default_aging(GetParam().protocol, static_cast<zon_l4_flow_state_e>(GetParam().state), 4321),
              GetParam().accepted);
    EXPECT_EQ(std::memcmp(&before, &g_zon->timer_defaults, sizeof before) == 0, !GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(rows, default_aging,
                         ::testing::Values(aging_row{"icmp", 1, 0, false}, aging_row{"tcp_closed", 6, 0, true},
                                           aging_row{"tcp_closing", 6, 6, true}, aging_row{"tcp_end", 6, 7, false},
                                           aging_row{"tcp_negative", 6, -1, false}, aging_row{"udp_closed", 17, 0, true},
                                           aging_row{"udp_closing", 17, 6, true}, aging_row{"udp_end", 17, 7, false},
                                           aging_row{"ipv6_in_ip", 41, 0, false}, aging_row{"other", 255, 0, false}),
                         [](const auto& row) { return row.param.name; });

}  // namespace

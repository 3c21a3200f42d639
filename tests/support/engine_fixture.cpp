// engine_fixture.cpp - sets an engine up for a test, and looks at what the test left behind.

#include "engine_fixture.h"

#include "support/lanes.h"

namespace zon_test {

engine_fixture::engine_fixture() = default;
engine_fixture::~engine_fixture() = default;

void engine_fixture::SetUp() {
    ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE), zon_error_none);
    ASSERT_EQ(zon_init(parameters.max_flows, parameters.pre_flow_timer, parameters.min_init_flows,
                       parameters.max_threads, parameters.max_bucket_depth,
                       parameters.create_chunk_elements, parameters.max_mem_buffer_init),
              zon_error_none);
    if (parameters.timers) {
        ASSERT_TRUE(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                      &g_zon->zon_timer_process_create));
    }
    ASSERT_EQ(zon_client_feature_register(&client), zon_error_none);
    if (parameters.capabilities != 0)
        enable(parameters.capabilities);
}

void engine_fixture::TearDown() {
    if (g_zon != nullptr)
        destroy_engine();
    EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
}

void engine_fixture::destroy_engine() {
    delete_all_flows();
    bring_back_from_lanes();
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0u)
        << "half flows are left in the flow table";
    EXPECT_EQ(flows_in_use(), 0u) << "flows are left";
    EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr), lost_on_purpose) << "records leaked";
    if (!usage_may_drift) {
        EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 0u)
            << "IPv4 half flows leaked";
        EXPECT_EQ(g_zon->memory_usage_stats.ipv6_half_flow_alloc_count, 0u)
            << "IPv6 half flows leaked";
        EXPECT_EQ(g_zon->memory_usage_stats.super_context_alloc_count, 0u)
            << "super contexts leaked";
        EXPECT_EQ(g_zon->memory_usage_stats.list_element_alloc_count, 0u) << "list elements leaked";
    }
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(g_zon, nullptr);
}

void engine_fixture::enable(int32_t capabilities) {
    ASSERT_EQ(
        zon_client_enable_engine_capability(client, static_cast<zon_capability_e>(capabilities)),
        zon_error_none);
}

void engine_fixture::disable(int32_t capabilities) {
    ASSERT_EQ(
        zon_client_disable_engine_capability(client, static_cast<zon_capability_e>(capabilities)),
        zon_error_none);
}

void engine_fixture::delete_all_flows() {
    for (zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr; flow = flow->next_flow)
        zon_delete_flow_tamonet(flow->fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
}

void engine_fixture::advance_ms(uint64_t by_ms) {
    ASSERT_EQ(zon_clock_advance_us(by_ms * 1000), zon_error_none);
}

packet_result engine_fixture::handle(const bytes& packet, uint32_t vrf_id) {
    packet_result result;
    result.packet = packet;
    result.fid = zon_handle_packet(result.packet.data(), vrf_id, nullptr, &result.indications,
                                   &result.error);
    return result;
}

packet_result engine_fixture::handle(const packet_builder& packet, uint32_t vrf_id) {
    return handle(packet.build(), vrf_id);
}

packet_result engine_fixture::handle_captured(const bytes& packet, uint32_t vrf_id) {
    packet_result result;
    result.packet = packet;
    result.fid =
        zon_handle_captured_packet(result.packet.data(), static_cast<uint32_t>(packet.size()),
                                   vrf_id, nullptr, &result.indications, &result.error);
    return result;
}

}  // namespace zon_test

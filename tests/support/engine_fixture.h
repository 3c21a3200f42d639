// engine_fixture.h - a fresh engine for each test: its clock is turned by hand, a client has
// enabled capabilities, and at the end every flow is deleted and nothing may be left: no flow, no
// half flow in the table, and no record of a half flow, feature object or super context in use.
//
// A fixture of a test derives from engine_fixture and changes what it needs before SetUp, in its
// constructor:
//
//   class small_table : public zon_test::engine_fixture {
//   protected:
//       small_table() { parameters.max_flows = 8; }
//   };

#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "support/flow_reader.h"
#include "support/lanes.h"
#include "support/packet_builder.h"
#include "support/record_census.h"
#include "zon.h"
#include "zon_flow_table.h"

namespace zon_test {

struct engine_parameters {
    uint32_t max_flows = 1000;
    uint32_t pre_flow_timer = 10000;
    uint32_t min_init_flows = 10;
    uint32_t max_threads = 10;
    uint8_t max_bucket_depth = 0;
    uint32_t create_chunk_elements = 16;
    uint32_t max_mem_buffer_init = 10;
    // Everything but the TCP state checks and the bypass callbacks; 0 registers the client and
    // enables nothing.
    int32_t capabilities = ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP |
                           ZON_CAPABILITY_ENABLE_ICMP | ZON_CAPABILITY_ENABLE_IPV6INIP |
                           ZON_CAPABILITY_ENABLE_TEREDO;
    // Creates the timer wheel, so that flows age when the clock is turned.
    bool timers = true;
};

// What one packet came back with.
struct packet_result {
    zon_fid_t fid = 0;
    zon_error_t error = zon_error_none;
    zon_pkt_indications_t indications{};
    bytes packet;  // the bytes that l3_start, l4_start and l7_start point into
};

class engine_fixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE), zon_error_none);
        ASSERT_EQ(
            zon_init(parameters.max_flows, parameters.pre_flow_timer, parameters.min_init_flows,
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

    void TearDown() override {
        if (g_zon != nullptr)
            destroy_engine();
        EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
    }

    void destroy_engine() {
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
            EXPECT_EQ(g_zon->memory_usage_stats.list_element_alloc_count, 0u)
                << "list elements leaked";
        }
        EXPECT_EQ(zon_destroy(), zon_error_none);
        EXPECT_EQ(g_zon, nullptr);
    }

    void enable(int32_t capabilities) {
        ASSERT_EQ(zon_client_enable_engine_capability(client,
                                                      static_cast<zon_capability_e>(capabilities)),
                  zon_error_none);
    }
    void disable(int32_t capabilities) {
        ASSERT_EQ(zon_client_disable_engine_capability(client,
                                                       static_cast<zon_capability_e>(capabilities)),
                  zon_error_none);
    }

    static void delete_all_flows() {
        for (zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr; flow = flow->next_flow)
            zon_delete_flow_tamonet(flow->fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    }

    static void advance_ms(uint64_t by_ms) {
        ASSERT_EQ(zon_clock_advance_us(by_ms * 1000), zon_error_none);
    }
    static void advance_sec(uint64_t by_sec) { advance_ms(by_sec * 1000); }

    // Hands a packet in through the entry that trusts it, and through the one that knows how much
    // was captured.
    static packet_result handle(const bytes& packet, uint32_t vrf_id = 0) {
        packet_result result;
        result.packet = packet;
        result.fid = zon_handle_packet(result.packet.data(), vrf_id, nullptr, &result.indications,
                                       &result.error);
        return result;
    }
    static packet_result handle(const packet_builder& packet, uint32_t vrf_id = 0) {
        return handle(packet.build(), vrf_id);
    }
    static packet_result handle_captured(const bytes& packet, uint32_t vrf_id = 0) {
        packet_result result;
        result.packet = packet;
        result.fid =
            zon_handle_captured_packet(result.packet.data(), static_cast<uint32_t>(packet.size()),
                                       vrf_id, nullptr, &result.indications, &result.error);
        return result;
    }

    engine_parameters parameters;
    zon_client_id_e client = 0;
    // For tests that fail an allocation on purpose: the usage counters count the attempt.
    bool usage_may_drift = false;
    // For tests that keep a record from its way back.
    records_in_use lost_on_purpose;
};

}  // namespace zon_test

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
    engine_fixture();
    ~engine_fixture() override;

    void SetUp() override;
    void TearDown() override;
    void destroy_engine();

    void enable(int32_t capabilities);
    void disable(int32_t capabilities);

    static void delete_all_flows();

    static void advance_ms(uint64_t by_ms);
    static void advance_sec(uint64_t by_sec) { advance_ms(by_sec * 1000); }

    // Hands a packet in through the entry that trusts it, and through the one that knows how much
    // was captured.
    static packet_result handle(const bytes& packet, uint32_t vrf_id = 0);
    static packet_result handle(const packet_builder& packet, uint32_t vrf_id = 0);
    static packet_result handle_captured(const bytes& packet, uint32_t vrf_id = 0);

    engine_parameters parameters;
    zon_client_id_e client = 0;
    // For tests that fail an allocation on purpose: the usage counters count the attempt.
    bool usage_may_drift = false;
    // For tests that keep a record from its way back.
    records_in_use lost_on_purpose;
};

}  // namespace zon_test

// flow_record_test.cpp - what packets add to a record, and the texts of addresses.
#include "flows/flow_record.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using namespace zonflow;

TEST(flow_record, keeps_the_earliest_and_the_latest_time_when_time_stamps_run_backwards) {
    flow_record record;
    for (const uint64_t time_us : {500u, 900u, 100u, 700u}) {
        add_packet(record, {.time_us = time_us});
    }
    EXPECT_EQ(record.first_seen_us, 100u);
    EXPECT_EQ(record.last_seen_us, 900u);
}

TEST(flow_record, counts_each_direction_apart) {
    flow_record record;
    add_packet(record,
               {.ip_bytes = 60, .payload_bytes = 20, .tcp_flags = 0x02, .from_initiator = true});
    add_packet(record, {.ip_bytes = 40, .payload_bytes = 5, .tcp_flags = 0x12});
    add_packet(record, {.ip_bytes = 100, .from_initiator = true, .later_fragment = true});
    EXPECT_EQ(record.packets(), 3u);
    EXPECT_EQ(record.initiator.packets, 2u);
    EXPECT_EQ(record.initiator.ip_bytes, 160u);
    EXPECT_EQ(record.initiator.payload_bytes, 20u);
    EXPECT_EQ(record.initiator.tcp_flags, 0x02);
    EXPECT_EQ(record.responder.ip_bytes, 40u);
    EXPECT_EQ(record.responder.tcp_flags, 0x12);
    EXPECT_EQ(record.later_fragments, 1u);
}

// ---- how a flow ended -------------------------------------------------------------------------

constexpr uint8_t fin = 0x01, rst = 0x04, ack = 0x10;

struct end_step {
    bool from_initiator;
    uint8_t tcp_flags;
    zon_tcp_state_t state_after;
    bool later_fragment = false;
};

struct end_case {
    const char* name;
    std::vector<end_step> steps;
    zon_flow_deletion_reason_e reason;
    const char* end;
};

class flow_ends : public testing::TestWithParam<end_case> {};

TEST_P(flow_ends, follow_from_flags_and_state) {
    flow_record record;
    for (const end_step& step : GetParam().steps) {
        const packet_facts packet{.tcp_flags = step.tcp_flags,
                                  .from_initiator = step.from_initiator,
                                  .later_fragment = step.later_fragment};
        add_packet(record, packet);
        note_states(record, ZON_L4_BI_ESTABLISHED, step.state_after, packet);
    }
    record.end_reason = GetParam().reason;
    EXPECT_STREQ(end_name(record), GetParam().end);
}

constexpr auto idle = ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT;
constexpr auto capture_ended = ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED;

const end_case end_cases[] = {
    {"idle", {{true, ack, ZON_TCP_ESTAB}}, idle, "idle"},
    {"open", {{true, ack, ZON_TCP_ESTAB}}, capture_ended, "open"},
    {"another_reason",
     {{true, ack, ZON_TCP_ESTAB}},
     ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE,
     "other"},
    {"one_fin_only", {{true, fin | ack, ZON_TCP_CLOSEWAIT}}, idle, "idle"},
    {"two_fins_of_one_side",
     {{true, fin | ack, ZON_TCP_CLOSEWAIT}, {true, fin | ack, ZON_TCP_CLOSEWAIT}},
     capture_ended,
     "open"},
    {"both_fins_and_no_last_acknowledgement",
     {{true, fin | ack, ZON_TCP_CLOSEWAIT}, {false, fin | ack, ZON_TCP_LASTACK}},
     idle,
     "closed"},
    {"both_fins_of_a_connection_that_was_not_seen_to_begin",
     {{false, fin | ack, ZON_TCP_SYNSENT}, {true, fin | ack, ZON_TCP_SYNSENT}},
     idle,
     "closed"},
    {"closed_by_the_last_acknowledgement",
     {{true, fin | ack, ZON_TCP_CLOSEWAIT},
      {false, fin | ack, ZON_TCP_LASTACK},
      {true, ack, ZON_TCP_TIMEWAIT}},
     capture_ended,
     "closed"},
    {"reset", {{true, ack, ZON_TCP_ESTAB}, {false, rst, ZON_TCP_TIMEWAIT}}, idle, "reset"},
    {"reset_and_then_more",
     {{false, rst, ZON_TCP_TIMEWAIT}, {true, ack, ZON_TCP_TIMEWAIT}},
     capture_ended,
     "reset"},
    {"a_reset_after_the_close",
     {{true, fin | ack, ZON_TCP_CLOSEWAIT},
      {false, fin | ack, ZON_TCP_LASTACK},
      {true, ack, ZON_TCP_TIMEWAIT},
      {true, rst, ZON_TCP_TIMEWAIT}},
     idle,
     "closed"},
    {"a_last_reset_that_the_engine_does_not_believe",
     {{true, rst, ZON_TCP_SYNSENT}},
     idle,
     "reset"},
    {"a_reset_that_the_connection_survived",
     {{true, rst, ZON_TCP_ESTAB}, {false, ack, ZON_TCP_ESTAB}},
     idle,
     "idle"},
    {"a_last_reset_before_a_later_fragment",
     {{true, rst, ZON_TCP_SYNSENT}, {true, 0, ZON_TCP_SYNSENT, true}},
     idle,
     "reset"},
};

INSTANTIATE_TEST_SUITE_P(flow_record, flow_ends, testing::ValuesIn(end_cases),
                         [](const auto& row) { return row.param.name; });

TEST(flow_record, shows_ipv4_addresses_from_host_order) {
    zon_ip_addr_t address{};
    address.u.v4_addr = 0xc0000201;
    EXPECT_EQ(address_text(address, 4), "192.0.2.1");
}

TEST(flow_record, shows_ipv6_addresses_from_host_order_words) {
    zon_ip_addr_t address{};
    const uint32_t words[4] = {0x20010db8, 0, 0, 0x00000001};
    std::memcpy(address.u.v6_addr, words, sizeof(words));
    EXPECT_EQ(address_text(address, 6), "2001:db8::1");
}

TEST(flow_record, names_every_reason_and_tunnel) {
    EXPECT_STREQ(end_reason_name(ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT), "inactive_timeout");
    EXPECT_STREQ(end_reason_name(ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED), "flows_destroyed");
    EXPECT_STREQ(end_reason_name(static_cast<zon_flow_deletion_reason_e>(6)), "unknown");
    EXPECT_STREQ(tunnel_name(ZON_TUNNEL_TYPE_NONE), "none");
    EXPECT_STREQ(tunnel_name(ZON_TUNNEL_TYPE_IPV6INIP), "ipv6inip");
    EXPECT_STREQ(tunnel_name(ZON_TUNNEL_TYPE_TEREDO), "teredo");
}

}  // namespace

// flow_record_test.cpp - what packets add to a record, and the texts of addresses.
#include "flows/flow_record.h"

#include <gtest/gtest.h>

#include <cstring>

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

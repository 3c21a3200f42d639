// zon_creation_race_test.cpp - two packets of one connection want its flow at the same time: the
// second is given the flow of the first, also behind a NAT and with the last free place.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <utility>

#include "support/engine_call.h"
#include "support/engine_fixture.h"
#include "support/nat_host.h"
#include "support/table_census.h"

namespace {

using namespace zon_test;

packet_builder from_client() {
    return packet_builder::ipv4("10.0.0.1", "198.51.100.7").udp(1000, 53);
}

// What the next pre-create callback does in the middle of a packet whose key was not found.
std::function<void()> meanwhile;
bool run_meanwhile(void*, zon_client_id_e) {
    if (const auto action = std::exchange(meanwhile, nullptr))
        action();
    return true;
}

class overtaken_packet : public engine_fixture {
protected:
    void SetUp() override {
        engine_fixture::SetUp();
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, run_meanwhile), zon_error_none);
    }
    void TearDown() override {
        meanwhile = nullptr;
        EXPECT_TRUE(no_lock_is_held());
        engine_fixture::TearDown();
    }

    // Hands a packet in and, when it has missed, another one of the same connection.
    static void expect_one_flow(const packet_builder& overtaking, bool same_direction) {
        zon_fid_t first = 0;
        meanwhile = [&] { first = engine_call(overtaking).run(); };
        engine_call call(from_client());
        const zon_fid_t fid = call.run();
        EXPECT_NE(first, 0U);
        EXPECT_EQ(fid, first);
        EXPECT_EQ(call.error, zon_error_none);
        EXPECT_EQ(call.seen.fif, 0);
        EXPECT_EQ(call.seen.flow_pkt_count, 2U);
        EXPECT_EQ(call.seen.is_initiator, same_direction);
        expect_key_of_packet(call);
        EXPECT_EQ(flows_in_use(), 1U);
        EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2U);
        EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0U);
        expect_sound_tables();
    }
    static void expect_key_of_packet(engine_call& call) {
        engine_call fresh(call.packet);
        EXPECT_EQ(std::memcmp(call.key(), fresh.key(), sizeof(zon_ipv4_half_flow_t)), 0)
            << "the scratch key is the packet's own";
    }
};

// ---- NAT ----

// The lookup that finds the other packet's flow runs under the packet's own addresses, not under
// the translated ones that the attempt left behind.
TEST_F(overtaken_packet, behind_a_nat_finds_the_flow_that_was_made_meanwhile) {
    nat_host nat(0xC0000201, 6000);
    expect_one_flow(from_client(), true);
    EXPECT_EQ(nat.calls, 2) << "both packets were translated";
    const zon_flow_t* flow = record_of(1) != nullptr ? record_of(1) : record_of(2);
    const zon_ipv4_key_t& initiator = *zon_full_key<ipv4_family>(flow->initiator_flow);
    EXPECT_EQ(initiator.src_ip, ipv4_address("10.0.0.1").value);
    EXPECT_EQ(initiator.src_port, 1000U);
    const zon_ipv4_key_t& responder = *zon_full_key<ipv4_family>(flow->responder_flow);
    EXPECT_EQ(responder.dst_ip, 0xC0000201U);
    EXPECT_EQ(responder.dst_port, 6000U);
    engine_call reply(packet_builder::ipv4("198.51.100.7", "192.0.2.1").udp(53, 6000));
    EXPECT_EQ(reply.run(), flow->fid);
}

TEST_F(overtaken_packet, finds_a_flow_that_a_reply_made_meanwhile) {
    expect_one_flow(from_client().reversed(), false);
}

// ---- announcements ----

class overtaken_by_an_announcement : public overtaken_packet,
                                     public ::testing::WithParamInterface<zon_flow_tuple_type_t> {};

TEST_P(overtaken_by_an_announcement, promotes_it) {
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    tuple.src_ip.u.v4_addr = ipv4_address("10.0.0.1").value;
    tuple.dst_ip.u.v4_addr = ipv4_address("198.51.100.7").value;
    tuple.src_port = 1000;
    tuple.dst_port = 53;
    tuple.l4_protocol = 17;
    zon_fid_t announced = 0;
    meanwhile = [&] {
        EXPECT_EQ(zon_pre_flow_add(GetParam(), &tuple, 0, &announced, nullptr), zon_error_none);
    };
    engine_call call(from_client());
    EXPECT_EQ(call.run(), announced);
    EXPECT_NE(announced, 0U);
    EXPECT_EQ(call.seen.was_promoted, 1);
    expect_key_of_packet(call);
    EXPECT_EQ(flows_in_use(), 1U);
    expect_sound_tables();
}

INSTANTIATE_TEST_SUITE_P(of_all_four_words, overtaken_by_an_announcement,
                         ::testing::Values(ZON_FLOW_TUPLE_TYPE_COMPLETE,
                                           ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN),
                         [](const auto& row) {
                             return row.param == ZON_FLOW_TUPLE_TYPE_COMPLETE ? "complete"
                                                                              : "any_vrf";
                         });

// ---- the last free place ----

class overtaken_in_a_full_table : public overtaken_packet {
protected:
    overtaken_in_a_full_table() {
        parameters.max_flows = 1;
        parameters.min_init_flows = 1;
    }
};

TEST_F(overtaken_in_a_full_table, takes_the_flow_that_took_the_last_record) {
    expect_one_flow(from_client(), true);
}

TEST_F(overtaken_in_a_full_table, takes_the_flow_that_a_reply_made_with_the_last_record) {
    expect_one_flow(from_client().reversed(), false);
}

TEST_F(overtaken_in_a_full_table, takes_it_behind_a_nat_too) {
    nat_host nat(0xC0000201, 6000);
    expect_one_flow(from_client(), true);
}

TEST_F(overtaken_in_a_full_table, is_refused_when_another_connection_took_the_last_record) {
    zon_fid_t first = 0;
    meanwhile = [&] {
        first = engine_call(packet_builder::ipv4("10.0.0.9", "198.51.100.7").udp(1000, 53)).run();
    };
    engine_call call(from_client());
    EXPECT_EQ(call.run(), 0U);
    EXPECT_NE(first, 0U);
    EXPECT_EQ(call.error, zon_error_memory);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 1U);
    expect_sound_tables();
}

class overtaken_in_a_full_bucket : public overtaken_packet {
protected:
    overtaken_in_a_full_bucket() {
        parameters.max_flows = 107;
        parameters.max_bucket_depth = 1;
    }
};

TEST_F(overtaken_in_a_full_bucket, takes_the_flow_that_filled_the_bucket) {
    expect_one_flow(from_client(), true);
}

TEST_F(overtaken_in_a_full_bucket, takes_the_flow_that_a_reply_filled_the_bucket_with) {
    expect_one_flow(from_client().reversed(), false);
}

TEST_F(overtaken_in_a_full_bucket, takes_it_behind_a_nat_too) {
    nat_host nat(0xC0000201, 6000);
    expect_one_flow(from_client(), true);
}

}  // namespace

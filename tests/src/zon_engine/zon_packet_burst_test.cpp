// zon_packet_burst_test.cpp - what clients' functions do in the midst of a burst holds for the
// packets behind it.

#include <gtest/gtest.h>

#include <vector>

#include "support/engine_fixture.h"

using namespace zon_test;

namespace {

zon_client_id_e acting_client = 0;
bool acts_once = false;
zon_pkt_indications_t seen_inside{};

const bytes& packet_of_flow() {
    static const bytes packet =
        packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80).flags(tcp_ack).build();
    return packet;
}

void switch_tcp_off(uint32_t, bool, bool, bool, uint32_t*) {
    zon_client_disable_engine_capability(acting_client, ZON_CAPABILITY_ENABLE_TCP);
}

void hand_in_another(uint32_t, bool, bool, bool, uint32_t*) {
    if (!std::exchange(acts_once, false))
        return;
    bytes packet = packet_of_flow();
    zon_error_t error{};
    zon_handle_packet(packet.data(), 0, nullptr, &seen_inside, &error);
}

class bursts_with_clients : public engine_fixture {
protected:
    bursts_with_clients() { parameters.capabilities |= ZON_CAPABILITY_ENABLE_CLIENT_BYPASS; }
    void SetUp() override {
        engine_fixture::SetUp();
        acting_client = client;
        acts_once = true;
        fid = handle(packet_of_flow()).fid;
        ASSERT_NE(fid, 0U);
    }

    struct row {
        explicit row(size_t count) : contents(count, packet_of_flow()), seen(count) {
            for (size_t i = 0; i < count; ++i)
                packets.push_back({contents[i].data(), static_cast<uint32_t>(contents[i].size()), 0,
                                   nullptr, &seen[i], zon_error_end, 99});
        }
        uint32_t hand_in() {
            return zon_handle_packet_burst(packets.data(), static_cast<uint32_t>(packets.size()));
        }
        std::vector<bytes> contents;
        std::vector<zon_pkt_indications_t> seen;
        std::vector<zon_burst_packet_t> packets;
    };

    zon_fid_t fid = 0;
};

}  // namespace

TEST_F(bursts_with_clients, leave_out_what_a_bypass_function_switched_off) {
    zon_client_register_bypass_cb(client, switch_tcp_off);
    row burst(3);
    EXPECT_EQ(burst.hand_in(), 1U);
    EXPECT_EQ(burst.packets[0].fid, fid);
    for (const size_t later : {1U, 2U}) {
        EXPECT_EQ(burst.packets[later].fid, 0U) << "packet " << later;
        EXPECT_EQ(burst.packets[later].error, zon_error_none) << "packet " << later;
        EXPECT_EQ(burst.seen[later].packet_seen, 1) << "packet " << later;
    }
}

TEST_F(bursts_with_clients, take_packets_in_their_order_across_groups) {
    row burst(100);
    EXPECT_EQ(burst.hand_in(), 100U);
    for (uint32_t i = 0; i < 100; ++i)
        EXPECT_EQ(burst.seen[i].flow_pkt_count, i + 2);
}

// A packet that a client hands in from inside of another one comes behind it.
TEST_F(bursts_with_clients, number_a_packet_before_those_that_it_causes) {
    zon_client_register_bypass_cb(client, hand_in_another);
    row burst(2);
    EXPECT_EQ(burst.hand_in(), 2U);
    EXPECT_EQ(burst.seen[0].flow_pkt_count, 2U);
    EXPECT_EQ(seen_inside.flow_pkt_count, 3U);
    EXPECT_EQ(burst.seen[1].flow_pkt_count, 4U);
}

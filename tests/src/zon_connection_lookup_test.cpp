// zon_connection_lookup_test.cpp - packets find through the index what a search of the chains
// finds, whatever hosts and clients do to keys.

#include "zon_connection_lookup.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <random>
#include <string>

#include "support/deletion_halfway.h"
#include "support/engine_call.h"
#include "support/engine_fixture.h"
#include "support/index_oracle.h"
#include "support/nat_host.h"

namespace {

using namespace zon_test;

zon_flow_tuple_t tuple_between(uint32_t source, uint16_t source_port, uint32_t destination,
                               uint16_t destination_port, uint32_t vrf_id = 0) {
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    tuple.src_ip.u.v4_addr = source;
    tuple.dst_ip.u.v4_addr = destination;
    tuple.src_port = source_port;
    tuple.dst_port = destination_port;
    tuple.vrf_id = vrf_id;
    tuple.l4_protocol = ZON_UDP_PROT;
    return tuple;
}

constexpr uint32_t host_a = 0x0A000001, host_b = 0x0A000002, host_c = 0x0A000003;

bytes datagram(uint32_t source, uint16_t source_port, uint32_t destination,
               uint16_t destination_port) {
    return packet_builder::ipv4(source, destination)
        .udp(source_port, destination_port)
        .payload(4)
        .build();
}

class flows_in_index : public engine_fixture {
protected:
    void TearDown() override {
        EXPECT_EQ(look_at_index().difference, "");
        engine_fixture::TearDown();
    }

    static zon_fid_t send(uint32_t source, uint16_t source_port, uint32_t destination,
                          uint16_t destination_port, uint32_t vrf_id = 0) {
        return handle(datagram(source, source_port, destination, destination_port), vrf_id).fid;
    }
    static zon_fid_t forth(uint32_t vrf_id = 0) { return send(host_a, 1000, host_b, 53, vrf_id); }
    static zon_fid_t back(uint32_t vrf_id = 0) { return send(host_b, 53, host_a, 1000, vrf_id); }

    static bool is_named(zon_fid_t fid) {
        EXPECT_EQ(look_at_index().difference, "");
        return zon_test::record_of(fid)->private_indexed != 0 &&
               index_of(g_zon->flow_tbl)
                       .find(::record_of(zon_test::record_of(fid))->connection_hash)
                       .flow == zon_test::record_of(fid);
    }
    static void move_to_vrf(zon_fid_t fid, uint32_t vrf_id) {
        zon_flow_update_vrf(fid, vrf_id);
        zon_unlock_flow_tamonet(zon_test::record_of(fid));
    }
    static zon_fid_t announce(zon_flow_tuple_type_t type, const zon_flow_tuple_t& tuple) {
        zon_fid_t fid = 0;
        EXPECT_EQ(zon_pre_flow_add(type, &tuple, 0, &fid, nullptr), zon_error_none);
        return fid;
    }
};

class shallow_buckets : public flows_in_index {
protected:
    shallow_buckets() {
        parameters.max_flows = 13;
        parameters.max_bucket_depth = 1;
    }
};

}  // namespace

// The line of forth() and back(), with no room left: other tags, so that nobody takes them for
// flows.
class full_line {
public:
    full_line() : hash_(hash_of_forth() ^ uint64_t{1} << 60) {
        while (index_of(g_zon->flow_tbl).put(hash_, nobody()))
            ++names_;
    }
    ~full_line() {
        for (; names_ != 0; --names_)
            index_of(g_zon->flow_tbl).remove(hash_, nobody());
    }
    full_line(const full_line&) = delete;
    full_line& operator=(const full_line&) = delete;

    static uint64_t hash_of_forth() {
        return index_of(g_zon->flow_tbl)
            .hash_of(connection_of(host_a, host_b, 1000, 53, ZON_UDP_PROT, 0));
    }

private:
    static zon_flow_t* nobody() { return reinterpret_cast<zon_flow_t*>(uintptr_t{64}); }

    uint64_t hash_;
    int names_ = 0;
};

TEST_F(flows_in_index, get_their_place_once_there_is_room) {
    zon_fid_t fid = 0;
    {
        const full_line full;
        fid = forth();
        EXPECT_EQ(back(), fid) << "found by a search";
        EXPECT_EQ(zon_test::record_of(fid)->private_indexed, 0);
    }
    EXPECT_EQ(back(), fid);
    EXPECT_TRUE(is_named(fid));
}

TEST_F(flows_in_index, get_back_a_name_that_was_taken_for_another_ones) {
    const zon_fid_t fid = forth();
    ASSERT_TRUE(is_named(fid));
    index_of(g_zon->flow_tbl).remove_all(full_line::hash_of_forth());
    EXPECT_FALSE(is_named(fid));
    EXPECT_EQ(back(), fid);
    EXPECT_TRUE(is_named(fid));
}

TEST_F(flows_in_index, are_named_from_their_first_packet_to_their_deletion) {
    const zon_fid_t fid = forth();
    EXPECT_TRUE(is_named(fid));
    EXPECT_EQ(back(), fid);
    EXPECT_EQ(look_at_index().named, 6u) << "two half flows and the record, both ways each";
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(look_at_index().named, 0u);
}

TEST_F(flows_in_index, are_named_of_either_family_and_protocol) {
    for (const packet_builder& ends : {packet_builder::ipv4(host_a, host_b),
                                       packet_builder::ipv6("2001:db8::1", "2001:db8::2")}) {
        const zon_fid_t of_udp = handle(packet_builder(ends).udp(1000, 53)).fid;
        const zon_fid_t of_tcp = handle(packet_builder(ends).tcp(1000, 53).flags(tcp_syn)).fid;
        EXPECT_NE(of_udp, of_tcp);
        EXPECT_TRUE(is_named(of_udp));
        EXPECT_TRUE(is_named(of_tcp));
    }
}

TEST_F(flows_in_index, with_equal_ends_are_left_to_the_chain) {
    const zon_fid_t fid = send(host_a, 7, host_a, 7);
    EXPECT_FALSE(is_named(fid));
    EXPECT_EQ(send(host_a, 7, host_a, 7), fid);
}

TEST_F(flows_in_index, between_ports_of_one_host_are_named) {
    const zon_fid_t fid = send(host_a, 7, host_a, 8);
    EXPECT_TRUE(is_named(fid));
    EXPECT_EQ(send(host_a, 8, host_a, 7), fid);
}

// The responder's side of a translated flow may be another flow's reply.
TEST_F(flows_in_index, lose_their_name_to_a_translated_flow_that_shares_the_reply) {
    const zon_fid_t plain = forth();
    const nat_host gateway(host_a, 1000);
    const zon_fid_t translated = send(host_c, 9, host_b, 53);
    EXPECT_NE(translated, plain);
    EXPECT_FALSE(is_named(translated)) << "its sides are of two connections";
    EXPECT_EQ(back(), translated) << "the newest flow of the reply's key";
    EXPECT_EQ(forth(), plain);
    zon_delete_flow_tamonet(translated, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(back(), plain);
}

TEST_F(flows_in_index, go_with_the_keys_of_either_side_and_come_back_with_them) {
    const zon_fid_t fid = forth();
    const zon_flow_tuple_t elsewhere = tuple_between(host_c, 1000, host_b, 53);
    ASSERT_EQ(zon_flow_update_initiator(fid, &elsewhere), zon_error_none);
    EXPECT_FALSE(is_named(fid)) << "its sides are of two connections";
    EXPECT_EQ(send(host_c, 1000, host_b, 53), fid);
    EXPECT_EQ(back(), fid);
    const zon_fid_t other = forth();
    EXPECT_NE(other, fid);
    EXPECT_TRUE(is_named(other));

    const zon_flow_tuple_t reply = tuple_between(host_b, 53, host_c, 1000);
    ASSERT_EQ(zon_flow_update_responder(fid, &reply), zon_error_none);
    EXPECT_TRUE(is_named(fid)) << "both sides have moved";
    const zon_flow_tuple_t home = tuple_between(host_a, 1000, host_b, 53);
    const zon_flow_tuple_t home_reply = tuple_between(host_b, 53, host_a, 1000);
    ASSERT_EQ(zon_flow_update_initiator(fid, &home), zon_error_none);
    EXPECT_EQ(forth(), fid) << "the newest flow of the key";
    EXPECT_EQ(back(), other);
    ASSERT_EQ(zon_flow_update_responder(fid, &home_reply), zon_error_none);
    EXPECT_TRUE(is_named(fid));
    EXPECT_FALSE(is_named(other));
    EXPECT_EQ(forth(), fid);
    EXPECT_EQ(back(), fid);
}

TEST_F(flows_in_index, move_to_the_vrf_of_another_flow_and_back) {
    const zon_fid_t first = forth(1);
    const zon_fid_t second = forth(2);
    move_to_vrf(first, 2);
    // Half flows stay where they are in their chains: the later flow is still the newest.
    EXPECT_EQ(forth(2), second);
    EXPECT_EQ(back(2), second);
    EXPECT_EQ(look_at_index().difference, "");
    move_to_vrf(first, 1);
    EXPECT_TRUE(is_named(first));
    EXPECT_EQ(back(1), first);
    EXPECT_EQ(back(2), second);

    move_to_vrf(second, 1);
    EXPECT_EQ(forth(1), second);
    EXPECT_TRUE(is_named(second));
    EXPECT_FALSE(is_named(first));
    zon_delete_flow_tamonet(second, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(forth(1), first);
}

TEST_F(flows_in_index, are_named_when_their_announcement_comes_true) {
    const zon_flow_tuple_t whole = tuple_between(host_a, 1000, host_b, 53);
    const zon_fid_t in_place = announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, whole);
    EXPECT_FALSE(is_named(in_place));
    EXPECT_EQ(back(), in_place);
    EXPECT_TRUE(is_named(in_place));
    EXPECT_EQ(forth(), in_place);

    const zon_flow_tuple_t by_end = tuple_between(0, 0, host_b, 54);
    const zon_fid_t moved = announce(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, by_end);
    EXPECT_FALSE(is_named(moved));
    EXPECT_EQ(send(host_a, 1000, host_b, 54), moved);
    EXPECT_TRUE(is_named(moved));
    EXPECT_EQ(send(host_b, 54, host_a, 1000), moved);
}

// A hash that a host supplies leads to other buckets: such flows and such packets are no business
// of the index.
TEST_F(flows_in_index, of_hashed_packets_are_left_to_the_chain_and_so_are_their_packets) {
    const auto send_hashed = [](bytes packet, uint32_t hash) {
        zon_pkt_indications_t seen{};
        zon_error_t error{};
        seen.hash_valid = 1;
        seen.hash_value = hash;
        return zon_handle_packet(packet.data(), 0, nullptr, &seen, &error);
    };
    const bytes packet = datagram(host_a, 1000, host_b, 53);
    const bytes reply = datagram(host_b, 53, host_a, 1000);
    const zon_fid_t plain = forth();
    ASSERT_TRUE(is_named(plain));
    const uint32_t own_hash = hash_of_complete_key<ipv4_family>(
        *zon_full_key<ipv4_family>(zon_test::record_of(plain)->initiator_flow));

    const zon_fid_t hashed = send_hashed(packet, own_hash + 1);
    EXPECT_NE(hashed, plain) << "another bucket";
    EXPECT_FALSE(is_named(hashed));
    EXPECT_EQ(send_hashed(reply, own_hash + 1), hashed);
    EXPECT_EQ(forth(), plain);
    EXPECT_EQ(send_hashed(packet, own_hash), plain) << "the plain flow's own bucket";
    zon_delete_flow_tamonet(plain, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);

    const zon_fid_t in_own_bucket = send_hashed(packet, own_hash);
    EXPECT_NE(in_own_bucket, hashed);
    EXPECT_FALSE(is_named(in_own_bucket));
    EXPECT_EQ(forth(), in_own_bucket) << "a search through the bucket passes it";
}

// Hosts with parsers of their own may key by more than 16 bits.
TEST_F(flows_in_index, by_keys_beyond_those_of_packets_are_left_to_the_chain) {
    const zon_fid_t plain = forth();
    const bytes packet = datagram(host_a, 1000, host_b, 53);
    engine_call wide_port(packet);
    zon_full_key<ipv4_family>(wide_port.key())->src_port |= 0x10000;
    const zon_fid_t by_port = wide_port.run();
    engine_call wide_protocol(packet);
    wide_protocol.key()->key.l4_protocol |= 0x100;
    const zon_fid_t by_protocol = wide_protocol.run();
    EXPECT_NE(by_port, plain);
    EXPECT_NE(by_protocol, plain);
    EXPECT_NE(by_port, by_protocol);
    EXPECT_FALSE(is_named(by_port));
    EXPECT_FALSE(is_named(by_protocol));
    EXPECT_EQ(forth(), plain);
    EXPECT_EQ(back(), by_port) << "the keys of replies have 16 bits";
    engine_call again(packet);
    zon_full_key<ipv4_family>(again.key())->src_port |= 0x10000;
    EXPECT_EQ(again.run(), by_port);
}

TEST_F(flows_in_index, on_their_way_out_are_passed_over) {
    const zon_fid_t fid = forth();
    ASSERT_TRUE(is_named(fid));
    deletion_halfway stopped(fid);
    const zon_fid_t successor = forth();
    EXPECT_NE(successor, fid);
    EXPECT_EQ(back(), successor);
    EXPECT_EQ(look_at_index().difference, "");
    stopped.finish();
    EXPECT_EQ(forth(), successor);
    EXPECT_EQ(back(), successor);
}

// A side that a full bucket refused stays with its flow and out of the table.
TEST_F(shallow_buckets, give_sides_back_that_the_index_no_longer_leads_to) {
    int refused = 0;
    for (uint16_t port = 1; port <= 40; ++port) {
        const zon_fid_t fid = send(host_a, port, host_b, 53);
        if (fid == 0)
            continue;
        const zon_flow_tuple_t elsewhere = tuple_between(host_c, port, host_b, 53);
        refused += zon_flow_update_initiator(fid, &elsewhere) != zon_error_none;
        EXPECT_EQ(look_at_index().difference, "") << "port " << port;
        const zon_flow_tuple_t home = tuple_between(host_a, port, host_b, 53);
        zon_flow_update_initiator(fid, &home);
        EXPECT_EQ(look_at_index().difference, "") << "port " << port;
    }
    EXPECT_GT(refused, 0);
    usage_may_drift = true;
}

namespace {

// Everything that changes keys, at random, between few ends.
class keys_at_random : public engine_fixture, public ::testing::WithParamInterface<uint32_t> {
protected:
    static constexpr int steps = 4000;

    keys_at_random() {
        const uint32_t seed = GetParam();
        random.seed(seed);
        parameters.max_flows = seed % 3 == 0 ? 13 : 40;
        parameters.min_init_flows = 5;
        // Full buckets keep what they refuse.
        parameters.max_bucket_depth = seed % 4 == 1 ? 2 : 0;
        with_full_buckets = seed % 4 == 1;
    }
    void TearDown() override {
        delete_all_flows();
        usage_may_drift = true;
        EXPECT_EQ(zon_destroy(), zon_error_none);
        EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
    }

    uint32_t below(uint32_t end) { return static_cast<uint32_t>(random()) % end; }
    uint32_t host() { return host_a + below(3); }
    uint16_t port() { return static_cast<uint16_t>(1 + below(3)); }
    zon_fid_t some_fid() { return 1 + below(parameters.max_flows); }
    static ipv6_address as_ipv6(uint32_t of) {
        return std::array<uint32_t, 4>{0x20010db8, 0, of, of};
    }

    bytes some_packet() {
        const uint32_t source = host();
        const uint32_t destination = host();
        packet_builder packet = below(3) == 0
                                    ? packet_builder::ipv6(as_ipv6(source), as_ipv6(destination))
                                    : packet_builder::ipv4(source, destination);
        if (below(3) == 0)
            return packet.tcp(port(), port()).flags(tcp_ack).build();
        return packet.udp(port(), port()).build();
    }
    zon_flow_tuple_t some_tuple(bool ipv6) {
        const uint32_t source = host();
        const uint32_t destination = host();
        zon_flow_tuple_t tuple = tuple_between(source, port(), destination, port(), below(2));
        tuple.l4_protocol = below(3) == 0 ? 6 : 17;
        if (!ipv6)
            return tuple;
        tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV6;
        std::memcpy(tuple.src_ip.u.v6_addr, as_ipv6(source).words.data(), 16);
        std::memcpy(tuple.dst_ip.u.v6_addr, as_ipv6(destination).words.data(), 16);
        return tuple;
    }

    void packet() {
        zon_pkt_indications_t seen{};
        zon_error_t error{};
        bytes content = some_packet();
        if (below(12) == 0) {
            engine_call parsed(content);
            seen.hash_valid = 1;
            seen.hash_value = below(2) == 0 ? zon_hash_calc(parsed.key(), nullptr) : below(4);
        }
        std::optional<nat_host> gateway;
        if (below(10) == 0)
            gateway.emplace(host(), port());
        zon_handle_packet(content.data(), below(2), nullptr, &seen, &error);
    }
    void keyed_packet() {
        engine_call call(some_packet(), below(2));
        if (zon_key_is_ipv4(call.key()->key.key_type))
            zon_full_key<ipv4_family>(call.key())->dst_port |= below(2) << 16;
        call.key()->key.l4_protocol |= below(2) << 8;
        call.run();
    }
    void rekey() {
        const zon_fid_t fid = some_fid();
        const zon_flow_t* flow = zon_test::record_of(fid);
        if (flow == nullptr || flow->initiator_flow == nullptr)
            return;
        const zon_flow_tuple_t tuple =
            some_tuple(!zon_key_is_ipv4(flow->initiator_flow->key.key_type));
        zon_flow_tuple_t reply = tuple;
        std::swap(reply.src_ip, reply.dst_ip);
        std::swap(reply.src_port, reply.dst_port);
        const uint32_t sides = below(4);
        if (sides != 1)
            zon_flow_update_initiator(fid, &tuple);
        if (sides != 0)
            zon_flow_update_responder(fid, sides == 1 ? &tuple : &reply);
    }
    void move_vrf() {
        const zon_fid_t fid = some_fid();
        zon_flow_t* flow = zon_test::record_of(fid);
        if (flow == nullptr)
            return;
        zon_flow_update_vrf(fid, below(2));
        zon_unlock_flow_tamonet(flow);
    }
    void announce() {
        const zon_flow_tuple_t tuple = some_tuple(below(3) == 0);
        zon_fid_t fid = 0;
        zon_pre_flow_add(static_cast<zon_flow_tuple_type_t>(below(4)), &tuple, 0, &fid, nullptr);
    }
    const char* step() {
        switch (below(20)) {
        case 0:
            return rekey(), "re-keyed";
        case 1:
            return move_vrf(), "moved to another VRF";
        case 2:
            return announce(), "announced";
        case 3:
            return zon_delete_flow_tamonet(some_fid(), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST),
                   "deleted";
        case 4:
            return zon_clock_advance_us(below(3) * 1'000'000), "waited";
        case 5:
            return keyed_packet(), "keyed by the host";
        default:
            return packet(), "packet";
        }
    }

    std::mt19937 random;
    bool with_full_buckets = false;
};

}  // namespace

TEST_P(keys_at_random, lead_where_the_chains_lead) {
    size_t named = 0;
    size_t asked = 0;
    for (int i = 0; i < steps; ++i) {
        const char* what = step();
        const index_look look = look_at_index();
        ASSERT_EQ(look.difference, "") << "after step " << i << ", " << what;
        named += look.named;
        asked += look.asked;
    }
    EXPECT_GT(named, asked / 20) << "the index is of use";
    EXPECT_GT(asked, named) << "some connections are left to the chains";
}

INSTANTIATE_TEST_SUITE_P(seeds, keys_at_random, ::testing::Range(1u, 17u));

// zon_promotion_test.cpp - an announced flow becomes a real one with its first packet: which one,
// and with what keys.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "osal/zon_timer.h"
#include "support/captured_output.h"
#include "support/engine_call.h"
#include "support/engine_fixture.h"
#include "support/flow_reader.h"
#include "zon_flow_table_inline.h"

namespace {

using namespace zon_test;

// One connection, as announced and as seen on the wire.
struct family_row {
    const char* name;
    bool ipv6;
};

class announced_flow : public engine_fixture {
protected:
    void TearDown() override {
        zon_errlog = false;
        EXPECT_TRUE(no_lock_is_held());
        engine_fixture::TearDown();
    }

    static packet_builder packet(bool ipv6, uint16_t source_port = 40000) {
        const packet_builder built = ipv6 ? packet_builder::ipv6("2001:db8::1", "2001:db8::2")
                                          : packet_builder::ipv4("10.0.0.1", "10.0.0.2");
        return packet_builder(built).tcp(source_port, 80).flags(tcp_syn);
    }
    static zon_flow_tuple_t tuple(bool ipv6, uint32_t vrf_id = 0) {
        zon_flow_tuple_t made{};
        made.src_ip.addr_type = made.dst_ip.addr_type = ipv6 ? ZON_IP_ADDR_IPV6 : ZON_IP_ADDR_IPV4;
        if (ipv6) {
            std::memcpy(made.src_ip.u.v6_addr, ipv6_address("2001:db8::1").words.data(), 16);
            std::memcpy(made.dst_ip.u.v6_addr, ipv6_address("2001:db8::2").words.data(), 16);
        } else {
            made.src_ip.u.v4_addr = ipv4_address("10.0.0.1").value;
            made.dst_ip.u.v4_addr = ipv4_address("10.0.0.2").value;
        }
        made.src_port = 40000;
        made.dst_port = 80;
        made.vrf_id = vrf_id;
        made.l4_protocol = 6;
        return made;
    }
    static zon_fid_t announce(zon_flow_tuple_type_t type, const zon_flow_tuple_t& of,
                              zon_fid_t parent = 0) {
        zon_fid_t fid = 0;
        EXPECT_EQ(zon_pre_flow_add(type, &of, parent, &fid, nullptr), zon_error_none);
        EXPECT_NE(fid, 0U);
        return fid;
    }
    static uint32_t announced_keys() {
        uint32_t keys = 0;
        for (const uint32_t count : g_zon->flow_tbl->active_preflow_count)
            keys += count;
        return keys;
    }
    static uint32_t complete(bool ipv6) {
        return ipv6 ? ZON_IPV6_KEY_COMPLETE : ZON_IPV4_KEY_COMPLETE;
    }
};

// ---- order of probing ----

class probing : public announced_flow, public ::testing::WithParamInterface<family_row> {};

// Announcements that all answer to the packet are taken from the most specific on.
TEST_P(probing, takes_complete_then_any_vrf_then_destination_only_then_source_only) {
    const zon_flow_tuple_t of = tuple(GetParam().ipv6);
    const zon_fid_t source_only = announce(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, of);
    const zon_fid_t destination_only = announce(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, of);
    const zon_fid_t any_vrf = announce(ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, of);
    const zon_fid_t whole = announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, of);
    EXPECT_EQ(announced_keys(), 8U);
    for (const zon_fid_t expected : {whole, any_vrf, destination_only, source_only}) {
        engine_call call(packet(GetParam().ipv6));
        EXPECT_EQ(call.run(), expected);
        EXPECT_EQ(call.seen.was_promoted, 1);
        EXPECT_EQ(call.seen.fif, 1);
        EXPECT_EQ(call.seen.is_initiator, 1);
        EXPECT_EQ(call.seen.flow_pkt_count, 1U);
        EXPECT_EQ(call.error, zon_error_none);
        engine_call second(packet(GetParam().ipv6));
        EXPECT_EQ(second.run(), expected);
        EXPECT_EQ(second.seen.was_promoted, 0);
        EXPECT_EQ(second.seen.fif, 0);
        zon_delete_flow_tamonet(expected, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    }
    EXPECT_FALSE(zon_private_has_incomplete_inserts(g_zon->flow_tbl));
    engine_call last(packet(GetParam().ipv6));
    EXPECT_NE(last.run(), 0U);
    EXPECT_EQ(last.seen.was_promoted, 0);
}

TEST(probing_order, is_fixed_for_both_families) {
    EXPECT_EQ(std::vector<uint32_t>(std::begin(zon_incomplete_keys_ipv4),
                                    std::end(zon_incomplete_keys_ipv4)),
              (std::vector<uint32_t>{3, 4, 1, 2}));
    EXPECT_EQ(std::vector<uint32_t>(std::begin(zon_incomplete_keys_ipv6),
                                    std::end(zon_incomplete_keys_ipv6)),
              (std::vector<uint32_t>{8, 9, 6, 7}));
}

TEST_P(probing, passes_over_types_that_are_not_counted) {
    announce(ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, tuple(GetParam().ipv6));
    const zon_fid_t by_destination =
        announce(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, tuple(GetParam().ipv6));
    const uint32_t any_vrf = GetParam().ipv6 ? ZON_IPV6_KEY_VRF_STAR : ZON_IPV4_KEY_VRF_STAR;
    ASSERT_EQ(std::exchange(g_zon->flow_tbl->active_preflow_count[any_vrf], 0U), 2U);
    EXPECT_EQ(engine_call(packet(GetParam().ipv6)).run(), by_destination);
    g_zon->flow_tbl->active_preflow_count[any_vrf] = 2;
}

TEST_P(probing, goes_on_to_an_ordinary_flow_when_nothing_answers) {
    zon_flow_tuple_t other = tuple(GetParam().ipv6);
    other.dst_port = 81;
    other.src_port = 1;
    announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, other);
    announce(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, other);
    engine_call call(packet(GetParam().ipv6));
    const zon_fid_t fid = call.run();
    EXPECT_NE(fid, 0U);
    EXPECT_EQ(call.seen.was_promoted, 0);
    EXPECT_EQ(record_of(fid)->initiator_flow->key.key_type, complete(GetParam().ipv6));
    EXPECT_EQ(call.key()->key.key_type, complete(GetParam().ipv6));
    EXPECT_EQ(announced_keys(), 4U);
}

TEST_P(probing, does_not_answer_to_another_vrf_unless_the_vrf_is_open) {
    announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple(GetParam().ipv6));
    engine_call call(packet(GetParam().ipv6), 5);
    EXPECT_NE(call.run(), 0U);
    EXPECT_EQ(call.seen.was_promoted, 0);
    const zon_fid_t open = announce(ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, tuple(GetParam().ipv6));
    engine_call other(packet(GetParam().ipv6), 6);
    EXPECT_EQ(other.run(), open);
    EXPECT_EQ(record_of(open)->initiator_flow->key.vrf_id, 6U);
    EXPECT_EQ(record_of(open)->responder_flow->key.vrf_id, 6U);
}

// ---- keys after a promotion ----

struct promoted_row {
    const char* name;
    zon_flow_tuple_type_t type;
    bool in_place;
};
class promotion : public announced_flow,
                  public ::testing::WithParamInterface<std::tuple<promoted_row, family_row, bool>> {
protected:
    const promoted_row& row() const { return std::get<0>(GetParam()); }
    bool ipv6() const { return std::get<1>(GetParam()).ipv6; }
    // The packet may come from the side that was announced as the responder.
    bool turned() const { return std::get<2>(GetParam()); }
};

TEST_P(promotion, ends_with_complete_keys_of_the_packet_and_the_packets_sender_as_initiator) {
    const zon_fid_t fid = announce(row().type, tuple(ipv6()));
    zon_flow_t* flow = record_of(fid);
    const zon_half_flow_t* announced_initiator = flow->initiator_flow;
    const zon_half_flow_t* announced_responder = flow->responder_flow;
    zon_flow_table_statistics_clear(g_zon->flow_tbl);

    const packet_builder built = turned() ? packet(ipv6()).reversed() : packet(ipv6());
    engine_call call(built);
    EXPECT_EQ(call.run(), fid);
    EXPECT_EQ(call.seen.was_promoted, 1);
    EXPECT_EQ(call.seen.fif, 1);
    EXPECT_EQ(call.seen.is_initiator, 1);
    EXPECT_EQ(flow->initiator_flow, turned() ? announced_responder : announced_initiator);
    EXPECT_EQ(flow->responder_flow, turned() ? announced_initiator : announced_responder);

    engine_call wanted(built);
    const size_t size = ipv6() ? sizeof(zon_ipv6_key_t) : sizeof(zon_ipv4_key_t);
    EXPECT_EQ(std::memcmp(&flow->initiator_flow->key, &wanted.key()->key, size), 0);
    zon_swap_key(&wanted.key()->key);
    EXPECT_EQ(std::memcmp(&flow->responder_flow->key, &wanted.key()->key, size), 0);

    EXPECT_EQ(announced_keys(), 0U);
    EXPECT_FALSE(zon_private_has_incomplete_inserts(g_zon->flow_tbl));
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, row().in_place ? 0U : 2U);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, row().in_place ? 0U : 2U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2U);

    engine_call reply(built.reversed());
    EXPECT_EQ(reply.run(), fid);
    EXPECT_EQ(reply.seen.is_initiator, 0);
    EXPECT_EQ(flow->age_ms, 5000U) << "the idle time is chosen at the first packet";
    EXPECT_TRUE(zon_timer_running(&flow->timer));
}

INSTANTIATE_TEST_SUITE_P(
    rows, promotion,
    ::testing::Combine(
        ::testing::Values(
            promoted_row{"complete", ZON_FLOW_TUPLE_TYPE_COMPLETE, true},
            promoted_row{"any_vrf", ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, false},
            promoted_row{"destination_only", ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, false},
            promoted_row{"source_only", ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, false}),
        ::testing::Values(family_row{"ipv4", false}, family_row{"ipv6", true}), ::testing::Bool()),
    [](const auto& row) {
        return std::string(std::get<0>(row.param).name) + "_" + std::get<1>(row.param).name +
               (std::get<2>(row.param) ? "_turned" : "");
    });

INSTANTIATE_TEST_SUITE_P(families, probing,
                         ::testing::Values(family_row{"ipv4", false}, family_row{"ipv6", true}),
                         [](const auto& row) { return row.param.name; });

TEST_F(announced_flow, by_its_destination_answers_to_any_source_protocol_and_vrf) {
    const zon_fid_t fid = announce(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, tuple(false));
    engine_call call(packet_builder::ipv4("203.0.113.9", "10.0.0.2").udp(5, 80), 3);
    EXPECT_EQ(call.run(), fid);
    const zon_ipv4_key_t& key = *zon_full_key<ipv4_family>(record_of(fid)->initiator_flow);
    EXPECT_EQ(key.src_ip, ipv4_address("203.0.113.9").value);
    EXPECT_EQ(key.l4_protocol, 17U);
    EXPECT_EQ(key.vrf_id, 3U);
}

TEST_F(announced_flow, takes_the_idle_time_of_its_first_packet) {
    const zon_fid_t fid = announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple(false));
    advance_sec(8);  // of the 10 that an announcement has
    engine_call(packet(false)).run();
    advance_sec(4);
    EXPECT_NE(record_of(fid), nullptr);
    advance_sec(2);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(announced_flow, goes_away_after_its_own_idle_time_when_nobody_uses_it) {
    const zon_fid_t fid = announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple(false));
    advance_ms(9900);
    EXPECT_NE(record_of(fid), nullptr);
    advance_ms(200);
    EXPECT_EQ(record_of(fid), nullptr);
    EXPECT_FALSE(zon_private_has_incomplete_inserts(g_zon->flow_tbl));
}

// ---- parents ----

std::vector<zon_fid_t> children;
bool note_child(const zon_flow_ptr_t child) {
    children.push_back(child);
    return true;
}

TEST_F(announced_flow, becomes_its_parents_newest_child) {
    const zon_fid_t parent = engine_call(packet(false, 1)).run();
    zon_flow_tuple_t of = tuple(false);
    std::vector<zon_fid_t> announced;
    for (const uint16_t port : {uint16_t{40000}, uint16_t{40001}, uint16_t{40002}}) {
        of.src_port = port;
        announced.push_back(announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, of, parent));
    }
    children.clear();
    EXPECT_EQ(zon_flow_traverse_child_flows(parent, note_child), zon_error_none);
    EXPECT_TRUE(children.empty()) << "nobody is a child before its first packet";
    for (const uint16_t port : {uint16_t{40001}, uint16_t{40000}, uint16_t{40002}})
        engine_call(packet(false, port)).run();
    EXPECT_EQ(zon_flow_traverse_child_flows(parent, note_child), zon_error_none);
    EXPECT_EQ(children, (std::vector<zon_fid_t>{announced[2], announced[0], announced[1]}));
    zon_fid_t found = 0;
    EXPECT_EQ(zon_flow_get_parent(announced[0], &found), zon_error_none);
    EXPECT_EQ(found, parent);
}

TEST_F(announced_flow, in_a_tunnel_needs_no_leave_and_is_not_counted) {
    const zon_fid_t fid = announce(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple(true));
    engine_call call(packet(true));
    call.tunnel = ZON_TUNNEL_TYPE_TEREDO;
    zon_capability_counter_t nothing{};
    EXPECT_EQ(call.run(&nothing), fid);
    EXPECT_EQ(call.seen.tunnel_type, ZON_TUNNEL_TYPE_TEREDO);
    EXPECT_EQ(record_of(fid)->tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_FALSE(zon_private_has_active_tunnel_flows(g_zon->flow_tbl, ZON_TUNNEL_TYPE_TEREDO));
}

// ---- a promotion that is refused ----

// An announcement by one end has both halves in one bucket, so two fit into each.
class refused_promotion : public announced_flow {
protected:
    refused_promotion() {
        parameters.max_flows = 107;
        parameters.max_bucket_depth = 2;
    }
    void SetUp() override {
        announced_flow::SetUp();
        fid = announce(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, tuple(false));
        flow = record_of(fid);
        ASSERT_NE(bucket_of(packet(false)), bucket_of(packet(false).reversed()));
    }
    static int bucket_of(const packet_builder& built) {
        engine_call call(built);
        return static_cast<int>(zon_hash_calc(call.key(), nullptr) % 107);
    }
    // Fills the bucket of a packet with half flows of other connections that live long.
    static uint32_t block(const packet_builder& built) {
        uint32_t blockers = 0;
        for (uint16_t port = 1; blockers < 2 && port != 0; ++port) {
            const auto other = packet_builder::ipv4("192.0.2.1", "192.0.2.2").udp(port, 9);
            const int replies = bucket_of(other.reversed());
            if (bucket_of(other) != bucket_of(built) || replies == bucket_of(packet(false)) ||
                replies == bucket_of(packet(false).reversed()))
                continue;
            const zon_fid_t blocker = engine_call(other).run();
            EXPECT_EQ(zon_flow_set_aging(blocker, 3600), zon_error_none);
            ++blockers;
        }
        EXPECT_EQ(blockers, 2U);
        return blockers;
    }
    // Hands the packet in after the bucket of another one was filled.
    void expect_refusal(const packet_builder& blocked) {
        const uint32_t blockers = block(blocked);
        zon_errlog = true;
        captured_output log(stderr);
        engine_call call(packet(false));
        EXPECT_EQ(call.run(), 0U);
        zon_errlog = false;
        EXPECT_NE(
            log.text().find("ZON_MSG_INDEX: 6. Flow could now be promoted  zon_flow_lookup, fid::" +
                            std::to_string(fid) + "\n"),
            std::string::npos)
            << log.text();
        EXPECT_EQ(call.error, untouched_error);
        EXPECT_EQ(call.seen.fif, 0);
        EXPECT_EQ(call.seen.was_promoted, 0);

        EXPECT_EQ(record_of(fid), flow) << "the flow keeps its identifier";
        EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2 * blockers)
            << "both halves are outside";
        EXPECT_EQ(flow->initiator_flow->hdr.pointer_to_us, nullptr);
        EXPECT_EQ(flow->responder_flow->hdr.pointer_to_us, nullptr);
        EXPECT_EQ(announced_keys(), 0U);
        EXPECT_FALSE(zon_private_has_incomplete_inserts(g_zon->flow_tbl));
        EXPECT_TRUE(no_lock_is_held());

        // Its timer still runs, and its end does not touch the halves of others.
        advance_sec(11);
        EXPECT_EQ(record_of(fid), nullptr);
        EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2 * blockers);
        EXPECT_EQ(flows_in_use(), blockers);
    }
    zon_fid_t fid = 0;
    zon_flow_t* flow = nullptr;
};

TEST_F(refused_promotion, leaves_both_halves_outside_when_the_senders_bucket_is_full) {
    expect_refusal(packet(false));
}

TEST_F(refused_promotion, leaves_both_halves_outside_when_the_other_bucket_is_full) {
    expect_refusal(packet(false).reversed());
}

TEST_F(refused_promotion, counts_one_half_in_and_out_for_a_refused_second) {
    block(packet(false).reversed());
    zon_flow_table_statistics_clear(g_zon->flow_tbl);
    EXPECT_EQ(engine_call(packet(false)).run(), 0U);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, 3U);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 1U);
}

TEST_F(refused_promotion, counts_no_half_in_for_a_refused_first) {
    block(packet(false));
    zon_flow_table_statistics_clear(g_zon->flow_tbl);
    EXPECT_EQ(engine_call(packet(false)).run(), 0U);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, 2U);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 0U);
}

// ---- a callback that hands the same packet in ----

std::function<void()> during_pre_create;
bool run_pre_create(void*, zon_client_id_e) {
    if (const auto action = std::exchange(during_pre_create, nullptr))
        action();
    return true;
}

TEST_F(announced_flow,
       with_unknown_parts_stays_announced_when_the_connection_got_a_flow_meanwhile) {
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, run_pre_create), zon_error_none);
    zon_fid_t first = 0;
    zon_fid_t announced = 0;
    during_pre_create = [&] {
        first = engine_call(packet(false)).run();
        announced = announce(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, tuple(false));
    };
    engine_call call(packet(false));
    EXPECT_EQ(call.run(), first);
    EXPECT_EQ(call.seen.was_promoted, 0);
    EXPECT_EQ(call.seen.fif, 0);
    EXPECT_EQ(call.seen.flow_pkt_count, 2U);
    EXPECT_EQ(announced_keys(), 2U);
    EXPECT_EQ(record_of(announced)->initiator_flow->key.key_type, ZON_IPV4_KEY_DST_IP_PORT_ONLY);
    EXPECT_EQ(engine_call(packet(false, 50000)).run(), announced)
        << "another connection still finds it";
}

}  // namespace

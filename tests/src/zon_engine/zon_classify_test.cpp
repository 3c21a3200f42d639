// zon_classify_test.cpp - what the engine does with a packet of a flow, found or new, and what it
// tells of it.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "osal/zon_timer.h"
#include "src/zon_engine/zon_classify_fixture.h"
#include "support/captured_output.h"
#include "support/engine_call.h"

namespace {

using namespace zon_test;

packet_builder tcp4() {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80);
}
packet_builder udp4() {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1000, 53);
}
packet_builder tcp6() {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2").tcp(40000, 80);
}
packet_builder udp6() {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2").udp(1000, 53);
}

// ---- first packet and reply ----

struct family_row {
    const char* name;
    packet_builder (*first)();
};
class connection : public classified_packet, public ::testing::WithParamInterface<family_row> {};

TEST_P(connection, begins_with_its_first_packet_and_keeps_its_identifier_for_the_reply) {
    engine_call first(GetParam().first());
    const zon_fid_t fid = first.run();
    EXPECT_EQ(fid, 1U);
    EXPECT_EQ(first.seen.flow, fid);
    EXPECT_EQ(first.seen.fif, 1);
    EXPECT_EQ(first.seen.is_initiator, 1);
    EXPECT_EQ(first.fe.i2r_flag, 1);
    EXPECT_EQ(first.seen.flow_pkt_count, 1U);
    EXPECT_EQ(first.seen.was_promoted, 0);
    EXPECT_EQ(first.error, zon_error_none);
    EXPECT_EQ(record_of(fid)->packet_number, 1U);

    engine_call reply(GetParam().first().reversed());
    EXPECT_EQ(reply.run(), fid);
    EXPECT_EQ(reply.seen.fif, 0);
    EXPECT_EQ(reply.seen.is_initiator, 0);
    EXPECT_EQ(reply.fe.i2r_flag, 0);
    EXPECT_EQ(reply.seen.flow_pkt_count, 2U);

    engine_call third(GetParam().first());
    EXPECT_EQ(third.run(), fid);
    EXPECT_EQ(third.seen.is_initiator, 1);
    EXPECT_EQ(third.seen.flow_pkt_count, 3U);
    EXPECT_EQ(flows_in_use(), 1U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2U);
}

TEST_P(connection, has_the_packets_key_on_one_side_and_its_reverse_on_the_other) {
    engine_call first(GetParam().first(), 7);
    zon_flow_t* flow = record_of(first.run());
    ASSERT_NE(flow, nullptr);
    engine_call again(GetParam().first(), 7);
    const size_t size =
        again.fe.l3_proto == ZON_L3_IPV4 ? sizeof(zon_ipv4_key_t) : sizeof(zon_ipv6_key_t);
    EXPECT_EQ(std::memcmp(&flow->initiator_flow->key, &again.key()->key, size), 0);
    zon_swap_key(&again.key()->key);
    EXPECT_EQ(std::memcmp(&flow->responder_flow->key, &again.key()->key, size), 0);
    EXPECT_EQ(flow->initiator_flow->flow, flow);
    EXPECT_EQ(flow->responder_flow->flow, flow);
}

TEST_P(connection, of_another_vrf_is_another_flow) {
    const zon_fid_t plain = engine_call(GetParam().first()).run();
    const zon_fid_t other = engine_call(GetParam().first(), 1).run();
    EXPECT_NE(plain, other);
    EXPECT_EQ(engine_call(GetParam().first().reversed(), 1).run(), other);
}

TEST_P(connection, tells_where_headers_and_payload_are) {
    engine_call packet(GetParam().first().payload(33));
    packet.run();
    EXPECT_EQ(packet.seen.l4_start, packet.fe.l4_start);
    const bool is_tcp = packet.fe.protocol == ZON_TCP_PROT;
    EXPECT_EQ(packet.seen.l7_start, packet.fe.l4_start + (is_tcp ? 20 : 8));
    EXPECT_EQ(packet.seen.l4_port.src_port, is_tcp ? 40000 : 1000);
    EXPECT_EQ(packet.seen.l4_port.dst_port, is_tcp ? 80 : 53);
    EXPECT_EQ(packet.seen.l4_payload_size, 33U);
    EXPECT_EQ(packet.seen.tunnel_type, ZON_TUNNEL_TYPE_NONE);
}

INSTANTIATE_TEST_SUITE_P(families, connection,
                         ::testing::Values(family_row{"tcp_ipv4", tcp4},
                                           family_row{"udp_ipv4", udp4},
                                           family_row{"tcp_ipv6", tcp6},
                                           family_row{"udp_ipv6", udp6}),
                         [](const auto& row) { return row.param.name; });

TEST_F(classified_packet, of_a_host_talking_to_itself_counts_as_the_initiators_both_ways) {
    const auto there = packet_builder::ipv4("10.0.0.1", "10.0.0.1").udp(1000, 53);
    engine_call first(there);
    const zon_fid_t fid = first.run();
    engine_call reply(there.reversed());
    EXPECT_EQ(reply.run(), fid);
    EXPECT_EQ(reply.seen.is_initiator, 1);
}

TEST_F(classified_packet, of_tcp_and_udp_between_the_same_ports_belong_to_two_flows) {
    const zon_fid_t udp = handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(5, 6)).fid;
    const zon_fid_t tcp = handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(5, 6)).fid;
    EXPECT_NE(udp, tcp);
    EXPECT_NE(udp, 0U);
    EXPECT_NE(tcp, 0U);
}

// ---- other protocols ----

TEST_F(classified_packet, of_another_protocol_has_a_flow_without_ports_and_30_seconds) {
    engine_call packet(packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp().payload(50));
    const zon_fid_t fid = packet.run();
    ASSERT_NE(fid, 0U);
    EXPECT_EQ(packet.seen.l4_error, ZON_L4_UNSUPPORTED_PROTO);
    EXPECT_EQ(packet.seen.l4_port.src_port, 0);
    EXPECT_EQ(packet.seen.l4_port.dst_port, 0);
    EXPECT_EQ(packet.seen.l7_start, nullptr);
    EXPECT_EQ(packet.seen.l4_payload_size, 0U);
    EXPECT_EQ(packet.seen.lif, 1);
    EXPECT_EQ(record_of(fid)->age_ms, 30000U);

    // Its session stays closed: every packet is a last one and none keeps the flow.
    engine_call later(packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp());
    later.run();
    EXPECT_EQ(later.seen.lif, 1);
    EXPECT_FALSE(record_of(fid)->should_reset_timer);
    advance_sec(20);
    engine_call(packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp()).run();
    advance_sec(11);
    EXPECT_EQ(record_of(fid), nullptr);
}

// ---- payload ----

struct payload_row {
    const char* name;
    packet_builder (*packet)();
    size_t length_at;  // a 16-bit length field of the packet
    uint16_t length;   // what it is set to
    uint32_t payload;  // what the engine makes of it
};
packet_builder tcp4_with_options() {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2")
        .ip_options(bytes(8))
        .tcp(1, 2)
        .tcp_options(bytes(12));
}
packet_builder tcp6_with_extensions() {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2")
        .hop_by_hop(1)
        .tcp(1, 2)
        .tcp_options(bytes(4));
}
class payload_size : public classified_packet, public ::testing::WithParamInterface<payload_row> {};

TEST_P(payload_size, follows_the_length_fields_modulo_16_bits) {
    bytes packet = GetParam().packet().payload(10).build();
    put16(packet, GetParam().length_at, GetParam().length);
    engine_call call(packet);
    call.run();
    EXPECT_EQ(call.seen.l4_payload_size, GetParam().payload);
    EXPECT_EQ(call.seen.l7_flow_bytes, GetParam().payload);
}

INSTANTIATE_TEST_SUITE_P(
    rows, payload_size,
    ::testing::Values(payload_row{"tcp_ipv4", tcp4, 2, 50, 10},
                      payload_row{"tcp_ipv4_none", tcp4, 2, 40, 0},
                      payload_row{"tcp_ipv4_too_short", tcp4, 2, 39, 65535},
                      payload_row{"tcp_ipv4_options", tcp4_with_options, 2, 70, 10},
                      payload_row{"tcp_ipv6", tcp6, 4, 30, 10},
                      payload_row{"tcp_ipv6_zero_length", tcp6, 4, 0, 65516},
                      payload_row{"tcp_ipv6_extensions", tcp6_with_extensions, 4, 50, 10},
                      payload_row{"udp_ipv4", udp4, 24, 18, 10},
                      payload_row{"udp_ipv4_none", udp4, 24, 8, 0},
                      payload_row{"udp_ipv4_zero_length", udp4, 24, 0, 65528},
                      payload_row{"udp_ipv6", udp6, 44, 18, 10}),
    [](const auto& row) { return row.param.name; });

TEST_F(classified_packet, with_the_flows_first_payload_says_so_and_is_remembered) {
    const auto check = [](const packet_builder& built, uint8_t first_payload, uint64_t bytes_so_far,
                          uint32_t noted_on) {
        engine_call call(built);
        const zon_flow_t* flow = record_of(call.run());
        EXPECT_EQ(call.seen.first_payload, first_payload);
        EXPECT_EQ(call.seen.l7_flow_bytes, bytes_so_far);
        EXPECT_EQ(flow->num_l7_bytes, bytes_so_far);
        EXPECT_EQ(flow->first_payload_seen_on_pkt_num, noted_on);
    };
    check(tcp4().flags(tcp_syn), 0, 0, 0);
    check(tcp4().reversed().flags(tcp_syn | tcp_ack), 0, 0, 0);
    check(tcp4().flags(tcp_ack).payload(100), 1, 100, 3);
    check(tcp4().reversed().flags(tcp_ack).payload(7), 0, 107, 3);
    check(tcp4().flags(tcp_ack), 0, 107, 3);
}

// What the host has set is cleared by the packet entries, and by nothing else.
TEST_F(classified_packet, without_payload_leaves_the_mark_of_the_first_one_as_it_was) {
    for (const bool is_reported : {false, true}) {
        engine_call call(tcp4().flags(tcp_syn));
        call.seen.first_payload = 1;
        EXPECT_NE(is_reported ? call.report(1, ZON_L4_OPENING, 2) : call.run(), 0U);
        EXPECT_EQ(call.seen.first_payload, 1);
    }
}

// ---- last packet, errors, aging ----

TEST_F(classified_packet, that_ends_the_session_is_the_last_and_clears_the_error) {
    const zon_fid_t fid = engine_call(tcp4().flags(tcp_syn)).run();
    engine_call reset(tcp4().reversed().flags(tcp_rst | tcp_ack));
    reset.run();
    EXPECT_EQ(reset.seen.lif, 1);
    EXPECT_EQ(reset.error, zon_error_none);
    EXPECT_FALSE(record_of(fid)->should_reset_timer);
    EXPECT_EQ(record_of(fid)->l4state.sess_state, ZON_L4_CLOSED);
}

TEST_F(classified_packet, of_a_closing_session_leaves_the_error_as_it_was) {
    engine_call(tcp4().flags(tcp_syn)).run();
    engine_call(tcp4().reversed().flags(tcp_syn | tcp_ack)).run();
    engine_call(tcp4().flags(tcp_ack)).run();
    engine_call(tcp4().flags(tcp_fin | tcp_ack)).run();
    engine_call closing(tcp4().reversed().flags(tcp_fin | tcp_ack));
    const zon_fid_t fid = closing.run();
    ASSERT_EQ(record_of(fid)->l4state.sess_state, ZON_L4_CLOSING);
    EXPECT_EQ(closing.error, untouched_error);
    EXPECT_EQ(closing.seen.lif, 0);
    EXPECT_TRUE(record_of(fid)->should_reset_timer);
}

struct aging_row {
    const char* name;
    packet_builder (*packet)();
    zon_l4_flow_state_e reached;  // by the first packet
    uint32_t age_ms;
};
class first_idle_time : public classified_packet,
                        public ::testing::WithParamInterface<aging_row> {};

packet_builder syn4() {
    return tcp4().flags(tcp_syn);
}

TEST_P(first_idle_time, is_chosen_by_protocol_and_state_after_the_first_packet) {
    ASSERT_TRUE(zon_set_default_aging(6, ZON_L4_OPENING, 1100));
    ASSERT_TRUE(zon_set_default_aging(17, ZON_L4_OPENING, 2200));
    const zon_fid_t fid = engine_call(GetParam().packet()).run();
    const zon_flow_t* flow = record_of(fid);
    EXPECT_EQ(flow->l4state.sess_state, GetParam().reached);
    EXPECT_EQ(flow->age_ms, GetParam().age_ms);
    EXPECT_FALSE(flow->should_reset_timer);
    EXPECT_TRUE(zon_timer_running(&flow->timer));
    // A later packet only asks for one more period.
    ASSERT_TRUE(zon_set_default_aging(6, ZON_L4_OPENING, 9000));
    engine_call(GetParam().packet()).run();
    EXPECT_EQ(flow->age_ms, GetParam().age_ms);
    EXPECT_TRUE(flow->should_reset_timer);
}

INSTANTIATE_TEST_SUITE_P(rows, first_idle_time,
                         ::testing::Values(aging_row{"tcp", syn4, ZON_L4_OPENING, 1100},
                                           aging_row{"udp", udp4, ZON_L4_OPENING, 2200},
                                           aging_row{"tcp_ipv6", tcp6, ZON_L4_OPENING, 1100}),
                         [](const auto& row) { return row.param.name; });

TEST_F(classified_packet, still_marked_as_first_restarts_the_timer_of_a_known_flow) {
    engine_call first(udp4());
    const zon_fid_t fid = first.run();
    advance_sec(4);
    first.seen.fif = 1;  // what a caller does that does not preset the indications
    first.run();
    EXPECT_EQ(first.seen.fif, 1);
    EXPECT_FALSE(record_of(fid)->should_reset_timer);
    advance_sec(4);
    EXPECT_NE(record_of(fid), nullptr);
    advance_sec(2);
    EXPECT_EQ(record_of(fid), nullptr);
}

// ---- the host's hash ----

TEST_F(classified_packet,
       with_a_hash_of_the_host_is_found_by_packets_that_bring_the_same_both_ways) {
    const auto with_hash = [](const packet_builder& built) {
        engine_call call(built);
        call.key()->key.hash_valid = 1;
        call.key()->key.hash_value = 4711;
        return call.run();
    };
    const zon_fid_t fid = with_hash(udp4());
    EXPECT_EQ(with_hash(udp4()), fid);
    EXPECT_EQ(with_hash(udp4().reversed()), fid);
    EXPECT_EQ(record_of(fid)->initiator_flow->key.hash_value, 4711U);
    EXPECT_EQ(record_of(fid)->responder_flow->key.hash_valid, 1U);
    EXPECT_NE(engine_call(udp4()).run(), fid) << "without the hash it is another bucket";
}

// ---- trace ----

TEST_F(classified_packet, that_the_tracker_complains_of_is_traced_with_the_l4_switch) {
    const zon_fid_t fid = engine_call(tcp4().flags(tcp_syn)).run();
    for (bool* flag : {&zon_debug_flag_l4, &zon_debug_flag_all}) {
        *flag = true;
        captured_output trace(stderr);
        engine_call(tcp4().flags(tcp_syn)).run();
        const std::string expected = "\nZON L4: Error: fid[" + std::to_string(fid) + "] " +
                                     zon_l4_retcode_string(ZON_L4_RETRANS_SEG) + " in state " +
                                     zon_session_state_string(ZON_L4_OPENING);
        EXPECT_NE(trace.text().find(expected), std::string::npos) << trace.text();
        *flag = false;
    }
    captured_output trace(stderr);
    engine_call(tcp4().flags(tcp_syn)).run();
    EXPECT_EQ(trace.text(), "");
}

TEST_F(classified_packet, that_changes_a_state_is_traced_with_the_debug_switch) {
    zon_set_debug(true);
    captured_output trace(stderr);
    engine_call(tcp4().flags(tcp_syn)).run();
    EXPECT_NE(trace.text().find(std::string("1 1 ") + zon_session_state_string(ZON_L4_OPENING) +
                                " " + zon_tcp_state_string(ZON_TCP_SYNSENT) + " i_to_r\n"),
              std::string::npos)
        << trace.text();
    const size_t length = trace.text().size();
    engine_call(tcp4().flags(tcp_syn)).run();
    EXPECT_EQ(trace.text().size(), length) << "a packet that changes nothing is not traced";
    engine_call(tcp4().reversed().flags(tcp_syn | tcp_ack)).run();
    EXPECT_NE(
        trace.text().find(std::string("1 3 ") + zon_session_state_string(ZON_L4_UNI_ESTABLISHED) +
                          " " + zon_tcp_state_string(ZON_TCP_SYNRCVD) + " r_to_i\n"),
        std::string::npos)
        << trace.text();
}

// ---- recycled records ----

TEST_F(classified_packet, of_a_udp_flow_in_the_record_of_a_tcp_flow_starts_from_nothing) {
    // Leaves the record of a TCP flow as the only free one.
    const zon_fid_t fid = engine_call(tcp4().flags(tcp_syn)).run();
    engine_call(tcp4().reversed().flags(tcp_syn | tcp_ack)).run();
    engine_call(tcp4().flags(tcp_ack)).run();
    record_of(fid)->bypass_id = record_of(fid)->app_id = 5;
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    zon_fid_t reused = 0;
    for (uint16_t port = 1; port <= 10; ++port) {
        engine_call call(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(port, 53).payload(1));
        reused = call.run();
        EXPECT_EQ(call.seen.l4_error, ZON_L4_NOERR) << "fid " << reused;
        EXPECT_EQ(call.seen.flow_pkt_count, 1U);
        EXPECT_EQ(call.seen.l7_flow_bytes, 1U);
        EXPECT_EQ(call.seen.bypass_id, 0U);
        EXPECT_EQ(call.seen.first_payload, 1);
    }
    EXPECT_EQ(reused, fid);
    EXPECT_EQ(record_of(fid)->l4state.sess_state, ZON_L4_OPENING);
    EXPECT_EQ(record_of(fid)->l4state.pkt_count, 1);
    EXPECT_EQ(record_of(fid)->app_id, 0U);
    uint32_t next = 0;
    EXPECT_EQ(zon_flow_get_next_tcp_seq_nbr(fid, ZON_DIR_INITIATOR, &next, nullptr),
              zon_error_invalid_next_seq_number);
}

// ---- a flow without a known family ----

class classified_packet_DeathTest : public classified_packet {
protected:
    classified_packet_DeathTest() { parameters.timers = false; }
};

TEST_F(classified_packet_DeathTest, with_a_key_type_outside_the_table_stops_the_program) {
    engine_call call(udp4());
    call.key()->key.key_type = ZON_MAX_KEY;
    EXPECT_DEATH(call.run(), "zon_hash_func_ipv6: Assertion `0' failed");
    // With a hash of the host it gets as far as the announced flows, and no farther than the half
    // flow.
    call.key()->key.hash_valid = 1;
    EXPECT_DEATH(call.run(), "Assertion `half_flow_key_type <= ZON_IPV6_LAST_KEY' failed");
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = ZON_IP_ADDR_IPV4;
    zon_fid_t fid = 0;
    ASSERT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, nullptr),
              zon_error_none);
    EXPECT_DEATH(call.run(), "Unknown key type 10");
}

}  // namespace

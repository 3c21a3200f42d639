// zon_test_packets_test.cpp - packets made of plain fields, on their way through the engine.

#include "zon_test_packets.h"

#include "src/zon_engine_debug/zon_test_packets_fixture.h"
#include "support/flow_reader.h"
#include "support/preset_indications.h"

using namespace zon_test;

namespace {

TEST_P(every_handler, makes_one_flow_of_both_directions) {
    const handled first = packet(syn());
    ASSERT_NE(first.fid, 0u);
    EXPECT_EQ(first.seen.flow, first.fid);
    EXPECT_EQ(first.seen.fif, 1);
    EXPECT_EQ(first.seen.is_initiator, 1);
    kit_packet answer;
    answer.back = true;
    answer.flags = {true, true, false, false};
    const handled second = packet(answer);
    EXPECT_EQ(second.fid, first.fid);
    EXPECT_EQ(second.seen.fif, 0);
    EXPECT_EQ(second.seen.is_initiator, 0);
    EXPECT_EQ(second.seen.flow_pkt_count, 2u);
    EXPECT_EQ(elements(), 2u);
    EXPECT_TRUE(no_lock_is_held());
}

TEST_P(every_handler, keys_the_flow_by_what_it_was_given) {
    kit_packet what = syn();
    what.vrf_id = 77;
    const zon_flow_t* flow = record_of(packet(what).fid);
    ASSERT_NE(flow, nullptr);
    const zon_half_flow_t* half = flow->initiator_flow;
    EXPECT_EQ(half->key.vrf_id, 77u);
    EXPECT_EQ(half->key.l4_protocol, 6u);
    EXPECT_EQ(half->key.hash_valid, 0u) << "a host's hash is not asked for";
    if (is_ipv4(GetParam())) {
        EXPECT_EQ(half->key.key_type, uint32_t{ZON_IPV4_KEY_COMPLETE});
        const zon_ipv4_key_t& key = *zon_full_key<ipv4_family>(half);
        EXPECT_EQ(key.src_ip, host_a);
        EXPECT_EQ(key.dst_ip, host_b);
        EXPECT_EQ(key.src_port, 1000u);
        EXPECT_EQ(key.dst_port, 2000u);
    } else {
        EXPECT_EQ(half->key.key_type, uint32_t{ZON_IPV6_KEY_COMPLETE});
        const zon_ipv6_key_t& key = *zon_full_key<ipv6_family>(half);
        EXPECT_EQ(std::memcmp(key.src_ip, address_a, 16), 0);
        EXPECT_EQ(std::memcmp(key.dst_ip, address_b, 16), 0);
        EXPECT_EQ(key.src_port, 1000u);
        EXPECT_EQ(key.dst_port, 2000u);
    }
    const zon_fid_t other_vrf = packet(syn()).fid;
    EXPECT_NE(other_vrf, flow->fid);
}

TEST_P(every_handler, presets_the_indications) {
    const handled result = packet(syn());
    const bool v4 = is_ipv4(GetParam());
    const bool plain = GetParam() == handler::ipv4 || GetParam() == handler::ipv6;
    EXPECT_EQ(result.seen.l3_protocol, v4 ? 0x0800 : 0x86DD);
    EXPECT_EQ(result.seen.l3_header_size, v4 ? 20u : 40u)
        << "the header's own size, wherever the transport header stands";
    // IPv4: 20 bytes of TCP for a plain packet, none are counted by the TCP builder. IPv6: the
    // other way round.
    EXPECT_EQ(result.seen.l3_payload_size, v4 == plain ? 20u : 0u);
    EXPECT_EQ(result.seen.l4_protocol, 6);
    EXPECT_EQ(result.seen.l4_error, ZON_L4_NOERR);
    EXPECT_EQ(result.seen.lif, 0);
    EXPECT_EQ(result.seen.first_payload, GetParam() == handler::ipv6 ? 1 : 0);
    EXPECT_EQ(result.seen.was_promoted, 0);
    EXPECT_EQ(result.seen.packet_seen, 1);
    EXPECT_EQ(result.seen.is_fragment, 0);
    EXPECT_EQ(result.seen.bypass_id, 0u);
    EXPECT_EQ(result.seen.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_EQ(result.seen.l4_port.src_port, 1000);
    EXPECT_EQ(result.seen.l4_port.dst_port, 2000);
    EXPECT_EQ(result.seen.flow_pkt_count, 1u);
    EXPECT_EQ(result.seen.l7_flow_bytes, result.seen.l4_payload_size);
    EXPECT_EQ(result.seen.l4_start - result.seen.l3_start, v4 ? 24 : 40);
    EXPECT_EQ(result.seen.hash_valid, 0xEEEEEEEEu) << "the host's own fields stay";
    EXPECT_EQ(result.seen.hash_value, 0xEEEEEEEEu);
}

bool veto(void*, zon_client_id_e) {
    return false;
}

TEST_P(every_handler, presets_the_indications_of_a_refused_packet) {
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, veto), zon_error_none);
    const handled result = packet(syn());
    EXPECT_EQ(result.fid, 0u);
    EXPECT_EQ(result.error, zon_error_client_pre_create_prevented);
    expect_preset(result.seen);
    EXPECT_EQ(result.seen.packet_seen, 1);
    EXPECT_NE(result.seen.l3_start, nullptr);
}

void* context_seen;
bool note_context(void* context, zon_client_id_e) {
    context_seen = context;
    return true;
}

TEST_P(every_handler, passes_the_packet_context_on) {
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, note_context), zon_error_none);
    kit_packet what = syn();
    what.context = &objects[3];
    packet(what);
    EXPECT_EQ(context_seen, &objects[3]);
}

TEST_P(every_handler, works_without_a_place_for_answers) {
    const zon_fid_t fid = call(GetParam(), syn(), nullptr, nullptr);
    EXPECT_NE(fid, 0u);
    EXPECT_EQ(packet(syn()).fid, fid);
    EXPECT_EQ(record_of(fid)->packet_number, 2u);
}

TEST_P(every_handler, leaves_the_error_of_a_first_packet_to_the_engine) {
    EXPECT_EQ(packet(syn()).error, zon_error_none);
}

TEST_P(every_handler, turns_an_announced_flow_into_a_real_one) {
    zon_flow_tuple_t tuple = is_ipv4(GetParam()) ? tuple4(host_a, 1000, 0, 0, tcp)
                                                 : tuple6("2001:db8::1", 1000, "::", 0, tcp);
    if (!is_ipv4(GetParam()))
        // Tuples carry the words of a key as they are.
        std::memcpy(tuple.src_ip.u.v6_addr, address_a, 16);
    const zon_fid_t announced = pre_flow(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, tuple);
    const handled result = packet(syn());
    EXPECT_EQ(result.fid, announced);
    EXPECT_EQ(result.seen.was_promoted, 1);
}

INSTANTIATE_TEST_SUITE_P(all, every_handler, all_handlers, handler_name);

// ---- connections by flags and numbers ----

class kit_connection : public packet_kit, public ::testing::WithParamInterface<handler> {
protected:
    handled send(bool back, tcp_flag_set flags, uint32_t seq, uint32_t ack,
                 uint32_t payload_size = 0) {
        kit_packet packet;
        packet.back = back;
        packet.flags = flags;
        packet.seq = seq;
        packet.ack_number = ack;
        packet.payload_size = payload_size;
        const handled result = hand_in(GetParam(), packet);
        fid_ = result.fid;
        return result;
    }
    zon_tcp_state_t state() const { return record_of(fid_)->l4state.tcp_state; }
    uint8_t session() const { return record_of(fid_)->l4state.sess_state; }

    void open() {
        send(false, {.syn = true}, 100, 0);
        EXPECT_EQ(state(), ZON_TCP_SYNSENT);
        send(true, {.syn = true, .ack = true}, 500, 101);
        send(false, {.ack = true}, 101, 501);
        EXPECT_EQ(state(), ZON_TCP_ESTAB);
        EXPECT_EQ(session(), ZON_L4_BI_ESTABLISHED);
    }

    zon_fid_t fid_ = 0;
};

TEST_P(kit_connection, is_opened_used_and_closed) {
    enable(ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS);
    open();
    const handled data = send(false, {.ack = true}, 101, 501, 100);
    EXPECT_EQ(data.seen.l4_payload_size, 100u);
    EXPECT_EQ(data.seen.l7_flow_bytes, 100u);
    EXPECT_EQ(data.seen.first_payload, 1);
    EXPECT_EQ(data.seen.l4_error, ZON_L4_NOERR);
    send(false, {.ack = true, .fin = true}, 201, 501);
    EXPECT_EQ(send(true, {.ack = true, .fin = true}, 501, 202).seen.l4_error, ZON_L4_NOERR);
    EXPECT_EQ(send(false, {.ack = true}, 202, 502).seen.lif, 1);
    EXPECT_EQ(session(), ZON_L4_CLOSED);
}

TEST_P(kit_connection, leaves_the_error_as_it_was_while_it_closes) {
    open();
    EXPECT_EQ(send(false, {.ack = true, .fin = true}, 101, 501).error, zon_error_none);
    const handled closing = send(true, {.ack = true, .fin = true}, 501, 102);
    EXPECT_EQ(session(), ZON_L4_CLOSING);
    EXPECT_EQ(closing.error, untouched);
    EXPECT_EQ(send(false, {.ack = true}, 102, 502).error, zon_error_none);
    EXPECT_EQ(session(), ZON_L4_CLOSED);
}

TEST_P(kit_connection, is_reset) {
    open();
    EXPECT_EQ(send(true, {.ack = true, .rst = true}, 501, 101).seen.lif, 1);
}

TEST_P(kit_connection, is_watched_by_its_numbers) {
    enable(ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS);
    open();
    EXPECT_NE(send(false, {.ack = true}, 90000, 501, 10).seen.l4_error, ZON_L4_NOERR);
}

INSTANTIATE_TEST_SUITE_P(all, kit_connection,
                         ::testing::Values(handler::ipv4_tcp, handler::ipv6_tcp), handler_name);

// ---- the plain handlers ----

class plain_handlers : public packet_kit, public ::testing::WithParamInterface<handler> {
protected:
    static handled of(uint8_t proto, uint32_t payload_size) {
        kit_packet packet;
        packet.proto = proto;
        packet.payload_size = payload_size;
        return hand_in(GetParam(), packet);
    }
};

TEST_P(plain_handlers, count_udp_payload_without_the_header_that_the_length_lacks) {
    EXPECT_EQ(of(udp, 100).seen.l4_payload_size, 92u);
    EXPECT_EQ(of(udp, 8).seen.l4_payload_size, 0u);
    EXPECT_EQ(of(udp, 7).seen.l4_payload_size, 65535u);
    EXPECT_EQ(of(udp, 0).seen.l4_payload_size, 65528u);
}

TEST_P(plain_handlers, begin_a_tcp_connection_without_a_flag) {
    const handled result = of(tcp, 0);
    EXPECT_EQ(record_of(result.fid)->l4state.tcp_state, ZON_TCP_SYNSENT);
}

TEST_P(plain_handlers, give_other_protocols_flows_without_ports) {
    const handled result = of(1, 100);
    ASSERT_NE(result.fid, 0u);
    EXPECT_EQ(result.seen.l4_error, ZON_L4_UNSUPPORTED_PROTO);
    EXPECT_EQ(result.seen.l4_payload_size, 0u);
    EXPECT_EQ(result.seen.l4_port.src_port, 0);
    EXPECT_EQ(result.seen.l7_start, nullptr);
    const zon_half_flow_t* half = record_of(result.fid)->initiator_flow;
    EXPECT_EQ(half->key.l4_protocol, 1u);
    const zon_flow_report_t report = [&] {
        zon_flow_report_t filled{};
        const locked_flow flow = locked_flow::adopt(zon_get_flow(result.fid));
        EXPECT_TRUE(zon_debug_flow_populate_report(flow.get(), &filled, nullptr));
        return filled;
    }();
    EXPECT_EQ(is_ipv4(GetParam()) ? report.initiator_key.ipv4.src_port
                                  : report.initiator_key.ipv6.src_port,
              0u);
    EXPECT_EQ(result.seen.l3_payload_size, is_ipv4(GetParam()) ? 65516u : 100u)
        << "IPv4: the total length stays 0";
}

INSTANTIATE_TEST_SUITE_P(all, plain_handlers, ::testing::Values(handler::ipv4, handler::ipv6),
                         handler_name);

}  // namespace

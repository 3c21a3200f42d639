// zon_captured_packet_test.cpp - the entry that believes no header: it reads nothing outside the
// captured bytes, refuses what is not all there without touching anything, and treats the rest as
// the trusting entry does.

#include "zon_engine/zon_captured_packet.h"

#include <string>
#include <vector>

#include "src/zon_engine/zon_captured_packet_fixture.h"

using namespace zon_test;

// ---- arguments ----

TEST_F(captured_packets, are_refused_without_a_packet_or_a_place_for_the_error) {
    bytes packet = tcp4().build();
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_none;
    EXPECT_EQ(zon_handle_captured_packet(nullptr, 40, 0, nullptr, &seen, &error), 0u);
    EXPECT_EQ(error, zon_error_parameter_invalid);
    EXPECT_EQ(seen.packet_seen, 1);
    seen = {};
    EXPECT_EQ(zon_handle_captured_packet(packet.data(), 40, 0, nullptr, &seen, nullptr), 0u);
    EXPECT_EQ(seen.packet_seen, 1);
    EXPECT_EQ(zon_handle_captured_packet(packet.data(), 40, 0, nullptr, nullptr, &error), 0u);
    EXPECT_EQ(error, zon_error_parameter_is_null);
    EXPECT_EQ(zon_handle_captured_packet(nullptr, 0, 0, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0u);
}

TEST(captured_packets_without_engine, report_that_there_is_none) {
    bytes packet = tcp4().build();
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_none;
    EXPECT_EQ(zon_handle_captured_packet(packet.data(), 40, 0, nullptr, &seen, &error), 0u);
    EXPECT_EQ(error, zon_error_engine_not_init);
}

// ---- how much of a packet has to be there ----

namespace {
struct length_row {
    const char* name;
    bytes packet;
    size_t needed;  // one byte less is refused
    bool gets_flow;
};
void PrintTo(const length_row& row, std::ostream* out) {
    *out << row.name;
}
class captured_length : public captured_packets,
                        public ::testing::WithParamInterface<length_row> {};

}  // namespace

TEST_P(captured_length, decides_between_refusal_and_acceptance) {
    const length_row& row = GetParam();
    for (size_t length = 0; length < row.needed; ++length) {
        SCOPED_TRACE(std::to_string(length) + " bytes");
        expect_refused(hand_in(row.packet, length));
    }
    for (size_t length = row.needed; length <= row.packet.size(); ++length) {
        SCOPED_TRACE(std::to_string(length) + " bytes");
        const packet_result result = hand_in(row.packet, length);
        EXPECT_EQ(result.error, zon_error_none);
        EXPECT_EQ(result.fid != 0, row.gets_flow);
        EXPECT_EQ(result.indications.packet_seen, 1);
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, captured_length,
    ::testing::Values(
        length_row{"unknown_version", damaged8(tcp4().build(), 0, 0x15), 1, false},
        length_row{"ipv4_icmp",
                   packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp().payload(9).build(), 20,
                   false},
        length_row{
            "ipv4_icmp_with_options",
            packet_builder::ipv4("10.0.0.1", "10.0.0.2").ip_options(bytes(40, 1)).icmp().build(),
            60, false},
        length_row{"ipv4_tcp", tcp4().payload(9).build(), 40, true},
        length_row{"ipv4_tcp_with_all_options",
                   tcp4().ip_options(bytes(40, 1)).tcp_options(bytes(40, 1)).payload(9).build(),
                   120, true},
        length_row{"ipv4_udp", udp4().build(), 28, true},
        length_row{"ipv4_udp_without_payload", udp4().payload(0).build(), 28, true},
        length_row{"ipv4_first_fragment", udp4().fragment(0, true).build(), 28, true},
        length_row{"ipv4_first_tcp_fragment", tcp4().payload(8).fragment(0, true).build(), 40,
                   true},
        length_row{"protocol_41_of_another_version", six_in_four(tcp4()), 21, false},
        length_row{"ipv6_in_ipv4_tcp", six_in_four(tcp6().payload(5)), 80, true},
        length_row{"ipv6_in_ipv4_udp", six_in_four(udp6()), 68, true},
        length_row{"ipv6_in_ipv4_icmp", six_in_four(ipv6().icmp()), 60, false},
        length_row{"ipv6_in_ipv4_with_extension", six_in_four(udp6().hop_by_hop()), 76, true},
        length_row{"ipv6_in_ipv4_first_fragment",
                   damaged16(six_in_four(tcp6().payload(5)), 6, 0x2000), 80, true},
        length_row{"ipv6_tcp", tcp6().payload(9).build(), 60, true},
        length_row{"ipv6_tcp_with_options", tcp6().tcp_options(bytes(12, 1)).payload(9).build(), 72,
                   true},
        length_row{"ipv6_udp", udp6().build(), 48, true},
        length_row{"ipv6_icmp", ipv6().icmp().build(), 40, false},
        length_row{"ipv6_no_next_header", ipv6().protocol(59).build(), 40, false},
        length_row{"ipv6_encrypted", ipv6().esp().build(), 40, false},
        length_row{"ipv6_encrypted_behind_options", ipv6().hop_by_hop(1).esp().build(), 56, false},
        length_row{"ipv6_protocol_41", ipv6().protocol(41).payload(9).build(), 40, true},
        length_row{"ipv6_all_extensions",
                   ipv6()
                       .hop_by_hop(3)
                       .routing()
                       .destination_options(1)
                       .authentication(4)
                       .udp(1, 2)
                       .build(),
                   40 + 32 + 8 + 16 + 24 + 8, true},
        length_row{"ipv6_sixteen_extensions", chain_of(16).build(), 40 + 128 + 20, true},
        length_row{"ipv6_first_fragment", udp6().fragment(0, true).build(), 56, true},
        length_row{"ipv6_whole_with_fragment_header", tcp6().fragment(0, false).build(), 68, true}),
    [](const auto& row) { return row.param.name; });

// ---- later fragments ----

TEST_F(captured_packets, need_13_bytes_of_a_later_tcp_fragment) {
    const bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2")
                             .protocol(6)
                             .fragment(64, true)
                             .payload(20)
                             .build();
    for (size_t length = 20; length < 33; ++length)
        expect_unreadable(hand_in(packet, length));
    EXPECT_EQ(hand_in(packet, 19).error, zon_error_parameter_invalid);
    EXPECT_NE(hand_in(packet, 33).indications.l7_start, nullptr) << "read, and looked up";
    const bytes packet6 = ipv6().fragment(64, true).protocol(6).payload(20).build();
    for (size_t length = 48; length < 61; ++length)
        expect_unreadable(hand_in(packet6, length));
    EXPECT_EQ(hand_in(packet6, 47).error, zon_error_parameter_invalid);
    EXPECT_NE(hand_in(packet6, 61).indications.l7_start, nullptr);
}

TEST_F(captured_packets, need_4_bytes_of_a_later_udp_fragment) {
    const bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2")
                             .protocol(17)
                             .fragment(64, false)
                             .payload(3)
                             .build();
    expect_unreadable(hand_in(packet));
    const bytes padded = with_padding(packet, 20);
    expect_unreadable(hand_in(padded));
    const bytes packet6 = ipv6().fragment(64, false).protocol(17).payload(3).build();
    expect_unreadable(hand_in(packet6));
    const bytes enough = packet_builder::ipv4("10.0.0.1", "10.0.0.2")
                             .protocol(17)
                             .fragment(64, false)
                             .payload(4)
                             .build();
    EXPECT_NE(hand_in(enough).indications.l7_start, nullptr);
}

TEST_F(captured_packets, leave_the_fragment_table_alone_when_they_are_too_short) {
    const std::vector<bytes> fragments = fragments_of(udp4().payload(43).build(), 48);
    ASSERT_EQ(fragments.size(), 2u);
    ASSERT_NE(hand_in(fragments[0]).fid, 0u);
    expect_unreadable(hand_in(fragments[1]));  // the last three bytes
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 1u);
    EXPECT_EQ(hand_in(fragments[0], 27).error, zon_error_parameter_invalid);
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 1u);
}

TEST_F(captured_packets, do_not_read_headers_in_the_data_of_a_later_fragment) {
    for (const bytes& packet : {ipv6().fragment(64, true).destination_options().udp(1, 2).build(),
                                ipv6().fragment(64, true).fragment(0, false).udp(1, 2).build(),
                                damaged8(ipv6().fragment(64, true).protocol(17).build(), 40, 60)}) {
        const packet_result result = hand_in(packet);
        expect_unreadable(result);
        EXPECT_EQ(result.indications.l3_header_size, 48u);
    }
}

TEST_F(captured_packets, keep_the_flow_of_their_first_fragment) {
    for (const packet_builder& whole : {udp4(), udp6()}) {
        const std::vector<bytes> fragments =
            fragments_of(packet_builder(whole).payload(100).build(), 40);
        const zon_fid_t fid = hand_in(fragments[0]).fid;
        EXPECT_NE(fid, 0u);
        EXPECT_EQ(hand_in(fragments[1]).fid, fid);
        EXPECT_EQ(hand_in(fragments[2]).fid, fid);
        EXPECT_EQ(hand_in(fragments[2]).fid, 0u);
    }
}

TEST_F(captured_packets, make_no_tunnel_of_the_data_of_a_later_fragment) {
    // What looks like a Teredo datagram, and like an inner packet, in the middle of another
    // datagram.
    bytes udp = teredo(tcp6());
    put16(udp, 6, 0x2010);
    bytes six = six_in_four(tcp6());
    put16(six, 6, 0x2010);
    for (const bytes& packet : {udp, six}) {
        const packet_result result = hand_in(packet);
        EXPECT_EQ(result.fid, 0u);
        EXPECT_EQ(result.error, zon_error_none);
        EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
        EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0u);
        EXPECT_NE(handle(packet).fid, 0u) << "a host that vouches for it is believed";
        delete_all_flows();
    }
}

// ---- Teredo ----

TEST_F(captured_packets, are_no_teredo_where_the_search_would_leave_them) {
    const bytes packet = in_teredo("192.0.2.1", "192.0.2.2", ipv6().udp(1, 2).build(), 1000, 2000,
                                   teredo_authentication(200, 100));
    for (size_t length = 28; length <= packet.size(); ++length) {
        const packet_result result = hand_in(packet, length);
        EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE) << length << " bytes";
        EXPECT_NE(result.fid, 0u) << length << " bytes";
    }
}

TEST_F(captured_packets, are_refused_when_the_packet_inside_teredo_is_cut_off) {
    const bytes packet = teredo(tcp6());
    for (size_t length = 0; length < 28; ++length)
        expect_refused(hand_in(packet, length));
    for (size_t length = 29; length < 88; ++length) {
        const packet_result result = hand_in(packet, length);
        expect_refused(result);
        EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_TEREDO);
        EXPECT_EQ(result.indications.l3_protocol, ZON_L3_IPV4);
    }
    EXPECT_EQ(hand_in(packet).indications.tunnel_type, ZON_TUNNEL_TYPE_TEREDO);
    delete_all_flows();
    EXPECT_EQ(hand_in(packet, 28).indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
}

TEST_F(captured_packets, with_teredo_disabled_are_not_searched) {
    disable(ZON_CAPABILITY_ENABLE_TEREDO);
    const packet_result result = hand_in(teredo(tcp6()), 40);
    EXPECT_NE(result.fid, 0u);
    EXPECT_EQ(result.indications.l4_protocol, ZON_UDP_PROT);
}

// ---- what a refusal tells ----

TEST_F(captured_packets, describe_as_much_of_a_refused_packet_as_was_readable) {
    const packet_result nothing = hand_in(tcp4().build(), 19);
    EXPECT_EQ(nothing.indications.l3_start, nullptr);
    EXPECT_EQ(nothing.indications.l3_header_size, 0u);
    EXPECT_EQ(nothing.indications.l3_payload_size, 0u);

    const packet_result no_tcp = hand_in(tcp4().payload(3).build(), 30);
    EXPECT_EQ(no_tcp.indications.l3_start, start);
    EXPECT_EQ(no_tcp.indications.l3_protocol, ZON_L3_IPV4);
    EXPECT_EQ(no_tcp.indications.l4_protocol, ZON_TCP_PROT);
    EXPECT_EQ(no_tcp.indications.l3_header_size, 20u);
    EXPECT_EQ(no_tcp.indications.l3_payload_size, 23u);

    const packet_result chain = hand_in(tcp6().hop_by_hop().build(), 44);
    EXPECT_EQ(chain.indications.l3_start, start);
    EXPECT_EQ(chain.indications.l3_protocol, ZON_L3_IPV6);
    EXPECT_EQ(chain.indications.l3_header_size, 0u);

    const packet_result inner = hand_in(six_in_four(tcp6()), 70);
    EXPECT_EQ(inner.indications.l3_start, start);
    EXPECT_EQ(inner.indications.l4_protocol, ZON_IPV6_ENCAPSULATION_PROT);
}

TEST_F(captured_packets, are_refused_before_any_client_is_asked) {
    static int asked;
    asked = 0;
    zon_client_register_pre_flow_create_cb(client,
                                           [](void*, zon_client_id_e) { return ++asked != 0; });
    expect_refused(hand_in(tcp4().build(), 39));
    EXPECT_EQ(asked, 0);
    EXPECT_NE(hand_in(tcp4().build()).fid, 0u);
    EXPECT_EQ(asked, 1);
}

TEST_F(captured_packets, are_refused_without_a_trace_in_their_flow) {
    const zon_fid_t fid = hand_in(tcp4().build()).fid;
    EXPECT_EQ(hand_in(tcp4().payload(9).build(), 39).error, zon_error_parameter_invalid);
    EXPECT_EQ(hand_in(tcp4().build()).fid, fid);
    uint32_t packets = 0;
    EXPECT_EQ(zon_flow_get_packet_count(fid, &packets), zon_error_none);
    EXPECT_EQ(packets, 2u);
}

TEST_F(captured_packets, carry_a_report_of_the_platform) {
    const zon_fid_t fid = hand_in(tcp4().build()).fid;
    bytes packet = tcp4().flags(tcp_ack).payload(10).build();
    zon_pkt_indications_t seen{};
    zon_error_t error{};
    EXPECT_EQ(zon_sync_captured_packet(packet.data(), 49, 0, nullptr, &seen, &error, fid,
                                       ZON_L4_CLOSING, 5),
              fid);
    EXPECT_EQ(seen.flow_pkt_count, 5u);
    EXPECT_EQ(zon_sync_captured_packet(packet.data(), 39, 0, nullptr, &seen, &error, fid,
                                       ZON_L4_BI_ESTABLISHED, 6),
              0u);
    EXPECT_EQ(error, zon_error_parameter_invalid);
    zon_l4_flow_state_e state{};
    EXPECT_EQ(zon_flow_get_l4_state(fid, &state), zon_error_none);
    EXPECT_EQ(state, ZON_L4_CLOSING);
}

// zon_packet_detour_test.cpp - packets inside tunnels: what is looked through, and what is not.

#include <gtest/gtest.h>

#include <vector>

#include "support/packet_outcome.h"
#include "support/sample_packets.h"
#include "zon_flow_table_inline.h"
#include "zon_frag.h"

using namespace zon_test;

namespace {

class tunnelled_packets : public engine_fixture {};

}  // namespace

TEST_F(tunnelled_packets, keys_a_teredo_packet_by_its_inner_tuple) {
    const packet_result result = handle(teredo(tcp6().payload(9).build()));
    ASSERT_NE(result.fid, 0u);
    EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_TEREDO);
    EXPECT_EQ(result.indications.l3_protocol, ZON_L3_IPV6);
    EXPECT_EQ(result.indications.l4_protocol, ZON_TCP_PROT);
    EXPECT_EQ(result.indications.l3_start - result.packet.data(), 28);
    EXPECT_EQ(result.indications.l3_header_size, 40u);
    EXPECT_EQ(result.indications.l3_payload_size, 29u);
    EXPECT_EQ(result.indications.l4_payload_size, 9u);
    const zon_flow_tuple_t tuple = tuple_of(result.fid);
    EXPECT_EQ(tuple.src_port, 40000);
    EXPECT_EQ(tuple.l4_protocol, ZON_TCP_PROT);
    EXPECT_EQ(zon_private_get_active_tunnel_flows_count(g_zon->flow_tbl, ZON_TUNNEL_TYPE_TEREDO),
              1u);
    EXPECT_EQ(handle(teredo(tcp6().reversed().build())).fid, result.fid);
}

TEST_F(tunnelled_packets, classifies_teredo_as_plain_udp_while_it_is_disabled) {
    disable(ZON_CAPABILITY_ENABLE_TEREDO);
    const packet_result result = handle(teredo(tcp6().build()));
    EXPECT_NE(result.fid, 0u);
    EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_EQ(result.indications.l4_protocol, ZON_UDP_PROT);
    EXPECT_EQ(tuple_of(result.fid).dst_port, 3544);
}

TEST_F(tunnelled_packets, needs_the_udp_capability_for_teredo_whatever_is_inside) {
    disable(ZON_CAPABILITY_ENABLE_UDP);
    expect_not_classified(handle(teredo(tcp6().build())));
}

TEST_F(tunnelled_packets, looks_behind_teredo_indicators_on_any_port) {
    const bytes inner =
        packet_builder::ipv6("2001::1", "2001:db8::2").tcp(1, 2).flags(tcp_syn).build();
    bytes indicators = teredo_authentication(3, 1);
    const bytes origin = teredo_origin(1, "192.0.2.3");
    indicators.insert(indicators.end(), origin.begin(), origin.end());
    const packet_result result =
        handle(in_teredo("192.0.2.1", "192.0.2.2", inner, 1000, 2000, indicators));
    EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_TEREDO);
    EXPECT_EQ(result.indications.l3_start - result.packet.data(), 28 + 17 + 8);
}

TEST_F(tunnelled_packets, keeps_udp_that_is_no_teredo_as_udp) {
    for (const bytes& payload : {bytes{}, bytes{0}, bytes{0, 0}, bytes{0, 1, 0, 0}, bytes(300),
                                 bytes{0x60}, bytes(40, 0x60)}) {
        const packet_result result = handle(udp4().payload(payload));
        EXPECT_NE(result.fid, 0u);
        EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    }
}

TEST_F(tunnelled_packets, does_not_look_for_a_tunnel_behind_an_empty_datagram) {
    bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(3544, 3544).build();
    const bytes behind = tcp6().build();
    packet.insert(packet.end(), behind.begin(), behind.end());
    EXPECT_EQ(handle(packet).indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
}

TEST_F(tunnelled_packets, keys_ipv6_in_ipv4_by_its_inner_tuple) {
    const packet_result result = handle(six_in_four(udp6().build()));
    ASSERT_NE(result.fid, 0u);
    EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_IPV6INIP);
    EXPECT_EQ(result.indications.l4_protocol, ZON_UDP_PROT);
    EXPECT_EQ(result.indications.l3_start - result.packet.data(), 20);
    EXPECT_EQ(tuple_of(result.fid).dst_port, 53);
    EXPECT_EQ(zon_private_get_active_tunnel_flows_count(g_zon->flow_tbl, ZON_TUNNEL_TYPE_IPV6INIP),
              1u);
    EXPECT_EQ(handle(udp6().reversed()).fid, result.fid)
        << "outside the tunnel it is the same connection";
}

TEST_F(tunnelled_packets, does_not_classify_protocol_41_without_ipv6_inside) {
    const packet_result result = handle(six_in_four(tcp4().build()));
    expect_not_classified(result);
    EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_EQ(result.indications.l4_protocol, ZON_IPV6_ENCAPSULATION_PROT);
}

TEST_F(tunnelled_packets, describes_the_outer_packet_when_the_inner_one_is_not_classified) {
    const bytes inner = packet_builder::ipv6("2001:db8::1", "2001:db8::2").icmp().build();
    const packet_result plain = handle(six_in_four(inner));
    expect_not_classified(plain);
    EXPECT_EQ(plain.indications.tunnel_type, ZON_TUNNEL_TYPE_IPV6INIP);
    EXPECT_EQ(plain.indications.l3_protocol, ZON_L3_IPV4);
    EXPECT_EQ(plain.indications.l4_protocol, ZON_IPV6_ENCAPSULATION_PROT);
    const packet_result udp = handle(teredo(inner));
    expect_not_classified(udp);
    EXPECT_EQ(udp.indications.tunnel_type, ZON_TUNNEL_TYPE_TEREDO);
    EXPECT_EQ(udp.indications.l4_protocol, ZON_UDP_PROT);
    disable(ZON_CAPABILITY_ENABLE_TCP);
    expect_not_classified(handle(six_in_four(tcp6().build())));
}

TEST_F(tunnelled_packets,
       still_finds_tunnelled_flows_after_the_capability_has_gone_but_makes_no_more) {
    const zon_fid_t six = handle(six_in_four(tcp6().build())).fid;
    const zon_fid_t ted = handle(teredo(udp6().build())).fid;
    disable(ZON_CAPABILITY_ENABLE_IPV6INIP | ZON_CAPABILITY_ENABLE_TEREDO);
    EXPECT_EQ(handle(six_in_four(tcp6().build())).fid, six);
    EXPECT_EQ(handle(teredo(udp6().build())).fid, ted);
    const packet_builder other =
        packet_builder::ipv6("2001:db8::8", "2001:db8::9").udp(1, 2).payload(1);
    const packet_result refused = handle(six_in_four(other.build()));
    EXPECT_EQ(refused.fid, 0u);
    EXPECT_EQ(refused.error, zon_error_none);
    EXPECT_EQ(refused.indications.tunnel_type, ZON_TUNNEL_TYPE_IPV6INIP);
    EXPECT_EQ(handle(teredo(other.build())).fid, 0u);
    delete_all_flows();
    const packet_result gate = handle(six_in_four(tcp6().build()));
    expect_not_classified(gate);
    EXPECT_EQ(gate.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE)
        << "the gate is closed with the last such flow";
    EXPECT_EQ(handle(teredo(udp6().build())).indications.l4_protocol, ZON_UDP_PROT);
}

TEST_F(tunnelled_packets, ties_fragments_inside_a_tunnel_together) {
    const std::vector<bytes> fragments = fragments_of(udp6().payload(100).build(), 40);
    const packet_result first = handle(six_in_four(fragments[0]));
    ASSERT_NE(first.fid, 0u);
    EXPECT_EQ(first.indications.tunnel_type, ZON_TUNNEL_TYPE_IPV6INIP);
    const packet_result middle = handle(six_in_four(fragments[1]));
    EXPECT_EQ(middle.fid, first.fid);
    EXPECT_EQ(middle.indications.tunnel_type, ZON_TUNNEL_TYPE_IPV6INIP);
    EXPECT_EQ(handle(six_in_four(fragments[2])).fid, first.fid);
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 0u);
}

// Offsets of the search have eight bits: without a stop these two packets would hold a packet
// thread for ever.
TEST_F(tunnelled_packets, ends_on_a_datagram_of_zeros_from_port_0) {
    const packet_builder zeros =
        packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(0, 9).payload(bytes(248));
    EXPECT_EQ(handle(zeros).indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_NE(handle_captured(zeros.build()).fid, 0u);
}

TEST_F(tunnelled_packets, ends_on_an_authentication_that_shifts_the_circle) {
    for (size_t payload = 245; payload <= 247; ++payload) {
        bytes content(payload);
        content[1] = 1;
        content[2] = 6;
        const packet_builder shifted =
            packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(9, 0x0100).payload(content);
        EXPECT_EQ(handle(shifted).indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
        EXPECT_NE(handle_captured(shifted.build()).fid, 0u);
    }
}

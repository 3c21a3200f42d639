// zon_packet_entry_test.cpp - what the packet entry accepts, looks through, presets and ties
// together.

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "support/engine_fixture.h"
#include "zon_engine_inline.h"
#include "zon_frag.h"

using namespace zon_test;

namespace {

packet_builder tcp4() {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80).flags(tcp_syn);
}
packet_builder udp4() {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(40000, 53).payload(20);
}
packet_builder tcp6() {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2").tcp(40000, 80).flags(tcp_syn);
}
packet_builder udp6() {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2").udp(40000, 53).payload(20);
}

bytes six_in_four(const bytes& inner) {
    return in_ipv4("192.0.2.1", "192.0.2.2", inner);
}
bytes teredo(const bytes& inner) {
    return in_teredo("192.0.2.1", "192.0.2.2", inner);
}

class packet_entry : public engine_fixture {};

class packet_entry_without_capabilities : public engine_fixture {
protected:
    packet_entry_without_capabilities() { parameters.capabilities = 0; }
};

zon_flow_tuple_t tuple_of(zon_fid_t fid) {
    zon_flow_tuple_t tuple{};
    EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_INITIATOR, &tuple), zon_error_none);
    return tuple;
}

void expect_not_classified(const packet_result& result) {
    EXPECT_EQ(result.fid, 0u);
    EXPECT_EQ(result.error, zon_error_none);
    EXPECT_EQ(result.indications.packet_seen, 1);
    EXPECT_EQ(result.indications.flow, 0u);
}

}  // namespace

// ---- arguments ----

TEST_F(packet_entry, reports_null_indications) {
    bytes packet = tcp4().build();
    zon_error_t error = zon_error_none;
    EXPECT_EQ(zon_handle_packet(packet.data(), 0, nullptr, nullptr, &error), 0u);
    EXPECT_EQ(error, zon_error_parameter_is_null);
    EXPECT_EQ(zon_sync_packet(packet.data(), 0, nullptr, nullptr, &error, 0, ZON_L4_CLOSED, 0), 0u);
    EXPECT_EQ(error, zon_error_parameter_is_null);
}

TEST(packet_entry_without_engine, reports_that_there_is_none) {
    bytes packet = tcp4().build();
    zon_error_t error = zon_error_none;
    zon_pkt_indications_t seen{};
    EXPECT_EQ(zon_handle_packet(packet.data(), 0, nullptr, &seen, &error), 0u);
    EXPECT_EQ(error, zon_error_engine_not_init);
    EXPECT_EQ(zon_handle_packet(packet.data(), 0, nullptr, nullptr, &error), 0u);
    EXPECT_EQ(error, zon_error_parameter_is_null) << "the indications are checked first";
}

TEST_F(packet_entry, clears_an_error_of_before) {
    bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp().build();
    zon_error_t error = zon_error_memory;
    zon_pkt_indications_t seen{};
    EXPECT_EQ(zon_handle_packet(packet.data(), 0, nullptr, &seen, &error), 0u);
    EXPECT_EQ(error, zon_error_none);
}

// ---- the gate ----

TEST_F(packet_entry_without_capabilities, classifies_nothing) {
    for (const bytes& packet :
         {tcp4().build(), udp4().build(), tcp6().build(), udp6().build(),
          six_in_four(tcp6().build()), teredo(tcp6().build()), tcp6().hop_by_hop().build()})
        expect_not_classified(handle(packet));
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0u);
}

TEST_F(packet_entry_without_capabilities, lets_each_protocol_pass_by_its_own_capability) {
    enable(ZON_CAPABILITY_ENABLE_TCP);
    EXPECT_NE(handle(tcp4()).fid, 0u);
    EXPECT_NE(handle(tcp6()).fid, 0u);
    expect_not_classified(handle(udp4()));
    expect_not_classified(handle(udp6()));
    enable(ZON_CAPABILITY_ENABLE_UDP);
    EXPECT_NE(handle(udp4()).fid, 0u);
    EXPECT_NE(handle(udp6()).fid, 0u);
    disable(ZON_CAPABILITY_ENABLE_TCP);
    expect_not_classified(handle(tcp4()));
}

TEST_F(packet_entry, never_classifies_icmp) {
    enable(ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS | ZON_CAPABILITY_ENABLE_CLIENT_BYPASS);
    const packet_result ipv4 =
        handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp().payload(56));
    expect_not_classified(ipv4);
    EXPECT_EQ(ipv4.indications.l4_protocol, ZON_ICMP_PROT);
    expect_not_classified(handle(packet_builder::ipv6("2001:db8::1", "2001:db8::2").icmp()));
    expect_not_classified(
        handle(six_in_four(packet_builder::ipv6("2001:db8::1", "2001:db8::2").icmp().build())));
}

TEST_F(packet_entry, does_not_classify_an_unknown_version) {
    bytes packet = tcp4().build();
    put8(packet, 0, 0x55);
    const packet_result result = handle(packet);
    expect_not_classified(result);
    EXPECT_EQ(result.indications.l3_protocol, ZON_L3_OTHER);
    EXPECT_EQ(result.indications.l4_protocol, 0);
    EXPECT_EQ(result.indications.l3_start, nullptr);
    EXPECT_EQ(result.indications.l3_header_size, 0u);
    EXPECT_EQ(result.indications.l3_payload_size, 0u);
}

TEST_F(packet_entry, gives_an_encrypted_payload_no_header_size) {
    const packet_result result = handle(packet_builder::ipv6("2001:db8::1", "2001:db8::2").esp());
    expect_not_classified(result);
    EXPECT_EQ(result.indications.l4_protocol, 59);
    EXPECT_EQ(result.indications.l3_header_size, 0u);
    EXPECT_EQ(result.indications.l3_payload_size, 8u);
}

// ---- plain packets ----

TEST_F(packet_entry, gives_both_directions_of_a_connection_one_flow) {
    for (const packet_builder& out :
         {tcp4(), udp4(), tcp6(), udp6(), tcp6().hop_by_hop().authentication()}) {
        const packet_result first = handle(out);
        EXPECT_NE(first.fid, 0u);
        EXPECT_EQ(first.indications.flow, first.fid);
        EXPECT_EQ(first.indications.fif, 1);
        EXPECT_EQ(first.indications.is_initiator, 1);
        EXPECT_EQ(first.indications.flow_pkt_count, 1u);
        const packet_result reply = handle(out.reversed());
        EXPECT_EQ(reply.fid, first.fid);
        EXPECT_EQ(reply.indications.fif, 0);
        EXPECT_EQ(reply.indications.is_initiator, 0);
        EXPECT_EQ(reply.indications.flow_pkt_count, 2u);
        delete_all_flows();
    }
}

TEST_F(packet_entry, describes_an_ipv4_packet) {
    const packet_result result = handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2")
                                            .ip_options({1, 1, 1, 1})
                                            .udp(1000, 53)
                                            .payload(30));
    const zon_pkt_indications_t& seen = result.indications;
    EXPECT_EQ(seen.packet_seen, 1);
    EXPECT_EQ(seen.l3_protocol, ZON_L3_IPV4);
    EXPECT_EQ(seen.l4_protocol, ZON_UDP_PROT);
    EXPECT_EQ(seen.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_EQ(seen.l3_start, result.packet.data());
    EXPECT_EQ(seen.l3_header_size, 24u);
    EXPECT_EQ(seen.l3_payload_size, 38u);
    EXPECT_EQ(seen.l4_start, result.packet.data() + 24);
    EXPECT_EQ(seen.l7_start, result.packet.data() + 32);
    EXPECT_EQ(seen.l4_payload_size, 30u);
    EXPECT_EQ(seen.l4_port.src_port, 1000);
    EXPECT_EQ(seen.l4_port.dst_port, 53);
    EXPECT_EQ(seen.is_fragment, 0);
}

TEST_F(packet_entry, describes_an_ipv6_packet) {
    const packet_result result = handle(packet_builder::ipv6("2001:db8::1", "2001:db8::2")
                                            .hop_by_hop()
                                            .tcp(1000, 80)
                                            .flags(tcp_syn)
                                            .payload(3));
    const zon_pkt_indications_t& seen = result.indications;
    EXPECT_EQ(seen.l3_protocol, ZON_L3_IPV6);
    EXPECT_EQ(seen.l3_start, result.packet.data());
    EXPECT_EQ(seen.l3_header_size, 48u);
    EXPECT_EQ(seen.l3_payload_size, 31u);
    EXPECT_EQ(seen.l4_start, result.packet.data() + 48);
    EXPECT_EQ(seen.l7_start, result.packet.data() + 68);
    EXPECT_EQ(seen.l4_payload_size, 3u);
}

TEST_F(packet_entry, overwrites_whatever_the_indications_held) {
    bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp().build();
    zon_pkt_indications_t seen;
    std::memset(&seen, 0xEE, sizeof seen);
    zon_error_t error;
    zon_handle_packet(packet.data(), 0, nullptr, &seen, &error);
    EXPECT_EQ(seen.flow, 0u);
    EXPECT_EQ(seen.l7_flow_bytes, 0u);
    EXPECT_EQ(seen.flow_pkt_count, 0u);
    EXPECT_EQ(seen.l4_payload_size, 0u);
    EXPECT_EQ(seen.bypass_id, 0u);
    EXPECT_EQ(seen.l4_port.src_port, 0);
    EXPECT_EQ(seen.l4_port.dst_port, 0);
    EXPECT_EQ(seen.is_initiator, 0);
    EXPECT_EQ(seen.fif, 0);
    EXPECT_EQ(seen.lif, 0);
    EXPECT_EQ(seen.first_payload, 0);
    EXPECT_EQ(seen.was_promoted, 0);
    EXPECT_EQ(seen.is_fragment, 0);
    EXPECT_EQ(seen.l4_error, ZON_L4_NOERR);
    EXPECT_EQ(seen.l4_start, nullptr);
    EXPECT_EQ(seen.l7_start, nullptr);
    EXPECT_EQ(seen.hash_valid, 0xEEEEEEEE) << "the host's own input stays";
    EXPECT_EQ(seen.hash_value, 0xEEEEEEEE);
}

TEST_F(packet_entry, builds_the_key_from_the_packet) {
    const zon_flow_tuple_t ipv4 = tuple_of(handle(tcp4(), 77).fid);
    EXPECT_EQ(ipv4.src_ip.u.v4_addr, 0x0A000001u);
    EXPECT_EQ(ipv4.dst_ip.u.v4_addr, 0x0A000002u);
    EXPECT_EQ(ipv4.src_port, 40000);
    EXPECT_EQ(ipv4.dst_port, 80);
    EXPECT_EQ(ipv4.vrf_id, 77u);
    EXPECT_EQ(ipv4.l4_protocol, ZON_TCP_PROT);
    EXPECT_EQ(handle(tcp4(), 77).indications.flow_pkt_count, 2u);
    EXPECT_EQ(handle(tcp4(), 78).indications.flow_pkt_count, 1u) << "another VRF is another flow";
}

TEST_F(packet_entry, classifies_protocol_41_over_ipv6_as_a_flow_without_ports) {
    const packet_result result =
        handle(packet_builder::ipv6("2001:db8::1", "2001:db8::2").protocol(41).payload(60));
    EXPECT_NE(result.fid, 0u);
    EXPECT_EQ(result.indications.l4_error, ZON_L4_UNSUPPORTED_PROTO);
    EXPECT_EQ(result.indications.lif, 1);
    EXPECT_EQ(result.indications.l4_port.src_port, 0);
    EXPECT_EQ(result.indications.l7_start, nullptr);
    EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
}

TEST_F(packet_entry, dumps_plain_ipv6_packets_too_while_they_are_traced) {
    zon_debug_flag_fe = true;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const zon_fid_t fid = handle(tcp6()).fid;
    std::fflush(stdout);
    const std::string dump = testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    zon_debug_flag_fe = false;
    EXPECT_NE(fid, 0u);
    EXPECT_EQ(dump, "ZON FE: src addr: 2001:db8:0:0:0:0:0:1: dst addr: 2001:db8:0:0:0:0:0:2:\n");
}

// ---- a hash of the host's ----

TEST_F(packet_entry, uses_a_hash_of_the_host_unchanged) {
    for (const packet_builder& out :
         {tcp4(), tcp6(), tcp4().ip_options({1}), tcp6().hop_by_hop()}) {
        packet_result first;
        first.packet = out.build();
        first.indications.hash_valid = 1;
        first.indications.hash_value = 0xCAFE;
        first.fid =
            zon_handle_packet(first.packet.data(), 0, nullptr, &first.indications, &first.error);
        ASSERT_NE(first.fid, 0u);
        zon_flow_t* flow = zon_get_flow(first.fid);
        EXPECT_EQ(flow->initiator_flow->key.hash_value, 0xCAFEu);
        EXPECT_EQ(flow->initiator_flow->key.hash_valid, 1u);
        zon_unlock_internal(flow->flow_lock);
        first.fid =
            zon_handle_packet(first.packet.data(), 0, nullptr, &first.indications, &first.error);
        EXPECT_EQ(first.indications.flow_pkt_count, 2u) << "the same hash finds the flow";
        delete_all_flows();
    }
}

TEST_F(packet_entry, hashes_itself_unless_hash_valid_is_1) {
    packet_result first;
    first.packet = tcp4().build();
    first.indications.hash_valid = 2;
    first.indications.hash_value = 0xCAFE;
    first.fid =
        zon_handle_packet(first.packet.data(), 0, nullptr, &first.indications, &first.error);
    EXPECT_EQ(handle(tcp4()).fid, first.fid);
}

// ---- fragments ----

namespace {
std::vector<bytes> three_fragments(bool is_ipv6) {
    const packet_builder whole = is_ipv6 ? udp6().payload(100) : udp4().payload(100);
    return fragments_of(whole.build(), 40);
}
class packet_fragments : public packet_entry, public ::testing::WithParamInterface<bool> {};
}  // namespace

TEST_P(packet_fragments, of_one_datagram_share_the_flow_of_the_first) {
    const std::vector<bytes> fragments = three_fragments(GetParam());
    ASSERT_EQ(fragments.size(), 3u);
    const packet_result first = handle(fragments[0]);
    ASSERT_NE(first.fid, 0u);
    EXPECT_EQ(first.indications.is_fragment, 1);
    EXPECT_EQ(first.indications.fif, 1);
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 1u);

    const packet_result middle = handle(fragments[1]);
    EXPECT_EQ(middle.fid, first.fid);
    EXPECT_EQ(middle.error, zon_error_none);
    EXPECT_EQ(middle.indications.flow, first.fid);
    EXPECT_EQ(middle.indications.is_fragment, 1);
    EXPECT_EQ(middle.indications.l4_error, ZON_L4_NOERR_NON_FIRST_FRAG);
    EXPECT_EQ(middle.indications.flow_pkt_count, 1u) << "a later fragment is not counted";
    EXPECT_EQ(middle.indications.l7_flow_bytes, first.indications.l7_flow_bytes);
    EXPECT_EQ(middle.indications.l4_payload_size, 0u);
    const std::ptrdiff_t data = GetParam() ? 48 : 20;
    EXPECT_EQ(middle.indications.l4_start - middle.packet.data(), data);
    EXPECT_EQ(middle.indications.l7_start - middle.packet.data(), data + 8);
    EXPECT_EQ(middle.indications.l4_port.src_port, 0xA5A5) << "read from the fragment's data";
    EXPECT_EQ(middle.indications.l4_port.dst_port, 0xA5A5);
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 1u);

    const packet_result last = handle(fragments[2]);
    EXPECT_EQ(last.fid, first.fid);
    EXPECT_EQ(last.indications.l4_error, ZON_L4_NOERR_NON_FIRST_FRAG);
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 0u);

    for (size_t late : {1u, 2u}) {
        const packet_result fourth = handle(fragments[late]);
        EXPECT_EQ(fourth.fid, 0u);
        EXPECT_EQ(fourth.error, zon_error_none);
        EXPECT_EQ(fourth.indications.is_fragment, 1);
        EXPECT_EQ(fourth.indications.l4_error, ZON_L4_NOERR_NON_FIRST_FRAG);
        EXPECT_EQ(fourth.indications.l4_start, nullptr);
        EXPECT_EQ(fourth.indications.l7_start - fourth.packet.data(), data + 8);
        EXPECT_EQ(fourth.indications.l4_port.src_port, 0);
    }
}

TEST_P(packet_fragments, are_told_apart_by_vrf_and_identification) {
    const std::vector<bytes> fragments = three_fragments(GetParam());
    ASSERT_NE(handle(fragments[0], 1).fid, 0u);
    EXPECT_EQ(handle(fragments[1], 2).fid, 0u);
    bytes other = fragments[1];
    put8(other, GetParam() ? 47 : 5, 0x99);
    EXPECT_EQ(handle(other, 1).fid, 0u);
    EXPECT_NE(handle(fragments[1], 1).fid, 0u);
}

TEST_P(packet_fragments, lose_their_entry_with_their_flow) {
    const std::vector<bytes> fragments = three_fragments(GetParam());
    const packet_result first = handle(fragments[0]);
    delete_all_flows();
    const packet_result middle = handle(fragments[1]);
    EXPECT_EQ(middle.fid, 0u);
    EXPECT_EQ(middle.indications.flow, 0u);
    EXPECT_EQ(middle.indications.l4_error, ZON_L4_NOERR_NON_FIRST_FRAG);
    EXPECT_NE(middle.indications.l7_start, nullptr);
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 0u);
}

TEST_P(packet_fragments, find_nothing_after_30_seconds) {
    const std::vector<bytes> fragments = three_fragments(GetParam());
    const packet_result first = handle(fragments[0]);
    ASSERT_EQ(zon_flow_set_aging(first.fid, 3600), zon_error_none);
    advance_ms(29900);
    EXPECT_EQ(handle(fragments[1]).fid, first.fid);
    advance_ms(200);
    EXPECT_EQ(handle(fragments[1]).fid, 0u);
    EXPECT_EQ(handle(fragments[2]).fid, 0u);
}

TEST_P(packet_fragments, of_which_the_first_was_refused_are_not_tracked) {
    zon_client_register_pre_flow_create_cb(client, [](void*, zon_client_id_e) { return false; });
    const packet_result first = handle(three_fragments(GetParam())[0]);
    EXPECT_EQ(first.fid, 0u);
    EXPECT_EQ(first.error, zon_error_client_pre_create_prevented);
    EXPECT_EQ(first.indications.is_fragment, 1);
    EXPECT_EQ(first.indications.flow, 0u);
    const std::ptrdiff_t l4 = GetParam() ? 48 : 20;
    EXPECT_EQ(first.indications.l4_start - first.packet.data(), l4);
    EXPECT_EQ(first.indications.l7_start - first.packet.data(), l4 + 8);
    EXPECT_EQ(first.indications.l4_port.dst_port, 53);
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 0u);
}

TEST_P(packet_fragments, of_a_later_datagram_take_its_newer_flow) {
    const std::vector<bytes> fragments = three_fragments(GetParam());
    const zon_fid_t old_fid = handle(fragments[0]).fid;
    delete_all_flows();
    const zon_fid_t new_fid = handle(fragments[0]).fid;
    EXPECT_NE(new_fid, old_fid);
    EXPECT_EQ(handle(fragments[1]).fid, new_fid);
}

INSTANTIATE_TEST_SUITE_P(families, packet_fragments, ::testing::Bool(),
                         [](const auto& row) { return row.param ? "ipv6" : "ipv4"; });

TEST_F(packet_entry, places_the_payload_of_a_later_tcp_fragment_by_its_would_be_header) {
    const packet_builder whole = tcp4().payload(100);
    bytes middle = packet_builder(whole).fragment(24, true).build();
    const packet_result result = handle(middle);
    EXPECT_EQ(result.indications.l7_start - result.packet.data(), 20 + 20);
}

TEST_F(packet_entry, treats_a_lone_fragment_header_as_no_fragment) {
    const packet_result result =
        handle(packet_builder::ipv6("2001:db8::1", "2001:db8::2").fragment(0, false).udp(1, 2));
    EXPECT_NE(result.fid, 0u);
    EXPECT_EQ(result.indications.is_fragment, 0);
}

// ---- tunnels ----

TEST_F(packet_entry, keys_a_teredo_packet_by_its_inner_tuple) {
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

TEST_F(packet_entry, classifies_teredo_as_plain_udp_while_it_is_disabled) {
    disable(ZON_CAPABILITY_ENABLE_TEREDO);
    const packet_result result = handle(teredo(tcp6().build()));
    EXPECT_NE(result.fid, 0u);
    EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_EQ(result.indications.l4_protocol, ZON_UDP_PROT);
    EXPECT_EQ(tuple_of(result.fid).dst_port, 3544);
}

TEST_F(packet_entry, needs_the_udp_capability_for_teredo_whatever_is_inside) {
    disable(ZON_CAPABILITY_ENABLE_UDP);
    expect_not_classified(handle(teredo(tcp6().build())));
}

TEST_F(packet_entry, looks_behind_teredo_indicators_on_any_port) {
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

TEST_F(packet_entry, keeps_udp_that_is_no_teredo_as_udp) {
    for (const bytes& payload : {bytes{}, bytes{0}, bytes{0, 0}, bytes{0, 1, 0, 0}, bytes(300),
                                 bytes{0x60}, bytes(40, 0x60)}) {
        const packet_result result = handle(udp4().payload(payload));
        EXPECT_NE(result.fid, 0u);
        EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    }
}

TEST_F(packet_entry, does_not_look_for_a_tunnel_behind_an_empty_datagram) {
    bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(3544, 3544).build();
    const bytes behind = tcp6().build();
    packet.insert(packet.end(), behind.begin(), behind.end());
    EXPECT_EQ(handle(packet).indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
}

TEST_F(packet_entry, keys_ipv6_in_ipv4_by_its_inner_tuple) {
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

TEST_F(packet_entry, does_not_classify_protocol_41_without_ipv6_inside) {
    const packet_result result = handle(six_in_four(tcp4().build()));
    expect_not_classified(result);
    EXPECT_EQ(result.indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_EQ(result.indications.l4_protocol, ZON_IPV6_ENCAPSULATION_PROT);
}

TEST_F(packet_entry, describes_the_outer_packet_when_the_inner_one_is_not_classified) {
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

TEST_F(packet_entry, still_finds_tunnelled_flows_after_the_capability_has_gone_but_makes_no_more) {
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

TEST_F(packet_entry, ties_fragments_inside_a_tunnel_together) {
    const std::vector<bytes> fragments = three_fragments(true);
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
TEST_F(packet_entry, ends_on_a_datagram_of_zeros_from_port_0) {
    const packet_builder zeros =
        packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(0, 9).payload(bytes(248));
    EXPECT_EQ(handle(zeros).indications.tunnel_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_NE(handle_captured(zeros.build()).fid, 0u);
}

TEST_F(packet_entry, ends_on_an_authentication_that_shifts_the_circle) {
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

// ---- reports of the platform ----

TEST_F(packet_entry, takes_state_and_count_from_a_report) {
    const zon_fid_t fid = handle(tcp4()).fid;
    bytes packet = tcp4().flags(tcp_ack).payload(10).build();
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_memory;
    EXPECT_EQ(
        zon_sync_packet(packet.data(), 0, nullptr, &seen, &error, fid, ZON_L4_BI_ESTABLISHED, 7),
        fid);
    EXPECT_EQ(error, zon_error_none);
    EXPECT_EQ(seen.flow_pkt_count, 7u);
    EXPECT_EQ(seen.l7_flow_bytes, 10u);
    zon_l4_flow_state_e state{};
    EXPECT_EQ(zon_flow_get_l4_state(fid, &state), zon_error_none);
    EXPECT_EQ(state, ZON_L4_BI_ESTABLISHED);
}

TEST_F(packet_entry, treats_a_report_without_a_flow_as_an_ordinary_packet) {
    bytes packet = tcp4().build();
    zon_pkt_indications_t seen{};
    zon_error_t error{};
    EXPECT_NE(zon_sync_packet(packet.data(), 0, nullptr, &seen, &error, 0, ZON_L4_CLOSING, 99), 0u);
    EXPECT_EQ(seen.flow_pkt_count, 1u);
    EXPECT_EQ(seen.fif, 1);
}

TEST_F(packet_entry, survives_a_report_for_a_flow_of_the_other_family) {
    const zon_fid_t fid6 = handle(tcp6()).fid;
    bytes packet = tcp4().build();
    zon_pkt_indications_t seen{};
    zon_error_t error{};
    EXPECT_EQ(
        zon_sync_packet(packet.data(), 0, nullptr, &seen, &error, fid6, ZON_L4_BI_ESTABLISHED, 2),
        fid6);
    EXPECT_EQ(seen.is_initiator, 0);
    const zon_fid_t fid4 = handle(tcp4()).fid;
    bytes packet6 = tcp6().build();
    EXPECT_EQ(
        zon_sync_packet(packet6.data(), 0, nullptr, &seen, &error, fid4, ZON_L4_BI_ESTABLISHED, 2),
        fid4);
}

// ---- the host's hooks ----

TEST_F(packet_entry, leaves_the_hooks_without_effect_unless_a_host_replaces_them) {
    uint32_t src = 1, dst = 2;
    uint16_t sport = 3, dport = 4;
    EXPECT_EQ(zon_get_vrf_table_id(nullptr), 0u);
    EXPECT_FALSE(zon_ipnat_enabled(nullptr));
    EXPECT_FALSE(zon_ipnat_translation_required(nullptr));
    EXPECT_FALSE(zon_ipv4nat_fixup_ip_port(nullptr, &src, &sport, &dst, &dport, 6));
    EXPECT_FALSE(zon_ipv4nat_get_translated_ip_port(nullptr, &src, &sport, &dst, &dport));
    EXPECT_EQ(src + dst + sport + dport, 10u);
}

TEST_F(packet_entry, lets_a_flow_leave_soon_after_its_last_packet_was_cleaned_up) {
    const packet_result syn = handle(tcp4());
    EXPECT_FALSE(zon_cleanup_packet(nullptr));
    zon_pkt_ctx_t context{};
    context.pkt_indications = syn.indications;
    EXPECT_FALSE(zon_cleanup_packet(&context)) << "not the last packet";
    context.pkt_indications.lif = 1;
    EXPECT_TRUE(zon_cleanup_packet(&context));
    advance_ms(1100);
    EXPECT_EQ(handle(tcp4()).indications.fif, 1) << "the flow has gone";
    context.pkt_indications.flow = 0;
    EXPECT_FALSE(zon_cleanup_packet(&context)) << "no such flow";
}

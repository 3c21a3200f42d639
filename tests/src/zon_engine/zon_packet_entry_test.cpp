// zon_packet_entry_test.cpp - what the packet entry accepts, looks through, presets and ties
// together.

#include <gtest/gtest.h>

#include <cstring>

#include "support/packet_outcome.h"
#include "support/preset_indications.h"
#include "support/sample_packets.h"
#include "zon_engine_inline.h"

using namespace zon_test;

namespace {

class packet_entry : public engine_fixture {};

class packet_entry_without_capabilities : public engine_fixture {
protected:
    packet_entry_without_capabilities() { parameters.capabilities = 0; }
};

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
    expect_preset(seen);
    EXPECT_EQ(seen.is_fragment, 0);
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

// zon_packet_fragments_test.cpp - later fragments and the flow of the first.

#include <gtest/gtest.h>

#include <vector>

#include "support/engine_fixture.h"
#include "support/sample_packets.h"
#include "zon_frag.h"

using namespace zon_test;

namespace {
std::vector<bytes> three_fragments(bool is_ipv6) {
    const packet_builder whole = is_ipv6 ? udp6().payload(100) : udp4().payload(100);
    return fragments_of(whole.build(), 40);
}
class packet_fragments : public engine_fixture, public ::testing::WithParamInterface<bool> {};
class single_fragments : public engine_fixture {};
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

TEST_F(single_fragments, places_the_payload_of_a_later_tcp_fragment_by_its_would_be_header) {
    const packet_builder whole = tcp4().payload(100);
    bytes middle = packet_builder(whole).fragment(24, true).build();
    const packet_result result = handle(middle);
    EXPECT_EQ(result.indications.l7_start - result.packet.data(), 20 + 20);
}

TEST_F(single_fragments, treats_a_lone_fragment_header_as_no_fragment) {
    const packet_result result =
        handle(packet_builder::ipv6("2001:db8::1", "2001:db8::2").fragment(0, false).udp(1, 2));
    EXPECT_NE(result.fid, 0u);
    EXPECT_EQ(result.indications.is_fragment, 0);
}

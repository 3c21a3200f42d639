// zon_captured_headers_test.cpp - fields of captured packets that contradict each other, or nearly.

#include <utility>

#include "src/zon_engine/zon_captured_packet_fixture.h"

using namespace zon_test;

namespace {
struct contradiction {
    const char* name;
    bytes packet;
    bool is_refused;
};
void PrintTo(const contradiction& row, std::ostream* out) {
    *out << row.name;
}
class header_fields : public captured_packets,
                      public ::testing::WithParamInterface<contradiction> {};

bytes with_ihl(uint8_t words) {
    return damaged8(tcp4().payload(60).build(), 0, static_cast<uint8_t>(0x40 | words));
}
bytes with_doff(bytes packet, size_t tcp, uint8_t words) {
    return damaged8(std::move(packet), tcp + 12, static_cast<uint8_t>(words << 4));
}
}  // namespace

TEST_P(header_fields, are_believed_only_where_they_agree) {
    const packet_result result = hand_in(GetParam().packet);
    if (GetParam().is_refused)
        expect_refused(result);
    else
        EXPECT_EQ(result.error, zon_error_none);
}

INSTANTIATE_TEST_SUITE_P(
    ipv4, header_fields,
    ::testing::Values(
        contradiction{"header_of_0_words", with_ihl(0), true},
        contradiction{"header_of_1_word", with_ihl(1), true},
        contradiction{"header_of_4_words", with_ihl(4), true},
        contradiction{"header_of_5_words", with_ihl(5), false},
        contradiction{"total_length_of_0", damaged16(tcp4().build(), 2, 0), true},
        contradiction{"total_length_below_header", damaged16(udp4().build(), 2, 19), true},
        contradiction{"total_length_of_the_header_alone",
                      damaged16(packet_builder::ipv4("10.0.0.1", "10.0.0.2").icmp().build(), 2, 20),
                      false},
        contradiction{"tcp_cut_off_by_total_length", damaged16(tcp4().payload(9).build(), 2, 39),
                      true},
        contradiction{"tcp_ends_with_total_length", damaged16(tcp4().payload(9).build(), 2, 40),
                      false},
        contradiction{"tcp_in_link_padding", with_padding(damaged16(tcp4().build(), 2, 36), 24),
                      true},
        contradiction{"total_length_beyond_the_capture",
                      damaged16(tcp4().payload(9).build(), 2, 1500), false},
        contradiction{"tcp_offset_of_0_words", with_doff(tcp4().payload(60).build(), 20, 0), true},
        contradiction{"tcp_offset_of_4_words", with_doff(tcp4().payload(60).build(), 20, 4), true},
        contradiction{"tcp_offset_to_the_end", with_doff(tcp4().payload(40).build(), 20, 15),
                      false},
        contradiction{"tcp_offset_beyond_the_end", with_doff(tcp4().payload(39).build(), 20, 15),
                      true},
        contradiction{"tcp_offset_into_padding",
                      with_doff(with_padding(tcp4().payload(39).build(), 20), 20, 15), true},
        contradiction{"udp_length_of_7", damaged16(udp4().build(), 24, 7), true},
        contradiction{"udp_length_of_0", damaged16(udp4().build(), 24, 0), true},
        contradiction{"udp_length_of_8", damaged16(udp4().build(), 24, 8), false},
        contradiction{"udp_length_one_too_long", damaged16(udp4().build(), 24, 29), true},
        contradiction{"udp_length_into_padding", damaged16(with_padding(udp4().build(), 9), 24, 29),
                      true},
        contradiction{"udp_length_of_a_first_fragment",
                      damaged16(udp4().fragment(0, true).build(), 24, 4000), false},
        contradiction{"udp_length_of_7_in_a_first_fragment",
                      damaged16(udp4().fragment(0, true).build(), 24, 7), true},
        contradiction{"last_fragment_up_to_65535",
                      packet_builder::ipv4("10.0.0.1", "10.0.0.2")
                          .protocol(17)
                          .fragment(65528, false)
                          .payload(7)
                          .build(),
                      false},
        contradiction{"last_fragment_beyond_65535",
                      packet_builder::ipv4("10.0.0.1", "10.0.0.2")
                          .protocol(17)
                          .fragment(65528, false)
                          .payload(8)
                          .build(),
                      true},
        contradiction{"icmp_fragment_beyond_65535",
                      packet_builder::ipv4("10.0.0.1", "10.0.0.2")
                          .protocol(1)
                          .fragment(65528, false)
                          .payload(8)
                          .build(),
                      false}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    ipv6, header_fields,
    ::testing::Values(
        contradiction{"jumbogram", damaged16(tcp6().build(), 4, 0), true},
        contradiction{"icmp_of_no_length", damaged16(ipv6().icmp().build(), 4, 0), true},
        contradiction{"nothing_of_no_length", ipv6().protocol(59).build(), false},
        contradiction{"payload_ends_before_tcp", damaged16(tcp6().payload(9).build(), 4, 19), true},
        contradiction{"payload_ends_with_tcp", damaged16(tcp6().payload(9).build(), 4, 20), false},
        contradiction{"payload_ends_inside_an_extension",
                      damaged16(tcp6().hop_by_hop(1).build(), 4, 15), true},
        contradiction{"payload_beyond_the_capture", damaged16(tcp6().build(), 4, 9000), false},
        contradiction{"extension_beyond_the_capture",
                      damaged8(tcp6().hop_by_hop().build(), 41, 200), true},
        contradiction{"extension_that_swallows_tcp", damaged8(tcp6().hop_by_hop().build(), 41, 2),
                      true},
        contradiction{"seventeen_extensions", chain_of(17).build(), true},
        contradiction{"second_fragment_header", udp6().fragment(0, true).fragment(0, false).build(),
                      true},
        contradiction{"tcp_offset_of_4_words", with_doff(tcp6().payload(60).build(), 40, 4), true},
        contradiction{"tcp_offset_beyond_the_end", with_doff(tcp6().payload(39).build(), 40, 15),
                      true},
        contradiction{"tcp_offset_to_the_end", with_doff(tcp6().payload(40).build(), 40, 15),
                      false},
        contradiction{"udp_length_of_7", damaged16(udp6().build(), 44, 7), true},
        contradiction{"udp_length_one_too_long", damaged16(udp6().build(), 44, 29), true},
        contradiction{"udp_length_one_too_long_behind_extension",
                      damaged16(udp6().hop_by_hop().build(), 52, 29), true},
        contradiction{"udp_length_of_a_first_fragment",
                      damaged16(udp6().fragment(0, true).build(), 52, 4000), false},
        contradiction{"udp_length_with_a_lone_fragment_header",
                      damaged16(udp6().fragment(0, false).build(), 52, 4000), true},
        contradiction{"not_ipv6_behind_protocol_41", ipv6().protocol(41).payload(3).build(),
                      false}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    inner, header_fields,
    ::testing::Values(
        contradiction{"jumbogram", damaged16(six_in_four(tcp6()), 24, 0), true},
        contradiction{"longer_than_the_outer_packet", damaged16(six_in_four(tcp6()), 24, 4000),
                      false},
        contradiction{"tcp_offset_of_4_words", with_doff(six_in_four(tcp6().payload(60)), 60, 4),
                      true},
        contradiction{"udp_length_of_7", damaged16(six_in_four(udp6()), 64, 7), true},
        contradiction{"cut_off_by_the_outer_length",
                      damaged16(six_in_four(tcp6().payload(9)), 2, 79), true},
        contradiction{"extension_beyond_the_outer_packet",
                      damaged8(six_in_four(tcp6().hop_by_hop()), 61, 200), true},
        contradiction{"nothing_in_protocol_41", in_ipv4("192.0.2.1", "192.0.2.2", {}), true},
        contradiction{"jumbogram_in_teredo", damaged16(teredo(tcp6()), 32, 0), true},
        contradiction{"tcp_offset_of_4_words_in_teredo",
                      with_doff(teredo(tcp6().payload(60)), 68, 4), true},
        contradiction{"cut_off_by_the_udp_length", damaged16(teredo(tcp6()), 24, 67), true},
        contradiction{"whole_in_teredo", teredo(tcp6()), false}),
    [](const auto& row) { return row.param.name; });

// ip_header_test.cpp - lengths, sources and later fragments of both families, cut or whole.
#include "capture/ip_header.h"

#include <gtest/gtest.h>

#include "tests/apps/zonflow/support/capture_file.h"

namespace {

using namespace zonflow;
using namespace zonflow_tests;

// A fragment header (RFC 8200 4.5) in front of UDP.
bytes fragment_header(uint16_t offset_in_bytes, bool more) {
    return bytes{17, 0} + be16(static_cast<uint32_t>(offset_in_bytes | (more ? 1 : 0))) + be32(1);
}

TEST(ip_header, reads_length_and_source_of_ipv4) {
    const ip_header header = read_ip_header(ipv4_packet({.from = 0xc0000201}, bytes(8, 0)));
    EXPECT_EQ(header.total_length, 28u);
    EXPECT_EQ(header.source, (ip_address{192, 0, 2, 1}));
    EXPECT_FALSE(header.later_fragment);
}

TEST(ip_header, counts_the_ipv6_header_into_the_length) {
    const ip_header header = read_ip_header(ipv6_packet(17, bytes(8, 0), 9));
    EXPECT_EQ(header.total_length, 48u);
    EXPECT_EQ(header.source[15], 9);
    EXPECT_FALSE(header.later_fragment);
}

TEST(ip_header, tells_later_ipv4_fragments_by_their_offset_alone) {
    EXPECT_FALSE(read_ip_header(ipv4_packet({.fragment = 0x2000}, bytes(8, 0))).later_fragment);
    EXPECT_TRUE(read_ip_header(ipv4_packet({.fragment = 0x2001}, bytes(8, 0))).later_fragment);
    EXPECT_TRUE(read_ip_header(ipv4_packet({.fragment = 0x0001}, bytes(8, 0))).later_fragment);
}

TEST(ip_header, finds_the_fragment_header_behind_other_extension_headers) {
    const bytes hop_by_hop{43, 0, 0, 0, 0, 0, 0, 0};
    const bytes routing{44, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const auto packet = [&](uint16_t offset) {
        return ipv6_packet(0, hop_by_hop + routing + fragment_header(offset, true) + bytes(8, 0));
    };
    EXPECT_FALSE(read_ip_header(packet(0)).later_fragment);
    EXPECT_TRUE(read_ip_header(packet(8)).later_fragment);
}

TEST(ip_header, stops_at_the_end_of_the_bytes) {
    const bytes whole = ipv6_packet(0, bytes{44, 0, 0, 0, 0, 0, 0, 0} + fragment_header(8, true));
    for (size_t length = 0; length < whole.size(); ++length) {
        const bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_FALSE(read_ip_header(cut).later_fragment) << length;
    }
    EXPECT_TRUE(read_ip_header(whole).later_fragment);
}

TEST(ip_header, ends_on_a_chain_that_points_beyond_the_packet) {
    EXPECT_FALSE(read_ip_header(ipv6_packet(0, bytes{0, 255, 0, 0, 0, 0, 0, 0})).later_fragment);
}

TEST(ip_header, is_empty_for_another_version) {
    EXPECT_EQ(read_ip_header(bytes(60, 0x50)).total_length, 0u);
}

}  // namespace

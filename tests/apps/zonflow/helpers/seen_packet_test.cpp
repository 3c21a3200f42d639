// seen_packet_test.cpp - the payload that a helper may read, for headers that tell the truth and
// for others.
#include <gtest/gtest.h>

#include <vector>

#include "helpers/seen_packet.h"

namespace {

using namespace zonflow;

// A packet of 20 bytes of IP header, 20 of TCP header and 10 of payload, unless a row says
// otherwise.
struct payload_case {
    const char* name;
    size_t captured = 50;
    uint32_t l4_payload_size = 10;
    uint32_t l3_payload_size = 30;
    std::ptrdiff_t l7_at = 40;
    zon_l4_retcode l4_error = ZON_L4_NOERR;
    size_t expected = 10;
};

class payloads : public testing::TestWithParam<payload_case> {};

TEST_P(payloads, lie_within_the_captured_bytes) {
    const payload_case& row = GetParam();
    std::vector<uint8_t> packet(row.captured, 'x');
    zon_pkt_indications_t seen{};
    seen.l3_start = packet.data();
    seen.l3_header_size = 20;
    seen.l3_payload_size = row.l3_payload_size;
    seen.l4_payload_size = row.l4_payload_size;
    // A lying header makes the engine's pointer point anywhere.
    seen.l7_start = reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(packet.data()) +
                                               static_cast<uintptr_t>(row.l7_at));
    seen.l4_error = row.l4_error;
    const std::string_view payload = captured_payload(seen, packet);
    EXPECT_EQ(payload.size(), row.expected);
    if (!payload.empty()) {
        EXPECT_EQ(payload.data(), reinterpret_cast<const char*>(packet.data()) + row.l7_at);
    }
}

INSTANTIATE_TEST_SUITE_P(
    seen_packet, payloads,
    testing::Values(
        payload_case{.name = "whole"}, payload_case{.name = "padded_by_the_link", .captured = 60},
        payload_case{.name = "cut_off", .captured = 44, .expected = 4},
        payload_case{.name = "cut_before_it", .captured = 40, .expected = 0},
        payload_case{.name = "cut_inside_the_header", .captured = 30, .expected = 0},
        payload_case{.name = "length_beyond_the_packet", .captured = 60, .l4_payload_size = 65535},
        payload_case{.name = "length_beyond_the_capture",
                     .l4_payload_size = 65535,
                     .l3_payload_size = 65535},
        payload_case{.name = "no_payload", .l4_payload_size = 0, .expected = 0},
        payload_case{.name = "start_behind_the_packet", .l7_at = 51, .expected = 0},
        payload_case{.name = "start_before_the_packet", .l7_at = -1, .expected = 0},
        payload_case{
            .name = "later_fragment", .l4_error = ZON_L4_NOERR_NON_FIRST_FRAG, .expected = 0}),
    [](const auto& row) { return row.param.name; });

TEST(seen_packet, has_no_payload_where_the_engine_found_none) {
    const std::vector<uint8_t> packet(50);
    zon_pkt_indications_t seen{};
    seen.l4_payload_size = 10;
    EXPECT_TRUE(captured_payload(seen, packet).empty());
}

}  // namespace

// link_layer_test.cpp - every link layer, every stack behind an EtherType, and every place where a
// frame may be cut.
#include "capture/link_layer.h"

#include <gtest/gtest.h>

#include "tests/apps/zonflow/support/capture_file.h"

namespace {

using namespace zonflow;
using namespace zonflow_tests;

const bytes ipv4 = ipv4_packet({}, udp_segment(1, 2, 3));
const bytes ipv6 = ipv6_packet(17, udp_segment(1, 2, 3));
const bytes label_stack{0x00, 0x01, 0x00, 64,
                        0x00, 0x02, 0x01, 64};  // two labels, the second is the bottom
const bytes pppoe_header{0x11, 0x00, 0x00, 0x07, 0x00, 0x20};

struct frame_case {
    const char* name;
    int link_type;
    bytes before;  // what stands before the IP header
    bytes ip;
    uint16_t vlan = 0;
};

class found_frame : public testing::TestWithParam<frame_case> {};

TEST_P(found_frame, has_its_ip_header_and_outer_vlan_found) {
    const frame_case& c = GetParam();
    const bytes frame = c.before + c.ip;
    const link_result result = link_layer::of_type(c.link_type)->find_ip(frame);
    ASSERT_EQ(result.verdict, link_verdict::ip);
    EXPECT_EQ(result.ip_bytes.data(), frame.data() + c.before.size());
    EXPECT_EQ(result.ip_bytes.size(), c.ip.size());
    EXPECT_EQ(result.outer_vlan, c.vlan);
}

TEST_P(found_frame, is_cut_when_it_ends_anywhere_before_its_ip_header) {
    const frame_case& c = GetParam();
    for (size_t length = 0; length <= c.before.size(); ++length) {
        // Exactly as large as claimed: a read beyond it is seen by the address sanitizer.
        const bytes frame(c.before.begin(), c.before.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_EQ(link_layer::of_type(c.link_type)->find_ip(frame).verdict, link_verdict::cut)
            << length << " bytes";
    }
}

const frame_case frames[] = {
    {"ethernet_ipv4", 1, ethernet(0x0800, {}), ipv4},
    {"ethernet_ipv6", 1, ethernet(0x86dd, {}), ipv6},
    {"one_vlan_tag", 1, ethernet(0x8100, vlan_tag(0xe00a, 0x0800)), ipv4, 10},
    {"service_and_customer_tag", 1, ethernet(0x88a8, vlan_tag(20, 0x8100) + vlan_tag(30, 0x86dd)),
     ipv6, 20},
    {"three_tags", 1,
     ethernet(0x9100, vlan_tag(1, 0x9100) + vlan_tag(2, 0x8100) + vlan_tag(3, 0x0800)), ipv4, 1},
    {"mpls_ipv4", 1, ethernet(0x8847, label_stack), ipv4},
    {"mpls_multicast_ipv6", 1, ethernet(0x8848, label_stack), ipv6},
    {"vlan_and_mpls", 1, ethernet(0x8100, vlan_tag(7, 0x8847) + label_stack), ipv4, 7},
    {"pppoe_ipv4", 1, ethernet(0x8864, pppoe_header + be16(0x0021)), ipv4},
    {"pppoe_ipv6", 1, ethernet(0x8864, pppoe_header + be16(0x0057)), ipv6},
    {"pppoe_short_protocol", 1, ethernet(0x8864, pppoe_header + bytes{0x21}), ipv4},
    {"vlan_pppoe_mpls", 1,
     ethernet(0x8100, vlan_tag(9, 0x8864) + pppoe_header + be16(0x0281) + label_stack), ipv4, 9},
    {"linux_cooked", 113, bytes(14, 0) + be16(0x0800), ipv4},
    {"linux_cooked_vlan", 113, bytes(14, 0) + be16(0x8100) + vlan_tag(5, 0x86dd), ipv6, 5},
    {"linux_cooked_v2", 276, be16(0x86dd) + bytes(18, 0), ipv6},
    {"loopback_big_endian_ipv4", 108, be32(2), ipv4},
    {"loopback_little_endian_ipv4", 0, bytes{2, 0, 0, 0}, ipv4},
    {"loopback_freebsd_ipv6", 0, bytes{28, 0, 0, 0}, ipv6},
    {"loopback_openbsd_ipv6", 108, be32(24), ipv6},
    {"loopback_macos_ipv6", 0, be32(30), ipv6},
    {"raw_ip_12", 12, {}, ipv4},
    {"raw_ip_14", 14, {}, ipv6},
    {"raw_ip_101", 101, {}, ipv4},
    {"raw_ipv4", 228, {}, ipv4},
    {"raw_ipv6", 229, {}, ipv6},
};

INSTANTIATE_TEST_SUITE_P(link_layer, found_frame, testing::ValuesIn(frames),
                         [](const auto& row) { return row.param.name; });

struct other_case {
    const char* name;
    int link_type;
    bytes frame;
};

class other_frame : public testing::TestWithParam<other_case> {};

TEST_P(other_frame, is_not_ip) {
    const other_case& c = GetParam();
    EXPECT_EQ(link_layer::of_type(c.link_type)->find_ip(c.frame).verdict, link_verdict::not_ip);
}

const other_case others[] = {
    {"arp", 1, ethernet(0x0806, bytes(28, 0))},
    {"llc_length", 1, ethernet(0x0026, bytes(38, 0x42))},
    {"arp_in_vlan", 1, ethernet(0x8100, vlan_tag(1, 0x0806) + bytes(28, 0))},
    {"pppoe_discovery", 1, ethernet(0x8863, bytes(20, 0))},
    {"pppoe_session_control", 1, ethernet(0x8864, bytes{0x11, 0xa7, 0, 7, 0, 0, 0, 0x21} + ipv4)},
    {"ppp_link_control", 1, ethernet(0x8864, pppoe_header + be16(0xc021) + bytes(20, 0))},
    {"mpls_pseudowire", 1, ethernet(0x8847, label_stack + bytes(40, 0))},
    {"cooked_arp", 113, bytes(14, 0) + be16(0x0806) + bytes(28, 0)},
    {"loopback_osi", 0, bytes{7, 0, 0, 0} + ipv4},
};

INSTANTIATE_TEST_SUITE_P(link_layer, other_frame, testing::ValuesIn(others),
                         [](const auto& row) { return row.param.name; });

TEST(link_layer, refuses_a_link_type_that_it_does_not_know) {
    EXPECT_FALSE(link_layer::of_type(105).has_value());
}

TEST(link_layer, lists_its_known_types_with_number_and_name) {
    const std::string list = known_link_types();
    EXPECT_NE(list.find("1 Ethernet"), std::string::npos);
    EXPECT_NE(list.find("276 Linux cooked v2"), std::string::npos);
}

}  // namespace

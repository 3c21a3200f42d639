// table_output_test.cpp - the table keeps to 80 columns and cuts nothing off.
#include "output/table_output.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "tests/apps/zonflow/support/zonflow_program.h"

namespace {

using namespace zonflow;
using namespace zonflow_tests;

struct number_case {
    uint64_t value;
    const char* text;
};

class short_numbers : public testing::TestWithParam<number_case> {};

TEST_P(short_numbers, fit_into_five_characters) {
    EXPECT_EQ(short_number(GetParam().value), GetParam().text);
    EXPECT_LE(short_number(GetParam().value).size(), 5u);
}

INSTANTIATE_TEST_SUITE_P(table_output, short_numbers,
                         testing::Values(number_case{0, "0"}, number_case{99'999, "99999"},
                                         number_case{100'000, "100K"}, number_case{999'499, "999K"},
                                         number_case{999'500, "1.0M"},
                                         number_case{12'345'678, "12.3M"},
                                         number_case{99'960'000, "100M"},
                                         number_case{1'500'000'000, "1.5G"},
                                         number_case{18446744073709551615u, "18.4E"}));

// With the columns of a line that goes to no terminal.
std::vector<std::string> table_of(const std::vector<flow_record>& records, bool show_vlan = false) {
    std::FILE* file = std::tmpfile();
    output_stream stream(file);
    table_output table(stream, false, show_vlan);
    table.begin("name");
    capture_summary summary;
    for (const flow_record& record : records) {
        table.flow(record);
        ++summary.flows;
        summary.packets += record.packets();
    }
    summary.classified = summary.packets;
    table.summary(summary);
    std::rewind(file);
    std::string text(4096, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file));
    std::fclose(file);
    return lines_of(text);
}

flow_record widest_ipv4() {
    flow_record record;
    record.tuple.src_ip.addr_type = ZON_IP_ADDR_IPV4;
    record.tuple.src_ip.u.v4_addr = 0xfffffffe;
    record.tuple.dst_ip.u.v4_addr = 0xffffffff;
    record.tuple.src_port = 65534;
    record.tuple.dst_port = 65535;
    record.tuple.l4_protocol = 6;
    record.tcp_state = ZON_TCP_CLOSEWAIT;
    record.initiator = {99999, 99999, 0, 0x3f};
    record.session_end = connection_end::closed;
    record.bypass_id = 1;
    record.promoted = true;
    return record;
}

TEST(table_output, puts_the_widest_ipv4_flow_on_one_line_of_80_columns) {
    const auto lines = table_of({widest_ipv4()});
    ASSERT_GT(lines.size(), 2u);
    EXPECT_EQ(lines[0].find("INITIATOR"), lines[1].find("255.255.255.254:65534"));
    EXPECT_EQ(lines[0].find("RESPONDER"), lines[1].find("255.255.255.255:65535"));
    EXPECT_EQ(lines[0].find("END"), lines[1].find("closed"));
    EXPECT_EQ(lines[1].size(), 80u);
}

flow_record ipv6_flow(int source_byte, int destination_byte) {
    flow_record record = widest_ipv4();
    record.tuple.src_ip.addr_type = ZON_IP_ADDR_IPV6;
    std::memset(record.tuple.src_ip.u.v6_addr, source_byte, 16);
    std::memset(record.tuple.dst_ip.u.v6_addr, destination_byte, 16);
    return record;
}

TEST(table_output, gives_a_flow_of_long_ipv6_addresses_one_long_line) {
    const auto lines = table_of({ipv6_flow(0x21, 0x22), widest_ipv4()});
    ASSERT_GT(lines.size(), 3u);
    EXPECT_EQ(lines[1],
              "TCP* [2121:2121:2121:2121:2121:2121:2121:2121]:65534 "
              "[2222:2222:2222:2222:2222:2222:2222:2222]:65535 99999 99999 close_wait closed p");
    EXPECT_EQ(lines[2].rfind("TCP* 255.255.255.254:65534 ", 0), 0u);
}

TEST(table_output, lets_a_short_responder_give_way_to_a_long_initiator) {
    flow_record record = ipv6_flow(0x21, 0);
    std::memset(record.tuple.src_ip.u.v6_addr, 0, 8);  // 24 characters and the port
    const auto lines = table_of({record});
    ASSERT_GT(lines.size(), 1u);
    EXPECT_EQ(lines[1].rfind("TCP* [::2121:2121:2121:2121]:65534 [::]:65535 ", 0), 0u) << lines[1];
    EXPECT_EQ(lines[0].find(" PKTS"), lines[1].find("99999"));
    EXPECT_EQ(lines[1].size(), 80u);
}

TEST(table_output, explains_the_marks_that_it_has_used_and_no_others) {
    flow_record plain = widest_ipv4();
    plain.promoted = false;
    plain.bypass_id.reset();
    plain.tunnel = ZON_TUNNEL_TYPE_NONE;
    flow_record tunnelled = plain;
    tunnelled.tunnel = ZON_TUNNEL_TYPE_IPV6INIP;
    EXPECT_EQ(table_of({plain}).size(), 3u);
    const auto six = table_of({plain, tunnelled});
    ASSERT_EQ(six.size(), 5u);
    EXPECT_TRUE(six[1].ends_with(" closed"));
    EXPECT_TRUE(six[2].ends_with(" closed 6"));
    EXPECT_EQ(six[3], "6 inside an IPv6-in-IPv4 tunnel");
    flow_record all_three = widest_ipv4();
    all_three.tunnel = ZON_TUNNEL_TYPE_TEREDO;
    const auto three = table_of({all_three});
    ASSERT_EQ(three.size(), 6u);
    EXPECT_TRUE(three[1].ends_with(" closed pt"));
    EXPECT_EQ(three[2], "p announced by its control connection (promoted)");
    EXPECT_EQ(three[3], "t inside a Teredo tunnel");
    EXPECT_EQ(three[4], "* bypassed");
}

TEST(table_output, has_a_column_of_vlans_where_they_keep_flows_apart) {
    flow_record record = widest_ipv4();
    record.tuple.vrf_id = 4094;
    const auto lines = table_of({record}, true);
    ASSERT_GT(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("PROT VLAN INITIATOR ", 0), 0u);
    EXPECT_EQ(lines[1].rfind("TCP* 4094 255.255.255.254:65534 255.255.255.255:65535 ", 0), 0u);
    EXPECT_EQ(table_of({record})[0].find("VLAN"), std::string::npos);
}

TEST(table_output, speaks_of_one_packet_and_one_flow_in_the_singular) {
    flow_record record = widest_ipv4();
    record.initiator.packets = 1;
    EXPECT_EQ(table_of({record}).back(), "1 packet: 1 in 1 flow, 0 not IP, 0 malformed");
    EXPECT_EQ(table_of({record, record}).back(), "2 packets: 2 in 2 flows, 0 not IP, 0 malformed");
}

}  // namespace

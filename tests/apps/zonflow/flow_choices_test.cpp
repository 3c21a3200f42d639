// flow_choices_test.cpp - groups by source, vetoes and the bypass through the whole program.
#include <gtest/gtest.h>

#include "tests/apps/zonflow/support/raw_captures.h"

namespace {

using namespace zonflow_tests;

constexpr uint32_t one = 0x0a000001, two = 0x0a000002, three = 0x0a010003;

bytes udp(uint32_t from, uint32_t to, uint16_t from_port, size_t payload) {
    return ipv4_packet({.from = from, .to = to}, udp_segment(from_port, 53, payload));
}

bytes tcp(uint32_t from, uint32_t to, uint16_t from_port, uint16_t to_port, size_t payload) {
    return ipv4_packet({.from = from, .to = to, .protocol = 6},
                       tcp_segment(from_port, to_port, 0x10, payload));
}

// `gap_sec` apart.
json_result run_packets(const std::vector<bytes>& packets, const std::string& options,
                        uint64_t gap_sec = 0) {
    return run_apart(gap_sec * second, packets, options);
}

// ---- groups -----------------------------------------------------------------------------------

const std::vector<bytes> three_sources{
    udp(one, two, 1000, 10),
    udp(one, three, 1000, 20),
    ipv4_packet({.from = two, .to = one}, udp_segment(53, 1000, 100)),  // an answer to the first
    udp(three, one, 7, 500),
    ipv6_packet(17, udp_segment(1, 2, 10)),
};

TEST(groups, add_flows_up_under_their_initiator_those_with_most_bytes_first) {
    const json_result run = run_packets(three_sources, "--by source");
    ASSERT_EQ(run.groups.size(), 3u);
    const std::string end = ",\"file\":\"" + json_field(run.summaries[0], "file") + "\"}";
    EXPECT_EQ(run.groups[0],
              "{\"type\":\"group\",\"by\":\"source\",\"address\":\"10.1.0.3\",\"flows\":1,"
              "\"packets\":1,\"ip_bytes\":528,\"payload_bytes\":500" +
                  end);
    EXPECT_EQ(run.groups[1],
              "{\"type\":\"group\",\"by\":\"source\",\"address\":\"10.0.0.1\",\"flows\":2,"
              "\"packets\":3,\"ip_bytes\":214,\"payload_bytes\":130" +
                  end);
    EXPECT_EQ(run.groups[2],
              "{\"type\":\"group\",\"by\":\"source\",\"address\":\"2001:db8::1\",\"flows\":1,"
              "\"packets\":1,\"ip_bytes\":58,\"payload_bytes\":10" +
                  end);
    EXPECT_EQ(run.flows.size(), 4u);
}

TEST(groups, are_not_shown_unless_asked_for) {
    EXPECT_EQ(run_packets(three_sources, "").groups.size(), 0u);
}

TEST(groups, with_the_same_bytes_stand_in_the_order_of_their_addresses) {
    const json_result run = run_packets(
        {udp(three, one, 1, 10), udp(two, one, 1, 10), udp(one, two, 1, 10)}, "--by source");
    ASSERT_EQ(run.groups.size(), 3u);
    EXPECT_EQ(json_field(run.groups[0], "address"), "10.0.0.1");
    EXPECT_EQ(json_field(run.groups[1], "address"), "10.0.0.2");
    EXPECT_EQ(json_field(run.groups[2], "address"), "10.1.0.3");
}

TEST(groups, outlive_the_flows_of_their_address) {
    const json_result run = run_packets(
        {udp(one, two, 1, 10), udp(one, two, 2, 10), udp(one, two, 1, 10)}, "--by source", 400);
    ASSERT_EQ(run.groups.size(), 1u);
    EXPECT_EQ(json_number(run.groups[0], "flows"), 3u);
    EXPECT_EQ(json_number(run.groups[0], "packets"), 3u);
}

TEST(groups, take_the_initiator_of_the_flow_inside_a_tunnel) {
    const json_result run = run_packets(
        {ipv4_packet({.protocol = 41}, ipv6_packet(17, udp_segment(1, 2, 12)))}, "--by source");
    ASSERT_EQ(run.groups.size(), 1u);
    EXPECT_EQ(json_field(run.groups[0], "address"), "2001:db8::1");
}

TEST(groups, are_a_table_of_their_own_behind_the_flows) {
    const temporary_file capture(
        pcap_bytes({{start, udp(one, two, 1, 10)}, {start, udp(one, two, 2, 10)}}, raw_ip));
    const std::vector<std::string> lines =
        lines_of(run_zonflow("--by source " + capture.path()).out);
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[3], "SOURCE                                   FLOWS   PKTS  BYTES");
    EXPECT_EQ(lines[4], "10.0.0.1                                     2      2     76");
}

// ---- vetoes -----------------------------------------------------------------------------------

TEST(vetoes, refuse_flows_from_and_to_their_networks) {
    const json_result run = run_packets(three_sources, "--veto 10.1.0.0/16");
    EXPECT_EQ(run.flows.size(), 2u);
    EXPECT_EQ(json_field(run.summaries[0], "refused"), "{\"vetoed\":2}");
    EXPECT_EQ(json_number(run.summaries[0], "classified"), 3u);
}

TEST(vetoes, add_up_and_know_both_families) {
    const json_result run =
        run_packets(three_sources, "--veto 2001:db8::/32 --veto 10.1.0.3 --veto 192.0.2.0/24");
    EXPECT_EQ(json_field(run.summaries[0], "refused"), "{\"vetoed\":3}");
    EXPECT_EQ(run_packets(three_sources, "--veto 0.0.0.0/0 --veto ::/0").flows.size(), 0u);
}

TEST(vetoes, mean_both_headers_of_a_tunnelled_packet) {
    const std::vector<bytes> tunnelled{
        ipv4_packet({.protocol = 41}, ipv6_packet(17, udp_segment(1, 2, 12)))};
    for (const char* network : {"10.0.0.1", "10.0.0.2", "2001:db8::1", "2001:db8::2"}) {
        const json_result run = run_packets(tunnelled, std::string("--veto ") + network);
        EXPECT_EQ(json_field(run.summaries[0], "refused"), "{\"vetoed\":1}") << network;
    }
    EXPECT_EQ(run_packets(tunnelled, "--veto 10.0.0.3 --veto 2001:db8::3").flows.size(), 1u);
}

TEST(vetoes, refuse_announced_connections_as_well) {
    const std::string port_line = "PORT 10,0,0,1,200,1\r\n";
    const bytes control =
        ipv4_packet({.from = one, .to = two, .protocol = 6},
                    tcp_segment(4000, 21, 0x10) + bytes(port_line.begin(), port_line.end()));
    const std::vector<bytes> packets{control, tcp(three, one, 20, 51201, 0)};
    EXPECT_EQ(json_field(run_packets(packets, "").flows.at(1), "promoted"), "true");
    const json_result run = run_packets(packets, "--veto 10.1.0.0/16");
    EXPECT_EQ(run.flows.size(), 1u);
    EXPECT_EQ(json_field(run.summaries[0], "refused"), "{\"vetoed\":1}");
}

// ---- the bypass -------------------------------------------------------------------------------

TEST(bypass, marks_tcp_flows_that_have_carried_so_much_payload_both_ways_together) {
    const std::vector<bytes> packets{
        tcp(one, two, 1000, 80, 60),   // just enough with the next
        tcp(two, one, 80, 1000, 40),   //
        tcp(one, two, 1001, 80, 99),   // one byte short
        tcp(one, two, 1002, 80, 100),  // at once
        udp(one, two, 1003, 900),      // not TCP
    };
    const json_result run = run_packets(packets, "--bypass-after 100");
    ASSERT_EQ(run.flows.size(), 4u);
    EXPECT_EQ(json_field(run.flows[0], "bypass_id"), "1");
    EXPECT_EQ(json_field(run.flows[1], "bypass_id"), "0");
    EXPECT_EQ(json_field(run.flows[2], "bypass_id"), "1");
    EXPECT_EQ(json_field(run.flows[3], "bypass_id"), "0");
}

TEST(bypass, is_no_part_of_a_record_unless_asked_for) {
    EXPECT_EQ(json_field(run_packets({tcp(one, two, 1, 80, 10)}, "").flows.at(0), "bypass_id"), "");
}

TEST(bypass, marks_the_protocol_in_the_table) {
    const temporary_file capture(
        pcap_bytes({{start, tcp(one, two, 1, 80, 10)}, {start, tcp(one, two, 2, 80, 1)}}, raw_ip));
    const std::vector<std::string> lines =
        lines_of(run_zonflow("--bypass-after 10 " + capture.path()).out);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[1].rfind("TCP* 10.0.0.1:1 ", 0), 0u) << lines[1];
    EXPECT_EQ(lines[2].rfind("TCP  10.0.0.1:2 ", 0), 0u) << lines[2];
    EXPECT_EQ(lines[3], "* bypassed");
}

}  // namespace

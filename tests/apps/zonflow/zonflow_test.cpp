// zonflow_test.cpp - small captures through the whole program: what is counted, to which flow, and
// when flows end.
#include <gtest/gtest.h>

#include "tests/apps/zonflow/support/raw_captures.h"

namespace {

using namespace zonflow_tests;

constexpr uint8_t fin = 0x01, syn = 0x02, rst = 0x04, ack = 0x10;
constexpr uint32_t client = 0x0a000001, server = 0x0a000002;

bytes udp(uint32_t from, uint32_t to, uint16_t from_port, uint16_t to_port, size_t payload = 10) {
    return ipv4_packet({.from = from, .to = to}, udp_segment(from_port, to_port, payload));
}

bytes tcp(bool from_client, uint8_t flags, size_t payload = 0) {
    return from_client ? ipv4_packet({.from = client, .to = server, .protocol = 6},
                                     tcp_segment(4000, 80, flags, payload))
                       : ipv4_packet({.from = server, .to = client, .protocol = 6},
                                     tcp_segment(80, 4000, flags, payload));
}

const std::vector<stamped_frame> web_connection{
    {start, tcp(true, syn)},
    {start + second, tcp(false, syn | ack)},
    {start + 2 * second, tcp(true, ack)},
    {start + 3 * second, tcp(true, ack, 100)},
    {start + 4 * second, tcp(false, ack, 1000)},
    {start + 5 * second, tcp(true, fin | ack)},
    {start + 5 * second, tcp(false, fin | ack)},
    {start + 5 * second, tcp(true, ack)},
};

TEST(zonflow, prints_the_fields_of_a_flow_in_their_order) {
    const json_result run = run_packets(web_connection);
    ASSERT_EQ(run.flows.size(), 1u);
    const std::string fid = json_field(run.flows[0], "fid");
    const std::string file = json_field(run.flows[0], "file");
    EXPECT_EQ(
        run.flows[0],
        "{\"type\":\"flow\",\"fid\":" + fid +
            ",\"ip_version\":4,\"protocol\":6,\"vrf\":0,"
            "\"initiator\":{\"address\":\"10.0.0.1\",\"port\":4000},"
            "\"responder\":{\"address\":\"10.0.0.2\",\"port\":80},"
            "\"packets\":8,\"packets_initiator\":5,\"packets_responder\":3,"
            "\"ip_bytes_initiator\":300,\"ip_bytes_responder\":1120,"
            "\"payload_bytes\":1100,\"payload_bytes_initiator\":100,\"payload_bytes_responder\":"
            "1000,"
            "\"later_fragments\":0,\"first_seen\":1700000000.000000,\"last_seen\":1700000005."
            "000000,"
            "\"l4_state\":\"closed\",\"tcp_state\":\"time_wait\","
            "\"tcp_flags_initiator\":\"SAF\",\"tcp_flags_responder\":\"SAF\","
            "\"tunnel\":\"none\",\"parent\":0,"
            "\"promoted\":false,\"end_reason\":\"flows_destroyed\",\"end\":\"closed\","
            "\"duration\":5.000000,\"file\":\"" +
            file + "\"}");
    EXPECT_EQ(run.summaries[0],
              "{\"type\":\"summary\",\"packets\":8,\"classified\":8,\"flows\":1,\"not_ip\":0,"
              "\"refused\":{},"
              "\"malformed\":0,\"out_of_time\":0,\"file\":\"" +
                  file + "\"}");
}

TEST(zonflow, gives_a_port_that_is_used_again_two_seconds_after_the_end_a_flow_of_its_own) {
    std::vector<stamped_frame> twice = web_connection;
    for (stamped_frame packet : web_connection) {
        packet.time_ns += 7 * second;
        twice.push_back(packet);
    }
    const json_result run = run_packets(twice);
    ASSERT_EQ(run.flows.size(), 2u);
    EXPECT_EQ(json_number(run.flows[0], "packets"), 8u);
    EXPECT_EQ(json_field(run.flows[0], "end_reason"), "inactive_timeout");
    EXPECT_EQ(json_number(run.flows[1], "packets"), 8u);
}

// The idle time after which a second packet is a new flow.
struct idle_case {
    const char* name;
    std::vector<stamped_frame> before;
    const char* option;
    uint64_t default_sec;
};

class idle_times : public testing::TestWithParam<idle_case> {
protected:
    static size_t flows_after_silence(uint64_t silence_sec, const std::string& options) {
        std::vector<stamped_frame> packets = GetParam().before;
        packets.push_back({packets.back().time_ns + silence_sec * second, packets.back().frame});
        return run_packets(packets, options).flows.size();
    }
};

TEST_P(idle_times, are_those_of_the_session_state) {
    // The engine looks at a busy flow again only when its timer has run out: up to twice the idle
    // time.
    EXPECT_EQ(flows_after_silence(GetParam().default_sec - 1, ""), 1u);
    EXPECT_EQ(flows_after_silence(2 * GetParam().default_sec + 1, ""), 2u);
}

TEST_P(idle_times, can_be_set) {
    const std::string option = std::string(GetParam().option) + " 40";
    EXPECT_EQ(flows_after_silence(39, option), 1u);
    EXPECT_EQ(flows_after_silence(81, option), 2u);
}

std::vector<stamped_frame> first_of_web(size_t packets) {
    return {web_connection.begin(), web_connection.begin() + static_cast<std::ptrdiff_t>(packets)};
}

const idle_case idle_cases[] = {
    {"tcp_opening", first_of_web(1), "--idle-opening", 5},
    {"tcp_established", first_of_web(4), "--idle-tcp", 300},
    {"udp_opening", {{start, udp(client, server, 1000, 53)}}, "--idle-opening", 5},
    {"udp_answered",
     {{start, udp(client, server, 1000, 53)}, {start + second, udp(server, client, 53, 1000)}},
     "--idle-udp",
     60},
    {"tcp_closing", first_of_web(7), "--idle-closing", 5},
};

INSTANTIATE_TEST_SUITE_P(zonflow, idle_times, testing::ValuesIn(idle_cases),
                         [](const auto& row) { return row.param.name; });

TEST(zonflow, turns_nothing_back_when_time_stamps_run_backwards) {
    const json_result run = run_packets({{start + 100 * second, udp(client, server, 1, 2)},
                                         {start, udp(client, server, 1, 2)},
                                         {start + 101 * second, udp(server, client, 2, 1)}});
    ASSERT_EQ(run.flows.size(), 1u);
    EXPECT_EQ(json_field(run.flows[0], "first_seen"), "1700000000.000000");
    EXPECT_EQ(json_field(run.flows[0], "last_seen"), "1700000101.000000");
}

TEST(zonflow, copes_with_a_time_stamp_of_the_far_future) {
    const uint64_t year_2106 = 4'294'967'295 * second;
    const json_result run = run_packets({{0, udp(client, server, 1, 2)},
                                         {year_2106, udp(client, server, 1, 2)},
                                         {second, udp(client, server, 1, 2)}});
    EXPECT_EQ(run.flows.size(), 2u);
    EXPECT_EQ(json_number(run.summaries[0], "out_of_time"), 1u);
}

TEST(zonflow, counts_packets_far_behind_the_latest_and_says_so) {
    const std::vector<stamped_frame> packets{{start, udp(client, server, 1, 2)},
                                             {start + 10 * second, udp(client, server, 1, 2)},
                                             {start + 9 * second, udp(client, server, 1, 2)},
                                             {start + 8 * second, udp(client, server, 1, 2)},
                                             {start + 7 * second, udp(client, server, 1, 2)}};
    const json_result run = run_packets(packets);
    EXPECT_EQ(json_number(run.summaries[0], "out_of_time"), 2u);  // a second behind still is time
    EXPECT_NE(run.err.find(": 2 packets stamped more than a second before"), std::string::npos)
        << run.err;
    EXPECT_EQ(run_packets({packets.begin(), packets.begin() + 3}).err, "");
}

TEST(zonflow, counts_later_fragments_to_the_direction_that_they_come_from) {
    const auto fragment = [](bool from_client, uint16_t flags_and_offset, const bytes& data) {
        return ipv4_packet({.from = from_client ? client : server,
                            .to = from_client ? server : client,
                            .identification = static_cast<uint16_t>(from_client ? 7 : 8),
                            .fragment = flags_and_offset},
                           data);
    };
    // Two datagrams of 40 bytes of UDP payload, each in two fragments of 24 bytes.
    const auto first_half = [](uint16_t from, uint16_t to) {
        bytes segment = udp_segment(from, to, 40);
        segment.erase(segment.begin() + 24, segment.end());
        return segment;
    };
    const std::vector<stamped_frame> packets{
        {start, fragment(true, 0x2000, first_half(1, 2))},
        {start, fragment(true, 0x0003, bytes(24, 'u'))},
        {start, fragment(false, 0x2000, first_half(2, 1))},
        {start, fragment(false, 0x0003, bytes(24, 'u'))},
        {start, ipv4_packet({.identification = 99, .fragment = 3}, bytes(24, 'u'))},
    };
    const json_result tied = run_packets(packets);
    ASSERT_EQ(tied.flows.size(), 1u);
    EXPECT_EQ(json_number(tied.flows[0], "packets"), 4u);
    EXPECT_EQ(json_number(tied.flows[0], "packets_initiator"), 2u);
    EXPECT_EQ(json_number(tied.flows[0], "packets_responder"), 2u);
    EXPECT_EQ(json_number(tied.flows[0], "ip_bytes_initiator"), 88u);
    EXPECT_EQ(json_number(tied.flows[0], "payload_bytes"), 80u);
    EXPECT_EQ(json_number(tied.flows[0], "later_fragments"), 2u);
    EXPECT_EQ(json_field(tied.summaries[0], "refused"), "{\"untied_fragment\":1}");

    const json_result untied = run_packets(packets, "--no-fragments");
    ASSERT_EQ(untied.flows.size(), 1u);
    EXPECT_EQ(json_number(untied.flows[0], "packets"), 2u);
    EXPECT_EQ(json_number(untied.flows[0], "later_fragments"), 0u);
    EXPECT_EQ(json_field(untied.summaries[0], "refused"), "{\"fragments_off\":3}");
}

TEST(zonflow, looks_through_6in4_unless_told_not_to) {
    const bytes packet = ipv4_packet({.protocol = 41}, ipv6_packet(17, udp_segment(1, 2, 12)));
    const json_result through = run_packets({{start, packet}});
    ASSERT_EQ(through.flows.size(), 1u);
    EXPECT_EQ(json_field(through.flows[0], "tunnel"), "ipv6inip");
    EXPECT_EQ(json_field(through.flows[0], "initiator"),
              "{\"address\":\"2001:db8::1\",\"port\":1}");
    EXPECT_EQ(json_number(through.flows[0], "ip_bytes_initiator"), 80u);
    EXPECT_EQ(json_number(through.flows[0], "payload_bytes"), 12u);
    const json_result outside = run_packets({{start, packet}}, "--no-tunnels");
    EXPECT_EQ(outside.flows.size(), 0u);
    EXPECT_EQ(json_field(outside.summaries[0], "refused"), "{\"protocol_not_tracked\":1}");
}

TEST(zonflow, looks_through_teredo_unless_told_not_to) {
    const bytes inner = ipv6_packet(17, udp_segment(1, 2, 12));
    bytes segment = udp_segment(4000, 3544, inner.size());
    segment.erase(segment.begin() + 8, segment.end());
    const bytes packet = ipv4_packet({}, segment + inner);
    const json_result through = run_packets({{start, packet}});
    ASSERT_EQ(through.flows.size(), 1u);
    EXPECT_EQ(json_field(through.flows[0], "tunnel"), "teredo");
    const json_result outside = run_packets({{start, packet}}, "--no-tunnels");
    ASSERT_EQ(outside.flows.size(), 1u);
    EXPECT_EQ(json_field(outside.flows[0], "tunnel"), "none");
    EXPECT_EQ(json_number(outside.flows[0], "payload_bytes"), 60u);
}

TEST(zonflow, keeps_vlans_apart_only_when_they_are_part_of_the_key) {
    std::vector<stamped_frame> frames;
    for (const uint16_t vlan : {uint16_t{10}, uint16_t{20}}) {
        frames.push_back(
            {start, ethernet(0x8100, vlan_tag(vlan, 0x0800) + udp(client, server, 1, 2))});
    }
    const temporary_file capture(pcap_bytes(frames, 1));
    EXPECT_EQ(run_json(capture.path()).flows.size(), 1u);
    const json_result apart = run_json("--vlan-key " + capture.path());
    ASSERT_EQ(apart.flows.size(), 2u);
    EXPECT_EQ(json_number(apart.flows[0], "vrf") + json_number(apart.flows[1], "vrf"), 30u);
}

TEST(zonflow, counts_every_packet_exactly_once) {
    const bytes whole = udp(client, server, 1, 2);
    const std::vector<bytes> frames{
        ethernet(0x0800, whole),                                      // classified
        ethernet(0x0806, bytes(28, 0)),                               // not IP
        bytes(9, 0),                                                  // cut
        ethernet(0x0800, {}),                                         // cut
        ethernet(0x0800, bytes(whole.begin(), whole.begin() + 24)),   // malformed: cut inside UDP
        ethernet(0x0800, ipv4_packet({.protocol = 1}, bytes(8, 0))),  // refused: ICMP
        ethernet(0x0800, bytes(40, 0x50)),                            // refused: version 5
        ethernet(0x0800, ipv4_packet({.protocol = 41},
                                     ipv6_packet(58, bytes(8, 0)))),  // refused: inner ICMPv6
    };
    std::vector<stamped_frame> stamped;
    for (const bytes& frame : frames) {
        stamped.push_back({start, frame});
    }
    const temporary_file capture(pcap_bytes(stamped, 1));
    const json_result run = run_json(capture.path());
    ASSERT_EQ(run.summaries.size(), 1u);
    EXPECT_EQ(
        run.summaries[0],
        "{\"type\":\"summary\",\"packets\":8,\"classified\":1,\"flows\":1,\"not_ip\":1,\"refused\":"
        "{\"protocol_not_tracked\":1,\"tunnelled_protocol_not_tracked\":1,\"unknown_ip_version\":1}"
        ","
        "\"malformed\":3,\"out_of_time\":0,\"file\":\"" +
            capture.path() + "\"}");
}

TEST(zonflow, refuses_flows_beyond_the_most_and_goes_on) {
    std::vector<stamped_frame> packets;
    for (uint16_t port = 1; port <= 12; ++port) {
        packets.push_back({start, udp(client, server, port, 53)});
    }
    const json_result run = run_packets(packets, "--max-flows 10");
    EXPECT_EQ(run.flows.size(), 10u);
    EXPECT_EQ(json_field(run.summaries[0], "refused"), "{\"out_of_memory\":2}");
    EXPECT_NE(run.err.find(": 2 packets refused for want of room: --max-flows sets"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("(now 10)"), std::string::npos) << run.err;
}

TEST(zonflow, takes_a_reset_connection_off_within_about_a_second) {
    const json_result run = run_packets({{start, tcp(true, syn)},
                                         {start, tcp(false, rst | ack)},
                                         {start + 2 * second, tcp(true, syn)}});
    ASSERT_EQ(run.flows.size(), 2u);
    EXPECT_EQ(json_field(run.flows[0], "tcp_state"), "time_wait");
    EXPECT_EQ(json_field(run.flows[0], "end_reason"), "inactive_timeout");
}

TEST(zonflow, counts_a_syn_that_comes_within_a_second_of_a_reset_to_the_old_flow) {
    for (const char* options : {"", "--idle-closing 0", "--idle-closing 60"}) {
        const json_result run = run_packets({{start, tcp(true, syn)},
                                             {start, tcp(false, rst | ack)},
                                             {start + second / 2, tcp(true, syn)}},
                                            options);
        ASSERT_EQ(run.flows.size(), 1u) << options;
        EXPECT_EQ(json_number(run.flows[0], "packets"), 3u);
        EXPECT_EQ(json_field(run.flows[0], "end"), "reset");
    }
}

TEST(zonflow, shows_a_connection_begun_before_the_capture_as_syn_sent_and_tells_its_end) {
    const json_result run = run_packets({{start, tcp(false, ack, 100)},
                                         {start, tcp(true, ack)},
                                         {start, tcp(false, fin | ack)},
                                         {start, tcp(true, fin | ack)}});
    ASSERT_EQ(run.flows.size(), 1u);
    EXPECT_EQ(json_field(run.flows[0], "initiator"), "{\"address\":\"10.0.0.2\",\"port\":80}");
    EXPECT_EQ(json_field(run.flows[0], "tcp_state"), "syn_sent");
    EXPECT_EQ(json_field(run.flows[0], "end"), "closed");
}

TEST(zonflow, counts_a_connection_of_an_address_with_itself_to_the_initiator) {
    const json_result run =
        run_packets({{start, udp(client, client, 1, 2)}, {start, udp(client, client, 2, 1)}});
    ASSERT_EQ(run.flows.size(), 1u);
    EXPECT_EQ(json_number(run.flows[0], "packets_initiator"), 2u);
}

TEST(zonflow, leaves_the_tcp_state_of_other_protocols_open) {
    const json_result run = run_packets({{start, udp(client, server, 1, 2)}});
    ASSERT_EQ(run.flows.size(), 1u);
    EXPECT_EQ(json_field(run.flows[0], "tcp_state"), "null");
    EXPECT_NE(run.flows[0].find("\"tcp_state\":null,\"tcp_flags_initiator\":null,"
                                "\"tcp_flags_responder\":null,"),
              std::string::npos);
    EXPECT_EQ(json_field(run.flows[0], "end"), "open");
}

TEST(zonflow, cuts_nanoseconds_to_microseconds) {
    const json_result run = run_packets(
        {{start + 1'999, udp(client, server, 1, 2)}, {start + 5'000, udp(client, server, 1, 2)}});
    ASSERT_EQ(run.flows.size(), 1u);
    EXPECT_EQ(json_field(run.flows[0], "first_seen"), "1700000000.000001");
    EXPECT_EQ(json_field(run.flows[0], "duration"), "0.000004");
}

TEST(zonflow, names_the_file_of_each_line) {
    const temporary_file one(pcap_bytes({{start, udp(client, server, 1, 2)}}, raw_ip));
    const temporary_file other(pcap_bytes({{start, udp(client, server, 3, 4)}}, raw_ip));
    const json_result run = run_json("--by source " + one.path() + " " + other.path());
    for (const auto* lines : {&run.flows, &run.groups, &run.summaries}) {
        ASSERT_EQ(lines->size(), 2u);
        EXPECT_EQ(json_field((*lines)[0], "file"), one.path());
        EXPECT_EQ(json_field((*lines)[1], "file"), other.path());
    }
}

TEST(zonflow, starts_anew_with_each_file) {
    const temporary_file capture(pcap_bytes({{start, udp(client, server, 1, 2)}}, raw_ip));
    const json_result run = run_json(capture.path() + " " + capture.path());
    EXPECT_EQ(run.flows.size(), 2u);
    ASSERT_EQ(run.summaries.size(), 2u);
    EXPECT_EQ(run.summaries[0], run.summaries[1]);
}

TEST(zonflow, prints_the_same_on_every_run) {
    std::vector<stamped_frame> packets;
    for (uint16_t i = 0; i < 300; ++i) {
        packets.push_back(
            {start + i * second / 10, udp(client, server, static_cast<uint16_t>(1 + i % 90), 53)});
    }
    const temporary_file capture(pcap_bytes(packets, raw_ip));
    const program_result one = run_zonflow("-o json " + capture.path());
    EXPECT_EQ(one.out, run_zonflow("-o json " + capture.path()).out);
    EXPECT_GT(lines_of(one.out).size(), 90u);
}

}  // namespace

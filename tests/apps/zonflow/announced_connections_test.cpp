// announced_connections_test.cpp - FTP and SIP through the whole program: which flows are promoted,
// and whose children they are.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/apps/zonflow/support/raw_captures.h"

namespace {

using namespace zonflow_tests;

constexpr uint8_t fin = 0x01, syn = 0x02, ack = 0x10;
constexpr uint32_t client = 0x0a000001, server = 0x0a000002, other = 0x0a000003;
constexpr uint32_t media = 0x0a000009;
constexpr uint16_t control_port = 4000;

bytes text_bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

struct endpoint {
    uint32_t address;
    uint16_t port;
};

bytes tcp(endpoint from, endpoint to, uint8_t flags, const std::string& text = "") {
    return ipv4_packet({.from = from.address, .to = to.address, .protocol = 6},
                       tcp_segment(from.port, to.port, flags) + text_bytes(text));
}

bytes udp(endpoint from, endpoint to, const std::string& text) {
    bytes segment = udp_segment(from.port, to.port, text.size());
    segment.resize(8);
    return ipv4_packet({.from = from.address, .to = to.address}, segment + text_bytes(text));
}

bytes tcp_v6(bool from_client, uint16_t from, uint16_t to, uint8_t flags,
             const std::string& text = "") {
    const bytes segment = tcp_segment(from, to, flags) + text_bytes(text);
    return from_client ? ipv6_packet(6, segment, 1, 2) : ipv6_packet(6, segment, 2, 1);
}

bytes command(const std::string& text) {
    return tcp({client, control_port}, {server, 21}, ack, text);
}

bytes reply(const std::string& text) {
    return tcp({server, 21}, {client, control_port}, ack, text);
}

// One second apart.
json_result run_packets(const std::vector<bytes>& packets, const std::string& options = "") {
    return run_apart(second, packets, options);
}

std::string responder_of(const std::string& flow) {
    const std::string object = json_field(flow, "responder");
    return json_field(object, "address") + " " + json_field(object, "port");
}

// The first flow to this endpoint; "" for none.
std::string flow_to(const json_result& run, const std::string& endpoint) {
    const auto found =
        std::find_if(run.flows.begin(), run.flows.end(),
                     [&](const std::string& flow) { return responder_of(flow) == endpoint; });
    return found == run.flows.end() ? "" : *found;
}

void expect_child(const json_result& run, const std::string& endpoint, const std::string& parent) {
    const std::string child = flow_to(run, endpoint);
    EXPECT_EQ(json_field(child, "promoted"), "true") << endpoint;
    EXPECT_EQ(json_field(child, "parent"), json_field(flow_to(run, parent), "fid")) << endpoint;
}

void expect_stranger(const json_result& run, const std::string& endpoint) {
    const std::string flow = flow_to(run, endpoint);
    EXPECT_EQ(json_field(flow, "promoted"), "false") << endpoint;
    EXPECT_EQ(json_field(flow, "parent"), "0") << endpoint;
}

const std::string control = "10.0.0.2 21";

// ---- FTP --------------------------------------------------------------------------------------

TEST(ftp, data_connections_of_either_mode_are_children_of_the_control_flow) {
    const json_result run = run_packets({
        command("PORT 10,0,0,1,200,1\r\n"),
        tcp({server, 20}, {client, 51201}, syn),
        command("EPRT |1|10.0.0.1|51202|\r\n"),
        tcp({server, 20}, {client, 51202}, syn),
        reply("227 Entering Passive Mode (10,0,0,2,200,3).\r\n"),
        tcp({client, 6000}, {server, 51203}, syn),
        reply("229 Entering Extended Passive Mode (|||51204|)\r\n"),
        tcp({client, 6001}, {server, 51204}, syn),
    });
    EXPECT_EQ(run.flows.size(), 5u);
    expect_stranger(run, control);
    for (const char* data :
         {"10.0.0.1 51201", "10.0.0.1 51202", "10.0.0.2 51203", "10.0.0.2 51204"}) {
        expect_child(run, data, control);
    }
}

TEST(ftp, data_connections_over_ipv6_are_children_of_the_control_flow) {
    const json_result run = run_packets({
        tcp_v6(true, control_port, 21, ack, "EPRT |2|2001:db8::1|51202|\r\n"),
        tcp_v6(false, 20, 51202, syn),
        tcp_v6(false, 21, control_port, ack, "229 Extended Passive Mode (|||51204|)\r\n"),
        tcp_v6(true, 6001, 51204, syn),
    });
    EXPECT_EQ(run.flows.size(), 3u);
    expect_child(run, "2001:db8::1 51202", "2001:db8::2 21");
    expect_child(run, "2001:db8::2 51204", "2001:db8::2 21");
}

TEST(ftp, the_direction_of_a_child_is_that_of_its_first_packet) {
    const json_result run = run_packets({
        reply("227 Entering Passive Mode (10,0,0,2,200,3).\r\n"),
        tcp({server, 51203}, {client, 6000}, syn | ack),
    });
    expect_child(run, "10.0.0.1 6000", "10.0.0.1 4000");
}

TEST(ftp, helpers_can_be_turned_off) {
    const std::vector<bytes> packets{command("PORT 10,0,0,1,200,1\r\n"),
                                     tcp({server, 20}, {client, 51201}, syn)};
    expect_stranger(run_packets(packets, "--no-helpers"), "10.0.0.1 51201");
}

struct refused_announcement {
    const char* name;
    bytes packet;
};

class refused_announcements : public testing::TestWithParam<refused_announcement> {};

// A connection to each endpoint that a row might have announced.
TEST_P(refused_announcements, make_no_child) {
    const json_result run = run_packets({
        GetParam().packet,
        tcp({server, 20}, {client, 51201}, syn),
        tcp({client, 6000}, {server, 51201}, syn),
        tcp({server, 20}, {other, 51201}, syn),
        tcp({server, 20}, {client, 22}, syn),
    });
    EXPECT_EQ(run.flows.size(), 5u);
    for (const std::string& flow : run.flows) {
        EXPECT_EQ(json_field(flow, "promoted"), "false") << flow;
    }
}

const refused_announcement refused_rows[] = {
    {"port_for_another_host", command("PORT 10,0,0,3,200,1\r\n")},
    {"eprt_for_another_host", command("EPRT |1|10.0.0.3|51201|\r\n")},
    {"eprt_of_the_other_family", command("EPRT |2|2001:db8::1|51201|\r\n")},
    {"passive_for_another_host", reply("227 (10,0,0,3,200,1)\r\n")},
    {"port_for_a_well_known_service", command("PORT 10,0,0,1,0,22\r\n")},
    {"command_from_the_server", reply("PORT 10,0,0,2,200,1\r\n")},
    {"reply_from_the_client", command("227 (10,0,0,1,200,1)\r\n")},
    {"line_without_its_end", command("PORT 10,0,0,1,200,1")},
    {"second_half_of_a_line", command("0,0,1,200,1\r\n")},
    {"numbers_out_of_range", command("PORT 10,0,0,257,200,1\r\n")},
    {"another_port", tcp({client, control_port}, {server, 2121}, ack, "PORT 10,0,0,1,200,1\r\n")},
    {"udp", udp({client, control_port}, {server, 21}, "PORT 10,0,0,1,200,1\r\n")},
};

INSTANTIATE_TEST_SUITE_P(ftp, refused_announcements, testing::ValuesIn(refused_rows),
                         [](const auto& row) { return row.param.name; });

TEST(ftp, a_new_announcement_takes_the_place_of_the_one_before) {
    const json_result run = run_packets({
        command("PORT 10,0,0,1,200,1\r\n"),
        command("PORT 10,0,0,1,200,2\r\n"),
        tcp({server, 20}, {client, 51201}, syn),
        tcp({server, 20}, {client, 51202}, syn),
    });
    expect_stranger(run, "10.0.0.1 51201");
    expect_child(run, "10.0.0.1 51202", control);
}

TEST(ftp, the_newest_of_two_control_flows_that_announce_one_endpoint_is_the_parent) {
    const json_result run = run_packets({
        reply("227 (10,0,0,2,200,3)\r\n"),
        tcp({server, 21}, {other, 5000}, ack, "227 (10,0,0,2,200,3)\r\n"),
        tcp({other, 6000}, {server, 51203}, syn),
    });
    expect_child(run, "10.0.0.2 51203", "10.0.0.3 5000");
}

TEST(ftp, one_endpoint_can_be_announced_for_one_transfer_after_another) {
    const std::string passive = "227 (10,0,0,2,200,3)\r\n";
    const json_result run = run_packets({
        reply(passive),
        tcp({client, 6000}, {server, 51203}, syn),
        reply(passive),
        tcp({client, 6001}, {server, 51203}, syn),
    });
    ASSERT_EQ(run.flows.size(), 3u);
    EXPECT_EQ(std::count_if(
                  run.flows.begin(), run.flows.end(),
                  [](const std::string& flow) { return json_field(flow, "promoted") == "true"; }),
              2);
}

TEST(ftp, an_announcement_ends_with_its_control_flow) {
    const json_result run = run_packets({
        tcp({client, control_port}, {server, 21}, syn),
        tcp({server, 21}, {client, control_port}, syn | ack),
        command("PORT 10,0,0,1,200,1\r\n"),
        command(""),
        tcp({client, control_port}, {server, 21}, fin | ack),
        tcp({server, 21}, {client, control_port}, fin | ack),
        command(""),
        tcp({other, 7000}, {server, 80}, syn),  // takes the control flow's record
        tcp({other, 7001}, {server, 80}, syn),
        tcp({server, 20}, {client, 51201}, syn),
    });
    expect_stranger(run, "10.0.0.1 51201");
}

TEST(ftp, an_announcement_is_awaited_for_as_long_as_was_said) {
    const auto after = [](uint64_t seconds) {
        std::vector<bytes> packets{command("PORT 10,0,0,1,200,1\r\n")};
        packets.resize(seconds, command("NOOP\r\n"));
        packets.push_back(tcp({server, 20}, {client, 51201}, syn));
        return run_packets(packets, "--idle-announced 20");
    };
    expect_child(after(19), "10.0.0.1 51201", control);
    expect_stranger(after(23), "10.0.0.1 51201");
}

TEST(ftp, a_full_table_awaits_nothing_and_goes_on) {
    const json_result run =
        run_packets({command("PORT 10,0,0,1,200,1\r\n"), tcp({server, 20}, {client, 51201}, syn)},
                    "--max-flows 1");
    EXPECT_EQ(run.flows.size(), 1u);
    EXPECT_EQ(json_field(run.summaries.at(0), "refused"), "{\"out_of_memory\":1}");
}

// ---- SIP --------------------------------------------------------------------------------------

std::string sip_message(const std::string& start_line, const std::string& description) {
    return start_line + "\r\nContent-Type: application/sdp\r\nContent-Length: " +
           std::to_string(description.size()) + "\r\n\r\n" + description;
}

const std::string invite =
    sip_message("INVITE sip:b@example.test SIP/2.0",
                "v=0\r\nc=IN IP4 10.0.0.1\r\nm=audio 30000 RTP/AVP 0\r\na=rtcp:30007\r\n");
const std::string progress = sip_message("SIP/2.0 183 Progress",
                                         "v=0\r\nc=IN IP4 10.0.0.9\r\nm=audio 40000 RTP/AVP 0\r\n"
                                         "m=video 40010 RTP/AVP 96\r\nc=IN IP6 2001:db8::2\r\n");
const endpoint caller{client, 5060}, proxy{server, 5060};
const std::string signalling = "10.0.0.2 5060";

TEST(sip, media_of_both_sides_are_children_of_the_signalling) {
    const json_result run = run_packets({
        udp(caller, proxy, invite),
        udp(proxy, caller, progress),
        udp({media, 40000}, {client, 30000}, "rtp"),  // both ends were announced
        udp({media, 41001}, {client, 30007}, "rtcp"),
        udp({client, 30001}, {media, 40001}, "rtcp"),
        ipv6_packet(17, udp_segment(30020, 40010, 10)),
        ipv6_packet(17, udp_segment(30021, 40011, 10)),
        udp({client, 30001}, {media, 40002}, "stranger"),
    });
    EXPECT_EQ(run.flows.size(), 7u);
    for (const char* child : {"10.0.0.1 30000", "10.0.0.1 30007", "10.0.0.9 40001",
                              "2001:db8::2 40010", "2001:db8::2 40011"}) {
        expect_child(run, child, signalling);
    }
    expect_stranger(run, signalling);
    expect_stranger(run, "10.0.0.9 40002");
}

TEST(sip, is_read_over_tcp_as_well) {
    const json_result run = run_packets({
        tcp({client, 6000}, {server, 5060}, ack, invite),
        udp({media, 40000}, {client, 30000}, "rtp"),
    });
    expect_child(run, "10.0.0.1 30000", signalling);
}

TEST(sip, media_are_awaited_anew_with_every_announcement) {
    std::vector<bytes> packets(30, udp(caller, proxy, invite));
    packets.push_back(udp({media, 40000}, {client, 30000}, "rtp"));
    expect_child(run_packets(packets, "--idle-announced 5 --idle-udp 60"), "10.0.0.1 30000",
                 signalling);
}

TEST(sip, a_message_that_was_cut_tells_what_is_there_and_nothing_is_read_behind_it) {
    const bytes whole = udp(caller, proxy, invite);
    const size_t rtcp_line = whole.size() - std::string("a=rtcp:30007\r\n").size();
    for (size_t length = 28; length <= whole.size(); ++length) {
        SCOPED_TRACE(length);
        const json_result run = run_packets({
            bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)),
            udp({media, 40000}, {client, 30000}, "rtp"),
            udp({media, 41001}, {client, 30007}, "rtcp"),
        });
        if (length < rtcp_line) {
            expect_stranger(run, "10.0.0.1 30000");
        } else {
            expect_child(run, "10.0.0.1 30000", signalling);
        }
        if (length < whole.size()) {
            expect_stranger(run, "10.0.0.1 30007");
        } else {
            expect_child(run, "10.0.0.1 30007", signalling);
        }
    }
}

// ---- recordings -------------------------------------------------------------------------------

bool has_port(const std::string& flow, const char* port) {
    return json_field(json_field(flow, "initiator"), "port") == port ||
           json_field(json_field(flow, "responder"), "port") == port;
}

// Every flow is a signalling flow or the child of one; its parent, by identifier, is a signalling
// flow between the same two hosts where the media go between these. Returns how many children.
size_t expect_children_of(const json_result& run, const char* port) {
    size_t children = 0;
    for (const std::string& flow : run.flows) {
        if (has_port(flow, port)) {
            EXPECT_EQ(json_field(flow, "parent"), "0") << flow;
            continue;
        }
        ++children;
        EXPECT_EQ(json_field(flow, "promoted"), "true") << flow;
        const std::string parent_fid = json_field(flow, "parent");
        const auto parent =
            std::find_if(run.flows.begin(), run.flows.end(), [&](const std::string& candidate) {
                return json_field(candidate, "fid") == parent_fid && has_port(candidate, port);
            });
        EXPECT_NE(parent, run.flows.end()) << flow;
        if (parent != run.flows.end()) {
            EXPECT_LE(json_field(*parent, "first_seen"), json_field(flow, "first_seen"));
            EXPECT_GE(json_field(*parent, "last_seen"), json_field(flow, "first_seen"));
        }
    }
    return children;
}

struct recording {
    const char* path;
    const char* port;
    size_t children;
};

class recordings : public testing::TestWithParam<recording> {};

TEST_P(recordings, show_every_announced_connection_promoted_with_its_parent) {
    if (!std::filesystem::exists(GetParam().path)) {
        GTEST_SKIP() << "no " << GetParam().path;
    }
    const json_result run = run_json(GetParam().path);
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(expect_children_of(run, GetParam().port), GetParam().children);
}

INSTANTIATE_TEST_SUITE_P(
    announced_connections, recordings,
    testing::Values(recording{"examples/captures/ftp-active-v4.pcap", "21", 3},
                    recording{"examples/captures/ftp-active-v6.pcap", "21", 3},
                    recording{"examples/captures/ftp-passive-v4.pcap", "21", 3},
                    recording{"examples/captures/ftp-passive-v6.pcap", "21", 3},
                    recording{"../shared/captures/ftp-active-passive-v4-v6.pcap", "21", 4},
                    recording{"../shared/captures/sip-rtp-rtcp.pcap", "5060", 2}));

TEST(announced_connections, print_the_same_on_every_run) {
    for (const char* path :
         {"examples/captures/ftp-active-v4.pcap", "examples/captures/ftp-passive-v6.pcap",
          "../shared/captures/sip-rtp-rtcp.pcap"}) {
        if (!std::filesystem::exists(path)) {
            continue;
        }
        const std::string arguments = std::string("-o json --by source --bypass-after 100 ") + path;
        const program_result one = run_zonflow(arguments);
        EXPECT_EQ(one.exit_code, 0);
        EXPECT_EQ(one.out, run_zonflow(arguments).out);
    }
}

}  // namespace

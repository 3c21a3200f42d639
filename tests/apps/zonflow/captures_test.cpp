// captures_test.cpp - real captures: no crash, an exit code of 0 or 1, and sums that agree in every
// one.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/apps/zonflow/support/zonflow_program.h"

namespace {

using namespace zonflow_tests;

std::vector<std::string> captures_in(const std::filesystem::path& folder) {
    std::vector<std::string> paths;
    if (!std::filesystem::is_directory(folder)) {
        return paths;
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::string extension = entry.path().extension();
        if (extension == ".pcap" || extension == ".pcapng") {
            paths.push_back(entry.path());
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

void expect_sums_to_agree(const std::string& path, const std::string& options) {
    SCOPED_TRACE(path + " " + options);
    const json_result run = run_json(options + " '" + path + "'");
    EXPECT_TRUE(run.exit_code == 0 || run.exit_code == 1) << run.exit_code << " " << run.err;
    ASSERT_EQ(run.summaries.size(), 1u);
    const std::string& summary = run.summaries[0];
    uint64_t packets = 0;
    for (const std::string& flow : run.flows) {
        packets += json_number(flow, "packets");
        EXPECT_EQ(json_number(flow, "packets"),
                  json_number(flow, "packets_initiator") + json_number(flow, "packets_responder"));
        EXPECT_EQ(json_number(flow, "payload_bytes"),
                  json_number(flow, "payload_bytes_initiator") +
                      json_number(flow, "payload_bytes_responder"))
            << flow;
        EXPECT_LE(json_number(flow, "later_fragments"), json_number(flow, "packets"));
    }
    EXPECT_EQ(json_number(summary, "flows"), run.flows.size());
    EXPECT_EQ(json_number(summary, "classified"), packets);
    EXPECT_EQ(json_number(summary, "packets"), json_number(summary, "classified") +
                                                   json_number(summary, "not_ip") +
                                                   json_number(summary, "malformed") +
                                                   sum_of_object(json_field(summary, "refused")));
}

uint64_t sum_of(const std::vector<std::string>& lines, const char* field) {
    uint64_t sum = 0;
    for (const std::string& line : lines) {
        sum += json_number(line, field);
    }
    return sum;
}

// The groups add up to the flows, and a flow is bypassed exactly from the given payload on.
void expect_groups_and_bypass_to_agree(const std::string& path) {
    SCOPED_TRACE(path);
    constexpr uint64_t bypass_after = 5000;
    const json_result run =
        run_json("--by source --bypass-after " + std::to_string(bypass_after) + " '" + path + "'");
    ASSERT_EQ(run.summaries.size(), 1u);
    EXPECT_EQ(sum_of(run.groups, "flows"), run.flows.size());
    for (const char* field : {"packets", "payload_bytes"}) {
        EXPECT_EQ(sum_of(run.groups, field), sum_of(run.flows, field)) << field;
    }
    EXPECT_EQ(sum_of(run.groups, "ip_bytes"),
              sum_of(run.flows, "ip_bytes_initiator") + sum_of(run.flows, "ip_bytes_responder"));
    for (const std::string& flow : run.flows) {
        const bool long_tcp = json_number(flow, "protocol") == 6 &&
                              json_number(flow, "payload_bytes") >= bypass_after;
        EXPECT_EQ(json_field(flow, "bypass_id"), long_tcp ? "1" : "0") << flow;
    }
}

// Announced connections change which flow is whose child, and nothing that is counted.
void expect_helpers_to_change_no_sums(const std::string& path) {
    SCOPED_TRACE(path);
    const json_result with = run_json("'" + path + "'");
    const json_result without = run_json("--no-helpers '" + path + "'");
    EXPECT_EQ(with.summaries, without.summaries);
    for (const char* field : {"packets", "payload_bytes", "packets_initiator", "ip_bytes_initiator",
                              "ip_bytes_responder", "later_fragments"}) {
        EXPECT_EQ(sum_of(with.flows, field), sum_of(without.flows, field)) << field;
    }
}

void expect_sums_to_agree_in_all(const std::filesystem::path& folder) {
    const std::vector<std::string> captures = captures_in(folder);
    if (captures.empty()) {
        GTEST_SKIP() << "no captures in " << folder;
    }
    for (const std::string& path : captures) {
        expect_sums_to_agree(path, "");
        expect_sums_to_agree(path, "--tcp-checks --vlan-key");
        expect_sums_to_agree(path, "--no-tunnels --no-fragments --max-flows 20");
        expect_sums_to_agree(path, "--veto 192.168.0.0/16 --veto 2001::/16");
        expect_groups_and_bypass_to_agree(path);
        expect_helpers_to_change_no_sums(path);
    }
}

// The tests run in the project's folder.
TEST(zonflow_captures, agree_in_their_sums_for_every_example) {
    expect_sums_to_agree_in_all("examples/captures");
}

TEST(zonflow_captures, agree_in_their_sums_for_every_shared_capture) {
    expect_sums_to_agree_in_all("../shared/captures");
}

}  // namespace

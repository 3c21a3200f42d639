// reports_test.cpp - the engine's dump and its hash distribution at the end of a capture.
#include <gtest/gtest.h>

#include <sstream>

#include "tests/apps/zonflow/support/raw_captures.h"

namespace {

using namespace zonflow_tests;

// One flow has gone when the capture ends, two are open.
const bytes three_flows = pcap_bytes({{start, udp_from_port(1)},
                                      {start + 100 * second, udp_from_port(2)},
                                      {start + 100 * second, udp_from_port(3)}},
                                     raw_ip);

// Reports give up the processor at every bucket; where the machine is busy, few buckets are sooner
// looked through.
const std::string few_flows = "--max-flows 1000 ";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(zonflow_dump, shows_the_figures_and_the_flows_still_in_the_table_before_the_summary) {
    const temporary_file capture(three_flows);
    const program_result run = run_zonflow("--dump " + capture.path());
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err, "");
    const std::string table = run_zonflow(capture.path()).out;
    const size_t summary = table.find("3 packets:");
    ASSERT_NE(summary, std::string::npos);
    ASSERT_GT(run.out.size(), table.size());
    EXPECT_EQ(run.out.substr(0, summary), table.substr(0, summary));
    EXPECT_TRUE(run.out.ends_with("\n" + table.substr(summary)));
    const std::string dump = run.out.substr(summary, run.out.size() - table.size());
    EXPECT_TRUE(contains(dump, "active flows\t\t 4\n")) << dump;  // half flows, two a flow
    EXPECT_TRUE(contains(dump, "flow table inserts\t\t 6\n")) << dump;
    EXPECT_TRUE(contains(dump, "Max Flows: 100000\n")) << dump;
    EXPECT_FALSE(contains(dump, "<10.0.0.1:1,")) << dump;
    EXPECT_TRUE(contains(dump, "<10.0.0.1:2,10.0.0.2:53,17,0>")) << dump;
    EXPECT_TRUE(contains(dump, "<10.0.0.1:3,10.0.0.2:53,17,0>")) << dump;
}

TEST(zonflow_dump, is_one_object_among_json_lines) {
    const temporary_file capture(three_flows);
    const std::vector<std::string> lines =
        lines_of(run_zonflow(few_flows + "-o json --dump --histogram " + capture.path()).out);
    const std::vector<std::string> plain = lines_of(run_zonflow("-o json " + capture.path()).out);
    ASSERT_EQ(plain.size(), 4u);
    ASSERT_EQ(lines.size(), 6u);
    for (const size_t flow : {0u, 1u, 2u}) {
        EXPECT_EQ(lines[flow], plain[flow]);
    }
    EXPECT_EQ(json_field(lines[3], "type"), "dump");
    EXPECT_EQ(json_field(lines[3], "file"), capture.path());
    EXPECT_TRUE(contains(lines[3], "<10.0.0.1:2,10.0.0.2:53,17,0>")) << lines[3];
    EXPECT_EQ(json_field(lines[4], "type"), "histogram");
    EXPECT_EQ(lines[5], plain[3]);
}

TEST(zonflow_dump, comes_with_each_capture) {
    const temporary_file capture(three_flows);
    const json_result run = run_json(few_flows + "--dump " + capture.path() + " " + capture.path());
    EXPECT_EQ(run.summaries.size(), 4u);  // two of them are dumps
}

TEST(zonflow_dump, tells_when_there_is_no_room_for_the_output) {
    if (access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "no /dev/full";
    }
    const temporary_file capture(three_flows);
    const program_result run = run_zonflow(few_flows + "--dump " + capture.path(), ">/dev/full");
    EXPECT_EQ(run.exit_code, 4);
    EXPECT_TRUE(contains(run.err, "cannot write the output")) << run.err;
}

TEST(zonflow_histogram, counts_the_buckets_of_each_depth) {
    const temporary_file capture(three_flows);
    const json_result run = run_json(few_flows + "--histogram " + capture.path());
    ASSERT_EQ(run.summaries.size(), 2u);
    const std::string& histogram = run.summaries[0];
    EXPECT_EQ(json_field(histogram, "file"), capture.path());
    EXPECT_EQ(json_number(histogram, "half_flows"), 4u);
    const std::string depths = json_field(histogram, "buckets_of_depth");
    EXPECT_EQ(sum_of_object(depths), json_number(histogram, "buckets"));
    uint64_t half_flows = 0;
    for (const char* depth : {"1", "2", "3", "4"}) {
        half_flows += std::stoull(depth) * json_number(depths, depth);
    }
    EXPECT_EQ(half_flows, 4u) << depths;
}

TEST(zonflow_histogram, is_a_table_of_its_own_before_the_summary) {
    const temporary_file capture(three_flows);
    const std::vector<std::string> lines =
        lines_of(run_zonflow(few_flows + "--histogram " + capture.path()).out);
    ASSERT_GT(lines.size(), 9u);
    EXPECT_EQ(lines[5].rfind("Hash distribution: 4 half flows (two a flow) in ", 0), 0u)
        << lines[5];
    EXPECT_EQ(lines[6], "     DEPTH    BUCKETS");
    std::istringstream first(lines[7]);
    uint64_t depth = 1;
    uint64_t buckets = 0;
    first >> depth >> buckets;
    EXPECT_EQ(depth, 0u);
    EXPECT_GT(buckets, 1000u);
    EXPECT_EQ(lines.back(), "3 packets: 3 in 3 flows, 0 not IP, 0 malformed");
}

}  // namespace

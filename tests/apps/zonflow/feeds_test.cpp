// feeds_test.cpp - standard input as a capture, live or not, and signals that end the reading.
#include <gtest/gtest.h>

#include "tests/apps/zonflow/support/raw_captures.h"
#include "tests/apps/zonflow/support/running_zonflow.h"

namespace {

using namespace zonflow_tests;

// The first two flows have been idle for long when the third begins.
bytes three_flows() {
    return pcap_bytes({{start, udp_from_port(1)},
                       {start, udp_from_port(2)},
                       {start + 100 * second, udp_from_port(3)}},
                      raw_ip);
}

TEST(zonflow_feeds, a_minus_is_standard_input) {
    const temporary_file capture(three_flows());
    const program_result run = run_zonflow("-", "<'" + capture.path() + "'");
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, run_zonflow(capture.path()).out);
}

TEST(zonflow_feeds, an_empty_standard_input_is_no_capture) {
    const program_result run = run_zonflow("-");
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.err.rfind("zonflow: -: not a capture", 0), 0u) << run.err;
}

TEST(zonflow_feeds, a_pipe_is_read_to_its_end) {
    running_zonflow run({"-o", "json", "-"});
    run.feed(three_flows());
    run.end_input();
    const std::vector<std::string> lines = lines_of(run.rest());
    EXPECT_EQ(run.wait_for_end(), 0);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(json_field(lines[0], "file"), "-");
    EXPECT_EQ(json_field(lines[3], "type"), "summary");
    EXPECT_EQ(run.errors(), "");
}

TEST(zonflow_feeds, flows_are_shown_as_they_end) {
    running_zonflow run({"-o", "json", "-"});
    run.feed(three_flows());
    // The input is still open.
    EXPECT_EQ(json_field(run.next_line(), "end"), "idle");
    EXPECT_EQ(json_field(run.next_line(), "end"), "idle");
    run.end_input();
    EXPECT_EQ(json_field(run.next_line(), "end"), "open");
    EXPECT_EQ(json_field(run.next_line(), "type"), "summary");
    EXPECT_EQ(run.wait_for_end(), 0);
}

class stop_signals : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
#ifdef __SANITIZE_THREAD__
        GTEST_SKIP() << "the thread sanitizer keeps signals back while a read waits";
#endif
    }
};

TEST_P(stop_signals, end_a_silent_feed_and_what_was_found_is_reported) {
    running_zonflow run({"-o", "json", "-"});
    run.feed(three_flows());
    run.next_line();
    run.next_line();
    run.send_signal(GetParam());
    const std::vector<std::string> lines = lines_of(run.rest());
    EXPECT_EQ(run.wait_for_end(), 0);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(json_field(lines[0], "end"), "open");
    EXPECT_EQ(json_number(lines[1], "packets"), 3u);
    EXPECT_EQ(run.errors(), "zonflow: -: stopped after 3 packets\n");
}

TEST_P(stop_signals, end_a_feed_in_the_midst_of_a_packet_without_calling_it_damaged) {
    running_zonflow run({"-o", "json", "-"});
    const bytes whole = three_flows();
    run.feed(whole);
    run.next_line();
    run.next_line();
    const bytes other = pcap_bytes({{start, udp_from_port(4)}}, raw_ip);
    run.feed(bytes(other.begin() + 24, other.end() - 5));
    run.send_signal(GetParam());
    EXPECT_EQ(lines_of(run.rest()).size(), 2u);
    EXPECT_EQ(run.wait_for_end(), 0);
    EXPECT_EQ(run.errors(), "zonflow: -: stopped after 3 packets\n");
}

TEST_P(stop_signals, leave_the_files_that_would_follow) {
    const temporary_file next(three_flows());
    running_zonflow run({"-", next.path()});
    run.feed(pcap_bytes({}, raw_ip));
    run.next_line();
    run.next_line();
    run.send_signal(GetParam());
    EXPECT_EQ(run.rest().find(next.path()), std::string::npos);
    EXPECT_EQ(run.wait_for_end(), 0);
}

TEST_P(stop_signals, that_are_ignored_from_the_beginning_stay_so) {
    running_zonflow run({"-o", "json", "-"}, GetParam());
    run.feed(three_flows());
    run.next_line();
    run.send_signal(GetParam());
    run.end_input();
    EXPECT_EQ(lines_of(run.rest()).size(), 3u);
    EXPECT_EQ(run.wait_for_end(), 0);
    EXPECT_EQ(run.errors(), "");
}

INSTANTIATE_TEST_SUITE_P(zonflow_feeds, stop_signals, testing::Values(SIGINT, SIGTERM),
                         [](const auto& row) {
                             return std::string(row.param == SIGINT ? "interrupt" : "terminate");
                         });

}  // namespace

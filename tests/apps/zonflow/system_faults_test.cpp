// system_faults_test.cpp - files that shrink while they are read, that may not be read or cannot
// be, and output that has nowhere to go: each ends with its exit code and one line.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>

#include "tests/apps/zonflow/support/prepared_zonflow.h"
#include "tests/apps/zonflow/support/running_zonflow.h"
#include "tests/apps/zonflow/support/zonflow_program.h"

namespace {

using namespace zonflow_tests;

constexpr uint64_t second = 1'000'000'000;
constexpr size_t file_header = 24;

// Each flow begins after the one before has been idle for long: a line for each packet. Their lines
// fill a pipe many times over.
constexpr uint16_t flow_count = 4000;

bytes many_flows() {
    std::vector<stamped_frame> frames;
    for (uint16_t flow = 0; flow < flow_count; ++flow) {
        frames.push_back({(1'700'000'000 + 1000ULL * flow) * second,
                          ipv4_packet({}, udp_segment(static_cast<uint16_t>(flow + 1), 53, 10))});
    }
    return pcap_bytes(frames, 101);
}

bool is_one_line(const std::string& text) {
    return !text.empty() && text.back() == '\n' && std::count(text.begin(), text.end(), '\n') == 1;
}

struct shrunk_row {
    const char* name;
    size_t packets_left;
    size_t bytes_more;
    int exit_code;
};

class shrinking_file : public testing::TestWithParam<shrunk_row> {};

// The program waits for its reader, far from the end of the file, when the file is cut.
TEST_P(shrinking_file, ends_where_the_file_ends) {
    const shrunk_row& row = GetParam();
    const bytes whole = many_flows();
    const temporary_file capture(whole);
    const size_t record = (whole.size() - file_header) / flow_count;
    running_zonflow run({"-o", "json", capture.path()});
    ASSERT_EQ(json_field(run.next_line(), "end"), "idle");
    std::filesystem::resize_file(capture.path(),
                                 file_header + row.packets_left * record + row.bytes_more);
    const std::vector<std::string> lines = lines_of(run.rest());
    EXPECT_EQ(run.wait_for_end(), row.exit_code);
    ASSERT_EQ(lines.size(), row.packets_left);  // one was read before; the summary comes last
    EXPECT_EQ(json_number(lines.back(), "packets"), row.packets_left);
    if (row.exit_code == 0) {
        EXPECT_EQ(run.errors(), "");
    } else {
        EXPECT_TRUE(is_one_line(run.errors())) << run.errors();
        EXPECT_EQ(run.errors().rfind("zonflow: " + capture.path() + ": damaged after " +
                                         std::to_string(row.packets_left) + " packets: ",
                                     0),
                  0u)
            << run.errors();
    }
}

INSTANTIATE_TEST_SUITE_P(zonflow_files, shrinking_file,
                         testing::Values(shrunk_row{"between_packets", 3000, 0, 0},
                                         shrunk_row{"within_the_header_of_a_packet", 3000, 7, 1},
                                         shrunk_row{"within_a_packet", 3000, 20, 1}),
                         [](const auto& row) { return std::string(row.param.name); });

// What was read before the file was emptied is told.
TEST(zonflow_files, that_are_emptied_end_early) {
    const temporary_file capture(many_flows());
    running_zonflow run({"-o", "json", capture.path()});
    ASSERT_EQ(json_field(run.next_line(), "end"), "idle");
    std::filesystem::resize_file(capture.path(), 0);
    const std::vector<std::string> lines = lines_of(run.rest());
    EXPECT_LE(run.wait_for_end(), 1);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(json_number(lines.back(), "packets"), lines.size());
    EXPECT_LT(lines.size(), flow_count);
    EXPECT_TRUE(run.errors().empty() || is_one_line(run.errors())) << run.errors();
}

// May read what the file's owner allows, root or not.
bool drop_privileges() {
    const bool dropped = prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE) == 0 &&
                         prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH) == 0;
    return dropped || geteuid() != 0;
}

TEST(zonflow_files, that_may_not_be_read_end_with_3) {
    const temporary_file capture(many_flows());
    std::filesystem::permissions(capture.path(), std::filesystem::perms::none);
    const ended_program run = run_prepared({"-o", "json", capture.path()}, drop_privileges);
    if (run.exit_code == unprepared) {
        GTEST_SKIP() << "every file may be read here";
    }
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.err, "zonflow: " + capture.path() + ": Permission denied\n");
}

TEST(zonflow_files, that_cannot_be_read_end_with_3) {
    for (const char* path : {"/proc/self/mem", "/"}) {
        const program_result run = run_zonflow(path);
        EXPECT_EQ(run.exit_code, 3);
        EXPECT_TRUE(is_one_line(run.err)) << run.err;
        EXPECT_EQ(run.err.rfind(std::string("zonflow: ") + path + ": ", 0), 0u) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

// Control characters of a name would break the line or steer the terminal.
TEST(zonflow_files, are_named_in_printable_characters) {
    const program_result run = run_zonflow("\"$(printf '/nowhere/\\n\\033[31m\\177')\"");
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.err, "zonflow: /nowhere/\\x0a\\x1b[31m\\x7f: No such file or directory\n");
}

TEST(zonflow_files, standard_input_that_is_closed_ends_with_3) {
    const program_result run = run_zonflow("-", "<&-");
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_TRUE(is_one_line(run.err)) << run.err;
    EXPECT_EQ(run.err.rfind("zonflow: -: ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find("Bad file descriptor"), std::string::npos) << run.err;
}

// The capture would take the place of standard output or error.
TEST(zonflow_files, are_read_where_the_standard_descriptors_are_closed) {
    const temporary_file capture(many_flows());
    const std::string expected = run_zonflow(capture.path()).out;
    EXPECT_EQ(run_zonflow(capture.path(), "<&-").out, expected);
    EXPECT_EQ(run_zonflow(capture.path(), "<&- 2>&-").out, expected);
    const program_result no_output = run_zonflow(capture.path(), "<&- >&-");
    EXPECT_EQ(no_output.exit_code, 4);
    EXPECT_EQ(no_output.err, "zonflow: cannot write the output: Bad file descriptor\n");
}

TEST(zonflow_output, that_is_closed_ends_with_4) {
    const temporary_file capture(many_flows());
    for (const char* format : {"json", "table"}) {
        const program_result run =
            run_zonflow(std::string("-o ") + format + " " + capture.path(), ">&-");
        EXPECT_EQ(run.exit_code, 4) << format;
        EXPECT_EQ(run.err, "zonflow: cannot write the output: Bad file descriptor\n") << format;
    }
}

// Traces end without a newline.
TEST(zonflow_output, that_fails_is_told_on_a_line_of_its_own_behind_traces) {
    const temporary_file capture(many_flows());
    const program_result run =
        run_zonflow("-o json --trace engine " + capture.path(), ">/dev/full");
    EXPECT_EQ(run.exit_code, 4);
    ASSERT_FALSE(run.err.empty());
    EXPECT_EQ(lines_of(run.err).back(),
              "zonflow: cannot write the output: No space left on device");
}

TEST(zonflow_output, that_nobody_reads_ends_with_4) {
    const temporary_file capture(many_flows());
    for (const char* format : {"json", "table"}) {
        running_zonflow run({"-o", format, capture.path()});
        run.end_output();
        EXPECT_EQ(run.wait_for_end(), 4) << format;
        EXPECT_EQ(run.errors(), "zonflow: cannot write the output: Broken pipe\n") << format;
    }
}

// As "head -1".
TEST(zonflow_output, whose_reader_goes_away_ends_with_4) {
    const temporary_file capture(many_flows());
    running_zonflow run({"-o", "json", capture.path()});
    ASSERT_EQ(json_field(run.next_line(), "end"), "idle");
    run.end_output();
    EXPECT_EQ(run.wait_for_end(), 4);
    EXPECT_EQ(run.errors(), "zonflow: cannot write the output: Broken pipe\n");
}

TEST(zonflow_output, that_reaches_the_limit_of_file_sizes_ends_with_4) {
    constexpr rlim_t limit = 8192;
    const temporary_file capture(many_flows());
    const temporary_file output{bytes{}};
    const ended_program run = run_prepared({"-o", "json", capture.path()}, [&] {
        const rlimit size{limit, limit};
        return dup2(open(output.path().c_str(), O_WRONLY), STDOUT_FILENO) == STDOUT_FILENO &&
               setrlimit(RLIMIT_FSIZE, &size) == 0;
    });
    EXPECT_EQ(run.exit_code, 4);
    EXPECT_EQ(run.err, "zonflow: cannot write the output: File too large\n");
    EXPECT_EQ(std::filesystem::file_size(output.path()), limit) << "what had room is there";
}

}  // namespace

// options_test.cpp - the command line, the exit codes and the messages, as a shell sees them.
#include <gtest/gtest.h>

#include "tests/apps/zonflow/support/zonflow_program.h"

namespace {

using namespace zonflow_tests;

const bytes small_capture =
    pcap_bytes({{1'000'000'000, ethernet(0x0800, ipv4_packet({}, udp_segment(1000, 53, 10)))}}, 1);

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(zonflow_options, help_lists_every_option_and_ends_with_0) {
    const program_result run = run_zonflow("--help");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err, "");
    for (const char* option :
         {"--vlan-key",     "--output",       "--max-flows",      "--idle-opening", "--idle-tcp",
          "--idle-udp",     "--idle-closing", "--idle-announced", "--tcp-checks",   "--no-tunnels",
          "--no-fragments", "--by",           "--veto",           "--bypass-after", "--no-helpers",
          "--trace",        "--help",         "--version",        "Examples:",      "Exit codes:",
          "--interface",    "--filter",       "--packets",        "--seconds"}) {
        EXPECT_TRUE(contains(run.out, option)) << option;
    }
    for (const char* explained :
         {"  closed  ", "  reset   ", "  idle    ", "  open    ", "BYTES whole IP packets",
          "at least so many seconds of silence and at most twice as", "every UDP port"}) {
        EXPECT_TRUE(contains(run.out, explained)) << explained;
    }
}

TEST(zonflow_options, version_names_the_program) {
    const program_result run = run_zonflow("--version");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out.rfind("zonflow ", 0), 0u) << run.out;
}

class wrong_command_line : public testing::TestWithParam<const char*> {};

TEST_P(wrong_command_line, ends_with_2_and_says_so_on_standard_error) {
    const program_result run = run_zonflow(GetParam());
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(contains(run.err, "zonflow: "));
    for (const char* parser_talk : {"{", "FAILED", "required but", "Check", "UINT", "TEXT"}) {
        EXPECT_FALSE(contains(run.err, parser_talk)) << run.err;
    }
}

INSTANTIATE_TEST_SUITE_P(
    zonflow_options, wrong_command_line,
    testing::Values("", "--bogus x.pcap", "-o xml x.pcap", "--max-flows 0 x.pcap",
                    "--max-flows many x.pcap", "--idle-tcp -1 x.pcap", "--idle-udp 4294968 x.pcap",
                    "--idle-opening", "--idle-announced 0 x.pcap", "--by host x.pcap",
                    "--veto 10.0.0.0/33 x.pcap", "--veto 2001:db8::/129 x.pcap",
                    "--veto example x.pcap", "--veto 10.0.0.0/8 --veto 10/8 x.pcap",
                    "--bypass-after 0 x.pcap", "--bypass-after -1 x.pcap",
                    "--bypass-after 2147483648 x.pcap", "--trace tcp x.pcap", "--trace 3 x.pcap",
                    "-o 1 x.pcap", "-o", "-o json -o xml x.pcap", "--trace engine,,fe x.pcap",
                    "--trace engine, x.pcap", "--trace , x.pcap", "--veto 1.2.3.4/8 x.pcap",
                    "--veto 1.0.0.0/08 x.pcap", "--max-flows 1e3 x.pcap",
                    "--max-flows 16000001 x.pcap", "-i lo x.pcap", "-i", "--packets 0 x.pcap",
                    "--seconds 1.5 x.pcap"));

TEST(zonflow_options, says_in_words_of_its_own_what_is_wrong) {
    const std::pair<const char*, const char*> messages[] = {
        {"-o xml x", "--output: \"xml\" is no format: json, table\n"},
        {"--trace engine,,fe x",
         "--trace: \"\" is no part of the engine: ager, all, engine, fe, l4\n"},
        {"--by host x", "--by: \"host\" is no grouping: source\n"},
        {"--max-flows 0 x", "--max-flows: \"0\" is no number from 1 to 16000000\n"},
        {"--idle-tcp", "--idle-tcp: a value is missing\n"},
        {"", "a FILE or an --interface is needed\n"},
        {"-i lo x", "FILE and --interface exclude each other\n"},
        {"--veto 1.2.3.4/8 x",
         "--veto: \"1.2.3.4/8\" has address bits behind its prefix: 1.0.0.0/8 is the network\n"},
        {"--veto 10/8 x", "--veto: \"10/8\" is no network such as 10.0.0.0/8 or 2001:db8::/32\n"},
    };
    for (const auto& [arguments, message] : messages) {
        EXPECT_EQ(run_zonflow(arguments).err,
                  std::string("zonflow: ") + message + "Run zonflow --help for the options.\n");
    }
}

TEST(zonflow_options, take_the_last_of_several_values) {
    const temporary_file capture(small_capture);
    EXPECT_EQ(run_zonflow("-o table -o json " + capture.path()).out,
              run_zonflow("-o json " + capture.path()).out);
    EXPECT_EQ(run_json("--max-flows 7 --max-flows 8 " + capture.path()).exit_code, 0);
}

TEST(zonflow_options, accepts_every_option_together) {
    const temporary_file capture(small_capture);
    const json_result run = run_json(
        "--vlan-key --max-flows 10 --idle-opening 1 --idle-tcp 2 --idle-udp 3 --idle-closing 4 "
        "--tcp-checks "
        "--no-tunnels --no-fragments --idle-announced 5 --by source --veto 192.0.2.0/24 "
        "--veto 2001:db8::/32 --bypass-after 100 --no-helpers --dump --histogram "
        "--trace engine,l4 --trace ager --filter udp --packets 5 --seconds 5 " +
        capture.path());
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.flows.size(), 1u);
}

TEST(zonflow_trace, goes_to_standard_error_and_leaves_the_output_as_it_is) {
    const temporary_file capture(small_capture);
    const program_result quiet = run_zonflow("-o json " + capture.path());
    EXPECT_EQ(quiet.err, "");
    for (const char* parts : {"engine", "all", "l4,engine"}) {
        const program_result traced =
            run_zonflow(std::string("-o json --trace ") + parts + " " + capture.path());
        EXPECT_EQ(traced.exit_code, 0);
        EXPECT_EQ(traced.out, quiet.out);
        EXPECT_TRUE(contains(traced.err, "ZON Engine: zon_destroy")) << traced.err;
    }
    EXPECT_FALSE(contains(run_zonflow("--trace ager " + capture.path()).err, "ZON Engine"));
}

TEST(zonflow_trace, tells_of_no_error_where_there_is_none) {
    const temporary_file capture(small_capture);
    const program_result traced = run_zonflow("--trace all " + capture.path());
    EXPECT_TRUE(contains(traced.err, "ZON Engine: zon_init")) << traced.err;
    for (const char* error : {"ERRMSG", "not attached"}) {
        EXPECT_FALSE(contains(traced.err, error)) << traced.err;
    }
}

TEST(zonflow_exit_codes, are_0_with_nothing_on_standard_error_for_a_whole_capture) {
    const temporary_file capture(small_capture);
    const program_result run = run_zonflow(capture.path());
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(contains(run.out, "10.0.0.1:1000"));
}

TEST(zonflow_exit_codes, are_1_for_a_damaged_capture_and_what_came_before_is_reported) {
    bytes file = small_capture;
    file = file + bytes(7, 0);
    const temporary_file capture(file);
    const json_result run = run_json(capture.path());
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_TRUE(contains(run.err, capture.path() + ": damaged after 1 packet: ")) << run.err;
    ASSERT_EQ(run.flows.size(), 1u);
    ASSERT_EQ(run.summaries.size(), 1u);
    EXPECT_EQ(json_number(run.summaries[0], "packets"), 1u);
}

TEST(zonflow_exit_codes, are_2_for_a_filter_that_is_none) {
    const temporary_file capture(small_capture);
    const program_result run = run_zonflow("--filter 'port port' " + capture.path());
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("zonflow: " + capture.path() + ": --filter: ", 0), 0u) << run.err;
}

TEST(zonflow_exit_codes, are_3_for_a_file_that_cannot_be_opened) {
    const program_result run = run_zonflow("/nonexistent/x.pcap");
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.err, "zonflow: /nonexistent/x.pcap: No such file or directory\n");
}

TEST(zonflow_exit_codes, are_3_for_a_file_that_is_no_capture) {
    const temporary_file text(bytes(200, 'x'));
    const program_result run = run_zonflow(text.path());
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_TRUE(contains(run.err, text.path() + ": not a capture")) << run.err;
}

TEST(zonflow_exit_codes, are_3_for_a_link_type_that_is_not_known_and_the_known_ones_are_listed) {
    const temporary_file capture(pcap_bytes({}, 105));
    const program_result run = run_zonflow(capture.path());
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_TRUE(contains(run.err, "105 IEEE802_11")) << run.err;
    EXPECT_TRUE(contains(run.err, "113 Linux cooked v1")) << run.err;
    EXPECT_EQ(run.out, "");
}

TEST(zonflow_exit_codes, are_the_highest_of_several_files_and_the_good_ones_are_read) {
    const temporary_file good(small_capture);
    const temporary_file damaged(small_capture + bytes(7, 0));
    const json_result run = run_json(damaged.path() + " /nonexistent/x.pcap " + good.path());
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.flows.size(), 2u);
    EXPECT_EQ(run.summaries.size(), 2u);
}

TEST(zonflow_exit_codes, are_4_when_the_disk_is_full) {
    if (access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "no /dev/full";
    }
    const temporary_file capture(small_capture);
    for (const char* format : {"json", "table"}) {
        const program_result run =
            run_zonflow(std::string("-o ") + format + " " + capture.path(), ">/dev/full");
        EXPECT_EQ(run.exit_code, 4);
        EXPECT_TRUE(contains(run.err, "cannot write the output")) << run.err;
    }
    for (const char* option : {"--help", "--version"}) {
        const program_result run = run_zonflow(option, ">/dev/full");
        EXPECT_EQ(run.exit_code, 4);
        EXPECT_EQ(run.err, "zonflow: cannot write the output: No space left on device\n");
    }
}

TEST(zonflow_progress, is_never_shown_where_standard_error_is_no_terminal) {
    std::vector<stamped_frame> frames;
    for (uint16_t i = 0; i < 5000; ++i) {
        frames.push_back({i, ethernet(0x0800, ipv4_packet({}, udp_segment(i, 53, 10)))});
    }
    const temporary_file capture(pcap_bytes(frames, 1));
    EXPECT_EQ(run_zonflow(capture.path()).err, "");
}

}  // namespace

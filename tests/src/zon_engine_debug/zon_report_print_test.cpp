// zon_report_print_test.cpp - the texts of a dump: parameters, keys, the line of a flow.

#include "src/zon_api/api_fixture.h"

using namespace zon_test;

namespace {

std::string printed(const std::function<void()>& action) {
    captured_output lines(stdout);
    action();
    return lines.text();
}

TEST(engine_parameters_text, is_the_block_that_operators_know) {
    ASSERT_EQ(zon_init(2000, 7000, 12, 4, 3, 17, 11), zon_error_none);
    EXPECT_EQ(printed([] { zon_debug_global_params(); }),
              "\n  Global ZON Parameters  \n"
              "-------------------------\n"
              "Max Flows: 2000\n"
              "Default Pre-flow timeout: 7000\n"
              "Minimum Initial Flows: 12\n"
              "Max Threads: 4\n"
              "Max Hash Bucket Depth: 3\n"
              "Create New Chunk Elements: 17\n"
              "Max Initial Memory Buffer: 11\n");
    EXPECT_EQ(zon_destroy(), zon_error_none);
}

TEST(engine_parameters_text, prints_large_values_as_signed_numbers) {
    ASSERT_EQ(zon_init(100, 0xFFFFFFFF, 10, 4, 255, 16, 10), zon_error_none);
    const std::string text = printed([] { zon_debug_global_params(); });
    EXPECT_NE(text.find("\nDefault Pre-flow timeout: -1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nMax Hash Bucket Depth: 255\n"), std::string::npos) << text;
    EXPECT_EQ(zon_destroy(), zon_error_none);
}

TEST(engine_parameters_text, is_empty_without_an_engine) {
    ASSERT_EQ(g_zon, nullptr);
    EXPECT_EQ(printed([] { zon_debug_global_params(); }), "");
}

zon_report_key_t key_of_type(uint32_t type) {
    zon_report_key_t key{};
    if (zon_key_is_ipv4(type))
        key.ipv4 = {type, 17, 0, 0, 9, 0xC0A80001, 65535, 0x0A0B0C0D, 53};
    else
        key.ipv6 = {type,  6,
                    0,     0,
                    7,     {0x20010DB8, 0, 0x0000FF00, 0x0000ABCD},
                    40000, {0xFE800000, 0x00010002, 0x30000004, 0xFFFFFFFF},
                    443};
    return key;
}

constexpr char ipv4_text[] = "<192.168.0.1:65535,10.11.12.13:53,17,9>";
constexpr char ipv6_text[] =
    "<2001:db8:0:0:0:ff00:0:abcd 40000 fe80:0:1:2:3000:4:ffff:ffff 443 6,7>";

struct key_case {
    const char* name;
    uint32_t type;
    const char* text;
};

class key_text : public ::testing::TestWithParam<key_case> {};

TEST_P(key_text, is_the_row) {
    zon_report_key_t key = key_of_type(GetParam().type);
    EXPECT_EQ(printed([&] { zon_debug_flow_key_dump(&key.key); }), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    rows, key_text,
    ::testing::Values(
        key_case{"ipv4_complete", 0, ipv4_text}, key_case{"ipv4_destination_only", 1, ipv4_text},
        key_case{"ipv4_source_only", 2, ipv4_text}, key_case{"ipv4_announced_complete", 3, ""},
        key_case{"ipv4_vrf_unknown", 4, ipv4_text}, key_case{"ipv6_complete", 5, ipv6_text},
        key_case{"ipv6_destination_only", 6, ipv6_text}, key_case{"ipv6_source_only", 7, ipv6_text},
        key_case{"ipv6_announced_complete", 8, ""}, key_case{"ipv6_vrf_unknown", 9, ipv6_text},
        key_case{"above_the_types", 10, ""}, key_case{"far_above_the_types", 0xFFFFFFFF, ""}),
    [](const auto& row) { return row.param.name; });

TEST(key_text, is_empty_for_no_key) {
    EXPECT_EQ(printed([] { zon_debug_flow_key_dump(nullptr); }), "");
}

TEST(key_text, prints_a_large_vrf_as_a_signed_number) {
    zon_report_key_t key{};
    key.ipv4 = {0, 6, 0, 0, 0xFFFFFFFE, 0xFFFFFFFF, 0, 0, 1};
    EXPECT_EQ(printed([&] { zon_debug_flow_key_dump(&key.key); }),
              "<255.255.255.255:0,0.0.0.0:1,6,-2>");
}

zon_flow_report_t report_of(uint32_t key_type, bool marked = false) {
    zon_flow_report_t report{};
    report.fid = 42;
    report.l4_sess_state = 3;
    report.l4_tcp_state = static_cast<zon_tcp_state_t>(5);
    report.marked_for_delete = marked;
    report.initiator_key = key_of_type(key_type);
    report.responder_key = report.initiator_key;
    zon_swap_key(&report.responder_key.key);
    return report;
}

constexpr char ipv4_line[] =
    "    42      3    5 <192.168.0.1:65535,10.11.12.13:53,17,9>  "
    "<10.11.12.13:53,192.168.0.1:65535,17,9>\n";
constexpr char title[] = "\nFID  L4-Sess L4-TCP      \tInitiator\t\t\t  Responder\n";

TEST(flow_line, holds_states_and_both_keys) {
    zon_flow_report_t report = report_of(ZON_IPV4_KEY_COMPLETE);
    EXPECT_EQ(printed([&] { zon_debug_flow_print_report(&report, nullptr); }), ipv4_line);
}

TEST(flow_line, holds_ipv6_keys) {
    zon_flow_report_t report = report_of(ZON_IPV6_KEY_COMPLETE);
    report.fid = 1234567;
    EXPECT_EQ(printed([&] { zon_debug_flow_print_report(&report, nullptr); }),
              std::string("1234567      3    5 ") + ipv6_text +
                  "  <fe80:0:1:2:3000:4:ffff:ffff 443 2001:db8:0:0:0:ff00:0:abcd 40000 6,7>\n");
}

TEST(flow_line, has_empty_columns_for_keys_announced_complete) {
    for (const zon_key_type_t type :
         {ZON_IPV4_KEY_PRE_FLOW_COMPLETE, ZON_IPV6_KEY_PRE_FLOW_COMPLETE}) {
        zon_flow_report_t report = report_of(static_cast<uint32_t>(type));
        EXPECT_EQ(printed([&] { zon_debug_flow_print_report(&report, nullptr); }),
                  "    42      3    5   \n");
    }
}

struct print_case {
    const char* name;
    bool has_report;
    bool marked;
    bool title_wanted;
    bool deleted_wanted;
    bool active_wanted;
    const char* text;
};

class printing_of_reports : public ::testing::TestWithParam<print_case> {
protected:
    static std::string text_of(void (*print)(zon_flow_report_t*, zon_dump_flow_context*)) {
        const print_case& row = GetParam();
        zon_flow_report_t report = report_of(ZON_IPV4_KEY_COMPLETE, row.marked);
        zon_dump_flow_context context{};
        context.print_title = row.title_wanted;
        context.print_deleted = row.deleted_wanted;
        context.print_active = row.active_wanted;
        return printed([&] { print(row.has_report ? &report : nullptr, &context); });
    }
};

TEST_P(printing_of_reports, follows_the_context) {
    EXPECT_EQ(text_of(zon_debug_flow_print_report), GetParam().text);
}
TEST_P(printing_of_reports, is_the_same_from_a_walk) {
    EXPECT_EQ(text_of([](zon_flow_report_t* report, zon_dump_flow_context* context) {
                  zon_debug_iterate_call_back(report, context);
              }),
              GetParam().text);
}

constexpr char null_text[] = "Null report\n";
INSTANTIATE_TEST_SUITE_P(
    rows, printing_of_reports,
    ::testing::Values(print_case{"title", false, false, true, false, false, title},
                      print_case{"title_before_the_flow", true, false, true, true, true, title},
                      print_case{"no_report", false, false, false, true, true, null_text},
                      print_case{"no_report_and_nothing_wanted", false, false, false, false, false,
                                 null_text},
                      print_case{"active", true, false, false, false, true, ipv4_line},
                      print_case{"active_unwanted", true, false, false, true, false, ""},
                      print_case{"deleted", true, true, false, true, false, ipv4_line},
                      print_case{"deleted_unwanted", true, true, false, false, true, ""},
                      print_case{"nothing_wanted", true, false, false, false, false, ""}),
    [](const auto& row) { return row.param.name; });

TEST(flow_line, is_asked_of_no_report_without_a_context) {
    EXPECT_EQ(printed([] { zon_debug_flow_print_report(nullptr, nullptr); }), null_text);
    zon_flow_report_t report = report_of(ZON_IPV4_KEY_COMPLETE, true);
    EXPECT_EQ(printed([&] { zon_debug_iterate_call_back(&report, nullptr); }), ipv4_line)
        << "without a context marked flows are printed, too";
}

}  // namespace

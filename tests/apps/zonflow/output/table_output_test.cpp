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

TEST_P(short_numbers, fit_into_six_characters) {
    EXPECT_EQ(short_number(GetParam().value), GetParam().text);
    EXPECT_LE(short_number(GetParam().value).size(), 6u);
}

INSTANTIATE_TEST_SUITE_P(table_output, short_numbers,
                         testing::Values(number_case{0, "0"}, number_case{99'999, "99999"},
                                         number_case{100'000, "100K"}, number_case{999'499, "999K"},
                                         number_case{999'500, "1.0M"},
                                         number_case{12'345'678, "12.3M"},
                                         number_case{99'960'000, "100M"},
                                         number_case{1'500'000'000, "1.5G"},
                                         number_case{18446744073709551615u, "18.4E"}));

std::vector<std::string> table_of(const flow_record& record) {
    std::FILE* file = std::tmpfile();
    output_stream stream(file);
    table_output table(stream, false);
    table.begin("name");
    table.flow(record);
    stream.flush();
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
    record.end_reason = ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST;
    return record;
}

TEST(table_output, puts_the_widest_ipv4_flow_on_one_line_of_80_columns) {
    const auto lines = table_of(widest_ipv4());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].find("INITIATOR"), lines[1].find("255.255.255.254:65534"));
    EXPECT_EQ(lines[0].find("RESPONDER"), lines[1].find("255.255.255.255:65535"));
    EXPECT_EQ(lines[1].size(), 80u);
}

TEST(table_output, gives_the_widest_ipv6_endpoints_lines_of_their_own) {
    flow_record record = widest_ipv4();
    record.tuple.src_ip.addr_type = ZON_IP_ADDR_IPV6;
    std::memset(record.tuple.src_ip.u.v6_addr, 0x21, 16);
    std::memset(record.tuple.dst_ip.u.v6_addr, 0x22, 16);
    const auto lines = table_of(record);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[1].find("[2121:2121:2121:2121:2121:2121:2121:2121]:65534"), std::string::npos);
    EXPECT_NE(lines[2].find("[2222:2222:2222:2222:2222:2222:2222:2222]:65535"), std::string::npos);
    for (const std::string& line : lines) {
        EXPECT_LE(line.size(), 80u) << line;
    }
}

TEST(table_output, puts_short_ipv6_responders_beside_the_counts) {
    flow_record record = widest_ipv4();
    record.tuple.src_ip.addr_type = ZON_IP_ADDR_IPV6;
    std::memset(record.tuple.src_ip.u.v6_addr, 0x21, 16);
    std::memset(record.tuple.dst_ip.u.v6_addr, 0, 16);
    const auto lines = table_of(record);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2].rfind("  -> [::]:65535", 0), 0u);
    EXPECT_EQ(lines[2].size(), 80u);
}

}  // namespace

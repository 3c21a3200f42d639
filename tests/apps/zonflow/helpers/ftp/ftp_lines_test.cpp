// ftp_lines_test.cpp - what PORT, EPRT, 227 and 229 announce, and what they do not.
#include <gtest/gtest.h>

#include <string>

#include "flows/flow_record.h"
#include "helpers/ftp/ftp_lines.h"
#include "tests/apps/zonflow/support/bounded_text.h"

namespace {

using namespace zonflow;
using zonflow_tests::bounded_text;

// "address port", "port" where the line has no address, "" for a line that announces nothing.
std::string text_of(const std::optional<ftp_announcement>& announcement) {
    if (!announcement) {
        return "";
    }
    const std::string port = std::to_string(announcement->port);
    return announcement->address ? address_text(*announcement->address) + " " + port : port;
}

struct line_case {
    const char* line;
    const char* announced;
};

class ftp_commands : public testing::TestWithParam<line_case> {};
class ftp_replies : public testing::TestWithParam<line_case> {};

TEST_P(ftp_commands, announce_where_the_server_will_connect) {
    const bounded_text line(GetParam().line);
    EXPECT_EQ(text_of(announcement_in_command(line.view())), GetParam().announced)
        << GetParam().line;
}

TEST_P(ftp_replies, announce_where_the_client_will_connect) {
    const bounded_text line(GetParam().line);
    EXPECT_EQ(text_of(announcement_in_reply(line.view())), GetParam().announced) << GetParam().line;
}

const line_case commands[] = {
    {"PORT 192,0,2,1,202,215", "192.0.2.1 51927"},
    {"port 192,0,2,1,0,1", "192.0.2.1 1"},
    {"PORT  192,0,2,1,255,255 ", "192.0.2.1 65535"},
    {"EPRT |1|132.235.1.2|6275|", "132.235.1.2 6275"},
    {"EPRT |2|1080::8:800:200c:417a|5282|", "1080::8:800:200c:417a 5282"},
    {"eprt !2!2001:db8::1!38609!", "2001:db8::1 38609"},
    // Other commands, and the replies' own text.
    {"", ""},
    {"PORT", ""},
    {"PORT ", ""},
    {"PORTS 192,0,2,1,202,215", ""},
    {"RETR PORT 192,0,2,1,202,215", ""},
    {"227 Entering Passive Mode (192,0,2,2,53,106)", ""},
    // Numbers that cannot be.
    {"PORT 192,0,2,1,0,0", ""},
    {"PORT 192,0,2,256,202,215", ""},
    {"PORT 192,0,2,1,256,0", ""},
    {"PORT 192,0,2,1,4294967298,1", ""},
    {"PORT 192,0,2,1,-1,1", ""},
    {"PORT 192,0,2,1,0001,1", ""},
    {"PORT 192,0,2,1,202", ""},
    {"PORT 192,0,2,1,202,", ""},
    {"PORT ,,,,,", ""},
    {"PORT 192,0,2,1,202,215,1", ""},
    {"PORT 192,0,2,1,202,215x", ""},
    {"PORT 192, 0,2,1,202,215", ""},
    {"PORT 192.0.2.1.202.215", ""},
    {"EPRT |1|132.235.1.2|0|", ""},
    {"EPRT |1|132.235.1.2|65536|", ""},
    {"EPRT |1|132.235.1.2|6275", ""},
    {"EPRT |1|132.235.1.2|6275||", ""},
    {"EPRT |1|132.235.1.2|6275|x", ""},
    {"EPRT |1||6275|", ""},
    {"EPRT |1|2001:db8::1|6275|", ""},
    {"EPRT |2|132.235.1.2|6275|", ""},
    {"EPRT |3|132.235.1.2|6275|", ""},
    {"EPRT 1111132.235.1.216275", ""},
    {"EPRT |||", ""},
    {"EPRT |", ""},
    {"EPRT ", ""},
};

const line_case replies[] = {
    {"227 Entering Passive Mode (192,0,2,2,53,106).", "192.0.2.2 13674"},
    {"227 Entering Passive Mode 192,0,2,2,53,106", "192.0.2.2 13674"},
    {"227 =192,0,2,2,53,106", "192.0.2.2 13674"},
    {"229 Entering Extended Passive Mode (|||24246|)", "24246"},
    {"229 ok (!!!1!) and more", "1"},
    // Other replies.
    {"", ""},
    {"227", ""},
    {"227-Entering Passive Mode (192,0,2,2,53,106).", ""},
    {"2270 (192,0,2,2,53,106)", ""},
    {"200 PORT command successful.", ""},
    {"PORT 192,0,2,1,202,215", ""},
    // Numbers that cannot be.
    {"227 Entering Passive Mode", ""},
    {"227 Entering Passive Mode (192,0,2,2,0,0)", ""},
    {"227 Entering Passive Mode (192,0,2,2,53)", ""},
    {"227 Entering Passive Mode (192,0,2,2,53,106,1)", ""},
    {"227 Entering Passive Mode (192,0,2,999,53,106)", ""},
    {"227 Entering 2 Passive Mode (192,0,2,2,53,106)", ""},
    {"229 Entering Extended Passive Mode (|||0|)", ""},
    {"229 Entering Extended Passive Mode (|||65536|)", ""},
    {"229 Entering Extended Passive Mode (|||-1|)", ""},
    {"229 Entering Extended Passive Mode (|1|192.0.2.2|24246|)", ""},
    {"229 Entering Extended Passive Mode (||24246|)", ""},
    {"229 Entering Extended Passive Mode (|||24246|", ""},
    {"229 Entering Extended Passive Mode )|||24246|(", ""},
    {"229 Entering Extended Passive Mode ()", ""},
    {"229 (", ""},
    {"229 ", ""},
};

INSTANTIATE_TEST_SUITE_P(ftp_lines, ftp_commands, testing::ValuesIn(commands));
INSTANTIATE_TEST_SUITE_P(ftp_lines, ftp_replies, testing::ValuesIn(replies));

// Whatever is cut off or changed: the address and the port that come out, if any do, are possible
// ones, and nothing outside the line is read.
TEST(ftp_lines, survive_every_cut_and_every_byte) {
    for (const line_case& row : {commands[0], commands[4], replies[0], replies[3]}) {
        const std::string whole = row.line;
        for (size_t length = 0; length <= whole.size(); ++length) {
            const bounded_text cut(std::string_view(whole).substr(0, length));
            for (const auto& found :
                 {announcement_in_command(cut.view()), announcement_in_reply(cut.view())}) {
                EXPECT_TRUE(!found || found->port != 0) << cut.view();
            }
        }
        for (size_t at = 0; at < whole.size(); ++at) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string changed = whole;
                changed[at] = static_cast<char>(byte);
                const bounded_text line(changed);
                for (const auto& found :
                     {announcement_in_command(line.view()), announcement_in_reply(line.view())}) {
                    EXPECT_TRUE(!found || found->port != 0) << changed;
                }
            }
        }
    }
}

}  // namespace

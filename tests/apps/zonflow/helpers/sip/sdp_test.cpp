// sdp_test.cpp - which SIP messages carry a session description, and which endpoints it announces.
#include <gtest/gtest.h>

#include <string>

#include "flows/flow_record.h"
#include "helpers/sip/sdp.h"
#include "tests/apps/zonflow/support/bounded_text.h"

namespace {

using namespace zonflow;
using zonflow_tests::bounded_text;

// "address:port address:port".
std::string endpoints_text(std::string_view description) {
    std::string text;
    for (const media_endpoint& endpoint : media_endpoints(description)) {
        text += (text.empty() ? "" : " ") + address_text(endpoint.address) + ":" +
                std::to_string(endpoint.port);
    }
    return text;
}

struct sdp_case {
    const char* name;
    const char* description;
    const char* endpoints;
};

class descriptions : public testing::TestWithParam<sdp_case> {};

TEST_P(descriptions, announce_the_endpoints_of_their_rtp_streams) {
    const bounded_text description(GetParam().description);
    EXPECT_EQ(endpoints_text(description.view()), GetParam().endpoints);
}

const sdp_case sdp_cases[] = {
    {"address_of_the_session",
     "v=0\r\nc=IN IP4 192.0.2.1\r\nt=0 0\r\nm=audio 30000 RTP/AVP 0 8\r\na=sendrecv\r\n",
     "192.0.2.1:30000 192.0.2.1:30001"},
    {"address_of_the_stream",
     "v=0\r\nc=IN IP4 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\nc=IN IP4 192.0.2.9\r\n"
     "m=video 40000 RTP/SAVPF 96\r\n",
     "192.0.2.9:30000 192.0.2.9:30001 192.0.2.1:40000 192.0.2.1:40001"},
    {"ipv6", "v=0\nc=IN IP6 2001:db8::7\nm=audio 5004 UDP/TLS/RTP/SAVPF 0\n",
     "2001:db8::7:5004 2001:db8::7:5005"},
    {"rtcp_on_a_port_of_its_own",
     "c=IN IP4 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\na=rtcp:53020\r\n",
     "192.0.2.1:30000 192.0.2.1:53020"},
    {"rtcp_at_an_address_of_its_own",
     "c=IN IP4 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\na=rtcp:53020 IN IP6 2001:db8::9\r\n",
     "192.0.2.1:30000 2001:db8::9:53020"},
    {"rtcp_of_the_session_means_no_stream",
     "c=IN IP4 192.0.2.1\r\na=rtcp:53020\r\nm=audio 30000 RTP/AVP 0\r\n",
     "192.0.2.1:30000 192.0.2.1:30001"},
    {"last_port_of_all", "c=IN IP4 192.0.2.1\r\nm=audio 65535 RTP/AVP 0\r\n", "192.0.2.1:65535"},
    {"stream_turned_off", "c=IN IP4 192.0.2.1\r\nm=audio 0 RTP/AVP 0\r\n", ""},
    {"on_hold", "c=IN IP4 0.0.0.0\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"on_hold_v6", "c=IN IP6 ::\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"multicast", "c=IN IP4 224.2.1.1/127\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"multicast_without_ttl", "c=IN IP4 239.2.1.1\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"multicast_v6", "c=IN IP6 ff15::101\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"broadcast", "c=IN IP4 255.255.255.255\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"name_of_a_host", "c=IN IP4 media.example.test\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"no_address", "v=0\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"family_that_does_not_fit", "c=IN IP6 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\n", ""},
    {"bad_address_of_the_stream_hides_that_of_the_session",
     "c=IN IP4 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\nc=IN IP4 192.0.2.999\r\n", ""},
    {"not_rtp", "c=IN IP4 192.0.2.1\r\nm=image 30000 udptl t38\r\n", ""},
    {"rtp_over_tcp", "c=IN IP4 192.0.2.1\r\nm=audio 30000 TCP/RTP/AVP 0\r\n", ""},
    {"well_known_port", "c=IN IP4 192.0.2.1\r\nm=audio 53 RTP/AVP 0\r\n", ""},
    {"rtcp_at_a_well_known_port", "c=IN IP4 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\na=rtcp:53\r\n",
     "192.0.2.1:30000"},
    {"rtcp_port_that_cannot_be",
     "c=IN IP4 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\na=rtcp:99999\r\n", "192.0.2.1:30000"},
    {"rtcp_address_that_cannot_be",
     "c=IN IP4 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\na=rtcp:30001 IN IP4 x\r\n",
     "192.0.2.1:30000"},
    {"port_too_large", "c=IN IP4 192.0.2.1\r\nm=audio 95536 RTP/AVP 0\r\n", ""},
    {"port_negative", "c=IN IP4 192.0.2.1\r\nm=audio -30000 RTP/AVP 0\r\n", ""},
    {"several_streams_in_one_line", "c=IN IP4 192.0.2.1\r\nm=audio 30000/2 RTP/AVP 0\r\n", ""},
    {"line_cut_off", "c=IN IP4 192.0.2.1\r\nm=audio 3000", ""},
    {"later_line_cut_off", "c=IN IP4 192.0.2.1\r\nm=audio 30000 RTP/AVP 0\r\na=rtcp:53",
     "192.0.2.1:30000 192.0.2.1:30001"},
    {"empty", "", ""},
    {"empty_lines", "\r\n\n\r\n", ""},
    {"words_missing", "c=\r\nc=IN\r\nm=\r\nm=audio\r\nm=audio 30000\r\na=rtcp:\r\n", ""},
};

INSTANTIATE_TEST_SUITE_P(sdp, descriptions, testing::ValuesIn(sdp_cases),
                         [](const auto& row) { return row.param.name; });

TEST(sdp, is_not_followed_beyond_eight_streams) {
    std::string description = "c=IN IP4 192.0.2.1\r\n";
    for (int stream = 0; stream < 5000; ++stream) {
        description += "m=audio " + std::to_string(20000 + 2 * stream) + " RTP/AVP 0\r\n";
    }
    EXPECT_EQ(media_endpoints(description).size(), 16u);
}

struct message_case {
    const char* name;
    std::string message;
    const char* description;  // null: none
};

const std::string invite = "INVITE sip:bob@example.test SIP/2.0\r\n";

const message_case message_cases[] = {
    {"request", invite + "Content-Type: application/sdp\r\nContent-Length: 5\r\n\r\nv=0\r\n",
     "v=0\r\n"},
    {"response", "SIP/2.0 183 Progress\r\ncontent-type:application/SDP;x=y\r\n\r\nv=0\r\n",
     "v=0\r\n"},
    {"short_names", invite + "c: application/sdp\r\nl: 5\r\n\r\nv=0\r\n", "v=0\r\n"},
    {"blank_before_the_colon", invite + "Content-Type : application/sdp\r\n\r\nv=0\r\n", "v=0\r\n"},
    {"next_message_behind_it",
     invite + "c: application/sdp\r\nl: 5\r\n\r\nv=0\r\nBYE sip:bob@example.test SIP/2.0\r\n",
     "v=0\r\n"},
    {"body_shorter_than_its_length", invite + "c: application/sdp\r\nl: 500\r\n\r\nv=0\r\n",
     "v=0\r\n"},
    {"length_that_cannot_be", invite + "c: application/sdp\r\nl: -1\r\n\r\nv=0\r\n", ""},
    {"length_beyond_32_bits", invite + "c: application/sdp\r\nl: 9999999999\r\n\r\nv=0\r\n", ""},
    {"no_body", invite + "c: application/sdp\r\n\r\n", ""},
    {"another_type", invite + "Content-Type: application/sdpx\r\n\r\nv=0\r\n", nullptr},
    {"no_type", invite + "Contact: application/sdp\r\n\r\nv=0\r\n", nullptr},
    {"header_cut_off", invite + "Content-Type: application/sdp\r\n", nullptr},
    {"not_sip", "GET / HTTP/1.1\r\nContent-Type: application/sdp\r\n\r\nv=0\r\n", nullptr},
    {"start_line_only", invite, nullptr},
    {"start_line_cut_off", "INVITE sip:bob@example.test SIP/2.0", nullptr},
    {"empty", "", nullptr},
};

class messages : public testing::TestWithParam<message_case> {};

TEST_P(messages, carry_a_session_description_or_none) {
    const bounded_text message(GetParam().message);
    const auto found = session_description(message.view());
    ASSERT_EQ(found.has_value(), GetParam().description != nullptr);
    if (found) {
        EXPECT_EQ(*found, GetParam().description);
    }
}

INSTANTIATE_TEST_SUITE_P(sip, messages, testing::ValuesIn(message_cases),
                         [](const auto& row) { return row.param.name; });

TEST(sdp, survives_every_cut_and_every_byte_and_announces_possible_ports_only) {
    const std::string whole = invite +
                              "c: application/sdp\r\nl: 98\r\n\r\nv=0\r\nc=IN IP4 192.0.2.1\r\n"
                              "m=audio 30000 RTP/AVP 0\r\na=rtcp:53020 IN IP6 2001:db8::9\r\n";
    const auto try_out = [](std::string_view text) {
        const bounded_text message(text);
        const auto description = session_description(message.view());
        for (const media_endpoint& endpoint :
             media_endpoints(description ? *description : message.view())) {
            EXPECT_GE(endpoint.port, 1024) << text;
        }
    };
    for (size_t length = 0; length <= whole.size(); ++length) {
        try_out(std::string_view(whole).substr(0, length));
    }
    for (size_t at = 0; at < whole.size(); ++at) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string changed = whole;
            changed[at] = static_cast<char>(byte);
            try_out(changed);
        }
    }
}

}  // namespace

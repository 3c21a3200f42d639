// zon_captured_trace_test.cpp - the lines that the FE component traces of a captured packet are
// those of the same packet when the host vouches for it: each header once.

#include <gtest/gtest.h>

#include <string>

#include "support/captured_output.h"
#include "support/engine_fixture.h"
#include "support/packet_builder.h"

namespace {

using namespace zon_test;

size_t times(const std::string& text, const std::string& line) {
    size_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
        ++count;
    return count;
}

struct traced_row {
    const char* name;
    bytes packet;
    size_t dumps;  // IPv6 headers
    size_t steps;  // extension headers
};

packet_builder inner() {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2");
}
bytes in_ip(const packet_builder& packet) {
    return in_ipv4("10.0.0.1", "10.0.0.2", packet.build());
}

const traced_row rows[] = {
    {"ipv6", inner().hop_by_hop().udp(1, 2).build(), 1, 1},
    {"ipv6_in_ip", in_ip(inner().hop_by_hop().udp(1, 2)), 1, 1},
    {"ipv6_in_ip_without_extensions", in_ip(inner().tcp(1, 2)), 1, 0},
    {"teredo", in_teredo("10.0.0.1", "10.0.0.2", inner().hop_by_hop().udp(1, 2).build()), 1, 1},
};

class traced_packet : public engine_fixture, public ::testing::WithParamInterface<traced_row> {
protected:
    void TearDown() override {
        zon_debug_flag_fe = false;
        engine_fixture::TearDown();
    }
    template <class entry>
    static std::string trace_of(entry hand_in) {
        zon_debug_flag_fe = true;
        captured_output errors(stderr);
        {
            captured_output addresses(stdout);
            EXPECT_NE(hand_in(GetParam().packet).fid, 0U);
            EXPECT_EQ(times(addresses.text(), "ZON FE: src addr: "), GetParam().dumps);
        }
        zon_debug_flag_fe = false;
        return errors.text();
    }
    static void expect_lines_once(const std::string& text) {
        EXPECT_EQ(times(text, "QAT IPv6 Packet Dump"), GetParam().dumps) << text;
        EXPECT_EQ(times(text, "ZON FE: next header: "), GetParam().dumps) << text;
        EXPECT_EQ(times(text, "Get next header, new proto"), GetParam().steps) << text;
    }
};

TEST_P(traced_packet, of_a_host_that_vouches_for_it_shows_each_header_once) {
    expect_lines_once(trace_of([](const bytes& packet) { return handle(packet); }));
}

TEST_P(traced_packet, that_was_captured_shows_each_header_once) {
    expect_lines_once(trace_of([](const bytes& packet) { return handle_captured(packet); }));
}

INSTANTIATE_TEST_SUITE_P(rows, traced_packet, ::testing::ValuesIn(rows),
                         [](const auto& row) { return row.param.name; });

}  // namespace

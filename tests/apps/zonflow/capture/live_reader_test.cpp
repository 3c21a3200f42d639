// live_reader_test.cpp - the loopback interface, read while the test sends over it.
#include "capture/live_reader.h"

#include <gtest/gtest.h>

#include <chrono>

#include "capture/link_layer.h"
#include "capture_run.h"
#include "tests/apps/zonflow/support/loopback.h"
#include "tests/apps/zonflow/support/scripted_source.h"

namespace {

using namespace zonflow;
using namespace zonflow_tests;

class live_reading : public testing::Test {
protected:
    void SetUp() override {
        if (!may_read_interfaces()) {
            GTEST_SKIP() << "reading an interface takes root or CAP_NET_RAW";
        }
    }
    loopback_sender sender_;
};

uint64_t date_us() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

// What comes behind at most so many answers that there is nothing, each of a moment.
read_result next_but_quiet(live_reader& reader, captured_packet& packet) {
    read_result result = read_result::quiet;
    for (int moments = 0; result == read_result::quiet && moments < 200; ++moments) {
        result = reader.next(packet);
    }
    return result;
}

TEST_F(live_reading, gives_every_packet_with_its_time) {
    live_reader reader("lo", sender_.filter());
    const auto link = link_layer::of_type(reader.link_type());
    ASSERT_TRUE(link) << reader.link_type_name();
    constexpr uint64_t second_us = 1'000'000;
    const uint64_t before = date_us();
    const std::vector<std::string> payloads{"one", "two", "three"};
    for (const std::string& payload : payloads) {
        sender_.send(payload);
    }
    uint64_t clock_us = 0;
    uint64_t length = 0;
    for (const std::string& payload : payloads) {
        captured_packet packet;
        ASSERT_EQ(next_but_quiet(reader, packet), read_result::packet);
        const link_result found = link->find_ip(packet.bytes);
        ASSERT_EQ(found.verdict, link_verdict::ip);
        ASSERT_EQ(found.ip_bytes.size(), 28 + payload.size());
        EXPECT_EQ(std::string(found.ip_bytes.begin() + 28, found.ip_bytes.end()), payload);
        EXPECT_GE(packet.time_us + second_us, before);
        EXPECT_LE(packet.time_us, date_us() + second_us);
        EXPECT_GE(packet.clock_us, clock_us);
        clock_us = packet.clock_us;
        length += packet.bytes.size();
    }
    EXPECT_EQ(reader.bytes_read(), length);
    EXPECT_EQ(reader.lost(), 0u);
    EXPECT_TRUE(reader.live());
}

TEST_F(live_reading, answers_in_silence_and_its_clock_goes_on) {
    live_reader reader("lo", sender_.filter());
    captured_packet packet;
    ASSERT_EQ(reader.next(packet), read_result::quiet);
    const uint64_t before = packet.clock_us;
    ASSERT_EQ(reader.next(packet), read_result::quiet);
    EXPECT_GT(packet.clock_us, before);
}

TEST_F(live_reading, leaves_out_what_the_filter_does_not_fit) {
    const loopback_sender other;
    live_reader reader("lo", sender_.filter());
    other.send("not this one");
    sender_.send("this one");
    captured_packet packet;
    ASSERT_EQ(next_but_quiet(reader, packet), read_result::packet);
    const std::string bytes(packet.bytes.begin(), packet.bytes.end());
    EXPECT_EQ(bytes.substr(bytes.size() - 8), "this one");
    EXPECT_EQ(reader.next(packet), read_result::quiet);
}

TEST_F(live_reading, refuses_filters_that_are_none) {
    EXPECT_THROW(live_reader("lo", "not a filter at all"), filter_error);
}

TEST_F(live_reading, refuses_interfaces_that_are_not_there) {
    try {
        live_reader reader("nosuch0", "");
        FAIL() << "there is no such interface";
    } catch (const open_error& error) {
        EXPECT_STREQ(error.what(), "no such interface");
    }
}

TEST_F(live_reading, makes_flows_of_what_it_reads) {
    live_reader reader("lo", sender_.filter());
    for (const char* payload : {"1", "22", "333"}) {
        sender_.send(payload);
    }
    options chosen;
    chosen.packet_limit = 3;
    chosen.time_limit_sec = 20;  // where no packet comes
    collected_output output;
    EXPECT_EQ(run_source(reader, "lo", chosen, output), exit_code::done);
    ASSERT_EQ(output.flows.size(), 1u);
    EXPECT_EQ(output.flows[0].packets(), 3u);
    EXPECT_EQ(output.flows[0].payload_bytes, 6u);
    EXPECT_EQ(output.flows[0].tuple.dst_port, sender_.port());
    EXPECT_EQ(output.sums->classified, 3u);
}

}  // namespace

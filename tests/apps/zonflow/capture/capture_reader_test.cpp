// capture_reader_test.cpp - every kind of capture file, whole, cut short and not a capture at all.
#include "capture/capture_reader.h"

#include <gtest/gtest.h>

#include "tests/apps/zonflow/support/capture_file.h"

namespace {

using namespace zonflow;
using namespace zonflow_tests;

const std::vector<stamped_frame> two_frames{
    {1'700'000'000'123'456'789, ethernet(0x0800, ipv4_packet({}, udp_segment(1, 2, 3)))},
    {4'200'000'001'000'001'000, ethernet(0x86dd, ipv6_packet(17, udp_segment(1, 2, 30)))}};

void expect_the_two_frames(const bytes& file) {
    const temporary_file capture(file);
    capture_reader reader(capture.path());
    EXPECT_EQ(reader.link_type(), 1);
    EXPECT_EQ(reader.bytes_total(), file.size());
    captured_packet packet;
    for (const stamped_frame& expected : two_frames) {
        ASSERT_EQ(reader.next(packet), read_result::packet);
        EXPECT_EQ(packet.time_us, expected.time_ns / 1000);
        EXPECT_EQ(bytes(packet.bytes.begin(), packet.bytes.end()), expected.frame);
    }
    EXPECT_EQ(reader.next(packet), read_result::ended);
    EXPECT_EQ(reader.bytes_read(), file.size());
}

class pcap_reading : public testing::TestWithParam<pcap_kind> {};

TEST_P(pcap_reading, gives_every_frame_with_its_time_in_microseconds) {
    expect_the_two_frames(pcap_bytes(two_frames, 1, GetParam()));
}

INSTANTIATE_TEST_SUITE_P(capture_reader, pcap_reading,
                         testing::Values(pcap_kind{"little_endian_microseconds", false, false},
                                         pcap_kind{"little_endian_nanoseconds", false, true},
                                         pcap_kind{"big_endian_microseconds", true, false},
                                         pcap_kind{"big_endian_nanoseconds", true, true}),
                         [](const auto& row) { return row.param.name; });

TEST(capture_reader, reads_pcapng_of_either_byte_order) {
    expect_the_two_frames(pcapng_bytes(two_frames, 1, false));
    expect_the_two_frames(pcapng_bytes(two_frames, 1, true));
}

void expect_damage_after_one_packet(bytes file) {
    file.erase(file.end() - 5, file.end());
    const temporary_file capture(file);
    capture_reader reader(capture.path());
    captured_packet packet;
    EXPECT_EQ(reader.next(packet), read_result::packet);
    EXPECT_EQ(reader.next(packet), read_result::damaged);
    EXPECT_NE(reader.damage(), "");
}

// The second packet's header claims more bytes than any packet has; a third, whole one follows.
TEST(capture_reader, reads_nothing_behind_the_damage) {
    bytes file = pcap_bytes(two_frames, 1, {"", false, false});
    constexpr size_t file_header = 24, packet_header = 16;
    const size_t second = file_header + packet_header + two_frames[0].frame.size();
    const bytes bad_header = bytes(8, 0) + bytes(8, 0x7f);
    file.insert(file.begin() + static_cast<ptrdiff_t>(second), bad_header.begin(),
                bad_header.end());
    const temporary_file capture(file);
    capture_reader reader(capture.path());
    captured_packet packet;
    ASSERT_EQ(reader.next(packet), read_result::packet);
    ASSERT_EQ(reader.next(packet), read_result::damaged);
    const std::string damage = reader.damage();
    EXPECT_EQ(reader.next(packet), read_result::damaged);
    EXPECT_EQ(reader.damage(), damage);
}

TEST(capture_reader, tells_a_file_that_was_cut_short_from_one_that_ended) {
    expect_damage_after_one_packet(pcap_bytes(two_frames, 1));
    expect_damage_after_one_packet(pcapng_bytes(two_frames, 1, false));
}

TEST(capture_reader, reads_a_capture_without_packets) {
    const temporary_file capture(pcap_bytes({}, 1));
    capture_reader reader(capture.path());
    captured_packet packet;
    EXPECT_EQ(reader.next(packet), read_result::ended);
}

TEST(capture_reader, gives_only_what_the_filter_fits) {
    const temporary_file capture(pcap_bytes(two_frames, 1));
    capture_reader reader(capture.path(), "ip6");
    captured_packet packet;
    ASSERT_EQ(reader.next(packet), read_result::packet);
    EXPECT_EQ(bytes(packet.bytes.begin(), packet.bytes.end()), two_frames[1].frame);
    EXPECT_EQ(reader.next(packet), read_result::ended);
    EXPECT_THROW(capture_reader(capture.path(), "no filter"), filter_error);
}

// Flows of a capture age by its own time, whatever the machine's is.
TEST(capture_reader, has_the_time_stamps_for_its_clock) {
    const temporary_file capture(pcap_bytes(two_frames, 1));
    capture_reader reader(capture.path());
    captured_packet packet;
    for (const stamped_frame& expected : two_frames) {
        ASSERT_EQ(reader.next(packet), read_result::packet);
        EXPECT_EQ(packet.clock_us, expected.time_ns / 1000);
    }
    EXPECT_FALSE(reader.live());
}

TEST(capture_reader, does_not_open_what_is_no_capture) {
    const temporary_file text(bytes(100, 'x'));
    const temporary_file empty{bytes{}};
    EXPECT_THROW(capture_reader{text.path()}, open_error);
    EXPECT_THROW(capture_reader{empty.path()}, open_error);
    EXPECT_THROW(capture_reader{"/nonexistent/file.pcap"}, open_error);
    EXPECT_THROW(capture_reader{std::filesystem::temp_directory_path()}, open_error);
}

TEST(capture_reader, names_the_link_type) {
    const temporary_file capture(pcap_bytes({}, 105));
    EXPECT_NE(capture_reader(capture.path()).link_type_name().find("802_11"), std::string::npos);
}

}  // namespace

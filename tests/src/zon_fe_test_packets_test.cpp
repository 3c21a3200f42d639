// zon_fe_test_packets_test.cpp - every byte and every field of the packets that are built from
// plain fields.

#include "zon_test_packets.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/allocation_faults.h"
#include "zon_pkt_inline.h"
#include "zon_tcp.h"

using zon_test::failing_table_memory;

namespace {

using bytes = std::vector<uint8_t>;

constexpr uint32_t saddr = 0x0A010203;
constexpr uint32_t daddr = 0xC0A80102;
uint32_t saddr6[4] = {0x20010DB8, 1, 2, 3};
uint32_t daddr6[4] = {0x20010DB8, 4, 5, 6};
constexpr uint16_t sport = 0x1234;
constexpr uint16_t dport = 0x0050;

// A record whose every byte is known, and the packet that a builder made of it.
struct built {
    built() { std::memset(static_cast<void*>(&fe), 0xEE, sizeof fe); }
    ~built() { zon_fe_test_cleanup(&fe); }
    built(const built&) = delete;
    built& operator=(const built&) = delete;

    bytes content(size_t size) const { return {fe.network_start, fe.network_start + size}; }
    // What builders leave to their callers.
    void expect_untouched_by_any() const {
        EXPECT_EQ(fe.i2r_flag, 0xEE);
        EXPECT_EQ(static_cast<uint32_t>(fe.tunneled_flow_type), 0xEEEEEEEEu);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(fe.ipv6_frag_hdr), 0xEEEEEEEEEEEEEEEEu);
    }

    zon_dp_fe_t fe;
};

bytes with(bytes content, size_t at, const bytes& part) {
    std::copy(part.begin(), part.end(), content.begin() + static_cast<std::ptrdiff_t>(at));
    return content;
}

bytes ipv4_packet(const bytes& total_length, uint8_t protocol, const bytes& transport) {
    bytes packet(52, 0);
    packet = with(packet, 0, {0x45, 0});
    packet = with(packet, 2, total_length);
    packet[9] = protocol;
    packet = with(packet, 12, {10, 1, 2, 3, 192, 168, 1, 2});
    return with(packet, 24, transport);
}

bytes ipv6_packet(const bytes& payload_length, uint8_t protocol, const bytes& transport) {
    bytes packet(68, 0);
    packet[0] = 0x60;
    packet = with(packet, 4, payload_length);
    packet[6] = protocol;
    return with(packet, 40, transport);
}

void expect_ipv6_addresses(const zon_dp_fe_t& fe) {
    EXPECT_EQ(std::memcmp(fe.ipv6_srcaddr, saddr6, 16), 0);
    EXPECT_EQ(std::memcmp(fe.ipv6_dstaddr, daddr6, 16), 0);
}

TEST(ipv4_tcp_builder, writes_these_bytes) {
    built packet;
    zon_fe_test_fill_tcp_packet_fields(saddr, daddr, sport, dport, 0x01020304, 0xA1A2A3A4, true,
                                       true, false, false, 100, &packet.fe);
    EXPECT_EQ(packet.content(52), ipv4_packet({0, 120}, 6,
                                              {0x12, 0x34, 0x00, 0x50, 0x01, 0x02, 0x03, 0x04, 0xA1,
                                               0xA2, 0xA3, 0xA4, 0x00, 0x12, 0x04, 0x00}));
    EXPECT_EQ(packet.fe.l4_start, packet.fe.network_start + 24);
    EXPECT_EQ(packet.fe.l3_proto, 0x0800);
    EXPECT_EQ(packet.fe.protocol, 6);
    packet.expect_untouched_by_any();
    EXPECT_EQ(packet.fe.ipv6_options_len, 0xEEEE);
    EXPECT_EQ(packet.fe.ipv6_srcaddr[0], 0xEEEEEEEEu);
}

TEST(ipv6_tcp_builder, writes_these_bytes) {
    built packet;
    zon_fe_test_fill_ipv6_tcp_packet_fields(saddr6, daddr6, sport, dport, 0x01020304, 0xA1A2A3A4,
                                            false, true, false, true, 100, &packet.fe);
    EXPECT_EQ(packet.content(68), ipv6_packet({0, 120}, 6,
                                              {0x12, 0x34, 0x00, 0x50, 0x01, 0x02, 0x03, 0x04, 0xA1,
                                               0xA2, 0xA3, 0xA4, 0x50, 0x11, 0x04, 0x00}));
    EXPECT_EQ(packet.fe.l4_start, packet.fe.network_start + 40);
    EXPECT_EQ(packet.fe.l3_proto, 0x86DD);
    EXPECT_EQ(packet.fe.protocol, 6);
    expect_ipv6_addresses(packet.fe);
    EXPECT_EQ(packet.fe.ipv6_options_len, 0);
    packet.expect_untouched_by_any();
}

struct outline_case {
    const char* name;
    uint8_t proto;
    uint32_t payload_size;
    bytes ipv4_length;
    bytes ipv6_length;
    bytes transport;
};

class plain_builders : public ::testing::TestWithParam<outline_case> {};

TEST_P(plain_builders, write_these_bytes_of_an_ipv4_packet) {
    const outline_case& row = GetParam();
    built packet;
    zon_fe_test_fill_packet_fields(saddr, daddr, sport, dport, row.proto, row.payload_size,
                                   &packet.fe);
    EXPECT_EQ(packet.content(52), ipv4_packet(row.ipv4_length, 0, row.transport));
    EXPECT_EQ(packet.fe.l4_start, packet.fe.network_start + 24);
    EXPECT_EQ(packet.fe.l3_proto, 0x0800);
    EXPECT_EQ(packet.fe.protocol, row.proto);
    packet.expect_untouched_by_any();
    EXPECT_EQ(packet.fe.ipv6_options_len, 0xEEEE);
}

TEST_P(plain_builders, write_these_bytes_of_an_ipv6_packet) {
    const outline_case& row = GetParam();
    built packet;
    zon_fe_test_fill_ipv6_packet_fields(saddr6, daddr6, sport, dport, row.proto, row.payload_size,
                                        &packet.fe);
    EXPECT_EQ(packet.content(68), ipv6_packet(row.ipv6_length, row.proto, row.transport));
    EXPECT_EQ(packet.fe.l4_start, packet.fe.network_start + 40);
    EXPECT_EQ(packet.fe.l3_proto, 0x86DD);
    EXPECT_EQ(packet.fe.protocol, row.proto);
    expect_ipv6_addresses(packet.fe);
    packet.expect_untouched_by_any();
    EXPECT_EQ(packet.fe.ipv6_options_len, 0xEEEE) << "the TCP builder alone sets it";
}

INSTANTIATE_TEST_SUITE_P(
    rows, plain_builders,
    ::testing::Values(
        outline_case{"tcp",
                     6,
                     300,
                     {0x01, 0x54},
                     {0x01, 0x2C},
                     {0x12, 0x34, 0x00, 0x50, 0, 0, 0, 0, 0, 0, 0, 0, 0x50, 0, 0, 0}},
        outline_case{
            "udp", 17, 300, {0x01, 0x48}, {0x01, 0x2C}, {0x12, 0x34, 0x00, 0x50, 0x01, 0x2C, 0, 0}},
        outline_case{"udp_without_payload", 17, 0, {0, 28}, {0, 0}, {0x12, 0x34, 0x00, 0x50}},
        outline_case{"icmp", 1, 300, {0, 0}, {0x01, 0x2C}, {}},
        outline_case{"udp_of_more_than_16_bits",
                     17,
                     0x1FFFF,
                     {0x00, 0x1B},
                     {0xFF, 0xFF},
                     {0x12, 0x34, 0x00, 0x50, 0xFF, 0xFF}},
        outline_case{"other", 255, 300, {0, 0}, {0x01, 0x2C}, {}}),
    [](const auto& row) { return row.param.name; });

// Every combination of the four booleans, in both families.
class built_flags : public ::testing::TestWithParam<int> {
protected:
    static bool has(int bit) { return (GetParam() >> bit & 1) != 0; }
    static uint8_t expected() {
        return static_cast<uint8_t>((has(0) ? 0x02 : 0) + (has(1) ? 0x10 : 0) +
                                    (has(2) ? 0x04 : 0) + (has(3) ? 0x01 : 0));
    }
};

TEST_P(built_flags, are_what_was_asked_for_and_nothing_else) {
    built packet;
    zon_fe_test_fill_tcp_packet_fields(1, 2, 3, 4, 5, 6, has(0), has(1), has(2), has(3), 7,
                                       &packet.fe);
    EXPECT_EQ(packet.fe.l4_start[12], 0);
    EXPECT_EQ(packet.fe.l4_start[13], expected());
    built packet6;
    zon_fe_test_fill_ipv6_tcp_packet_fields(saddr6, daddr6, 3, 4, 5, 6, has(0), has(1), has(2),
                                            has(3), 7, &packet6.fe);
    EXPECT_EQ(packet6.fe.l4_start[12], 0x50);
    EXPECT_EQ(packet6.fe.l4_start[13], expected());
}

INSTANTIATE_TEST_SUITE_P(all, built_flags, ::testing::Range(0, 16));

uint8_t ipv4_flags(bool syn, bool ack, bool rst, bool fin) {
    built packet;
    zon_fe_test_fill_tcp_packet_fields(1, 2, 3, 4, 5, 6, syn, ack, rst, fin, 0, &packet.fe);
    return packet.fe.l4_start[13];
}

TEST(ipv4_tcp_builder, has_the_flags_of_a_connection) {
    EXPECT_EQ(ipv4_flags(true, false, false, false), 0x02);
    EXPECT_EQ(ipv4_flags(false, true, true, false), 0x14);
    EXPECT_EQ(ipv4_flags(true, true, true, true), 0x17);
}

// What the trackers read from the packets is the payload size that was asked for.
class built_payload : public ::testing::TestWithParam<uint32_t> {};

TEST_P(built_payload, is_read_from_tcp_packets_of_both_families) {
    built packet;
    zon_fe_test_fill_tcp_packet_fields(saddr, daddr, sport, dport, 1, 2, false, true, false, false,
                                       GetParam(), &packet.fe);
    EXPECT_EQ(zon_token_tcp_datalen(&packet.fe), GetParam());
    built packet6;
    zon_fe_test_fill_ipv6_tcp_packet_fields(saddr6, daddr6, sport, dport, 1, 2, false, true, false,
                                            false, GetParam(), &packet6.fe);
    EXPECT_EQ(zon_token_tcp_datalen(&packet6.fe), GetParam());
    built plain;
    zon_fe_test_fill_packet_fields(saddr, daddr, sport, dport, 6, GetParam(), &plain.fe);
    EXPECT_EQ(zon_token_tcp_datalen(&plain.fe), GetParam());
}

INSTANTIATE_TEST_SUITE_P(sizes, built_payload, ::testing::Values(0u, 1u, 100u, 1460u, 65495u));

TEST(built_payload, of_a_plain_ipv6_tcp_packet_lacks_its_header) {
    built packet;
    zon_fe_test_fill_ipv6_packet_fields(saddr6, daddr6, sport, dport, 6, 100, &packet.fe);
    packet.fe.ipv6_options_len = 0;
    EXPECT_EQ(zon_token_tcp_datalen(&packet.fe), 80u);
}

TEST(built_payload, of_udp_is_the_length_field_itself) {
    built packet;
    zon_fe_test_fill_packet_fields(saddr, daddr, sport, dport, 17, 100, &packet.fe);
    EXPECT_EQ(GETSHORT(packet.fe.l4_start + 4), 100);
    EXPECT_EQ(zon_token_udp_datalen(&packet.fe), 92u);
}

TEST(built_payload, counts_modulo_16_bits) {
    built packet;
    zon_fe_test_fill_tcp_packet_fields(saddr, daddr, sport, dport, 1, 2, false, true, false, false,
                                       65516 + 3, &packet.fe);
    EXPECT_EQ(GETSHORT(packet.fe.network_start + 2), 3);
}

TEST(builders, leave_the_record_alone_without_memory) {
    zon_dp_fe_t untouched;
    std::memset(static_cast<void*>(&untouched), 0xEE, sizeof untouched);
    for (int builder = 0; builder < 4; ++builder) {
        zon_dp_fe_t fe = untouched;
        const failing_table_memory failing(0);
        switch (builder) {
        case 0:
            zon_fe_test_fill_tcp_packet_fields(1, 2, 3, 4, 5, 6, true, true, true, true, 7, &fe);
            break;
        case 1:
            zon_fe_test_fill_packet_fields(1, 2, 3, 4, 17, 7, &fe);
            break;
        case 2:
            zon_fe_test_fill_ipv6_tcp_packet_fields(saddr6, daddr6, 3, 4, 5, 6, true, true, true,
                                                    true, 7, &fe);
            break;
        default:
            zon_fe_test_fill_ipv6_packet_fields(saddr6, daddr6, 3, 4, 17, 7, &fe);
            break;
        }
        EXPECT_TRUE(failing.has_failed());
        EXPECT_EQ(std::memcmp(&fe, &untouched, sizeof fe), 0) << "builder " << builder;
    }
}

}  // namespace

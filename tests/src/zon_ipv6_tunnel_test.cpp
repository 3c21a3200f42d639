// zon_ipv6_tunnel_test.cpp - the search for IPv6 packets inside Teredo datagrams.

#include "zon_ipv6_tunnel_inline.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <random>

#include "support/packet_builder.h"

using namespace zon_test;

namespace {

constexpr uint16_t some_port = 4000;

// The datagram from its UDP header on.
bytes datagram(uint16_t source_port, uint16_t destination_port, const bytes& content) {
    const bytes packet = packet_builder::ipv4("192.0.2.1", "192.0.2.2")
                             .udp(source_port, destination_port)
                             .payload(content)
                             .build();
    return {packet.begin() + 20, packet.end()};
}

bytes joined(std::initializer_list<bytes> parts) {
    bytes all;
    for (const bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

bytes inner(const char* source, const char* destination) {
    return packet_builder::ipv6(source, destination).tcp(1, 2).build();
}
const bytes teredo_inner = inner("2001::1", "2001:db8::2");
const bytes plain_inner = inner("2001:db8::1", "2001:db8::2");

// Where the search finds the inner packet; the memory ends with the datagram.
std::optional<ptrdiff_t> find(const bytes& udp) {
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[udp.size()]);
    std::memcpy(exact.get(), udp.data(), udp.size());
    const uint8_t* found = zon_teredo_find_inner_packet(exact.get(), udp.size());
    return found != nullptr ? std::optional(found - exact.get()) : std::nullopt;
}

std::optional<ptrdiff_t> find(std::initializer_list<bytes> parts) {
    return find(datagram(some_port, some_port, joined(parts)));
}

// The search stated once more, for memory without an end: whatever is behind the datagram reads as
// zero, and that something was read there is noted.
struct plain_search {
    const bytes& udp;
    bool read_beyond = false;

    uint8_t byte(size_t at) {
        read_beyond = read_beyond || at >= udp.size();
        return at < udp.size() ? udp[at] : 0;
    }
    uint32_t word(size_t at, size_t length) {
        uint32_t value = 0;
        for (size_t i = 0; i < length; ++i)
            value = value << 8 | byte(at + i);
        return value;
    }
    bool is_teredo_address(size_t at) { return word(at, 4) == 0x20010000 || byte(at) == 0xFE; }
    bool is_inner(size_t at) {
        return byte(at) >> 4 == 6 && (is_teredo_address(at + 8) || is_teredo_address(at + 24));
    }
    std::optional<ptrdiff_t> find() {
        if (byte(8) >> 4 == 6 && (word(0, 2) == 3544 || word(2, 2) == 3544))
            return 8;
        if (is_inner(8))
            return 8;
        bool authenticated = false;
        uint8_t at = 8;
        for (int step = 0; step < 2000; ++step) {
            const uint32_t type = word(at, 2);
            if (type > 1 || (type == 1 && authenticated))
                return std::nullopt;
            authenticated = authenticated || type == 1;
            at = static_cast<uint8_t>(at + (type == 0 ? 8 : 13 + byte(at + 2U) + byte(at + 3U)));
            if (is_inner(at))
                return at;
        }
        return std::nullopt;
    }
};

}  // namespace

TEST(teredo_search, takes_any_ipv6_packet_on_the_teredo_port) {
    EXPECT_EQ(find(datagram(3544, some_port, plain_inner)), 8);
    EXPECT_EQ(find(datagram(some_port, 3544, plain_inner)), 8);
}

TEST(teredo_search, wants_a_teredo_address_on_other_ports) {
    EXPECT_EQ(find({plain_inner}), std::nullopt);
    EXPECT_EQ(find({teredo_inner}), 8);
    EXPECT_EQ(find({inner("2001:db8::1", "2001::5")}), 8);
    EXPECT_EQ(find({inner("fe80::1", "2001:db8::2")}), 8);
    EXPECT_EQ(find({inner("2001:db8::1", "fe80::ffff")}), 8);
}

TEST(teredo_search, wants_version_6) {
    bytes other = teredo_inner;
    put8(other, 0, 0x45);
    EXPECT_EQ(find(datagram(3544, 3544, other)), std::nullopt);
}

TEST(teredo_search, steps_over_an_origin_indication) {
    EXPECT_EQ(find({teredo_origin(1234, "192.0.2.9"), teredo_inner}), 16);
}

TEST(teredo_search, steps_over_an_authentication_with_its_client_id_and_value) {
    EXPECT_EQ(find({teredo_authentication(), teredo_inner}), 8 + 13);
    EXPECT_EQ(find({teredo_authentication(5, 7), teredo_inner}), 8 + 13 + 12);
}

TEST(teredo_search, steps_over_an_authentication_and_an_origin_indication) {
    EXPECT_EQ(find({teredo_authentication(2, 0), teredo_origin(), teredo_inner}), 8 + 15 + 8);
    EXPECT_EQ(find({teredo_origin(), teredo_authentication(), teredo_inner}), 8 + 8 + 13);
}

TEST(teredo_search, ends_at_a_second_authentication) {
    EXPECT_EQ(find({teredo_authentication(), teredo_authentication(), teredo_inner}), std::nullopt);
}

TEST(teredo_search, ends_at_an_unknown_indicator) {
    EXPECT_EQ(find({bytes{0, 2, 0, 0, 0, 0, 0, 0}, teredo_inner}), std::nullopt);
}

TEST(teredo_search, wants_a_teredo_address_behind_indicators_on_the_teredo_port_too) {
    EXPECT_EQ(find(datagram(3544, 3544, joined({teredo_origin(), plain_inner}))), std::nullopt);
}

TEST(teredo_search, finds_nothing_in_a_datagram_without_payload) {
    EXPECT_EQ(find(datagram(3544, 3544, {})), std::nullopt);
}

TEST(teredo_search, is_no_teredo_when_the_next_byte_is_missing) {
    const bytes whole =
        datagram(some_port, some_port, joined({teredo_authentication(3, 4), teredo_inner}));
    const size_t source_ends = 8 + 20 + 12;
    for (size_t size = 8; size <= whole.size(); ++size)
        EXPECT_EQ(
            find(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))).has_value(),
            size >= source_ends)
            << size << " bytes";
}

// Offsets have eight bits: zeros lead back to the UDP header, whose source port 0 reads as a
// further indication.
TEST(teredo_search, ends_in_a_datagram_of_zeros_from_port_0) {
    EXPECT_EQ(find(datagram(0, some_port, bytes(248))), std::nullopt);
    EXPECT_EQ(find(datagram(0, 0, bytes(1000))), std::nullopt);
}

TEST(teredo_search, ends_when_an_authentication_shifts_the_circle) {
    for (size_t payload = 245; payload <= 247; ++payload) {
        bytes content(payload);
        content[1] = 1;
        content[2] = 6;  // from offset 8 to 27: 3 modulo 8
        EXPECT_EQ(find(datagram(some_port, 0x0100, content)), std::nullopt);
        content.resize(1000);
        bytes longer = datagram(some_port, 0x0100, content);
        put16(longer, 4, static_cast<uint16_t>(8 + payload));
        EXPECT_EQ(find(longer), std::nullopt);
    }
}

TEST(teredo_search, wraps_its_offset_at_256) {
    // 13 + 255 + 244 = 512: the authentication leads back to offset 8, where its own type reads as
    // a second one.
    EXPECT_EQ(find({bytes{0, 1, 255, 244}, bytes(600)}), std::nullopt);
    // 13 + 255 + 4 = 272, that is 16 further.
    bytes content{0, 1, 255, 4};
    content.resize(16);
    EXPECT_EQ(find({content, teredo_inner}), 24);
}

TEST(teredo_search, agrees_with_the_plain_statement_on_random_datagrams) {
    std::mt19937 random(20240601);
    const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random()) % limit; };
    unsigned found = 0;
    for (int round = 0; round < 50000; ++round) {
        bytes content;
        for (uint32_t parts = below(4); parts > 0; --parts) {
            bytes part = below(2) == 0 ? teredo_origin()
                                       : teredo_authentication(
                                             static_cast<uint8_t>(below(4) == 0 ? below(256) : 0),
                                             static_cast<uint8_t>(below(4) == 0 ? below(256) : 0));
            content.insert(content.end(), part.begin(), part.end());
        }
        const bytes& tail = below(4) == 0 ? plain_inner : teredo_inner;
        content.insert(content.end(), tail.begin(), tail.end());
        if (below(3) == 0)
            content.insert(content.end(), below(300), 0);
        for (uint32_t flips = below(3); flips > 0; --flips)
            content[below(static_cast<uint32_t>(content.size()))] = static_cast<uint8_t>(random());
        bytes udp =
            datagram(static_cast<uint16_t>(below(8) == 0 ? 3544 : below(3)), some_port, content);
        udp.resize(8 + below(static_cast<uint32_t>(udp.size())));
        const auto mine = find(udp);
        plain_search plain{udp};
        const auto expected = plain.find();
        ASSERT_EQ(mine, plain.read_beyond ? std::nullopt : expected) << to_hex(udp);
        found += mine.has_value();
    }
    EXPECT_GT(found, 2500u);
}

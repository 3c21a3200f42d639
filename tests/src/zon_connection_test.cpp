// zon_connection_test.cpp - a connection is the same whichever end it is seen from, and differs
// from every other one.

#include "zon_connection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// One direction of a connection, as a packet shows it.
template <class family>
struct direction {
    typename family::key key{};

    connection<family> seen() const {
        return connection_of(key.src_ip, key.dst_ip, static_cast<uint16_t>(key.src_port),
                             static_cast<uint16_t>(key.dst_port),
                             static_cast<uint8_t>(key.l4_protocol), key.vrf_id);
    }
    direction reversed() const {
        direction other = *this;
        std::memcpy(&other.key.src_ip, &key.dst_ip, sizeof key.src_ip);
        std::memcpy(&other.key.dst_ip, &key.src_ip, sizeof key.dst_ip);
        std::swap(other.key.src_port, other.key.dst_port);
        return other;
    }
    uint32_t* source_words() {
        if constexpr (family::address_words == 1)
            return &key.src_ip;
        else
            return key.src_ip;
    }
    uint32_t* destination_words() {
        if constexpr (family::address_words == 1)
            return &key.dst_ip;
        else
            return key.dst_ip;
    }
    void set_addresses(std::mt19937& random) {
        // Every other pair differs in one bit only.
        for (size_t i = 0; i < family::address_words; ++i)
            source_words()[i] = destination_words()[i] = static_cast<uint32_t>(random());
        if (random() % 2 == 0)
            destination_words()[random() % family::address_words] ^= 1U << random() % 32;
        else
            for (size_t i = 0; i < family::address_words; ++i)
                destination_words()[i] = static_cast<uint32_t>(random());
    }
    static direction random_one(std::mt19937& random) {
        direction made;
        made.set_addresses(random);
        made.key.src_port = random() % 0x10000;
        made.key.dst_port = random() % 4 == 0 ? made.key.src_port : random() % 0x10000;
        made.key.l4_protocol = random() % 256;
        made.key.vrf_id = static_cast<uint32_t>(random());
        return made;
    }
};

template <class family>
std::vector<uint64_t> words_of(const connection<family>& of) {
    return {std::begin(of.words), std::end(of.words)};
}

template <class family>
class connection_words_of : public ::testing::Test {
protected:
    std::mt19937 random{5};
};
using families = ::testing::Types<ipv4_family, ipv6_family>;

struct family_names {
    template <class family>
    static std::string GetName(int) {
        return std::is_same_v<family, ipv4_family> ? "ipv4" : "ipv6";
    }
};
TYPED_TEST_SUITE(connection_words_of, families, family_names);

}  // namespace

TYPED_TEST(connection_words_of, both_directions_are_equal_and_only_one_comes_from_the_lower_end) {
    for (int i = 0; i < 20000; ++i) {
        const auto forth = direction<TypeParam>::random_one(this->random);
        const connection<TypeParam> one = forth.seen();
        const connection<TypeParam> other = forth.reversed().seen();
        ASSERT_EQ(words_of(one), words_of(other)) << "connection " << i;
        ASSERT_NE(one.from_lower, other.from_lower) << "connection " << i;
        ASSERT_FALSE(one.same_address);
        ASSERT_FALSE(other.same_address);
    }
}

TYPED_TEST(connection_words_of, a_key_are_those_of_its_packets) {
    for (int i = 0; i < 1000; ++i) {
        const auto forth = direction<TypeParam>::random_one(this->random);
        const connection<TypeParam> by_key = connection_of<TypeParam>(forth.key);
        ASSERT_EQ(words_of(by_key), words_of(forth.seen()));
        ASSERT_EQ(by_key.from_lower, forth.seen().from_lower);
    }
}

TYPED_TEST(connection_words_of, one_address_differ_by_port_and_are_marked) {
    auto forth = direction<TypeParam>::random_one(this->random);
    std::memcpy(&forth.key.dst_ip, &forth.key.src_ip, sizeof forth.key.src_ip);
    forth.key.src_port = 80;
    forth.key.dst_port = 81;
    const connection<TypeParam> one = forth.seen();
    const connection<TypeParam> other = forth.reversed().seen();
    EXPECT_TRUE(one.same_address);
    EXPECT_TRUE(other.same_address);
    EXPECT_TRUE(one.from_lower);
    EXPECT_FALSE(other.from_lower);
    EXPECT_EQ(words_of(one), words_of(other));
}

// Whoever names flows must leave such connections out: nothing tells their directions apart.
TYPED_TEST(connection_words_of, equal_ends_come_from_the_lower_end_in_neither_direction) {
    auto forth = direction<TypeParam>::random_one(this->random);
    std::memcpy(&forth.key.dst_ip, &forth.key.src_ip, sizeof forth.key.src_ip);
    forth.key.dst_port = forth.key.src_port;
    EXPECT_FALSE(forth.seen().from_lower);
    EXPECT_FALSE(forth.reversed().seen().from_lower);
}

TYPED_TEST(connection_words_of, swapped_ports_are_another_connection) {
    auto forth = direction<TypeParam>::random_one(this->random);
    forth.key.src_port = 80;
    forth.key.dst_port = 40000;
    auto crossed = forth;
    std::swap(crossed.key.src_port, crossed.key.dst_port);
    EXPECT_NE(words_of(forth.seen()), words_of(crossed.seen()));
}

// No bit of a packet's identity is lost on the way.
TYPED_TEST(connection_words_of, any_bit_that_differs_make_another_connection) {
    for (int i = 0; i < 200; ++i) {
        const auto forth = direction<TypeParam>::random_one(this->random);
        const auto differs = [&](auto change) {
            auto other = forth;
            change(other.key);
            return words_of(other.seen()) != words_of(forth.seen());
        };
        for (int bit = 0; bit < 32; ++bit) {
            ASSERT_TRUE(differs([bit](auto& key) { key.vrf_id ^= 1U << bit; }))
                << "VRF bit " << bit;
            for (size_t word = 0; word < TypeParam::address_words; ++word) {
                auto other = forth;
                other.source_words()[word] ^= 1U << bit;
                ASSERT_NE(words_of(other.seen()), words_of(forth.seen())) << "address bit " << bit;
            }
        }
        for (int bit = 0; bit < 16; ++bit) {
            ASSERT_TRUE(differs([bit](auto& key) { key.src_port ^= 1U << bit; }));
            ASSERT_TRUE(differs([bit](auto& key) { key.dst_port ^= 1U << bit; }));
        }
        for (int bit = 0; bit < 8; ++bit)
            ASSERT_TRUE(differs([bit](auto& key) { key.l4_protocol ^= 1U << bit; }));
    }
}

TEST(connection_words, tell_the_families_apart) {
    const connection<ipv4_family> four = connection_of(1U, 2U, uint16_t{3}, uint16_t{4}, 6, 0);
    const uint32_t source[4] = {0, 0, 0, 1};
    const uint32_t destination[4] = {0, 0, 0, 2};
    const connection<ipv6_family> six =
        connection_of(source, destination, uint16_t{3}, uint16_t{4}, 6, 0);
    EXPECT_NE(four.words[0] >> 56, six.words[0] >> 56);
}

TEST(connection_words, end_with_the_extremes_of_every_field) {
    const uint32_t top = 0xFFFFFFFF;
    const connection<ipv4_family> four =
        connection_of(0U, top, uint16_t{0xFFFF}, uint16_t{0}, 255, top);
    EXPECT_EQ(four.words[0], 0x04FF'0000'0000'FFFFU);
    EXPECT_EQ(four.words[1], 0x0000'FFFF'FFFF'0000U);
    EXPECT_EQ(four.words[2], 0x0000'0000'FFFF'FFFFU);
    const uint32_t none[4] = {};
    const uint32_t all[4] = {top, top, top, top};
    const connection<ipv6_family> six =
        connection_of(all, none, uint16_t{1}, uint16_t{0xFFFF}, 255, top);
    EXPECT_FALSE(six.from_lower);
    EXPECT_EQ(six.words[0], 0x06FF'0000'0001'FFFFU);
    EXPECT_EQ(six.words[2], 0U);
    EXPECT_EQ(six.words[5], ~uint64_t{0});
}

// The order of two addresses is that of all their words, the first one deciding.
TEST(connection_words, order_addresses_by_their_first_word_that_differs) {
    for (int word = 0; word < 4; ++word) {
        uint32_t low[4] = {7, 7, 7, 7};
        uint32_t high[4] = {7, 7, 7, 7};
        high[word] = 8;
        for (int later = word + 1; later < 4; ++later)
            low[later] = 0xFFFFFFFF;
        EXPECT_TRUE(connection_of(low, high, uint16_t{9}, uint16_t{1}, 6, 0).from_lower)
            << "word " << word;
        EXPECT_FALSE(connection_of(high, low, uint16_t{1}, uint16_t{9}, 6, 0).from_lower)
            << "word " << word;
    }
}

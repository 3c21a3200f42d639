// zon_key_hash_test.cpp - which words of a key are hashed, with what, and which fields must be
// equal for a match.

#include "zon_key_hash.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/key_record.h"
#include "zon_flow_table.h"

namespace {

using zon_test::key_fields;
using zon_test::key_record;
using zon_test::key_type_name;

// ---- the hash function ----

// lookup3 over bytes, one byte at a time, written down from its description: three words, each step
// "x -= z; x ^= z <<< n; z += y" over the columns of a table.
uint32_t rotated(uint32_t word, unsigned bits) {
    return (word << bits) | (word >> (32 - bits));
}

uint32_t reference_lookup3(const std::vector<uint8_t>& message, uint32_t initial_value) {
    uint32_t s[3];
    for (uint32_t& word : s)
        word = 0xdeadbeef + static_cast<uint32_t>(message.size()) + initial_value;
    size_t at = 0;
    const auto add_bytes = [&](size_t count) {
        for (size_t i = 0; i < count; ++i)
            s[i / 4] += static_cast<uint32_t>(message[at + i]) << (8 * (i % 4));
        at += count;
    };
    while (message.size() - at > 12) {
        add_bytes(12);
        static constexpr unsigned mix_rotations[] = {4, 6, 8, 16, 19, 4};
        for (size_t step = 0; step < 6; ++step) {
            uint32_t& x = s[step % 3];
            uint32_t& y = s[(step + 1) % 3];
            uint32_t& z = s[(step + 2) % 3];
            x -= z;
            x ^= rotated(z, mix_rotations[step]);
            z += y;
        }
    }
    if (at == message.size())
        return s[2];
    add_bytes(message.size() - at);
    static constexpr unsigned final_rotations[] = {14, 11, 25, 16, 4, 14, 24};
    for (size_t step = 0; step < 7; ++step) {
        uint32_t& x = s[(step + 2) % 3];
        const uint32_t y = s[(step + 1) % 3];
        x ^= y;
        x -= rotated(y, final_rotations[step]);
    }
    return s[2];
}

std::vector<uint8_t> bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

// The values that the author of the algorithm gives for his function over bytes.
TEST(lookup3_reference, gives_the_published_values) {
    EXPECT_EQ(reference_lookup3({}, 0), 0xdeadbeefU);
    EXPECT_EQ(reference_lookup3({}, 0xdeadbeef), 0xbd5b7ddeU);
    EXPECT_EQ(reference_lookup3(bytes_of("Four score and seven years ago"), 0), 0x17770551U);
    EXPECT_EQ(reference_lookup3(bytes_of("Four score and seven years ago"), 1), 0xcd628161U);
}

// Over whole little-endian words the two functions of the algorithm agree.
TEST(lookup3, agrees_with_the_reference_over_bytes_for_every_length_of_words) {
    std::mt19937 random(99);
    for (size_t length = 0; length <= 40; ++length) {
        for (int round = 0; round < 50; ++round) {
            std::vector<uint32_t> words(length);
            std::vector<uint8_t> message;
            for (uint32_t& word : words) {
                word = static_cast<uint32_t>(random());
                for (int shift = 0; shift < 32; shift += 8)
                    message.push_back(static_cast<uint8_t>(word >> shift));
            }
            ASSERT_EQ(jenkins_hashword_2006(words.data(), length), reference_lookup3(message, 0));
            ASSERT_EQ(jenkins_hashword_2006(words.data(), length, 77),
                      reference_lookup3(message, 77))
                << length << " words";
        }
    }
}

TEST(lookup3, of_no_words_is_the_start_value_without_a_final_step) {
    EXPECT_EQ(jenkins_hashword_2006(nullptr, 0), 0xdeadbeefU);
}

// ---- which words of a key are hashed ----

struct hash_row {
    uint32_t type;
    bool source;
    bool destination;
};
constexpr hash_row hash_rows[] = {
    {ZON_IPV4_KEY_COMPLETE, true, true},          {ZON_IPV4_KEY_DST_IP_PORT_ONLY, false, true},
    {ZON_IPV4_KEY_SRC_IP_PORT_ONLY, true, false}, {ZON_IPV4_KEY_PRE_FLOW_COMPLETE, true, true},
    {ZON_IPV4_KEY_VRF_STAR, true, true},          {ZON_IPV6_KEY_COMPLETE, true, true},
    {ZON_IPV6_KEY_DST_IP_PORT_ONLY, false, true}, {ZON_IPV6_KEY_SRC_IP_PORT_ONLY, true, false},
    {ZON_IPV6_KEY_PRE_FLOW_COMPLETE, true, true}, {ZON_IPV6_KEY_VRF_STAR, true, true}};
void PrintTo(const hash_row& row, std::ostream* os) {
    *os << key_type_name(row.type);
}

class hashed_words : public ::testing::TestWithParam<hash_row> {
protected:
    key_fields fields() const {
        key_fields of_type;
        of_type.type = GetParam().type;
        return of_type;
    }
    static uint32_t hash(const key_fields& of) {
        key_record record(of);
        return zon_hash_calc(record.half(), nullptr);
    }
    size_t address_words() const { return GetParam().type < 5 ? 1 : 4; }
};

TEST_P(hashed_words, are_the_known_addresses_and_ports_in_the_order_of_the_key) {
    const key_fields key = fields();
    std::vector<uint32_t> words;
    if (GetParam().source) {
        words.insert(words.end(), key.src_ip.begin(),
                     key.src_ip.begin() + static_cast<long>(address_words()));
        words.push_back(key.src_port);
    }
    if (GetParam().destination) {
        words.insert(words.end(), key.dst_ip.begin(),
                     key.dst_ip.begin() + static_cast<long>(address_words()));
        words.push_back(key.dst_port);
    }
    EXPECT_EQ(hash(key), jenkins_hashword_2006(words.data(), words.size()));
}

TEST_P(hashed_words, leave_out_protocol_and_vrf_and_what_the_type_does_not_know) {
    const uint32_t before = hash(fields());
    const auto hash_with = [&](auto change) {
        key_fields changed = fields();
        change(changed);
        return hash(changed);
    };
    EXPECT_EQ(hash_with([](key_fields& key) { key.protocol = 17; }), before);
    EXPECT_EQ(hash_with([](key_fields& key) { key.vrf_id = 9; }), before);
    for (size_t word = 0; word < address_words(); ++word) {
        EXPECT_EQ(hash_with([word](key_fields& key) { ++key.src_ip[word]; }) != before,
                  GetParam().source);
        EXPECT_EQ(hash_with([word](key_fields& key) { ++key.dst_ip[word]; }) != before,
                  GetParam().destination);
    }
    EXPECT_EQ(hash_with([](key_fields& key) { ++key.src_port; }) != before, GetParam().source);
    EXPECT_EQ(hash_with([](key_fields& key) { ++key.dst_port; }) != before, GetParam().destination);
}

TEST_P(hashed_words, take_ports_as_whole_words) {
    key_fields wide = fields();
    wide.src_port += 0x10000;
    wide.dst_port += 0x10000;
    EXPECT_NE(hash(wide), hash(fields()));
}

INSTANTIATE_TEST_SUITE_P(key_types, hashed_words, ::testing::ValuesIn(hash_rows),
                         [](const auto& row) { return key_type_name(row.param.type); });

TEST(key_hash, is_the_supplied_one_when_it_is_marked_valid) {
    key_record record;
    record.key().hash_value = 0x12345678;
    record.key().hash_valid = 1;
    EXPECT_EQ(zon_hash_calc(record.half(), nullptr), 0x12345678U);
}

TEST(key_hash, is_computed_when_the_mark_is_anything_but_one) {
    key_record record;
    const uint32_t computed = zon_hash_calc(record.half(), nullptr);
    record.key().hash_value = ~computed;
    for (const uint32_t mark : {0U, 2U, 0xFFFFFFFFU}) {
        record.key().hash_valid = mark;
        EXPECT_EQ(zon_hash_calc(record.half(), nullptr), computed) << "mark " << mark;
    }
}

TEST(key_hash, never_writes_what_it_computed_into_the_key) {
    key_record record;
    zon_hash_calc(record.half(), nullptr);
    EXPECT_EQ(record.key().hash_value, 0U);
    EXPECT_EQ(record.key().hash_valid, 0U);
}

TEST(key_hash, is_taken_as_supplied_even_for_a_key_type_outside_the_table) {
    key_record record;
    record.key().key_type = ZON_MAX_KEY;
    record.key().hash_value = 7;
    record.key().hash_valid = 1;
    EXPECT_EQ(zon_hash_calc(record.half(), nullptr), 7U);
}

TEST(key_hash_DeathTest, of_a_key_type_outside_the_table_stops_the_program) {
    key_record record;
    record.key().key_type = ZON_MAX_KEY;
    EXPECT_DEATH(zon_hash_calc(record.half(), nullptr), "zon_hash_func_ipv6: Assertion `0' failed");
}

// ---- which fields must be equal ----

struct match_row {
    uint32_t type;
    bool source;
    bool destination;
    bool protocol;
    bool vrf;
};
constexpr match_row match_rows[] = {{ZON_IPV4_KEY_COMPLETE, true, true, true, true},
                                    {ZON_IPV4_KEY_DST_IP_PORT_ONLY, false, true, false, false},
                                    {ZON_IPV4_KEY_SRC_IP_PORT_ONLY, true, false, false, false},
                                    {ZON_IPV4_KEY_PRE_FLOW_COMPLETE, true, true, true, true},
                                    {ZON_IPV4_KEY_VRF_STAR, true, true, true, false},
                                    {ZON_IPV6_KEY_COMPLETE, true, true, true, true},
                                    {ZON_IPV6_KEY_DST_IP_PORT_ONLY, false, true, false, false},
                                    {ZON_IPV6_KEY_SRC_IP_PORT_ONLY, true, false, false, false},
                                    {ZON_IPV6_KEY_PRE_FLOW_COMPLETE, true, true, true, true},
                                    {ZON_IPV6_KEY_VRF_STAR, true, true, true, false}};
void PrintTo(const match_row& row, std::ostream* os) {
    *os << key_type_name(row.type);
}

class matched_fields : public ::testing::TestWithParam<match_row> {
protected:
    // Whether a stored key with one change answers to the unchanged one, and the other way round.
    template <class change>
    bool matches_after(change apply) const {
        key_fields fields;
        fields.type = GetParam().type;
        key_record wanted(fields);
        apply(fields);
        key_record stored(fields);
        const bool there = zon_matcher(wanted.half(), stored.half(), nullptr);
        EXPECT_EQ(zon_matcher(stored.half(), wanted.half(), nullptr), there);
        return there;
    }
    size_t address_words() const { return GetParam().type < 5 ? 1 : 4; }
};

TEST_P(matched_fields, are_those_that_the_type_knows) {
    EXPECT_TRUE(matches_after([](key_fields&) {}));
    for (size_t word = 0; word < address_words(); ++word) {
        EXPECT_EQ(matches_after([word](key_fields& key) { key.src_ip[word] ^= 1; }),
                  !GetParam().source)
            << "source word " << word;
        EXPECT_EQ(matches_after([word](key_fields& key) { key.dst_ip[word] ^= 0x80000000; }),
                  !GetParam().destination)
            << "destination word " << word;
    }
    EXPECT_EQ(matches_after([](key_fields& key) { ++key.src_port; }), !GetParam().source);
    EXPECT_EQ(matches_after([](key_fields& key) { ++key.dst_port; }), !GetParam().destination);
    EXPECT_EQ(matches_after([](key_fields& key) { key.protocol = 17; }), !GetParam().protocol);
    EXPECT_EQ(matches_after([](key_fields& key) { ++key.vrf_id; }), !GetParam().vrf);
}

TEST_P(matched_fields, are_not_looked_at_when_the_types_differ) {
    for (uint32_t other = 0; other < ZON_MAX_KEY; ++other)
        EXPECT_EQ(matches_after([other](key_fields& key) { key.type = other; }),
                  other == GetParam().type)
            << key_type_name(other);
}

TEST_P(matched_fields, do_not_include_the_hash) {
    key_fields fields;
    fields.type = GetParam().type;
    key_record wanted(fields);
    key_record stored(fields);
    stored.key().hash_valid = 1;
    stored.key().hash_value = 3;
    EXPECT_TRUE(zon_matcher(wanted.half(), stored.half(), nullptr));
}

INSTANTIATE_TEST_SUITE_P(key_types, matched_fields, ::testing::ValuesIn(match_rows),
                         [](const auto& row) { return key_type_name(row.param.type); });

TEST(key_match, of_a_type_outside_the_table_is_false_and_traced_only_when_the_engine_is) {
    key_record a;
    key_record b;
    a.key().key_type = b.key().key_type = ZON_MAX_KEY;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(zon_matcher(a.half(), b.half(), nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    for (bool* flag : {&zon_debug_flag_engine, &zon_debug_flag_all}) {
        *flag = true;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(zon_matcher(a.half(), b.half(), nullptr));
        EXPECT_NE(testing::internal::GetCapturedStderr().find("\nZON Engine: Unknown key type 10"),
                  std::string::npos);
        *flag = false;
    }
}

}  // namespace

// zon_flow_defs_test.cpp - keys: built, reversed and copied.

#include "zon_flow_defs.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/key_record.h"

namespace {

using zon_test::key_fields;
using zon_test::key_record;
using zon_test::key_type_name;

// ---- key types ----

struct type_row {
    uint32_t type;
    uint32_t value;
    bool ipv4;
    bool announced;
    uint32_t reversed;
};
constexpr type_row type_rows[] = {{ZON_IPV4_KEY_COMPLETE, 0, true, false, 0},
                                  {ZON_IPV4_KEY_DST_IP_PORT_ONLY, 1, true, true, 2},
                                  {ZON_IPV4_KEY_SRC_IP_PORT_ONLY, 2, true, true, 1},
                                  {ZON_IPV4_KEY_PRE_FLOW_COMPLETE, 3, true, true, 3},
                                  {ZON_IPV4_KEY_VRF_STAR, 4, true, true, 4},
                                  {ZON_IPV6_KEY_COMPLETE, 5, false, false, 5},
                                  {ZON_IPV6_KEY_DST_IP_PORT_ONLY, 6, false, true, 7},
                                  {ZON_IPV6_KEY_SRC_IP_PORT_ONLY, 7, false, true, 6},
                                  {ZON_IPV6_KEY_PRE_FLOW_COMPLETE, 8, false, true, 8},
                                  {ZON_IPV6_KEY_VRF_STAR, 9, false, true, 9}};
void PrintTo(const type_row& row, std::ostream* os) {
    *os << key_type_name(row.type);
}

class key_type : public ::testing::TestWithParam<type_row> {
protected:
    key_fields fields() const {
        key_fields of_type;
        of_type.type = GetParam().type;
        of_type.vrf_id = 77;
        return of_type;
    }
};

TEST_P(key_type, has_its_value_and_family) {
    EXPECT_EQ(GetParam().type, GetParam().value);
    EXPECT_EQ(zon_key_is_ipv4(GetParam().type), GetParam().ipv4);
    EXPECT_EQ(zon_key_is_preflow(GetParam().type), GetParam().announced);
    EXPECT_TRUE(zon_key_type_is_valid(GetParam().type));
}

TEST_P(key_type, is_reversed_with_addresses_and_ports_and_nothing_else) {
    key_record swapped(fields());
    swapped.key().hash_value = 0xABCD;
    swapped.key().hash_valid = 1;
    zon_swap_key(&swapped.key());

    key_fields expected = fields();
    std::swap(expected.src_ip, expected.dst_ip);
    std::swap(expected.src_port, expected.dst_port);
    expected.type = GetParam().reversed;
    key_record wanted(expected);
    wanted.key().hash_value = 0xABCD;
    wanted.key().hash_valid = 1;
    EXPECT_EQ(std::memcmp(swapped.half(), wanted.half(), sizeof(zon_ipv6_half_flow_t)), 0);
}

TEST_P(key_type, is_the_first_key_again_after_two_reversals) {
    key_record twice(fields());
    zon_swap_key(&twice.key());
    zon_swap_key(&twice.key());
    key_record once(fields());
    EXPECT_EQ(std::memcmp(twice.half(), once.half(), sizeof(zon_ipv6_half_flow_t)), 0);
}

TEST_P(key_type, loses_the_high_bits_of_the_old_source_port_only) {
    key_fields wide = fields();
    wide.src_port = 0x12345678;
    wide.dst_port = 0x9ABCDEF0;
    key_record record(wide);
    zon_swap_key(&record.key());
    const uint32_t source = GetParam().ipv4 ? record.ipv4().src_port : record.ipv6().src_port;
    const uint32_t destination = GetParam().ipv4 ? record.ipv4().dst_port : record.ipv6().dst_port;
    EXPECT_EQ(source, 0x9ABCDEF0U);
    EXPECT_EQ(destination, 0x5678U);
}

TEST_P(key_type, is_copied_whole_by_the_family_of_the_source) {
    key_record source(fields());
    source.key().hash_value = 5;
    source.key().hash_valid = 1;
    // The destination's own type does not matter; what lies behind an IPv4 key stays.
    zon_ipv6_half_flow_t target;
    std::memset(static_cast<void*>(&target), 0xEE, sizeof target);
    auto* half = reinterpret_cast<zon_half_flow_t*>(&target);
    zon_copy_key(&half->key, &source.key());
    const size_t size = GetParam().ipv4 ? sizeof(zon_ipv4_key_t) : sizeof(zon_ipv6_key_t);
    EXPECT_EQ(std::memcmp(&half->key, &source.key(), size), 0);
    const auto* behind = reinterpret_cast<const uint8_t*>(&half->key) + size;
    const auto* end = reinterpret_cast<const uint8_t*>(&target + 1);
    for (; behind != end; ++behind)
        ASSERT_EQ(*behind, 0xEE);
}

INSTANTIATE_TEST_SUITE_P(rows, key_type, ::testing::ValuesIn(type_rows),
                         [](const auto& row) { return key_type_name(row.param.type); });

TEST(key_type_table, ends_at_ten) {
    EXPECT_EQ(ZON_MAX_KEY, 10);
    EXPECT_EQ(ZON_IPV4_FIRST_KEY, ZON_IPV4_KEY_COMPLETE);
    EXPECT_EQ(ZON_IPV4_LAST_KEY, ZON_IPV4_KEY_VRF_STAR);
    EXPECT_EQ(ZON_IPV6_FIRST_KEY, ZON_IPV6_KEY_COMPLETE);
    EXPECT_EQ(ZON_IPV6_LAST_KEY, ZON_IPV6_KEY_VRF_STAR);
    EXPECT_FALSE(zon_key_type_is_valid(ZON_MAX_KEY));
    EXPECT_FALSE(zon_key_is_preflow(ZON_MAX_KEY));
}

TEST(key, of_a_type_above_the_table_is_neither_reversed_nor_copied) {
    key_record record;
    record.key().key_type = ZON_MAX_KEY;
    key_record before = record;
    zon_swap_key(&record.key());
    EXPECT_EQ(std::memcmp(record.half(), before.half(), sizeof(zon_ipv6_half_flow_t)), 0);

    key_fields other;
    other.src_port = 1;
    key_record target(other);
    key_record target_before = target;
    zon_copy_key(&target.key(), &record.key());
    EXPECT_EQ(std::memcmp(target.half(), target_before.half(), sizeof(zon_ipv6_half_flow_t)), 0);
}

// ---- builders ----

TEST(ipv4_key, takes_every_field_and_forgets_an_old_hash) {
    zon_ipv4_key_t key;
    std::memset(&key, 0xFF, sizeof key);
    zon_set_key_ipv4(&key, ZON_IPV4_KEY_VRF_STAR, 0x0A000001, 0x0A000002, 40000, 80, 6, 0x12345678);
    EXPECT_EQ(key.key_type, 4U);
    EXPECT_EQ(key.l4_protocol, 6U);
    EXPECT_EQ(key.hash_value, 0U);
    EXPECT_EQ(key.hash_valid, 0U);
    EXPECT_EQ(key.vrf_id, 0x12345678U);
    EXPECT_EQ(key.src_ip, 0x0A000001U);
    EXPECT_EQ(key.src_port, 40000U);
    EXPECT_EQ(key.dst_ip, 0x0A000002U);
    EXPECT_EQ(key.dst_port, 80U);
}

TEST(ipv6_key, takes_every_field_from_addresses_at_any_place_and_forgets_an_old_hash) {
    const uint32_t source[4] = {1, 2, 3, 4};
    const uint32_t destination[4] = {5, 6, 7, 8};
    uint8_t unaligned[33];
    std::memcpy(unaligned + 1, source, 16);
    std::memcpy(unaligned + 17, destination, 16);
    zon_ipv6_key_t key;
    std::memset(&key, 0xFF, sizeof key);
    zon_set_key_ipv6(&key, ZON_IPV6_KEY_COMPLETE, unaligned + 1, unaligned + 17, 1000, 53, 17, 3);
    EXPECT_EQ(key.key_type, 5U);
    EXPECT_EQ(key.l4_protocol, 17U);
    EXPECT_EQ(key.hash_value, 0U);
    EXPECT_EQ(key.hash_valid, 0U);
    EXPECT_EQ(key.vrf_id, 3U);
    EXPECT_EQ(std::memcmp(key.src_ip, source, 16), 0);
    EXPECT_EQ(key.src_port, 1000U);
    EXPECT_EQ(std::memcmp(key.dst_ip, destination, 16), 0);
    EXPECT_EQ(key.dst_port, 53U);
}

TEST(ipv4_key, takes_the_low_byte_of_a_key_type) {
    zon_ipv4_key_t key;
    const unsigned too_wide = 256;
    zon_set_key_ipv4(&key, static_cast<uint8_t>(too_wide), 1, 2, 3, 4, 6, 0);
    EXPECT_EQ(key.key_type, 0U);
}

TEST(ipv4_key_DeathTest, of_an_ipv6_type_stops_the_program) {
    zon_ipv4_key_t key;
    EXPECT_DEATH(zon_set_key_ipv4(&key, ZON_IPV6_KEY_COMPLETE, 1, 2, 3, 4, 6, 0),
                 "Assertion `\\(key_type <= ZON_IPV4_LAST_KEY\\)' failed");
}

TEST(ipv6_key_DeathTest, of_a_type_outside_its_family_stops_the_program) {
    zon_ipv6_key_t key;
    const uint32_t address[4] = {};
    for (const uint8_t type : {uint8_t{4}, uint8_t{10}})
        EXPECT_DEATH(zon_set_key_ipv6(&key, type, address, address, 1, 2, 6, 0),
                     "Assertion `\\(key_type >= ZON_IPV6_FIRST_KEY\\) && \\(key_type <= "
                     "ZON_IPV6_LAST_KEY\\)' failed");
}

}  // namespace

// bypass_rule_test.cpp - the count that lives in a flow's bypass bits.
#include "flows/bypass_rule.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

using namespace zonflow;

// The identifier after packets with these payloads.
uint32_t id_after(std::initializer_list<uint32_t> payloads, uint32_t limit) {
    uint32_t bits = 0;  // as the engine makes a flow
    for (const uint32_t payload : payloads) {
        bits = bypass_bits_after(bits, payload, limit);
    }
    return bypass_id_of(bits);
}

TEST(bypass_rule, gives_no_identifier_before_the_limit) {
    EXPECT_EQ(id_after({}, 1), 0u);
    EXPECT_EQ(id_after({0, 0}, 1), 0u);
    EXPECT_EQ(id_after({1, 0, 98}, 100), 0u);
}

TEST(bypass_rule, gives_the_identifier_at_the_limit_and_keeps_it) {
    EXPECT_EQ(id_after({1}, 1), bypassed_flow);
    EXPECT_EQ(id_after({1, 0, 99}, 100), bypassed_flow);
    EXPECT_EQ(id_after({1000, 0, 0}, 100), bypassed_flow);
    EXPECT_EQ(id_after({100, 0, 7}, 100), bypassed_flow);
}

TEST(bypass_rule, counts_up_to_the_largest_limit_without_running_over) {
    constexpr uint32_t most = most_bypass_after_bytes;
    EXPECT_EQ(id_after({most - 1}, most), 0u);
    EXPECT_EQ(id_after({most - 1, 1}, most), bypassed_flow);
    EXPECT_EQ(id_after({most - 1, UINT32_MAX}, most), bypassed_flow);
}

TEST(bypass_rule, tells_one_byte_seen_from_a_bypassed_flow) {
    const uint32_t bits = bypass_bits_after(0, 1, 2);
    EXPECT_NE(bits, bypassed_flow);
    EXPECT_EQ(bypass_id_of(bits), 0u);
}

}  // namespace

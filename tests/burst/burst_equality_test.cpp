// burst_equality_test.cpp - a burst does what its packets do one by one: every result, indication,
// call of a client, counter and flow is the same.
//
// The short form hands in some 200000 packets. The environment may ask for others:
// ZON_BURST_SCRIPTS for the number of scripts (of some 4000 packets each), ZON_BURST_SEED for the
// first one's seed.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "burst/burst_run.h"
#include "support/environment.h"

namespace {

using namespace zon_test;

constexpr uint32_t steps_of_a_script = 100;
constexpr uint32_t scripts_of_the_short_form = 52;

struct life {
    std::vector<step_outcome> steps;
    reached_by_bursts reached;
};

life live(uint32_t seed, handed_in how) {
    life lived;
    burst_run run(seed, how);
    for (uint32_t step = 0; step < steps_of_a_script; ++step)
        lived.steps.push_back(run.step());
    lived.steps.push_back(run.finish());
    lived.reached = run.reached;
    return lived;
}

void add(reached_by_bursts& to, const reached_by_bursts& more) {
    auto* sums = reinterpret_cast<size_t*>(&to);
    const auto* values = reinterpret_cast<const size_t*>(&more);
    for (size_t i = 0; i < sizeof to / sizeof *sums; ++i)
        sums[i] += values[i];
}

void expect_that_the_comparison_was_worth_it(const reached_by_bursts& reached) {
    EXPECT_GE(reached.packets, 180000U);
    EXPECT_GE(reached.with_flow, reached.packets / 3);
    EXPECT_GE(reached.first, 8000U);
    EXPECT_GE(reached.first_met_again_in_burst, 2000U);
    EXPECT_GE(reached.refused, 3000U);
    EXPECT_GE(reached.promoted, 60U);
    EXPECT_GE(reached.vetoed, 400U);
    EXPECT_GE(reached.fragments, 1000U);
    EXPECT_GE(reached.tunnelled, 500U);
    EXPECT_GE(reached.checked_sequences, 4000U);
    EXPECT_GE(reached.out_of_memory, 500U);
    EXPECT_GE(reached.nested, 300U);
    EXPECT_GE(reached.deletions, 5000U);
    EXPECT_GE(reached.acts, 4000U);
    EXPECT_GE(reached.dumps, 10U);
}

}  // namespace

TEST(bursts, do_exactly_what_their_packets_do_one_by_one) {
    const uint32_t first_seed = from_environment("ZON_BURST_SEED", 1);
    const uint32_t scripts = from_environment("ZON_BURST_SCRIPTS", scripts_of_the_short_form);
    reached_by_bursts reached;
    for (uint32_t seed = first_seed; seed - first_seed < scripts; ++seed) {
        const life singly = live(seed, handed_in::singly);
        const life in_bursts = live(seed, handed_in::in_bursts);
        for (size_t step = 0; step < singly.steps.size(); ++step)
            ASSERT_EQ(difference_of(singly.steps[step], in_bursts.steps[step]), "")
                << "seed " << seed << ", step " << step;
        add(reached, in_bursts.reached);
    }
    RecordProperty("packets", std::to_string(reached.packets));
    if (scripts >= scripts_of_the_short_form)
        expect_that_the_comparison_was_worth_it(reached);
}

// Without an array, packets or an engine a burst says what single packets are told.
TEST(bursts, of_nothing_have_no_flows) {
    EXPECT_EQ(zon_handle_packet_burst(nullptr, 3), 0U);
    zon_burst_packet_t untouched{};
    untouched.fid = 7;
    EXPECT_EQ(zon_handle_packet_burst(&untouched, 0), 0U);
    EXPECT_EQ(untouched.fid, 7U);
}

TEST(bursts, without_an_engine_are_told_so) {
    bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).build();
    zon_pkt_indications_t seen{};
    std::array<zon_burst_packet_t, 2> row{};
    for (zon_burst_packet_t& one : row)
        one = {packet.data(),
               static_cast<uint32_t>(packet.size()),
               0,
               nullptr,
               &seen,
               zon_error_none,
               9};
    row[1].pkt_indications = nullptr;
    EXPECT_EQ(zon_handle_packet_burst(row.data(), 2), 0U);
    EXPECT_EQ(row[0].error, zon_error_engine_not_init);
    EXPECT_EQ(row[0].fid, 0U);
    EXPECT_EQ(row[1].error, zon_error_parameter_is_null);
    EXPECT_EQ(seen.packet_seen, 1);
}

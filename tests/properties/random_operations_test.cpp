// random_operations_test.cpp - random sequences of every operation of the public interface: engine
// and model agree after each step.
//
// A failure is shrunk: the message ends with the shortest sequence that still fails, a line for
// each step, and what differed. The engine is the shared library, as a host links it.
//
// The short form makes some 120000 steps. Other forms by rapidcheck's own variable, for instance
//
//   RC_PARAMS="max_success=5000 max_size=2000" zon_property_tests    about 2500000 steps
//   RC_PARAMS="seed=7 max_size=860" zon_property_tests               other sequences
//   RC_PARAMS="reproduce=..." zon_property_tests                     the failure that printed this
//
// What the short form sets and a longer one does not mention stays at rapidcheck's defaults (100
// sequences of up to 100 steps).
//
// Not here, because a model would have to know hashes: hashes supplied by a host, and buckets that
// are full. Fragments and broken packets have tests of their own.

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "properties/side_by_side.h"

namespace {

using namespace zon_test;

constexpr const char* short_form = "max_success=600 max_size=860 seed=20";
bool is_short_form = false;

// Before rapidcheck reads its variable.
const auto* const form = ::testing::AddGlobalTestEnvironment([] {
    struct chosen_form : ::testing::Environment {
        void SetUp() override {
            is_short_form = std::getenv("RC_PARAMS") == nullptr;
            setenv("RC_PARAMS", short_form, 0);
        }
    };
    return new chosen_form;
}());

// What differed, and where, instead of a bare exception.
template <class action>
void naming_a_difference(const std::string& where, action act) {
    try {
        act();
    } catch (const std::runtime_error& difference) {
        RC_FAIL(where + ": " + difference.what());
    }
}

void run_side_by_side(const script& steps) {
    side_by_side both;
    for (size_t i = 0; i < steps.size(); ++i) {
        std::ostringstream where;
        where << "step " << i + 1 << ", " << steps[i];
        naming_a_difference(where.str(), [&] { both.run(steps[i]); });
    }
    naming_a_difference("when every flow is deleted at the end", [&] { both.clear_all(); });
}

RC_GTEST_PROP(every_operation, agrees_with_the_model, ()) {
    run_side_by_side(*scripts());
}

// The sequences of the short form reach what they are meant to reach.
TEST(every_operation, is_reached_by_the_short_form) {
    if (!is_short_form)
        GTEST_SKIP() << "another form was asked for";
    const reached_so_far& reached = side_by_side::reached;
    if (reached.scripts == 0)
        GTEST_SKIP() << "the sequences were left out";
    EXPECT_GE(reached.steps, 100000U);
    EXPECT_EQ(reached.of_kind.size(), static_cast<size_t>(op::restart) + 1);
    for (const auto& [kind, times] : reached.of_kind)
        EXPECT_GE(times, 50U) << name_of(kind);
    EXPECT_GE(reached.flows, 4000U);
    EXPECT_GE(reached.deletions, 4000U);
    EXPECT_GE(reached.aged, 1000U);
    EXPECT_GE(reached.refused, 500U);
    EXPECT_GE(reached.vetoed, 300U);
    EXPECT_GE(reached.tunnelled, 100U);
    EXPECT_GE(reached.translated, 100U);
    EXPECT_GE(reached.rekeyed_and_found, 600U);
    EXPECT_GE(reached.indexed, 100000U);
    EXPECT_GE(reached.family_walks, 20U);
    for (const known part : {known::announced, known::any_vrf, known::destination, known::source})
        EXPECT_GE(reached.promoted_from[static_cast<size_t>(part)], 100U)
            << "kind of key " << static_cast<int>(part);
}

}  // namespace

// zon_model_test.cpp - the engine agrees with a slow, plain model on random scripts.
//
// A difference prints the seed, the first step that differed and a shortened script that still
// does. The environment may ask for other scripts: ZON_MODEL_SEED for one seed, ZON_MODEL_SCRIPTS
// for their number.

#include <gtest/gtest.h>

#include <string>

#include "support/environment.h"
#include "support/model_script.h"

namespace {

using namespace zon_test;

constexpr size_t steps_of_a_script = 20000;
constexpr int attempts_to_shorten = 400;

std::string report(uint32_t seed, const std::vector<script_step>& script,
                   const script_result& result) {
    std::string text = "seed " + std::to_string(seed) + ", step " +
                       std::to_string(*result.failed_at) + ": " + result.difference + "\n";
    std::vector<script_step> prefix(
        script.begin(), script.begin() + static_cast<std::ptrdiff_t>(*result.failed_at + 1));
    const std::vector<script_step> shortest =
        shortened(settings_of(seed), std::move(prefix), attempts_to_shorten);
    text += "a shortened script of " + std::to_string(shortest.size()) +
            " steps ends with: " + run_script(settings_of(seed), shortest).difference + "\n";
    for (const script_step& step : shortest)
        text += "  " + to_text(step) + "\n";
    return text;
}

TEST(engine_model, agrees_on_a_million_packets_of_random_scripts) {
    const uint32_t first_seed = from_environment("ZON_MODEL_SEED", 1);
    const uint32_t scripts = from_environment("ZON_MODEL_SCRIPTS", 53);
    script_result total;
    for (uint32_t seed = first_seed; seed < first_seed + scripts; ++seed) {
        const std::vector<script_step> script = make_script(seed, steps_of_a_script);
        const script_result result = run_script(settings_of(seed), script);
        ASSERT_FALSE(result.failed_at) << report(seed, script, result);
        total.packets += result.packets;
        total.deletions += result.deletions;
        total.refused += result.refused;
        total.promoted += result.promoted;
    }
    RecordProperty("packets", std::to_string(total.packets));
    if (scripts < 53)
        return;
    // The scripts reach what they are meant to reach.
    EXPECT_GE(total.packets, 1000000U);
    EXPECT_GE(total.deletions, 10000U);
    EXPECT_GE(total.refused, 10000U);
    EXPECT_GE(total.promoted, 500U);
}

}  // namespace

// round.h - one round of the mixed stress: an engine, its threads, and the comparisons.

#pragma once

#include "stress/mixed/actor.h"

namespace zon_test {

// What differs from round to round; the same seed gives the same rounds.
round_settings settings_of_round(uint32_t number, uint32_t seed);

struct round_totals {
    uint64_t rounds = 0;
    std::array<uint64_t, static_cast<size_t>(feat::count)> feats{};
};

// Sets an engine up, lets the threads loose on it, and takes it down; perhaps restarts it halfway.
// A watchdog tells what a round is at that does not end.
void play_round(const round_settings& settings, uint32_t threads, schedule how,
                round_totals& totals);

}  // namespace zon_test

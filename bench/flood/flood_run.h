// flood_run.h - one flood: the quiet engine, the flood, and the calm that follows.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>

#include "expectations.h"
#include "flood_engine.h"
#include "latencies.h"
#include "newcomers.h"

namespace zon_bench {

inline constexpr uint32_t established_count = 10'000;

struct flood {
    const char* name;
    engine_setup engine{};
    // What a flood with this many packets hands in to an engine of so many flows. There is none
    // yet.
    std::unique_ptr<attack> (*packets)(uint64_t count, uint32_t max_flows);
    expectations (*expects)(const flood_report&);  // of this flood alone
    uint64_t one_in = 1;                           // of the packets that were asked for
    uint64_t most = UINT64_MAX;                    // of them
    uint32_t burst = 4;             // packets of the attack for each of an established flow
    uint32_t a_second = 1'000'000;  // packets of the attack while the clock is turned
    // Its tuples share the bucket of one established flow, at an engine with room for all of them.
    bool aims_at_a_flow = false;
    bool fills_the_table = false;  // a short one has a smaller table for that
    bool with_fragments = false;   // an established flow sends datagrams in two fragments meanwhile
};

// The established flow that the attack aims at, and the one whose datagrams are fragmented.
inline constexpr uint32_t victim = 1;
inline constexpr uint32_t fragmenter = 3;
static_assert(victim % 2 == 1 && fragmenter % 2 == 1, "both are UDP");

// Plain numbers: they travel from one process to another.
struct flood_report {
    uint64_t packets;
    double packets_a_second;
    uint32_t kept;
    uint64_t strayed;  // packets of established flows that were given another flow or none
    percentiles quiet, flooded;
    percentiles victim_quiet, victim_flooded;
    share fragments_quiet, fragments_flooded, fragments_after;
    share newcomers_quiet, newcomers_flooded;
    uint64_t made, known, without_flow;
    std::array<uint64_t, zon_error_end> refused;
    uint64_t expected_broken;
    uint64_t replaced;       // flows that went to make room, the established ones among them
    uint64_t flows_flooded;  // in the table when the flood was over
    uint32_t datagrams;      // tracked then
    memory_figures memory_before, memory_flooded, memory_after;
    uint32_t in_victims_bucket;
    uint32_t others_in_victims_bucket;  // places that established flows had taken there before
    double flows_gone_s;                // of the engine's clock; negative: not while it was watched
    double quiet_again_ms;              // of the machine's, as flows are as quick as the machine
    uint64_t made_in_all, deleted_in_all;
    uint32_t flows_left;
    uint32_t max_flows;
    bool clock_is_turned;
    bool has_own_thread;  // the attack
};

struct run_style {
    clock_choice clock = clock_choice::turned;
    bool has_own_thread = false;  // the attack; else it takes turns with the established flows
};
flood_report run_flood(const flood& which, uint64_t scale, const run_style& style);

}  // namespace zon_bench

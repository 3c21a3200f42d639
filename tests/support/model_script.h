// model_script.h - scripts of packets and client calls, run through the engine and beside it
// through the model.

#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "support/flow_model.h"

namespace zon_test {

enum class step_kind : uint8_t {
    packet,
    captured_packet,
    wait,
    announce,
    withdraw,
    remove,
    set_idle
};

struct script_step {
    step_kind kind;
    uint8_t connection;
    bool reply;
    uint8_t tcp_flags;
    uint16_t payload;
    uint32_t value;  // sequence number, ms, s, identifier, reason or kind of announcement
};

std::string to_text(const script_step& step);

// A script that depends on its seed alone.
std::vector<script_step> make_script(uint32_t seed, size_t steps);
// The size of the engine, by the seed.
flow_model::settings settings_of(uint32_t seed);

struct script_result {
    size_t packets = 0;
    size_t deletions = 0;
    size_t refused = 0;
    size_t promoted = 0;
    // The first step after which engine and model differed, and in what.
    std::optional<size_t> failed_at;
    std::string difference;
};

// Makes an engine, runs the steps through it and through a model, and destroys it.
script_result run_script(const flow_model::settings& settings, std::span<const script_step> script);

// Leaves out of a failing script whatever can be left out, for as many attempts.
std::vector<script_step> shortened(const flow_model::settings& settings,
                                   std::vector<script_step> script, int attempts);

}  // namespace zon_test

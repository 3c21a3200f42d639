// raw_captures.h - runs the program on captures of IP packets without a link layer, from a certain
// moment on.
#ifndef ZONFLOW_TESTS_RAW_CAPTURES_H
#define ZONFLOW_TESTS_RAW_CAPTURES_H

#include <gtest/gtest.h>

#include "tests/apps/zonflow/support/zonflow_program.h"

namespace zonflow_tests {

// In nanoseconds, as frames are stamped.
inline constexpr uint64_t second = 1'000'000'000;
inline constexpr uint64_t start = 1'700'000'000 * second;

inline constexpr uint32_t raw_ip = 101;  // the link type

inline json_result run_packets(const std::vector<stamped_frame>& packets,
                               const std::string& options = "") {
    const temporary_file capture(pcap_bytes(packets, raw_ip, {.nanoseconds = true}));
    json_result result = run_json(options + " " + capture.path());
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.summaries.size(), 1u);
    result.summaries.resize(1);
    return result;
}

inline json_result run_apart(uint64_t gap_ns, const std::vector<bytes>& packets,
                             const std::string& options) {
    std::vector<stamped_frame> frames;
    for (const bytes& packet : packets) {
        frames.push_back({start + frames.size() * gap_ns, packet});
    }
    return run_packets(frames, options);
}

}  // namespace zonflow_tests

#endif

// expectations.h - what has to be so when a flood is over.

#pragma once

#include <cstdint>
#include <vector>

namespace zon_bench {

struct flood;
struct flood_report;

struct expectation {
    const char* what;
    bool is_met;
};
using expectations = std::vector<expectation>;

// Of every flood, and those of this one.
expectations expectations_of(const flood& which, const flood_report& report);

// What of the table half-open flows may hold where they are bounded, in percent.
inline constexpr uint32_t half_open_share = 50;

// The table is full, and stays so.
expectations of_full_table(const flood_report& report);
// Half-open flows make room for each other.
expectations of_bounded_half_open_flows(const flood_report& report);
expectations of_fragments(const flood_report& report);
// No defence: all flows of the attack gather in one bucket.
expectations of_one_bucket(const flood_report& report);
expectations of_scattered_buckets(const flood_report& report);
template <unsigned depth>
expectations of_bounded_bucket(const flood_report& report);
expectations of_short_packets(const flood_report& report);
expectations of_port_scan(const flood_report& report);

}  // namespace zon_bench

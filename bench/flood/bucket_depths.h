// bucket_depths.h - what a bound on the depth of buckets costs honest traffic.

#pragma once

#include <array>
#include <cstdint>

namespace zon_bench {

// While the table fills, quarter by quarter: how many first packets were refused, and of how many.
struct depth_report {
    std::array<uint64_t, 4> refused, of;
};

// Tables of so many flows are filled from empty, one after the other with other connections.
depth_report fill_tables(uint8_t bucket_depth, uint32_t max_flows, uint32_t tables);

}  // namespace zon_bench

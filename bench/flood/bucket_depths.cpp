// bucket_depths.cpp - fills tables with honest connections and counts whom a full bucket refuses.

#include "bucket_depths.h"

#include "flood_engine.h"

namespace zon_bench {
namespace {

// Client after client, as they come; returns the number of the next one.
uint32_t fill_one(uint32_t next, uint32_t max_flows, depth_report& report) {
    packet_line line;
    packet_writer packets;
    uint32_t made = 0;
    while (made < max_flows) {
        const size_t quarter = size_t{4} * made / max_flows;
        ++report.of[quarter];
        if (line.take(packets.established(next++, false), packet_size).fid != 0)
            ++made;
        else
            ++report.refused[quarter];
    }
    return next;
}

}  // namespace

depth_report fill_tables(uint8_t bucket_depth, uint32_t max_flows, uint32_t tables) {
    depth_report report{};
    uint32_t next = 0;
    for (uint32_t table = 0; table < tables; ++table) {
        const flood_engine engine({.max_flows = max_flows, .bucket_depth = bucket_depth},
                                  clock_choice::turned);
        next = fill_one(next, max_flows, report);
    }
    return report;
}

}  // namespace zon_bench

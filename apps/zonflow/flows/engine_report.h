// engine_report.h - what the engine tells operators of its flow table.
#ifndef ZONFLOW_ENGINE_REPORT_H
#define ZONFLOW_ENGINE_REPORT_H

#include <cstdint>
#include <map>
#include <string>

namespace zonflow {

// How evenly the half flows, two a flow, lie in the buckets of the flow table.
struct bucket_depths {
    uint32_t buckets = 0;
    uint32_t half_flows = 0;
    std::map<uint32_t, uint32_t> buckets_of_depth;  // only depths that there are
};

// The statistics and the flows in use, in the engine's own words. The engine prints them on
// standard output, which is diverted meanwhile: what has been written to it must have been flushed.
// Throws output_error where the text cannot be kept.
std::string flow_table_dump();

bucket_depths flow_table_depths();

}  // namespace zonflow

#endif

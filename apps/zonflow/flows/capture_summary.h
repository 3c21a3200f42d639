// capture_summary.h - what became of every packet of one source.
#ifndef ZONFLOW_CAPTURE_SUMMARY_H
#define ZONFLOW_CAPTURE_SUMMARY_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace zonflow {

// packets = classified + not_ip + malformed + the sum of refused.
struct capture_summary {
    uint64_t packets = 0;
    uint64_t classified = 0;  // counted to a flow
    uint64_t flows = 0;
    uint64_t not_ip = 0;                      // the link layer says that it is something else
    std::map<std::string, uint64_t> refused;  // IP, but of no flow: the reason and how many
    uint64_t malformed =
        0;  // cut off, or headers that contradict each other or the captured length
    uint64_t out_of_time = 0;      // of all these: stamped more than a second before an earlier one
    std::optional<uint64_t> lost;  // on live traffic, besides all these: never seen
};

}  // namespace zonflow

#endif

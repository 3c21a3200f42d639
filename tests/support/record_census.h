// record_census.h - counts the records that an engine has taken from its chunks and not given back,
// and lets a chosen request for one fail.
//
// The program under test is linked so that every call of a chunk's operations between units comes
// here first (tests/CMakeLists.txt). Unlike the engine's own usage counters, these do not count
// attempts and cannot be turned by a test.

#pragma once

#include <cstdint>
#include <ostream>

#include "zon_engine_defs.h"

namespace zon_test {

// Records in use, those on the stacks of ready records not counted. A flow's record stays in use
// while its engine lives, so it is not here.
struct records_in_use {
    int64_t ipv4_half_flows = 0;
    int64_t ipv6_half_flows = 0;
    int64_t feature_objects = 0;
    int64_t super_contexts = 0;
    int64_t list_elements = 0;

    static records_in_use of(const zon_chunk_mem_t& chunks);
    bool operator==(const records_in_use&) const = default;
};

// While it lives, requests for records succeed until the given number of them have been made; the
// next one fails, and those after it succeed again. Ready records are not asked for.
class failing_record_memory {
public:
    explicit failing_record_memory(int after_requests);
    ~failing_record_memory();
    failing_record_memory(const failing_record_memory&) = delete;
    failing_record_memory& operator=(const failing_record_memory&) = delete;

    // Whether the request that was to fail has come.
    bool has_failed() const;
};

inline std::ostream& operator<<(std::ostream& out, const records_in_use& in_use) {
    return out << in_use.ipv4_half_flows << " IPv4 half flows, " << in_use.ipv6_half_flows
               << " IPv6 half flows, " << in_use.feature_objects << " records of feature objects, "
               << in_use.super_contexts << " super contexts, " << in_use.list_elements
               << " list elements";
}

}  // namespace zon_test

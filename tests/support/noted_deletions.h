// noted_deletions.h - a delete callback that keeps which flows went, and why.

#pragma once

#include <vector>

#include "zon.h"

namespace zon_test {

struct noted_deletion {
    zon_fid_t fid;
    zon_flow_deletion_reason_e reason;
    bool operator==(const noted_deletion&) const = default;
};

// In the order in which they were told; a test clears it first.
inline std::vector<noted_deletion> noted_deletions;

inline void note_deletion(zon_flow_ptr_t fid, void*, void*, void*,
                          zon_flow_deletion_reason_e reason, zon_client_id_e) {
    noted_deletions.push_back({fid, reason});
}

}  // namespace zon_test

// packet_outcome.h - what became of a packet: no flow, or which.

#pragma once

#include "support/engine_fixture.h"

namespace zon_test {

inline void expect_not_classified(const packet_result& result) {
    EXPECT_EQ(result.fid, 0u);
    EXPECT_EQ(result.error, zon_error_none);
    EXPECT_EQ(result.indications.packet_seen, 1);
    EXPECT_EQ(result.indications.flow, 0u);
}

// As its initiator sees it.
inline zon_flow_tuple_t tuple_of(zon_fid_t fid) {
    zon_flow_tuple_t tuple{};
    EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_INITIATOR, &tuple), zon_error_none);
    return tuple;
}

}  // namespace zon_test

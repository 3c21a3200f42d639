// preset_indications.h - what is told of a packet that got no flow, whatever the host's record
// held.

#pragma once

#include <gtest/gtest.h>

#include "zon.h"

namespace zon_test {

inline void expect_preset(const zon_pkt_indications_t& seen) {
    EXPECT_EQ(seen.flow, 0u);
    EXPECT_EQ(seen.l7_flow_bytes, 0u);
    EXPECT_EQ(seen.flow_pkt_count, 0u);
    EXPECT_EQ(seen.l4_payload_size, 0u);
    EXPECT_EQ(seen.bypass_id, 0u);
    EXPECT_EQ(seen.l4_port.src_port, 0);
    EXPECT_EQ(seen.l4_port.dst_port, 0);
    EXPECT_EQ(seen.is_initiator, 0);
    EXPECT_EQ(seen.fif, 0);
    EXPECT_EQ(seen.lif, 0);
    EXPECT_EQ(seen.first_payload, 0);
    EXPECT_EQ(seen.was_promoted, 0);
    EXPECT_EQ(seen.l4_error, ZON_L4_NOERR);
    EXPECT_EQ(seen.l4_start, nullptr);
    EXPECT_EQ(seen.l7_start, nullptr);
}

}  // namespace zon_test

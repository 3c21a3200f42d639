// table_census.h - counts what the engine's tables hold and compares it with what its flows name,
// while nothing else runs.

#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "support/flow_reader.h"
#include "support/lanes.h"
#include "zon_api/zon_api_internal.h"
#include "zon_hashset.h"

namespace zon_test {

// The half flows that the flows in use name, as each of the engine's counters sees them.
struct named_half_flows {
    std::array<uint32_t, ZON_MAX_KEY> of_type{};
    uint32_t ipv4_in_use = 0;
    uint32_t ipv6_in_use = 0;

    static named_half_flows count() {
        named_half_flows named;
        for (zon_fid_t fid = 1; fid <= g_zon->fid_table->capacity; ++fid)
            if (const zon_flow_t* flow = record_of(fid))
                for (const zon_flow_direction_e side : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER})
                    named.add(flow, side);
        return named;
    }

private:
    void add(const zon_flow_t* flow, zon_flow_direction_e side) {
        const zon_half_flow_t* half = zon_named_half_flow(flow, side);
        if (half == nullptr)
            return;
        ++of_type.at(half->key.key_type);
        if (!zon_side_is_given_back(flow, side))
            ++(zon_key_is_ipv4(half->key.key_type) ? ipv4_in_use : ipv6_in_use);
    }
};

// Announced half flows are counted as long as a flow names them, present or given back; a count
// below zero would wrap and shows here as a huge one.
inline void expect_counts_of_flows() {
    const named_half_flows named = named_half_flows::count();
    bool any_announced = false;
    for (uint32_t type = 0; type < ZON_MAX_KEY; ++type) {
        const uint32_t expected = zon_key_is_preflow(type) ? named.of_type[type] : 0;
        EXPECT_EQ(g_zon->flow_tbl->active_preflow_count[type], expected) << "key type " << type;
        any_announced = any_announced || expected != 0;
    }
    EXPECT_EQ(g_zon->flow_tbl->has_incomplete_inserts, any_announced);
    bring_back_from_lanes();
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, named.ipv4_in_use);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv6_half_flow_alloc_count, named.ipv6_in_use);
}

// Every half flow in a bucket belongs to a flow in use that names it, links lead back to where they
// came from, and the counts are those of the chains. Without half flows in quarantine.
inline void expect_sound_buckets() {
    zon_hashset set = g_zon->flow_tbl->table;
    uint32_t linked = 0;
    for (int bucket = 0; bucket < set->array_size; ++bucket) {
        uint32_t depth = 0;
        zon_hashset_hdr* const* from = &set->array[bucket];
        for (zon_hashset_hdr* header = *from; header != nullptr; header = *from) {
            ASSERT_LE(++depth, 255U) << "a chain runs in a circle";
            EXPECT_EQ(header->pointer_to_us, from);
            const auto* half = reinterpret_cast<const zon_half_flow_t*>(header);
            const zon_flow_t* flow = half->flow;
            EXPECT_EQ(record_of(flow->fid), flow) << "a half flow of a flow that has gone";
            EXPECT_TRUE(zon_half_flow_of(flow, ZON_DIR_INITIATOR) == half ||
                        zon_half_flow_of(flow, ZON_DIR_RESPONDER) == half)
                << "a half flow that was given back";
            from = &header->next;
        }
        EXPECT_EQ(set->items_in_bucket[bucket], depth) << "bucket " << bucket;
        linked += depth;
    }
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), linked);
}

inline void expect_sound_tables() {
    expect_counts_of_flows();
    expect_sound_buckets();
}

}  // namespace zon_test

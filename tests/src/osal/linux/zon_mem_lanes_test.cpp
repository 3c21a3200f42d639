// zon_mem_lanes_test.cpp - half flows that wait in lanes: whoever needs memory gets them.

#include "osal/zon_mem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "support/lanes.h"
#include "support/record_census.h"

namespace {

using zon_test::failing_record_memory;
using zon_test::laned_thread;
using zon_test::records_in_use;

using records = std::vector<void*>;

class half_flows_in_lanes : public ::testing::TestWithParam<zon_memory_type> {
protected:
    void SetUp() override {
        zon_lanes_end();
        ASSERT_TRUE(zon_mem_chunk_create(ready / 2, &chunks, 16));
    }
    void TearDown() override {
        EXPECT_TRUE(zon_mem_chunk_destroy(&chunks));
        zon_lanes_end();
    }

    void* take() { return zon_private_chunk_malloc(GetParam(), &chunks); }
    records take(uint32_t count) {
        records taken;
        for (uint32_t i = 0; i < count; ++i)
            taken.push_back(take());
        return taken;
    }
    // As a flow does it.
    records take_pair() {
        records pair(2);
        pair.resize(zon_private_chunk_malloc_many(GetParam(), pair.data(), 2, &chunks));
        return pair;
    }
    void release(const records& taken) {
        for (void* record : taken)
            EXPECT_TRUE(zon_private_chunk_free(GetParam(), record, &chunks));
    }
    uint32_t waiting() const { return zon_mem_waiting_in_lanes(GetParam()); }
    int64_t in_use() const {
        const records_in_use counted = records_in_use::of(chunks);
        return GetParam() == ZON_IPV4_HALF_FLOW_MEM_TYPE ? counted.ipv4_half_flows
                                                         : counted.ipv6_half_flows;
    }

    static constexpr uint32_t ready = 40;
    zon_chunk_mem_t chunks{};
};

TEST_P(half_flows_in_lanes, are_none_while_no_thread_has_a_lane) {
    release(take(5));
    EXPECT_EQ(waiting(), 0U);
}

TEST_P(half_flows_in_lanes, are_taken_in_batches_and_handed_out_once) {
    laned_thread other;
    std::set<void*> taken;
    other.run([&] {
        for (int i = 0; i < 50; ++i)
            for (void* record : take_pair())
                EXPECT_TRUE(taken.insert(record).second);
    });
    EXPECT_EQ(taken.size(), 100U);
    EXPECT_EQ(taken.count(nullptr), 0U);
    EXPECT_NE(waiting(), 0U);
    EXPECT_EQ(in_use(), 100);
    other.run([&] { release({taken.begin(), taken.end()}); });
    EXPECT_EQ(in_use(), 0);
}

TEST_P(half_flows_in_lanes, go_back_to_all_threads_when_many_wait) {
    laned_thread other;
    records taken = take(100);
    other.run([&] { release(taken); });
    EXPECT_EQ(in_use(), 0);
    EXPECT_LT(waiting(), 40U);
    zon_mem_gather_lanes();
    EXPECT_EQ(waiting(), 0U);
    EXPECT_EQ(in_use(), 0);
}

TEST_P(half_flows_in_lanes, are_left_to_others_by_a_thread_that_ends) {
    {
        laned_thread ends;
        ends.run([this] { release(take(1)); });
    }
    const uint32_t left = waiting();
    EXPECT_NE(left, 0U);
    laned_thread next;
    next.run([this] { take(1); });
    EXPECT_EQ(waiting(), left - 1);
}

// The chunk gives nothing, and what another thread has at hand is enough.
TEST_P(half_flows_in_lanes, are_handed_out_when_there_is_no_other_memory) {
    laned_thread other;
    void* kept = nullptr;
    other.run([&] { kept = take(); });
    const uint32_t left = waiting();
    ASSERT_NE(left, 0U);
    const int32_t on_stack =
        GetParam() == ZON_IPV4_HALF_FLOW_MEM_TYPE ? zon_private_ipv4_flow_mem_buffer_count : 0;
    take(static_cast<uint32_t>(on_stack));
    {
        const failing_record_memory fault(0);
        EXPECT_NE(take(), nullptr) << "other memory had to be asked for, and was refused";
        EXPECT_TRUE(fault.has_failed());
    }
    EXPECT_EQ(waiting(), 0U);
    // Until much has come back, what is given back is found by all.
    other.run([&] { release({kept}); });
    EXPECT_EQ(waiting(), 0U);
    other.run([&] {
        for (int i = 0; i < 200; ++i)
            release(take_pair());
    });
    EXPECT_NE(waiting(), 0U);
}

TEST_P(half_flows_in_lanes, of_other_chunks_are_not_mixed_with_them) {
    laned_thread other;
    zon_chunk_mem_t foreign = chunks;
    std::swap(foreign.zon_ipv4_half_flow_mem, foreign.zon_ipv6_half_flow_mem);
    const uint32_t before = waiting();
    other.run([&] {
        void* record = zon_private_chunk_malloc(GetParam(), &foreign);
        EXPECT_TRUE(zon_private_chunk_free(GetParam(), record, &foreign));
    });
    EXPECT_EQ(waiting(), before);
}

TEST_P(half_flows_in_lanes, are_destroyed_with_their_chunks) {
    laned_thread other;
    other.run([this] { take_pair(); });
    EXPECT_NE(waiting(), 0U);
    ASSERT_TRUE(zon_mem_chunk_destroy(&chunks));
    EXPECT_EQ(waiting(), 0U);
    ASSERT_TRUE(zon_mem_chunk_create(ready / 2, &chunks, 16));
    other.run([this] { EXPECT_EQ(take_pair().size(), 2U); });
}

INSTANTIATE_TEST_SUITE_P(families, half_flows_in_lanes,
                         ::testing::Values(ZON_IPV4_HALF_FLOW_MEM_TYPE,
                                           ZON_IPV6_HALF_FLOW_MEM_TYPE),
                         [](const auto& type) {
                             return std::string(type.param == ZON_IPV4_HALF_FLOW_MEM_TYPE ? "ipv4"
                                                                                          : "ipv6");
                         });

}  // namespace

// zon_fid_lanes_test.cpp - free flow records that wait in lanes: in their order, and never out of
// anybody's reach.

#include "zon_fid_lanes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <utility>
#include <vector>

#include "support/engine_fixture.h"
#include "support/lanes.h"
#include "support/parked_thread.h"
#include "zon_engine_inline.h"

namespace {

using zon_test::laned_thread;

using fids = std::vector<zon_fid_t>;

fids counted_up(zon_fid_t first, zon_fid_t last) {
    fids numbers(last - first + 1);
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

class records_in_lanes : public zon_test::engine_fixture {
protected:
    static constexpr uint32_t all = 100;

    records_in_lanes() {
        parameters.max_flows = all;
        parameters.min_init_flows = all;
        parameters.timers = false;
    }

    void SetUp() override {
        zon_test::engine_fixture::SetUp();
        if (g_zon != nullptr)
            zon_test::give_lanes_to_the_table();
    }

    static zon_fid_table_t* table() { return g_zon->fid_table; }
    // The identifier of a new flow without half flows, unlocked; 0 without one.
    static zon_fid_t take() {
        zon_flow_t* flow = zon_fid_table_new_flow(table());
        if (flow == nullptr)
            return 0;
        flow->initiator_flow = flow->responder_flow = nullptr;
        zon_unlock_internal(flow->flow_lock);
        return flow->fid;
    }
    static fids take(uint32_t count) {
        fids taken;
        for (uint32_t i = 0; i < count; ++i)
            taken.push_back(take());
        return taken;
    }
    static void recycle(const fids& taken) {
        for (const zon_fid_t fid : taken)
            EXPECT_TRUE(zon_fid_table_recycle_flow(table(), fid));
    }
    // Other threads find these without looking into lanes.
    static uint32_t on_free_list() {
        uint32_t count = 0;
        for (const zon_flow_t* flow = table()->free_head; flow != nullptr; flow = flow->next_free)
            ++count;
        return count;
    }
};

TEST_F(records_in_lanes, are_none_while_no_thread_has_a_lane) {
    take(3);
    EXPECT_EQ(on_free_list(), all - 3);
    recycle({2});
    EXPECT_EQ(on_free_list(), all - 2);
    EXPECT_EQ(table()->free_tail->fid, 2U);
}

TEST_F(records_in_lanes, are_taken_in_rows_and_handed_out_in_their_order) {
    laned_thread other;
    other.run([] { EXPECT_EQ(take(), 1U); });
    EXPECT_EQ(on_free_list(), all - zon_free_row_length);
    EXPECT_EQ(take(), zon_free_row_length + 1) << "the rest of the first row waits in the lane";
    other.run([] { EXPECT_EQ(take(zon_free_row_length - 1), counted_up(2, zon_free_row_length)); });
    other.run([] { EXPECT_EQ(take(), zon_free_row_length + 2); });
}

TEST_F(records_in_lanes, are_reused_first_freed_first) {
    laned_thread other;
    other.run([] {
        fids taken = take(all);
        EXPECT_EQ(taken, counted_up(1, all));
        EXPECT_EQ(take(), 0U);
    });
    // The table was empty: lanes open again when many have come back.
    recycle(counted_up(1, all / 2));
    fids order = counted_up(all / 2 + 1, all);
    std::reverse(order.begin(), order.end());
    other.run([&] { recycle(order); });
    EXPECT_LT(on_free_list(), all) << "the last ones wait in the lane";
    other.run([&] {
        EXPECT_EQ(take(all / 2), counted_up(1, all / 2));
        EXPECT_EQ(take(all / 2), order);
    });
}

TEST_F(records_in_lanes, are_all_found_when_the_table_fills) {
    laned_thread one;
    laned_thread other;
    std::set<zon_fid_t> taken;
    one.run([&] { taken.insert(take()); });
    other.run([&] { taken.insert(take()); });
    for (uint32_t left = all - 2; left != 0; --left)
        taken.insert(take());
    EXPECT_EQ(taken.size(), all) << "a flow was refused, or an identifier given to two flows";
    EXPECT_EQ(taken.count(0), 0U);
    EXPECT_EQ(take(), 0U);
    one.run([] { EXPECT_EQ(take(), 0U); });
}

TEST_F(records_in_lanes, that_others_gave_back_are_found_when_the_table_is_full) {
    laned_thread other;
    other.run([] { EXPECT_EQ(take(3), counted_up(1, 3)); });
    other.run([] { recycle({2, 1}); });
    std::set<zon_fid_t> taken{3};
    for (uint32_t left = all - 1; left != 0; --left)
        taken.insert(take());
    EXPECT_EQ(taken.size(), all);
    EXPECT_EQ(taken.count(0), 0U);
    // From now on what comes back is found at once.
    other.run([] { recycle({7}); });
    EXPECT_EQ(take(), 7U);
}

TEST_F(records_in_lanes, are_left_to_others_by_a_thread_that_ends) {
    {
        laned_thread ends;
        ends.run([] { recycle(take(5)); });
    }
    EXPECT_EQ(on_free_list(), all - zon_free_row_length);
    fids taken = take(all);
    EXPECT_EQ(std::set<zon_fid_t>(taken.begin(), taken.end()).size(), all);
    EXPECT_EQ(std::count(taken.begin(), taken.end(), 0U), 0);
}

TEST_F(records_in_lanes, wait_until_their_lane_is_emptied_and_are_deleted_with_the_engine) {
    laned_thread other;
    other.run([] { recycle(take(5)); });
    zon_fid_table_gather(table());
    EXPECT_EQ(on_free_list(), all);
    other.run([] { recycle(take(5)); });
    EXPECT_LT(on_free_list(), all);
    destroy_engine();
    ASSERT_EQ(zon_init(all, 1000, all, 10, 0, 16, 10), zon_error_none);
    other.run([] {
        EXPECT_LT(zon_own_lane(), 0);
        EXPECT_EQ(take(), 1U);
    });
    EXPECT_EQ(on_free_list(), all - 1);
}

// Deletions of one thread feed another one's flows.
TEST_F(records_in_lanes, go_from_one_thread_to_another) {
    laned_thread creates;
    laned_thread deletes;
    for (int round = 0; round < 20; ++round) {
        fids taken;
        creates.run([&] { taken = take(all); });
        EXPECT_EQ(std::set<zon_fid_t>(taken.begin(), taken.end()).size(), all) << round;
        EXPECT_EQ(std::count(taken.begin(), taken.end(), 0U), 0) << round;
        creates.run([] { EXPECT_EQ(take(), 0U); });
        deletes.run([&] { recycle(taken); });
    }
}

// Else an identifier would come again after a fraction of them.
TEST_F(records_in_lanes, are_none_in_a_small_table) {
    storage_of(table())->has_lanes = false;
    zon_test::laned_thread crowded;
    crowded.run([] { recycle(take(50)); });
    EXPECT_EQ(on_free_list(), all);
    EXPECT_EQ(take(all), [] {
        fids order = counted_up(51, all);
        const fids reused = counted_up(1, 50);
        order.insert(order.end(), reused.begin(), reused.end());
        return order;
    }());
}

class records_with_two_locks : public records_in_lanes {
protected:
    records_with_two_locks() { parameters.max_threads = 2; }
    static zon_lock_t lock_of(zon_fid_t fid) {
        return zon_lock_get_pool_lock(table()->locks, static_cast<int>((fid - 1) % 2));
    }
};

TEST_F(records_with_two_locks, are_passed_over_while_their_locks_are_busy) {
    laned_thread other;
    zon_lock_internal(lock_of(1));
    other.run([] { EXPECT_EQ(take(3), (fids{2, 4, 6})); });
    zon_unlock_internal(lock_of(1));
    other.run([] { EXPECT_EQ(take(3), (fids{1, 3, 5})); });
}

// What another lane has is as good as what all threads find.
TEST_F(records_with_two_locks, are_looked_for_in_all_lanes_while_those_at_hand_are_busy) {
    laned_thread other;
    fids odd;
    other.run([&] {
        EXPECT_EQ(take(), 1U);
        odd = take(zon_free_row_length - 1);
    });
    fids rest = take(all - zon_free_row_length);
    for (zon_fid_t fid : rest)
        if (fid % 2 == 1)
            recycle({fid});
    other.run([] { recycle({2, 4}); });
    zon_lock_internal(lock_of(1));
    laned_thread third;
    third.run([] { EXPECT_EQ(take(2), (fids{2, 4})); });
    zon_unlock_internal(lock_of(1));
}

class records_of_little_memory : public records_in_lanes {
protected:
    records_of_little_memory() {
        parameters.min_init_flows = 20;
        parameters.max_mem_buffer_init = 0;
    }
};

TEST_F(records_of_little_memory, are_found_in_lanes_when_no_more_can_be_made) {
    laned_thread other;
    other.run([] { EXPECT_EQ(take(), 1U); });
    const zon_flow_mem_t chunk = std::exchange(g_zon->zon_chunk_ptr.zon_flow_mem, nullptr);
    fids taken = take(19);
    EXPECT_EQ(std::set<zon_fid_t>(taken.begin(), taken.end()).size(), 19U);
    EXPECT_EQ(std::count(taken.begin(), taken.end(), 0U), 0);
    EXPECT_EQ(take(), 0U);
    g_zon->zon_chunk_ptr.zon_flow_mem = chunk;
    EXPECT_EQ(take(), 21U);
}

// ---- lookups ----

TEST_F(records_in_lanes, that_are_free_have_no_flow) {
    laned_thread other;
    other.run([] { take(3); });
    EXPECT_TRUE(zon_fid_table_lookup(table(), 3));
    EXPECT_FALSE(zon_fid_table_lookup(table(), 4)) << "it waits to be handed out";
    other.run([] { recycle({2}); });
    EXPECT_FALSE(zon_fid_table_lookup(table(), 2)) << "it waits to be given back";
}

// The identifier was looked up before its flow ended, and the flow's lock comes after.
TEST_F(records_in_lanes, that_ended_while_their_lock_was_awaited_have_no_flow) {
    take(1);
    zon_flow_t* flow = table()->table[0];
    zon_lock_internal(flow->flow_lock);
    bool found = true;
    zon_test::parked_thread looks(
        [&found] { found = static_cast<bool>(zon_fid_table_lookup(table(), 1)); });
    looks.wait_until_parked();
    zon_flow_set_dying(flow, true);
    zon_unlock_internal(flow->flow_lock);
    looks.finish();
    EXPECT_FALSE(found);
    recycle({1});
}

// ---- counts ----

TEST_F(records_in_lanes, and_figures_add_up_for_whoever_reads_them) {
    using zon_test::packet_builder;
    laned_thread one;
    laned_thread other;
    fids made;
    uint16_t port = 1000;
    const auto send = [&] {
        for (int i = 0; i < 10; ++i)
            made.push_back(
                handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(++port, 53)).fid);
    };
    one.run(send);
    other.run(send);
    other.run([&] {
        for (int i = 0; i < 3; ++i, made.pop_back())
            EXPECT_TRUE(zon_delete_flow_tamonet(made.back(), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    });
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 34U);
    zon_flow_memory_usage_t usage{};
    ASSERT_EQ(zon_config_calc_crnt_memory_usage(&usage), zon_error_none);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 34U);
    int32_t size, used, empty, occupied, average, most;
    uint32_t inserts, deletes, aged;
    zon_flow_table_statistics(g_zon->flow_tbl, &size, &used, &empty, &occupied, &average, &most,
                              &inserts, &deletes, &aged, nullptr, nullptr);
    EXPECT_EQ(used, 34);
    EXPECT_EQ(inserts, 40U);
    EXPECT_EQ(deletes, 3U);
    one.run(send);
    zon_flow_table_statistics_clear(g_zon->flow_tbl);
    other.run(send);
    zon_flow_table_statistics(g_zon->flow_tbl, &size, &used, &empty, &occupied, &average, &most,
                              &inserts, &deletes, &aged, nullptr, nullptr);
    EXPECT_EQ(inserts, 20U);
    EXPECT_EQ(deletes, 0U);
}

}  // namespace

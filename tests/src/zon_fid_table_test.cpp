// zon_fid_table_test.cpp - records are made in blocks, locked on hand-over, reset and reused first
// freed first.

#include "zon_fid_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/engine_fixture.h"
#include "support/lock_level.h"
#include "zon_connection.h"
#include "zon_engine_inline.h"

namespace {

using zon_test::is_free_for_others;
using zon_test::levels_held;

class fid_table : public zon_test::engine_fixture {
protected:
    zon_fid_table_t* table() const { return g_zon->fid_table; }
    // A new flow, unlocked; it has no half flows.
    zon_flow_t* take() {
        zon_flow_t* flow = zon_fid_table_new_flow(table());
        if (flow != nullptr) {
            flow->initiator_flow = nullptr;
            flow->responder_flow = nullptr;
            zon_unlock_internal(flow->flow_lock);
        }
        return flow;
    }
    zon_fid_t take_fid() {
        const zon_flow_t* flow = take();
        return flow != nullptr ? flow->fid : 0;
    }
    bool recycle(zon_fid_t fid) { return zon_fid_table_recycle_flow(table(), fid); }
};

class fid_table_of_three : public fid_table {
protected:
    fid_table_of_three() { parameters.max_flows = 3; }
};

TEST_F(fid_table_of_three, makes_three_records_at_the_start_and_no_fourth_until_one_is_freed) {
    EXPECT_EQ(table()->allocated, 3U);
    EXPECT_EQ(table()->capacity, 3U);
    for (zon_fid_t fid = 1; fid <= 3; ++fid)
        EXPECT_EQ(take_fid(), fid);
    EXPECT_EQ(take_fid(), 0U);
    EXPECT_TRUE(recycle(2));
    EXPECT_EQ(take_fid(), 2U);
    EXPECT_EQ(take_fid(), 0U);
    EXPECT_TRUE(is_free_for_others(table()->fid_table_lock));
}

TEST_F(fid_table_of_three, reuses_the_identifier_freed_first) {
    for (int i = 0; i < 3; ++i)
        take();
    recycle(2);
    recycle(1);
    EXPECT_EQ(take_fid(), 2U);
    EXPECT_EQ(take_fid(), 1U);
}

TEST_F(fid_table_of_three, reuses_a_freed_identifier_only_after_every_other_free_record) {
    EXPECT_EQ(take_fid(), 1U);
    recycle(1);
    EXPECT_EQ(take_fid(), 2U);
    EXPECT_EQ(take_fid(), 3U);
    EXPECT_EQ(take_fid(), 1U);
}

class fid_table_without_blocks : public fid_table {
protected:
    fid_table_without_blocks() { parameters.min_init_flows = 0; }
};

TEST_F(fid_table_without_blocks, never_makes_a_flow) {
    EXPECT_EQ(table()->allocated, 0U);
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(table()->allocated, 0U);
}

class fid_table_of_25 : public fid_table {
protected:
    fid_table_of_25() { parameters.max_flows = 25; }
};

TEST_F(fid_table_of_25, grows_by_blocks_of_ten_and_a_last_one_of_five) {
    std::vector<uint32_t> made;
    for (int i = 0; i < 25; ++i) {
        ASSERT_NE(take(), nullptr);
        made.push_back(table()->allocated);
    }
    EXPECT_EQ(std::vector<uint32_t>(made.begin(), made.begin() + 10),
              std::vector<uint32_t>(10, 10));
    EXPECT_EQ(std::vector<uint32_t>(made.begin() + 10, made.begin() + 20),
              std::vector<uint32_t>(10, 20));
    EXPECT_EQ(std::vector<uint32_t>(made.begin() + 20, made.end()), std::vector<uint32_t>(5, 25));
    EXPECT_EQ(take(), nullptr);
}

TEST_F(fid_table_of_25, lists_every_record_in_the_flow_table_in_the_order_of_their_identifiers) {
    for (int i = 0; i < 25; ++i)
        take();
    zon_fid_t expected = 1;
    for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
         flow = flow->next_flow)
        EXPECT_EQ(flow->fid, expected++);
    EXPECT_EQ(expected, 26U);
}

TEST_F(fid_table, hands_a_new_record_over_locked_once_and_in_its_slot) {
    zon_flow_t* flow = zon_fid_table_new_flow(table());
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(levels_held(flow->flow_lock), 1);
    EXPECT_EQ(table()->table[flow->fid - 1], flow);
    EXPECT_FALSE(flow->marked_for_delete);
    EXPECT_TRUE(is_free_for_others(table()->fid_table_lock));
    zon_unlock_internal(flow->flow_lock);
}

TEST_F(fid_table, marks_records_for_deletion_exactly_while_they_are_free) {
    for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
         flow = flow->next_flow)
        EXPECT_TRUE(flow->marked_for_delete) << "fid " << flow->fid;
    zon_flow_t* flow = take();
    EXPECT_FALSE(flow->marked_for_delete);
    recycle(flow->fid);
    EXPECT_TRUE(flow->marked_for_delete);
    EXPECT_EQ(table()->table[flow->fid - 1], nullptr);
    EXPECT_EQ(table()->free_tail, flow);
}

TEST_F(fid_table, looks_a_flow_up_locked) {
    zon_flow_t* flow = take();
    locked_flow found = zon_fid_table_lookup(table(), flow->fid);
    EXPECT_EQ(found.get(), flow);
    EXPECT_EQ(levels_held(flow->flow_lock), 1);
    EXPECT_TRUE(is_free_for_others(table()->fid_table_lock));
}

TEST_F(fid_table, finds_nothing_for_0_for_a_free_identifier_and_for_a_record_not_yet_made) {
    EXPECT_FALSE(zon_fid_table_lookup(table(), 0));
    EXPECT_FALSE(zon_fid_table_lookup(table(), 5));
    EXPECT_FALSE(zon_fid_table_lookup(table(), table()->capacity));
    const zon_fid_t fid = take_fid();
    recycle(fid);
    EXPECT_FALSE(zon_fid_table_lookup(table(), fid));
    EXPECT_TRUE(is_free_for_others(table()->fid_table_lock));
}

TEST_F(fid_table, hides_a_flow_that_is_dying) {
    zon_flow_t* flow = take();
    zon_flow_set_dying(flow, true);
    EXPECT_FALSE(zon_fid_table_lookup(table(), flow->fid));
    EXPECT_EQ(levels_held(flow->flow_lock), 0);
    {
        const deletion_in_progress on_this_thread(flow);
        EXPECT_TRUE(zon_fid_table_lookup(table(), flow->fid))
            << "the deleting thread itself still sees it";
    }
    zon_flow_set_dying(flow, false);
}

class fid_table_DeathTest : public fid_table {
protected:
    fid_table_DeathTest() { parameters.timers = false; }  // a program with one thread
};

TEST_F(fid_table_DeathTest, stops_the_program_for_an_identifier_above_its_capacity) {
    EXPECT_DEATH((void)zon_fid_table_lookup(table(), table()->capacity + 1),
                 "Assertion `fid_is_valid\\(fid_table, fid\\)' failed");
    EXPECT_DEATH(recycle(table()->capacity + 1),
                 "Assertion `fid_is_valid\\(fid_table, fid\\)' failed");
    EXPECT_DEATH(recycle(0), "Assertion `fid_is_valid\\(fid_table, fid\\)' failed");
}

TEST_F(fid_table_DeathTest, must_exist) {
    EXPECT_DEATH((void)zon_fid_table_lookup(nullptr, 1), "Assertion `fid_table' failed");
    EXPECT_DEATH(zon_fid_table_new_flow(nullptr),
                 "zon_fid_table_new_flow: Assertion `fid_table' failed");
}

TEST_F(fid_table, recycles_nothing_without_a_table_and_an_empty_slot_only_once) {
    EXPECT_FALSE(zon_fid_table_recycle_flow(nullptr, 1));
    const zon_fid_t fid = take_fid();
    EXPECT_TRUE(recycle(fid));
    const zon_flow_t* tail = table()->free_tail;
    EXPECT_TRUE(recycle(fid));
    EXPECT_EQ(table()->free_tail, tail);
    EXPECT_EQ(tail->next_free, nullptr);
}

// ---- flow locks ----

class fid_table_with_three_locks : public fid_table {
protected:
    fid_table_with_three_locks() { parameters.max_threads = 3; }
};

TEST_F(fid_table_with_three_locks, gives_each_record_the_lock_of_its_number_modulo_the_pool) {
    for (int i = 0; i < 12; ++i)
        take();
    for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
         flow = flow->next_flow)
        EXPECT_EQ(flow->flow_lock,
                  zon_lock_get_pool_lock(table()->locks, static_cast<int>((flow->fid - 1) % 3)))
            << "fid " << flow->fid;
    EXPECT_EQ(table()->lock_pool_size, 3U);
}

TEST_F(fid_table_with_three_locks,
       hands_out_a_flow_whose_lock_this_thread_holds_through_another_one) {
    zon_flow_t* first = zon_fid_table_new_flow(table());
    first->initiator_flow = first->responder_flow = nullptr;
    take();
    take();
    zon_flow_t* fourth = zon_fid_table_new_flow(table());
    fourth->initiator_flow = fourth->responder_flow = nullptr;
    ASSERT_EQ(first->flow_lock, fourth->flow_lock);
    EXPECT_EQ(levels_held(first->flow_lock), 2);
    zon_unlock_internal(first->flow_lock);
    zon_unlock_internal(first->flow_lock);
}

class fid_table_with_a_lock_for_each_flow : public fid_table {
protected:
    fid_table_with_a_lock_for_each_flow() { parameters.max_threads = parameters.max_flows; }
};

TEST_F(fid_table_with_a_lock_for_each_flow, keeps_it_in_the_record) {
    std::vector<zon_flow_t*> flows;
    for (int i = 0; i < 12; ++i)
        flows.push_back(take());
    for (zon_flow_t* flow : flows)
        EXPECT_EQ(flow->flow_lock, &::record_of(flow)->own_lock) << "fid " << flow->fid;
}

TEST_F(fid_table_with_a_lock_for_each_flow, never_gives_a_lock_to_two_flows) {
    zon_flow_t* first = zon_fid_table_new_flow(table());
    first->initiator_flow = first->responder_flow = nullptr;
    EXPECT_FALSE(is_free_for_others(first->flow_lock));
    for (int i = 0; i < 12; ++i)
        EXPECT_TRUE(is_free_for_others(take()->flow_lock));
    zon_unlock_internal(first->flow_lock);
    EXPECT_TRUE(is_free_for_others(first->flow_lock));
}

TEST_F(fid_table_with_a_lock_for_each_flow, keeps_it_over_the_flows_of_a_record) {
    zon_flow_t* first = take();
    const zon_lock_t lock = first->flow_lock;
    zon_lock_internal(lock);
    recycle(first->fid);
    EXPECT_FALSE(is_free_for_others(lock)) << "who waits for it may still do so";
    zon_unlock_internal(lock);
    EXPECT_EQ(first->flow_lock, lock);
}

class fid_table_without_threads : public fid_table {
protected:
    fid_table_without_threads() { parameters.max_threads = 0; }
};

TEST_F(fid_table_without_threads, still_has_one_flow_lock) {
    EXPECT_EQ(table()->lock_pool_size, 0U);
    const zon_flow_t* first = take();
    const zon_flow_t* second = take();
    EXPECT_EQ(first->flow_lock, second->flow_lock);
    EXPECT_EQ(first->flow_lock, zon_lock_get_pool_lock(table()->locks, 0));
}

// ---- the reset ----

void scribble(zon_flow_t* flow) {
    flow->next_free = flow->bundle_parent = flow->bundle_child = flow->bundle_sibling = flow;
    std::memset(&flow->l4state, 0xFF, sizeof flow->l4state);
    flow->packet_number = flow->first_payload_seen_on_pkt_num = 7;
    flow->num_l7_bytes = 7;
    flow->app_id = flow->age_ms = flow->bypass_id = 7;
    flow->is_dropped = flow->should_reset_timer = 1;
    flow->private_given_back = 3;
    flow->fo_list = reinterpret_cast<zon_flow_fo_t*>(flow);
    flow->tunnel_type = ZON_TUNNEL_TYPE_TEREDO;
    for (zon_super_context_t*& context : flow->super_ctx)
        context = reinterpret_cast<zon_super_context_t*>(flow);
    zon_flow_set_dying(flow, true);
}

TEST_F(fid_table_of_three, hands_a_reused_record_out_with_nothing_of_its_former_life) {
    zon_flow_t* flow = take();
    const zon_fid_t fid = flow->fid;
    const zon_lock_t lock = flow->flow_lock;
    zon_flow_t* const next_flow = flow->next_flow;
    scribble(flow);
    flow->next_free = nullptr;
    recycle(fid);
    take();
    take();
    ASSERT_EQ(take(), flow);

    EXPECT_EQ(flow->next_free, nullptr);
    EXPECT_EQ(flow->bundle_parent, nullptr);
    EXPECT_EQ(flow->bundle_child, nullptr);
    EXPECT_EQ(flow->bundle_sibling, nullptr);
    const zon_l4_state_t no_state{};
    EXPECT_EQ(std::memcmp(&flow->l4state, &no_state, sizeof no_state), 0);
    EXPECT_EQ(flow->packet_number, 0U);
    EXPECT_EQ(flow->first_payload_seen_on_pkt_num, 0U);
    EXPECT_EQ(flow->num_l7_bytes, 0U);
    EXPECT_EQ(flow->app_id, 0U);
    EXPECT_EQ(flow->age_ms, 0U);
    EXPECT_EQ(flow->bypass_id, 0U);
    EXPECT_FALSE(flow->is_dropped);
    EXPECT_FALSE(flow->marked_for_delete);
    EXPECT_FALSE(flow->should_reset_timer);
    EXPECT_FALSE(zon_flow_is_dying(flow));
    EXPECT_EQ(flow->private_given_back, 0);
    EXPECT_EQ(flow->fo_list, nullptr);
    EXPECT_EQ(flow->tunnel_type, ZON_TUNNEL_TYPE_NONE);
    for (const zon_super_context_t* context : flow->super_ctx)
        EXPECT_EQ(context, nullptr);

    EXPECT_EQ(flow->fid, fid);
    EXPECT_EQ(flow->flow_lock, lock);
    EXPECT_EQ(flow->next_flow, next_flow);
}

TEST_F(fid_table, keeps_half_flow_pointers_and_the_timer_at_a_reset) {
    zon_flow_t flow{};
    auto* half = reinterpret_cast<zon_half_flow_t*>(&flow);
    flow.initiator_flow = flow.responder_flow = half;
    std::memset(&flow.timer, 0x5A, sizeof flow.timer);
    const zon_tw_timer_t timer = flow.timer;
    zon_reset_flow(&flow);
    EXPECT_EQ(flow.initiator_flow, half);
    EXPECT_EQ(flow.responder_flow, half);
    EXPECT_EQ(std::memcmp(&flow.timer, &timer, sizeof timer), 0);
}

TEST_F(fid_table, makes_records_that_are_zero_but_for_number_lock_and_links) {
    // Memory of an earlier engine may be anything.
    const zon_flow_t* flow = g_zon->flow_tbl->flow_tail;
    zon_flow_t expected{};
    expected.fid = flow->fid;
    expected.flow_lock = flow->flow_lock;
    expected.marked_for_delete = 1;
    EXPECT_EQ(std::memcmp(flow, &expected, sizeof expected), 0);
}

// ---- memory ----

class fid_table_without_stack : public fid_table {
protected:
    fid_table_without_stack() { parameters.max_mem_buffer_init = 0; }
};

TEST_F(fid_table_without_stack, makes_no_flow_while_its_memory_is_exhausted) {
    for (int i = 0; i < 10; ++i)
        ASSERT_NE(take(), nullptr);
    const zon_flow_mem_t chunk = std::exchange(g_zon->zon_chunk_ptr.zon_flow_mem, nullptr);
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(table()->allocated, 10U);
    EXPECT_TRUE(is_free_for_others(table()->fid_table_lock));
    g_zon->zon_chunk_ptr.zon_flow_mem = chunk;
    EXPECT_EQ(take_fid(), 11U);
}

class fid_table_with_little_memory : public fid_table {
protected:
    fid_table_with_little_memory() { parameters.max_mem_buffer_init = 14; }
};

TEST_F(fid_table_with_little_memory, keeps_what_a_broken_off_block_has_made_for_the_next_call) {
    for (int i = 0; i < 10; ++i)
        ASSERT_NE(take(), nullptr);
    // Four records are left on the stack of ready ones, none in the chunk.
    const zon_flow_mem_t chunk = std::exchange(g_zon->zon_chunk_ptr.zon_flow_mem, nullptr);
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(table()->allocated, 14U);
    EXPECT_EQ(take_fid(), 11U);
    g_zon->zon_chunk_ptr.zon_flow_mem = chunk;
}

// ---- walks ----

struct fid_walk {
    zon_fid_table_t* table;
    std::vector<zon_fid_t> fids;
    std::vector<zon_error_t> meanwhile;
    bool any_lock_held = false;
};
// The walk hands the callback what it also uses as filter: one that lets everything pass.
struct walk_filter : zon_dump_flow_context {
    fid_walk* walk;
};

TEST_F(fid_table, calls_back_for_each_flow_in_use_and_outside_all_locks) {
    take();
    zon_flow_t* second = take();
    take();
    zon_flow_t* fourth = take();
    recycle(second->fid);
    fourth->marked_for_delete = 1;
    fid_walk walk{table(), {}, {}};
    walk_filter filter{};
    filter.walk = &walk;
    zon_fid_table_iterate_flow(
        table(),
        [](zon_flow_report_t* report, void* user) {
            fid_walk* seen = static_cast<walk_filter*>(user)->walk;
            seen->fids.push_back(report->fid);
            seen->meanwhile.push_back(zon_fid_table_is_available(seen->table));
            seen->any_lock_held |= !is_free_for_others(seen->table->fid_table_lock);
            zon_test::for_each_flow_lock(
                [seen](zon_lock_t lock) { seen->any_lock_held |= !is_free_for_others(lock); });
        },
        &filter);
    EXPECT_EQ(walk.fids, (std::vector<zon_fid_t>{1, 3}));
    EXPECT_EQ(walk.meanwhile, std::vector<zon_error_t>(2, zon_error_fid_table_access_failed));
    EXPECT_FALSE(walk.any_lock_held);
    EXPECT_EQ(zon_fid_table_is_available(table()), zon_error_none);
    EXPECT_EQ(zon_fid_table_is_available(nullptr), zon_error_fid_table_access_failed);
    fourth->marked_for_delete = 0;
}

}  // namespace

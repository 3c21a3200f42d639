// zon_lock_order_test.cpp - the order of docs/locking.md, pair by pair, and the check that stops
// whoever waits against it.

#include "osal/zon_lock_order.h"

#ifdef ZON_CHECK_LOCK_ORDER

#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <thread>
#include <vector>

#include "osal/linux/zon_lock_classes.h"
#include "osal/zon_mem.h"
#include "support/engine_fixture.h"
#include "support/lanes.h"
#include "vem/vem_lock_order.h"
#include "zon_engine/zon_quarantine.h"
#include "zon_engine_inline.h"
#include "zon_flow_table_inline.h"
#include "zon_frag.h"
#include "zon_hashset.h"

namespace {

std::vector<const vem_lock_class*> all_classes() {
    std::vector<const vem_lock_class*> classes;
    for (const lock_class_row& row : lock_class_rows)
        classes.push_back(zon_vem_lock_class(row.of));
    for (const vem_lock_class& of : vem_lock_classes)
        classes.push_back(&of);
    return classes;
}

// The rows of the document's table: a lock's name and its step.
std::map<std::string, int> documented_steps() {
    std::ifstream document("docs/locking.md");
    const std::regex row(R"(^\| (\d+) \| ([^|]+) \|.*)");
    std::map<std::string, int> steps;
    std::smatch found;
    for (std::string line; std::getline(document, line);)
        if (std::regex_match(line, found, row))
            steps[found[2]] = std::stoi(found[1]);
    return steps;
}

int documented_step(const vem_lock_class& of) {
    const auto steps = documented_steps();
    const auto found = steps.find(of.name);
    return found != steps.end() ? found->second : -1;
}

// Stands for a lock: the check knows locks by their addresses.
struct pretended_lock {
    const vem_lock_class* of;
    int entry = 0;

    void take() const { vem_lock_taken(of, this, entry); }
    void wait() const {
        vem_lock_wanted(of, this, entry);
        take();
    }
    void release() const { vem_lock_released(this); }
};

// Holds a lock of a class for a scope.
class held_of_class {
public:
    explicit held_of_class(const vem_lock_class& of, int entry = 0) : lock_{&of, entry} {
        lock_.take();
    }
    ~held_of_class() { lock_.release(); }
    held_of_class(const held_of_class&) = delete;
    held_of_class& operator=(const held_of_class&) = delete;

private:
    pretended_lock lock_;
};

class a_lock_held : public ::testing::TestWithParam<const vem_lock_class*> {};

std::string test_name(const ::testing::TestParamInfo<const vem_lock_class*>& info) {
    return std::regex_replace(info.param->name, std::regex("[^a-z]"), "_");
}

struct lock_of_class {
    explicit lock_of_class(lock_class of) {
        zon_lock_init(lock);
        zon_lock_set_class(lock, of);
    }
    ~lock_of_class() {
        zon_lock_destroy(lock);
        free(lock);
    }
    lock_of_class(const lock_of_class&) = delete;
    lock_of_class& operator=(const lock_of_class&) = delete;
    zon_lock_t lock = zon_lock_allocate();
};

}  // namespace

TEST(lock_classes, are_the_rows_of_the_document) {
    const auto documented = documented_steps();
    EXPECT_EQ(documented.size(), all_classes().size());
    for (const vem_lock_class* of : all_classes())
        EXPECT_EQ(documented_step(*of), of->step) << of->name;
}

TEST_P(a_lock_held, lets_its_thread_wait_for_every_later_step) {
    const held_of_class held(*GetParam());
    for (const vem_lock_class* wanted : all_classes()) {
        if (documented_step(*wanted) <= documented_step(*GetParam()))
            continue;
        SCOPED_TRACE(wanted->name);
        EXPECT_TRUE(vem_lock_may_wait(GetParam(), 0, wanted, 0));
        const pretended_lock lock{wanted};
        lock.wait();
        lock.release();
    }
}

TEST_P(a_lock_held, stops_its_thread_from_waiting_for_any_other) {
    const held_of_class held(*GetParam());
    for (const vem_lock_class* wanted : all_classes()) {
        if (documented_step(*wanted) > documented_step(*GetParam()) || wanted == GetParam())
            continue;
        EXPECT_FALSE(vem_lock_may_wait(GetParam(), 0, wanted, 0)) << wanted->name;
        const pretended_lock lock{wanted};
        EXPECT_DEATH(lock.wait(), std::string("lock order: .*\n *") + wanted->name +
                                      " 0 (.*\n)*.*" + GetParam()->name + " 0 .*in the way");
    }
}

// Bucket locks stand in a row, and of flow locks a host may hold several.
TEST_P(a_lock_held, stands_to_others_of_its_class_as_the_document_says) {
    const std::string name = GetParam()->name;
    const pretended_lock first{GetParam(), 3};
    const pretended_lock second{GetParam(), 4};
    const bool rises = name == "bucket lock" || name == "flow lock";
    const bool falls = name == "flow lock";
    for (const auto& [held, wanted, allowed] :
         {std::tuple(first, second, rises), std::tuple(second, first, falls)}) {
        held.take();
        if (allowed) {
            wanted.wait();
            wanted.release();
        } else {
            EXPECT_DEATH(wanted.wait(), "lock order: ") << held.entry << " " << wanted.entry;
        }
        held.release();
    }
}

TEST_P(a_lock_held, is_taken_again_and_tried_for_in_any_order) {
    const pretended_lock lock{GetParam(), 7};
    for (const vem_lock_class* inner : all_classes()) {
        const pretended_lock tried{inner, 2};
        lock.wait();
        tried.take();
        lock.wait();
        lock.release();
        tried.release();
        lock.release();
    }
    // Nothing is left of it.
    for (const vem_lock_class* of : all_classes()) {
        const pretended_lock next{of};
        next.wait();
        next.release();
    }
}

INSTANTIATE_TEST_SUITE_P(docs_locking_md, a_lock_held, ::testing::ValuesIn(all_classes()),
                         test_name);

TEST(order_of_locks, stops_a_wait_against_it_with_the_entries_of_both) {
    const zon_lock_pool_t pool = zon_lock_create_pool(4);
    ASSERT_NE(pool, nullptr);
    zon_lock_set_class_of_pool(pool, 4, lock_class::bucket);
    EXPECT_EQ(zon_lock_pool_internal(pool, 2), 0);
    EXPECT_EQ(zon_lock_pool_internal(pool, 2), 0);
    EXPECT_EQ(zon_lock_pool_internal(pool, 3), 0);
    EXPECT_DEATH(zon_lock_pool_internal(pool, 1),
                 "lock order: (.*\n)*  bucket lock 1 (.*\n)*  bucket lock 2 .*2 deep.*in the "
                 "way\n  bucket lock 3 .*1 deep.*in the way");
    EXPECT_EQ(zon_unlock_pool_internal(pool, 3), 0);
    EXPECT_EQ(zon_unlock_pool_internal(pool, 2), 0);
    EXPECT_DEATH(zon_lock_pool_internal(pool, 1), "lock order: ");
    EXPECT_EQ(zon_unlock_pool_internal(pool, 2), 0);
    EXPECT_EQ(zon_lock_pool_internal(pool, 1), 0);
    EXPECT_EQ(zon_unlock_pool_internal(pool, 1), 0);
    zon_lock_destroy_pool(pool, 4);
}

TEST(order_of_locks, takes_a_lock_that_was_tried_for_as_held) {
    const lock_of_class outer(lock_class::fid_table);
    const lock_of_class inner(lock_class::bucket);
    zon_lock_internal(inner.lock);
    EXPECT_TRUE(zon_try_lock_internal(outer.lock));
    zon_unlock_internal(inner.lock);
    const lock_of_class first(lock_class::flow);
    EXPECT_DEATH(zon_lock_internal(first.lock), "lock order: (.*\n)*.*fid_table_lock 0");
    zon_unlock_internal(outer.lock);
}

TEST(order_of_locks, is_not_asked_of_a_lock_without_a_class) {
    const lock_of_class inner(lock_class::bucket);
    const zon_lock_t nameless = zon_lock_allocate();
    zon_lock_init(nameless);
    zon_lock_internal(inner.lock);
    EXPECT_EQ(zon_lock_internal(nameless), 0);
    EXPECT_EQ(zon_unlock_internal(nameless), 0);
    zon_unlock_internal(inner.lock);
    zon_lock_destroy(nameless);
    free(nameless);
}

TEST(order_of_locks, bears_an_unlock_by_a_thread_that_does_not_hold_it) {
    const lock_of_class inner(lock_class::bucket);
    const lock_of_class outer(lock_class::flow);
    zon_lock_internal(inner.lock);
    std::thread([&inner] { EXPECT_NE(zon_unlock_internal(inner.lock), 0); }).join();
    EXPECT_DEATH(zon_lock_internal(outer.lock), "lock order: ");
    zon_unlock_internal(inner.lock);
    EXPECT_EQ(zon_lock_internal(outer.lock), 0);
    zon_unlock_internal(outer.lock);
}

TEST(order_of_locks, forgets_a_lock_that_is_destroyed) {
    const lock_of_class outer(lock_class::flow);
    {
        const lock_of_class inner(lock_class::bucket);
        zon_lock_internal(inner.lock);
    }
    EXPECT_EQ(zon_lock_internal(outer.lock), 0);
    zon_unlock_internal(outer.lock);
}

TEST(order_of_locks, holds_for_standard_mutexes) {
    ordered_mutex<lock_class::clients> clients;
    ordered_mutex<lock_class::memory> memory;
    {
        const std::scoped_lock outer(clients);
        const std::scoped_lock inner(memory);
    }
    const std::scoped_lock inner(memory);
    EXPECT_DEATH(const std::scoped_lock outer(clients),
                 "lock order: (.*\n)*  client list 0 (.*\n)*  memory stack 0 ");
}

TEST(order_of_locks, lets_a_host_wait_for_a_second_flow_but_not_the_engine) {
    const lock_of_class first(lock_class::flow);
    const lock_of_class second(lock_class::flow);
    const auto take_second = [&second] {
        zon_lock_internal(second.lock);
        zon_unlock_internal(second.lock);
    };
    zon_flow_t flow{};
    flow.flow_lock = first.lock;
    zon_lock_internal(first.lock);
    take_second();
    locked_flow held = locked_flow::adopt(&flow);
    EXPECT_DEATH(take_second(), "lock order: (.*\n)*.*not for a user  <- in the way");
    {
        const client_function called;
        take_second();
        zon_lock_internal(first.lock);
        const locked_flow once_more = locked_flow::adopt(&flow);
        EXPECT_DEATH(take_second(), "lock order: ");
    }
    EXPECT_DEATH(take_second(), "lock order: ");
    zon_flow_t* handed_over = std::move(held).hand_over();
    take_second();
    zon_unlock_internal(handed_over->flow_lock);
}

TEST(order_of_locks, finds_what_a_lookup_would_have_awaited) {
    const lock_of_class lock(lock_class::flow);
    const lock_of_class table(lock_class::fid_table);
    zon_flow_t flow{};
    flow.flow_lock = lock.lock;
    EXPECT_TRUE(zon_try_lock_internal(lock.lock));
    zon_flow_could_wait(&flow);
    zon_lock_internal(table.lock);
    EXPECT_DEATH(zon_flow_could_wait(&flow), "lock order: (.*\n)*.*fid_table_lock 0");
    // One more level of a lock that is held is never awaited.
    EXPECT_TRUE(zon_try_lock_internal(lock.lock));
    zon_flow_could_wait(&flow);
    zon_unlock_internal(lock.lock);
    zon_unlock_internal(table.lock);
    zon_unlock_internal(lock.lock);
}

// ---- the engine's own locks have their classes ----

namespace {

struct operation_row {
    lock_class first;  // the first lock that the operation waits for
    std::function<void(zon_flow_t*)> run;
};

void take_statistics_of_table() {
    int32_t size, used, empty, occupied, average, maximum;
    uint32_t inserts, deletes, aged;
    zon_flow_table_statistics(g_zon->flow_tbl, &size, &used, &empty, &occupied, &average, &maximum,
                              &inserts, &deletes, &aged, nullptr, nullptr);
}
void take_statistics_of_set() {
    int size, used, empty, occupied, average, maximum;
    zon_hashset_get_statistics(g_zon->flow_tbl->table, &size, &used, &empty, &occupied, &average,
                               &maximum, nullptr);
}

// All classes but the stand-in lock, which is never the first.
const std::vector<operation_row> operation_rows = {
    {lock_class::flow, [](zon_flow_t* flow) { zon_inst_mark_flow_for_delete(flow); }},
    {lock_class::fid_table,
     [](zon_flow_t* flow) { zon_fid_table_recycle_flow(g_zon->fid_table, flow->fid); }},
    {lock_class::flow_table, [](zon_flow_t*) { zon_flow_table_num_elements(g_zon->flow_tbl); }},
    {lock_class::quarantine, [](zon_flow_t*) { zon_private_release_quarantine(); }},
    {lock_class::bucket, [](zon_flow_t*) { take_statistics_of_set(); }},
    {lock_class::bundle, [](zon_flow_t* flow) { zon_private_unbind(flow); }},
    {lock_class::super_context,
     [](zon_flow_t*) {
         zon_super_context_traverse_flows(ZON_SUPER_CONTEXT_IDENTITY, 1,
                                          [](zon_fid_t) { return true; });
     }},
    {lock_class::fragment, [](zon_flow_t*) { zon_frag_entry_count(g_zon->frag_table); }},
    {lock_class::preflow_counts,
     [](zon_flow_t*) {
         zon_private_increment_incomplete_inserts(g_zon->flow_tbl, ZON_IPV4_KEY_VRF_STAR);
     }},
    {lock_class::dump_marks, [](zon_flow_t*) { take_statistics_of_table(); }},
    {lock_class::clients,
     [](zon_flow_t*) {
         zon_client_id_e id;
         zon_client_feature_register(&id);
     }},
    {lock_class::lane_counts,
     [](zon_flow_t*) {
         zon_test::own_a_lane();
         zon_lane_counts_settle();
     }},
    {lock_class::record_lane,
     [](zon_flow_t* flow) {
         zon_test::own_a_lane();
         zon_fid_table_recycle_flow(g_zon->fid_table, flow->fid);
     }},
    {lock_class::memory_lane,
     [](zon_flow_t*) {
         zon_test::own_a_lane();
         zon_private_chunk_malloc(ZON_IPV4_HALF_FLOW_MEM_TYPE, &g_zon->zon_chunk_ptr);
     }},
    {lock_class::memory,
     [](zon_flow_t*) {
         // Of flow records none is ready any more: a stack at its end is passed by.
         zon_private_chunk_malloc(ZON_IPV4_HALF_FLOW_MEM_TYPE, &g_zon->zon_chunk_ptr);
     }},
};

class locks_of_the_engine : public zon_test::engine_fixture {
protected:
    locks_of_the_engine() { parameters.timers = false; }
    void SetUp() override {
        zon_test::engine_fixture::SetUp();
        zon_test::give_lanes_to_the_table();
    }
};

}  // namespace

TEST_F(locks_of_the_engine, have_the_classes_of_their_rows) {
    const zon_fid_t fid =
        handle(zon_test::packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1000, 53)).fid;
    ASSERT_NE(fid, 0u);
    zon_flow_t* flow = g_zon->fid_table->table[fid - 1];
    for (const operation_row& row : operation_rows) {
        const vem_lock_class& first = *zon_vem_lock_class(row.first);
        const vem_lock_class barrier{"barrier", first.step, VEM_LOCK_ALONE};
        const held_of_class held(barrier);
        EXPECT_DEATH(row.run(flow), std::string("may not wait for\n  ") + first.name + " [0-9]+ ")
            << first.name;
    }
    EXPECT_EQ(operation_rows.size() + 1, lock_class_rows.size());
}

#endif

// zon_flow_table_walk_test.cpp - the list of flows, and walks over flows and half flows.

#include <set>
#include <vector>

#include "src/zon_flow_table_fixture.h"

namespace {

using namespace zon_test;

TEST_F(flow_table, lists_records_in_the_order_of_linking_and_stops_when_told) {
    zon_flow_t records[3]{};
    records[0].next_flow = &records[2];
    for (zon_flow_t& record : records)
        zon_flow_table_link(table, &record);
    EXPECT_EQ(table->flow_head, &records[0]);
    EXPECT_EQ(table->flow_tail, &records[2]);
    EXPECT_EQ(records[2].next_flow, nullptr);

    std::vector<zon_flow_t*> seen;
    const auto note = [](zon_flow_t* flow, void* user) {
        auto* list = static_cast<std::vector<zon_flow_t*>*>(user);
        list->push_back(flow);
        return list->size() != 2;
    };
    zon_flow_table_iterate_flow(table, note, &seen);
    EXPECT_EQ(seen, (std::vector<zon_flow_t*>{&records[0], &records[1]}));
    EXPECT_EQ(levels_held(table->flow_table_lock), 0);
}

TEST_F(flow_table, passes_free_records_to_a_walk_too) {
    zon_flow_t record{};
    record.marked_for_delete = 1;
    zon_flow_table_link(table, &record);
    int calls = 0;
    zon_flow_table_iterate_flow(
        table, [](zon_flow_t*, void* user) { return ++*static_cast<int*>(user) > 0; }, &calls);
    EXPECT_EQ(calls, 1);
}

struct half_walk {
    zon_flow_table_t* table;
    std::set<zon_half_flow_t*> seen;
    zon_error_t meanwhile = zon_error_none;
    int lock_levels = 0;
};

TEST_F(flow_table, walks_all_half_flows_under_its_lock_whatever_the_callback_returns) {
    two_sided& made = put();
    half_walk walk{table, {}};
    zon_flow_table_iterate_half_flow(
        table,
        [](zon_half_flow_t* half, void* user) {
            auto* noted = static_cast<half_walk*>(user);
            noted->seen.insert(half);
            noted->meanwhile = zon_flow_table_is_available(noted->table);
            noted->lock_levels = levels_held(noted->table->flow_table_lock);
            return false;
        },
        &walk);
    EXPECT_EQ(walk.seen, (std::set<zon_half_flow_t*>{made.initiator(), made.responder()}));
    EXPECT_EQ(walk.meanwhile, zon_error_flow_table_access_failed);
    EXPECT_EQ(walk.lock_levels, 1);
    EXPECT_EQ(zon_flow_table_is_available(table), zon_error_none);
}

TEST_F(flow_table, is_not_available_while_it_is_in_use) {
    EXPECT_EQ(zon_flow_table_is_available(table), zon_error_none);
    table->in_use = true;
    EXPECT_EQ(zon_flow_table_is_available(table), zon_error_flow_table_access_failed);
    table->in_use = false;
}

TEST_F(flow_table, holds_twice_as_many_elements_as_flows) {
    for (uint32_t port = 1; port <= 25; ++port) {
        key_fields fields;
        fields.src_port = port;
        put(fields);
        EXPECT_EQ(zon_flow_table_num_elements(table), 2 * port);
    }
}

}  // namespace

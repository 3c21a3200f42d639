// zon_bundle_test.cpp - parents and children: links formed, broken and walked.

#include <atomic>
#include <barrier>

#include "api_fixture.h"
#include "support/allocation_faults.h"
#include "support/watchdog.h"

using namespace zon_test;

namespace {

constexpr auto requested = ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST;

std::vector<zon_fid_t> visited;
void (*while_visiting)(zon_fid_t) = nullptr;
bool visit(const zon_flow_ptr_t child) {
    visited.push_back(child);
    if (while_visiting != nullptr)
        while_visiting(child);
    return false;  // ignored
}

class bundles : public api_fixture {
protected:
    void SetUp() override {
        api_fixture::SetUp();
        while_visiting = nullptr;
        parent = udp_flow(900);
    }
    void with_three_children() {
        a = child_of(parent, 1001);
        b = child_of(parent, 1002);
        c = child_of(parent, 1003);
    }
    static std::vector<zon_fid_t> children_of(zon_fid_t of) {
        visited.clear();
        EXPECT_EQ(zon_flow_traverse_child_flows(of, visit), zon_error_none);
        return visited;
    }
    static zon_fid_t parent_of(zon_fid_t child) {
        zon_fid_t found = 99;
        zon_flow_get_parent(child, &found);
        return found;
    }
    static std::vector<zon_fid_t> fids(std::initializer_list<zon_fid_t> of) { return of; }

    zon_fid_t parent = 0;
    zon_fid_t a = 0;
    zon_fid_t b = 0;
    zon_fid_t c = 0;
};

TEST(bundles_without_an_engine, say_so) {
    EXPECT_EQ(zon_flow_get_parent(1, nullptr), zon_error_engine_not_init);
    EXPECT_EQ(zon_flow_traverse_child_flows(1, nullptr), zon_error_engine_not_init);
}

// A parent may go while its child is made, and the child get its record and its identifier.
TEST_F(bundles, never_bind_a_flow_to_itself) {
    zon_flow_t* flow = record_of(parent);
    const held_lock held(flow->flow_lock);
    zon_private_set_parent(flow, flow, parent);
    EXPECT_EQ(parent_of(parent), ZON_NULL_FID);
    EXPECT_TRUE(children_of(parent).empty());
}

TEST_F(bundles, refuse_null_pointers_before_the_flow) {
    EXPECT_EQ(zon_flow_get_parent(parameters.max_flows + 1, nullptr), zon_error_parameter_is_null);
    EXPECT_EQ(zon_flow_traverse_child_flows(parameters.max_flows + 1, nullptr),
              zon_error_parameter_is_null);
}

TEST_F(bundles, of_a_flow_that_was_never_a_child_have_no_parent) {
    zon_fid_t found = 99;
    EXPECT_EQ(zon_flow_get_parent(parent, &found), zon_error_parent_fid_not_found);
    EXPECT_EQ(found, 0u);
    EXPECT_FALSE(is_locked(record_of(parent)));
}

TEST_F(bundles, of_no_flow_are_reported_by_each_operation_in_its_own_way) {
    zon_debug_flag_engine = true;
    const std::string text = "\nZON Engine: ZON_ERRMSG_CLIENT_API, ";
    for (const zon_fid_t missing : {zon_fid_t{0}, parent + 1}) {
        zon_fid_t found = 99;
        const std::string got = traced(
            [&] { EXPECT_EQ(zon_flow_get_parent(missing, &found), zon_error_flow_not_found); });
        EXPECT_EQ(found, 0u);
        EXPECT_NE(got.find(text), std::string::npos);
        const std::string walked = traced([&] {
            EXPECT_EQ(zon_flow_traverse_child_flows(missing, visit),
                      zon_error_parent_fid_not_found);
        });
        EXPECT_NE(walked.find(text), std::string::npos);
    }
    zon_fid_t found = 99;
    EXPECT_NE(traced([&] { zon_flow_get_parent(parent, &found); }).find(text), std::string::npos);
    zon_debug_flag_engine = false;
}

TEST_F(bundles, are_formed_at_promotion_newest_child_first) {
    with_three_children();
    EXPECT_EQ(children_of(parent), fids({c, b, a}));
    for (const zon_fid_t child : {a, b, c})
        EXPECT_EQ(parent_of(child), parent);
}

TEST_F(bundles, show_the_parent_of_an_announced_flow_before_the_parent_lists_it) {
    const zon_fid_t announced =
        pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2), parent);
    EXPECT_EQ(parent_of(announced), parent);
    EXPECT_EQ(children_of(parent), fids({}));
}

TEST_F(bundles, are_formed_by_wildcard_announcements_too) {
    pre_flow(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, tuple4(0, 0, host_b, 2000), parent);
    const zon_fid_t child = handle(udp_packet(1001, 2000)).fid;
    EXPECT_EQ(children_of(parent), fids({child}));
}

TEST_F(bundles, visit_with_parent_and_child_locked) {
    with_three_children();
    static zon_fid_t of;
    of = parent;
    while_visiting = [](zon_fid_t child) {
        EXPECT_TRUE(is_locked(record_of(of)));
        EXPECT_TRUE(is_locked(record_of(child)));
        uint32_t count = 0;
        EXPECT_EQ(zon_flow_get_packet_count(child, &count), zon_error_none);
    };
    EXPECT_EQ(children_of(parent).size(), 3u);
    for (const zon_fid_t flow : {parent, a, b, c})
        EXPECT_FALSE(is_locked(record_of(flow)));
}

TEST_F(bundles, lose_every_listed_child_with_the_first) {
    with_three_children();
    zon_delete_flow_tamonet(c, requested);
    EXPECT_EQ(children_of(parent), fids({}));
    // The siblings that fell off still know their parent.
    EXPECT_EQ(parent_of(b), parent);
    EXPECT_EQ(parent_of(a), parent);
}

TEST_F(bundles, close_up_when_a_later_child_goes) {
    with_three_children();
    zon_delete_flow_tamonet(b, requested);
    EXPECT_EQ(children_of(parent), fids({c, a}));
    zon_delete_flow_tamonet(a, requested);
    EXPECT_EQ(children_of(parent), fids({c}));
}

TEST_F(bundles, leave_a_deleted_child_without_links_wherever_it_stood) {
    with_three_children();
    const zon_fid_t unlisted =
        pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2), parent);
    for (const zon_fid_t child : {unlisted, a, b, c}) {
        const zon_flow_t* record = record_of(child);
        ASSERT_EQ(record->bundle_parent, record_of(parent));
        zon_delete_flow_tamonet(child, requested);
        EXPECT_EQ(record->bundle_parent, nullptr);
        EXPECT_EQ(record->bundle_sibling, nullptr);
    }
}

TEST_F(bundles, of_a_deleted_parent_leave_orphans) {
    with_three_children();
    zon_delete_flow_tamonet(parent, requested);
    for (const zon_fid_t child : {a, b, c}) {
        ASSERT_NE(record_of(child), nullptr);
        EXPECT_EQ(parent_of(child), 0u);
        EXPECT_EQ(record_of(child)->bundle_sibling, nullptr);
    }
}

TEST_F(bundles, keep_a_deleted_flow_that_was_parent_and_child_on_its_parents_list) {
    with_three_children();
    child_of(c, 2001);
    zon_flow_t* record = record_of(c);
    zon_delete_flow_tamonet(c, requested);
    EXPECT_EQ(record_of(parent)->bundle_child, record);
    // The dead one is passed over, what stands behind it is not.
    EXPECT_EQ(children_of(parent), fids({b, a}));
}

TEST_F(bundles, end_a_walk_whose_visitor_deletes_the_child) {
    with_three_children();
    while_visiting = [](zon_fid_t child) { zon_delete_flow_tamonet(child, requested); };
    EXPECT_EQ(children_of(parent), fids({c}));
    EXPECT_FALSE(is_locked(record_of(parent)));
}

TEST_F(bundles, end_a_walk_whose_visitor_deletes_the_parent) {
    with_three_children();
    static zon_fid_t of;
    of = parent;
    zon_flow_t* record = record_of(parent);
    while_visiting = [](zon_fid_t) { zon_delete_flow_tamonet(of, requested); };
    EXPECT_EQ(children_of(parent), fids({c}));
    EXPECT_FALSE(is_locked(record));
}

TEST_F(bundles, go_on_when_a_visitor_drops_the_rest_of_the_list) {
    with_three_children();
    // Deleting the first child from within the second empties the parent's list; the links behind
    // the second stay.
    static zon_fid_t first;
    static zon_fid_t second;
    first = c;
    second = b;
    while_visiting = [](zon_fid_t child) {
        if (child == second)
            zon_delete_flow_tamonet(first, requested);
    };
    EXPECT_EQ(children_of(parent), fids({c, b, a}));
    EXPECT_EQ(children_of(parent), fids({}));
}

TEST_F(bundles, that_form_a_circle_are_walked_no_further_than_the_table_is_long) {
    with_three_children();
    record_of(a)->bundle_sibling = record_of(c);
    EXPECT_EQ(children_of(parent).size(), g_zon->fid_table->allocated);
    zon_delete_flow_tamonet(parent, requested);
    EXPECT_EQ(parent_of(a), 0u);
}

TEST_F(bundles, that_form_a_circle_are_searched_no_further_than_the_table_is_long) {
    with_three_children();
    const zon_fid_t unlisted =
        pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2), parent);
    record_of(a)->bundle_sibling = record_of(c);
    {
        const watchdog watched(std::chrono::seconds(30), [] {});
        EXPECT_TRUE(zon_delete_flow_tamonet(unlisted, requested));
    }
    record_of(a)->bundle_sibling = nullptr;
    EXPECT_EQ(children_of(parent), fids({c, b, a}));
}

TEST_F(bundles, are_walked_to_the_end_without_memory_for_what_was_visited) {
    with_three_children();
    visited.clear();
    visited.reserve(8);
    zon_error_t error = zon_error_memory;
    int times_failed = 0;
    {
        const failing_operator_new failing;
        error = zon_flow_traverse_child_flows(parent, visit);
        times_failed = failing.times_failed();
    }
    EXPECT_EQ(error, zon_error_none);
    EXPECT_GT(times_failed, 0) << "the walk asked for no memory";
    EXPECT_EQ(visited, fids({c, b, a}));
    for (const zon_fid_t flow : {parent, a, b, c})
        EXPECT_FALSE(is_locked(record_of(flow)));
}

// The circle is formed as hosts can form it: a deleted child that had children of its own stays
// listed, its record comes back as another child, and then both of the circle's members go.
class bundles_in_a_small_table : public bundles {
protected:
    bundles_in_a_small_table() {
        parameters.max_flows = 6;
        parameters.min_init_flows = 6;
    }
};

TEST_F(bundles_in_a_small_table, that_form_a_circle_of_dead_records_are_left) {
    const zon_fid_t first = child_of(parent, 1001);
    const zon_fid_t second = child_of(parent, 1002);
    child_of(first, 2001);
    const zon_fid_t others[] = {udp_flow(3000), udp_flow(3001)};
    zon_delete_flow_tamonet(first, requested);
    const zon_fid_t again = child_of(parent, 1003);
    ASSERT_EQ(again, first) << "the record came back";
    for (const zon_fid_t other : others)
        zon_delete_flow_tamonet(other, requested);
    child_of(again, 2002);
    child_of(second, 2003);
    EXPECT_EQ(children_of(parent).size(), g_zon->fid_table->allocated);
    zon_delete_flow_tamonet(again, requested);
    zon_delete_flow_tamonet(second, requested);
    EXPECT_EQ(children_of(parent), fids({}));
    EXPECT_FALSE(is_locked(record_of(parent)));
}

// ---- threads ----

class bundles_of_separate_locks : public bundles {
protected:
    bundles_of_separate_locks() { parameters.max_threads = 64; }
};

TEST_F(bundles_of_separate_locks, wait_for_a_locked_child_without_holding_the_parent) {
    with_three_children();
    zon_lock_t lock = nullptr;
    zon_fid_t held = 0;
    const zon_flow_tuple_t of_c = tuple4(host_a, 1003, host_b, 2000);
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &of_c, &held, &lock),
              zon_error_none);
    ASSERT_EQ(held, c);
    std::thread walker([&] { children_of(parent); });
    // Deleting the child takes the bundle apart while the walker waits for it, or just before it
    // does.
    zon_delete_flow_tamonet(c, requested);
    uint32_t count = 0;
    EXPECT_EQ(zon_flow_get_packet_count(parent, &count), zon_error_none);
    zon_flow_unlock(lock);
    walker.join();
    EXPECT_EQ(children_of(parent), fids({}));
}

TEST_F(bundles, are_walked_promoted_and_deleted_by_many_threads) {
    constexpr int rounds = 150;
    const zon_fid_t other = udp_flow(901);
    std::barrier start(4);
    std::atomic<int> walks = 0;
    const auto walk = [&](zon_fid_t of) {
        start.arrive_and_wait();
        for (int i = 0; i < rounds; ++i) {
            EXPECT_EQ(zon_flow_traverse_child_flows(of,
                                                    [](const zon_flow_ptr_t child) {
                                                        uint32_t count = 0;
                                                        zon_flow_get_packet_count(child, &count);
                                                        return true;
                                                    }),
                      zon_error_none);
            ++walks;
        }
    };
    const auto breed = [&](zon_fid_t of, uint16_t first_port) {
        start.arrive_and_wait();
        for (int i = 0; i < rounds; ++i) {
            const auto port = static_cast<uint16_t>(first_port + i);
            const zon_fid_t child = child_of(of, port);
            zon_fid_t found = 0;
            EXPECT_EQ(zon_flow_get_parent(child, &found), zon_error_none);
            EXPECT_EQ(found, of);
            if (i % 3 != 0) {
                EXPECT_TRUE(zon_delete_flow_tamonet(child, requested));
            }
        }
    };
    std::vector<std::thread> running;
    running.emplace_back(walk, parent);
    running.emplace_back(walk, other);
    running.emplace_back(breed, parent, uint16_t{3000});
    running.emplace_back(breed, other, uint16_t{4000});
    for (std::thread& thread : running)
        thread.join();
    EXPECT_EQ(walks, 2 * rounds);
    EXPECT_EQ(elements(), 2u * (2 + 2 * (rounds / 3)));
    for (const zon_fid_t flow : {parent, other})
        EXPECT_FALSE(is_locked(record_of(flow)));
}

}  // namespace

// zon_hashset_walk_test.cpp - walks over a hash set, and its statistics.

#include "zon_hashset.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "src/zon_hashset_items.h"

namespace {

using namespace zon_test;

// ---- walks ----

TEST_F(hashset, walks_its_buckets_in_order_and_each_chain_from_the_newest) {
    create();
    put(5, 1);
    put(0, 2);
    put(5, 3);
    put(12, 4);
    std::vector<uint32_t> order;
    zon_hashset_iterate(
        set_,
        [](zon_hashset, zon_hashset_item it, void* context) {
            static_cast<std::vector<uint32_t>*>(context)->push_back(
                static_cast<zon_half_flow_t*>(it)->key.vrf_id);
        },
        &order);
    EXPECT_EQ(order, (std::vector<uint32_t>{2, 3, 1, 4}));
}

TEST_F(hashset, lets_a_walk_remove_the_item_it_is_at) {
    create();
    for (uint32_t number = 0; number < 60; ++number)
        put(number, number);
    int visited = 0;
    zon_hashset_iterate(
        set_,
        [](zon_hashset set, zon_hashset_item it, void* context) {
            ++*static_cast<int*>(context);
            zon_hashset_remove(set, it);
        },
        &visited);
    EXPECT_EQ(visited, 60);
    EXPECT_EQ(zon_hashset_size(set_), 0);
}

TEST_F(hashset, is_not_available_while_walks_run) {
    create();
    put(1, 1);
    EXPECT_TRUE(zon_hashset_is_available(set_));
    zon_hashset_iterate(
        set_,
        [](zon_hashset set, zon_hashset_item, void*) {
            EXPECT_EQ(set->iterating, 1);
            EXPECT_FALSE(zon_hashset_is_available(set));
            zon_hashset_iterate(
                set,
                [](zon_hashset inner, zon_hashset_item, void*) { EXPECT_EQ(inner->iterating, 2); },
                nullptr);
            EXPECT_FALSE(zon_hashset_is_available(set));
        },
        nullptr);
    EXPECT_TRUE(zon_hashset_is_available(set_));
    EXPECT_FALSE(zon_hashset_is_available(nullptr));
}

TEST_F(hashset, is_not_available_while_its_statistics_are_read) {
    create();
    // The reader waits for the bucket that this thread holds.
    zon_lock_pool_internal(set_->bucket_locks, 0);
    std::thread reader([this] {
        int size, used, empty, occupied, average, maximum;
        zon_hashset_get_statistics(set_, &size, &used, &empty, &occupied, &average, &maximum,
                                   nullptr);
    });
    while (__atomic_load_n(&set_->iterating, __ATOMIC_RELAXED) == 0)
        std::this_thread::yield();
    EXPECT_FALSE(zon_hashset_is_available(set_));
    zon_unlock_pool_internal(set_->bucket_locks, 0);
    reader.join();
    EXPECT_TRUE(zon_hashset_is_available(set_));
}

// ---- statistics ----

struct set_statistics {
    int size = -1, used = -1, empty = -1, occupied = -1, average = -1, maximum = -1;
    std::vector<int> depths;
};
set_statistics statistics_of(zon_hashset set) {
    set_statistics seen;
    int* depths = nullptr;
    zon_hashset_get_statistics(set, &seen.size, &seen.used, &seen.empty, &seen.occupied,
                               &seen.average, &seen.maximum, &depths);
    if (depths != nullptr)
        seen.depths.assign(depths, depths + seen.size);
    std::free(depths);
    return seen;
}

TEST_F(hashset, reports_an_empty_set_as_all_empty) {
    create();
    const set_statistics seen = statistics_of(set_);
    EXPECT_EQ(seen.size, 13);
    EXPECT_EQ(seen.used, 0);
    EXPECT_EQ(seen.empty, 13);
    EXPECT_EQ(seen.occupied, 0);
    EXPECT_EQ(seen.average, 0);
    EXPECT_EQ(seen.maximum, 0);
    EXPECT_EQ(seen.depths, std::vector<int>(13, 0));
}

TEST_F(hashset, averages_over_occupied_buckets_and_rounds_down) {
    create();
    put(2, 1);
    put(2, 2);
    put(2, 3);
    put(2, 4);
    put(9, 5);
    const set_statistics seen = statistics_of(set_);
    EXPECT_EQ(seen.used, 5);
    EXPECT_EQ(seen.empty, 11);
    EXPECT_EQ(seen.occupied, 2);
    EXPECT_EQ(seen.average, 2);  // 5 / 2
    EXPECT_EQ(seen.maximum, 4);
    EXPECT_EQ(seen.depths[2], 4);
    EXPECT_EQ(seen.depths[9], 1);
}

}  // namespace

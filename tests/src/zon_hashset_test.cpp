// zon_hashset_test.cpp - buckets, depths and locks on return of the hash set.

#include "zon_hashset.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "src/zon_hashset_items.h"

namespace {

using namespace zon_test;

// ---- insert and get ----

TEST_F(hashset, puts_an_item_into_the_bucket_of_its_hash_taken_as_unsigned) {
    create();
    numbered_item& it = put(0xFFFFFFFF, 1);
    EXPECT_EQ(chain(0xFFFFFFFFU % 13), items{it.item()});
    EXPECT_EQ(set_->items_in_bucket[0xFFFFFFFFU % 13], 1);
    EXPECT_EQ(zon_hashset_size(set_), 1);
}

TEST_F(hashset, hands_an_inserted_item_over_with_its_flow_locked_once_more) {
    create();
    numbered_item& it = item(5, 1);
    EXPECT_TRUE(zon_hashset_insert(set_, it.item()));
    EXPECT_EQ(levels_held(it.lock()), 1);
    zon_unlock_internal(it.lock());
    numbered_item& direct = item(5, 2);
    zon_lock_internal(direct.lock());
    EXPECT_TRUE(zon_hashset_insert_direct(set_, direct.item(), 5));
    EXPECT_EQ(levels_held(direct.lock()), 2);
    zon_unlock_internal(direct.lock());
    zon_unlock_internal(direct.lock());
}

TEST_F(hashset, refuses_a_third_item_at_depth_two_and_locks_its_flow_all_the_same) {
    create(2);
    put(1, 1);
    put(14, 2);
    numbered_item& third = item(27, 3);
    EXPECT_FALSE(zon_hashset_insert(set_, third.item()));
    EXPECT_EQ(levels_held(third.lock()), 1);
    zon_unlock_internal(third.lock());
    EXPECT_FALSE(zon_hashset_insert_direct(set_, third.item(), 1));
    EXPECT_EQ(levels_held(third.lock()), 1);
    zon_unlock_internal(third.lock());
    EXPECT_EQ(find(27, 3), nullptr);
    EXPECT_EQ(zon_hashset_size(set_), 2);
    EXPECT_EQ(set_->items_in_bucket[1], 2);
    put(2, 4);  // another bucket still accepts
    EXPECT_EQ(zon_hashset_size(set_), 3);
}

TEST_F(hashset, accepts_again_when_a_full_bucket_lost_an_item) {
    create(1);
    numbered_item& first = put(1, 1);
    numbered_item& second = item(1, 2);
    EXPECT_FALSE(put(second));
    zon_hashset_remove(set_, first.item());
    EXPECT_TRUE(put(second));
}

TEST_F(hashset, limits_a_bucket_at_255_when_the_depth_says_so) {
    create(255);
    for (uint32_t number = 0; number < 255; ++number)
        put(3, number);
    numbered_item& last = item(3, 255);
    EXPECT_FALSE(put(last));
}

TEST_F(hashset, has_no_limit_at_depth_zero_and_only_its_bucket_count_wraps) {
    create(0);
    for (uint32_t number = 0; number < 300; ++number)
        put(3, number);
    EXPECT_EQ(zon_hashset_size(set_), 300);
    EXPECT_EQ(set_->items_in_bucket[3], 300 - 256);
    EXPECT_NE(find(3, 0), nullptr);
    EXPECT_EQ(chain(3).size(), 300U);
}

TEST_F(hashset, writes_the_bucket_on_a_miss_for_a_later_direct_insert) {
    create();
    numbered_item& it = item(22, 1);
    int bucket = -1;
    EXPECT_EQ(zon_hashset_get(set_, it.item(), &bucket), nullptr);
    EXPECT_EQ(bucket, 9);
    EXPECT_TRUE(zon_hashset_insert_direct(set_, it.item(), bucket));
    zon_unlock_internal(it.lock());
    EXPECT_EQ(chain(9), items{it.item()});
    EXPECT_EQ(find(22, 1), it.item());
}

TEST_F(hashset, writes_the_bucket_on_a_hit_and_locks_the_flow_found) {
    create();
    numbered_item& it = put(30, 1);
    numbered_item key(30, 1);
    int bucket = -1;
    EXPECT_EQ(zon_hashset_get(set_, key.item(), &bucket), it.item());
    EXPECT_EQ(bucket, 4);
    EXPECT_EQ(levels_held(it.lock()), 1);
    EXPECT_EQ(levels_held(key.lock()), 0);
    zon_unlock_internal(it.lock());
}

TEST_F(hashset, takes_no_flow_lock_on_a_miss) {
    create();
    numbered_item& other = put(30, 1);
    EXPECT_EQ(find(30, 2), nullptr);
    EXPECT_EQ(levels_held(other.lock()), 0);
}

TEST_F(hashset, finds_the_newest_of_equal_items) {
    create();
    numbered_item& older = put(7, 1);
    numbered_item& newer = put(7, 1);
    EXPECT_EQ(find(7, 1), newer.item());
    zon_hashset_remove(set_, newer.item());
    EXPECT_EQ(find(7, 1), older.item());
}

TEST_F(hashset, skips_an_item_whose_flow_is_dying) {
    create();
    numbered_item& older = put(7, 1);
    numbered_item& newer = put(7, 1);
    newer.half().flow->private_dying = 1;
    EXPECT_EQ(find(7, 1), older.item());
    EXPECT_EQ(levels_held(newer.lock()), 0);
}

TEST_F(hashset, finds_the_header_where_its_offset_says) {
    struct item_with_late_header {
        zon_half_flow_t half{};
        zon_hashset_hdr header{};
    };
    ASSERT_EQ(zon_hashset_create(&set_, nullptr, offsetof(item_with_late_header, header),
                                 hash_of_number, same_number, nullptr),
              zon_error_none);
    numbered_item flow(0, 0);
    item_with_late_header late;
    late.half = flow.half();
    EXPECT_TRUE(zon_hashset_insert(set_, &late));
    zon_unlock_internal(flow.lock());
    EXPECT_EQ(set_->array[0], &late.header);
    EXPECT_EQ(find(0, 0), &late);
    zon_hashset_remove(set_, &late);
    EXPECT_EQ(set_->array[0], nullptr);
}

// What a match function saw of the bucket locks.
struct stripes_seen {
    zon_hashset set;
    std::vector<int> held;
};

TEST_F(hashset, locks_the_stripe_of_the_bucket_modulo_the_stripes_while_it_matches) {
    stripes_seen seen{};
    zon_hash_attr attrs{true, 13, 3, 0};
    const zon_hash_matcher look_at_stripes = [](void*, void*, void* context) {
        auto* what = static_cast<stripes_seen*>(context);
        for (int stripe = 0; stripe < 3; ++stripe)
            if (!is_free_for_others(zon_lock_get_pool_lock(what->set->bucket_locks, stripe)))
                what->held.push_back(stripe);
        return false;
    };
    ASSERT_EQ(zon_hashset_create(&set_, &attrs, 0, hash_of_number, look_at_stripes, &seen),
              zon_error_none);
    seen.set = set_;
    put(11, 1);
    find(11, 1);
    EXPECT_EQ(seen.held, std::vector<int>{11 % 3});
    for (int stripe = 0; stripe < 3; ++stripe)
        EXPECT_TRUE(is_free_for_others(zon_lock_get_pool_lock(set_->bucket_locks, stripe)))
            << "stripe " << stripe;
}

// ---- remove ----

TEST_F(hashset, unlinks_from_the_head_the_middle_and_the_end_of_a_chain) {
    create();
    numbered_item& a = put(4, 1);
    numbered_item& b = put(4, 2);
    numbered_item& c = put(4, 3);
    numbered_item& d = put(4, 4);
    EXPECT_EQ(chain(4), (items{d.item(), c.item(), b.item(), a.item()}));
    zon_hashset_remove(set_, c.item());
    EXPECT_EQ(chain(4), (items{d.item(), b.item(), a.item()}));
    zon_hashset_remove(set_, d.item());
    EXPECT_EQ(chain(4), (items{b.item(), a.item()}));
    zon_hashset_remove(set_, a.item());
    EXPECT_EQ(chain(4), items{b.item()});
    zon_hashset_remove(set_, b.item());
    EXPECT_TRUE(chain(4).empty());
    EXPECT_EQ(set_->items_in_bucket[4], 0);
    EXPECT_EQ(zon_hashset_size(set_), 0);
}

TEST_F(hashset, leaves_the_header_of_a_removed_item_as_it_was) {
    create();
    numbered_item& older = put(4, 1);
    numbered_item& newer = put(4, 2);
    zon_hashset_remove(set_, newer.item());
    EXPECT_EQ(newer.header()->next, older.header());
    EXPECT_EQ(newer.header()->pointer_to_us, &set_->array[4]);
}

TEST_F(hashset, removes_both_halves_of_a_flow_from_different_buckets) {
    create();
    numbered_item& one = put(1, 1);
    numbered_item& two = put(2, 2);
    numbered_item& other = put(1, 3);
    zon_hashset_remove_full(set_, one.item(), two.item());
    EXPECT_EQ(chain(1), items{other.item()});
    EXPECT_TRUE(chain(2).empty());
    EXPECT_EQ(set_->items_in_bucket[1], 1);
    EXPECT_EQ(set_->items_in_bucket[2], 0);
    EXPECT_EQ(zon_hashset_size(set_), 1);
}

TEST_F(hashset, removes_neighbours_of_one_bucket_together_in_either_order) {
    create();
    for (const bool newest_first : {true, false}) {
        numbered_item& older = put(1, 1);
        numbered_item& newer = put(1, 2);
        if (newest_first)
            zon_hashset_remove_full(set_, newer.item(), older.item());
        else
            zon_hashset_remove_full(set_, older.item(), newer.item());
        EXPECT_TRUE(chain(1).empty());
        EXPECT_EQ(zon_hashset_size(set_), 0);
    }
    EXPECT_TRUE(is_free_for_others(zon_lock_get_pool_lock(set_->bucket_locks, 1)));
}

// ---- against a model ----

TEST_F(hashset, agrees_with_a_multimap_over_random_inserts_and_removals) {
    create(6);
    std::mt19937 random(4711);
    std::multimap<uint32_t, numbered_item*> model;  // by bucket
    std::vector<numbered_item*> linked;
    for (uint32_t step = 0; step < 20000; ++step) {
        if (linked.empty() || random() % 5 < 3) {
            const auto hash = static_cast<uint32_t>(random());
            numbered_item& it = item(hash, step);
            const bool expected = model.count(hash % 13) < 6;
            ASSERT_EQ(put(it), expected) << "step " << step;
            if (expected) {
                model.emplace(hash % 13, &it);
                linked.push_back(&it);
            } else {
                items_.pop_back();
            }
        } else {
            const size_t at = random() % linked.size();
            numbered_item* it = linked[at];
            linked[at] = linked.back();
            linked.pop_back();
            auto [from, to] = model.equal_range(it->half().key.hash_value % 13);
            for (; from != to; ++from)
                if (from->second == it) {
                    model.erase(from);
                    break;
                }
            zon_hashset_remove(set_, it->item());
            ASSERT_EQ(find(it->half().key.hash_value, it->half().key.vrf_id), nullptr)
                << "step " << step;
        }
        ASSERT_EQ(static_cast<size_t>(zon_hashset_size(set_)), model.size());
    }
    for (int bucket = 0; bucket < 13; ++bucket) {
        std::set<zon_hashset_item> expected;
        auto [from, to] = model.equal_range(static_cast<uint32_t>(bucket));
        for (; from != to; ++from)
            expected.insert(from->second->item());
        const items found = chain(bucket);
        EXPECT_EQ(std::set<zon_hashset_item>(found.begin(), found.end()), expected)
            << "bucket " << bucket;
        EXPECT_EQ(set_->items_in_bucket[bucket], found.size());
    }
    for (numbered_item* it : linked)
        EXPECT_EQ(find(it->half().key.hash_value, it->half().key.vrf_id), it->item());
}

}  // namespace

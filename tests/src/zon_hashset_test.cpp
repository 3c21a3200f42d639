// zon_hashset_test.cpp - buckets, depths, locks on return and walks of the hash set.

#include "zon_hashset.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "src/zon_hashset_items.h"
#include "zon_fast_modulo.h"

namespace {

using namespace zon_test;

constexpr int primes[] = {13,       29,       59,       107,      263,      599,      1361,
                          3037,     6719,     19219,    54941,    120721,   156941,   204047,
                          265271,   344857,   448321,   582821,   757693,   985003,   1280519,
                          1664681,  2164111,  2813353,  3657361,  4754591,  6180989,  8035301,
                          10445899, 13579681, 17653589, 22949669, 29834603, 38784989, 50420551,
                          65546729, 85210757};

// ---- number of buckets ----

struct size_row {
    const char* name;
    int requested;
    int buckets;
};
void PrintTo(const size_row& row, std::ostream* os) {
    *os << row.requested << " -> " << row.buckets;
}

class bucket_count : public ::testing::TestWithParam<size_row> {};

TEST_P(bucket_count, is_the_smallest_listed_prime_not_below_the_request) {
    zon_hash_attr attrs{};
    zon_hash_attr_init(&attrs);
    zon_hash_attr_sethashtable(&attrs, false, GetParam().requested, 1, 0);
    EXPECT_EQ(attrs.hashtable_size, GetParam().buckets);
}

INSTANTIATE_TEST_SUITE_P(rows, bucket_count,
                         ::testing::Values(size_row{"negative", -1, 13}, size_row{"zero", 0, 13},
                                           size_row{"one", 1, 13}, size_row{"thirteen", 13, 13},
                                           size_row{"fourteen", 14, 29},
                                           size_row{"default_engine", 5000, 6719},
                                           size_row{"a_prime_itself", 6719, 6719},
                                           size_row{"one_above_it", 6720, 19219},
                                           size_row{"a_million", 1000000, 1280519},
                                           size_row{"the_largest", 85210757, 85210757}),
                         [](const auto& row) { return row.param.name; });

TEST(hashset_attributes, give_every_listed_prime_and_the_next_one_above_it) {
    for (size_t i = 0; i < std::size(primes); ++i) {
        zon_hash_attr attrs{};
        zon_hash_attr_sethashtable(&attrs, false, primes[i], 1, 0);
        EXPECT_EQ(attrs.hashtable_size, primes[i]);
        if (i + 1 == std::size(primes))
            break;
        zon_hash_attr_sethashtable(&attrs, false, primes[i] + 1, 1, 0);
        EXPECT_EQ(attrs.hashtable_size, primes[i + 1]) << "for a request of " << primes[i] + 1;
    }
}

TEST(hashset_attributes, keep_their_size_when_no_prime_covers_the_request) {
    zon_hash_attr attrs{};
    zon_hash_attr_init(&attrs);
    zon_hash_attr_sethashtable(&attrs, false, 85210758, 1, 0);
    EXPECT_EQ(attrs.hashtable_size, 13);
    attrs.hashtable_size = 599;
    zon_hash_attr_sethashtable(&attrs, false, 85210758, 1, 0);
    EXPECT_EQ(attrs.hashtable_size, 599);
}

TEST(hashset_attributes, start_resizable_with_13_buckets_and_one_stripe_and_keep_the_depth) {
    zon_hash_attr attrs{true, 77, 9, 42};
    zon_hash_attr_init(&attrs);
    EXPECT_FALSE(attrs.hashtable_fixed_size);
    EXPECT_EQ(attrs.hashtable_size, 13);
    EXPECT_EQ(attrs.concurrency_level, 1);
    EXPECT_EQ(attrs.max_bucket_depth, 42);
}

TEST(hashset_attributes, take_stripes_depth_and_the_opposite_of_resizable) {
    zon_hash_attr attrs{};
    zon_hash_attr_sethashtable(&attrs, false, 20, 7, 5);
    EXPECT_TRUE(attrs.hashtable_fixed_size);
    EXPECT_EQ(attrs.concurrency_level, 7);
    EXPECT_EQ(attrs.max_bucket_depth, 5);
    zon_hash_attr_sethashtable(&attrs, true, 20, 7, 5);
    EXPECT_FALSE(attrs.hashtable_fixed_size);
}

TEST(hashset_attributes, may_be_absent) {
    zon_hash_attr_init(nullptr);
    zon_hash_attr_sethashtable(nullptr, true, 1, 1, 1);
    zon_hashset set = nullptr;
    ASSERT_EQ(zon_hashset_create(&set, nullptr, 0, hash_of_number, same_number, nullptr),
              zon_error_none);
    EXPECT_EQ(set->array_size, 13);
    EXPECT_EQ(set->concurrency_level, 1);
    EXPECT_EQ(set->max_bucket_depth, 0);
    EXPECT_FALSE(set->is_fixed_size);
    zon_hashset_free(&set);
    EXPECT_EQ(set, nullptr);
}

TEST_F(hashset, starts_with_what_the_attributes_say_and_computed_thresholds) {
    create(4, 3, 263);
    EXPECT_EQ(set_->array_size, 263);
    EXPECT_EQ(set_->concurrency_level, 3);
    EXPECT_EQ(set_->max_bucket_depth, 4);
    EXPECT_TRUE(set_->is_fixed_size);
    EXPECT_EQ(set_->resize_threshold_down, 263 / 5);
    EXPECT_EQ(set_->resize_threshold_up, 263 * 85 / 100 + 1);
    EXPECT_EQ(set_->used, 0);
    EXPECT_EQ(set_->iterating, 0);
    EXPECT_EQ(zon_hashset_size(set_), 0);
}

TEST_F(hashset, works_with_no_stripes_at_all) {
    create(0, 0);
    EXPECT_EQ(set_->concurrency_level, 0);
    numbered_item& it = put(20, 1);
    EXPECT_EQ(find(20, 1), it.item());
}

TEST(hashset_modulo, is_the_plain_remainder_of_unsigned_words) {
    std::mt19937 random(20240607);
    for (const int prime : primes) {
        const fast_modulo remainder(static_cast<uint32_t>(prime));
        for (const uint32_t edge : {0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU, 0xFFFFFFFFU})
            EXPECT_EQ(remainder(edge), edge % static_cast<uint32_t>(prime));
        for (int i = 0; i < 1000; ++i) {
            const auto dividend = static_cast<uint32_t>(random());
            ASSERT_EQ(remainder(dividend), dividend % static_cast<uint32_t>(prime))
                << dividend << " % " << prime;
        }
    }
    EXPECT_EQ(fast_modulo(1)(0xFFFFFFFF), 0U);
}

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

// zon_hashset_size_test.cpp - how many buckets a hash set gets, and which of them a hash means.

#include "zon_hashset.h"

#include <gtest/gtest.h>

#include <random>

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

}  // namespace

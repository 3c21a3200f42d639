// zon_hashset_pair_test.cpp - both halves of a flow, linked and moved in one step.

#include "zon_hashset.h"

#include <gtest/gtest.h>

#include <memory>

#include "src/zon_hashset_items.h"

namespace {

using namespace zon_test;

// ---- both halves of a new flow ----

class pair_of_halves : public hashset {
protected:
    // Two items of one flow, which is locked as a new flow is.
    void make_pair(uint32_t hash1, uint32_t hash2) {
        first = &item(hash1, 100);
        second = &item(hash2, 200);
        second->shares_flow_of(*first);
        zon_lock_internal(first->lock());
    }
    void TearDown() override {
        if (first != nullptr) {
            EXPECT_EQ(levels_held(first->lock()), 1) << "the level of the flow's lock changed";
            zon_unlock_internal(first->lock());
        }
        hashset::TearDown();
    }
    pair_insert_result insert() {
        const auto bucket_of = [](numbered_item& of) {
            return static_cast<int>(of.half().key.hash_value % 13);
        };
        return zon_hashset_insert_pair(
            set_, first->item(), bucket_of(*first), second->item(), bucket_of(*second),
            counts_as_same, [](zon_hashset_item, zon_hashset_item, void*) { ++linked; }, nullptr);
    }
    numbered_item* first = nullptr;
    numbered_item* second = nullptr;
    static inline int linked = 0;  // how often the set has told so
};

TEST_F(pair_of_halves, is_linked_at_once_and_counts_two) {
    create();
    make_pair(1, 2);
    linked = 0;
    EXPECT_EQ(insert(), pair_insert_result::linked);
    EXPECT_EQ(linked, 1);
    EXPECT_EQ(chain(1), items{first->item()});
    EXPECT_EQ(chain(2), items{second->item()});
    EXPECT_EQ(zon_hashset_size(set_), 2);
}

TEST_F(pair_of_halves, is_refused_when_the_first_is_there_already) {
    create();
    make_pair(1, 2);
    numbered_item& present = put(1, 100);
    EXPECT_EQ(insert(), pair_insert_result::already_present);
    EXPECT_EQ(chain(1), items{present.item()});
    EXPECT_TRUE(chain(2).empty());
    EXPECT_EQ(zon_hashset_size(set_), 1);
}

TEST_F(pair_of_halves, is_told_present_before_it_is_told_that_the_bucket_is_full) {
    create(1);
    make_pair(1, 2);
    put(1, 100);
    EXPECT_EQ(insert(), pair_insert_result::already_present);
}

TEST_F(pair_of_halves, does_not_compare_the_second) {
    create();
    make_pair(1, 2);
    put(2, 200);
    EXPECT_EQ(insert(), pair_insert_result::linked);
    EXPECT_EQ(zon_hashset_size(set_), 3);
}

TEST_F(pair_of_halves, leaves_both_out_when_the_first_finds_its_bucket_full) {
    create(1);
    make_pair(1, 2);
    put(1, 1);
    EXPECT_EQ(insert(), pair_insert_result::first_refused);
    EXPECT_EQ(chain(1).size(), 1U);
    EXPECT_TRUE(chain(2).empty());
    EXPECT_EQ(zon_hashset_size(set_), 1);
}

TEST_F(pair_of_halves, takes_the_first_out_again_when_the_second_finds_its_bucket_full) {
    create(1);
    make_pair(1, 2);
    numbered_item& blocker = put(2, 1);
    EXPECT_EQ(insert(), pair_insert_result::second_refused);
    EXPECT_TRUE(chain(1).empty());
    EXPECT_EQ(chain(2), items{blocker.item()});
    EXPECT_EQ(set_->items_in_bucket[1], 0);
    EXPECT_EQ(zon_hashset_size(set_), 1);
}

TEST_F(pair_of_halves, counts_the_first_against_the_second_in_one_bucket) {
    create(1);
    make_pair(1, 14);
    EXPECT_EQ(insert(), pair_insert_result::second_refused);
    EXPECT_TRUE(chain(1).empty());
    EXPECT_EQ(set_->items_in_bucket[1], 0);
}

TEST_F(pair_of_halves, fits_into_one_bucket_of_depth_two) {
    create(2);
    make_pair(1, 14);
    EXPECT_EQ(insert(), pair_insert_result::linked);
    EXPECT_EQ(chain(1), (items{second->item(), first->item()}));
}

class moved_pair : public pair_of_halves {
protected:
    // What the pair becomes.
    pair_insert_result move_to(uint32_t hash1, uint32_t hash2, uint32_t number1 = 101) {
        wanted1 = std::make_unique<numbered_item>(hash1, number1);
        wanted2 = std::make_unique<numbered_item>(hash2, 201);
        const relink_pair move{first->item(), wanted1->item(), second->item(), wanted2->item()};
        return zon_hashset_relink_pair(set_, move, counts_as_same,
                                       [](zon_hashset_item it, const void* wanted) {
                                           static_cast<zon_half_flow_t*>(it)->key =
                                               static_cast<const zon_half_flow_t*>(wanted)->key;
                                       });
    }
    std::unique_ptr<numbered_item> wanted1;
    std::unique_ptr<numbered_item> wanted2;
};

TEST_F(moved_pair, is_rewritten_and_found_in_its_new_buckets) {
    create();
    make_pair(1, 2);
    insert();
    EXPECT_EQ(move_to(3, 4), pair_insert_result::linked);
    EXPECT_TRUE(chain(1).empty());
    EXPECT_TRUE(chain(2).empty());
    EXPECT_EQ(chain(3), items{first->item()});
    EXPECT_EQ(chain(4), items{second->item()});
    EXPECT_EQ(first->half().key.vrf_id, 101U);
    EXPECT_EQ(second->half().key.vrf_id, 201U);
    EXPECT_EQ(zon_hashset_size(set_), 2);
}

TEST_F(moved_pair, may_stay_in_a_full_bucket_of_its_own) {
    create(2);
    make_pair(1, 14);
    insert();
    EXPECT_EQ(move_to(27, 40), pair_insert_result::linked);
    EXPECT_EQ(chain(1).size(), 2U);
}

TEST_F(moved_pair, stays_as_it_is_when_the_wanted_first_is_there) {
    create();
    make_pair(1, 2);
    insert();
    numbered_item& present = put(3, 101);
    EXPECT_EQ(move_to(3, 4), pair_insert_result::already_present);
    EXPECT_EQ(chain(1), items{first->item()});
    EXPECT_EQ(chain(2), items{second->item()});
    EXPECT_EQ(chain(3), items{present.item()});
    EXPECT_EQ(first->half().key.vrf_id, 100U);
    EXPECT_EQ(zon_hashset_size(set_), 3);
}

TEST_F(moved_pair, ends_outside_without_links_back_when_a_bucket_is_full) {
    for (const uint32_t full : {3U, 4U}) {
        create(1);
        make_pair(1, 2);
        insert();
        put(full, 1);
        EXPECT_EQ(move_to(3, 4), full == 3 ? pair_insert_result::first_refused
                                           : pair_insert_result::second_refused);
        EXPECT_EQ(first->header()->pointer_to_us, nullptr);
        EXPECT_EQ(second->header()->pointer_to_us, nullptr);
        EXPECT_EQ(first->half().key.vrf_id, 101U);
        EXPECT_EQ(zon_hashset_size(set_), 1);
        for (int bucket = 0; bucket < 13; ++bucket)
            EXPECT_EQ(chain(bucket).size(), static_cast<uint32_t>(bucket) == full ? 1U : 0U)
                << "bucket " << bucket;
        zon_unlock_internal(first->lock());
        first = nullptr;
        zon_hashset_free(&set_);
    }
}

}  // namespace

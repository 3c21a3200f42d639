// zon_bucket_front_test.cpp - what lookups without a bucket's lock find, and that the front of a
// bucket follows its chain.

#include "zon_bucket_front.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <vector>

#include "src/zon_hashset_items.h"
#include "zon_hashset_internal.h"

namespace {

using namespace zon_test;

constexpr uint32_t hash_with_tag(uint32_t number) {
    return (2 * number + 1) << 16;
}
uint16_t tag_number(uint32_t number) {
    return bucket_front::tag_of(hash_with_tag(number));
}

class front_of_a_bucket : public ::testing::Test {
protected:
    void push(unsigned number) { front.push(tag_number(number), &halves[number], &flow); }
    bool finds(unsigned number) const {
        return front.find(tag_number(number)).half == &halves[number];
    }
    bucket_front front{};
    std::array<zon_half_flow_t, 8> halves{};
    zon_flow_t flow{};
};

TEST_F(front_of_a_bucket, finds_what_was_pushed_with_its_flow) {
    push(0);
    push(1);
    const bucket_front::entry found = front.find(tag_number(0));
    EXPECT_EQ(found.half, &halves[0]);
    EXPECT_EQ(found.flow, &flow);
    EXPECT_TRUE(front.still_has(found));
    EXPECT_TRUE(finds(1));
    EXPECT_EQ(front.find(tag_number(2)).half, nullptr);
}

TEST_F(front_of_a_bucket, finds_the_newest_of_a_tag) {
    front.push(tag_number(0), &halves[0], &flow);
    front.push(tag_number(1), &halves[1], &flow);
    front.push(tag_number(0), &halves[2], &flow);
    EXPECT_EQ(front.find(tag_number(0)).half, &halves[2]);
    front.remove(&halves[2]);
    EXPECT_EQ(front.find(tag_number(0)).half, &halves[0]);
}

TEST_F(front_of_a_bucket, lets_the_oldest_go_when_it_is_full) {
    for (unsigned number = 0; number <= bucket_front::size; ++number)
        push(number);
    EXPECT_FALSE(finds(0));
    for (unsigned number = 1; number <= bucket_front::size; ++number)
        EXPECT_TRUE(finds(number)) << number;
}

TEST_F(front_of_a_bucket, no_longer_has_an_entry_that_moved_or_left) {
    push(0);
    const bucket_front::entry found = front.find(tag_number(0));
    push(1);
    EXPECT_FALSE(front.still_has(found));
    const bucket_front::entry newer = front.find(tag_number(1));
    front.remove(&halves[1]);
    EXPECT_FALSE(front.still_has(newer));
}

// Readers look from the start: whoever moved to an earlier place could be overlooked.
TEST_F(front_of_a_bucket, never_moves_an_entry_to_an_earlier_place) {
    std::minstd_rand random(7);
    std::vector<unsigned> present;
    for (int step = 0; step < 20000; ++step) {
        std::array<unsigned, 8> before{};
        for (const unsigned number : present)
            before[number] = front.find(tag_number(number)).at;
        const unsigned number = static_cast<unsigned>(random() % halves.size());
        if (const auto at = std::find(present.begin(), present.end(), number);
            at != present.end()) {
            front.remove(&halves[number]);
            present.erase(at);
        } else {
            push(number);
            present.push_back(number);
        }
        std::erase_if(present, [this](unsigned each) { return !finds(each); });
        for (const unsigned each : present)
            EXPECT_GE(front.find(tag_number(each)).at, before[each]) << "step " << step;
    }
}

// ---- the fronts of a set ----

class fronts_of_a_set : public hashset {
protected:
    // The items that the front of a bucket names, newest first.
    items at_front(uint32_t bucket) {
        items found;
        std::vector<std::pair<unsigned, zon_hashset_item>> placed;
        for (const zon_hashset_item each : chain(static_cast<int>(bucket)))
            if (const auto entry = front_of(set_, bucket).find(tag_of(set_, each));
                entry.half == each)
                placed.emplace_back(entry.at, each);
        std::sort(placed.begin(), placed.end());
        for (const auto& [at, each] : placed)
            found.push_back(each);
        return found;
    }
};

TEST_F(fronts_of_a_set, follow_their_chains_whatever_comes_and_goes) {
    create(0, 3, 13);
    const auto buckets = static_cast<uint32_t>(set_->array_size);
    std::minstd_rand random(11);
    std::vector<numbered_item*> present;
    std::vector<numbered_item*> absent;
    for (uint32_t number = 0; number < 60; ++number)
        absent.push_back(&item(hash_with_tag(number), number));
    size_t full_fronts = 0;
    for (int step = 0; step < 20000; ++step) {
        std::vector<numbered_item*>& from =
            random() % 2 == 0 && !present.empty() ? present : absent;
        if (from.empty())
            continue;
        const size_t which = random() % from.size();
        numbered_item* moved = from[which];
        from.erase(from.begin() + static_cast<std::ptrdiff_t>(which));
        if (&from == &present) {
            zon_hashset_remove(set_, moved->item());
            absent.push_back(moved);
        } else {
            put(*moved);
            present.push_back(moved);
        }
        const uint32_t bucket = bucket_of(set_, moved->half().key.hash_value);
        const items whole = chain(static_cast<int>(bucket));
        const items front = at_front(bucket);
        ASSERT_LE(front.size(), whole.size());
        // In the chain's order, from its newest item on, and complete while there is room.
        ASSERT_TRUE(std::equal(front.begin(), front.end(), whole.begin())) << "step " << step;
        ASSERT_TRUE(front.size() == whole.size() || !front_of(set_, bucket).has_room_at_end())
            << "step " << step;
        full_fronts += whole.size() > bucket_front::size;
    }
    EXPECT_GT(full_fronts, 1000U);
    EXPECT_EQ(buckets, 13U);
    for (numbered_item* each : present)
        zon_hashset_remove(set_, each->item());
    for (uint32_t bucket = 0; bucket < buckets; ++bucket)
        EXPECT_TRUE(at_front(bucket).empty());
}

}  // namespace

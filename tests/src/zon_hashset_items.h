// zon_hashset_items.h - items whose hash and identity are plain numbers, and a set of them.

#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <list>
#include <vector>

#include "support/lock_level.h"
#include "zon_hashset.h"

namespace zon_test {

// An item of the set: a half flow whose hash and identity are plain numbers, on a flow of its own.
class numbered_item {
public:
    numbered_item(uint32_t hash, uint32_t number) {
        flow_.flow_lock = zon_lock_allocate();
        zon_lock_init(flow_.flow_lock);
        half_.flow = &flow_;
        half_.key.hash_value = hash;
        half_.key.vrf_id = number;
    }
    ~numbered_item() {
        zon_lock_destroy(flow_.flow_lock);
        std::free(flow_.flow_lock);
    }
    numbered_item(const numbered_item&) = delete;
    numbered_item& operator=(const numbered_item&) = delete;

    zon_hashset_item item() { return &half_; }
    zon_hashset_hdr* header() { return &half_.hdr; }
    zon_lock_t lock() const { return flow_.flow_lock; }
    void shares_flow_of(numbered_item& other) { half_.flow = &other.flow_; }
    zon_half_flow_t& half() { return half_; }

private:
    zon_half_flow_t half_{};
    zon_flow_t flow_{};
};

inline unsigned int hash_of_number(void* item, void*) {
    return static_cast<zon_half_flow_t*>(item)->key.hash_value;
}
inline bool same_number(void* key, void* item, void*) {
    return static_cast<zon_half_flow_t*>(key)->key.vrf_id ==
           static_cast<zon_half_flow_t*>(item)->key.vrf_id;
}
inline bool counts_as_same(const void* fresh, const void* item, void*) {
    return static_cast<const zon_half_flow_t*>(fresh)->key.vrf_id ==
           static_cast<const zon_half_flow_t*>(item)->key.vrf_id;
}

class hashset : public ::testing::Test {
protected:
    void TearDown() override {
        if (set_ != nullptr)
            zon_hashset_free(&set_);
    }

    void create(uint8_t depth = 0, int stripes = 3, int size = 13) {
        zon_hash_attr attrs{};
        zon_hash_attr_init(&attrs);
        zon_hash_attr_sethashtable(&attrs, false, size, stripes, depth);
        ASSERT_EQ(zon_hashset_create(&set_, &attrs, 0, hash_of_number, same_number, nullptr),
                  zon_error_none);
    }
    numbered_item& item(uint32_t hash, uint32_t number) {
        return items_.emplace_back(hash, number);
    }
    // Inserts and gives the flow lock back that the set handed over.
    bool put(numbered_item& it) {
        const bool linked = zon_hashset_insert(set_, it.item());
        zon_unlock_internal(it.lock());
        return linked;
    }
    numbered_item& put(uint32_t hash, uint32_t number) {
        numbered_item& it = item(hash, number);
        EXPECT_TRUE(put(it));
        return it;
    }
    // The item found for a hash and number, its flow unlocked again.
    zon_hashset_item find(uint32_t hash, uint32_t number) {
        numbered_item key(hash, number);
        auto* found = static_cast<zon_half_flow_t*>(zon_hashset_get(set_, key.item(), nullptr));
        if (found != nullptr)
            zon_unlock_internal(found->flow->flow_lock);
        return found;
    }
    // The items of one bucket, newest first; each link back is checked.
    std::vector<zon_hashset_item> chain(int bucket) {
        std::vector<zon_hashset_item> found;
        for (zon_hashset_hdr** slot = &set_->array[bucket]; *slot != nullptr;
             slot = &(*slot)->next) {
            EXPECT_EQ((*slot)->pointer_to_us, slot) << "broken link back in bucket " << bucket;
            found.push_back(*slot);
        }
        return found;
    }
    using items = std::vector<zon_hashset_item>;

    zon_hashset set_ = nullptr;
    std::list<numbered_item> items_;
};

}  // namespace zon_test

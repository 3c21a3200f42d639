// zon_hashset_internal.h - buckets and the hand-over of flow locks, shared by the operations of the
// hash set.

#pragma once

#include <algorithm>
#include <array>
#include <utility>

#include "zon_engine_inline.h"
#include "zon_fast_modulo.h"
#include "zon_hashset.h"
#include "zon_relaxed.h"

// The set as it is allocated: what hosts may look at first, then what only the operations use.
struct hashset_storage : zon_hashset_ {
    fast_modulo bucket_of_hash;
    fast_modulo stripe_of_bucket;
};

inline hashset_storage* storage_of(zon_hashset set) {
    return static_cast<hashset_storage*>(set);
}

inline uint32_t bucket_of(zon_hashset set, unsigned int hash) {
    return storage_of(set)->bucket_of_hash(hash);
}
inline int stripe_of(zon_hashset set, uint32_t bucket) {
    return static_cast<int>(storage_of(set)->stripe_of_bucket(bucket));
}

inline zon_hashset_hdr* header_of(zon_hashset set, zon_hashset_item item) {
    return reinterpret_cast<zon_hashset_hdr*>(static_cast<char*>(item) + set->header_offset);
}
inline zon_hashset_item item_of(zon_hashset set, zon_hashset_hdr* header) {
    return reinterpret_cast<char*>(header) - set->header_offset;
}
inline zon_flow_t* flow_of(zon_hashset_item item) {
    return static_cast<zon_half_flow_t*>(item)->flow;
}

// The lock of one bucket, held.
class [[nodiscard]] held_bucket {
public:
    held_bucket(zon_hashset set, uint32_t bucket) : held_bucket(set, stripe_of(set, bucket)) {}
    held_bucket(zon_hashset set, int stripe)
        : lock_(zon_lock_get_pool_lock(set->bucket_locks, stripe)) {}

private:
    held_lock lock_;
};

// The locks of several buckets, held; taken in the order of the stripes, so that two threads never
// wait for each other. Buckets of one stripe take its recursive lock several times.
template <size_t count>
class [[nodiscard]] held_buckets {
public:
    held_buckets(zon_hashset set, std::array<uint32_t, count> buckets) : set_(set) {
        std::transform(buckets.begin(), buckets.end(), stripes_.begin(),
                       [set](uint32_t bucket) { return stripe_of(set, bucket); });
        std::sort(stripes_.begin(), stripes_.end());
        for (const int stripe : stripes_)
            zon_lock_pool_internal(set_->bucket_locks, stripe);
    }
    ~held_buckets() {
        for (const int stripe : stripes_)
            zon_unlock_pool_internal(set_->bucket_locks, stripe);
    }
    held_buckets(const held_buckets&) = delete;
    held_buckets& operator=(const held_buckets&) = delete;

private:
    zon_hashset set_;
    std::array<int, count> stripes_{};
};

// The usual case: a flow has two keys. Kept free of loops and calls, as every flow that comes or
// goes passes here.
template <>
class [[nodiscard]] held_buckets<2> {
public:
    [[gnu::always_inline]] held_buckets(zon_hashset set, std::array<uint32_t, 2> buckets) {
        const int one = stripe_of(set, buckets[0]);
        const int other = stripe_of(set, buckets[1]);
        first_ = zon_lock_get_pool_lock(set->bucket_locks, std::min(one, other));
        second_ = zon_lock_get_pool_lock(set->bucket_locks, std::max(one, other));
        zon_lock_internal(first_);
        zon_lock_internal(second_);
    }
    [[gnu::always_inline]] ~held_buckets() {
        zon_unlock_internal(second_);
        zon_unlock_internal(first_);
    }
    held_buckets(const held_buckets&) = delete;
    held_buckets& operator=(const held_buckets&) = delete;

private:
    zon_lock_t first_;
    zon_lock_t second_;
};

inline bool bucket_is_full(zon_hashset set, uint32_t bucket) {
    return set->max_bucket_depth != 0 && set->items_in_bucket[bucket] >= set->max_bucket_depth;
}

// Whoever is about to change a bucket has what he will write fetched. No lock is needed.
inline void prefetch_bucket(zon_hashset set, uint32_t bucket) {
    __builtin_prefetch(&set->array[bucket], 1);
    __builtin_prefetch(&set->items_in_bucket[bucket], 1);
}
// Those who change many buckets, one after another, read them ahead.
inline void touch_bucket(zon_hashset set, uint32_t bucket) {
    touch(&set->array[bucket]);
    touch(&set->items_in_bucket[bucket]);
}
// The item's link and its key, which mostly lie on two lines. What a bucket's head leads to is an
// item's memory as long as the set lives, and can be read whoever has given it back meanwhile.
inline const zon_hashset_hdr* touch_first_item(zon_hashset set, uint32_t bucket) {
    const zon_hashset_hdr* first = relaxed_load(set->array[bucket]);
    if (first != nullptr) {
        touch(first);
        touch(reinterpret_cast<const char*>(first) + sizeof(zon_half_flow_t));
    }
    return first;
}
// In an item that was given back anything may stand in the place of the link: it is not followed,
// only asked for.
inline void prefetch_next_item(const zon_hashset_hdr* item) {
    if (item == nullptr)
        return;
    const zon_hashset_hdr* next = peek(item->next);
    __builtin_prefetch(next);
    prefetch_behind(next, sizeof(zon_half_flow_t));
}
inline void prefetch_first_item(zon_hashset set, uint32_t bucket) {
    if (const zon_hashset_hdr* first = relaxed_load(set->array[bucket]))
        __builtin_prefetch(first, 1);
}

// Links an item at the head of its bucket, whose lock is held.
inline void link_at_head(zon_hashset set, zon_hashset_item item, uint32_t bucket) {
    zon_hashset_hdr* header = header_of(set, item);
    zon_hashset_hdr** head = &set->array[bucket];
    header->next = *head;
    if (*head != nullptr)
        (*head)->pointer_to_us = &header->next;
    header->pointer_to_us = head;
    __atomic_store_n(head, header, __ATOMIC_RELEASE);
    ++set->items_in_bucket[bucket];
}

// Unlinks an item from its bucket, whose lock is held, and so is that of the item's flow.
inline void unlink(zon_hashset set, zon_hashset_item item, uint32_t bucket) {
    zon_hashset_hdr* header = header_of(set, item);
    if (header->next != nullptr)
        header->next->pointer_to_us = header->pointer_to_us;
    relaxed_store(*header->pointer_to_us, header->next);
    --set->items_in_bucket[bucket];
}

inline bool is_linked(zon_hashset set, zon_hashset_item item) {
    return header_of(set, item)->pointer_to_us != nullptr;
}

enum class flow_lock_state { held, busy, dying };

// Under a bucket lock a flow lock is only tried for, never awaited.
// A flow on its way out is passed over without its lock, which the deleting thread keeps.
inline flow_lock_state try_flow(zon_flow_t* flow) {
    if (zon_flow_is_dying(flow)) [[unlikely]]
        return flow_lock_state::dying;
    if (!zon_try_lock_internal(flow->flow_lock)) [[unlikely]]
        return flow_lock_state::busy;
    if (zon_flow_is_dying(flow)) [[unlikely]] {
        zon_unlock_internal(flow->flow_lock);
        return flow_lock_state::dying;
    }
    return flow_lock_state::held;
}

// Finds the newest item that matches and returns it with its flow locked, or null. When the flow's
// lock is busy, the bucket is let go, the lock awaited with nothing else held, and the bucket
// searched anew: the lock is kept if the search leads to it again. Locks outlive their flows, so
// waiting on one is safe whatever becomes of the flow.
template <class matches>
zon_hashset_item find_locked(zon_hashset set, uint32_t bucket, matches match) {
    const zon_lock_t bucket_lock =
        zon_lock_get_pool_lock(set->bucket_locks, stripe_of(set, bucket));
    zon_lock_t awaited = nullptr;
    for (;;) {
        zon_lock_t busy = nullptr;
        zon_lock_internal(bucket_lock);
        for (zon_hashset_hdr* header = set->array[bucket]; header != nullptr;
             header = header->next) {
            const zon_hashset_item item = item_of(set, header);
            if (!match(item))
                continue;
            zon_flow_t* flow = flow_of(item);
            const flow_lock_state state = try_flow(flow);
            if (state == flow_lock_state::dying)
                continue;
            if (state == flow_lock_state::busy) {
                busy = flow->flow_lock;
                break;
            }
            zon_unlock_internal(bucket_lock);
            if (awaited != nullptr)
                zon_unlock_internal(awaited);
            zon_flow_could_wait(flow);
            return item;
        }
        zon_unlock_internal(bucket_lock);
        if (awaited != nullptr)
            zon_unlock_internal(awaited);
        if (busy == nullptr)
            return nullptr;
        awaited = busy;
        zon_lock_internal(awaited);
    }
}

// zon_hashset_move.cpp - gives an item of a hash set another key.
//
// Locks  the buckets of both keys at once.

#include "zon_hashset_move.h"

#include "zon_hashset_internal.h"
#include "zon_lane_counts.h"

bool zon_hashset_move(zon_hashset set, zon_hashset_item item, const void* wanted,
                      zon_hashset_rewrite rewrite) {
    const uint32_t old_bucket = bucket_of(set, set->hash_function(item, set->calc_context));
    const uint32_t new_bucket =
        bucket_of(set, set->hash_function(const_cast<void*>(wanted), set->calc_context));
    held_buckets<2> held(set, {old_bucket, new_bucket});
    if (is_linked(set, item)) {
        unlink(set, item, old_bucket);
        zon_count_items(set, -1);
    }
    rewrite(item, wanted);
    if (bucket_is_full(set, new_bucket)) {
        header_of(set, item)->pointer_to_us = nullptr;
        return false;
    }
    link_at_head(set, item, new_bucket);
    zon_count_items(set, 1);
    return true;
}

// zon_hashset.cpp - the chained hash set of half flows.
//
// Owns   the bucket array, the counts per bucket and the bucket locks; never the items.
// Locks  bucket locks only; flow locks are handed over, never awaited under a bucket lock
//        (docs/locking.md).
// Knows nothing of keys.

#include "zon_hashset.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>

#include <sched.h>

#include "osal/zon_mem.h"
#include "zon_hashset_internal.h"
#include "zon_lane_counts.h"

namespace {

constexpr std::array<int32_t, 38> hash_array_primes = {
    13,       29,       59,       107,      263,      599,      1361,     3037,
    6719,     19219,    54941,    120721,   156941,   204047,   265271,   344857,
    448321,   582821,   757693,   985003,   1280519,  1664681,  2164111,  2813353,
    3657361,  4754591,  6180989,  8035301,  10445899, 13579681, 17653589, 22949669,
    29834603, 38784989, 50420551, 65546729, 85210757, 0};
static_assert(std::is_sorted(hash_array_primes.begin(), hash_array_primes.end() - 1));

constexpr int smallest_table = hash_array_primes.front();

bool build_array(zon_hashset set, int buckets) {
    const auto count = static_cast<size_t>(buckets);
    set->array = static_cast<zon_hashset_hdr**>(zon_heap_zalloc(count, sizeof(zon_hashset_hdr*)));
    set->items_in_bucket = static_cast<uint8_t*>(zon_heap_zalloc(count, 1));
    if (set->array == nullptr || set->items_in_bucket == nullptr)
        return false;
    set->array_size = buckets;
    set->resize_threshold_down = buckets / 5;
    set->resize_threshold_up = static_cast<int>(static_cast<int64_t>(buckets) * 85 / 100 + 1);
    return true;
}

void free_parts(zon_hashset set) {
    std::free(set->array);
    std::free(set->items_in_bucket);
    std::free(storage_of(set));
}

// Counts a walk that other threads must not free the set under.
class iteration {
public:
    explicit iteration(zon_hashset set) : set_(set) { relaxed_add(set_->iterating, 1); }
    ~iteration() { relaxed_add(set_->iterating, -1); }
    iteration(const iteration&) = delete;
    iteration& operator=(const iteration&) = delete;

private:
    zon_hashset set_;
};

bool insert_into(zon_hashset set, zon_hashset_item item, uint32_t bucket) {
    bool linked = false;
    {
        held_bucket held(set, bucket);
        if (!bucket_is_full(set, bucket)) {
            link_at_head(set, item, bucket);
            linked = true;
        }
    }
    zon_lock_internal(flow_of(item)->flow_lock);
    if (linked)
        zon_count_items(set, 1);
    return linked;
}

// How many items left the set: none when the item is known to be outside it. The bucket's lock is
// held: the link back is rewritten when the neighbours come and go.
int remove_from(zon_hashset set, zon_hashset_item item, uint32_t bucket) {
    if (!is_linked(set, item))
        return 0;
    unlink(set, item, bucket);
    return 1;
}

bool bucket_holds_same(zon_hashset set, uint32_t bucket, const void* item, zon_hashset_same same,
                       void* context) {
    for (zon_hashset_hdr* header = set->array[bucket]; header != nullptr; header = header->next)
        if (same(item, item_of(set, header), context))
            return true;
    return false;
}

}  // namespace

void zon_hash_attr_init(zon_hash_attr* attrs) {
    if (attrs == nullptr)
        return;
    attrs->hashtable_fixed_size = false;
    attrs->hashtable_size = smallest_table;
    attrs->concurrency_level = 1;
}

void zon_hash_attr_sethashtable(zon_hash_attr* attrs, bool resizable, int size,
                                int concurrency_level, uint8_t max_bucket_depth) {
    if (attrs == nullptr)
        return;
    attrs->concurrency_level = concurrency_level;
    attrs->hashtable_fixed_size = !resizable;
    attrs->max_bucket_depth = max_bucket_depth;
    // The closing 0 leaves a request that no prime covers with the size that the attributes had, on
    // purpose.
    const auto end = hash_array_primes.end() - 1;
    const auto prime = std::lower_bound(hash_array_primes.begin(), end, size);
    if (prime != end)
        attrs->hashtable_size = *prime;
}

zon_error_t zon_hashset_create(zon_hashset* hashset_handle, zon_hash_attr* attrs,
                               int header_data_offset, zon_hash_calculator calc,
                               zon_hash_matcher matcher, void* ctx) {
    void* memory = zon_heap_zalloc(1, sizeof(hashset_storage));
    if (memory == nullptr)
        return zon_error_memory;
    auto* set = new (memory) hashset_storage{};
    set->header_offset = header_data_offset;
    set->hash_function = calc;
    set->match_function = matcher;
    set->calc_context = ctx;
    set->concurrency_level = attrs != nullptr ? attrs->concurrency_level : 1;
    set->is_fixed_size = attrs != nullptr && attrs->hashtable_fixed_size;
    set->max_bucket_depth = attrs != nullptr ? attrs->max_bucket_depth : uint8_t{0};

    // An engine made for no threads at all still has one stripe.
    const int stripes = std::max(1, set->concurrency_level);
    if (!build_array(set, attrs != nullptr ? attrs->hashtable_size : smallest_table)) {
        free_parts(set);
        return zon_error_memory;
    }
    set->bucket_locks = zon_lock_create_pool(stripes);
    if (set->bucket_locks == nullptr) {
        free_parts(set);
        return zon_error_memory;
    }
    zon_lock_set_class_of_pool(set->bucket_locks, stripes, lock_class::bucket);
    set->bucket_of_hash = fast_modulo(static_cast<uint32_t>(set->array_size));
    set->stripe_of_bucket = fast_modulo(static_cast<uint32_t>(stripes));
    *hashset_handle = set;
    return zon_error_none;
}

void zon_hashset_free(zon_hashset* hashset_handle) {
    zon_hashset set = *hashset_handle;
    zon_lock_destroy_pool(set->bucket_locks, std::max(1, set->concurrency_level));
    free_parts(set);
    *hashset_handle = nullptr;
}

bool zon_hashset_insert(zon_hashset set, zon_hashset_item item) {
    return insert_into(set, item, bucket_of(set, set->hash_function(item, set->calc_context)));
}

bool zon_hashset_insert_direct(zon_hashset set, zon_hashset_item item, int bucket) {
    return insert_into(set, item, static_cast<uint32_t>(bucket));
}

zon_hashset_item zon_hashset_get(zon_hashset set, zon_hashset_item item_key, int* bucket) {
    const uint32_t b = bucket_of(set, set->hash_function(item_key, set->calc_context));
    if (bucket != nullptr)
        *bucket = static_cast<int>(b);
    return find_locked(set, b, [set, item_key](zon_hashset_item item) {
        return set->match_function(item_key, item, set->calc_context);
    });
}

pair_insert_result zon_hashset_insert_pair(zon_hashset set, zon_hashset_item item1, int bucket1,
                                           zon_hashset_item item2, int bucket2,
                                           zon_hashset_same same, zon_hashset_linked linked,
                                           void* context) {
    const auto b1 = static_cast<uint32_t>(bucket1);
    const auto b2 = static_cast<uint32_t>(bucket2);
    {
        held_buckets<2> held(set, {b1, b2});
        if (bucket_holds_same(set, b1, item1, same, context))
            return pair_insert_result::already_present;
        if (bucket_is_full(set, b1))
            return pair_insert_result::first_refused;
        link_at_head(set, item1, b1);
        if (bucket_is_full(set, b2)) {
            unlink(set, item1, b1);
            return pair_insert_result::second_refused;
        }
        link_at_head(set, item2, b2);
        linked(item1, item2, context);
    }
    zon_count_items(set, 2);
    return pair_insert_result::linked;
}

pair_insert_result zon_hashset_relink_pair(zon_hashset set, const relink_pair& move,
                                           zon_hashset_same same, zon_hashset_rewrite rewrite) {
    const auto bucket_for = [set](const void* item) {
        return bucket_of(set, set->hash_function(const_cast<void*>(item), set->calc_context));
    };
    const uint32_t old1 = bucket_for(move.item1);
    const uint32_t old2 = bucket_for(move.item2);
    const uint32_t new1 = bucket_for(move.wanted1);
    const uint32_t new2 = bucket_for(move.wanted2);
    held_buckets<4> held(set, {old1, old2, new1, new2});
    if (bucket_holds_same(set, new1, move.wanted1, same, move.same_context))
        return pair_insert_result::already_present;
    zon_count_items(set,
                    -(remove_from(set, move.item1, old1) + remove_from(set, move.item2, old2)));
    rewrite(move.item1, move.wanted1);
    rewrite(move.item2, move.wanted2);
    header_of(set, move.item1)->pointer_to_us = nullptr;
    header_of(set, move.item2)->pointer_to_us = nullptr;
    if (bucket_is_full(set, new1))
        return pair_insert_result::first_refused;
    link_at_head(set, move.item1, new1);
    if (bucket_is_full(set, new2)) {
        unlink(set, move.item1, new1);
        header_of(set, move.item1)->pointer_to_us = nullptr;
        return pair_insert_result::second_refused;
    }
    link_at_head(set, move.item2, new2);
    zon_count_items(set, 2);
    return pair_insert_result::linked;
}

void zon_hashset_remove(zon_hashset set, zon_hashset_item item) {
    const uint32_t bucket = bucket_of(set, set->hash_function(item, set->calc_context));
    held_bucket held(set, bucket);
    zon_count_items(set, -remove_from(set, item, bucket));
}

void zon_hashset_remove_full(zon_hashset set, zon_hashset_item item1, zon_hashset_item item2) {
    const uint32_t b1 = bucket_of(set, set->hash_function(item1, set->calc_context));
    const uint32_t b2 = bucket_of(set, set->hash_function(item2, set->calc_context));
    held_buckets<2> held(set, {b1, b2});
    zon_count_items(set, -(remove_from(set, item1, b1) + remove_from(set, item2, b2)));
}

void zon_hashset_iterate(zon_hashset set, zon_hashset_iteration_handler handler, void* ctx) {
    iteration running(set);
    for (int bucket = 0; bucket < set->array_size; ++bucket)
        for (zon_hashset_hdr *header = set->array[bucket], *next; header != nullptr;
             header = next) {
            next = header->next;
            handler(set, item_of(set, header), ctx);
        }
}

int zon_hashset_size(zon_hashset set) {
    return zon_items_in(set);
}

bool zon_hashset_is_available(zon_hashset set) {
    return set != nullptr && relaxed_load(set->iterating) == 0;
}

void zon_hashset_get_statistics(zon_hashset set, int* size, int* used, int* empty, int* occupied,
                                int* bucket_ave, int* bucket_max, int** distribution) {
    *size = set->array_size;
    *used = zon_hashset_size(set);
    *empty = *occupied = *bucket_ave = *bucket_max = 0;
    int* depths = nullptr;
    if (distribution != nullptr)
        *distribution = depths =
            static_cast<int*>(zon_heap_zalloc(static_cast<size_t>(set->array_size), sizeof(int)));

    iteration running(set);
    int items = 0;
    for (int bucket = 0; bucket < set->array_size; ++bucket) {
        sched_yield();  // each time, kept on purpose: packets go first
        int depth = 0;
        {
            held_bucket held(set, static_cast<uint32_t>(bucket));
            for (const zon_hashset_hdr* header = set->array[bucket]; header != nullptr;
                 header = header->next)
                ++depth;
        }
        ++*(depth > 0 ? occupied : empty);
        items += depth;
        *bucket_max = std::max(*bucket_max, depth);
        if (depths != nullptr)
            depths[bucket] = depth;
    }
    if (*occupied > 0)
        *bucket_ave = items / *occupied;
}

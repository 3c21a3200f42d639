// zon_hashset.h - a chained hash set of intrusive items under striped bucket locks.
//
// It knows nothing of keys: the owner supplies the hash and the match function. Its items are half
// flows, and what it finds or inserts it hands over with the lock of the item's flow held.
//
// Locks      a bucket lock is held only inside one operation. A flow lock is never awaited under a
//            bucket lock: when it is taken, the bucket is let go, the flow lock awaited and the
//            bucket searched again.
// Sizes      the number of buckets is fixed at creation.

#pragma once

#include <cstdint>

#include "osal/zon_lock.h"
#include "zon_engine_defs.h"

using zon_hashset_item = void*;
struct zon_hashset_;
using zon_hashset = zon_hashset_*;
using zon_hash_calculator = unsigned int (*)(void* item_or_key, void* context);
using zon_hash_matcher = bool (*)(void* key, void* item, void* context);
using zon_hashset_iteration_handler = void (*)(zon_hashset set, zon_hashset_item item,
                                               void* context);

struct zon_hash_attr {
    bool hashtable_fixed_size;
    int hashtable_size;
    int concurrency_level;
    uint8_t max_bucket_depth;
};

struct zon_hashset_ {
    zon_hashset_hdr** array;
    uint8_t* items_in_bucket;
    int header_offset;
    int array_size;
    int used;
    int iterating;
    int resize_threshold_down;
    int resize_threshold_up;
    zon_lock_pool_t bucket_locks;
    int concurrency_level;
    bool is_fixed_size;
    zon_hash_calculator hash_function;
    zon_hash_matcher match_function;
    uint8_t max_bucket_depth;
    void* calc_context;
};

static_assert(sizeof(zon_hash_attr) == 16 && sizeof(zon_hashset_) == 88);

void zon_hash_attr_init(zon_hash_attr* attrs);
void zon_hash_attr_sethashtable(zon_hash_attr* attrs, bool resizable, int size,
                                int concurrency_level, uint8_t max_bucket_depth);

// 0, or 2 and nothing stored.
zon_error_t zon_hashset_create(zon_hashset* hashset_handle, zon_hash_attr* attrs,
                               int header_data_offset, zon_hash_calculator calc,
                               zon_hash_matcher matcher, void* ctx);
void zon_hashset_free(zon_hashset* hashset_handle);

// False when the bucket is at its depth limit. The caller holds the item's flow, which is locked on
// return in either case one level more.
bool zon_hashset_insert(zon_hashset set, zon_hashset_item item);
bool zon_hashset_insert_direct(zon_hashset set, zon_hashset_item item, int bucket);

// The newest match, its flow locked, or null. The key's bucket goes to *bucket in either case.
zon_hashset_item zon_hashset_get(zon_hashset set, zon_hashset_item item_key, int* bucket);

// The items must be in the set; one whose link back is null, as a refused move leaves it, is passed
// over.
void zon_hashset_remove(zon_hashset set, zon_hashset_item item);
void zon_hashset_remove_full(zon_hashset set, zon_hashset_item item1, zon_hashset_item item2);

enum class pair_insert_result { linked, first_refused, second_refused, already_present };
// Tells whether an item that is in the set stands for the same thing as a new one.
using zon_hashset_same = bool (*)(const void* new_item, const void* item, void* context);
using zon_hashset_linked = void (*)(zon_hashset_item item1, zon_hashset_item item2, void* context);

// Links both halves of a new flow at once, so that no thread ever sees one of them alone, unless an
// item that counts as the same as the first is there already. The second is not compared:
// translated or re-keyed flows may share a reverse key, and then the newest is found. The caller
// holds the flow's lock throughout. The buckets are those of the items' hashes, as a get for them
// reports. linked is called with both items in, before their buckets are let go.
pair_insert_result zon_hashset_insert_pair(zon_hashset set, zon_hashset_item item1, int bucket1,
                                           zon_hashset_item item2, int bucket2,
                                           zon_hashset_same same, zon_hashset_linked linked,
                                           void* context);

// Two items that are in the set, and records that hash and compare as they will after they were
// rewritten.
struct relink_pair {
    zon_hashset_item item1;
    const void* wanted1;
    zon_hashset_item item2;
    const void* wanted2;
    void* same_context = nullptr;
};
using zon_hashset_rewrite = void (*)(zon_hashset_item item, const void* wanted);

// Takes both items out, rewrites them and links them into their new buckets, all in one step,
// unless something that counts as the same as the first wanted one is there: then nothing changes.
// When a new bucket is full both items end outside the set, rewritten, without a link back.
pair_insert_result zon_hashset_relink_pair(zon_hashset set, const relink_pair& move,
                                           zon_hashset_same same, zon_hashset_rewrite rewrite);

// Takes no bucket's lock: nothing is inserted or removed meanwhile.
void zon_hashset_iterate(zon_hashset set, zon_hashset_iteration_handler handler, void* ctx);
int zon_hashset_size(zon_hashset set);
bool zon_hashset_is_available(zon_hashset set);
void zon_hashset_get_statistics(zon_hashset set, int* size, int* used, int* empty, int* occupied,
                                int* bucket_ave, int* bucket_max, int** distribution);

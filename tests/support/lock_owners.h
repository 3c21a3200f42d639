// lock_owners.h - who holds which of the engine's locks, for the message of a watchdog.

#pragma once

#include <cstdio>

#include "support/flow_reader.h"

namespace zon_test {

// The pthread_t of the thread that holds a lock, or 0; a guess while threads run.
inline uintptr_t owner_of(zon_lock_t lock) {
    const uint64_t holder = lock_at(lock)->holder.load(std::memory_order_relaxed);
    return (holder & lock_detail::thread_mask) << lock_detail::pointer_bits_dropped;
}

inline void print_owner(const char* name, int entry, zon_lock_t lock) {
    if (const uintptr_t owner = owner_of(lock); owner != 0)
        std::fprintf(stderr, "  %s %d is held by thread 0x%zx\n", name, entry, owner);
}

inline void print_held_locks() {
    if (g_zon == nullptr || g_zon->fid_table == nullptr || g_zon->flow_tbl == nullptr)
        return;
    const zon_fid_table_t* fids = g_zon->fid_table;
    for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
         flow = relaxed_load(flow->next_flow))
        print_owner("lock of flow", static_cast<int>(flow->fid), flow->flow_lock);
    print_owner("lock of the identifier table", 0, fids->fid_table_lock);
    print_owner("lock of the flow table", 0, g_zon->flow_tbl->flow_table_lock);
    const zon_hashset_* buckets = g_zon->flow_tbl->table;
    for (int entry = 0; entry < buckets->concurrency_level; ++entry)
        print_owner("bucket lock", entry, zon_lock_get_pool_lock(buckets->bucket_locks, entry));
}

}  // namespace zon_test

// lock_owners.h - who holds which of the engine's locks, for the message of a watchdog.

#pragma once

#include <cstdio>

#include "support/flow_reader.h"

namespace zon_test {

// The pthread_t of the thread that holds a lock, or 0; a guess while threads run.
inline uintptr_t owner_of(zon_lock_t lock) {
    return lock_at(lock)->owner.load(std::memory_order_relaxed);
}

inline void print_owner(const char* name, int entry, zon_lock_t lock) {
    if (const uintptr_t owner = owner_of(lock); owner != 0)
        std::fprintf(stderr, "  %s %d is held by thread 0x%zx\n", name, entry, owner);
}

inline void print_held_locks() {
    if (g_zon == nullptr || g_zon->fid_table == nullptr || g_zon->flow_tbl == nullptr)
        return;
    const zon_fid_table_t* fids = g_zon->fid_table;
    for (int entry = 0; entry < static_cast<int>(fids->lock_pool_size); ++entry)
        print_owner("flow lock", entry, zon_lock_get_pool_lock(fids->locks, entry));
    print_owner("lock of the identifier table", 0, fids->fid_table_lock);
    print_owner("lock of the flow table", 0, g_zon->flow_tbl->flow_table_lock);
    const zon_hashset_* buckets = g_zon->flow_tbl->table;
    for (int entry = 0; entry < buckets->concurrency_level; ++entry)
        print_owner("bucket lock", entry, zon_lock_get_pool_lock(buckets->bucket_locks, entry));
}

}  // namespace zon_test

// lock_owners.h - who holds which of the engine's locks, for the message of a watchdog.

#pragma once

#include <cstdio>
#include <functional>
#include <map>
#include <string>

#include "support/flow_reader.h"

namespace zon_test {

// Says who a thread is, by its pthread_self().
using thread_namer = std::function<std::string(uintptr_t)>;

// A guess while threads run: the pthread_self() of the thread that holds a lock, or 0.
inline uintptr_t owner_of(zon_lock_t lock) {
    const uint64_t holder = lock_at(lock)->holder.load(std::memory_order_relaxed);
    return (holder & lock_detail::thread_mask) << lock_detail::pointer_bits_dropped;
}

inline void print_owner(const std::string& name, zon_lock_t lock, const thread_namer& name_of) {
    if (const uintptr_t owner = owner_of(lock); owner != 0)
        std::fprintf(stderr, "  %s is held by %s\n", name.c_str(), name_of(owner).c_str());
}

// Flows share locks: each is printed once, with all of its flows.
inline void print_owners_of_flows(const thread_namer& name_of) {
    std::map<zon_lock_t, std::string> flows_of;
    for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
         flow = relaxed_load(flow->next_flow))
        if (record_of(flow->fid) == flow)
            flows_of[flow->flow_lock] += " " + std::to_string(flow->fid);
    for (const auto& [lock, flows] : flows_of)
        print_owner("lock of flows" + flows, lock, name_of);
}

inline void print_held_locks(const thread_namer& name_of) {
    if (g_zon == nullptr || g_zon->fid_table == nullptr || g_zon->flow_tbl == nullptr)
        return;
    print_owners_of_flows(name_of);
    print_owner("lock of the identifier table", g_zon->fid_table->fid_table_lock, name_of);
    print_owner("lock of the flow table", g_zon->flow_tbl->flow_table_lock, name_of);
    const zon_hashset_* buckets = g_zon->flow_tbl->table;
    for (int entry = 0; entry < buckets->concurrency_level; ++entry)
        print_owner("bucket lock " + std::to_string(entry),
                    zon_lock_get_pool_lock(buckets->bucket_locks, entry), name_of);
}

}  // namespace zon_test

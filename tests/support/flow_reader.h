// flow_reader.h - looks at the engine's records from a test that runs nothing else meanwhile.

#pragma once

#include "support/lock_level.h"
#include "zon_engine_inline.h"

namespace zon_test {

// The record of a flow in use, unlocked, or null.
inline zon_flow_t* record_of(zon_fid_t fid) {
    return fid != 0 && fid <= g_zon->fid_table->capacity ? g_zon->fid_table->table[fid - 1]
                                                         : nullptr;
}

inline uint32_t flows_in_use() {
    uint32_t in_use = 0;
    for (uint32_t slot = 0; slot < g_zon->fid_table->capacity; ++slot)
        in_use += g_zon->fid_table->table[slot] != nullptr ? 1U : 0U;
    return in_use;
}

// Calls visit with each flow lock that some record has.
template <class visitor>
void for_each_flow_lock(visitor visit) {
    for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
         flow = relaxed_load(flow->next_flow))
        visit(flow->flow_lock);
}

// No flow lock and no lock of a table is held, by whichever thread.
inline bool no_lock_is_held() {
    const zon_fid_table_t* table = g_zon->fid_table;
    bool all_free = is_free_for_others(table->fid_table_lock) &&
                    is_free_for_others(g_zon->flow_tbl->flow_table_lock);
    for_each_flow_lock(
        [&all_free](zon_lock_t lock) { all_free = all_free && is_free_for_others(lock); });
    for (int stripe = 0; stripe < g_zon->flow_tbl->table->concurrency_level; ++stripe)
        all_free = all_free && is_free_for_others(zon_lock_get_pool_lock(
                                   g_zon->flow_tbl->table->bucket_locks, stripe));
    return all_free;
}

}  // namespace zon_test

// zon_fid_table.h - owns every flow record and gives each an identifier for life.
//
// Records are made in blocks on demand, never returned to memory while the engine runs, and reused
// first freed first, so that an identifier that somebody kept is unlikely to name another flow
// soon.
//
// Locks      fid_table_lock guards free list and counters. A slot is read by all; it is set by
//            whoever holds the new flow and cleared by whoever has hidden it, before the record is
//            free. A flow lock is never awaited under fid_table_lock.

#pragma once

#include <cstdint>

#include "osal/zon_lock.h"
#include "zon_debug_api.h"
#include "zon_engine_defs.h"

struct zon_fid_table_ {
    zon_flow_t** table;
    zon_lock_pool_t locks;
    uint32_t allocated;
    uint32_t capacity;
    uint32_t lock_pool_size;
    uint32_t chunk_size;
    zon_flow_t* free_head;
    zon_flow_t* free_tail;
    zon_flow_t* allocated_head;
    zon_lock_t fid_table_lock;
    bool in_use;
};
using zon_fid_table_t = zon_fid_table_;

static_assert(sizeof(zon_fid_table_t) == 72);

zon_fid_table_t* zon_fid_table_init(const uint32_t max_flows, const uint32_t flow_block_alloc_size,
                                    const uint32_t concurrency_level);
void zon_fid_table_destroy(zon_fid_table_t* fid_table);

// A reset record, locked, its slot set; null when the table is full, or grows by no records.
zon_flow_t* zon_fid_table_new_flow_locked(zon_fid_table_t* fid_table);
inline zon_flow_t* zon_fid_table_new_flow(zon_fid_table_t* fid_table) {
    return zon_fid_table_new_flow_locked(fid_table);
}
// The flow is dying or known to this thread alone. False only for a null table.
bool zon_fid_table_recycle_flow(zon_fid_table_t* fid_table, const zon_fid_t fid);

// Brings the free records that wait in lanes (osal/zon_lanes.h) back to the free list.
void zon_fid_table_gather(zon_fid_table_t* fid_table);

// Calls cb with a report of each flow in use, outside all locks. user also is the filter of the
// reports.
void zon_fid_table_iterate_flow(zon_fid_table_t* fid_table, fid_table_iterate_by_flow_cb_t cb,
                                void* user);
zon_error_t zon_fid_table_is_available(zon_fid_table_t* fid_table);

void zon_reset_flow(zon_flow_t* flow);

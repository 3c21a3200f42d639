// zon_fid_table_inline.h - from an identifier to its flow.

#pragma once

#include "osal/zon_lock.h"
#include "zon_fid_table.h"

inline bool fid_is_valid(const zon_fid_table_t* fid_table, zon_fid_t fid) {
    return fid != 0 && fid <= fid_table->capacity;
}

// The record of a valid identifier that is in use, or null. Read without a lock: a record keeps its
// identifier and its lock for ever, and whoever finds one that is not hidden under its lock has the
// identifier's flow.
inline zon_flow_t* zon_fid_table_slot(const zon_fid_table_t* fid_table, zon_fid_t fid) {
    return __atomic_load_n(&fid_table->table[fid - 1], __ATOMIC_ACQUIRE);
}

// The flow, locked; empty for 0, for a free identifier and for a flow whose deletion is past its
// callbacks. An identifier above the capacity stops the program.
locked_flow zon_fid_table_lookup(zon_fid_table_t* fid_table, const zon_fid_t fid);

// While it lives, fid lookups of this thread still find the flow that the thread itself is
// deleting: client functions that run late in a deletion may ask about it.
class deletion_in_progress {
public:
    explicit deletion_in_progress(zon_flow_t* flow);
    ~deletion_in_progress();
    deletion_in_progress(const deletion_in_progress&) = delete;
    deletion_in_progress& operator=(const deletion_in_progress&) = delete;

private:
    zon_flow_t* outer_;
};

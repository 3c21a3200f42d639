// zon_fid_lanes.h - free flow records on their way between the identifier table and threads that
// meet others there (osal/zon_lanes.h).
//
// A thread with a lane takes a row of records from the table's list and hands them out one by one;
// what it gives back it collects in a second row, which goes to the list's end. So identifiers are
// reused first freed first but for two rows per lane. When the list is empty and the table cannot
// grow, or none of its records can be had, all lanes are emptied into it and stay closed until many
// records have come back: no flow is refused while any record is free.
//
// Locks      each lane has one of its own, which comes after fid_table_lock. Records move between
//            lanes and the list under both; under its lane's lock alone a thread takes a record
//            from its row, or puts one in.

#pragma once

#include <array>
#include <atomic>

#include "osal/zon_lanes.h"
#include "osal/zon_lock.h"
#include "zon_fid_table.h"
#include "zon_free_records.h"

struct alignas(64) record_lane {
    recursive_lock lock{};
    free_row fresh;  // to hand out
    free_row given;  // to give back
    uint32_t given_count = 0;
};

// The table as it is allocated: what hosts may look at first, then what only the operations use.
struct fid_table_storage : zon_fid_table_ {
    std::atomic<int> readers = 0;  // how many walks keep in_use set
    void* memory = nullptr;        // what is freed with it

    // Under fid_table_lock. The row at the end of the free list that still grows.
    zon_flow_t* open_row = nullptr;
    uint32_t open_row_length = 0;
    uint32_t given_since_closed = 0;

    // Of a small table lanes would hold back so much that identifiers came again soon.
    bool has_lanes = false;
    // Written under fid_table_lock, read under a lane's.
    std::atomic<bool> lanes_are_closed = false;
    std::array<record_lane, zon_lane_count> lanes{};
};

inline fid_table_storage* storage_of(zon_fid_table_t* fid_table) {
    return static_cast<fid_table_storage*>(fid_table);
}

// With fid_table_lock held: a record to the end of the free list, and the first one whose lock is
// free, locked, from it; null without one.
void zon_append_to_free_list(fid_table_storage& table, zon_flow_t* flow);
zon_flow_t* zon_take_from_free_list(fid_table_storage& table);

// With fid_table_lock held: empties all lanes into the free list and closes them. False when
// nothing waited in any.
bool zon_fid_lanes_gather(fid_table_storage& table);

// A record of this thread's lane, locked, or null. The second one takes a row from the free list
// first, with fid_table_lock held.
zon_flow_t* zon_fid_lane_take(fid_table_storage& table);
zon_flow_t* zon_fid_lane_refill(fid_table_storage& table);

// False when this thread has no lane that takes the record.
bool zon_fid_lane_give(fid_table_storage& table, zon_flow_t* flow);

void zon_fid_lanes_init(fid_table_storage& table);
void zon_fid_lanes_destroy(fid_table_storage& table);

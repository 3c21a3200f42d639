// zon_fid_table.cpp - flow records and their identifiers.
//
// Owns   every flow record ever made, and the flow locks: a pool, or one in each record.
// Locks  fid_table_lock; under it flow locks are tried for, never awaited, because clients look up
//        flows while they hold another one's lock (docs/locking.md). Lookups need a flow's lock
//        alone.

#include "zon_fid_table.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include <sched.h>

#include "osal/zon_debug.h"
#include "osal/zon_mem.h"
#include "zon_connection.h"
#include "zon_engine_inline.h"
#include "zon_fid_lanes.h"
#include "zon_fid_table_inline.h"

namespace {

// The flow that this thread is deleting; its own late callbacks still find it.
thread_local zon_flow_t* flow_in_deletion = nullptr;

bool is_hidden(const zon_flow_t* flow) {
    return zon_flow_is_dying(flow) && flow != flow_in_deletion;
}

// Where there are as many locks as flows, each record brings its own, on a line that a packet
// touches anyway. Records live as long as the table, as the pool does.
bool records_have_locks(const zon_fid_table_t* fid_table) {
    return fid_table->lock_pool_size >= fid_table->capacity;
}

// An engine made for no threads at all still has one flow lock.
int pool_size_of(const zon_fid_table_t* fid_table) {
    return records_have_locks(fid_table)
               ? 0
               : static_cast<int>(std::max(1U, fid_table->lock_pool_size));
}

// The record has its identifier.
zon_lock_t lock_for(zon_fid_table_t* fid_table, flow_record* record) {
    if (!records_have_locks(fid_table))
        return zon_lock_get_pool_lock(
            fid_table->locks, static_cast<int>((record->flow.fid - 1) %
                                               static_cast<uint32_t>(pool_size_of(fid_table))));
    zon_lock_init(&record->own_lock);
    zon_lock_set_class(&record->own_lock, lock_class::flow);
    return &record->own_lock;
}

// Nobody else knows the record yet.
void zon_fid_table_add_record(zon_fid_table_t* fid_table, flow_record* record) {
    std::memset(static_cast<void*>(record), 0, sizeof *record);
    zon_flow_t* flow = &record->flow;
    flow->fid = fid_table->allocated + 1;
    zon_require(fid_is_valid(fid_table, flow->fid), "fid_is_valid(tbl, flow->fid)",
                "zon_fid_table_allocate_more");
    flow->flow_lock = lock_for(fid_table, record);
    flow->marked_for_delete = true;
    zon_private_link_flow(flow);
    zon_append_to_free_list(*storage_of(fid_table), flow);
    relaxed_add(fid_table->allocated, 1);
}

// Makes up to one block of records; fewer at the end of the table or of memory. False when memory
// ran out.
bool zon_fid_table_allocate_more(zon_fid_table_t* fid_table) {
    for (uint32_t made = 0;
         made < fid_table->chunk_size && fid_table->allocated < fid_table->capacity; ++made) {
        auto* record = static_cast<flow_record*>(
            zon_private_chunk_malloc(ZON_FLOW_MEM_TYPE, &g_zon->zon_chunk_ptr));
        if (record == nullptr)
            return false;
        zon_fid_table_add_record(fid_table, record);
    }
    return true;
}

void set_slot(zon_fid_table_t* fid_table, zon_fid_t fid, zon_flow_t* flow) {
    __atomic_store_n(&fid_table->table[fid - 1], flow, __ATOMIC_RELEASE);
}

bool can_make_more(const zon_fid_table_t* fid_table) {
    return fid_table->chunk_size != 0 && fid_table->allocated < fid_table->capacity;
}

// Whether the free list has records now: new ones, or such as waited in lanes, when it was empty.
bool provide_records(fid_table_storage& table) {
    if (table.free_head != nullptr)
        return true;
    if (can_make_more(&table) && zon_fid_table_allocate_more(&table) && table.free_head != nullptr)
        return true;
    return zon_fid_lanes_gather(table);
}

// A record of the list whose lock is free, else of any lane.
zon_flow_t* take_record_locked(fid_table_storage& table) {
    if (zon_own_lane() >= 0)
        if (zon_flow_t* flow = zon_fid_lane_refill(table))
            return flow;
    if (zon_flow_t* flow = zon_take_from_free_list(table))
        return flow;
    return zon_fid_lanes_gather(table) ? zon_take_from_free_list(table) : nullptr;
}

// Null at the limit and without memory. While the locks of all free records are busy it comes
// again.
zon_flow_t* take_from_table(fid_table_storage& table) {
    for (;; sched_yield()) {
        zon_lock_shared_list(table.fid_table_lock);
        const bool any = provide_records(table);
        zon_flow_t* flow = any ? take_record_locked(table) : nullptr;
        zon_unlock_internal(table.fid_table_lock);
        if (flow != nullptr || !any)
            return flow;
    }
}

// Of this table alone: the lock of its flow keeps the record from everybody else.
void begin_flow(zon_fid_table_t* fid_table, zon_flow_t* flow) {
    zon_require(fid_is_valid(fid_table, flow->fid), "fid_is_valid(fid_table, fid)",
                "zon_fid_table_new_flow");
    zon_reset_flow(flow);
    set_slot(fid_table, flow->fid, flow);
}

}  // namespace

deletion_in_progress::deletion_in_progress(zon_flow_t* flow) : outer_(flow_in_deletion) {
    flow_in_deletion = flow;
}
deletion_in_progress::~deletion_in_progress() {
    flow_in_deletion = outer_;
}

namespace {

// The general heap aligns less than lanes want it.
fid_table_storage* make_storage() {
    size_t bytes = sizeof(fid_table_storage) + alignof(fid_table_storage);
    void* memory = zon_heap_zalloc(1, bytes);
    if (memory == nullptr)
        return nullptr;
    void* aligned = memory;
    std::align(alignof(fid_table_storage), sizeof(fid_table_storage), aligned, bytes);
    auto* table = new (aligned) fid_table_storage{};
    table->memory = memory;
    return table;
}

void free_storage(fid_table_storage* table) {
    void* memory = table->memory;
    table->~fid_table_storage();
    std::free(memory);
}

}  // namespace

zon_fid_table_t* zon_fid_table_init(const uint32_t max_flows, const uint32_t flow_block_alloc_size,
                                    const uint32_t concurrency_level) {
    if (concurrency_level > uint32_t{std::numeric_limits<int>::max()})
        return nullptr;
    fid_table_storage* fid_table = make_storage();
    if (fid_table == nullptr)
        return nullptr;
    fid_table->capacity = max_flows;
    fid_table->table =
        static_cast<zon_flow_t**>(zon_heap_zalloc(std::max(1U, max_flows), sizeof(zon_flow_t*)));
    fid_table->chunk_size = flow_block_alloc_size;
    fid_table->lock_pool_size = concurrency_level;
    const int pool_size = pool_size_of(fid_table);
    fid_table->locks = zon_lock_create_pool(pool_size);
    fid_table->fid_table_lock = zon_lock_allocate();
    if (fid_table->table == nullptr || fid_table->locks == nullptr ||
        fid_table->fid_table_lock == nullptr) {
        if (fid_table->locks != nullptr)
            zon_lock_destroy_pool(fid_table->locks, pool_size);
        std::free(fid_table->fid_table_lock);
        std::free(fid_table->table);
        free_storage(fid_table);
        return nullptr;
    }
    zon_fid_lanes_init(*fid_table);
    zon_lock_init(fid_table->fid_table_lock);
    zon_lock_set_class(fid_table->fid_table_lock, lock_class::fid_table);
    zon_lock_set_class_of_pool(fid_table->locks, pool_size, lock_class::flow);
    if (can_make_more(fid_table))
        zon_fid_table_allocate_more(fid_table);
    return fid_table;
}

void zon_fid_table_destroy(zon_fid_table_t* fid_table) {
    if (fid_table == nullptr)
        return;
    zon_fid_lanes_destroy(*storage_of(fid_table));
    while (zon_flow_t* flow = fid_table->free_head) {
        fid_table->free_head = flow->next_free;
        zon_lock_destroy(&record_of(flow)->own_lock);
        zon_private_chunk_free_or_trace(ZON_FLOW_MEM_TYPE, record_of(flow), &g_zon->zon_chunk_ptr);
    }
    std::free(fid_table->table);
    zon_lock_destroy_pool(fid_table->locks, pool_size_of(fid_table));
    zon_lock_destroy(fid_table->fid_table_lock);
    std::free(fid_table->fid_table_lock);
    free_storage(storage_of(fid_table));
}

void zon_reset_flow(zon_flow_t* flow) {
    flow->next_free = nullptr;
    // A relative that outlived this record's last flow may look at the links meanwhile.
    for (zon_flow_t** link : {&flow->bundle_parent, &flow->bundle_child, &flow->bundle_sibling})
        __atomic_store_n(link, nullptr, __ATOMIC_RELAXED);
    flow->l4state = {};
    flow->packet_number = 0;
    flow->first_payload_seen_on_pkt_num = 0;
    flow->num_l7_bytes = 0;
    flow->app_id = 0;
    flow->age_ms = 0;
    flow->is_dropped = false;
    flow->marked_for_delete = false;
    flow->should_reset_timer = false;
    flow->private_given_back = 0;
    flow->private_indexed = 0;
    relaxed_store(flow->private_half_open, 0);
    flow->fo_list = nullptr;
    flow->bypass_id = 0;
    flow->tunnel_type = ZON_TUNNEL_TYPE_NONE;
    std::fill(std::begin(flow->super_ctx), std::end(flow->super_ctx), nullptr);
    zon_flow_set_dying(flow, false);
}

zon_flow_t* zon_fid_table_new_flow_locked(zon_fid_table_t* fid_table) {
    zon_require(fid_table != nullptr, "fid_table", "zon_fid_table_new_flow");
    fid_table_storage& table = *storage_of(fid_table);
    zon_flow_t* flow = zon_own_lane() < 0 ? nullptr : zon_fid_lane_take(table);
    if (flow == nullptr)
        flow = take_from_table(table);
    if (flow == nullptr)
        return nullptr;
    begin_flow(fid_table, flow);
    // Coming again is a wait, too.
    zon_flow_could_wait(flow);
    return flow;
}

bool zon_fid_table_recycle_flow(zon_fid_table_t* fid_table, const zon_fid_t fid) {
    if (fid_table == nullptr)
        return false;
    zon_require(fid_is_valid(fid_table, fid), "fid_is_valid(fid_table, fid)");
    zon_flow_t* flow = zon_fid_table_slot(fid_table, fid);
    if (flow == nullptr)
        return true;
    // Past its dying mark the record is the deleting thread's alone, and once it is given back the
    // table's.
    flow->marked_for_delete = true;
    set_slot(fid_table, fid, nullptr);
    fid_table_storage& table = *storage_of(fid_table);
    if (zon_own_lane() >= 0 && zon_fid_lane_give(table, flow))
        return true;
    zon_lock_shared_list(table.fid_table_lock);
    zon_append_to_free_list(table, flow);
    zon_unlock_internal(table.fid_table_lock);
    return true;
}

// A record that is not hidden under its flow's lock is the flow of its identifier, whatever
// happened while the lock was awaited: it is hidden before it is given back, and locked before it
// is shown.
locked_flow zon_fid_table_lookup(zon_fid_table_t* fid_table, const zon_fid_t fid) {
    zon_require(fid_table != nullptr, "fid_table");
    if (fid == 0)
        return {};
    zon_require(fid_is_valid(fid_table, fid), "fid_is_valid(fid_table, fid)");
    zon_flow_t* flow = zon_fid_table_slot(fid_table, fid);
    if (flow == nullptr || is_hidden(flow))
        return {};
    if (zon_lock_internal(flow->flow_lock) != 0)
        return {};
    if (zon_fid_table_slot(fid_table, fid) == flow && !is_hidden(flow))
        return locked_flow::adopt(flow);
    zon_unlock_internal(flow->flow_lock);
    return {};
}

zon_error_t zon_fid_table_is_available(zon_fid_table_t* fid_table) {
    return fid_table == nullptr || relaxed_load(fid_table->in_use)
               ? zon_error_fid_table_access_failed
               : zon_error_none;
}

void zon_fid_table_iterate_flow(zon_fid_table_t* fid_table, fid_table_iterate_by_flow_cb_t cb,
                                void* user) {
    std::atomic<int>& readers = storage_of(fid_table)->readers;
    uint32_t last;
    {
        held_lock table(fid_table->fid_table_lock);
        readers.fetch_add(1);
        relaxed_store(fid_table->in_use, true);
        last = fid_table->capacity;
    }
    zon_flow_report_t report{};
    for (zon_fid_t fid = 1; fid <= last; ++fid) {
        sched_yield();  // each time, kept on purpose: packets go first
        bool filled = false;
        if (locked_flow flow = zon_fid_table_lookup(fid_table, fid);
            flow && !flow->marked_for_delete)
            filled = zon_debug_flow_populate_report(flow.get(), &report,
                                                    static_cast<zon_dump_flow_context*>(user));
        if (filled)
            cb(&report, user);
    }
    held_lock table(fid_table->fid_table_lock);
    if (readers.fetch_sub(1) == 1)
        relaxed_store(fid_table->in_use, false);
}

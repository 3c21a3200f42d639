// zon_fid_lanes.cpp - moves free flow records between the identifier table's list and the lanes.
//
// Owns   nothing; the table owns every record.
// Locks  fid_table_lock, then one lane's at a time.

#include "zon_fid_lanes.h"

#include <algorithm>

#include "zon_fid_table_inline.h"

namespace {

// Once closed, lanes open again when so many records, or half of a smaller table, have come back.
constexpr uint32_t plenty = 1024;

record_lane* own_lane(fid_table_storage& table) {
    const int lane = zon_own_lane();
    return lane < 0 || !table.has_lanes ? nullptr : &table.lanes[static_cast<size_t>(lane)];
}

void note_given(fid_table_storage& table, uint32_t records) {
    if (!table.lanes_are_closed.load(std::memory_order_relaxed)) [[likely]]
        return;
    table.given_since_closed += records;
    if (table.given_since_closed >= std::min(plenty, table.capacity / 2))
        table.lanes_are_closed.store(false, std::memory_order_relaxed);
}

bool is_open(const fid_table_storage& table) {
    return !table.lanes_are_closed.load(std::memory_order_relaxed);
}

void append_row(fid_table_storage& table, free_row row) {
    end_of_row(row.head) = row.tail;
    if (table.free_tail != nullptr)
        table.free_tail->next_free = row.head;
    else
        table.free_head = row.head;
    table.free_tail = row.tail;
    table.open_row = nullptr;
}

// Where it was taken from. What others have left of a row is none any more.
void put_row_back(fid_table_storage& table, free_row row) {
    for (zon_flow_t* flow = row.head; flow != nullptr; flow = flow->next_free)
        end_of_row(flow) = nullptr;
    end_of_row(row.head) = row.tail;
    row.tail->next_free = table.free_head;
    table.free_head = row.head;
    if (table.free_tail == nullptr)
        table.free_tail = row.tail;
}

// A free record was often used long ago: the next one is on its way before it is taken.
void prefetch_for_reset(const zon_flow_t* flow) {
    if (flow == nullptr)
        return;
    const auto* bytes = reinterpret_cast<const char*>(record_of(flow));
    for (size_t line = 0; line < sizeof(flow_record); line += 64)
        __builtin_prefetch(bytes + line, 1);
}

// What waited longest comes first again. False when nothing waited.
bool empty_lanes(fid_table_storage& table) {
    bool any = false;
    for (record_lane& lane : table.lanes) {
        const held_lock held(&lane.lock);
        if (const free_row fresh = std::exchange(lane.fresh, {}); fresh.head != nullptr) {
            put_row_back(table, fresh);
            any = true;
        }
        if (const free_row given = std::exchange(lane.given, {}); given.head != nullptr) {
            append_row(table, given);
            any = true;
        }
        lane.given_count = 0;
    }
    return any;
}

zon_flow_t* take_from(record_lane& lane) {
    zon_flow_t* flow = take_record(lane.fresh.head, lane.fresh.tail);
    prefetch_for_reset(lane.fresh.head);
    return flow;
}

}  // namespace

void zon_append_to_free_list(fid_table_storage& table, zon_flow_t* flow) {
    const zon_flow_t* last = table.free_tail;
    append_record(table.free_head, table.free_tail, flow);
    if (table.open_row == nullptr || table.open_row_length == zon_free_row_length ||
        end_of_row(table.open_row) != last) {
        table.open_row = flow;
        table.open_row_length = 0;
    }
    end_of_row(table.open_row) = flow;
    ++table.open_row_length;
    note_given(table, 1);
}

zon_flow_t* zon_take_from_free_list(fid_table_storage& table) {
    zon_flow_t* flow = take_record(table.free_head, table.free_tail);
    if (flow != nullptr && flow == table.open_row)
        table.open_row = nullptr;
    prefetch_for_reset(table.free_head);
    return flow;
}

bool zon_fid_lanes_gather(fid_table_storage& table) {
    if (!zon_lanes_are_used() || !is_open(table))
        return false;
    table.lanes_are_closed.store(true, std::memory_order_relaxed);
    table.given_since_closed = 0;
    return empty_lanes(table);
}

zon_flow_t* zon_fid_lane_take(fid_table_storage& table) {
    record_lane* lane = own_lane(table);
    if (lane == nullptr)
        return nullptr;
    const held_lock held(&lane->lock);
    return take_from(*lane);
}

zon_flow_t* zon_fid_lane_refill(fid_table_storage& table) {
    record_lane* lane = own_lane(table);
    if (lane == nullptr || !is_open(table) || table.free_head == nullptr)
        return nullptr;
    const held_lock held(&lane->lock);
    // Locks of others' flows keep this thread from the records that it has.
    if (lane->fresh.head != nullptr)
        return nullptr;
    lane->fresh = take_row(table.free_head, table.free_tail);
    if (lane->fresh.head == table.open_row)
        table.open_row = nullptr;
    if (table.free_head != nullptr)
        __builtin_prefetch(record_of(table.free_head));
    return take_from(*lane);
}

bool zon_fid_lane_give(fid_table_storage& table, zon_flow_t* flow) {
    record_lane* lane = own_lane(table);
    if (lane == nullptr)
        return false;
    {
        const held_lock held(&lane->lock);
        if (!is_open(table))
            return false;
        if (lane->given_count + 1 < zon_free_row_length) {
            append_record(lane->given.head, lane->given.tail, flow);
            ++lane->given_count;
            return true;
        }
    }
    const held_lock all(table.fid_table_lock);
    const held_lock held(&lane->lock);
    append_record(lane->given.head, lane->given.tail, flow);
    append_row(table, std::exchange(lane->given, {}));
    note_given(table, std::exchange(lane->given_count, 0) + 1);
    return true;
}

void zon_fid_table_gather(zon_fid_table_t* fid_table) {
    const held_lock all(fid_table->fid_table_lock);
    empty_lanes(*storage_of(fid_table));
}

void zon_fid_lanes_init(fid_table_storage& table) {
    constexpr uint32_t most_in_lanes = zon_lane_count * 2 * zon_free_row_length;
    table.has_lanes = table.capacity >= 4 * most_in_lanes;
    for (record_lane& lane : table.lanes)
        zon_lock_set_class(&lane.lock, lock_class::record_lane);
}

void zon_fid_lanes_destroy(fid_table_storage& table) {
    empty_lanes(table);
    for (record_lane& lane : table.lanes)
        zon_lock_destroy(&lane.lock);
}

// zon_free_records.h - rows of free flow records, first freed first, linked through next_free.
//
// The first record of a row that was freed together knows the last one, so that a lane takes all of
// them without looking at those between.
//
// Threads    whoever holds the lock of what a row belongs to.

#pragma once

#include <cstdint>
#include <utility>

#include "osal/zon_lock.h"
#include "zon_connection.h"

// How many records a lane takes or gives at once.
inline constexpr uint32_t zon_free_row_length = 16;

struct free_row {
    zon_flow_t* head = nullptr;
    zon_flow_t* tail = nullptr;
};

// Null in the midst of a row.
inline zon_flow_t*& end_of_row(zon_flow_t* flow) {
    return record_of(flow)->end_of_free_row;
}

inline void append_record(zon_flow_t*& head, zon_flow_t*& tail, zon_flow_t* flow) {
    flow->next_free = nullptr;
    end_of_row(flow) = nullptr;
    if (tail != nullptr)
        tail->next_free = flow;
    else
        head = flow;
    tail = flow;
}

// The first record of the list whose flow lock is free, with that lock held: for a single thread
// the head. Waiting for a particular one could wait for a client that holds another flow under the
// same lock.
inline zon_flow_t* take_record(zon_flow_t*& head, zon_flow_t*& tail) {
    zon_flow_t* before = nullptr;
    zon_flow_t* row = nullptr;
    for (zon_flow_t* flow = head; flow != nullptr; before = flow, flow = flow->next_free) {
        if (end_of_row(flow) != nullptr)
            row = flow;
        if (!zon_try_lock_internal(flow->flow_lock))
            continue;
        (before != nullptr ? before->next_free : head) = flow->next_free;
        if (tail == flow)
            tail = before;
        if (row != nullptr && row != flow && end_of_row(row) == flow)
            end_of_row(row) = before;
        return flow;
    }
    return nullptr;
}

// The records at the head that were freed together, or what others have left of them.
inline free_row take_row(zon_flow_t*& head, zon_flow_t*& tail) {
    free_row row{head, end_of_row(head)};
    if (row.tail == nullptr) {
        row.tail = head;
        for (uint32_t length = 1; length < zon_free_row_length; ++length) {
            zon_flow_t* next = row.tail->next_free;
            if (next == nullptr || end_of_row(next) != nullptr)
                break;
            row.tail = next;
        }
    }
    head = std::exchange(row.tail->next_free, nullptr);
    if (head == nullptr)
        tail = nullptr;
    return row;
}

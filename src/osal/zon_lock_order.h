// zon_lock_order.h - the classes of the engine's locks and the steps in which a thread may wait for
// them (docs/locking.md).
//
// Where ZON_CHECK_LOCK_ORDER is defined, a thread that waits in another order stops the program
// with a line that begins with "lock order" and a list of what it holds. Elsewhere everything here
// is empty and leaves nothing behind.

#pragma once

#include <array>
#include <cstddef>
#include <mutex>

#include "zon_engine_defs.h"

enum class lock_class {
    flow,
    fid_table,
    flow_table,
    quarantine,
    stand_in,
    bucket,
    bundle,
    super_context,
    fragment,
    preflow_counts,
    dump_marks,
    clients,
    lane_counts,
    record_lane,
    memory_lane,
    memory,
    end
};

// A lock of the same class beside one that is held: may a thread wait for it?
enum class lock_siblings {
    alone,   // never
    in_row,  // where its pool entry is the later one
    hosts    // a host that holds one may, the engine may not
};

struct lock_class_row {
    lock_class of;
    const char* name;
    int step;  // a thread waits for later steps only
    lock_siblings siblings;
};

inline constexpr std::array<lock_class_row, static_cast<size_t>(lock_class::end)> lock_class_rows{{
    {lock_class::flow, "flow lock", 1, lock_siblings::hosts},
    {lock_class::fid_table, "fid_table_lock", 2, lock_siblings::alone},
    {lock_class::flow_table, "flow_table_lock", 3, lock_siblings::alone},
    {lock_class::quarantine, "quarantine lock", 4, lock_siblings::alone},
    {lock_class::stand_in, "stand-in lock", 5, lock_siblings::alone},
    {lock_class::bucket, "bucket lock", 6, lock_siblings::in_row},
    {lock_class::bundle, "bundle lock", 7, lock_siblings::alone},
    {lock_class::super_context, "super-context lock", 7, lock_siblings::alone},
    {lock_class::fragment, "fragment lock", 7, lock_siblings::alone},
    {lock_class::preflow_counts, "pre-flow counts", 7, lock_siblings::alone},
    {lock_class::dump_marks, "dump marks", 7, lock_siblings::alone},
    {lock_class::clients, "client list", 7, lock_siblings::alone},
    {lock_class::lane_counts, "lane counts", 7, lock_siblings::alone},
    {lock_class::record_lane, "lane of flow records", 7, lock_siblings::alone},
    {lock_class::memory_lane, "lane of half flows", 8, lock_siblings::alone},
    {lock_class::memory, "memory stack", 9, lock_siblings::alone},
}};

constexpr bool rows_follow_classes() {
    for (size_t row = 0; row < lock_class_rows.size(); ++row)
        if (static_cast<size_t>(lock_class_rows[row].of) != row)
            return false;
    return true;
}
static_assert(rows_follow_classes());

#ifdef ZON_CHECK_LOCK_ORDER

void zon_order_wanted(lock_class of, const void* lock);
void zon_order_taken(lock_class of, const void* lock);
void zon_order_released(const void* lock);

// What a lock is for. One that has no class is not checked.
void zon_lock_set_class(zon_lock_t lock, lock_class of);
void zon_lock_set_class_of_pool(zon_lock_pool_t pool, int size, lock_class of);

// The lock of a flow was only tried for, and would have been awaited, with all else that this
// thread holds now, had it been busy. Nothing for null, and so below.
void zon_flow_could_wait(const zon_flow_t* flow);
// From here on the engine holds a flow for itself; then no more, or a host does.
void zon_flow_claimed(const zon_flow_t* flow);
void zon_flow_claim_ended(const zon_flow_t* flow);

// Around a client's function: what it asks of the engine is asked by a host.
class [[nodiscard]] client_function {
public:
    client_function();
    ~client_function();
    client_function(const client_function&) = delete;
    client_function& operator=(const client_function&) = delete;
};

// A standard mutex of a class.
template <lock_class of>
class ordered_mutex {
public:
    constexpr ordered_mutex() = default;

    void lock() {
        zon_order_wanted(of, this);
        mutex_.lock();
        zon_order_taken(of, this);
    }
    void unlock() {
        zon_order_released(this);
        mutex_.unlock();
    }

private:
    std::mutex mutex_;
};

#else

inline void zon_lock_set_class(zon_lock_t, lock_class) {}
inline void zon_lock_set_class_of_pool(zon_lock_pool_t, int, lock_class) {}
inline void zon_flow_could_wait(const zon_flow_t*) {}
inline void zon_flow_claimed(const zon_flow_t*) {}
inline void zon_flow_claim_ended(const zon_flow_t*) {}

class [[nodiscard]] client_function {
public:
    client_function() {}
    ~client_function() {}
    client_function(const client_function&) = delete;
    client_function& operator=(const client_function&) = delete;
};

template <lock_class>
using ordered_mutex = std::mutex;

#endif

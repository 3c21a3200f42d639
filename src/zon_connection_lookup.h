// zon_connection_lookup.h - the flow of a connection, locked, without a look at its bucket; the way
// of nearly every packet.

#pragma once

#include "osal/zon_lock.h"
#include "zon_connection.h"
#include "zon_connection_index.h"
#include "zon_engine_inline.h"
#include "zon_flow_table.h"

// The table as it is allocated: what the dumps look at first, then what only the operations use.
struct flow_table_storage : zon_flow_table_ {
    connection_index index;
    ordered_mutex<lock_class::preflow_counts>
        preflow_counts;  // guards active_preflow_count and has_incomplete_inserts together
    ordered_mutex<lock_class::dump_marks> readers_guard;
    int readers = 0;  // how many threads keep in_use set
};

inline flow_table_storage* storage_of(zon_flow_table_t* tbl) {
    return static_cast<flow_table_storage*>(tbl);
}
inline connection_index& index_of(zon_flow_table_t* tbl) {
    return storage_of(tbl)->index;
}

// What a packet of a known flow touches: state, counters, lock, marks and the proof.
template <class function>
[[gnu::always_inline]] inline void for_each_line_of_packets(const zon_flow_t* flow,
                                                            function fetch) {
    const auto* bytes = reinterpret_cast<const char*>(record_of(flow));
    for (size_t line = 64; line < sizeof(flow_record); line += 64)
        fetch(bytes + line);
}
// Among other work a request will do; in a row of flows they are read (zon_relaxed.h).
inline void prefetch_flow(const zon_flow_t* flow) {
    for_each_line_of_packets(flow, [](const char* line) { __builtin_prefetch(line); });
}
inline void touch_flow(const zon_flow_t* flow) {
    for_each_line_of_packets(flow, [](const char* line) { touch(line); });
}

// The flow that the index names, locked, when it is the wanted one. Its lock is only tried for: the
// guess may be a flow of another connection, and whoever asks may hold a flow that its owner waits
// for. Half flows are rewritten, linked and unlinked under their flow's lock and only while the
// index does not name it: what holds once the lock is taken stays so. Null decides nothing.
template <class family>
[[gnu::always_inline]] inline zon_flow_t* zon_lock_guess(const connection_index::guess& guess,
                                                         const connection<family>& wanted) {
    zon_flow_t* flow = guess.flow;
    if (zon_flow_is_dying(flow) || !zon_try_lock_internal(flow->flow_lock)) [[unlikely]]
        return nullptr;
    if (guess.still_stands() && !zon_flow_is_dying(flow) &&
        is_connection_of(*record_of(flow), wanted)) [[likely]] {
        zon_flow_could_wait(flow);
        return flow;
    }
    zon_unlock_internal(flow->flow_lock);
    return nullptr;
}

template <class family>
[[gnu::always_inline]] inline zon_flow_t* zon_find_connection_locked(
    zon_flow_table_t* tbl, const connection<family>& wanted, uint64_t hash) {
    const connection_index::guess guess = index_of(tbl).find(hash);
    if (guess.flow == nullptr)
        return nullptr;
    prefetch_flow(guess.flow);
    return zon_lock_guess(guess, wanted);
}

// The words that a complete key is hashed of: address and port of the source, then of the
// destination.
template <class family>
struct connection_ends {
    static constexpr size_t words_of_end = family::address_words + 1;
    uint32_t words[2 * words_of_end];

    bool operator==(const connection_ends&) const = default;
};

// The buckets of a connection that the engine itself hashes.
flow_buckets zon_buckets_of(const zon_flow_table_t* tbl, const connection_ends<ipv4_family>& ends);
flow_buckets zon_buckets_of(const zon_flow_table_t* tbl, const connection_ends<ipv6_family>& ends);

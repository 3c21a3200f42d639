// zon_timer_common.cpp - the ager: what happens when the idle timer of a flow or a fragment entry
// fires.
//
// Owns   nothing.
// Locks  the flow's lock, which is only tried for: the timer thread never waits for a client that
//        keeps a flow locked, the expiry comes again instead. Deletion consumes the flow's lock.

#include <cstdio>

#include "osal/zon_debug.h"
#include "osal/zon_timer.h"
#include "zon_engine_inline.h"
#include "zon_frag.h"

namespace {

enum class ager_lookup { found, vanished, busy };

struct idle_flow {
    ager_lookup outcome;
    locked_flow flow;
};

// The record that timer and identifier are embedded in; null when they stand elsewhere.
zon_flow_t* record_with(const zon_fid_t* fid, const vem_tw_timer* timer) {
    const char* start = reinterpret_cast<const char*>(fid) - offsetof(zon_flow_t, fid);
    if (start + offsetof(zon_flow_t, timer) != reinterpret_cast<const char*>(timer))
        return nullptr;
    return reinterpret_cast<zon_flow_t*>(const_cast<char*>(start));
}

// While the flow's lock is held nobody can take its record for a new flow, so the stop cannot hit a
// new flow's timer. Where the lock is busy the stop is left out: the flow's deletion makes it, too,
// and with it an expiry that comes again is cancelled.
idle_flow find_idle_flow(zon_fid_table_t* fid_table, const zon_fid_t* fid, vem_tw_timer* timer) {
    if (*fid != 0)
        zon_require(fid_is_valid(fid_table, *fid), "fid_is_valid(fid_table, fid)",
                    "zon_fid_table_lookup");
    zon_flow_t* record = *fid == 0 ? nullptr : record_with(fid, timer);
    // Called by hand, with an identifier and a timer of the caller's own.
    if (record == nullptr && *fid != 0)
        record = zon_fid_table_slot(fid_table, *fid);
    if (record == nullptr) {
        zon_timer_stop(timer);
        return {ager_lookup::vanished, {}};
    }
    const bool is_locked = zon_try_lock_internal(record->flow_lock);
    const bool is_there =
        zon_fid_table_slot(fid_table, *fid) == record && !zon_flow_is_dying(record);
    if (!is_locked)
        return {is_there ? ager_lookup::busy : ager_lookup::vanished, {}};
    if (is_there)
        return {ager_lookup::found, locked_flow::adopt(record)};
    zon_timer_stop(timer);
    zon_unlock_internal(record->flow_lock);
    return {ager_lookup::vanished, {}};
}

void age_out(locked_flow flow, zon_fid_t fid) {
    zon_flow_t* record = std::move(flow).hand_over();
    if (!zon_private_delete_locked_flow(record, ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT)) {
        std::puts("zon_timer_handle_flow_idle_timeout: Timer expired but could not delete flow");
        zon_unlock_internal(record->flow_lock);
        return;
    }
    relaxed_add(g_zon->flow_tbl->profile_passively_aged, 1);
    if (zon_tracing_ager())
        zon_buginf("\nZON Ager: aged out flow %d\n", static_cast<int>(fid));
}

}  // namespace

void zon_timer_handle_flow_idle_timeout_full(vem_tw_wheel, vem_tw_timer* tmr, void* context) {
    const zon_fid_t fid = *static_cast<const zon_fid_t*>(context);
    zon_fid_table_t* fid_table = g_zon->fid_table;
    zon_require(fid_table != nullptr, "fid_table", "zon_fid_table_lookup");
    idle_flow idle = find_idle_flow(fid_table, static_cast<const zon_fid_t*>(context), tmr);
    switch (idle.outcome) {
    case ager_lookup::vanished:
        std::puts("no flow context");
        return;
    case ager_lookup::busy:
        zon_timer_retry_expiry(tmr);
        return;
    case ager_lookup::found:
        break;
    }
    // Somebody started or stopped this timer after its expiry was on its way: the expiry is stale.
    if (zon_timer_expiry_cancelled(tmr))
        return;
    zon_flow_t& flow = *idle.flow;
    if (flow.should_reset_timer) {
        // Packets do not touch the wheel; the flow lives one more full period.
        zon_timer_flow_start(zon_get_tw_internal(), &flow.timer, flow.age_ms, &flow.fid);
        flow.should_reset_timer = false;
        return;
    }
    age_out(std::move(idle.flow), fid);
}

void zon_timer_handle_frag_flow_idle_timeout_full(vem_tw_wheel, vem_tw_timer* tmr, void* context) {
    if (context == nullptr) {
        std::puts("Frag Ager: fragment item is null");
        zon_timer_stop(tmr);
        return;
    }
    const zon_fid_t fid = zon_frag_flow_delete(static_cast<zon_frag_item_t*>(context));
    if (!zon_tracing_ager())
        return;
    if (fid == 0)
        zon_buginf("\nZON Ager: fragment was already deleted \n");
    else
        zon_buginf("\nZON Ager: fragment with fid=[%d] aged out\n", static_cast<int>(fid));
}

// zon_aging.cpp - the idle time of a single flow, set and read by clients.
//
// Locks  the flow's lock, for the time of the call.

#include "osal/zon_timer.h"
#include "zon_api_internal.h"

namespace {

constexpr uint32_t ms_per_sec = 1000;

}  // namespace

zon_error_t zon_flow_set_aging(zon_fid_t fid, uint32_t time_sec) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    const locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
    if (!flow)
        return zon_error_flow_not_found;
    zon_tw_wheel_t* wheel = zon_get_tw_internal();
    if (wheel == nullptr)
        return zon_error_flow_not_found;
    // Modulo 2^32 milliseconds, some 49 days.
    flow->age_ms = time_sec * ms_per_sec;
    zon_timer_flow_start(wheel, &flow->timer, flow->age_ms, &flow->fid);
    flow->should_reset_timer = 0;
    return zon_error_none;
}

zon_error_t zon_flow_get_aging(const zon_fid_t fid, uint32_t* aging_sec) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (aging_sec == nullptr)
        return zon_error_parameter_is_null;
    *aging_sec = 0;
    const locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
    if (!flow)
        return zon_error_flow_not_found;
    *aging_sec = flow->age_ms / ms_per_sec;
    return zon_error_none;
}

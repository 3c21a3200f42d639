// zon_timer_common.h - the table of default idle time-outs.

#pragma once

#include <cstdint>

#include "zon_engine_defs.h"
#include "zon_relaxed.h"

// Idle time of protocols that the table has no field for.
inline constexpr uint32_t zon_other_protocol_idle_ms = 30000;

// Writes the initial time-outs; the one of pre-flows is left as it is.
void zon_timer_set_initial_default(zon_timer_defaults_t* defaults);

// Sets the time-out of a protocol and session state, in milliseconds. False, and nothing written,
// for another protocol than TCP and UDP or a state outside 0 to 6.
bool zon_set_default_aging_internal(zon_l4_protocol_e prot, zon_l4_flow_state_e state,
                                    uint32_t zon_time, zon_timer_defaults_t* timer_defaults);

// The time-out for a protocol and session state; 0 for a state of 7 or more.
inline uint32_t zon_timer_get_default_value_internal(zon_l4_protocol_e prot,
                                                     zon_l4_flow_state_e state,
                                                     const zon_timer_defaults_t* defaults) {
    const auto session = static_cast<uint32_t>(state);
    if (prot != ZON_TCP_PROT && prot != ZON_UDP_PROT)
        return zon_other_protocol_idle_ms;
    if (session >= ZON_L4_ENUM_END)
        return 0;
    const bool is_tcp = prot == ZON_TCP_PROT;
    if (session <= ZON_L4_OPENING)
        return relaxed_load(is_tcp ? defaults->tcp_opening : defaults->udp_opening);
    if (is_tcp && session == ZON_L4_CLOSING)
        return relaxed_load(defaults->tcp_closing);
    return relaxed_load(is_tcp ? defaults->tcp_estab : defaults->udp_estab);
}

// zon_timer_common.h - the table of default idle time-outs.

#pragma once

#include <cstdint>

#include "zon_engine_defs.h"
#include "zon_relaxed.h"

// Idle time of protocols that the table has no field for.
inline constexpr uint32_t zon_other_protocol_idle_ms = 30000;

// Writes the initial time-outs; the one of pre-flows is left as it is.
void zon_timer_set_initial_default(zon_timer_defaults_t* defaults);

// Sets the time-out of a protocol and session state, in milliseconds. False, and nothing written, for another protocol
// than TCP and UDP or a state outside 0 to 6.
bool zon_set_default_aging_internal(zon_l4_protocol_e prot, zon_l4_flow_state_e state, uint32_t zon_time,
                                    zon_timer_defaults_t* timer_defaults);

// The time-out for a protocol and session state; 0 for a state of 7 or more.
inline uint32_t zon_timer_get_default_value_internal(zon_l4_protocol_e prot, zon_l4_flow_state_e state,
                                                     const zon_timer_defaults_t* defaults) {
    switch (prot) {
    case ZON_TCP_PROT:
        if (state <= ZON_L4_OPENING)
            return relaxed_load(defaults->tcp_opening);
        if (state <= ZON_L4_BI_ESTABLISHED_INCORRECT)
            return relaxed_load(defaults->tcp_estab);
        return state == ZON_L4_CLOSING ? relaxed_load(defaults->tcp_closing) : 0;
    case ZON_UDP_PROT:
        if (state <= ZON_L4_OPENING)
            return relaxed_load(defaults->udp_opening);
        return state <= ZON_L4_CLOSING ? relaxed_load(defaults->udp_estab) : 0;
    default:
        return zon_other_protocol_idle_ms;
    }
}

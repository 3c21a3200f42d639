// zon_aging_defaults.cpp - writes the table of default idle time-outs.
//
// Locks  none: the words are configuration, read by packet threads while they are set.

#include "zon_timer_common.h"

namespace {

constexpr uint32_t initial_opening_ms = 5000;
constexpr uint32_t initial_established_ms = 30000;
constexpr uint32_t initial_closing_ms = 5000;

// The word of the table for a protocol and session state, or null.
uint32_t* word_for(zon_timer_defaults_t* defaults, zon_l4_protocol_e prot,
                   zon_l4_flow_state_e state) {
    if (state < ZON_L4_ENUM_START || state >= ZON_L4_ENUM_END)
        return nullptr;
    switch (prot) {
    case ZON_TCP_PROT:
        if (state <= ZON_L4_OPENING)
            return &defaults->tcp_opening;
        return state == ZON_L4_CLOSING ? &defaults->tcp_closing : &defaults->tcp_estab;
    case ZON_UDP_PROT:
        return state <= ZON_L4_OPENING ? &defaults->udp_opening : &defaults->udp_estab;
    default:
        return nullptr;
    }
}

}  // namespace

void zon_timer_set_initial_default(zon_timer_defaults_t* defaults) {
    relaxed_store(defaults->tcp_opening, initial_opening_ms);
    relaxed_store(defaults->tcp_estab, initial_established_ms);
    relaxed_store(defaults->tcp_closing, initial_closing_ms);
    relaxed_store(defaults->udp_opening, initial_opening_ms);
    relaxed_store(defaults->udp_estab, initial_established_ms);
}

bool zon_set_default_aging_internal(zon_l4_protocol_e prot, zon_l4_flow_state_e state,
                                    uint32_t zon_time, zon_timer_defaults_t* timer_defaults) {
    uint32_t* word = word_for(timer_defaults, prot, state);
    if (word == nullptr)
        return false;
    relaxed_store(*word, zon_time);
    return true;
}

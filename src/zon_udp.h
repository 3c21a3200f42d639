// zon_udp.h - session state of UDP flows: opening at the initiator's first packet, established at a
// reply.

#pragma once

#include <cstdint>

#include "zon_engine_defs.h"

// Packets to be counted, modulo 256, before a reply establishes a flow; one value for the process.
extern uint32_t g_open_after_n_pkts;

zon_l4_retcode zon_track_udp(bool from_initiator, zon_l4_state_t& l4);

zon_l4_retcode zon_dp_l4_engine_udp(zon_fe_handle fe, zon_l4_state_t* l4);

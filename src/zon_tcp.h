// zon_tcp.h - follows a TCP connection from the middle (RFC 9293, simplified).
//
// Keeps no state of its own; the flow is locked by the caller.

#pragma once

#include <cstdint>

#include "zon_fe_inline.h"

// What of a TCP packet the tracker judges.
struct tcp_segment {
    const uint8_t* header;  // 16 bytes of it are read
    uint32_t payload;       // bytes, by the length fields of the headers
    bool from_initiator;
};

zon_l4_retcode zon_track_tcp(const tcp_segment& segment, zon_l4_state_t& l4, bool checked);

zon_l4_retcode zon_dp_l4_engine_tcp(const zon_fe_handle zon_fe, zon_l4_state_t* l4_info,
                                    bool process_tcp_state_checks);

// Judge the sequence and the acknowledgement number of a segment and move the two sides' records
// on.
zon_l4_retcode valid_tcp_seq(zon_fe_handle fe, zon_tcp_state_info* snd_info,
                             const zon_tcp_state_info* rcv_info, bool receiver_got_fin);
bool valid_tcp_ack(zon_fe_handle fe, zon_tcp_state_info* snd_info,
                   const zon_tcp_state_info* rcv_info);

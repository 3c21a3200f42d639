// zon_udp.cpp - session state of UDP flows.
//
// Owns   the number of packets after which a reply establishes a flow.
// Locks  none of its own; the flow is locked by the caller.

#include "zon_udp.h"

#include "zon_relaxed.h"

uint32_t g_open_after_n_pkts = 0;

// Kept to 8 bits because the packets of a flow are counted in 8 bits: a larger threshold could
// never be reached.
void zon_set_open_flow_after_pkts(uint32_t count) {
    relaxed_store(g_open_after_n_pkts, count & 0xff);
}

zon_l4_retcode zon_track_udp(bool from_initiator, zon_l4_state_t& l4) {
    // The count wraps to 0 on purpose; a flow that is still opening may then wait once more for the
    // threshold.
    l4.pkt_count = static_cast<uint8_t>(l4.pkt_count + 1);
    switch (l4.sess_state) {
    case ZON_L4_CLOSED:
        if (from_initiator)
            l4.sess_state = ZON_L4_OPENING;
        return ZON_L4_NOERR;
    case ZON_L4_OPENING:
        if (!from_initiator && l4.pkt_count >= relaxed_load(g_open_after_n_pkts))
            l4.sess_state = ZON_L4_UNI_ESTABLISHED;
        return ZON_L4_NOERR;
    case ZON_L4_UNI_ESTABLISHED:
        return ZON_L4_NOERR;
    default:
        return ZON_L4_INVALID_STATE;
    }
}

zon_l4_retcode zon_dp_l4_engine_udp(zon_fe_handle fe, zon_l4_state_t* l4) {
    return zon_track_udp(static_cast<const zon_dp_fe_t*>(fe)->i2r_flag != 0, *l4);
}

// zon_l4.h - the texts of states and verdicts, and the dispatch to the tracker of a protocol.

#pragma once

#include "zon_tcp.h"
#include "zon_udp.h"

// Runs the tracker of the packet's protocol; ZON_L4_UNSUPPORTED_PROTO, and nothing tracked, for any
// other than TCP and UDP. The flow is locked.
inline zon_l4_retcode zon_l4_engine(zon_fe_handle fe, zon_l4_state_t* l4,
                                    bool process_tcp_state_checks) {
    switch (static_cast<const zon_dp_fe_t*>(fe)->protocol) {
    case ZON_TCP_PROT:
        return zon_dp_l4_engine_tcp(fe, l4, process_tcp_state_checks);
    case ZON_UDP_PROT:
        return zon_dp_l4_engine_udp(fe, l4);
    default:
        return ZON_L4_UNSUPPORTED_PROTO;
    }
}

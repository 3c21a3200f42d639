// zon_state_trace.cpp - prints state changes and the tracker's complaints.

#include "zon_engine/zon_state_trace.h"

bool zon_debug = false;

void zon_set_debug(bool val) {
    relaxed_store(zon_debug, val);
}

void trace_l4_error(const zon_flow_t* flow, zon_l4_retcode error) {
    if (zon_tracing_l4())
        zon_buginf("\nZON L4: Error: fid[%d] %s in state %s", static_cast<int>(flow->fid),
                   zon_l4_retcode_string(error),
                   zon_session_state_string(flow->l4state.sess_state));
}

void trace_state_change(const zon_flow_t* flow, const zon_dp_fe_t* fe) {
    zon_buginf(
        "%d %d %s %s %s\n", static_cast<int>(flow->fid), static_cast<int>(flow->packet_number),
        zon_session_state_string(flow->l4state.sess_state),
        zon_tcp_state_string(flow->l4state.tcp_state), fe->i2r_flag != 0 ? "i_to_r" : "r_to_i");
}

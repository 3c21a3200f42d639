// zon_state_trace.h - the per-packet trace of state changes and of the tracker's complaints.

#pragma once

#include "osal/zon_debug.h"
#include "zon_engine_defs.h"

// Set by zon_set_debug.
extern bool zon_debug;

[[gnu::cold, gnu::noinline]] void trace_l4_error(const zon_flow_t* flow, zon_l4_retcode error);
[[gnu::cold, gnu::noinline]] void trace_state_change(const zon_flow_t* flow, const zon_dp_fe_t* fe);

// Remembers a flow's states before a packet and traces them when the packet changed them.
class state_trace {
public:
    explicit state_trace(const zon_flow_t* flow)
        : flow_(flow), session_(flow->l4state.sess_state), tcp_(flow->l4state.tcp_state) {}

    void print_if_changed(const zon_dp_fe_t* fe) const {
        if (relaxed_load(zon_debug) && (tcp_ != flow_->l4state.tcp_state ||
                                        session_ != flow_->l4state.sess_state)) [[unlikely]]
            trace_state_change(flow_, fe);
    }

private:
    const zon_flow_t* flow_;
    uint8_t session_;
    zon_tcp_state_t tcp_;
};

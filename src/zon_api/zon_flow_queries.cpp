// zon_flow_queries.cpp - single fields of flows, read and written by identifier.
//
// Locks  each operation holds the flow's lock for its one read or write.

#include <cstring>

#include "osal/zon_debug.h"
#include "osal/zon_errlog.h"
#include "zon_api_internal.h"
#include "zon_engine/zon_half_open.h"

namespace {

// Traces a miss with the text of the operation: some end in a blank, some do not, and log readers
// match both.
zon_error_t not_found(const char* text) {
    zon_trace_engine_text(text);
    return zon_error_flow_not_found;
}

locked_flow find(zon_fid_t fid) {
    return zon_fid_table_lookup(g_zon->fid_table, fid);
}

void tuple_of_key(const zon_ipv4_key_t& key, zon_flow_tuple_t* flow_tuple) {
    flow_tuple->src_ip.addr_type = flow_tuple->dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    flow_tuple->src_ip.u.v4_addr = key.src_ip;
    flow_tuple->dst_ip.u.v4_addr = key.dst_ip;
}

void tuple_of_key(const zon_ipv6_key_t& key, zon_flow_tuple_t* flow_tuple) {
    flow_tuple->src_ip.addr_type = flow_tuple->dst_ip.addr_type = ZON_IP_ADDR_IPV6;
    std::memcpy(flow_tuple->src_ip.u.v6_addr, key.src_ip, sizeof key.src_ip);
    std::memcpy(flow_tuple->dst_ip.u.v6_addr, key.dst_ip, sizeof key.dst_ip);
}

template <class family>
void tuple_of_half_flow(const zon_half_flow_t* half, zon_flow_tuple_t* flow_tuple) {
    const typename family::key& key = *zon_full_key<family>(half);
    tuple_of_key(key, flow_tuple);
    flow_tuple->src_port = static_cast<uint16_t>(key.src_port);
    flow_tuple->dst_port = static_cast<uint16_t>(key.dst_port);
    flow_tuple->vrf_id = key.vrf_id;
    flow_tuple->l4_protocol = static_cast<uint8_t>(key.l4_protocol);
}

}  // namespace

zon_error_t zon_flow_get_l4_state(const zon_fid_t fid, zon_l4_flow_state_e* state) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (state == nullptr)
        return zon_error_parameter_is_null;
    *state = ZON_L4_CLOSED;
    const locked_flow flow = find(fid);
    if (!flow)
        return not_found(zon_client_api_text);
    *state = static_cast<zon_l4_flow_state_e>(flow->l4state.sess_state);
    return zon_error_none;
}

zon_error_t zon_flow_set_l4_state(const zon_fid_t fid, zon_l4_flow_state_e state) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (state < ZON_L4_CLOSED || state > ZON_L4_CLOSING)
        return zon_error_l4_state_invalid;
    locked_flow flow = find(fid);
    if (!flow) {
        // Logged under the getter's name, on purpose: log readers know it so.
        zon_log_error_message(ZON_ERRMSG_CLIENT_API, "Could not find flow for the given fid",
                              "zon_flow_get_l4_state, fid:", static_cast<int>(fid));
        return zon_error_flow_not_found;
    }
    flow->l4state.sess_state = static_cast<uint8_t>(state);
    if (state >= ZON_L4_BI_ESTABLISHED)
        zon_half_open_leave(flow.get());
    return zon_error_none;
}

zon_error_t zon_flow_get_packet_count(zon_flow_ptr_t fid, uint32_t* pkt_count) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (pkt_count == nullptr)
        return zon_error_parameter_is_null;
    const locked_flow flow = find(fid);
    if (!flow)
        return not_found(zon_client_api_short_text);
    *pkt_count = flow->packet_number;
    return zon_error_none;
}

zon_error_t zon_flow_get_application_id(const zon_fid_t fid, uint32_t* app_id) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (app_id == nullptr)
        return zon_error_parameter_is_null;
    const locked_flow flow = find(fid);
    if (!flow)
        return not_found(zon_client_api_text);
    *app_id = flow->app_id;
    return zon_error_none;
}

zon_error_t zon_flow_set_application_id(const zon_fid_t fid, uint32_t appid) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    const locked_flow flow = find(fid);
    if (!flow)
        return not_found(zon_client_api_short_text);
    flow->app_id = appid;
    return zon_error_none;
}

zon_error_t zon_flow_set_dpi_bypass_id(const zon_fid_t fid, uint32_t appid) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    const locked_flow flow = find(fid);
    if (!flow)
        return not_found(zon_client_api_short_text);
    flow->bypass_id = appid;
    return zon_error_none;
}

zon_error_t zon_flow_get_tuple(zon_fid_t fid, zon_flow_direction_e dir,
                               zon_flow_tuple_t* flow_tuple) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (flow_tuple == nullptr)
        return zon_error_flow_tuple_is_null;
    const locked_flow flow = find(fid);
    if (!flow)
        return fid == ZON_NULL_FID ? zon_error_flow_not_found : not_found(zon_client_api_text);
    if (dir != ZON_DIR_INITIATOR && dir != ZON_DIR_RESPONDER) {
        zon_trace_engine_text(zon_client_api_text);
        return zon_error_direction_parameter_is_invalid;
    }
    const zon_half_flow_t* half = zon_named_half_flow(flow.get(), dir);
    if (half == nullptr)
        return not_found(zon_client_api_text);
    if (zon_key_is_ipv4(half->key.key_type))
        tuple_of_half_flow<ipv4_family>(half, flow_tuple);
    else
        tuple_of_half_flow<ipv6_family>(half, flow_tuple);
    return zon_error_none;
}

zon_error_t zon_flow_get_next_tcp_seq_nbr(zon_flow_ptr_t fid, zon_flow_direction_e dir,
                                          uint32_t* nxt_seq_nbr, uint16_t* window) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (nxt_seq_nbr == nullptr)
        return zon_error_parameter_is_null;
    if (dir == ZON_DIR_BI)
        return zon_error_direction_parameter_is_invalid;
    const locked_flow flow = find(fid);
    if (!flow)
        return not_found(zon_client_api_short_text);
    // Every direction but the initiator's reads the responder's side, on purpose.
    const zon_tcp_state_info& side =
        dir == ZON_DIR_INITIATOR ? flow->l4state.i_info : flow->l4state.r_info;
    if (side.valid_next_seq_number != ZON_TCP_NEXT_SEQ_VALID)
        return zon_error_invalid_next_seq_number;
    *nxt_seq_nbr = side.sndnxt;
    if (window != nullptr)
        *window = static_cast<uint16_t>(side.rcvwnd);
    return zon_error_none;
}

// zon_flow_accounting.h - what happens to a flow, found or made, with each of its packets. The flow
// is locked.

#pragma once

#include "osal/zon_debug.h"
#include "osal/zon_timer.h"
#include "zon_bytes.h"
#include "zon_engine/zon_clients.h"
#include "zon_engine/zon_half_open.h"
#include "zon_engine/zon_packet.h"
#include "zon_engine/zon_state_trace.h"
#include "zon_key_hash.h"
#include "zon_l4.h"
#include "zon_super_ctx_table.h"
#include "zon_timer_common.h"

inline constexpr uint32_t udp_header_size = 8;

inline uint32_t tcp_header_size(const uint8_t* tcp) {
    return (tcp[12] >> 4) * 4U;
}
inline uint32_t ipv4_header_size(const uint8_t* ip) {
    return (ip[0] & 0x0FU) * 4U;
}

template <class family>
inline bool is_source_of(const zon_dp_fe_t* fe, const typename family::address& address) {
    if constexpr (family::address_words == 1)
        return load_be32(fe->network_start + 12) == address;
    else
        return same_address(fe->ipv6_srcaddr, address);
}

// The packet runs from the initiator to the responder when its source is the initiator's address.
inline bool runs_from_initiator(const zon_flow_t* flow, const zon_dp_fe_t* fe) {
    const zon_half_flow_t* initiator = flow->initiator_flow;
    zon_require(initiator->key.key_type <= ZON_IPV6_LAST_KEY,
                "flow->initiator_flow->key.key_type <= ZON_IPV6_LAST_KEY", "zon_engine");
    return zon_key_is_ipv4(initiator->key.key_type)
               ? is_source_of<ipv4_family>(fe, zon_full_key<ipv4_family>(initiator)->src_ip)
               : is_source_of<ipv6_family>(fe, zon_full_key<ipv6_family>(initiator)->src_ip);
}

// Payload bytes by the length fields of the headers, modulo 2^16.
inline uint32_t payload_size_of(const zon_dp_fe_t* fe) {
    switch (fe->protocol) {
    case ZON_TCP_PROT: {
        const uint8_t* ip = fe->network_start;
        const uint32_t tcp_size = tcp_header_size(fe->l4_start);
        if (fe->l3_proto == ZON_L3_IPV4)
            return static_cast<uint16_t>(load_be16(ip + 2) - ipv4_header_size(ip) - tcp_size);
        if (fe->l3_proto == ZON_L3_IPV6)
            return static_cast<uint16_t>(load_be16(ip + 4) - fe->ipv6_options_len - tcp_size);
        return 0;
    }
    case ZON_UDP_PROT:
        return static_cast<uint16_t>(load_be16(fe->l4_start + 4) - udp_header_size);
    default:
        return 0;
    }
}

struct payload_of_packet {
    uint32_t size;
    bool is_first;  // of the flow
};

inline void run_bypass_callbacks(zon_flow_t* flow, bool is_first_packet, bool was_promoted,
                                 payload_of_packet payload) {
    const client_function called;
    for (const auto* client = zon_first_client(g_zon); client != nullptr;
         client = zon_next_client(client))
        if (const zon_client_bypass_cb_t bypass = zon_callback_of(client->bypass_cb))
            bypass(payload.size, is_first_packet, was_promoted, payload.is_first, &flow->bypass_id);
}

// The idle time is chosen once, by the state after the first packet.
inline void start_aging(zon_flow_t* flow, uint8_t protocol) {
    if (flow->age_ms == 0)
        flow->age_ms = zon_timer_get_default_value_internal(
            static_cast<zon_l4_protocol_e>(protocol),
            static_cast<zon_l4_flow_state_e>(flow->l4state.sess_state), &g_zon->timer_defaults);
    zon_timer_flow_start(&g_zon->zon_tw, &flow->timer, flow->age_ms, &flow->fid);
    flow->should_reset_timer = false;
}

inline void account_aging(zon_flow_t* flow, const packet_in_engine& packet) {
    if (packet.indications->fif != 0) [[unlikely]]
        start_aging(flow, packet.fe->protocol);
    else
        flow->should_reset_timer = flow->l4state.sess_state != ZON_L4_CLOSED;
}

// Whatever a client's function has written there while the packet was worked on. A closing flow
// leaves the error as it was, on purpose.
inline void clear_error(const zon_flow_t* flow, zon_error_t* error) {
    if (flow->l4state.sess_state != ZON_L4_CLOSING)
        *error = zon_error_none;
}

inline void report_last_packet(const zon_flow_t* flow, const packet_in_engine& packet) {
    if (flow->l4state.sess_state == ZON_L4_CLOSED)
        packet.indications->lif = 1;
    clear_error(flow, packet.error);
}

inline void fill_indications(const zon_flow_t* flow, const packet_in_engine& packet,
                             uint32_t packet_number) {
    zon_pkt_indications_t* seen = packet.indications;
    const zon_dp_fe_t* fe = packet.fe;
    seen->flow = flow->fid;
    seen->is_initiator = fe->i2r_flag;
    seen->tunnel_type = fe->tunneled_flow_type;
    seen->l4_start = fe->l4_start;
    if (fe->protocol == ZON_TCP_PROT || fe->protocol == ZON_UDP_PROT) [[likely]] {
        seen->l4_port = {load_be16(fe->l4_start), load_be16(fe->l4_start + 2)};
        seen->l7_start =
            fe->l4_start +
            (fe->protocol == ZON_TCP_PROT ? tcp_header_size(fe->l4_start) : udp_header_size);
    } else {
        seen->l4_port = {0, 0};
        seen->l7_start = nullptr;
    }
    seen->bypass_id = flow->bypass_id;
    seen->flow_pkt_count = packet_number;
    seen->l7_flow_bytes = flow->num_l7_bytes;
}

// Whether it is the flow's first payload.
inline bool account_payload(zon_flow_t* flow, uint32_t payload) {
    flow->num_l7_bytes += payload;
    if (payload == 0 || flow->first_payload_seen_on_pkt_num != 0)
        return false;
    flow->first_payload_seen_on_pkt_num = flow->packet_number;
    return true;
}

// The steps that both modes end with.
template <class last_step>
zon_fid_t finish(locked_flow flow, const packet_in_engine& packet, uint32_t packet_number,
                 last_step trace) {
    if (packet.fe->protocol == ZON_TCP_PROT &&
        relaxed_load(packet.capabilities->zon_engine_client_bypass) != 0) [[unlikely]]
        run_bypass_callbacks(
            flow.get(), packet.indications->fif != 0, packet.indications->was_promoted != 0,
            {packet.indications->l4_payload_size, packet.indications->first_payload != 0});
    zon_half_open_follow(flow.get(), packet.fe);
    account_aging(flow.get(), packet);
    report_last_packet(flow.get(), packet);
    fill_indications(flow.get(), packet, packet_number);
    trace();
    const zon_fid_t fid = flow->fid;
    // Under the lock that is held anyway: nobody deletes the flow before it has joined its super
    // contexts.
    if (packet.indications->fif != 0) [[unlikely]]
        zon_super_context_process_fif(flow.get(), packet.context);
    return fid;
}

// A packet whose direction is known brings its flow up to date and is told what was found.
inline zon_fid_t account_packet(locked_flow flow, const packet_in_engine& packet) {
    ++flow->packet_number;
    const state_trace trace(flow.get());
    packet.indications->l4_error =
        zon_l4_engine(packet.fe, &flow->l4state,
                      relaxed_load(packet.capabilities->zon_engine_tcp_state_checks) != 0);
    if (packet.indications->l4_error != ZON_L4_NOERR) [[unlikely]]
        trace_l4_error(flow.get(), packet.indications->l4_error);
    packet.indications->l4_payload_size = payload_size_of(packet.fe);
    if (account_payload(flow.get(), packet.indications->l4_payload_size))
        packet.indications->first_payload = 1;
    const uint32_t packet_number = flow->packet_number;
    return finish(std::move(flow), packet, packet_number,
                  [&] { trace.print_if_changed(packet.fe); });
}

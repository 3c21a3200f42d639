// zon_classify.cpp - the way of a parsed packet: its flow is found or made, brought up to date and
// reported.
//
// Owns   nothing.
// Locks  the flow's lock, from the lookup or the creation until the indications are filled; no
//        client's pre-create callback runs under it.

#include <sched.h>

#include "osal/zon_debug.h"
#include "osal/zon_errlog.h"
#include "zon_engine/zon_clients.h"
#include "zon_engine/zon_flow_accounting.h"
#include "zon_engine/zon_half_open.h"
#include "zon_engine/zon_packet.h"

namespace {

bool clients_allow(packet_in_engine& packet) {
    for (const auto* client = zon_first_client(g_zon); client != nullptr;
         client = zon_next_client(client)) {
        const zon_client_pre_flow_create_cb_t allows = zon_callback_of(client->pre_create_cb);
        if (allows == nullptr || allows(packet.context, client->id))
            continue;
        *packet.error = zon_error_client_pre_create_prevented;
        zon_log_error_message(ZON_ERRMSG_CLIENT_PRE_CREATE_PREVENTED, "Client pre-create prevented",
                              "zon_flow_lookup, half_flow:", 0);
        packet.indications->fif = 0;
        return false;
    }
    return true;
}

// One attempt at a packet whose key is not in the table.
attempted_flow promote_or_create(packet_in_engine& packet) {
    packet.indications->fif = 1;
    if (zon_private_has_incomplete_inserts(g_zon->flow_tbl)) {
        attempted_flow promoted = zon_promote_announced_flow(packet);
        if (promoted.outcome != attempt::nothing)
            return promoted;
    }
    return zon_create_flow(packet);
}

// Empty when the packet gets no flow.
[[gnu::noinline]] locked_flow find_or_make_after_miss(packet_in_engine& packet) {
    if (!clients_allow(packet))
        return {};
    for (;;) {
        attempted_flow attempted = promote_or_create(packet);
        if (attempted.outcome != attempt::again)
            return std::move(attempted.flow);
        // A packet of the same connection on another thread was faster.
        packet.indications->fif = 0;
        sched_yield();
        if (zon_half_flow_t* half = zon_flow_table_lookup_locked(g_zon->flow_tbl, packet.key,
                                                                 &packet.buckets.initiator))
            return locked_flow::adopt(half->flow);
    }
}

// A report repeats the number of its packet: its payload is counted once.
void account_reported_payload(zon_flow_t* flow, zon_pkt_indications_t* seen,
                              uint32_t reported_number) {
    if (seen->l4_payload_size == 0)
        return;
    if (reported_number != flow->packet_number)
        flow->num_l7_bytes += seen->l4_payload_size;
    if (flow->first_payload_seen_on_pkt_num == 0 ||
        flow->first_payload_seen_on_pkt_num == reported_number)
        seen->first_payload = 1;
}

}  // namespace

locked_flow zon_find_or_make_flow(packet_in_engine& packet) {
    zon_flow_table_t* tbl = g_zon->flow_tbl;
    zon_half_flow_t* half =
        packet.is_in_no_index
            ? zon_flow_table_search_locked(tbl, packet.key, &packet.buckets)
            : zon_flow_table_lookup_locked(tbl, packet.key, &packet.buckets.initiator);
    if (half == nullptr)
        return find_or_make_after_miss(packet);
    if (packet.is_in_no_index)
        zon_flow_table_index_again(tbl, half->flow);
    return locked_flow::adopt(half->flow);
}

zon_fid_t zon_classify_packet(packet_in_engine& packet) {
    locked_flow flow = zon_find_or_make_flow(packet);
    if (!flow) [[unlikely]]
        return 0;
    packet.fe->i2r_flag = runs_from_initiator(flow.get(), packet.fe);
    return account_packet(std::move(flow), packet);
}

zon_fid_t zon_synchronise_packet(packet_in_engine& packet, zon_fid_t fid,
                                 zon_l4_flow_state_e reported_state, uint32_t reported_number) {
    locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
    // A function that a deletion calls late still finds its flow, but no half flows.
    if (!flow || flow->initiator_flow == nullptr)
        return 0;
    if (reported_number == 1)
        packet.indications->fif = 1;
    packet.fe->i2r_flag = runs_from_initiator(flow.get(), packet.fe);
    flow->l4state.sess_state = static_cast<uint8_t>(reported_state);
    packet.indications->l4_payload_size = payload_size_of(packet.fe);
    account_reported_payload(flow.get(), packet.indications, reported_number);
    flow->packet_number = reported_number;
    return finish(std::move(flow), packet, reported_number, [] {});
}

zon_fid_t zon_engine(zon_half_flow_t* half_flow_key, zon_fe_handle fe, void* pkt_ctx,
                     zon_pkt_indications_t* pkt_indications, zon_error_t* zon_error,
                     zon_tunnel_type_e tunnel_type, zon_capability_counter_t* capability_counter,
                     zon_fid_t platform_reported_dft_fid,
                     zon_l4_flow_state_e platform_reported_dft_flow_state,
                     uint32_t platform_reported_flow_packet_number) {
    packet_in_engine packet{half_flow_key,     static_cast<zon_dp_fe_t*>(fe),
                            pkt_ctx,           pkt_indications,
                            zon_error,         tunnel_type,
                            capability_counter};
    if (platform_reported_dft_fid != 0) [[unlikely]]
        return zon_synchronise_packet(packet, platform_reported_dft_fid,
                                      platform_reported_dft_flow_state,
                                      platform_reported_flow_packet_number);
    return zon_classify_packet(packet);
}

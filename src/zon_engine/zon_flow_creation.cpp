// zon_flow_creation.cpp - gives a packet of an unknown connection a flow.
//
// Owns   nothing; a flow that cannot be completed goes back where it came from, unlocked and
//        unseen.
// Locks  the new flow's lock, held from the moment the record is taken until the packet is done. A
//        half-open flow that makes room is deleted before that.

#include <algorithm>

#include "osal/zon_debug.h"
#include "osal/zon_errlog.h"
#include "osal/zon_timer.h"
#include "platform/linux/zon_pd_pkt_inline.h"
#include "zon_engine/zon_half_open.h"
#include "zon_engine/zon_packet.h"

namespace {

bool tunnel_is_enabled(const packet_in_engine& packet) {
    switch (packet.tunnel) {
    case ZON_TUNNEL_TYPE_NONE:
        return true;
    case ZON_TUNNEL_TYPE_IPV6INIP:
        return relaxed_load(packet.capabilities->zon_engine_tunnel_ipv6inip) != 0;
    case ZON_TUNNEL_TYPE_TEREDO:
        return relaxed_load(packet.capabilities->zon_engine_tunnel_teredo) != 0;
    default:
        return false;
    }
}

[[gnu::cold]] attempted_flow refuse_tunnel(packet_in_engine& packet) {
    if (zon_tracing_engine())
        zon_buginf(
            "\nZON Engine: Tunneled flow cannot be created because the stripping for the specified "
            "tunnel type is not "
            "enabled");
    packet.indications->fif = 0;
    return {attempt::refused, {}};
}

[[gnu::cold]] attempted_flow refuse_for_memory(packet_in_engine& packet, const char* text) {
    *packet.error = zon_error_memory;
    if (zon_tracing_engine())
        zon_buginf("%s", text);
    packet.indications->fif = 0;
    return {attempt::refused, {}};
}

// Before a packet is refused for want of memory, or costs another flow its place: another thread
// may have made the packet's flow with the last of it.
attempted_flow made_meanwhile(packet_in_engine& packet) {
    zon_half_flow_t* half = zon_flow_table_lookup_locked(g_zon->flow_tbl, packet.key, nullptr);
    if (half == nullptr)
        return {attempt::nothing, {}};
    packet.indications->fif = 0;
    return {attempt::done, locked_flow::adopt(half->flow)};
}

// Gives back a flow that nobody has seen in the flow table. A stale identifier may still lead to
// it: it is hidden before its lock is let go.
[[gnu::cold]] void abandon(locked_flow flow) {
    zon_half_flow_t* initiator = flow->initiator_flow;
    zon_half_flow_t* responder = flow->responder_flow;
    flow->initiator_flow = nullptr;
    flow->responder_flow = nullptr;
    zon_flow_set_dying(flow.get(), true);
    for (zon_half_flow_t* half : {initiator, responder})
        if (half != nullptr)
            zon_deallocate_half_flow(half);
    zon_flow_t* record = flow.get();
    flow.release();
    zon_private_deallocate_flow(record);
}

// Shows the key to a host's NAT, so that the responder's side is stored under the translated
// addresses. The key holds ports in words, the hook takes 16-bit ones.
void translate_addresses(packet_in_engine& packet) {
    if (!zon_key_is_ipv4(packet.key->key.key_type) || !zon_ipnat_enabled(packet.context))
        return;
    packet.buckets.responder = -1;
    zon_ipv4_key_t& key = *zon_full_key<ipv4_family>(packet.key);
    auto src_port = static_cast<uint16_t>(key.src_port);
    auto dst_port = static_cast<uint16_t>(key.dst_port);
    zon_ipv4nat_fixup_ip_port(packet.context, &key.src_ip, &src_port, &key.dst_ip, &dst_port,
                              static_cast<uint8_t>(key.l4_protocol));
    key.src_port = src_port;
    key.dst_port = dst_port;
}

[[gnu::cold]] attempted_flow refuse_insert(packet_in_engine& packet, locked_flow flow) {
    *packet.error = zon_error_memory;
    zon_log_error_message(ZON_ERRMSG_NO_MEMORY, "Could not allocate memory for the flow",
                          "zon_flow_lookup, table insert failed:", 0);
    abandon(std::move(flow));
    packet.indications->fif = 0;
    return {attempt::refused, {}};
}

// Empty when there is no record, or none that half-open flows may take.
locked_flow take_record(int bucket) {
    if (zon_half_open_is_at_bound() && !zon_half_open_replace_oldest(bucket)) [[unlikely]]
        return {};
    zon_flow_t* record = zon_fid_table_new_flow_locked(g_zon->fid_table);
    if (record == nullptr && zon_half_open_is_bounded() && zon_half_open_replace_oldest(bucket))
        record = zon_fid_table_new_flow_locked(g_zon->fid_table);
    return locked_flow::adopt(record);
}

}  // namespace

attempted_flow zon_create_flow(packet_in_engine& packet) {
    if (!tunnel_is_enabled(packet))
        return refuse_tunnel(packet);

    if (zon_half_open_is_at_bound()) [[unlikely]]
        if (attempted_flow other = made_meanwhile(packet); other.outcome == attempt::done)
            return other;
    locked_flow flow = take_record(packet.buckets.initiator);
    if (!flow) {
        if (attempted_flow other = made_meanwhile(packet); other.outcome == attempt::done)
            return other;
        relaxed_add(g_zon->error_stats.flow_alloc_errors, 1);
        return refuse_for_memory(packet, "\nZON Engine: Could not allocate memory for the flow");
    }
    flow->initiator_flow = nullptr;
    flow->responder_flow = nullptr;
    flow->l4state.tcp_state = ZON_TCP_LISTEN;
    flow->age_ms = 0;
    zon_timer_set_type(&g_zon->zon_tw, &flow->timer, ZON_TIMER_FLOW_IDLE);

    const auto key_type =
        static_cast<uint8_t>(std::min<uint32_t>(packet.key->key.key_type, UINT8_MAX));
    const bool has_halves = zon_allocate_half_flows(key_type, flow.get());
    if (flow->initiator_flow != nullptr)
        zon_copy_key_to_half_flow(flow->initiator_flow, &packet.key->key);
    if (!has_halves) {
        abandon(std::move(flow));
        if (attempted_flow other = made_meanwhile(packet); other.outcome == attempt::done)
            return other;
        return refuse_for_memory(packet,
                                 "\nZON Engine: Could not allocate memory for the half flow");
    }
    translate_addresses(packet);
    zon_copy_key_to_half_flow(flow->responder_flow, &packet.key->key);
    zon_swap_key(&flow->responder_flow->key);
    flow->initiator_flow->flow = flow.get();
    flow->responder_flow->flow = flow.get();

    switch (zon_flow_table_insert_flow(g_zon->flow_tbl, flow.get(), packet.buckets)) {
    case pair_insert_result::linked:
        break;
    case pair_insert_result::already_present:
        // The packet is looked up anew under its own addresses, not the translated ones.
        zon_copy_key(&packet.key->key, &flow->initiator_flow->key);
        abandon(std::move(flow));
        packet.indications->fif = 0;
        return {attempt::again, {}};
    case pair_insert_result::first_refused:
    case pair_insert_result::second_refused:
        return refuse_insert(packet, std::move(flow));
    }
    zon_private_increment_active_tunnel_flows(g_zon->flow_tbl, packet.tunnel);
    flow->tunnel_type = packet.tunnel;
    zon_half_open_begin(flow.get());
    return {attempt::done, std::move(flow)};
}

// zon_delete.cpp - the one way in which a flow dies.
//
// Owns   the order of the steps: clients, counters, flow table, timer, bundle, tunnels, super
//        contexts, identifier.
// Locks  entered with the flow locked, left with that level released. Everything runs under the
//        flow lock: lookups without a bucket's lock rest on it.

#include "osal/zon_debug.h"
#include "osal/zon_mem.h"
#include "zon_api_internal.h"
#include "zon_engine/zon_clients.h"
#include "zon_engine/zon_half_open.h"
#include "zon_engine_inline.h"
#include "zon_super_ctx_table.h"

namespace {

// What one client had on a flow. The lists of the directions may end in that of the whole flow, so
// one record can be found in several positions.
struct client_records {
    zon_flow_fo_t* whole = nullptr;
    zon_flow_fo_t* initiator = nullptr;
    zon_flow_fo_t* responder = nullptr;
};

void* object_of(const zon_flow_fo_t* record) {
    return record != nullptr ? record->fo : nullptr;
}

zon_flow_fo_t* remove_from_side(const zon_flow_t* flow, zon_flow_direction_e dir,
                                zon_client_id_e cid) {
    zon_half_flow_t* half = zon_half_flow_of(flow, dir);
    return half != nullptr ? zon_flow_fo_list_find_and_remove(&half->fo_list, cid) : nullptr;
}

// The whole flow's list comes first: where a record hangs in shared tails, that decides in which
// positions it is found.
client_records take_client_records(zon_flow_t* flow, zon_client_id_e cid) {
    client_records taken;
    taken.whole = zon_flow_fo_list_find_and_remove(&flow->fo_list, cid);
    taken.initiator = remove_from_side(flow, ZON_DIR_INITIATOR, cid);
    taken.responder = remove_from_side(flow, ZON_DIR_RESPONDER, cid);
    for (const zon_flow_fo_t* record : {taken.whole, taken.initiator, taken.responder})
        if (record != nullptr)
            zon_flow_fo_unlink_everywhere(flow, record);
    return taken;
}

// Each record once, however often it was found.
void release_client_records(const client_records& taken) {
    if (taken.whole != nullptr)
        zon_flow_fo_release(taken.whole);
    if (taken.initiator != nullptr && taken.initiator != taken.whole)
        zon_flow_fo_release(taken.initiator);
    if (taken.responder != nullptr && taken.responder != taken.whole &&
        taken.responder != taken.initiator)
        zon_flow_fo_release(taken.responder);
}

void tell_clients(zon_flow_t* flow, zon_flow_deletion_reason_e reason) {
    for (const auto* client = zon_first_client(g_zon); client != nullptr;
         client = zon_next_client(client)) {
        const client_records taken = take_client_records(flow, client->id);
        if (const auto callback = zon_callback_of(client->fo_del_cb)) {
            const client_function called;
            callback(flow->fid, object_of(taken.initiator), object_of(taken.responder),
                     object_of(taken.whole), reason, client->id);
        }
        release_client_records(taken);
    }
}

void discard_half_flow(const zon_flow_t* flow, zon_half_flow_t* half) {
    if (half == nullptr)
        return;
    // What clients that are no longer registered left on this direction.
    zon_flow_fo_release_side(flow, half);
    zon_deallocate_half_flow(half);
}

void discard_half_flows(const zon_flow_t* flow, zon_half_flow_t* initiator,
                        zon_half_flow_t* responder) {
    if (initiator == nullptr || responder == nullptr) {
        discard_half_flow(flow, initiator);
        discard_half_flow(flow, responder);
        return;
    }
    zon_flow_fo_release_side(flow, initiator);
    zon_flow_fo_release_side(flow, responder);
    zon_deallocate_half_flows(initiator, responder);
}

void remove_half_flows(zon_flow_t* flow) {
    zon_half_flow_t* initiator = zon_half_flow_of(flow, ZON_DIR_INITIATOR);
    zon_half_flow_t* responder = zon_half_flow_of(flow, ZON_DIR_RESPONDER);
    if (initiator != nullptr && responder != nullptr)
        zon_flow_table_delete_full_flow(g_zon->flow_tbl, initiator, responder, false);
    else if (initiator != nullptr || responder != nullptr)
        zon_flow_table_delete(g_zon->flow_tbl, initiator != nullptr ? initiator : responder, false);
    discard_half_flows(flow, initiator, responder);
    zon_free_given_back(flow, ZON_DIR_INITIATOR);
    zon_free_given_back(flow, ZON_DIR_RESPONDER);
}

void forget_half_flows(zon_flow_t* flow) {
    flow->initiator_flow = nullptr;
    flow->responder_flow = nullptr;
    flow->private_given_back = 0;
}

void delete_one_half_flow(zon_flow_t* flow, zon_flow_direction_e dir) {
    zon_uncount_announced(zon_named_half_flow(flow, dir));
    if (zon_half_flow_t* half = zon_half_flow_of(flow, dir)) {
        zon_flow_table_delete(g_zon->flow_tbl, half, false);
        discard_half_flow(flow, half);
    }
    zon_free_given_back(flow, dir);
}

// "A.B.C.D:port" of both ends, from the most significant byte of the address.
void trace_ends(const zon_ipv4_key_t& key) {
    const auto byte = [](uint32_t ip, int shift) { return (ip >> shift) & 0xff; };
    zon_buginf("<%d.%d.%d.%d:%d,", byte(key.src_ip, 24), byte(key.src_ip, 16), byte(key.src_ip, 8),
               byte(key.src_ip, 0), key.src_port);
    zon_buginf("%d.%d.%d.%d:%d,", byte(key.dst_ip, 24), byte(key.dst_ip, 16), byte(key.dst_ip, 8),
               byte(key.dst_ip, 0), key.dst_port);
}

// The words of an IPv6 address are printed from the last to the first, on purpose: log readers
// expect that order.
void trace_ends(const zon_ipv6_key_t& key) {
    const auto high = [](uint32_t word) { return word >> 16; };
    const auto low = [](uint32_t word) { return word & 0xffff; };
    const uint32_t* src = key.src_ip;
    const uint32_t* dst = key.dst_ip;
    zon_buginf("<%x:%x:%x:%x:%x:%x:%x:%x:%d,", high(src[3]), low(src[3]), high(src[2]), low(src[2]),
               high(src[1]), low(src[1]), high(src[0]), low(src[0]), key.src_port);
    zon_buginf("%x:%x:%x:%x:%x:%x:%x:%x:%d,", high(dst[3]), low(dst[3]), high(dst[2]), low(dst[2]),
               high(dst[1]), low(dst[1]), high(dst[0]), low(dst[0]), key.dst_port);
}

}  // namespace

void zon_uncount_announced(const zon_half_flow_t* half) {
    if (half != nullptr && zon_key_is_preflow(half->key.key_type))
        zon_private_decrement_incomplete_inserts(g_zon->flow_tbl, half->key.key_type);
}

void zon_free_given_back(zon_flow_t* flow, zon_flow_direction_e dir) {
    if (!zon_side_is_given_back(flow, dir))
        return;
    zon_half_flow_t* half = zon_named_half_flow(flow, dir);
    const zon_memory_type type = zon_key_is_ipv4(half->key.key_type) ? ZON_IPV4_HALF_FLOW_MEM_TYPE
                                                                     : ZON_IPV6_HALF_FLOW_MEM_TYPE;
    zon_private_chunk_free_or_trace(type, half, &g_zon->zon_chunk_ptr);
    flow->private_given_back &= static_cast<uint8_t>(~zon_given_back_mark(dir));
}

void zon_private_debug_delete_flow(zon_flow_t* flow) {
    if (!zon_tracing_engine())
        return;
    zon_buginf("\nDeleting fid:%d ", flow->fid);
    const zon_half_flow_t* half = flow->initiator_flow;
    if (half == nullptr || !zon_key_type_is_valid(half->key.key_type))
        return;
    if (zon_key_is_ipv4(half->key.key_type))
        trace_ends(*zon_full_key<ipv4_family>(half));
    else
        trace_ends(*zon_full_key<ipv6_family>(half));
    zon_buginf("%d,%d>%d\n", half->key.l4_protocol, half->key.vrf_id, half->key.key_type);
}

void zon_private_free_all_fos(zon_flow_t* flow) {
    for (const zon_flow_direction_e dir : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER})
        if (zon_half_flow_t* half = zon_half_flow_of(flow, dir))
            zon_flow_fo_release_side(flow, half);
    while (zon_flow_fo_t* record = flow->fo_list) {
        flow->fo_list = record->next;
        zon_flow_fo_release(record);
    }
}

void zon_private_delete_half_flows(zon_flow_t* flow) {
    zon_require(flow != nullptr, "flow");
    delete_one_half_flow(flow, ZON_DIR_INITIATOR);
    delete_one_half_flow(flow, ZON_DIR_RESPONDER);
    forget_half_flows(flow);
}

bool zon_private_delete_locked_flow(zon_flow_t* flow,
                                    const zon_flow_deletion_reason_e flow_deletion_reason) {
    locked_flow held = locked_flow::adopt(flow);
    if (flow->marked_for_delete)
        return true;
    flow->marked_for_delete = 1;
    tell_clients(flow, flow_deletion_reason);
    zon_uncount_announced(flow->responder_flow);
    zon_uncount_announced(flow->initiator_flow);
    zon_private_debug_delete_flow(flow);

    {
        // From here on no other thread finds the flow. This one still does: functions of clients
        // that run below may ask about it.
        const deletion_in_progress note(flow);
        zon_flow_set_dying(flow, true);
        // The lock stays held: buckets may be awaited under it, and having to wait for it again
        // could stop the timer thread behind a client that keeps a flow of the same lock.
        remove_half_flows(flow);
        forget_half_flows(flow);
        zon_private_stop_timer(flow);
        zon_private_unbind(flow);
        zon_private_decrement_active_tunnel_flows(g_zon->flow_tbl, flow->tunnel_type);
        zon_half_open_leave(flow);
        zon_super_context_process_lif(flow);
        zon_private_free_all_fos(flow);
    }
    held.release();
    zon_private_deallocate_flow(flow);
    return true;
}

bool zon_private_delete_flow(zon_fid_t fid, zon_flow_deletion_reason_e flow_deletion_reason) {
    locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
    if (!flow)
        return false;
    return zon_private_delete_locked_flow(std::move(flow).hand_over(), flow_deletion_reason);
}

bool zon_delete_flow_tamonet(zon_fid_t fid, zon_flow_deletion_reason_e flow_deletion_reason) {
    return g_zon != nullptr && zon_private_delete_flow(fid, flow_deletion_reason);
}

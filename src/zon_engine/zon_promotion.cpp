// zon_promotion.cpp - turns an announced flow into a real one when its first packet comes.
//
// Owns   nothing.
// Locks  the announced flow's lock, as the lookup handed it over.

#include <span>

#include "osal/zon_debug.h"
#include "osal/zon_errlog.h"
#include "zon_api/zon_api_internal.h"
#include "zon_engine/zon_packet.h"

namespace {

std::span<const uint32_t> announced_types_for(uint32_t key_type) {
    return zon_key_is_ipv4(key_type) ? std::span(zon_incomplete_keys_ipv4)
                                     : std::span(zon_incomplete_keys_ipv6);
}

uint32_t complete_type_for(uint32_t key_type) {
    return zon_key_is_ipv4(key_type) ? ZON_IPV4_KEY_COMPLETE : ZON_IPV6_KEY_COMPLETE;
}

// The half flow of the most specific announcement that the packet answers to, its flow locked. The
// scratch key keeps the type that matched.
zon_half_flow_t* find_announced_locked(zon_half_flow_t* key) {
    for (const uint32_t type : announced_types_for(key->key.key_type)) {
        if (zon_private_get_incomplete_inserts(g_zon->flow_tbl, type) == 0)
            continue;
        key->key.key_type = type;
        if (zon_half_flow_t* half = zon_flow_table_lookup_locked(g_zon->flow_tbl, key, nullptr))
            return half;
    }
    return nullptr;
}

// The side that the packet came from becomes the initiator; what is noted of a side goes with it.
void exchange_sides(zon_flow_t* flow) {
    std::swap(flow->initiator_flow, flow->responder_flow);
    const uint8_t marks = flow->private_given_back;
    static_assert(zon_given_back_initiator == 1 && zon_given_back_responder == 2);
    flow->private_given_back = static_cast<uint8_t>((marks & 1) << 1 | marks >> 1);
}

struct key_types {
    uint32_t initiator;
    uint32_t responder;
};

key_types types_of(const zon_flow_t* flow) {
    return {flow->initiator_flow->key.key_type, flow->responder_flow->key.key_type};
}

// A side that was given a complete key before its promotion counts as announced no more.
void count_out(const key_types& types) {
    for (const uint32_t type : {types.initiator, types.responder})
        if (zon_key_is_preflow(type))
            zon_private_decrement_incomplete_inserts(g_zon->flow_tbl, type);
}

// The whole tuple was announced: the half flows stay where they are and only change their types.
void complete_in_place(zon_flow_t* flow, uint32_t complete) {
    const key_types announced = types_of(flow);
    for (zon_half_flow_t* half : {flow->initiator_flow, flow->responder_flow})
        relaxed_store(half->key.key_type, complete);
    zon_flow_table_index_anew(g_zon->flow_tbl, flow);
    // Last, so that no packet misses both the announced and the complete key.
    count_out(announced);
}

// Part of the tuple was unknown: both half flows take their keys from the packet and move to new
// buckets.
pair_insert_result rekey_from_packet(zon_flow_t* flow, zon_half_flow_t* key) {
    const key_types announced = types_of(flow);
    const pair_insert_result result = zon_flow_table_relink_flow(g_zon->flow_tbl, flow, &key->key);
    if (result != pair_insert_result::already_present) {
        zon_private_reclaim_sides(flow);
        count_out(announced);
    }
    return result;
}

[[gnu::cold]] attempted_flow refuse_promotion(packet_in_engine& packet, locked_flow flow) {
    // The text is kept as hosts know it, although it reports a failure.
    zon_log_error_message(ZON_ERRMSG_CLIENT_API, "Flow could now be promoted",
                          "zon_flow_lookup, fid:", static_cast<int>(flow->fid));
    packet.indications->fif = 0;
    return {attempt::refused, {}};
}

}  // namespace

attempted_flow zon_promote_announced_flow(packet_in_engine& packet) {
    const uint32_t packet_type = packet.key->key.key_type;
    if (!zon_key_type_is_valid(packet_type)) [[unlikely]] {
        zon_buginf("Unknown key type %d", static_cast<int>(packet_type));
        return {attempt::nothing, {}};
    }
    const uint32_t complete = complete_type_for(packet_type);
    zon_half_flow_t* half = find_announced_locked(packet.key);
    const uint32_t probed = packet.key->key.key_type;
    packet.key->key.key_type = complete;
    if (half == nullptr)
        return {attempt::nothing, {}};

    locked_flow flow = locked_flow::adopt(half->flow);
    // Another packet may have promoted it between the match and the lock.
    if (half->key.key_type != probed)
        return {attempt::again, {}};

    const bool turned = half != flow->initiator_flow;
    if (turned)
        exchange_sides(flow.get());
    if (probed == ZON_IPV4_KEY_PRE_FLOW_COMPLETE || probed == ZON_IPV6_KEY_PRE_FLOW_COMPLETE) {
        complete_in_place(flow.get(), complete);
    } else {
        switch (rekey_from_packet(flow.get(), packet.key)) {
        case pair_insert_result::linked:
            break;
        case pair_insert_result::already_present:
            if (turned)
                exchange_sides(flow.get());
            return {attempt::again, {}};
        case pair_insert_result::first_refused:
        case pair_insert_result::second_refused:
            return refuse_promotion(packet, std::move(flow));
        }
    }
    packet.indications->was_promoted = 1;
    zon_private_link_to_parent(flow.get());
    return {attempt::done, std::move(flow)};
}

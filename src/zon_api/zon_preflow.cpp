// zon_preflow.cpp - announced flows, and the objects that clients hang on the one direction that a
// tuple names.
//
// Locks  lookups by tuple hand over the flow's lock; it is let go before return, except where a
//        function says otherwise.

#include "osal/zon_debug.h"
#include "zon_api_internal.h"
#include "zon_engine/zon_clients.h"

namespace {

uint32_t announced_type(uint32_t key_type) {
    switch (key_type) {
    case ZON_IPV4_KEY_COMPLETE:
        return ZON_IPV4_KEY_PRE_FLOW_COMPLETE;
    case ZON_IPV6_KEY_COMPLETE:
        return ZON_IPV6_KEY_PRE_FLOW_COMPLETE;
    default:
        return key_type;
    }
}

// The half flow that a tuple names, its flow locked, or null.
zon_half_flow_t* find_by_tuple(zon_flow_tuple_type_t tuple_type,
                               const zon_flow_tuple_t* flow_tuple) {
    zon_key_type_t key_type = ZON_MAX_KEY;
    if (zon_get_key_type(flow_tuple->src_ip.addr_type, tuple_type, &key_type) != zon_error_none)
        return nullptr;
    return zon_find_half_flow_using_tuple(key_type, flow_tuple);
}

zon_error_t check_uni_arguments(zon_client_id_e cid, zon_flow_tuple_type_t tuple_type,
                                const zon_flow_tuple_t* flow_tuple, const void* fo) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (cid < 1 || cid > zon_last_client_id)
        return zon_error_client_id_invalid;
    if (!zon_tuple_type_is_valid(tuple_type))
        return zon_error_invalid_tuple_type;
    if (flow_tuple == nullptr)
        return zon_error_flow_tuple_is_null;
    return fo == nullptr ? zon_error_parameter_is_null : zon_error_none;
}

zon_error_t traced(zon_error_t error) {
    zon_trace_engine_text(zon_client_api_text);
    return error;
}

zon_error_t attach_to(zon_half_flow_t* half, zon_client_id_e cid, void* fo) {
    zon_flow_fo_t* record = zon_flow_fo_list_find(half->fo_list, cid);
    if (record != nullptr) {
        zon_trace_engine_text("\nZON Engine: Overwrote the already attached FO with a new FO");
    } else {
        record = zon_flow_fo_allocate(cid);
        if (record == nullptr)
            return zon_error_memory;
        record->next = half->fo_list;
        half->fo_list = record;
    }
    record->fo = fo;
    return zon_error_none;
}

}  // namespace

zon_error_t zon_pre_flow_add(zon_flow_tuple_type_t tuple_type, const zon_flow_tuple_t* flow_tuple,
                             zon_fid_t parent_fid, zon_fid_t* pre_flow_fid, zon_lock_t* flow_lock) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (!zon_tuple_type_is_valid(tuple_type))
        return zon_error_invalid_tuple_type;
    if (flow_tuple == nullptr)
        return zon_error_flow_tuple_is_null;
    if (pre_flow_fid == nullptr)
        return zon_error_parameter_is_null;
    *pre_flow_fid = ZON_NULL_FID;
    if (flow_lock != nullptr)
        *flow_lock = nullptr;

    // Another family than the two is nothing to do, not an error: callers look at the identifier.
    zon_key_type_t key_type = ZON_MAX_KEY;
    zon_any_key_t key;
    if (zon_get_key_type(flow_tuple->src_ip.addr_type, tuple_type, &key_type) != zon_error_none ||
        !zon_build_key(&key, key_type, flow_tuple))
        return zon_error_none;
    if (const zon_half_flow_t* half = zon_find_half_flow(&key)) {
        zon_hand_over_found_flow(locked_flow::adopt(half->flow), pre_flow_fid, flow_lock);
        return zon_error_none;
    }
    key.head.key_type = announced_type(key.head.key_type);
    return zon_private_insert_incomplete_tuple(&key.head, parent_fid, pre_flow_fid, flow_lock);
}

zon_error_t zon_pre_flow_delete_using_flow_tuple(zon_flow_tuple_type_t tuple_type,
                                                 const zon_flow_tuple_t* flow_tuple) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (!zon_tuple_type_is_valid(tuple_type))
        return zon_error_invalid_tuple_type;
    if (flow_tuple == nullptr)
        return zon_error_flow_tuple_is_null;
    const zon_half_flow_t* half = find_by_tuple(tuple_type, flow_tuple);
    if (half == nullptr)
        return zon_error_flow_not_found;
    // Kept on purpose: an ordinary flow is left alone and left locked.
    if (!zon_key_is_preflow(half->key.key_type))
        return zon_error_flow_not_found;
    zon_flow_t* flow = half->flow;
    if (zon_private_delete_locked_flow(flow, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST))
        return zon_error_none;
    zon_unlock_internal(flow->flow_lock);
    return zon_error_flow_not_found;
}

zon_error_t zon_uni_flow_attach_fo(zon_client_id_e cid, zon_flow_tuple_type_t tuple_type,
                                   const zon_flow_tuple_t* flow_tuple, void* fo) {
    if (const zon_error_t error = check_uni_arguments(cid, tuple_type, flow_tuple, fo);
        error != zon_error_none)
        return error;
    if (zon_private_get_delete_cb(cid) == nullptr)
        return traced(zon_error_client_delete_cb_not_registered);
    zon_half_flow_t* half = find_by_tuple(tuple_type, flow_tuple);
    if (half == nullptr)
        return traced(zon_error_flow_not_found);
    const locked_flow flow = locked_flow::adopt(half->flow);
    return attach_to(half, cid, fo);
}

zon_error_t zon_uni_flow_get_fo(zon_client_id_e cid, zon_flow_tuple_type_t tuple_type,
                                zon_flow_tuple_t* flow_tuple, void** fo) {
    if (const zon_error_t error = check_uni_arguments(cid, tuple_type, flow_tuple, fo);
        error != zon_error_none)
        return error;
    *fo = nullptr;
    const zon_half_flow_t* half = find_by_tuple(tuple_type, flow_tuple);
    if (half == nullptr)
        return traced(zon_error_flow_not_found);
    const locked_flow flow = locked_flow::adopt(half->flow);
    const zon_flow_fo_t* record = zon_flow_fo_list_find(half->fo_list, cid);
    if (record == nullptr)
        return traced(zon_error_feature_object_not_attached);
    *fo = record->fo;
    return zon_error_none;
}

zon_error_t zon_uni_flow_detach_fo(zon_client_id_e cid, zon_flow_tuple_type_t tuple_type,
                                   const zon_flow_tuple_t* flow_tuple, void** fo) {
    if (const zon_error_t error = check_uni_arguments(cid, tuple_type, flow_tuple, fo);
        error != zon_error_none)
        return error;
    *fo = nullptr;
    const zon_half_flow_t* half = find_by_tuple(tuple_type, flow_tuple);
    if (half == nullptr)
        return traced(zon_error_flow_not_found);
    const locked_flow flow = locked_flow::adopt(half->flow);
    zon_flow_fo_t* record = zon_flow_fo_list_find(half->fo_list, cid);
    if (record == nullptr)
        return traced(zon_error_feature_object_not_attached);
    *fo = record->fo;
    zon_flow_fo_unlink_everywhere(flow.get(), record);
    zon_flow_fo_release(record);
    return zon_error_none;
}

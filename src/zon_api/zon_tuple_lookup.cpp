// zon_tuple_lookup.cpp - from a client's description of a connection to the flow, and the flow lock
// that clients hold.
//
// Locks  what is found comes back with its flow locked; nothing else leaves this file locked.

#include "zon_api_internal.h"

zon_error_t zon_get_key_type(zon_ip_addr_e addr_type, zon_flow_tuple_type_t tuple_type,
                             zon_key_type_t* key_type) {
    struct row {
        zon_key_type_t ipv4;
        zon_key_type_t ipv6;
    };
    // In the order of the tuple types. Source and destination cross over: the two numberings
    // differ.
    static constexpr row rows[] = {
        {ZON_IPV4_KEY_COMPLETE, ZON_IPV6_KEY_COMPLETE},
        {ZON_IPV4_KEY_SRC_IP_PORT_ONLY, ZON_IPV6_KEY_SRC_IP_PORT_ONLY},
        {ZON_IPV4_KEY_DST_IP_PORT_ONLY, ZON_IPV6_KEY_DST_IP_PORT_ONLY},
        {ZON_IPV4_KEY_VRF_STAR, ZON_IPV6_KEY_VRF_STAR},
    };
    if (!zon_tuple_type_is_valid(tuple_type))
        return zon_error_invalid_tuple_type;
    switch (addr_type) {
    case ZON_IP_ADDR_IPV4:
        *key_type = rows[tuple_type].ipv4;
        return zon_error_none;
    case ZON_IP_ADDR_IPV6:
        *key_type = rows[tuple_type].ipv6;
        return zon_error_none;
    default:
        return zon_error_flow_not_found;
    }
}

bool zon_build_key(zon_any_key_t* key, zon_key_type_t key_type,
                   const zon_flow_tuple_t* flow_tuple) {
    const auto type = static_cast<uint8_t>(key_type);
    switch (flow_tuple->src_ip.addr_type) {
    case ZON_IP_ADDR_IPV4:
        zon_set_key_ipv4(&key->ipv4, type, flow_tuple->src_ip.u.v4_addr,
                         flow_tuple->dst_ip.u.v4_addr, flow_tuple->src_port, flow_tuple->dst_port,
                         flow_tuple->l4_protocol, flow_tuple->vrf_id);
        return true;
    case ZON_IP_ADDR_IPV6:
        zon_set_key_ipv6(&key->ipv6, type, flow_tuple->src_ip.u.v6_addr,
                         flow_tuple->dst_ip.u.v6_addr, flow_tuple->src_port, flow_tuple->dst_port,
                         flow_tuple->l4_protocol, flow_tuple->vrf_id);
        return true;
    default:
        return false;
    }
}

zon_half_flow_t* zon_find_half_flow(const zon_any_key_t* key) {
    return zon_key_is_ipv4(key->head.key_type) ? zon_private_flow_lookup_ipv4(&key->ipv4)
                                               : zon_private_flow_lookup_ipv6(&key->ipv6);
}

zon_half_flow_t* zon_find_half_flow_using_tuple(zon_key_type_t key_type,
                                                const zon_flow_tuple_t* flow_tuple) {
    zon_any_key_t key;
    return zon_build_key(&key, key_type, flow_tuple) ? zon_find_half_flow(&key) : nullptr;
}

zon_error_t zon_flow_find_and_lock(zon_flow_tuple_type_t tuple_type,
                                   const zon_flow_tuple_t* flow_tuple, zon_fid_t* fid,
                                   zon_lock_t* flow_lock) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (!zon_tuple_type_is_valid(tuple_type))
        return zon_error_invalid_tuple_type;
    if (flow_tuple == nullptr)
        return zon_error_flow_tuple_is_null;
    if (fid == nullptr)
        return zon_error_parameter_is_null;
    *fid = ZON_NULL_FID;
    if (flow_lock != nullptr)
        *flow_lock = nullptr;

    zon_key_type_t key_type = ZON_MAX_KEY;
    if (zon_get_key_type(flow_tuple->src_ip.addr_type, tuple_type, &key_type) != zon_error_none)
        return zon_error_flow_not_found;
    const zon_half_flow_t* half = zon_find_half_flow_using_tuple(key_type, flow_tuple);
    if (half == nullptr)
        return zon_error_flow_not_found;
    // The lock stays with the caller, even with one that gave no place to put it: that is the
    // caller's contract.
    *fid = half->flow->fid;
    if (flow_lock != nullptr)
        *flow_lock = half->flow->flow_lock;
    return zon_error_none;
}

zon_error_t zon_flow_unlock(zon_lock_t flow_lock) {
    if (flow_lock == nullptr)
        return zon_error_parameter_is_null;
    zon_unlock_internal(flow_lock);
    return zon_error_none;
}

void zon_unlock_flow_tamonet(void* flow) {
    zon_unlock_internal(static_cast<const zon_flow_t*>(flow)->flow_lock);
}

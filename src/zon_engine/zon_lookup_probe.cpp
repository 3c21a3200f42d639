// zon_lookup_probe.cpp - a bare test whether a complete IPv4 flow exists.
//
// Locks  the flow that is found is let go at once.

#include "zon_engine_inline.h"
#include "zon_flow.h"

int zon_flow_lookup_tamonet(zon_flow_tuple_t* flow_tuple, int* hash_bucket) {
    if (g_zon == nullptr)
        return 0;
    // Kept on purpose: the probe is for VRF 0 alone, whatever the tuple says, and does not see
    // announced flows.
    constexpr uint32_t probed_vrf = 0;
    zon_ipv4_half_flow_t wanted{};
    zon_set_key_ipv4(&wanted.key, ZON_IPV4_KEY_COMPLETE, flow_tuple->src_ip.u.v4_addr,
                     flow_tuple->dst_ip.u.v4_addr, flow_tuple->src_port, flow_tuple->dst_port,
                     flow_tuple->l4_protocol, probed_vrf);
    const zon_half_flow_t* half = zon_flow_table_lookup(
        g_zon->flow_tbl, reinterpret_cast<const zon_half_flow_t*>(&wanted), hash_bucket);
    if (half == nullptr)
        return 0;
    locked_flow::adopt(half->flow).release();
    return 1;
}

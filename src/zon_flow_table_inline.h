// zon_flow_table_inline.h - counters of pre-flows and of tunnelled flows in the flow table.

#pragma once

#include "zon_flow_table.h"

void zon_private_increment_incomplete_inserts(zon_flow_table_t* tbl, uint32_t key_type);
void zon_private_decrement_incomplete_inserts(zon_flow_table_t* tbl, uint32_t key_type);

inline uint32_t zon_private_get_incomplete_inserts(const zon_flow_table_t* tbl, uint32_t key_type) {
    return relaxed_load(tbl->active_preflow_count[key_type]);
}
inline bool zon_private_has_incomplete_inserts(const zon_flow_table_t* tbl) {
    return relaxed_load(tbl->has_incomplete_inserts);
}

inline uint32_t* zon_private_tunnel_counter(zon_flow_table_t* tbl, zon_tunnel_type_e tunnel_type) {
    switch (tunnel_type) {
    case ZON_TUNNEL_TYPE_IPV6INIP:
        return &tbl->active_tunnel_flows_count.active_ipv6inip_flows_count;
    case ZON_TUNNEL_TYPE_TEREDO:
        return &tbl->active_tunnel_flows_count.active_teredo_flows_count;
    default:
        return nullptr;
    }
}
inline void zon_private_increment_active_tunnel_flows(zon_flow_table_t* tbl,
                                                      zon_tunnel_type_e tunnel_type) {
    if (uint32_t* counter = zon_private_tunnel_counter(tbl, tunnel_type))
        relaxed_add(*counter, 1);
}
inline void zon_private_decrement_active_tunnel_flows(zon_flow_table_t* tbl,
                                                      zon_tunnel_type_e tunnel_type) {
    if (uint32_t* counter = zon_private_tunnel_counter(tbl, tunnel_type))
        relaxed_add(*counter, -1);
}
inline uint32_t zon_private_get_active_tunnel_flows_count(zon_flow_table_t* tbl,
                                                          zon_tunnel_type_e tunnel_type) {
    const uint32_t* counter = zon_private_tunnel_counter(tbl, tunnel_type);
    return counter != nullptr ? relaxed_load(*counter) : 0;
}
inline bool zon_private_has_active_tunnel_flows(zon_flow_table_t* tbl,
                                                zon_tunnel_type_e tunnel_type) {
    return zon_private_get_active_tunnel_flows_count(tbl, tunnel_type) > 0;
}

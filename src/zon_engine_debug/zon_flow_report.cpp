// zon_flow_report.cpp - snapshots of flows for dumps, and the filter that dumps apply.
//
// Owns   nothing.
// Locks  the caller holds the flow; the bundle's lock is taken inside for the parent. A walk takes
//        the flows' locks itself and calls back outside all of them.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "zon_api/zon_api_internal.h"
#include "zon_debug_api.h"
#include "zon_engine_inline.h"

namespace {

bool is_end(uint32_t ip, uint32_t port, const uint32_t* wanted_ip, uint16_t wanted_port) {
    return ip == wanted_ip[0] && port == wanted_port;
}
bool is_end(const uint32_t (&ip)[4], uint32_t port, const uint32_t* wanted_ip,
            uint16_t wanted_port) {
    return std::equal(std::begin(ip), std::end(ip), wanted_ip) && port == wanted_port;
}

template <class key>
bool has_end(const key& of, const uint32_t* ip, uint16_t port) {
    return is_end(of.src_ip, of.src_port, ip, port) || is_end(of.dst_ip, of.dst_port, ip, port);
}

zon_report_key_t key_of_side(const zon_flow_t* flow, zon_flow_direction_e dir) {
    zon_report_key_t key;
    std::memset(&key, 0, sizeof key);
    if (const zon_half_flow_t* half = zon_named_half_flow(flow, dir))
        zon_copy_key(&key.key, &half->key);
    return key;
}

bool side_has_objects(const zon_flow_t* flow, zon_flow_direction_e dir) {
    const zon_half_flow_t* half = zon_half_flow_of(flow, dir);
    return half != nullptr && half->fo_list != nullptr;
}

}  // namespace

bool zon_flow_compare_ip_and_port(uint8_t ip_type, uint32_t* ipaddr, uint16_t port,
                                  zon_key_t* key) {
    if (ipaddr == nullptr || key == nullptr)
        return false;
    if (ip_type == L3_ADDR_IPV4)
        return key->key_type <= ZON_IPV4_LAST_KEY &&
               has_end(*reinterpret_cast<zon_ipv4_key_t*>(key), ipaddr, port);
    if (ip_type == L3_ADDR_IPV6)
        return key->key_type >= ZON_IPV4_LAST_KEY && key->key_type <= ZON_IPV6_LAST_KEY &&
               has_end(*reinterpret_cast<zon_ipv6_key_t*>(key), ipaddr, port);
    return false;
}

bool zon_debug_flow_populate_report(zon_flow_t* flow, zon_flow_report_t* report,
                                    zon_dump_flow_context* ctx) {
    if (flow == nullptr || report == nullptr)
        return false;
    // The filter looks at copies: they have room for either family.
    zon_report_key_t initiator = key_of_side(flow, ZON_DIR_INITIATOR);
    zon_report_key_t responder = key_of_side(flow, ZON_DIR_RESPONDER);
    if (ctx != nullptr && ctx->ip_type != 0) {
        // Kept on purpose: one line for each flow that a filtered dump looks at.
        std::puts("are we dumping here? ");
        if (!zon_flow_compare_ip_and_port(ctx->ip_type, ctx->ipaddr, ctx->port, &initiator.key) &&
            !zon_flow_compare_ip_and_port(ctx->ip_type, ctx->ipaddr, ctx->port, &responder.key))
            return false;
    }
    report->fid = flow->fid;
    report->l4_sess_state = flow->l4state.sess_state;
    report->l4_tcp_state = flow->l4state.tcp_state;
    report->num_l7_bytes = flow->num_l7_bytes;
    report->packet_number = flow->packet_number;
    report->first_payload_seen_on_pkt_num = flow->first_payload_seen_on_pkt_num;
    report->app_id = flow->app_id;
    report->age_ms = flow->age_ms;
    report->marked_for_delete = flow->marked_for_delete;
    report->parent_fid = zon_private_parent_fid(flow);
    const bool has_objects = flow->fo_list != nullptr ||
                             side_has_objects(flow, ZON_DIR_INITIATOR) ||
                             side_has_objects(flow, ZON_DIR_RESPONDER);
    std::fill(std::begin(report->hasFO), std::end(report->hasFO),
              static_cast<uint8_t>(has_objects));
    report->initiator_key = initiator;
    report->responder_key = responder;
    return true;
}

void zon_test_fid_table_iterate_flow(fid_table_iterate_by_flow_cb_t cb, void* user) {
    if (cb != nullptr && g_zon != nullptr && g_zon->fid_table != nullptr)
        zon_fid_table_iterate_flow(g_zon->fid_table, cb, user);
}

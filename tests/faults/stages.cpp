// stages.cpp - the engine that a scenario begins with, and the packets and tuples of all of them.

#include <cstring>

#include "scenario.h"
#include "support/flow_reader.h"

namespace zon_faults {

using zon_test::bytes;
using zon_test::packet_builder;

void tell_end(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e, zon_client_id_e) {
    ++run.end_calls;
}

// Nothing is made ahead: each flow, and each table that grows, asks for its memory when it is used.
zon_error_t make_small_engine(uint8_t max_bucket_depth) {
    const bool tight = max_bucket_depth != 0;
    return zon_init(tight ? 4 : 40, 10000, 1, 2, max_bucket_depth, 1, 0);
}

static bool make_client() {
    const auto wanted = ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP |
                        ZON_CAPABILITY_ENABLE_ICMP | ZON_CAPABILITY_ENABLE_IPV6INIP |
                        ZON_CAPABILITY_ENABLE_TEREDO | ZON_CAPABILITY_ENABLE_CLIENT_BYPASS;
    return zon_client_feature_register(&run.client) == zon_error_none &&
           zon_client_register_delete_cb(run.client, tell_end) == zon_error_none &&
           zon_client_enable_engine_capability(run.client, wanted) == zon_error_none;
}

bool make_stage(stage begins) {
    run = {};
    if (zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE) != zon_error_none)
        return false;
    zon_config_set_huge_pages(false);
    zon_config_set_half_open_share(begins == stage::half_open ? 10 : 0);
    if (begins == stage::empty)
        return true;
    if (make_small_engine(begins == stage::tight_table ? 1 : 0) != zon_error_none)
        return false;
    const bool with_timers = begins == stage::timers || begins == stage::half_open;
    if (with_timers && !zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                          &g_zon->zon_timer_process_create))
        return false;
    return make_client();
}

packet_set::packet_set() {
    const auto from4 = packet_builder::ipv4("10.0.0.1", "10.0.0.2");
    const auto from6 = packet_builder::ipv6("2001:db8::1", "2001:db8::2");
    const auto large = [](packet_builder packet) { return packet.udp(7, 8).payload(64).build(); };
    udp4 = packet_builder(from4).udp(1000, 53).payload(10).build();
    udp4_reply = packet_builder(from4).udp(1000, 53).payload(10).reversed().build();
    udp6 = packet_builder(from6).udp(1000, 53).payload(10).build();
    syn4 = packet_builder(from4).tcp(1000, 80).flags(zon_test::tcp_syn).build();
    syn6 = packet_builder(from6).tcp(1000, 80).flags(zon_test::tcp_syn).build();
    icmp4 = packet_builder(from4).icmp().payload(8).build();
    teredo = zon_test::in_teredo("192.0.2.1", "192.0.2.2", udp6);
    in_ip = zon_test::in_ipv4("192.0.2.1", "192.0.2.2", udp6);
    const auto pieces4 = zon_test::fragments_of(large(from4), 40);
    const auto pieces6 = zon_test::fragments_of(large(from6), 40);
    first4 = pieces4.front();
    last4 = pieces4.back();
    first6 = pieces6.front();
    last6 = pieces6.back();
    announced4 = packet_builder(from4).udp(2000, 3000).build();
    announced6 = packet_builder(from6).udp(2000, 3000).build();
}

packet_set& packets() {
    static packet_set all;
    return all;
}

zon_error_t hand_in(bytes& packet, zon_fid_t* fid) {
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_none;
    const zon_fid_t flow = zon_handle_captured_packet(
        packet.data(), static_cast<uint32_t>(packet.size()), 0, nullptr, &seen, &error);
    if (fid != nullptr)
        *fid = flow;
    if (flow != ZON_NULL_FID)
        return zon_error_none;
    return error != zon_error_none ? error : answered_false;
}

bool are_all_flows(bool done) {
    const bool is_another = run.other != ZON_NULL_FID && run.other != run.flow;
    const uint32_t given = (run.flow != ZON_NULL_FID ? 1U : 0U) + (is_another ? 1U : 0U);
    return zon_test::flows_in_use() == given && (given != 0 || !done);
}

bool is_known(zon_flow_tuple_type_t type, zon_flow_tuple_t tuple) {
    zon_fid_t found = ZON_NULL_FID;
    zon_lock_t lock = nullptr;
    const zon_error_t result = zon_flow_find_and_lock(type, &tuple, &found, &lock);
    if (result == zon_error_none)
        zon_flow_unlock(lock);
    return result == zon_error_none && found != ZON_NULL_FID;
}

bool object_is(zon_fid_t flow, zon_client_id_e client, zon_flow_direction_e side,
               const void* wanted) {
    void* found = nullptr;
    const zon_error_t result = zon_flow_get_fo(flow, client, side, &found);
    return wanted != nullptr ? result == zon_error_none && found == wanted
                             : result == zon_error_feature_object_not_attached;
}

static zon_flow_tuple_t tuple(zon_ip_addr_e family, uint16_t from_port, uint16_t to_port) {
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = tuple.dst_ip.addr_type = family;
    tuple.src_port = from_port;
    tuple.dst_port = to_port;
    tuple.l4_protocol = ZON_UDP_PROT;
    return tuple;
}

zon_flow_tuple_t tuple4(uint16_t from_port, uint16_t to_port) {
    zon_flow_tuple_t result = tuple(ZON_IP_ADDR_IPV4, from_port, to_port);
    result.src_ip.u.v4_addr = 0x0a000001;
    result.dst_ip.u.v4_addr = 0x0a000002;
    return result;
}

zon_flow_tuple_t tuple6(uint16_t from_port, uint16_t to_port) {
    zon_flow_tuple_t result = tuple(ZON_IP_ADDR_IPV6, from_port, to_port);
    const uint32_t from[4] = {0x20010db8, 0, 0, 1};
    const uint32_t to[4] = {0x20010db8, 0, 0, 2};
    memcpy(result.src_ip.u.v6_addr, from, sizeof from);
    memcpy(result.dst_ip.u.v6_addr, to, sizeof to);
    return result;
}

}  // namespace zon_faults

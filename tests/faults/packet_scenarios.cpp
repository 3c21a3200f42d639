// packet_scenarios.cpp - packets make flows, by every entry and of every kind; the packet kit.

#include "scenario.h"
#include "support/flow_reader.h"
#include "zon_engine/zon_half_open.h"

namespace zon_faults {
namespace {

using zon_test::bytes;

constexpr refusals no_memory = {zon_error_memory};
// What came of the outer packet is told, and an inner or later one may be told of by a plain 0.
constexpr refusals no_memory_inside = {zon_error_memory, answered_false,
                                       zon_error_non_first_ip_fragment};

template <bytes packet_set::*packet>
zon_error_t take() {
    return hand_in(packets().*packet, &run.flow);
}

template <bytes packet_set::*first, bytes packet_set::*last>
zon_error_t take_both() {
    const zon_error_t result = hand_in(packets().*first, &run.flow);
    return first_of({result, hand_in(packets().*last, &run.other)});
}

zon_error_t trust_a_packet() {
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_none;
    run.flow = zon_handle_packet(packets().udp4.data(), 0, nullptr, &seen, &error);
    return error;
}

zon_error_t synchronise() {
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_none;
    bytes& packet = packets().udp4;
    run.flow = zon_sync_packet(packet.data(), 0, nullptr, &seen, &error, run.flow,
                               ZON_L4_UNI_ESTABLISHED, 40);
    if (run.flow == ZON_NULL_FID)
        return error != zon_error_none ? error : answered_false;
    run.flow =
        zon_sync_captured_packet(packet.data(), static_cast<uint32_t>(packet.size()), 0, nullptr,
                                 &seen, &error, run.flow, ZON_L4_UNI_ESTABLISHED, 50);
    return run.flow != ZON_NULL_FID ? zon_error_none : error;
}

zon_error_t classify_by_key() {
    zon_dp_fe_t fe{};
    zon_fe_extract_fields(packets().udp4.data(), &fe);
    zon_ipv4_half_flow_t scratch{};
    scratch.key = {ZON_IPV4_KEY_COMPLETE, ZON_UDP_PROT, 0, 0, 0, 0x0a000001, 1000, 0x0a000002, 53};
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_none;
    run.flow = zon_engine(reinterpret_cast<zon_half_flow_t*>(&scratch), &fe, nullptr, &seen, &error,
                          ZON_TUNNEL_TYPE_NONE, &g_zon->params.capability_counter, ZON_NULL_FID,
                          ZON_L4_CLOSED, 0);
    return error;
}

// Ports in network order stand at byte 20 of the packet.
zon_error_t make(uint8_t wanted) {
    bytes& packet = packets().announced4;
    const uint8_t original = packet[20];
    zon_error_t result = zon_error_none;
    for (uint8_t flow = 0; flow < wanted && result == zon_error_none; ++flow) {
        packet[20] = flow;
        result = hand_in(packet);
        run.count += result == zon_error_none ? 1 : 0;
    }
    packet[20] = original;
    return result;
}
zon_error_t make_many() {
    return make(12);
}
bool are_all_made(bool) {
    return zon_test::flows_in_use() == run.count;
}

void fill_the_share() {
    run.record_is_asked_twice = true;
    make(4);
}
// One of the four goes as soon as there is another, whatever becomes of that one.
bool has_made_room(bool done) {
    const uint32_t there = zon_test::flows_in_use();
    return run.count == 4 && run.end_calls >= 1 &&
           there + run.end_calls == run.count + (done ? 1 : 0) && zon_half_open.bound == 4 &&
           zon_half_open.count == there;
}

void announce() {
    hand_in(packets().udp4, &run.flow);
    const zon_flow_tuple_t tuples[] = {tuple4(2000, 3000), tuple6(2000, 3000)};
    for (const zon_flow_tuple_t& tuple : tuples)
        zon_pre_flow_add(complete, &tuple, run.flow, &run.other, nullptr);
}

// Its parent and the other announcement stay, and it was there before.
bool is_the_announced_one(bool done) {
    zon_fid_t parent = ZON_NULL_FID;
    const bool is_child =
        run.flow != ZON_NULL_FID && zon_flow_get_parent(run.flow, &parent) == zon_error_none;
    return zon_test::flows_in_use() == 3 && is_child == done;
}

uint32_t a6[4] = {0x20010db8, 0, 0, 1};
uint32_t b6[4] = {0x20010db8, 0, 0, 2};

template <typename handler>
zon_error_t outcome_of(handler handle) {
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_none;
    run.flow = handle(&seen, &error);
    run.key_was_refused = seen.l3_protocol == 0;
    return error;
}

zon_error_t kit_tcp4() {
    return outcome_of([](auto* seen, auto* error) {
        return zon_test_handle_tcp_packet_fields(1, 2, 3, 4, 0, 1, 0, true, false, false, false, 0,
                                                 nullptr, seen, error);
    });
}
zon_error_t kit_udp4() {
    return outcome_of([](auto* seen, auto* error) {
        return zon_test_handle_packet_fields(1, 2, 3, 4, ZON_UDP_PROT, 0, 30, nullptr, seen, error);
    });
}
zon_error_t kit_tcp6() {
    return outcome_of([](auto* seen, auto* error) {
        return zon_test_handle_ipv6_tcp_packet_fields(a6, b6, 3, 4, 0, 1, 0, true, false, false,
                                                      false, 0, nullptr, seen, error);
    });
}
zon_error_t kit_udp6() {
    return outcome_of([](auto* seen, auto* error) {
        return zon_test_handle_ipv6_packet_fields(a6, b6, 3, 4, ZON_UDP_PROT, 0, 30, nullptr, seen,
                                                  error);
    });
}

// A builder without memory leaves the handle as it was.
template <typename builder>
zon_error_t built_by(builder build) {
    zon_dp_fe_t fe{};
    build(&fe);
    const bool built = fe.network_start != nullptr;
    if (built)
        zon_fe_test_cleanup(&fe);
    return as_error(built);
}

zon_error_t build_all() {
    zon_error_t result = built_by([](zon_fe_handle fe) {
        zon_fe_test_fill_tcp_packet_fields(1, 2, 3, 4, 5, 6, true, true, false, false, 0, fe);
    });
    result = first_of({result, built_by([](zon_fe_handle fe) {
                           zon_fe_test_fill_packet_fields(1, 2, 3, 4, ZON_UDP_PROT, 20, fe);
                       })});
    result = first_of({result, built_by([](zon_fe_handle fe) {
                           zon_fe_test_fill_ipv6_tcp_packet_fields(a6, b6, 3, 4, 5, 6, false, false,
                                                                   true, false, 0, fe);
                       })});
    return first_of({result, built_by([](zon_fe_handle fe) {
                         zon_fe_test_fill_ipv6_packet_fields(a6, b6, 3, 4, ZON_UDP_PROT, 20, fe);
                     })});
}

using p = packet_set;
constexpr refusals refused = {answered_false};

// The second and the third packet of the burst are of the flow that the first one makes.
zon_error_t take_burst() {
    std::array<zon_pkt_indications_t, 4> seen{};
    std::array<zon_burst_packet_t, 4> burst{};
    bytes* const taken[] = {&packets().udp4, &packets().udp4_reply, &packets().udp4,
                            &packets().syn6};
    for (size_t i = 0; i < burst.size(); ++i) {
        burst[i].iphdr = taken[i]->data();
        burst[i].captured_length = static_cast<uint32_t>(taken[i]->size());
        burst[i].pkt_indications = &seen[i];
    }
    zon_handle_packet_burst(burst.data(), static_cast<uint32_t>(burst.size()));
    run.flow = burst[0].fid != 0 ? burst[0].fid : burst[1].fid != 0 ? burst[1].fid : burst[2].fid;
    run.other = burst[3].fid;
    return first_of({burst[0].error, burst[1].error, burst[2].error, burst[3].error});
}

constexpr scenario rows[] = {
    {"udp_over_ipv4", stage::timers, nullptr, take<&p::udp4>, no_memory, are_all_flows},
    {"udp_over_ipv6", stage::timers, nullptr, take<&p::udp6>, no_memory, are_all_flows},
    {"tcp_over_ipv4", stage::timers, nullptr, take<&p::syn4>, no_memory, are_all_flows},
    {"tcp_over_ipv6", stage::timers, nullptr, take<&p::syn6>, no_memory, are_all_flows},
    {"packet_without_a_flow",
     stage::timers,
     nullptr,
     [] { return as_error(hand_in(packets().icmp4) == answered_false); },
     {}},
    {"both_directions", stage::timers, nullptr, take_both<&p::udp4, &p::udp4_reply>, no_memory,
     are_all_flows},
    {"fragments_over_ipv4", stage::timers, nullptr, take_both<&p::first4, &p::last4>,
     no_memory_inside, are_all_flows},
    {"fragments_over_ipv6", stage::timers, nullptr, take_both<&p::first6, &p::last6>,
     no_memory_inside, are_all_flows},
    {"ipv6_in_ipv4", stage::timers, nullptr, take<&p::in_ip>, no_memory_inside, are_all_flows},
    {"teredo", stage::timers, nullptr, take<&p::teredo>, no_memory_inside, are_all_flows},
    {"burst", stage::timers, nullptr, take_burst, no_memory, are_all_flows},
    {"trusted_packet", stage::engine, nullptr, trust_a_packet, no_memory, are_all_flows},
    {"synchronised_packets", stage::engine, nullptr, synchronise, no_memory, are_all_flows},
    {"classification_by_key", stage::engine, nullptr, classify_by_key, no_memory, are_all_flows},
    {"many_flows", stage::timers, nullptr, make_many, no_memory, are_all_made},
    {"half_open_flow_makes_room", stage::half_open, fill_the_share, take<&p::udp4>, no_memory,
     has_made_room},
    {"announced_over_ipv4",
     stage::timers,
     announce,
     take<&p::announced4>,
     {},
     is_the_announced_one},
    {"announced_over_ipv6",
     stage::timers,
     announce,
     take<&p::announced6>,
     {},
     is_the_announced_one},
    {"kit_tcp_over_ipv4", stage::engine, nullptr, kit_tcp4, no_memory, are_all_flows},
    {"kit_udp_over_ipv4", stage::engine, nullptr, kit_udp4, no_memory, are_all_flows},
    {"kit_tcp_over_ipv6", stage::engine, nullptr, kit_tcp6, no_memory, are_all_flows},
    {"kit_udp_over_ipv6", stage::engine, nullptr, kit_udp6, no_memory, are_all_flows},
    {"kit_builders", stage::engine, nullptr, build_all, refused},
};

}  // namespace

std::span<const scenario> packet_scenarios() {
    return rows;
}

}  // namespace zon_faults

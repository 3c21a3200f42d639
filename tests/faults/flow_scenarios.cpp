// flow_scenarios.cpp - flows are found, marked, announced, asked, re-keyed and deleted.

#include <algorithm>

#include "scenario.h"
#include "support/flow_reader.h"

namespace zon_faults {
namespace {

constexpr refusals no_memory = {zon_error_memory};
constexpr zon_flow_direction_e sides[] = {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER, ZON_DIR_BI};

void make_flows() {
    hand_in(packets().udp4, &run.flow);
    hand_in(packets().udp6, &run.other);
}

zon_error_t find_and_let_go() {
    const zon_flow_tuple_t tuple = tuple4(1000, 53);
    zon_flow_tuple_t probe = tuple;
    zon_fid_t found = 0;
    zon_lock_t lock = nullptr;
    int bucket = -1;
    zon_error_t result = zon_flow_find_and_lock(complete, &tuple, &found, &lock);
    result = first_of({result, zon_flow_unlock(lock)});
    return first_of(
        {result, as_error(found == run.flow && zon_flow_lookup_tamonet(&probe, &bucket) == 1)});
}

// Another client has an object of its own at every side.
void make_flows_with_objects() {
    make_flows();
    zon_client_feature_register(&run.neighbour);
    for (const zon_flow_direction_e side : sides)
        zon_flow_attach_fo(run.flow, run.neighbour, side, &run.neighbours_object);
}

template <zon_flow_direction_e side>
zon_error_t attach() {
    return zon_flow_attach_fo(run.flow, run.client, side, &run.object);
}
bool neighbours_objects_are_there() {
    return std::ranges::all_of(sides, [](zon_flow_direction_e side) {
        return object_is(run.flow, run.neighbour, side, &run.neighbours_object);
    });
}
// A direction's list is cut by an object that is attached, but never by one that is not.
template <zon_flow_direction_e side>
bool is_attached(bool done) {
    return object_is(run.flow, run.client, side, done ? &run.object : nullptr) &&
           (done || neighbours_objects_are_there());
}

zon_error_t attach_everywhere() {
    for (const zon_fid_t flow : {run.flow, run.other})
        for (const zon_flow_direction_e side : sides) {
            if (const zon_error_t result = zon_flow_attach_fo(flow, run.client, side, &run.object);
                result != zon_error_none)
                return result;
            ++run.count;
        }
    return zon_error_none;
}
bool are_attached(bool) {
    uint32_t expected = run.count;
    for (const zon_fid_t flow : {run.flow, run.other})
        for (const zon_flow_direction_e side : sides) {
            const bool attached = expected > 0;
            if (!object_is(flow, run.client, side, attached ? &run.object : nullptr))
                return false;
            expected -= attached ? 1 : 0;
        }
    return expected == 0;
}

void make_marked_flows() {
    make_flows();
    attach_everywhere();
}

zon_error_t read_and_detach() {
    void* found = nullptr;
    zon_flow_t snapshot;
    zon_ipv4_key_t key = {
        ZON_IPV4_KEY_COMPLETE, ZON_UDP_PROT, 0, 0, 0, 0x0a000001, 1000, 0x0a000002, 53};
    zon_error_t result = zon_flow_get_fo(run.flow, run.client, ZON_DIR_BI, &found);
    result = first_of(
        {result, zon_flow_get_fo_by_fid(run.flow, run.client, ZON_DIR_BI, &found, &snapshot)});
    zon_unlock_flow_tamonet(&snapshot);
    result = first_of(
        {result, zon_flow_get_fo_by_flow_key(&key, run.client, ZON_DIR_BI, &found, &snapshot)});
    zon_unlock_flow_tamonet(&snapshot);
    for (const zon_flow_direction_e side : sides)
        result = first_of({result, zon_flow_detach_fo(run.flow, run.client, side, &found)});
    return first_of({result, as_error(found == &run.object)});
}

zon_error_t attach_by_tuple() {
    const zon_flow_tuple_t tuple = tuple4(1000, 53);
    return zon_uni_flow_attach_fo(run.client, complete, &tuple, &run.object);
}

bool is_attached_by_tuple(bool done) {
    zon_flow_tuple_t tuple = tuple4(1000, 53);
    void* found = nullptr;
    const zon_error_t result = zon_uni_flow_get_fo(run.client, complete, &tuple, &found);
    return done ? result == zon_error_none && found == &run.object
                : result == zon_error_feature_object_not_attached;
}

void make_flow_marked_by_tuple() {
    make_flows();
    attach_by_tuple();
}

zon_error_t read_and_detach_by_tuple() {
    zon_flow_tuple_t tuple = tuple4(1000, 53);
    void* found = nullptr;
    const zon_error_t result = zon_uni_flow_get_fo(run.client, complete, &tuple, &found);
    return first_of({result, zon_uni_flow_detach_fo(run.client, complete, &tuple, &found)});
}

zon_error_t announce_one(zon_flow_tuple_type_t type, zon_flow_tuple_t tuple, zon_fid_t parent) {
    zon_fid_t announced = 0;
    zon_lock_t lock = nullptr;
    const zon_error_t result = zon_pre_flow_add(type, &tuple, parent, &announced, &lock);
    if (result == zon_error_none) {
        zon_flow_unlock(lock);
        ++run.count;
    }
    return result;
}

// Those that were announced, beside the flows that were there.
bool are_announced(zon_flow_tuple_type_t type, const zon_flow_tuple_t& tuple, bool done) {
    const uint32_t before = (run.flow != 0 ? 1 : 0) + (run.other != 0 ? 1 : 0);
    return is_known(type, tuple) == done && zon_test::flows_in_use() == before + run.count;
}
bool is_announced4(bool done) {
    return are_announced(complete, tuple4(2000, 3000), done);
}
bool is_announced6(bool done) {
    return are_announced(complete, tuple6(2000, 3000), done);
}

zon_error_t announce4() {
    return announce_one(complete, tuple4(2000, 3000), run.flow);
}
zon_error_t announce6() {
    return announce_one(complete, tuple6(2000, 3000), run.other);
}
zon_error_t announce_orphan() {
    return announce_one(complete, tuple4(2000, 3000), 0);
}

struct half_known {
    zon_flow_tuple_type_t type;
    zon_flow_tuple_t tuple;
};
std::array<half_known, 6> half_known_tuples() {
    constexpr auto from = ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN;
    constexpr auto to = ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN;
    constexpr auto any_vrf = ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN;
    return {{{from, tuple4(2001, 3000)},
             {from, tuple6(2001, 3000)},
             {to, tuple4(2002, 3000)},
             {to, tuple6(2002, 3000)},
             {any_vrf, tuple4(2003, 3000)},
             {any_vrf, tuple6(2003, 3000)}}};
}
zon_error_t announce_partly() {
    for (const auto& [type, tuple] : half_known_tuples())
        if (const zon_error_t result = announce_one(type, tuple, run.flow);
            result != zon_error_none)
            return result;
    return zon_error_none;
}
bool are_partly_announced(bool) {
    uint32_t announced = 0;
    for (const auto& [type, tuple] : half_known_tuples())
        if (!are_announced(type, tuple, announced++ < run.count))
            return false;
    return true;
}

void make_announcement() {
    make_flows();
    announce4();
}

zon_error_t take_announcement_back() {
    const zon_flow_tuple_t tuple = tuple4(2000, 3000);
    return zon_pre_flow_delete_using_flow_tuple(complete, &tuple);
}

bool note_child(const zon_flow_ptr_t child) {
    run.other = child;
    ++run.count;
    return true;
}

// Three announced children, two of them seen.
void make_family() {
    constexpr uint16_t first_port = 2000;
    hand_in(packets().udp4, &run.flow);
    for (uint16_t port = first_port; port < first_port + 3; ++port)
        announce_one(complete, tuple4(port, 3000), run.flow);
    zon_test::bytes packet = packets().announced4;
    for (uint16_t port = first_port; port < first_port + 2; ++port) {
        zon_test::put16(packet, 20, port);
        hand_in(packet);
    }
    run.count = 0;
}

zon_error_t walk_children() {
    zon_fid_t parent = 0;
    const zon_error_t result = zon_flow_traverse_child_flows(run.flow, note_child);
    return first_of({result, first_of({zon_flow_get_parent(run.other, &parent),
                                       as_error(parent == run.flow)})});
}

bool were_walked(bool) {
    return run.count == 2;
}

zon_error_t delete_flow() {
    return as_error(zon_delete_flow_tamonet(run.flow, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST) &&
                    run.end_calls >= 1);
}

zon_error_t ask_flow() {
    zon_l4_flow_state_e state = ZON_L4_ENUM_END;
    uint32_t number = 0;
    uint16_t window = 0;
    zon_flow_tuple_t tuple;
    zon_error_t result = zon_flow_get_l4_state(run.flow, &state);
    result = first_of({result, zon_flow_set_l4_state(run.flow, ZON_L4_CLOSING)});
    result = first_of({result, zon_flow_get_packet_count(run.flow, &number)});
    result = first_of({result, zon_flow_set_application_id(run.flow, 80)});
    result = first_of({result, zon_flow_get_application_id(run.flow, &number)});
    result = first_of({result, zon_flow_set_dpi_bypass_id(run.flow, 9)});
    result = first_of({result, zon_flow_get_tuple(run.flow, ZON_DIR_INITIATOR, &tuple)});
    result = first_of({result, zon_flow_set_aging(run.flow, 60)});
    result = first_of({result, zon_flow_get_aging(run.flow, &number)});
    const zon_error_t unknown =
        zon_flow_get_next_tcp_seq_nbr(run.flow, ZON_DIR_INITIATOR, &number, &window);
    return first_of({result, as_error(unknown == zon_error_invalid_next_seq_number)});
}

zon_error_t move_flows() {
    const zon_flow_tuple_t here4 = tuple4(2000, 53), there4 = tuple4(3000, 53);
    const zon_flow_tuple_t here6 = tuple6(2000, 53), there6 = tuple6(3000, 53);
    zon_error_t result = zon_flow_update_initiator(run.flow, &here4);
    result = first_of({result, zon_flow_update_responder(run.flow, &there4)});
    result = first_of({result, zon_flow_update_initiator(run.other, &here6)});
    return first_of({result, zon_flow_update_responder(run.other, &there6)});
}

zon_error_t move_to_vrf() {
    const zon_flow_tuple_t tuple = tuple4(1000, 53);
    zon_fid_t found = 0;
    zon_lock_t lock = nullptr;
    const zon_error_t result = zon_flow_find_and_lock(complete, &tuple, &found, &lock);
    if (result != zon_error_none)
        return result;
    zon_flow_update_vrf(found, 8);
    return first_of({zon_flow_unlock(lock), zon_flow_unlock(lock)});
}

using move_operation = zon_error_t (*)(zon_fid_t, const zon_flow_tuple_t*);
using tuple_of_ports = zon_flow_tuple_t (*)(uint16_t, uint16_t);

// Tries keys until the flow's side has one, or there is no memory for it.
zon_error_t find_a_place(move_operation move, tuple_of_ports tuple_of) {
    zon_error_t result = zon_error_flow_creation_prevented;
    for (uint16_t port = 1; port < 100 && result == zon_error_flow_creation_prevented; ++port) {
        const zon_flow_tuple_t tuple = tuple_of(port, 77);
        result = move(run.flow, &tuple);
        run.count = port;
    }
    return result;
}

// A bucket holds one half flow: a key of a full one is refused and takes the side away.
template <move_operation move, tuple_of_ports tuple_of>
void lose_a_side() {
    hand_in(tuple_of == tuple4 ? packets().udp4 : packets().udp6, &run.flow);
    for (uint16_t port = 1000; port < 1200; ++port) {
        const zon_flow_tuple_t tuple = tuple_of(port, 78);
        if (move(run.flow, &tuple) == zon_error_flow_creation_prevented)
            return;
    }
}

template <move_operation move, tuple_of_ports tuple_of>
zon_error_t win_it_back() {
    return find_a_place(move, tuple_of);
}
template <tuple_of_ports tuple_of>
bool is_back(bool done) {
    return is_known(complete, tuple_of(static_cast<uint16_t>(run.count), 77)) == done;
}

constexpr scenario rows[] = {
    {"flow_is_found", stage::engine, make_flows, find_and_let_go, {}},
    {"object_of_the_flow", stage::engine, make_flows_with_objects, attach<ZON_DIR_BI>, no_memory,
     is_attached<ZON_DIR_BI>},
    {"object_of_the_initiator", stage::engine, make_flows_with_objects, attach<ZON_DIR_INITIATOR>,
     no_memory, is_attached<ZON_DIR_INITIATOR>},
    {"object_of_the_responder", stage::engine, make_flows_with_objects, attach<ZON_DIR_RESPONDER>,
     no_memory, is_attached<ZON_DIR_RESPONDER>},
    {"objects_everywhere", stage::engine, make_flows, attach_everywhere, no_memory, are_attached},
    {"objects_are_read_and_detached", stage::engine, make_marked_flows, read_and_detach, {}},
    {"object_by_tuple", stage::engine, make_flows, attach_by_tuple, no_memory,
     is_attached_by_tuple},
    {"object_by_tuple_is_read_and_detached",
     stage::engine,
     make_flow_marked_by_tuple,
     read_and_detach_by_tuple,
     {}},
    {"announcement_over_ipv4", stage::timers, make_flows, announce4, no_memory, is_announced4},
    {"announcement_over_ipv6", stage::timers, make_flows, announce6, no_memory, is_announced6},
    {"announcement_without_parent", stage::timers, nullptr, announce_orphan, no_memory,
     is_announced4},
    {"announcements_of_half_known_flows", stage::timers, make_flows, announce_partly, no_memory,
     are_partly_announced},
    {"announcement_is_taken_back", stage::timers, make_announcement, take_announcement_back, {}},
    {"children_are_walked", stage::timers, make_family, walk_children, no_memory, were_walked},
    {"parent_is_deleted", stage::timers, make_family, delete_flow, {}},
    {"marked_flow_is_deleted", stage::timers, make_marked_flows, delete_flow, {}},
    {"flow_is_asked_and_told", stage::timers, make_flows, ask_flow, {}},
    {"flows_are_moved", stage::timers, make_flows, move_flows, {}},
    {"flow_is_moved_to_another_vrf", stage::timers, make_flows, move_to_vrf, {}},
    {"initiator_is_won_back_over_ipv4", stage::tight_table,
     lose_a_side<zon_flow_update_initiator, tuple4>, win_it_back<zon_flow_update_initiator, tuple4>,
     no_memory, is_back<tuple4>},
    {"responder_is_won_back_over_ipv4", stage::tight_table,
     lose_a_side<zon_flow_update_responder, tuple4>, win_it_back<zon_flow_update_responder, tuple4>,
     no_memory, is_back<tuple4>},
    {"initiator_is_won_back_over_ipv6", stage::tight_table,
     lose_a_side<zon_flow_update_initiator, tuple6>, win_it_back<zon_flow_update_initiator, tuple6>,
     no_memory, is_back<tuple6>},
    {"responder_is_won_back_over_ipv6", stage::tight_table,
     lose_a_side<zon_flow_update_responder, tuple6>, win_it_back<zon_flow_update_responder, tuple6>,
     no_memory, is_back<tuple6>},
};

}  // namespace

std::span<const scenario> flow_scenarios() {
    return rows;
}

}  // namespace zon_faults

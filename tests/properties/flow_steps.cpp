// flow_steps.cpp - what clients do with flows: announce, find, change, re-key, walk, delete.

#include "properties/side_by_side.h"

namespace zon_test {

void side_by_side::run_flow_step(const operation& step) {
    const uint32_t fid = step[field::fid];
    switch (step.kind) {
    case op::announce:
        announce(step);
        break;
    case op::withdraw:
        withdraw(step);
        break;
    case op::find:
        find(step);
        break;
    case op::probe:
        probe(step);
        break;
    case op::remove:
        remove(fid, step[field::value] % 5);
        break;
    case op::rekey:
    case op::rekey_mirrored:
        rekey(step);
        break;
    case op::move_vrf:
        move_vrf(step);
        break;
    case op::set_defaults:
        set_defaults(step);
        break;
    case op::sequence_number:
        sequence_number(step);
        break;
    case op::parent: {
        zon_fid_t parent = engine_capacity;
        const uint32_t expected = model_.flow(fid) != nullptr ? model_.parent_of(fid) : 0;
        expect_error("parent's error", zon_flow_get_parent(fid, &parent),
                     model_.flow(fid) == nullptr ? zon_error_flow_not_found
                     : expected == 0             ? zon_error_parent_fid_not_found
                                                 : zon_error_none);
        expect("parent", parent, expected);
        break;
    }
    case op::children:
        children(step);
        break;
    case op::remove_client:
        remove_client_objects(step);
        break;
    default:
        set_field(step);
    }
}

// ---- by tuple ----

void side_by_side::announce(const operation& step) {
    const connection_tuple announced = tuple_of(step);
    const zon_flow_tuple_t tuple = to_client(announced);
    const bool keeps_lock = step[field::extra] % 2 != 0;
    zon_fid_t fid = engine_capacity;
    zon_lock_t lock = nullptr;
    const zon_error_t error = zon_pre_flow_add(type_of(step), &tuple, step[field::fid], &fid,
                                               keeps_lock ? &lock : nullptr);
    const uint32_t expected = model_.announce(known_of(step), announced, step[field::fid]);
    expect("announced flow", fid, expected);
    expect_error("error of the announcement", error,
                 expected == 0 ? zon_error_memory : zon_error_none);
    expect("lock of the announced flow", lock != nullptr, keeps_lock && expected != 0);
    if (lock != nullptr)
        expect_error("unlock", zon_flow_unlock(lock), 0);
}

// An ordinary flow of the tuple is left alone and left locked.
void side_by_side::withdraw(const operation& step) {
    const zon_flow_tuple_t tuple = to_client(tuple_of(step));
    const engine_model::half_of_flow found = model_.find_by_tuple(known_of(step), tuple_of(step));
    const bool is_ordinary =
        found.flow != nullptr && found.flow->sides[found.side].part == known::everything;
    const zon_error_t error = zon_pre_flow_delete_using_flow_tuple(type_of(step), &tuple);
    expect_error("withdrawal", error,
                 found.flow == nullptr || is_ordinary ? zon_error_flow_not_found : zon_error_none);
    if (is_ordinary) {
        zon_fid_t fid = 0;
        zon_lock_t lock = nullptr;
        expect_error("find and lock", zon_flow_find_and_lock(type_of(step), &tuple, &fid, &lock),
                     0);
        zon_flow_unlock(lock);
        zon_flow_unlock(lock);
    } else if (found.flow != nullptr) {
        model_.remove(found.flow->fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    }
}

void side_by_side::find(const operation& step) {
    zon_flow_tuple_t tuple = to_client(tuple_of(step));
    zon_fid_t fid = engine_capacity;
    zon_lock_t lock = nullptr;
    switch (step[field::extra]) {
    case 255:
        expect_error("unknown type",
                     zon_flow_find_and_lock(static_cast<zon_flow_tuple_type_t>(4), nullptr, nullptr,
                                            nullptr),
                     zon_error_invalid_tuple_type);
        return;
    case 254:
        expect_error("no tuple", zon_flow_find_and_lock(type_of(step), nullptr, nullptr, nullptr),
                     zon_error_flow_tuple_is_null);
        return;
    case 253:
        tuple.src_ip.addr_type = zon_ip_addr_e{};
        expect_error("unknown family", zon_flow_find_and_lock(type_of(step), &tuple, &fid, &lock),
                     zon_error_flow_not_found);
        expect("flow of no family", fid, 0);
        return;
    default:
        break;
    }
    const flow_of_model* expected = model_.find_by_tuple(known_of(step), tuple_of(step)).flow;
    expect_error("find and lock", zon_flow_find_and_lock(type_of(step), &tuple, &fid, &lock),
                 expected == nullptr ? zon_error_flow_not_found : zon_error_none);
    expect("flow found", fid, expected == nullptr ? 0 : expected->fid);
    expect_error("unlock", zon_flow_unlock(lock),
                 expected == nullptr ? zon_error_parameter_is_null : zon_error_none);
}

// Of IPv4 and of VRF 0 alone.
void side_by_side::probe(const operation& step) {
    zon_flow_tuple_t tuple = to_client(tuple_of(step));
    int bucket = -1;
    const int found = zon_flow_lookup_tamonet(&tuple, &bucket);
    const flow_of_model* expected =
        model_.find(known::everything, tuple_of(step).in_any_vrf()).flow;
    expect("probe", found, expected != nullptr && !tuple_of(step).source.ipv6);
    expect("bucket of the probe", bucket >= 0, true);
}

// ---- re-keying ----

void side_by_side::rekey_side(uint32_t fid, size_t side, const connection_tuple& tuple) {
    const zon_flow_tuple_t key = to_client(tuple);
    flow_of_model* of = model_.flow(fid);
    const zon_error_t error = side == initiator_side ? zon_flow_update_initiator(fid, &key)
                                                     : zon_flow_update_responder(fid, &key);
    expect_error("re-keying", error, of == nullptr ? zon_error_flow_not_found : zon_error_none);
    if (of == nullptr)
        return;
    model_.rekey(*of, side, tuple);
    was_rekeyed_[fid] = true;
}

void side_by_side::rekey(const operation& step) {
    const uint32_t fid = step[field::fid];
    const flow_of_model* of = model_.flow(fid);
    const connection_tuple tuple = of != nullptr ? tuple_in_family_of(*of, step) : tuple_of(step);
    if (step.kind == op::rekey_mirrored) {
        rekey_side(fid, initiator_side, tuple);
        rekey_side(fid, responder_side, tuple.reversed());
    } else if (step[field::dir] % 2 == 0) {
        rekey_side(fid, initiator_side, tuple);
    } else {
        rekey_side(fid, responder_side, tuple.reversed());
    }
}

// A level of the flow's lock stays with the caller.
void side_by_side::move_vrf(const operation& step) {
    const uint32_t fid = step[field::fid];
    expect("move to another VRF", zon_flow_update_vrf(fid, step[field::vrf]), 0);
    flow_of_model* of = model_.flow(fid);
    if (of == nullptr)
        return;
    zon_flow_t locked = snapshot_of(fid);
    zon_unlock_flow_tamonet(&locked);
    model_.move_vrf(*of, step[field::vrf]);
}

// ---- single fields ----

void side_by_side::set_field(const operation& step) {
    const uint32_t fid = step[field::fid];
    const uint32_t value = step[field::value];
    flow_of_model* of = model_.flow(fid);
    zon_error_t error = zon_error_end;
    switch (step.kind) {
    case op::set_aging:
        error = zon_flow_set_aging(fid, value % 16);
        if (of != nullptr)
            model_.set_idle_seconds(*of, value % 16);
        break;
    case op::set_state:
        error = zon_flow_set_l4_state(fid, static_cast<zon_l4_flow_state_e>(value % 8));
        if (value % 8 == 7) {
            expect_error("unknown state", error, zon_error_l4_state_invalid);
            return;
        }
        if (of != nullptr)
            of->session.state = static_cast<session_model::session>(value % 8);
        break;
    case op::set_application:
        error = zon_flow_set_application_id(fid, value);
        if (of != nullptr)
            of->application = value;
        break;
    default:
        error = zon_flow_set_dpi_bypass_id(fid, value);
        if (of != nullptr)
            of->bypass = value;
        break;
    }
    expect_error(name_of(step.kind), error,
                 of == nullptr ? zon_error_flow_not_found : zon_error_none);
}

void side_by_side::set_defaults(const operation& step) {
    if (step[field::type] == 3) {
        // Counted modulo 256.
        const uint32_t threshold = step[field::value] % 4;
        zon_set_open_flow_after_pkts(threshold + (step[field::extra] % 2 == 0 ? 0U : 256U));
        model_.udp_threshold = static_cast<uint8_t>(threshold);
        return;
    }
    constexpr uint8_t protocols[] = {17, 6, 1};
    const uint8_t protocol = protocols[step[field::type]];
    const uint8_t state = step[field::extra] % 8;
    const uint32_t ms = (step[field::value] + 1U) * 50;
    const bool accepted = protocol != 1 && state != 7;
    expect("default idle time",
           zon_set_default_aging(protocol, static_cast<zon_l4_flow_state_e>(state), ms), accepted);
    if (!accepted)
        return;
    engine_model::idle_times& times = model_.defaults;
    if (protocol == 17)
        (state < 2 ? times.udp_opening : times.udp_established) = ms;
    else
        (state < 2   ? times.tcp_opening
         : state < 6 ? times.tcp_established
                     : times.tcp_closing) = ms;
}

// The numbers are the tracker's; the answer agrees with the flow's own record.
void side_by_side::sequence_number(const operation& step) {
    const uint32_t fid = step[field::fid];
    const auto dir = static_cast<zon_flow_direction_e>(step[field::dir]);
    uint32_t next = 1;
    uint16_t window = 1;
    const zon_error_t error = zon_flow_get_next_tcp_seq_nbr(fid, dir, &next, &window);
    if (dir == ZON_DIR_BI) {
        expect_error("no side", error, zon_error_direction_parameter_is_invalid);
        return;
    }
    if (model_.flow(fid) == nullptr) {
        expect_error("no flow", error, zon_error_flow_not_found);
        return;
    }
    const zon_l4_state_t l4 = snapshot_of(fid).l4state;
    const zon_tcp_state_info& side = dir == ZON_DIR_INITIATOR ? l4.i_info : l4.r_info;
    const bool is_known = side.valid_next_seq_number == ZON_TCP_NEXT_SEQ_VALID;
    expect_error("next sequence number", error,
                 is_known ? zon_error_none : zon_error_invalid_next_seq_number);
    expect("sequence number", next, is_known ? side.sndnxt : 1);
    expect("window", window, is_known ? side.rcvwnd : 1);
}

// ---- families and the end ----

void side_by_side::children(const operation& step) {
    const uint32_t fid = step[field::fid];
    visited_by_engine().clear();
    const zon_error_t error = zon_flow_traverse_child_flows(fid, note_visit);
    const bool is_there = model_.flow(fid) != nullptr;
    expect_error("walk of the children", error,
                 is_there ? zon_error_none : zon_error_parent_fid_not_found);
    const std::vector<uint32_t> expected =
        is_there ? model_.children_of(fid) : std::vector<uint32_t>{};
    const auto text = [](const std::vector<uint32_t>& all) {
        std::string list;
        for (const uint32_t one : all)
            list += ' ' + std::to_string(one);
        return list;
    };
    expect("children", text(visited_by_engine()), text(expected));
    reached.family_walks += expected.size() > 1 ? 1U : 0;
}

void side_by_side::remove(uint32_t fid, uint8_t reason) {
    const bool deleted =
        zon_delete_flow_tamonet(fid, static_cast<zon_flow_deletion_reason_e>(reason));
    expect("deleted", deleted, model_.remove(fid, reason));
}

}  // namespace zon_test

// group_scenarios.cpp - flows join groups, with and without the memory for it.

#include "scenario.h"

namespace zon_faults {
namespace {

constexpr refusals no_memory = {zon_error_memory};
constexpr auto type = ZON_SUPER_CONTEXT_IDENTITY;
constexpr auto other_type = static_cast<zon_super_context_types_e>(2);
constexpr uint32_t group = 42;

bool group_of(void*, uint32_t* value) {
    *value = group;
    return true;
}

bool count_member(zon_flow_ptr_t) {
    ++run.count;
    return true;
}
void ignore_end(uint32_t, zon_super_context_types_e, void**) {
    ++run.end_calls;
}

void group_flows() {
    zon_super_context_client_register(type, group_of);
    zon_super_context_client_register(other_type, group_of);
    zon_super_context_register_delete_cb(run.client, ignore_end);
}

void make_group() {
    group_flows();
    hand_in(packets().udp4, &run.flow);
    hand_in(packets().udp6, &run.other);
}

// A flow is made whether there is memory for its groups or not.
zon_error_t join() {
    return hand_in(packets().udp4, &run.flow);
}
zon_error_t join_a_group_that_is_there() {
    return hand_in(packets().syn4, &run.flow);
}

zon_error_t register_functions() {
    zon_error_t result = zon_super_context_client_register(type, group_of);
    result = first_of({result, zon_super_context_register_delete_cb(run.client, ignore_end)});
    result = first_of({result, zon_super_context_client_unregister(type)});
    return first_of({result, zon_super_context_unregister_delete_cb(run.client)});
}

zon_error_t use_group() {
    void* found = nullptr;
    uint32_t value = 0;
    zon_error_t result = zon_super_context_attach_fo(run.flow, type, run.client, &run.object);
    result = first_of({result, zon_super_context_get_fo(run.other, type, run.client, &found)});
    result = first_of({result, zon_super_context_get_sctxt_handle(run.flow, type, &value)});
    return first_of({result, as_error(found == &run.object && value == group)});
}

template <zon_super_context_types_e of_type>
bool note_stranger(zon_flow_ptr_t flow) {
    uint32_t value = 0;
    const bool is_member =
        zon_super_context_get_sctxt_handle(flow, of_type, &value) == zon_error_none;
    run.count += is_member && value == group ? 0 : 1;
    return true;
}
// Without memory the walk of a group may miss a member. It never finds a flow that was refused, or
// that is in no group.
bool has_no_stranger(bool done) {
    zon_super_context_traverse_flows(type, group, note_stranger<type>);
    zon_super_context_traverse_flows(other_type, group, note_stranger<other_type>);
    return run.count == 0 && (run.flow != ZON_NULL_FID) == done;
}

zon_error_t walk_group() {
    return zon_super_context_traverse_flows(type, group, count_member);
}
bool were_walked(bool done) {
    return run.count == (done ? 2U : 0U);
}

zon_error_t end_group() {
    zon_super_context_attach_fo(run.flow, type, run.client, &run.object);
    for (const zon_fid_t flow : {run.flow, run.other})
        zon_delete_flow_tamonet(flow, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    // Two flows and the group's object.
    return as_error(run.end_calls == 3);
}

constexpr scenario rows[] = {
    {"functions_of_groups_are_registered", stage::engine, nullptr, register_functions, {}},
    {"flow_joins_new_groups", stage::timers, group_flows, join, no_memory, has_no_stranger},
    {"flow_joins_groups_that_are_there", stage::timers, make_group, join_a_group_that_is_there,
     no_memory, has_no_stranger},
    {"group_is_used", stage::engine, make_group, use_group, {}},
    {"group_is_walked", stage::engine, make_group, walk_group, no_memory, were_walked},
    {"group_ends", stage::timers, make_group, end_group, {}},
};

}  // namespace

std::span<const scenario> group_scenarios() {
    return rows;
}

}  // namespace zon_faults

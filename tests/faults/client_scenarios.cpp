// client_scenarios.cpp - clients come and go, with their callbacks, capabilities and objects.

#include "scenario.h"

namespace zon_faults {
namespace {

constexpr refusals no_memory = {zon_error_memory};

bool allow(void*, zon_client_id_e) {
    return true;
}
void mark(uint32_t, bool, bool, bool, uint32_t* bypass_id) {
    *bypass_id = 5;
}

zon_error_t register_one() {
    zon_client_id_e id = 0;
    const zon_error_t result = zon_client_feature_register(&id);
    run.count += result == zon_error_none ? 1 : 0;
    return result;
}

// How many more clients there is an id for.
int places_left() {
    std::array<zon_client_id_e, 40> ids{};
    size_t taken = 0;
    while (zon_client_feature_register(&ids.at(taken)) == zon_error_none)
        ++taken;
    for (size_t i = 0; i < taken; ++i)
        zon_client_feature_unregister(ids.at(i));
    return static_cast<int>(taken);
}

constexpr int places_beside_the_first = 30;
bool are_registered(bool) {
    return places_left() + static_cast<int>(run.count) == places_beside_the_first;
}
bool has_given_its_place_back(bool done) {
    return places_left() == places_beside_the_first + (done ? 1 : 0);
}

zon_error_t register_all() {
    for (int place = 2; place <= 31; ++place)
        if (const zon_error_t result = register_one(); result != zon_error_none)
            return result;
    return zon_error_none;
}

// The id was never handed out: the callback brings its own entry, or silently none.
zon_error_t adopt_an_id() {
    return zon_client_register_delete_cb(7, tell_end);
}

zon_error_t change_callbacks() {
    zon_error_t result = zon_client_register_pre_flow_create_cb(run.client, allow);
    result = first_of({result, zon_client_register_bypass_cb(run.client, mark)});
    result = first_of({result, zon_client_unregister_pre_flow_create_cb(run.client)});
    result = first_of({result, zon_client_unregister_bypass_cb(run.client)});
    result = first_of({result, zon_client_unregister_delete_cb(run.client)});
    return first_of({result, zon_client_unregister_delete_cb(3)});
}

zon_error_t change_capabilities() {
    bool enabled = true;
    zon_error_t result =
        zon_client_disable_engine_capability(run.client, ZON_CAPABILITY_ENABLE_UDP);
    result = first_of({result, zon_engine_get_capability(ZON_CAPABILITY_ENABLE_UDP, &enabled)});
    result = first_of({result, as_error(!enabled)});
    return first_of(
        {result, zon_client_enable_engine_capability(run.client, ZON_CAPABILITY_ENABLE_UDP)});
}

void make_a_marked_flow() {
    hand_in(packets().udp4, &run.flow);
    for (const zon_flow_direction_e dir : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER, ZON_DIR_BI})
        zon_flow_attach_fo(run.flow, run.client, dir, &run.object);
}

zon_error_t collect_objects() {
    return first_of({zon_unreg_client_fo(run.client), as_error(run.end_calls == 1)});
}

zon_error_t ask_clients() {
    zon_error_t result = zon_client_register_pre_flow_create_cb(run.client, allow);
    result = first_of({result, zon_client_register_bypass_cb(run.client, mark)});
    return first_of({result, hand_in(packets().syn4, &run.flow)});
}

constexpr scenario rows[] = {
    {"client_is_registered", stage::engine, nullptr, register_one, no_memory, are_registered},
    {"all_clients_are_registered", stage::engine, nullptr, register_all, no_memory, are_registered},
    {"client_is_unregistered", stage::engine, nullptr,
     [] { return zon_client_feature_unregister(run.client); }, no_memory, has_given_its_place_back},
    {"callback_of_an_unknown_id", stage::engine, nullptr, adopt_an_id, {}},
    {"callbacks_are_changed", stage::engine, nullptr, change_callbacks, {}},
    {"capabilities_are_changed", stage::engine, nullptr, change_capabilities, {}},
    {"objects_are_collected", stage::engine, make_a_marked_flow, collect_objects, {}},
    {"clients_are_asked", stage::engine, nullptr, ask_clients, no_memory, are_all_flows},
};

}  // namespace

std::span<const scenario> client_scenarios() {
    return rows;
}

}  // namespace zon_faults

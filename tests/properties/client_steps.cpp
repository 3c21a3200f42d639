// client_steps.cpp - clients come and go, hang objects on flows and super contexts, and choose what
// the engine does for them.

#include "properties/side_by_side.h"

namespace zon_test {

namespace {

// The checks that operations on feature objects share, in their order.
zon_error_t checked(uint32_t client, uint32_t dir, bool has_pointer) {
    if (client < 1 || client > 31)
        return zon_error_client_id_invalid;
    if (dir > ZON_DIR_RESPONDER)
        return zon_error_direction_parameter_is_invalid;
    return has_pointer ? zon_error_none : zon_error_parameter_is_null;
}

// One value stands for no object at all.
uint64_t object_number(const operation& step) {
    return step[field::value] == 255 ? 0 : step[field::value] + 1U;
}

}  // namespace

// ---- feature objects ----

void side_by_side::run_object_step(const operation& step) {
    switch (step.kind) {
    case op::attach:
        attach(step);
        break;
    case op::get:
    case op::get_by_fid:
    case op::detach:
        get_or_detach(step);
        break;
    case op::get_by_key:
        get_by_key(step);
        break;
    default:
        uni(step);
    }
}

void side_by_side::attach(const operation& step) {
    const uint32_t client = client_of(step);
    const uint8_t dir = step[field::dir];
    const uint64_t object = object_number(step);
    flow_of_model* of = model_.flow(step[field::fid]);
    zon_error_t expected = checked(client, dir, object != 0);
    if (expected == zon_error_none && of == nullptr)
        expected = zon_error_flow_not_found;
    expect_error("attach",
                 zon_flow_attach_fo(step[field::fid], client,
                                    static_cast<zon_flow_direction_e>(dir), object_of(object)),
                 expected);
    if (expected == zon_error_none)
        of->objects.attach(dir, client, object);
}

void side_by_side::get_or_detach(const operation& step) {
    const uint32_t fid = step[field::fid];
    const uint32_t client = client_of(step);
    const auto dir = static_cast<zon_flow_direction_e>(step[field::dir]);
    flow_of_model* of = model_.flow(fid);
    zon_error_t expected = checked(client, step[field::dir], true);
    uint64_t object = 0;
    if (expected == zon_error_none) {
        if (of == nullptr)
            expected = zon_error_flow_not_found;
        else
            object = step.kind == op::detach ? of->objects.detach(step[field::dir], client)
                                             : of->objects.find(step[field::dir], client);
        if (of != nullptr && object == 0)
            expected = zon_error_feature_object_not_attached;
    }
    void* got = nullptr;
    zon_flow_t copy{};
    switch (step.kind) {
    case op::get:
        expect_error("get", zon_flow_get_fo(fid, client, dir, &got), expected);
        break;
    case op::detach:
        expect_error("detach", zon_flow_detach_fo(fid, client, dir, &got), expected);
        break;
    default:
        expect_error("get with snapshot", zon_flow_get_fo_by_fid(fid, client, dir, &got, &copy),
                     expected);
        if (expected != zon_error_none)
            break;
        zon_flow_report_t report{};
        expect("report of a snapshot", zon_debug_flow_populate_report(&copy, &report, nullptr),
               true);
        zon_unlock_flow_tamonet(&copy);
        expect_report(report, *of);
    }
    expect("object", got, object_of(object));
}

// The key is taken as it is: a tuple that was announced whole is not found.
void side_by_side::get_by_key(const operation& step) {
    const connection_tuple tuple = tuple_of(step);
    const uint32_t client = client_of(step);
    const side_key wanted = {known_of(step), tuple, 0};
    zon_report_key_t key{};
    const auto fill = [&](auto& of_family) {
        of_family.key_type = wanted.type();
        of_family.l4_protocol = tuple.protocol;
        of_family.vrf_id = tuple.vrf_id;
        of_family.src_port = tuple.source.port;
        of_family.dst_port = tuple.destination.port;
        std::copy_n(tuple.source.ip.data(), sizeof of_family.src_ip / sizeof(uint32_t),
                    reinterpret_cast<uint32_t*>(&of_family.src_ip));
        std::copy_n(tuple.destination.ip.data(), sizeof of_family.dst_ip / sizeof(uint32_t),
                    reinterpret_cast<uint32_t*>(&of_family.dst_ip));
    };
    if (tuple.source.ipv6)
        fill(key.ipv6);
    else
        fill(key.ipv4);
    const flow_of_model* of = model_.find(wanted.part, tuple).flow;
    zon_error_t expected = checked(client, step[field::dir], true);
    uint64_t object = 0;
    if (expected == zon_error_none) {
        object = of != nullptr ? of->objects.find(step[field::dir], client) : 0;
        if (object == 0)
            expected =
                of == nullptr ? zon_error_flow_not_found : zon_error_feature_object_not_attached;
    }
    void* got = nullptr;
    zon_flow_t copy{};
    expect_error(
        "get by key",
        zon_flow_get_fo_by_flow_key(
            &key, client, static_cast<zon_flow_direction_e>(step[field::dir]), &got, &copy),
        expected);
    if (expected == zon_error_none) {
        zon_unlock_flow_tamonet(&copy);
        expect("flow of the key", copy.fid, of->fid);
    }
    expect("object", got, object_of(object));
}

void side_by_side::uni(const operation& step) {
    zon_flow_tuple_t tuple = to_client(tuple_of(step));
    const uint32_t client = client_of(step);
    const bool attaches = step.kind == op::attach_uni;
    const uint64_t attached = attaches ? object_number(step) : 1;
    zon_error_t expected = checked(client, 0, attached != 0);
    if (expected == zon_error_none && attaches &&
        !model_.clients.has(client_model::told_deletions, client))
        expected = zon_error_client_delete_cb_not_registered;
    const engine_model::half_of_flow found = model_.find_by_tuple(known_of(step), tuple_of(step));
    if (expected == zon_error_none && found.flow == nullptr)
        expected = zon_error_flow_not_found;
    const size_t list = found.side + 1;
    if (attaches) {
        expect_error("attach by tuple",
                     zon_uni_flow_attach_fo(client, type_of(step), &tuple, object_of(attached)),
                     expected);
        if (expected == zon_error_none)
            found.flow->objects.attach_to_side(list, client, attached);
        return;
    }
    uint64_t object = 0;
    if (expected == zon_error_none) {
        object = step.kind == op::get_uni ? found.flow->objects.find(list, client)
                                          : found.flow->objects.detach(list, client);
        if (object == 0)
            expected = zon_error_feature_object_not_attached;
    }
    void* got = nullptr;
    expect_error(name_of(step.kind),
                 step.kind == op::get_uni
                     ? zon_uni_flow_get_fo(client, type_of(step), &tuple, &got)
                     : zon_uni_flow_detach_fo(client, type_of(step), &tuple, &got),
                 expected);
    expect("object", got, object_of(object));
}

// ---- clients ----

void side_by_side::run_client_step(const operation& step) {
    switch (step.kind) {
    case op::register_client: {
        zon_client_id_e id = 99;
        const std::optional<uint32_t> expected = model_.clients.add();
        expect_error("registration", zon_client_feature_register(&id),
                     expected ? zon_error_none : zon_error_memory);
        expect("new client", id, expected.value_or(99));
        break;
    }
    case op::unregister_client:
        if (client_of(step) == observer)
            return;
        expect_error("unregistration", zon_client_feature_unregister(client_of(step)), 0);
        model_.clients.drop(client_of(step));
        break;
    case op::delete_callback:
    case op::create_callback:
    case op::bypass_callback:
        callback(step);
        break;
    case op::enable:
    case op::disable:
    case op::capability:
        capability(step);
        break;
    case op::context_lookup:
    case op::context_delete_callback:
        context_callback(step);
        break;
    case op::context_walk:
        context_walk(step);
        break;
    default:
        context_object(step);
    }
}

void side_by_side::remove_client_objects(const operation& step) {
    const uint32_t client = client_of(step);
    zon_error_t expected = zon_error_none;
    if (client > 31)
        expected = zon_error_client_id_invalid;
    else if (!model_.clients.has(client_model::told_deletions, client))
        expected = zon_error_client_delete_cb_not_registered;
    expect_error("objects taken off", zon_unreg_client_fo(client), expected);
    if (expected == zon_error_none)
        model_.remove_client_objects(client);
}

void side_by_side::callback(const operation& step) {
    const uint32_t client = client_of(step);
    const bool clears = step[field::extra] % 4 == 3;
    if (client == observer && step.kind == op::delete_callback)
        return;
    client_model& clients = model_.clients;
    switch (step.kind) {
    case op::delete_callback:
        if (clears)
            expect_error("delete callback off", zon_client_unregister_delete_cb(client),
                         clients.clear(client_model::told_deletions, client));
        else
            expect_error("delete callback", zon_client_register_delete_cb(client, note_deletion),
                         clients.set(client_model::told_deletions, client));
        break;
    case op::create_callback:
        if (clears)
            expect_error("pre-create callback off",
                         zon_client_unregister_pre_flow_create_cb(client),
                         clients.clear(client_model::asked_creation, client));
        else
            expect_error("pre-create callback",
                         zon_client_register_pre_flow_create_cb(client, may_create),
                         clients.set(client_model::asked_creation, client));
        break;
    default:
        if (clears)
            expect_error("bypass callback off", zon_client_unregister_bypass_cb(client),
                         clients.clear(client_model::rewrites_bypass, client));
        else
            expect_error("bypass callback", zon_client_register_bypass_cb(client, rewrite_bypass),
                         clients.set(client_model::rewrites_bypass, client));
    }
}

void side_by_side::capability(const operation& step) {
    const uint32_t client = client_of(step);
    const uint32_t value = step[field::value];
    if (step.kind == op::capability) {
        const auto asked = static_cast<zon_capability_e>(value);
        const bool can_be_asked =
            value < ZON_CAPABILITY_ENABLE_CLIENT_BYPASS && value != 0 && (value & (value - 1)) == 0;
        bool in_force = false;
        expect_error("capability", zon_engine_get_capability(asked, &in_force),
                     can_be_asked ? zon_error_none : zon_error_engine_capability_invalid);
        expect("capability in force", in_force, can_be_asked && model_.clients.in_force(asked));
        return;
    }
    // Mostly one at a time; sometimes several, all, or more than there are.
    const uint32_t bits = value < 200 ? 1U << value % 7 : value == 200 ? 127U : value;
    const auto capabilities = static_cast<zon_capability_e>(bits);
    if (step.kind == op::enable)
        expect_error("enable", zon_client_enable_engine_capability(client, capabilities),
                     model_.clients.enable(client, bits));
    else
        expect_error("disable", zon_client_disable_engine_capability(client, capabilities),
                     model_.clients.disable(client, bits));
}

// ---- super contexts ----

void side_by_side::context_callback(const operation& step) {
    const bool clears = step[field::extra] % 4 == 3;
    if (step.kind == op::context_lookup) {
        const uint8_t type = step[field::type];
        const auto engine_type = static_cast<zon_super_context_types_e>(type);
        if (clears)
            expect_error("lookup off", zon_super_context_client_unregister(engine_type), 0);
        else
            expect_error("lookup",
                         zon_super_context_client_register(engine_type, context_lookups[type]), 0);
        model_.contexts.has_lookup[type] = !clears;
        return;
    }
    const uint32_t client = client_of(step);
    const zon_error_t expected = client > 31 ? zon_error_client_id_invalid : zon_error_none;
    if (clears)
        expect_error("context callback off", zon_super_context_unregister_delete_cb(client),
                     expected);
    else
        expect_error("context callback",
                     zon_super_context_register_delete_cb(client, note_context_gone), expected);
    if (expected == zon_error_none)
        model_.contexts.tells_client[client] = !clears;
}

void side_by_side::context_object(const operation& step) {
    const uint32_t fid = step[field::fid];
    const uint32_t client = client_of(step);
    const auto type = static_cast<zon_super_context_types_e>(step[field::type]);
    const flow_of_model* of = model_.flow(fid);
    const std::optional<uint32_t> value =
        of != nullptr ? of->contexts[step[field::type]] : std::nullopt;
    const auto expected_with = [&](bool client_matters, zon_error_t missing) {
        return fid == 0                        ? zon_error_parameter_is_null
               : client_matters && client > 31 ? zon_error_client_id_invalid
               : of == nullptr                 ? zon_error_flow_not_found
               : !value                        ? missing
                                               : zon_error_none;
    };
    if (step.kind == op::context_handle) {
        uint32_t handle = 99;
        expect_error("handle", zon_super_context_get_sctxt_handle(fid, type, &handle),
                     expected_with(false, zon_error_sctx_unmapped));
        expect("handle", handle, fid == 0 ? 99U : value.value_or(0));
        return;
    }
    const zon_error_t expected = expected_with(true, zon_error_feature_object_not_attached);
    const bool is_there = expected == zon_error_none;
    uint64_t* slot =
        is_there ? &model_.contexts.find(step[field::type], *value)->objects[client] : nullptr;
    if (step.kind == op::context_attach) {
        const uint64_t object = step[field::value] + 1U;
        expect_error("attach to context",
                     zon_super_context_attach_fo(fid, type, client, object_of(object)), expected);
        if (is_there)
            *slot = object;
        return;
    }
    void* got = nullptr;
    expect_error("get from context", zon_super_context_get_fo(fid, type, client, &got), expected);
    expect("object of context", got, object_of(is_there ? *slot : 0));
}

void side_by_side::context_walk(const operation& step) {
    const uint32_t handle = step[field::value] % 4;
    const context_model::context* walked = model_.contexts.find(step[field::type], handle);
    visited_by_engine().clear();
    expect_error("walk of the members",
                 zon_super_context_traverse_flows(
                     static_cast<zon_super_context_types_e>(step[field::type]), handle, note_visit),
                 handle == 0         ? zon_error_sctx_type_invalid
                 : walked == nullptr ? zon_error_parameter_is_null
                                     : zon_error_none);
    const std::vector<uint32_t> expected =
        handle != 0 && walked != nullptr ? walked->members : std::vector<uint32_t>{};
    expect("members are the model's", visited_by_engine() == expected, true);
}

}  // namespace zon_test

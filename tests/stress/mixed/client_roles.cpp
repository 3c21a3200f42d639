// client_roles.cpp - threads of clients: lookups, queries and setters, feature objects, groups,
// clients that come and go.

#include "stress/mixed/actor.h"

namespace zon_test {
namespace {

const round_cast* the_cast;  // callbacks have no data of their own

// ---- what the clients are called for ----

void take_back(void* initiator_fo, void* responder_fo, void* flow_fo) {
    // A direction's list may end in the list of the whole flow: one object in several places.
    if (flow_fo != nullptr)
        static_cast<hung_object*>(flow_fo)->come_back();
    if (initiator_fo != nullptr && initiator_fo != flow_fo)
        static_cast<hung_object*>(initiator_fo)->come_back();
    if (responder_fo != nullptr && responder_fo != flow_fo && responder_fo != initiator_fo)
        static_cast<hung_object*>(responder_fo)->come_back();
}

template <size_t client>
void flow_goes(zon_flow_ptr_t fid, void* initiator_fo, void* responder_fo, void* flow_fo,
               zon_flow_deletion_reason_e reason, zon_client_id_e cid) {
    EXPECT_EQ(cid, the_cast->clients[client]);
    take_back(initiator_fo, responder_fo, flow_fo);
    if (reason != ZON_FLOW_CLOSE_REASON_CLIENT_UNREGISTERED)
        the_cast->book->note_told(client, fid, reason);
}

bool allow_unless_forbidden(void* context, zon_client_id_e) {
    return !static_cast<const packet_note*>(context)->is_forbidden;
}

// The flow keeps what it has been through in its bypass identifier, which this client alone writes.
void note_in_flow(uint32_t, bool fif, bool was_promoted, bool, uint32_t* bypass_id) {
    constexpr uint32_t began = 1;
    constexpr uint32_t promoted = 2;
    if (fif) {
        EXPECT_EQ(*bypass_id & began, 0U) << "two first packets of one flow";
        *bypass_id |= began;
    }
    if (was_promoted) {
        EXPECT_EQ(*bypass_id & promoted, 0U) << "one child promoted twice";
        *bypass_id |= promoted;
    }
}

int group_objects[group_count + 1];

constexpr auto identity = ZON_SUPER_CONTEXT_IDENTITY;
constexpr auto by_group = static_cast<zon_super_context_types_e>(1);
constexpr auto sometimes = static_cast<zon_super_context_types_e>(2);

bool group_of_packet(void* context, uint32_t* group) {
    *group = static_cast<const packet_note*>(context)->group;
    return true;
}

void group_goes(uint32_t context, zon_super_context_types_e type, void** fo) {
    EXPECT_EQ(type, by_group);
    EXPECT_EQ(static_cast<void*>(fo), &group_objects[context]);
    the_cast->book->did(feat::group_object_back);
}

bool look_at_member(zon_flow_ptr_t fid) {
    uint32_t group = 0;
    zon_super_context_get_sctxt_handle(fid, by_group, &group);
    EXPECT_LE(group, group_count);
    return true;
}

// ---- queries ----

void look_around(const actor& by, zon_fid_t fid) {
    by.self.doing("query a flow");
    zon_l4_flow_state_e state = ZON_L4_CLOSED;
    uint32_t count = 0;
    uint32_t sequence = 0;
    uint32_t idle_sec = 0;
    uint16_t window = 0;
    zon_flow_get_l4_state(fid, &state);
    EXPECT_LT(state, ZON_L4_ENUM_END);
    zon_flow_get_packet_count(fid, &count);
    zon_flow_get_next_tcp_seq_nbr(fid, ZON_DIR_INITIATOR, &sequence, &window);
    zon_flow_get_aging(fid, &idle_sec);
    zon_flow_get_application_id(fid, &count);
    zon_fid_t parent = 0;
    zon_flow_get_parent(fid, &parent);
}

// What is true of a flow while this thread keeps it locked.
void question_locked(const actor& by) {
    const connection which = by.any_of(by.one_in(2) ? kind::plain : kind::forbidden);
    while_locked(by, which, by.one_in(2), [&](zon_fid_t fid) {
        by.self.doing("look for the other direction");
        zon_flow_tuple_t tuple = tuple_of(which, by.one_in(2));
        zon_fid_t other = 0;
        zon_lock_t lock = nullptr;
        EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &other, &lock),
                  zon_error_none);
        EXPECT_EQ(other, fid) << "two flows of one connection";
        if (lock != nullptr) {
            EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
        }
        if (!which.is_ipv6())
            zon_flow_lookup_tamonet(&tuple, nullptr);
        zon_flow_tuple_t sides[2] = {};
        EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_INITIATOR, &sides[0]), zon_error_none);
        EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_RESPONDER, &sides[1]), zon_error_none);
        EXPECT_EQ(sides[0].src_port, sides[1].dst_port);
        EXPECT_EQ(zon_flow_set_application_id(fid, which.number), zon_error_none);
        std::this_thread::yield();
        uint32_t app_id = 0;
        EXPECT_EQ(zon_flow_get_application_id(fid, &app_id), zon_error_none);
        EXPECT_EQ(app_id, which.number) << "somebody else wrote to a locked flow";
    });
}

void set_something(const actor& by) {
    const zon_fid_t fid = by.self.below(by.cast.settings.max_flows + 1);
    for (const zon_fid_t parent : by.cast.parents)
        if (fid == parent)
            return;
    if (by.one_in(2)) {
        by.self.doing("set a state");
        const auto state = static_cast<zon_l4_flow_state_e>(by.self.below(ZON_L4_ENUM_END));
        if (zon_flow_set_l4_state(fid, state) == zon_error_none)
            by.book().did(feat::state_set);
        return;
    }
    by.self.doing("set an idle time");
    if (zon_flow_set_aging(fid, by.self.below(3)) == zon_error_none)
        by.book().did(feat::idle_time_set);
}

// ---- objects ----

using side = zon_flow_direction_e;

// Objects of a direction are one client's, unless some may be lost.
zon_client_id_e client_for(const actor& by, side where) {
    const bool any = where == ZON_DIR_BI || by.cast.settings.loose;
    return by.cast.clients[any ? by.self.below(2) : 0];
}

// Hangs an object of a steady client where it has none, takes it off where it has one.
void hang_or_take_off(const actor& by, zon_fid_t fid) {
    const side where = static_cast<side>(by.self.below(3));
    const zon_client_id_e client = client_for(by, where);
    void* found = nullptr;
    by.self.doing("look for an object");
    if (zon_flow_get_fo(fid, client, where, &found) == zon_error_none) {
        void* taken = nullptr;
        by.self.doing("take an object off");
        EXPECT_EQ(zon_flow_detach_fo(fid, client, where, &taken), zon_error_none);
        EXPECT_EQ(taken, found) << "somebody else changed a locked flow";
        static_cast<hung_object*>(taken)->come_back();
        by.book().did(feat::object_taken_off);
        return;
    }
    hung_object* object = by.book().new_object();
    object->hang();
    by.self.doing("hang an object");
    EXPECT_EQ(zon_flow_attach_fo(fid, client, where, object), zon_error_none);
    by.book().did(feat::object_hung);
    zon_flow_t copy;
    found = nullptr;
    by.self.doing("copy a flow");
    EXPECT_EQ(zon_flow_get_fo_by_fid(fid, client, where, &found, &copy), zon_error_none);
    EXPECT_EQ(found, object);
    EXPECT_EQ(copy.fid, fid);
    zon_unlock_flow_tamonet(&copy);
    by.book().did(feat::record_copied);
}

void hang_on_one_direction(const actor& by, const connection& which, bool back) {
    const zon_client_id_e client = client_for(by, back ? ZON_DIR_RESPONDER : ZON_DIR_INITIATOR);
    zon_flow_tuple_t tuple = tuple_of(which, back);
    constexpr auto whole = ZON_FLOW_TUPLE_TYPE_COMPLETE;
    void* found = nullptr;
    by.self.doing("look for an object of one direction");
    if (zon_uni_flow_get_fo(client, whole, &tuple, &found) == zon_error_none) {
        void* taken = nullptr;
        EXPECT_EQ(zon_uni_flow_detach_fo(client, whole, &tuple, &taken), zon_error_none);
        EXPECT_EQ(taken, found);
        static_cast<hung_object*>(taken)->come_back();
        return;
    }
    hung_object* object = by.book().new_object();
    object->hang();
    by.self.doing("hang an object on one direction");
    EXPECT_EQ(zon_uni_flow_attach_fo(client, whole, &tuple, object), zon_error_none);
    by.book().did(feat::object_of_one_direction);
}

void hang_on_group(const actor& by, zon_fid_t fid) {
    uint32_t group = 0;
    by.self.doing("ask for the group of a flow");
    if (zon_super_context_get_sctxt_handle(fid, by_group, &group) != zon_error_none)
        return;
    void* found = nullptr;
    EXPECT_EQ(zon_super_context_attach_fo(fid, by_group, by.cast.clients[0], &group_objects[group]),
              zon_error_none);
    EXPECT_EQ(zon_super_context_get_fo(fid, by_group, by.cast.clients[0], &found), zon_error_none);
    EXPECT_EQ(found, &group_objects[group]);
    by.book().did(feat::group_object_hung);
}

void turn_to_groups(const actor& by) {
    by.self.doing("walk over a group");
    if (zon_super_context_traverse_flows(by_group, 1 + by.self.below(group_count),
                                         look_at_member) == zon_error_none)
        by.book().did(feat::group_walked);
    by.self.doing("change how flows are grouped");
    if (by.one_in(2))
        zon_super_context_client_register(sometimes, group_of_packet);
    else
        zon_super_context_client_unregister(sometimes);
}

// ---- a client that comes and goes ----

void guest_is_told(zon_flow_ptr_t, void* initiator_fo, void* responder_fo, void* flow_fo,
                   zon_flow_deletion_reason_e, zon_client_id_e) {
    take_back(initiator_fo, responder_fo, flow_fo);
    if (initiator_fo != nullptr || responder_fo != nullptr || flow_fo != nullptr)
        the_cast->book->did(feat::object_of_guest_back);
}
bool guest_allows(void*, zon_client_id_e) {
    return true;
}
void guest_sees(uint32_t, bool, bool, bool, uint32_t*) {}

using objects_of_guest = std::vector<hung_object*>;

objects_of_guest hang_as_guest(const actor& by, zon_client_id_e guest) {
    objects_of_guest hung;
    for (uint32_t i = 0; i < 4; ++i)
        while_locked(by, by.any_of(kind::plain), false, [&](zon_fid_t fid) {
            const side where =
                by.cast.settings.loose ? static_cast<side>(by.self.below(3)) : ZON_DIR_BI;
            void* found = nullptr;
            // A second one would take the place of the first.
            if (zon_flow_get_fo(fid, guest, where, &found) == zon_error_none)
                return;
            hung.push_back(by.book().new_object());
            hung.back()->hang();
            EXPECT_EQ(zon_flow_attach_fo(fid, guest, where, hung.back()), zon_error_none);
        });
    return hung;
}

// Whichever thread deleted their flows.
void expect_none_is_out(const objects_of_guest& hung) {
    for (const hung_object* object : hung)
        EXPECT_FALSE(object->is_out()) << "a client has gone, and an object of it has not";
}

void come_and_go(const actor& by) {
    constexpr auto capabilities = static_cast<zon_capability_e>(
        ZON_CAPABILITY_ENABLE_CLIENT_BYPASS | ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS |
        ZON_CAPABILITY_ENABLE_ICMP);
    zon_client_id_e guest = 0;
    by.self.doing("register a client");
    if (zon_client_feature_register(&guest) != zon_error_none)
        return;
    EXPECT_EQ(zon_client_register_delete_cb(guest, guest_is_told), zon_error_none);
    EXPECT_EQ(zon_client_register_pre_flow_create_cb(guest, guest_allows), zon_error_none);
    EXPECT_EQ(zon_client_register_bypass_cb(guest, guest_sees), zon_error_none);
    EXPECT_EQ(zon_client_enable_engine_capability(guest, capabilities), zon_error_none);
    const objects_of_guest hung = hang_as_guest(by, guest);
    by.self.doing("unregister a client");
    EXPECT_EQ(zon_unreg_client_fo(guest), zon_error_none);
    if (!by.cast.settings.loose)
        expect_none_is_out(hung);
    EXPECT_EQ(zon_client_disable_engine_capability(guest, capabilities), zon_error_none);
    EXPECT_EQ(zon_client_unregister_delete_cb(guest), zon_error_none);
    EXPECT_EQ(zon_client_unregister_pre_flow_create_cb(guest), zon_error_none);
    EXPECT_EQ(zon_client_unregister_bypass_cb(guest), zon_error_none);
    EXPECT_EQ(zon_client_feature_unregister(guest), zon_error_none);
    by.book().did(feat::client_came_and_went);
}

template <size_t client>
void register_steady_client(round_cast& cast) {
    zon_client_id_e& id = cast.clients[client];
    ASSERT_EQ(zon_client_feature_register(&id), zon_error_none);
    ASSERT_EQ(zon_client_register_delete_cb(id, flow_goes<client>), zon_error_none);
}

}  // namespace

// Later clients are told first, so that guests come before these and client 0 is the last.
void register_steady_clients(round_cast& cast) {
    the_cast = &cast;
    register_steady_client<0>(cast);
    register_steady_client<1>(cast);
    register_steady_client<2>(cast);
    const zon_client_id_e first = cast.clients[0];
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(first, allow_unless_forbidden),
              zon_error_none);
    ASSERT_EQ(zon_client_register_bypass_cb(first, note_in_flow), zon_error_none);
    constexpr int wanted = ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP |
                           ZON_CAPABILITY_ENABLE_IPV6INIP | ZON_CAPABILITY_ENABLE_TEREDO |
                           ZON_CAPABILITY_ENABLE_CLIENT_BYPASS;
    // What a client enabled outlives a restart, although the client does not.
    if (!cast.is_restarted) {
        ASSERT_EQ(zon_client_enable_engine_capability(first, static_cast<zon_capability_e>(wanted)),
                  zon_error_none);
    }
    ASSERT_EQ(zon_super_context_client_register(by_group, group_of_packet), zon_error_none);
    ASSERT_EQ(zon_super_context_client_register(identity, group_of_packet), zon_error_none);
    ASSERT_EQ(zon_super_context_register_delete_cb(first, group_goes), zon_error_none);
}

uint32_t group_of(const connection& which) {
    return 1 + which.number % group_count;
}

void query_and_set(actor& by) {
    switch (by.self.below(4)) {
    case 0:
        question_locked(by);
        break;
    case 1:
        set_something(by);
        break;
    default:
        look_around(by, by.self.below(by.cast.settings.max_flows + 1));
    }
}

void hang_objects(actor& by) {
    if (by.one_in(64)) {
        come_and_go(by);
    } else if (by.one_in(64)) {
        by.self.doing("take a client's objects off all flows");
        EXPECT_EQ(zon_unreg_client_fo(by.cast.clients[1]), zon_error_none);
        by.book().did(feat::object_taken_off_all_flows);
    } else if (by.one_in(8)) {
        turn_to_groups(by);
    } else {
        const connection which = by.any_of(by.one_in(4) ? kind::expected : kind::plain);
        const bool back = by.one_in(2);
        while_locked(by, which, back, [&](zon_fid_t fid) {
            if (by.one_in(4))
                hang_on_group(by, fid);
            else if (by.one_in(3))
                hang_on_one_direction(by, which, back);
            else
                hang_or_take_off(by, fid);
        });
    }
}

}  // namespace zon_test

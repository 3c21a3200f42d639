// zon_check_order_announced_test.cpp - announcing, the objects of one direction of a tuple, and
// re-keying: what each operation checks first, what a refusal leaves alone, what is locked on
// return.

#include "client_operation.h"

using namespace zon_test;

namespace {

using scene = client_scene;

class every_announcing_operation : public every_operation {};
class every_object_of_one_direction : public every_operation {};
class every_re_keying : public every_operation {};

// ---- announcing ----

void clears_fid_and_lock(const scene&, call_outputs& expected) {
    expected.fid = 0;
    expected.lock = nullptr;
}
void clears_fid(const scene&, call_outputs& expected) {
    expected.fid = 0;
}

// Another family is nothing to do. What would stop the program, a parent above the capacity, is
// looked at after the family.
const check a_family_to_announce = [] {
    check of = answering(a_family, zon_error_none);
    of.mend = [](scene& s) {
        s.tuple = s.connection(1001, 2000);
        s.fid = s.flow;
    };
    return of;
}();

std::vector<check> checks_of_announcing(void (*writes)(const scene&, call_outputs&)) {
    return {
        an_engine,
        a_tuple_type,
        a_tuple,
        a_pointer,
        writing(a_family_to_announce, writes),
        {.name = "memory for both half flows",
         .refusal = zon_error_memory,
         .breaks = {[](scene& s) { s.take_half_flow_memory(0); },
                    [](scene& s) { s.take_half_flow_memory(1); }},
         .mend = [](scene& s) { s.give_half_flow_memory(); },
         .writes = writes,
         .with_engine = true},
        {.name = "a flow record",
         .refusal = zon_error_memory,
         .breaks = {[](scene& s) { s.take_flow_records(); }},
         .mend = [](scene& s) { s.give_flow_records(); },
         .writes = writes,
         .with_engine = true},
        {.name = "room in the bucket",
         .refusal = zon_error_flow_creation_prevented,
         .breaks = {[](scene& s) { s.take_room(); }},
         .mend = [](scene& s) { s.give_room(); },
         .writes = writes,
         .with_engine = true},
    };
}

int announce(scene& s, zon_lock_t* lock) {
    const zon_fid_t parent = s.fid;
    const zon_error_t error =
        zon_pre_flow_add(s.type, s.tuple_or_null(), parent, s.or_null(s.out.fid), lock);
    if (error == zon_error_none && s.out.fid != 0) {
        EXPECT_NE(s.out.fid, s.flow);
        EXPECT_EQ(record_of(s.out.fid)->bundle_parent, s.record);
        s.mean(s.out.fid);
    }
    return error;
}

void came_as_announced(scene& s) {
    EXPECT_EQ(s.flow, s.out.fid);
    EXPECT_TRUE(zon_key_is_preflow(s.record->initiator_flow->key.key_type));
    EXPECT_EQ(g_zon->flow_tbl->active_preflow_count[s.record->initiator_flow->key.key_type], 2u);
}

// The tuple of an ordinary flow: kept on purpose, the flow stays locked.
const check an_announced_flow{
    .name = "an announced flow of the connection",
    .refusal = zon_error_flow_not_found,
    .breaks = {[](scene& s) { s.tuple = s.flow_tuple; }},
    .mend =
        [](scene& s) {
            s.tuple = s.connection(1001, 2000);
            zon_fid_t made = 0;
            EXPECT_EQ(zon_pre_flow_add(s.type, &s.tuple, 0, &made, nullptr), zon_error_none);
            s.mean(made);
        },
    .levels = 1};

std::vector<operation> announcing() {
    return {
        {"pre_flow_add", [](scene& s) { return announce(s, &s.out.lock); },
         checks_of_announcing(clears_fid_and_lock), zon_error_none, 1,
         [](scene& s) {
             came_as_announced(s);
             EXPECT_EQ(s.out.lock, s.record->flow_lock);
         }},
        {"pre_flow_add_without_a_place_for_the_lock", [](scene& s) { return announce(s, nullptr); },
         checks_of_announcing(clears_fid), zon_error_none, 0, came_as_announced},
        {"pre_flow_delete_using_flow_tuple",
         [](scene& s) {
             return int{zon_pre_flow_delete_using_flow_tuple(s.type, s.tuple_or_null())};
         },
         {an_engine, a_tuple_type, a_tuple, a_family, a_connection_with_a_flow, an_announced_flow},
         zon_error_none,
         0,
         [](scene& s) {
             EXPECT_EQ(record_of(s.flow), nullptr);
             ASSERT_EQ(told.size(), 1u);
             EXPECT_EQ(told[0].fid, s.flow);
             EXPECT_EQ(told[0].reason, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
         }},
    };
}

// ---- objects of the one direction that a tuple names ----

void clears_object(const scene&, call_outputs& expected) {
    expected.fo = nullptr;
}

const check a_delete_callback{"a delete callback of the client",
                              zon_error_client_delete_cb_not_registered,
                              {[](scene& s) { s.cid = s.silent; }, [](scene& s) { s.cid = 1; }},
                              [](scene& s) { s.cid = s.own; }};

// The id of a client, which has no delete callback yet.
const check an_id_of_a_client = [] {
    check of = a_client_id;
    of.mend = [](scene& s) { s.cid = s.silent; };
    return of;
}();

const check an_attached_object{
    "an object of the client",
    zon_error_feature_object_not_attached,
    {[](scene&) {}},
    [](scene& s) {
        ASSERT_EQ(zon_uni_flow_attach_fo(s.cid, s.type, &s.tuple, &objects[1]), zon_error_none);
    },
    clears_object};

std::vector<operation> objects_of_one_direction() {
    return {
        {"uni_flow_attach_fo",
         [](scene& s) {
             return int{zon_uni_flow_attach_fo(s.cid, s.type, s.tuple_or_null(), s.fo)};
         },
         {an_engine, an_id_of_a_client, a_tuple_type, a_tuple, an_object, a_delete_callback,
          a_family, a_connection_with_a_flow, memory_for_the_object},
         zon_error_none,
         0,
         [](scene& s) {
             ASSERT_NE(s.record->initiator_flow->fo_list, nullptr);
             EXPECT_EQ(s.record->initiator_flow->fo_list->fo, &objects[1]);
         }},
        {"uni_flow_get_fo",
         [](scene& s) {
             return int{zon_uni_flow_get_fo(s.cid, s.type, s.tuple_given ? &s.tuple : nullptr,
                                            s.or_null(s.out.fo))};
         },
         {an_engine, a_client_id, a_tuple_type, a_tuple, a_pointer,
          writing(a_family, clears_object), writing(a_connection_with_a_flow, clears_object),
          an_attached_object},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.out.fo, &objects[1]); }},
        {"uni_flow_detach_fo",
         [](scene& s) {
             return int{
                 zon_uni_flow_detach_fo(s.cid, s.type, s.tuple_or_null(), s.or_null(s.out.fo))};
         },
         {an_engine, a_client_id, a_tuple_type, a_tuple, a_pointer,
          writing(a_family, clears_object), writing(a_connection_with_a_flow, clears_object),
          an_attached_object},
         zon_error_none,
         0,
         [](scene& s) {
             EXPECT_EQ(s.out.fo, &objects[1]);
             EXPECT_EQ(s.record->initiator_flow->fo_list, nullptr);
             EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr).feature_objects, 0);
         }},
    };
}

// ---- re-keying ----

// Another family changes nothing.
const check a_family_for_a_key = [] {
    check of = answering(a_family, zon_error_none);
    of.mend = [](scene& s) { s.tuple = s.connection(7000, 8000); };
    return of;
}();

template <auto side>
void without_the_side_and_memory(scene& s) {
    if (zon_half_flow_t* half = std::exchange(s.record->*side, nullptr)) {
        zon_private_remove_half_flow(half);
        zon_deallocate_half_flow(half);
    }
    s.take_half_flow_memory(0);
}

template <auto side>
std::vector<check> checks_of_re_keying() {
    return {
        an_engine,
        a_tuple,
        a_flow,
        a_family_for_a_key,
        {.name = "memory for a side that is missing",
         .refusal = zon_error_memory,
         .breaks = {without_the_side_and_memory<side>},
         .mend = [](scene& s) { s.give_half_flow_memory(); },
         .with_engine = true},
        // The side is made all the same, and given back: the flow goes on naming it.
        {.name = "room in the bucket",
         .refusal = zon_error_flow_creation_prevented,
         .breaks = {[](scene& s) { s.take_room(); }},
         .mend = [](scene& s) { s.give_room(); },
         .with_engine = true,
         .changes_content = true},
    };
}

void is_found_under_the_new_key(scene& s) {
    zon_fid_t found = 0;
    zon_lock_t lock = nullptr;
    EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &s.tuple, &found, &lock),
              zon_error_none);
    EXPECT_EQ(found, s.flow);
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
}

std::vector<operation> re_keying() {
    return {
        {"update_initiator",
         [](scene& s) { return int{zon_flow_update_initiator(s.fid, s.tuple_or_null())}; },
         checks_of_re_keying<&zon_flow_t::initiator_flow>(), zon_error_none, 0,
         is_found_under_the_new_key},
        {"update_responder",
         [](scene& s) { return int{zon_flow_update_responder(s.fid, s.tuple_or_null())}; },
         checks_of_re_keying<&zon_flow_t::responder_flow>(), zon_error_none, 0,
         is_found_under_the_new_key},
        // Answers 0 whatever happens, and leaves a level of the lock of the flow that it moved.
        {"update_vrf",
         [](scene& s) { return zon_flow_update_vrf(s.fid, 12); },
         {answering(an_engine, 0), answering(a_flow, 0)},
         0,
         1,
         [](scene& s) {
             EXPECT_EQ(s.record->initiator_flow->key.vrf_id, 12u);
             EXPECT_EQ(s.record->responder_flow->key.vrf_id, 12u);
         }},
    };
}

}  // namespace

TEST_P(every_announcing_operation, makes_its_checks_in_order_and_changes_nothing_until_they_hold) {
    walk_row();
}
TEST_P(every_object_of_one_direction,
       is_found_by_checks_in_order_and_nothing_changes_until_they_hold) {
    walk_row();
}
TEST_P(every_re_keying, makes_its_checks_in_order_and_changes_nothing_until_they_hold) {
    walk_row();
}

using ::testing::Bool;
using ::testing::Combine;
using ::testing::ValuesIn;
INSTANTIATE_TEST_SUITE_P(, every_announcing_operation,
                         Combine(ValuesIn(announcing()), Bool(), Bool()),
                         [](const auto& row) { return name_of_row(row); });
INSTANTIATE_TEST_SUITE_P(, every_object_of_one_direction,
                         Combine(ValuesIn(objects_of_one_direction()), Bool(), Bool()),
                         [](const auto& row) { return name_of_row(row); });
INSTANTIATE_TEST_SUITE_P(, every_re_keying, Combine(ValuesIn(re_keying()), Bool(), Bool()),
                         [](const auto& row) { return name_of_row(row); });

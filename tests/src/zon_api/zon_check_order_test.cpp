// zon_check_order_test.cpp - the operations on flows that exist: what each one checks first, what a
// refusal leaves alone, what is locked on return.

#include "client_operation.h"

using namespace zon_test;

namespace {

using scene = client_scene;

void clears_fid_and_lock(const scene&, call_outputs& expected) {
    expected.fid = 0;
    expected.lock = nullptr;
}
void clears_fid(const scene&, call_outputs& expected) {
    expected.fid = 0;
}
void clears_object(const scene&, call_outputs& expected) {
    expected.fo = nullptr;
}
void clears_state(const scene&, call_outputs& expected) {
    expected.state = ZON_L4_CLOSED;
}
void clears_number(const scene&, call_outputs& expected) {
    expected.number = 0;
}
// Where the object of an existing flow is missed, its record has been copied already.
void clears_object_and_copies(const scene& s, call_outputs& expected) {
    expected.fo = nullptr;
    EXPECT_EQ(s.out.snapshot.fid, s.flow);
    EXPECT_EQ(s.out.snapshot.flow_lock, s.record->flow_lock);
    std::memcpy(static_cast<void*>(&expected.snapshot), &s.out.snapshot, sizeof expected.snapshot);
}

void mean_own_object(scene& s) {
    ASSERT_EQ(zon_flow_attach_fo(s.flow, s.own, s.dir, &objects[1]), zon_error_none);
}

check an_attached_object(void (*writes)(const scene&, call_outputs&)) {
    return {"an object of the client",
            zon_error_feature_object_not_attached,
            {[](scene&) {}},
            mean_own_object,
            writes};
}

// ---- lookup ----

const check a_lock{
    "a lock", zon_error_parameter_is_null, {[](scene& s) { s.lock = nullptr; }}, [](scene& s) {
        s.make_engine();
        s.lock = s.record->flow_lock;
        zon_lock_internal(s.lock);
    }};

const check found_by_nobody{"a flow of the connection",
                            0,
                            {[](scene& s) { s.tuple = s.nobodys(); }},
                            [](scene& s) { s.tuple = s.flow_tuple; },
                            [](const scene& s, call_outputs& expected) {
                                expected.bucket = s.out.bucket;
                                EXPECT_GE(s.out.bucket, 0);
                                EXPECT_LT(s.out.bucket, g_zon->flow_tbl->table->array_size);
                            }};

std::vector<operation> lookups() {
    return {
        {"find_and_lock",
         [](scene& s) {
             return int{zon_flow_find_and_lock(s.type, s.tuple_or_null(), s.or_null(s.out.fid),
                                               &s.out.lock)};
         },
         {an_engine, a_tuple_type, a_tuple, a_pointer, writing(a_family, clears_fid_and_lock),
          writing(a_connection_with_a_flow, clears_fid_and_lock)},
         zon_error_none,
         1,
         [](scene& s) {
             EXPECT_EQ(s.out.fid, s.flow);
             EXPECT_EQ(s.out.lock, s.record->flow_lock);
         }},
        {"find_and_lock_without_a_place",
         [](scene& s) {
             return int{
                 zon_flow_find_and_lock(s.type, s.tuple_or_null(), s.or_null(s.out.fid), nullptr)};
         },
         {an_engine, a_tuple_type, a_tuple, a_pointer, writing(a_family, clears_fid),
          writing(a_connection_with_a_flow, clears_fid)},
         zon_error_none,
         1,
         [](scene& s) { EXPECT_EQ(s.out.fid, s.flow); }},
        {"unlock",
         [](scene& s) { return int{zon_flow_unlock(s.lock)}; },
         {a_lock},
         zon_error_none,
         0,
         [](scene&) {}},
    };
}

// Knows IPv4 alone.
std::vector<operation> probes() {
    return {{"lookup_tamonet",
             [](scene& s) { return zon_flow_lookup_tamonet(&s.tuple, &s.out.bucket); },
             {answering(an_engine, 0), found_by_nobody},
             1,
             0,
             [](scene& s) { EXPECT_GE(s.out.bucket, 0); }}};
}

// ---- feature objects ----

const check a_key{"a flow of the key",
                  zon_error_flow_not_found,
                  {[](scene& s) {
                      const zon_flow_tuple_t tuple = s.nobodys();
                      zon_build_key(&s.key, s.ipv6 ? ZON_IPV6_KEY_COMPLETE : ZON_IPV4_KEY_COMPLETE,
                                    &tuple);
                  }},
                  [](scene& s) {
                      zon_build_key(&s.key, s.ipv6 ? ZON_IPV6_KEY_COMPLETE : ZON_IPV4_KEY_COMPLETE,
                                    &s.flow_tuple);
                  },
                  clears_object};

void came_with_a_snapshot(scene& s) {
    EXPECT_EQ(s.out.fo, &objects[1]);
    EXPECT_EQ(s.out.snapshot.fid, s.flow);
    EXPECT_EQ(s.out.snapshot.flow_lock, s.record->flow_lock);
}

std::vector<operation> feature_object_operations() {
    return {
        {"attach_fo",
         [](scene& s) { return int{zon_flow_attach_fo(s.fid, s.cid, s.dir, s.fo)}; },
         {an_engine, a_client_id, a_direction, an_object, a_flow, memory_for_the_object},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.record->responder_flow->fo_list->fo, &objects[1]); }},
        {"get_fo",
         [](scene& s) { return int{zon_flow_get_fo(s.fid, s.cid, s.dir, s.or_null(s.out.fo))}; },
         {an_engine, a_client_id, a_direction, a_pointer, writing(a_flow, clears_object),
          an_attached_object(clears_object)},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.out.fo, &objects[1]); }},
        {"get_fo_by_fid",
         [](scene& s) {
             return int{
                 zon_flow_get_fo_by_fid(s.fid, s.cid, s.dir, s.or_null(s.out.fo), &s.out.snapshot)};
         },
         {an_engine, a_client_id, a_direction, a_pointer, writing(a_flow, clears_object),
          an_attached_object(clears_object_and_copies)},
         zon_error_none,
         1,
         came_with_a_snapshot},
        {"get_fo_by_flow_key",
         [](scene& s) {
             return int{zon_flow_get_fo_by_flow_key(&s.key, s.cid, s.dir, s.or_null(s.out.fo),
                                                    &s.out.snapshot)};
         },
         {an_engine, a_client_id, a_direction, a_pointer, a_key,
          an_attached_object(clears_object_and_copies)},
         zon_error_none,
         1,
         came_with_a_snapshot},
        {"detach_fo",
         [](scene& s) { return int{zon_flow_detach_fo(s.fid, s.cid, s.dir, s.or_null(s.out.fo))}; },
         {an_engine, a_client_id, a_direction, a_pointer, writing(a_flow, clears_object),
          an_attached_object(clears_object)},
         zon_error_none,
         0,
         [](scene& s) {
             EXPECT_EQ(s.out.fo, &objects[1]);
             EXPECT_EQ(s.record->responder_flow->fo_list, nullptr);
             EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr).feature_objects, 0);
         }},
    };
}

// ---- queries and setters ----

const check a_session_state{"a session state",
                            zon_error_l4_state_invalid,
                            {[](scene& s) { s.state = static_cast<zon_l4_flow_state_e>(-1); },
                             [](scene& s) { s.state = ZON_L4_ENUM_END; }},
                            [](scene& s) { s.state = ZON_L4_CLOSING; }};

const check one_side{"the initiator's or the responder's side",
                     zon_error_direction_parameter_is_invalid,
                     {[](scene& s) { s.dir = ZON_DIR_BI; },
                      [](scene& s) { s.dir = static_cast<zon_flow_direction_e>(3); },
                      [](scene& s) { s.dir = static_cast<zon_flow_direction_e>(-1); }},
                     [](scene& s) { s.dir = ZON_DIR_RESPONDER; }};

const check not_the_whole_flow{.name = "another direction than the whole flow",
                               .refusal = zon_error_direction_parameter_is_invalid,
                               .breaks = {[](scene& s) { s.dir = ZON_DIR_BI; }},
                               .mend = [](scene& s) { s.dir = ZON_DIR_RESPONDER; },
                               .with_engine = true};

const check a_known_sequence_number{
    "a known sequence number", zon_error_invalid_next_seq_number, {[](scene&) {}}, [](scene& s) {
        zon_tcp_state_info& side = s.record->l4state.r_info;
        side.valid_next_seq_number = ZON_TCP_NEXT_SEQ_VALID;
        side.sndnxt = 123456;
        side.rcvwnd = 0x54321;
    }};

std::vector<operation> queries() {
    return {
        {"get_l4_state",
         [](scene& s) { return int{zon_flow_get_l4_state(s.fid, s.or_null(s.out.state))}; },
         {an_engine, a_pointer, writing(a_flow, clears_state)},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.out.state, s.record->l4state.sess_state); }},
        {"set_l4_state",
         [](scene& s) { return int{zon_flow_set_l4_state(s.fid, s.state)}; },
         {an_engine, a_session_state, a_flow},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.record->l4state.sess_state, ZON_L4_CLOSING); }},
        {"get_packet_count",
         [](scene& s) { return int{zon_flow_get_packet_count(s.fid, s.or_null(s.out.number))}; },
         {an_engine, a_pointer, a_flow},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.out.number, 1u); }},
        {"get_application_id",
         [](scene& s) { return int{zon_flow_get_application_id(s.fid, s.or_null(s.out.number))}; },
         {an_engine, a_pointer, a_flow},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.out.number, 0u); }},
        {"set_application_id",
         [](scene& s) { return int{zon_flow_set_application_id(s.fid, 11)}; },
         {an_engine, a_flow},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.record->app_id, 11u); }},
        {"set_dpi_bypass_id",
         [](scene& s) { return int{zon_flow_set_dpi_bypass_id(s.fid, 12)}; },
         {an_engine, a_flow},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.record->bypass_id, 12u); }},
        {"get_tuple",
         [](scene& s) {
             return int{zon_flow_get_tuple(s.fid, s.dir, s.tuple_given ? &s.out.tuple : nullptr)};
         },
         {an_engine, a_tuple, a_flow, one_side},
         zon_error_none,
         0,
         [](scene& s) {
             EXPECT_EQ(s.out.tuple.src_ip.addr_type, s.flow_tuple.src_ip.addr_type);
             EXPECT_EQ(s.out.tuple.src_port, s.flow_tuple.dst_port);
             EXPECT_EQ(s.out.tuple.dst_port, s.flow_tuple.src_port);
         }},
        {"get_next_tcp_seq_nbr",
         [](scene& s) {
             return int{zon_flow_get_next_tcp_seq_nbr(s.fid, s.dir, s.or_null(s.out.number),
                                                      &s.out.window)};
         },
         {an_engine, a_pointer, not_the_whole_flow, a_flow, a_known_sequence_number},
         zon_error_none,
         0,
         [](scene& s) {
             EXPECT_EQ(s.out.number, 123456u);
             EXPECT_EQ(s.out.window, 0x4321);
         }},
        {"set_aging",
         [](scene& s) { return int{zon_flow_set_aging(s.fid, 9)}; },
         {an_engine, a_flow},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.record->age_ms, 9000u); }},
        {"get_aging",
         [](scene& s) { return int{zon_flow_get_aging(s.fid, s.or_null(s.out.number))}; },
         {an_engine, a_pointer, writing(a_flow, clears_number)},
         zon_error_none,
         0,
         [](scene& s) { EXPECT_EQ(s.out.number, s.record->age_ms / 1000); }},
    };
}

// ---- parents, children, deletion ----

// Gives the scene's flow a child, which calls then mean.
void mean_a_child(scene& s) {
    const zon_flow_tuple_t announced = s.connection(1001, 2000);
    zon_fid_t child = 0;
    ASSERT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &announced, s.flow, &child, nullptr),
              zon_error_none);
    const bytes first = s.ipv6 ? udp6_packet(1001, 2000) : udp_packet(1001, 2000);
    ASSERT_EQ(s.hand_in(first), child);
    s.mean(child);
}

const check a_parent{
    "a parent", zon_error_parent_fid_not_found, {[](scene&) {}}, mean_a_child, clears_fid};

std::vector<zon_fid_t> visited;
bool visit(const zon_flow_ptr_t child) {
    visited.push_back(child);
    return false;
}

const check a_parent_of_the_walk = [] {
    check found = answering(a_flow, zon_error_parent_fid_not_found);
    found.mend = [](scene& s) {
        const zon_fid_t parent = s.flow;
        mean_a_child(s);
        visited = {s.flow};
        s.mean(parent);
    };
    return found;
}();

std::vector<operation> bundles_and_deletion() {
    return {
        {"get_parent",
         [](scene& s) { return int{zon_flow_get_parent(s.fid, s.or_null(s.out.fid))}; },
         {an_engine, a_pointer, writing(a_flow, clears_fid), a_parent},
         zon_error_none,
         0,
         [](scene& s) {
             EXPECT_NE(s.out.fid, s.flow);
             EXPECT_EQ(record_of(s.out.fid), s.record->bundle_parent);
         }},
        {"traverse_child_flows",
         [](scene& s) {
             return int{zon_flow_traverse_child_flows(s.fid, s.pointer_given ? visit : nullptr)};
         },
         {an_engine, a_pointer, a_parent_of_the_walk},
         zon_error_none,
         0,
         // Once by the test, once by the walk.
         [](scene& s) {
             ASSERT_EQ(visited.size(), 2u);
             EXPECT_EQ(visited[0], visited[1]);
             EXPECT_EQ(record_of(visited[0])->bundle_parent, s.record);
         }},
        {"delete_flow",
         [](scene& s) {
             return int{zon_delete_flow_tamonet(s.fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST)};
         },
         {answering(an_engine, false), answering(a_flow, false)},
         true,
         0,
         [](scene& s) {
             EXPECT_EQ(record_of(s.flow), nullptr);
             ASSERT_EQ(told.size(), 1u);
             EXPECT_EQ(told[0].cid, s.own);
         }},
    };
}

}  // namespace

TEST_P(every_operation, makes_its_checks_in_order_and_changes_nothing_until_they_hold) {
    walk_row();
}

using ::testing::Bool;
using ::testing::Combine;
using ::testing::Values;
using ::testing::ValuesIn;
INSTANTIATE_TEST_SUITE_P(lookup, every_operation, Combine(ValuesIn(lookups()), Bool(), Bool()),
                         [](const auto& row) { return name_of_row(row); });
INSTANTIATE_TEST_SUITE_P(probe, every_operation, Combine(ValuesIn(probes()), Values(false), Bool()),
                         [](const auto& row) { return name_of_row(row); });
INSTANTIATE_TEST_SUITE_P(objects, every_operation,
                         Combine(ValuesIn(feature_object_operations()), Bool(), Bool()),
                         [](const auto& row) { return name_of_row(row); });
INSTANTIATE_TEST_SUITE_P(query, every_operation, Combine(ValuesIn(queries()), Bool(), Bool()),
                         [](const auto& row) { return name_of_row(row); });
INSTANTIATE_TEST_SUITE_P(flow, every_operation,
                         Combine(ValuesIn(bundles_and_deletion()), Bool(), Bool()),
                         [](const auto& row) { return name_of_row(row); });

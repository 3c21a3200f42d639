// zon_clients_test.cpp - client ids and the three callbacks of a client.

#include "zon_engine/zon_clients.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/allocation_faults.h"
#include "support/bare_engine.h"
#include "support/captured_output.h"
#include "support/engine_fixture.h"
#include "support/fixed_time_stamp.h"

using zon_test::captured_output;
using zon_test::fixed_time_stamp;
using zon_test::packet_builder;

namespace {

using client_ids = zon_test::bare_engine;
using client_callbacks = zon_test::bare_engine;

std::vector<zon_client_id_e> listed_clients() {
    std::vector<zon_client_id_e> ids;
    for (const auto* client = zon_first_client(g_zon); client != nullptr;
         client = zon_next_client(client))
        ids.push_back(client->id);
    return ids;
}

std::vector<zon_client_id_e> free_ids() {
    std::vector<zon_client_id_e> ids;
    for (const auto* entry = g_zon->free_client_ids; entry != nullptr; entry = entry->entries.next)
        ids.push_back(entry->id);
    return ids;
}

const zon_client_info_list_entry_* entry_of(zon_client_id_e id) {
    for (const auto* client = zon_first_client(g_zon); client != nullptr;
         client = zon_next_client(client))
        if (client->id == id)
            return client;
    return nullptr;
}

zon_client_id_e register_one() {
    zon_client_id_e id = 0;
    EXPECT_EQ(zon_client_feature_register(&id), zon_error_none);
    return id;
}

void ignore_deletion(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                     zon_client_id_e) {}
void ignore_deletion_too(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                         zon_client_id_e) {}
bool allow_flow(void*, zon_client_id_e) {
    return true;
}
void ignore_bypass(uint32_t, bool, bool, bool, uint32_t*) {}

}  // namespace

// ---- ids ----

TEST_F(client_ids, are_handed_out_from_31_down) {
    EXPECT_EQ(register_one(), 31u);
    EXPECT_EQ(register_one(), 30u);
    EXPECT_EQ(register_one(), 29u);
}

TEST_F(client_ids, that_were_given_back_are_handed_out_next) {
    register_one();
    register_one();
    register_one();
    EXPECT_EQ(zon_client_feature_unregister(30), zon_error_none);
    EXPECT_EQ(register_one(), 30u);
    EXPECT_EQ(register_one(), 28u);
}

TEST_F(client_ids, run_out_after_31_clients) {
    for (zon_client_id_e expected = 31; expected >= 1; --expected)
        EXPECT_EQ(register_one(), expected);
    zon_client_id_e id = 77;
    EXPECT_EQ(zon_client_feature_register(&id), zon_error_memory);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(listed_clients().size(), 31u);
}

TEST_F(client_ids, are_not_used_up_by_a_caller_without_a_place_for_one) {
    EXPECT_EQ(zon_client_feature_register(nullptr), zon_error_parameter_is_null);
    EXPECT_TRUE(listed_clients().empty());
    EXPECT_EQ(register_one(), 31u);
}

TEST_F(client_ids, are_all_free_in_a_new_engine) {
    std::vector<zon_client_id_e> expected;
    for (zon_client_id_e id = 31; id >= 1; --id)
        expected.push_back(id);
    EXPECT_EQ(free_ids(), expected);
    EXPECT_TRUE(listed_clients().empty());
}

TEST_F(client_ids, come_without_callbacks_and_capabilities) {
    const auto* client = entry_of(register_one());
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->fo_del_cb, nullptr);
    EXPECT_EQ(client->pre_create_cb, nullptr);
    EXPECT_EQ(client->bypass_cb, nullptr);
    EXPECT_EQ(static_cast<int>(client->enabled_capability), 0);
}

TEST_F(client_ids, of_the_newest_clients_stand_first) {
    register_one();
    register_one();
    register_one();
    EXPECT_EQ(listed_clients(), (std::vector<zon_client_id_e>{29, 30, 31}));
    EXPECT_EQ(zon_client_feature_unregister(30), zon_error_none);
    EXPECT_EQ(listed_clients(), (std::vector<zon_client_id_e>{29, 31}));
    EXPECT_EQ(zon_client_feature_unregister(29), zon_error_none);
    EXPECT_EQ(zon_client_feature_unregister(31), zon_error_none);
    EXPECT_TRUE(listed_clients().empty());
}

// Nothing guards the list of free ids: an id given back twice is handed out twice, whatever it is.
TEST_F(client_ids, given_back_unasked_are_handed_out_all_the_same) {
    register_one();
    EXPECT_EQ(zon_client_feature_unregister(31), zon_error_none);
    EXPECT_EQ(zon_client_feature_unregister(31), zon_error_none);
    EXPECT_EQ(zon_client_feature_unregister(1000), zon_error_none);
    EXPECT_EQ(zon_client_feature_unregister(0), zon_error_none);
    EXPECT_EQ(register_one(), 0u);
    EXPECT_EQ(register_one(), 1000u);
    EXPECT_EQ(register_one(), 31u);
    EXPECT_EQ(register_one(), 31u);
    EXPECT_EQ(register_one(), 30u);
}

TEST_F(client_ids, leave_a_walk_that_stands_on_an_unregistered_client_its_way_on) {
    register_one();
    register_one();
    register_one();
    const auto* standing = entry_of(30);
    EXPECT_EQ(zon_client_feature_unregister(30), zon_error_none);
    const auto* next = zon_next_client(standing);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->id, 31u);
    EXPECT_EQ(standing->id, 30u);
}

TEST_F(client_ids, leave_a_walk_its_way_on_when_all_clients_go) {
    register_one();
    register_one();
    const auto* standing = entry_of(30);
    EXPECT_EQ(zon_client_feature_unregister(30), zon_error_none);
    EXPECT_EQ(zon_client_feature_unregister(31), zon_error_none);
    const auto* next = zon_next_client(standing);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(zon_next_client(next), nullptr);
}

TEST_F(client_ids, keep_capabilities_counted_when_a_client_leaves_without_disabling_them) {
    const zon_client_id_e id = register_one();
    ASSERT_EQ(zon_client_enable_engine_capability(id, ZON_CAPABILITY_ENABLE_TCP), zon_error_none);
    EXPECT_EQ(zon_client_feature_unregister(id), zon_error_none);
    EXPECT_EQ(g_zon->params.capability_counter.zon_engine_flow_tcp, 1u);
}

TEST_F(client_ids, above_31_have_no_feature_objects_to_remove) {
    EXPECT_EQ(zon_unreg_client_fo(32), zon_error_client_id_invalid);
    EXPECT_EQ(zon_unreg_client_fo(UINT32_MAX), zon_error_client_id_invalid);
}

TEST_F(client_ids, without_a_delete_callback_have_no_feature_objects_to_remove) {
    EXPECT_EQ(zon_unreg_client_fo(31), zon_error_client_delete_cb_not_registered);
    EXPECT_EQ(zon_client_register_delete_cb(31, ignore_deletion), zon_error_none);
    EXPECT_EQ(zon_unreg_client_fo(31), zon_error_none);
}

// ---- the table of callbacks ----

namespace {

constexpr const char* id_too_large = "Client id exceeds max number of clients that ZON can support";

struct callback_row {
    const char* name;
    zon_error_t (*call)(zon_client_id_e id, bool null_callback);
    bool registers;
    const char* bad_id_complaint;
    const char* bad_id_label;
    const char* null_label;  // null where there is no callback to check
    zon_error_t for_unknown_id;
    bool (*is_set)(zon_client_id_e id);
};

bool deletion_is_set(zon_client_id_e id) {
    return entry_of(id) != nullptr && entry_of(id)->fo_del_cb != nullptr;
}
bool creation_is_set(zon_client_id_e id) {
    return entry_of(id) != nullptr && entry_of(id)->pre_create_cb != nullptr;
}
bool bypass_is_set(zon_client_id_e id) {
    return entry_of(id) != nullptr && entry_of(id)->bypass_cb != nullptr;
}

const callback_row callback_rows[] = {
    {"register_delete_cb",
     [](zon_client_id_e id, bool null) {
         return zon_client_register_delete_cb(id, null ? nullptr : ignore_deletion);
     },
     true, id_too_large, "zon_client_register_delete_cb, id:", "zon_client_register_delete_cb, id:",
     zon_error_none, deletion_is_set},
    {"unregister_delete_cb",
     [](zon_client_id_e id, bool) { return zon_client_unregister_delete_cb(id); }, false,
     id_too_large, "zon_client_unregister_delete_cb, id:", nullptr, zon_error_none,
     deletion_is_set},
    {"register_pre_flow_create_cb",
     [](zon_client_id_e id, bool null) {
         return zon_client_register_pre_flow_create_cb(id, null ? nullptr : allow_flow);
     },
     true, id_too_large, "zon_client_register_pre_flow_create_cb, id:",
     "zon_client_register_pre_flow_create_cb, id:", zon_error_client_id_invalid, creation_is_set},
    {"unregister_pre_flow_create_cb",
     [](zon_client_id_e id, bool) { return zon_client_unregister_pre_flow_create_cb(id); }, false,
     id_too_large, "zon_client_unregister_pre_flow_create_cb, id:", nullptr, zon_error_none,
     creation_is_set},
    {"register_bypass_cb",
     [](zon_client_id_e id, bool null) {
         return zon_client_register_bypass_cb(id, null ? nullptr : ignore_bypass);
     },
     true, "Bad client ID", "zon_client_register_bypass_cb, id:",
     "zon_client_register_pre_flow_create_cb, id:", zon_error_client_id_invalid, bypass_is_set},
    {"unregister_bypass_cb",
     [](zon_client_id_e id, bool) { return zon_client_unregister_bypass_cb(id); }, false,
     "Only client id that ZON can support is ORMA2",
     "zon_client_unregister_bypass_cb, id:", nullptr, zon_error_none, bypass_is_set},
};

std::string logged(const std::string& complaint, const std::string& label, int value) {
    return "noon : ZON_MSG_INDEX: 6. " + complaint + "  " + label + ":" + std::to_string(value) +
           "\n";
}

class callback_operation : public zon_test::bare_engine,
                           public ::testing::WithParamInterface<callback_row> {
protected:
    void SetUp() override {
        bare_engine::SetUp();
        zon_errlog = true;
    }
    void TearDown() override {
        zon_errlog = false;
        bare_engine::TearDown();
    }

    static void set_all(zon_client_id_e id) {
        ASSERT_EQ(zon_client_register_delete_cb(id, ignore_deletion), zon_error_none);
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(id, allow_flow), zon_error_none);
        ASSERT_EQ(zon_client_register_bypass_cb(id, ignore_bypass), zon_error_none);
    }

    const fixed_time_stamp stamp;
};

using callback_registration = callback_operation;

}  // namespace

TEST_P(callback_operation, needs_an_engine_before_anything_else) {
    bare_engine::destroy();
    captured_output errors(stderr);
    EXPECT_EQ(GetParam().call(99, true), zon_error_engine_not_init);
    EXPECT_EQ(errors.text(), "");
}

TEST_P(callback_operation, refuses_ids_outside_1_to_31_and_logs_them) {
    for (const zon_client_id_e id : {0u, 32u, 1000u}) {
        captured_output errors(stderr);
        EXPECT_EQ(GetParam().call(id, true), zon_error_client_id_invalid);
        EXPECT_EQ(errors.text(), logged(GetParam().bad_id_complaint, GetParam().bad_id_label,
                                        static_cast<int>(id)));
    }
}

TEST_P(callback_operation, refuses_ids_silently_while_the_error_log_is_off) {
    zon_errlog = false;
    captured_output errors(stderr);
    EXPECT_EQ(GetParam().call(32, false), zon_error_client_id_invalid);
    EXPECT_EQ(errors.text(), "");
}

TEST_P(callback_registration, refuses_a_null_callback_and_logs_the_id) {
    captured_output errors(stderr);
    EXPECT_EQ(GetParam().call(5, true), zon_error_parameter_is_null);
    EXPECT_EQ(errors.text(), logged("Invalid call back provided", GetParam().null_label, 5));
    EXPECT_TRUE(listed_clients().empty());
}

TEST_P(callback_operation, answers_for_an_unknown_id_without_a_log) {
    captured_output errors(stderr);
    EXPECT_EQ(GetParam().call(5, false), GetParam().for_unknown_id);
    EXPECT_EQ(errors.text(), "");
    const bool creates = GetParam().registers && GetParam().for_unknown_id == zon_error_none;
    EXPECT_EQ(entry_of(5) != nullptr, creates);
}

TEST_P(callback_operation, changes_its_own_callback_of_its_own_client) {
    const zon_client_id_e id = register_one();
    const zon_client_id_e other = register_one();
    set_all(other);
    if (!GetParam().registers)
        set_all(id);
    captured_output errors(stderr);
    EXPECT_EQ(GetParam().call(id, false), zon_error_none);
    EXPECT_EQ(errors.text(), "");
    EXPECT_EQ(GetParam().is_set(id), GetParam().registers);
    const int set = deletion_is_set(id) + creation_is_set(id) + bypass_is_set(id);
    EXPECT_EQ(set, GetParam().registers ? 1 : 2);
    EXPECT_TRUE(deletion_is_set(other) && creation_is_set(other) && bypass_is_set(other));
}

INSTANTIATE_TEST_SUITE_P(, callback_operation, ::testing::ValuesIn(callback_rows),
                         [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(, callback_registration,
                         ::testing::Values(callback_rows[0], callback_rows[2], callback_rows[4]),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(client_callbacks, of_deletion_create_a_client_that_was_never_registered) {
    EXPECT_EQ(zon_client_register_bypass_cb(5, ignore_bypass), zon_error_client_id_invalid);
    EXPECT_EQ(zon_client_register_delete_cb(5, ignore_deletion), zon_error_none);
    ASSERT_NE(entry_of(5), nullptr);
    EXPECT_EQ(zon_private_get_delete_cb(5), ignore_deletion);
    EXPECT_EQ(free_ids().size(), 31u) << "the id is still free";
    EXPECT_EQ(zon_client_register_bypass_cb(5, ignore_bypass), zon_error_none)
        << "the client exists now";
}

TEST_F(client_callbacks, of_deletion_are_replaced_without_a_second_client) {
    EXPECT_EQ(zon_client_register_delete_cb(5, ignore_deletion), zon_error_none);
    EXPECT_EQ(zon_client_register_delete_cb(5, ignore_deletion_too), zon_error_none);
    EXPECT_EQ(zon_private_get_delete_cb(5), ignore_deletion_too);
    EXPECT_EQ(listed_clients(), std::vector<zon_client_id_e>{5});
}

TEST_F(client_callbacks, of_deletion_put_a_new_client_first) {
    register_one();
    EXPECT_EQ(zon_client_register_delete_cb(5, ignore_deletion), zon_error_none);
    EXPECT_EQ(listed_clients(), (std::vector<zon_client_id_e>{5, 31}));
}

TEST_F(client_callbacks, of_deletion_are_null_for_an_unknown_id) {
    EXPECT_EQ(zon_private_get_delete_cb(5), nullptr);
    zon_private_set_delete_cb(0, ignore_deletion);  // the engine's own side checks no range
    EXPECT_EQ(zon_private_get_delete_cb(0), ignore_deletion);
}

TEST(client_without_engine, is_refused) {
    ASSERT_EQ(g_zon, nullptr);
    zon_client_id_e id = 77;
    EXPECT_EQ(zon_client_feature_register(&id), zon_error_engine_not_init);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(zon_client_feature_unregister(5), zon_error_engine_not_init);
    EXPECT_EQ(zon_unreg_client_fo(32), zon_error_engine_not_init);
    zon_private_set_delete_cb(5, ignore_deletion);
    EXPECT_EQ(zon_private_get_delete_cb(5), nullptr);
}

// ---- the callbacks at work ----

namespace {

std::vector<zon_client_id_e> called;

class client_walk : public zon_test::engine_fixture {
protected:
    void SetUp() override {
        engine_fixture::SetUp();
        called.clear();
        second = register_one();
        third = register_one();
    }

    static bool note_creation(void*, zon_client_id_e cid) {
        called.push_back(cid);
        return true;
    }
    static void note_deletion(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                              zon_client_id_e cid) {
        called.push_back(cid);
    }
    static packet_builder a_packet() {
        return packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1000, 53);
    }

    zon_client_id_e second = 0;
    zon_client_id_e third = 0;
};

}  // namespace

TEST_F(client_walk, asks_the_newest_client_first_before_a_flow_is_made) {
    for (const zon_client_id_e id : {client, second, third})
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(id, note_creation), zon_error_none);
    EXPECT_NE(handle(a_packet()).fid, ZON_NULL_FID);
    EXPECT_EQ(called, (std::vector<zon_client_id_e>{third, second, client}));
}

TEST_F(client_walk, tells_the_newest_client_first_when_a_flow_goes) {
    for (const zon_client_id_e id : {client, second, third})
        ASSERT_EQ(zon_client_register_delete_cb(id, note_deletion), zon_error_none);
    handle(a_packet());
    delete_all_flows();
    EXPECT_EQ(called, (std::vector<zon_client_id_e>{third, second, client}));
}

// The walk stands at a client that unregisters itself and then the one behind it.
TEST_F(client_walk, calls_no_client_that_an_earlier_one_has_unregistered) {
    static zon_client_id_e next;
    next = client;
    for (const zon_client_id_e id : {client, third}) {
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(id, note_creation), zon_error_none);
        ASSERT_EQ(zon_client_register_delete_cb(id, note_deletion), zon_error_none);
    }
    ASSERT_EQ(zon_client_register_delete_cb(second,
                                            [](zon_flow_ptr_t, void*, void*, void*,
                                               zon_flow_deletion_reason_e, zon_client_id_e cid) {
                                                called.push_back(cid);
                                                zon_client_feature_unregister(cid);
                                                zon_client_feature_unregister(next);
                                            }),
              zon_error_none);
    ASSERT_NE(handle(a_packet()).fid, ZON_NULL_FID);
    called.clear();
    delete_all_flows();
    EXPECT_EQ(called, (std::vector<zon_client_id_e>{third, second}));
    called.clear();
    EXPECT_NE(handle(packet_builder::ipv4("10.0.0.3", "10.0.0.4").udp(1000, 53)).fid, ZON_NULL_FID);
    EXPECT_EQ(called, (std::vector<zon_client_id_e>{third}));
}

TEST_F(client_walk, goes_on_past_a_client_that_unregisters_itself) {
    for (const zon_client_id_e id : {client, second, third})
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(id, note_creation), zon_error_none);
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(second,
                                                     [](void*, zon_client_id_e cid) {
                                                         called.push_back(cid);
                                                         return zon_client_feature_unregister(
                                                                    cid) == zon_error_none;
                                                     }),
              zon_error_none);
    EXPECT_NE(handle(a_packet()).fid, ZON_NULL_FID);
    EXPECT_EQ(called, (std::vector<zon_client_id_e>{third, second, client}));
    called.clear();
    EXPECT_NE(handle(packet_builder::ipv4("10.0.0.3", "10.0.0.4").udp(1000, 53)).fid, ZON_NULL_FID);
    EXPECT_EQ(called, (std::vector<zon_client_id_e>{third, client}));
}

// zon_feature_objects_test.cpp - objects on flows and directions, the lists that hold them, and the
// lines that misses print.

#include "api_fixture.h"
#include "osal/zon_timer.h"
#include "zon_api/zon_api_internal.h"

using namespace zon_test;

namespace {

class feature_objects : public api_fixture {
protected:
    void SetUp() override {
        api_fixture::SetUp();
        fid = udp_flow(1000);
    }
    static void* get(zon_fid_t flow, zon_client_id_e cid, zon_flow_direction_e dir) {
        void* fo = nullptr;
        zon_flow_get_fo(flow, cid, dir, &fo);
        return fo;
    }
    void attach(zon_client_id_e cid, zon_flow_direction_e dir, void* fo) const {
        EXPECT_EQ(zon_flow_attach_fo(fid, cid, dir, fo), zon_error_none);
    }
    static int length(const zon_flow_fo_t* list) {
        int records = 0;
        for (; list != nullptr && records < 100; list = list->next)
            ++records;
        return records;
    }
    zon_fid_t fid = 0;
};

constexpr zon_client_id_e client_a = 1;
constexpr zon_client_id_e client_b = 31;
constexpr zon_flow_direction_e every_direction[] = {ZON_DIR_BI, ZON_DIR_INITIATOR,
                                                    ZON_DIR_RESPONDER};

// ---- lists ----

TEST(object_list, finds_the_first_record_of_a_client) {
    zon_flow_fo_t third = {3, nullptr, nullptr};
    zon_flow_fo_t second = {2, nullptr, &third};
    zon_flow_fo_t first = {2, nullptr, &second};
    EXPECT_EQ(zon_flow_fo_list_find(nullptr, 2), nullptr);
    EXPECT_EQ(zon_flow_fo_list_find(&first, 2), &first);
    EXPECT_EQ(zon_flow_fo_list_find(&first, 3), &third);
    EXPECT_EQ(zon_flow_fo_list_find(&first, 4), nullptr);
}

TEST(object_list, unlinks_a_record_at_the_head_in_the_middle_and_at_the_end) {
    zon_flow_fo_t third = {3, nullptr, nullptr};
    zon_flow_fo_t second = {2, nullptr, &third};
    zon_flow_fo_t first = {1, nullptr, &second};
    zon_flow_fo_t* list = &first;
    EXPECT_EQ(zon_flow_fo_list_find_and_remove(&list, 4), nullptr);
    EXPECT_EQ(zon_flow_fo_list_find_and_remove(&list, 2), &second);
    EXPECT_EQ(first.next, &third);
    EXPECT_EQ(zon_flow_fo_list_find_and_remove(&list, 1), &first);
    EXPECT_EQ(list, &third);
    EXPECT_EQ(zon_flow_fo_list_find_and_remove(&list, 3), &third);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(zon_flow_fo_list_find_and_remove(&list, 3), nullptr);
}

TEST(object_list, unlinks_a_record_by_its_address_alone) {
    zon_flow_fo_t second = {1, nullptr, nullptr};
    zon_flow_fo_t first = {1, nullptr, &second};
    const zon_flow_fo_t stranger = {1, nullptr, nullptr};
    zon_flow_fo_t* list = &first;
    zon_flow_fo_list_unlink(&list, &stranger);
    EXPECT_EQ(list, &first);
    zon_flow_fo_list_unlink(&list, &second);
    EXPECT_EQ(first.next, nullptr);
    zon_flow_fo_list_unlink(&list, &first);
    EXPECT_EQ(list, nullptr);
}

// ---- arguments ----

TEST(feature_objects_without_an_engine, say_so) {
    void* fo = nullptr;
    EXPECT_EQ(zon_flow_attach_fo(1, 0, ZON_DIR_BI, nullptr), zon_error_engine_not_init);
    EXPECT_EQ(zon_flow_get_fo(1, 0, ZON_DIR_BI, &fo), zon_error_engine_not_init);
    EXPECT_EQ(zon_flow_get_fo_by_fid(1, 0, ZON_DIR_BI, &fo, nullptr), zon_error_engine_not_init);
    EXPECT_EQ(zon_flow_get_fo_by_flow_key(nullptr, 0, ZON_DIR_BI, &fo, nullptr),
              zon_error_engine_not_init);
    EXPECT_EQ(zon_flow_detach_fo(1, 0, ZON_DIR_BI, &fo), zon_error_engine_not_init);
}

TEST_F(feature_objects, are_checked_by_client_then_direction_then_pointer_before_the_flow) {
    zon_flow_t snapshot;
    zon_ipv4_key_t key{};
    struct arguments {
        zon_client_id_e cid;
        int dir;
        bool pointer;
        zon_error_t expected;
    };
    constexpr arguments rows[] = {
        {0, 3, false, zon_error_client_id_invalid},
        {32, 3, false, zon_error_client_id_invalid},
        {1, 3, false, zon_error_direction_parameter_is_invalid},
        {31, -1, false, zon_error_direction_parameter_is_invalid},
        {1, 0, false, zon_error_parameter_is_null},
        {31, 2, false, zon_error_parameter_is_null},
    };
    // An identifier that would stop the program if it were looked at.
    const zon_fid_t wild = parameters.max_flows + 1;
    for (const arguments& row : rows) {
        const auto dir = static_cast<zon_flow_direction_e>(row.dir);
        EXPECT_EQ(zon_flow_attach_fo(wild, row.cid, dir, nullptr), row.expected);
        EXPECT_EQ(zon_flow_get_fo(wild, row.cid, dir, nullptr), row.expected);
        EXPECT_EQ(zon_flow_get_fo_by_fid(wild, row.cid, dir, nullptr, &snapshot), row.expected);
        EXPECT_EQ(zon_flow_get_fo_by_flow_key(&key, row.cid, dir, nullptr, &snapshot),
                  row.expected);
        EXPECT_EQ(zon_flow_detach_fo(wild, row.cid, dir, nullptr), row.expected);
    }
}

TEST_F(feature_objects, of_no_flow_are_not_found_and_outputs_are_cleared) {
    for (const zon_fid_t missing : {zon_fid_t{0}, fid + 1}) {
        zon_flow_t snapshot;
        void* fo = &fo;
        EXPECT_EQ(zon_flow_attach_fo(missing, client_a, ZON_DIR_BI, &objects[0]),
                  zon_error_flow_not_found);
        EXPECT_EQ(zon_flow_get_fo(missing, client_a, ZON_DIR_BI, &fo), zon_error_flow_not_found);
        EXPECT_EQ(fo, nullptr);
        fo = &fo;
        EXPECT_EQ(zon_flow_get_fo_by_fid(missing, client_a, ZON_DIR_BI, &fo, &snapshot),
                  zon_error_flow_not_found);
        EXPECT_EQ(fo, nullptr);
        fo = &fo;
        EXPECT_EQ(zon_flow_detach_fo(missing, client_a, ZON_DIR_BI, &fo), zon_error_flow_not_found);
        EXPECT_EQ(fo, nullptr);
    }
}

TEST_F(feature_objects, of_an_identifier_above_the_capacity_stop_the_program) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zon_flow_attach_fo(parameters.max_flows + 1, client_a, ZON_DIR_BI, &objects[0]),
                 "fid_is_valid\\(fid_table, fid\\)");
}

// ---- attach, get, detach ----

TEST_F(feature_objects, come_back_from_the_direction_they_were_attached_to) {
    for (const zon_flow_direction_e dir : every_direction) {
        const zon_fid_t flow = udp_flow(static_cast<uint16_t>(2000 + dir));
        EXPECT_EQ(zon_flow_attach_fo(flow, client_a, dir, &objects[dir]), zon_error_none);
        for (const zon_flow_direction_e asked : every_direction)
            EXPECT_EQ(get(flow, client_a, asked), asked == dir ? &objects[dir] : nullptr)
                << dir << ' ' << asked;
        EXPECT_FALSE(is_locked(record_of(flow)));
    }
}

TEST_F(feature_objects, attached_twice_keep_one_record_with_the_second_object) {
    for (const zon_flow_direction_e dir : every_direction) {
        const zon_fid_t flow = udp_flow(static_cast<uint16_t>(2000 + dir));
        zon_flow_attach_fo(flow, client_a, dir, &objects[0]);
        zon_flow_attach_fo(flow, client_a, dir, &objects[1]);
        EXPECT_EQ(get(flow, client_a, dir), &objects[1]);
        const zon_flow_t* record = record_of(flow);
        EXPECT_EQ(length(record->fo_list) + length(record->initiator_flow->fo_list) +
                      length(record->responder_flow->fo_list),
                  1);
    }
}

TEST_F(feature_objects, of_the_whole_flow_are_found_through_a_direction_that_another_client_uses) {
    attach(client_a, ZON_DIR_BI, &objects[0]);
    EXPECT_EQ(get(fid, client_a, ZON_DIR_INITIATOR), nullptr);
    attach(client_b, ZON_DIR_INITIATOR, &objects[1]);
    EXPECT_EQ(get(fid, client_a, ZON_DIR_INITIATOR), &objects[0]);
    EXPECT_EQ(get(fid, client_a, ZON_DIR_RESPONDER), nullptr);
}

TEST_F(feature_objects, attached_to_a_direction_may_overwrite_the_one_of_the_whole_flow) {
    attach(client_a, ZON_DIR_BI, &objects[0]);
    attach(client_b, ZON_DIR_INITIATOR, &objects[1]);
    attach(client_a, ZON_DIR_INITIATOR, &objects[2]);
    EXPECT_EQ(get(fid, client_a, ZON_DIR_BI), &objects[2]);
    EXPECT_EQ(length(record_of(fid)->fo_list), 1);
}

TEST_F(feature_objects, of_a_direction_fall_off_when_a_second_client_attaches_there) {
    attach(client_a, ZON_DIR_RESPONDER, &objects[0]);
    const zon_flow_fo_t* fallen = record_of(fid)->responder_flow->fo_list;
    attach(client_b, ZON_DIR_RESPONDER, &objects[1]);
    EXPECT_EQ(get(fid, client_a, ZON_DIR_RESPONDER), nullptr);
    EXPECT_EQ(get(fid, client_b, ZON_DIR_RESPONDER), &objects[1]);
    EXPECT_EQ(times_handed_out(fallen), 1) << "nobody leads to its record any more";
}

TEST_F(feature_objects, that_fall_off_a_direction_leave_those_of_the_whole_flow_where_they_are) {
    attach(client_a, ZON_DIR_BI, &objects[0]);
    attach(client_b, ZON_DIR_INITIATOR, &objects[1]);
    attach(2, ZON_DIR_BI, &objects[2]);
    attach(3, ZON_DIR_INITIATOR, &objects[3]);
    EXPECT_EQ(get(fid, client_b, ZON_DIR_INITIATOR), nullptr);
    for (const zon_flow_direction_e dir : {ZON_DIR_BI, ZON_DIR_INITIATOR}) {
        EXPECT_EQ(get(fid, client_a, dir), &objects[0]);
        EXPECT_EQ(get(fid, 2, dir), &objects[2]);
    }
    EXPECT_EQ(length(record_of(fid)->fo_list), 2);
    EXPECT_EQ(length(record_of(fid)->initiator_flow->fo_list), 3);
    EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr).feature_objects, 3);
}

TEST_F(feature_objects, of_several_clients_are_kept_apart) {
    attach(client_a, ZON_DIR_BI, &objects[0]);
    attach(client_b, ZON_DIR_BI, &objects[1]);
    EXPECT_EQ(record_of(fid)->fo_list->id, client_b);
    EXPECT_EQ(get(fid, client_a, ZON_DIR_BI), &objects[0]);
    EXPECT_EQ(get(fid, client_b, ZON_DIR_BI), &objects[1]);
}

TEST_F(feature_objects, are_detached_once) {
    for (const zon_flow_direction_e dir : every_direction) {
        const zon_fid_t flow = udp_flow(static_cast<uint16_t>(2000 + dir));
        zon_flow_attach_fo(flow, client_a, dir, &objects[dir]);
        void* fo = nullptr;
        EXPECT_EQ(zon_flow_detach_fo(flow, client_a, dir, &fo), zon_error_none);
        EXPECT_EQ(fo, &objects[dir]);
        EXPECT_EQ(zon_flow_detach_fo(flow, client_a, dir, &fo),
                  zon_error_feature_object_not_attached);
        EXPECT_EQ(fo, nullptr);
        EXPECT_FALSE(is_locked(record_of(flow)));
    }
}

TEST_F(feature_objects, detached_through_a_direction_leave_every_list) {
    attach(client_a, ZON_DIR_BI, &objects[0]);
    attach(client_b, ZON_DIR_INITIATOR, &objects[1]);
    const zon_flow_fo_t* shared = record_of(fid)->fo_list;
    void* fo = nullptr;
    EXPECT_EQ(zon_flow_detach_fo(fid, client_a, ZON_DIR_INITIATOR, &fo), zon_error_none);
    EXPECT_EQ(fo, &objects[0]);
    EXPECT_EQ(record_of(fid)->fo_list, nullptr);
    EXPECT_EQ(record_of(fid)->initiator_flow->fo_list->next, nullptr);
    EXPECT_EQ(times_handed_out(shared), 1);
}

TEST_F(feature_objects, detached_from_the_whole_flow_do_not_stay_at_the_end_of_a_direction) {
    attach(client_a, ZON_DIR_BI, &objects[0]);
    attach(client_b, ZON_DIR_RESPONDER, &objects[1]);
    void* fo = nullptr;
    EXPECT_EQ(zon_flow_detach_fo(fid, client_a, ZON_DIR_BI, &fo), zon_error_none);
    EXPECT_EQ(get(fid, client_a, ZON_DIR_RESPONDER), nullptr);
    EXPECT_EQ(get(fid, client_b, ZON_DIR_RESPONDER), &objects[1]);
}

// ---- snapshots ----

TEST_F(feature_objects, got_with_a_snapshot_leave_the_flow_locked_until_it_is_unlocked) {
    attach(client_a, ZON_DIR_BI, &objects[0]);
    zon_flow_t snapshot;
    void* fo = nullptr;
    EXPECT_EQ(zon_flow_get_fo_by_fid(fid, client_a, ZON_DIR_BI, &fo, &snapshot), zon_error_none);
    EXPECT_EQ(fo, &objects[0]);
    EXPECT_EQ(snapshot.fid, fid);
    EXPECT_EQ(snapshot.packet_number, 1u);
    EXPECT_EQ(snapshot.num_l7_bytes, 10u);
    EXPECT_EQ(snapshot.initiator_flow, record_of(fid)->initiator_flow);
    EXPECT_EQ(snapshot.flow_lock, record_of(fid)->flow_lock);
    EXPECT_TRUE(is_locked(record_of(fid)));
    zon_unlock_flow_tamonet(&snapshot);
    EXPECT_FALSE(is_locked(record_of(fid)));
}

TEST_F(feature_objects, got_with_a_snapshot_come_with_every_byte_of_the_record) {
    // In the middle of a family, and with something in every part of the record.
    const zon_fid_t parent = fid;
    child_of(parent, 1001);
    fid = child_of(parent, 1002);
    child_of(fid, 1003);
    attach(client_a, ZON_DIR_BI, &objects[0]);
    ASSERT_EQ(zon_flow_set_application_id(fid, 44), zon_error_none);
    ASSERT_EQ(zon_flow_set_dpi_bypass_id(fid, 45), zon_error_none);
    zon_flow_t* record = record_of(fid);
    record->tunnel_type = ZON_TUNNEL_TYPE_TEREDO;
    record->first_payload_seen_on_pkt_num = 46;
    for (size_t type = 0; type < std::size(record->super_ctx); ++type)
        record->super_ctx[type] = reinterpret_cast<zon_super_context_t*>(&objects[type]);
    zon_flow_t snapshot;
    std::memset(static_cast<void*>(&snapshot), 0xEE, sizeof snapshot);
    void* fo = nullptr;
    EXPECT_EQ(zon_flow_get_fo_by_fid(fid, client_a, ZON_DIR_BI, &fo, &snapshot), zon_error_none);
    EXPECT_EQ(std::memcmp(&snapshot, record, sizeof snapshot), 0);
    EXPECT_TRUE(zon_timer_running(&snapshot.timer));
    for (const zon_flow_t* link :
         {snapshot.bundle_parent, snapshot.bundle_child, snapshot.bundle_sibling})
        EXPECT_NE(link, nullptr);
    EXPECT_NE(snapshot.next_flow, nullptr);
    EXPECT_NE(snapshot.fo_list, nullptr);
    zon_unlock_flow_tamonet(&snapshot);
    record->tunnel_type = ZON_TUNNEL_TYPE_NONE;
    std::fill(std::begin(record->super_ctx), std::end(record->super_ctx), nullptr);
}

TEST_F(feature_objects, missed_with_a_snapshot_leave_the_flow_unlocked_and_the_snapshot_taken) {
    zon_flow_t snapshot{};
    void* fo = &fo;
    EXPECT_EQ(zon_flow_get_fo_by_fid(fid, client_a, ZON_DIR_BI, &fo, &snapshot),
              zon_error_feature_object_not_attached);
    EXPECT_EQ(fo, nullptr);
    EXPECT_EQ(snapshot.fid, fid);
    EXPECT_FALSE(is_locked(record_of(fid)));
}

TEST_F(feature_objects, are_got_by_the_key_of_either_direction) {
    attach(client_a, ZON_DIR_BI, &objects[0]);
    zon_ipv4_key_t key;
    zon_set_key_ipv4(&key, ZON_IPV4_KEY_COMPLETE, host_a, host_b, 1000, 53, udp, 0);
    for (int direction = 0; direction < 2; ++direction) {
        zon_flow_t snapshot;
        void* fo = nullptr;
        EXPECT_EQ(zon_flow_get_fo_by_flow_key(&key, client_a, ZON_DIR_BI, &fo, &snapshot),
                  zon_error_none);
        EXPECT_EQ(fo, &objects[0]);
        EXPECT_EQ(snapshot.fid, fid);
        EXPECT_TRUE(is_locked(record_of(fid)));
        zon_unlock_flow_tamonet(&snapshot);
        EXPECT_FALSE(is_locked(record_of(fid)));
        zon_swap_key(reinterpret_cast<zon_key_t*>(&key));
    }
}

TEST_F(feature_objects, are_got_by_an_ipv6_key) {
    const zon_fid_t flow = handle(udp6_packet(1000, 53)).fid;
    zon_flow_attach_fo(flow, client_a, ZON_DIR_RESPONDER, &objects[2]);
    zon_ipv6_key_t key = *zon_full_key<ipv6_family>(record_of(flow)->initiator_flow);
    zon_flow_t snapshot;
    void* fo = nullptr;
    EXPECT_EQ(zon_flow_get_fo_by_flow_key(&key, client_a, ZON_DIR_RESPONDER, &fo, &snapshot),
              zon_error_none);
    EXPECT_EQ(fo, &objects[2]);
    zon_unlock_flow_tamonet(&snapshot);
}

TEST_F(feature_objects, of_a_key_without_a_flow_are_not_found_and_nothing_is_written) {
    zon_ipv4_key_t key;
    zon_set_key_ipv4(&key, ZON_IPV4_KEY_COMPLETE, host_a, host_b, 9, 9, udp, 0);
    zon_flow_t snapshot{};
    snapshot.fid = 77;
    void* fo = &fo;
    EXPECT_EQ(zon_flow_get_fo_by_flow_key(&key, client_a, ZON_DIR_BI, &fo, &snapshot),
              zon_error_flow_not_found);
    EXPECT_EQ(fo, nullptr);
    EXPECT_EQ(snapshot.fid, 77u);
    // An announced flow is not looked for by its complete key.
    pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 9, host_b, 9));
    EXPECT_EQ(zon_flow_get_fo_by_flow_key(&key, client_a, ZON_DIR_BI, &fo, &snapshot),
              zon_error_flow_not_found);
}

TEST_F(feature_objects, are_not_attached_without_memory) {
    zon_chunk_mem_t* chunks = &g_zon->zon_chunk_ptr;
    const vem_chunk_type records = std::exchange(chunks->zon_flow_fo_mem, nullptr);
    EXPECT_EQ(zon_flow_attach_fo(fid, client_a, ZON_DIR_BI, &objects[0]), zon_error_memory);
    EXPECT_EQ(record_of(fid)->fo_list, nullptr);
    EXPECT_FALSE(is_locked(record_of(fid)));
    chunks->zon_flow_fo_mem = records;
}

// ---- trace: what misses print stands in zon_trace_switches_test.cpp ----

constexpr const char* client_api = "\nZON Engine: ZON_ERRMSG_CLIENT_API, ";

TEST_F(feature_objects, of_no_flow_are_traced_by_a_detach_from_an_empty_slot_alone) {
    zon_debug_flag_engine = true;
    void* fo = nullptr;
    zon_flow_t snapshot;
    EXPECT_TRUE(ends_with(traced([&] { zon_flow_detach_fo(fid + 1, client_a, ZON_DIR_BI, &fo); }),
                          client_api));
    EXPECT_EQ(traced([&] { zon_flow_detach_fo(0, client_a, ZON_DIR_BI, &fo); }), "");
    EXPECT_EQ(traced([&] { zon_flow_get_fo(fid + 1, client_a, ZON_DIR_BI, &fo); }), "");
    EXPECT_EQ(
        traced([&] { zon_flow_get_fo_by_fid(fid + 1, client_a, ZON_DIR_BI, &fo, &snapshot); }), "");
    EXPECT_EQ(traced([&] { zon_flow_attach_fo(fid + 1, client_a, ZON_DIR_BI, &fo); }), "");
    EXPECT_EQ(traced([&] { zon_flow_get_fo(0, client_a, ZON_DIR_BI, &fo); }), "");
    EXPECT_EQ(traced([&] { zon_flow_get_fo_by_fid(0, client_a, ZON_DIR_BI, &fo, &snapshot); }), "");
    EXPECT_EQ(traced([&] { zon_flow_attach_fo(0, client_a, ZON_DIR_BI, &fo); }), "");
}

}  // namespace

// zon_rekey_test.cpp - flows under new addresses, ports and VRFs.

#include <atomic>

#include "client_operation.h"
#include "support/watched_output.h"
#include "zon_api/zon_api_internal.h"

using namespace zon_test;

namespace {

struct side_of_update {
    const char* name;
    zon_flow_direction_e dir;
    zon_error_t (*update)(zon_fid_t, const zon_flow_tuple_t*);
};

class every_update : public api_fixture, public ::testing::WithParamInterface<side_of_update> {
protected:
    void SetUp() override {
        api_fixture::SetUp();
        fid = udp_flow(1000);
        ASSERT_EQ(zon_flow_get_tuple(fid, GetParam().dir, &old_key), zon_error_none);
    }
    zon_error_t update(const zon_flow_tuple_t& to) const { return GetParam().update(fid, &to); }
    zon_half_flow_t*& slot() const { return slot_of(fid); }
    static zon_half_flow_t*& slot_of(zon_fid_t of) {
        return GetParam().dir == ZON_DIR_INITIATOR ? record_of(of)->initiator_flow
                                                   : record_of(of)->responder_flow;
    }
    static void lose_side(zon_fid_t of) {
        zon_half_flow_t* half = std::exchange(slot_of(of), nullptr);
        zon_private_remove_half_flow(half);
        zon_deallocate_half_flow(half);
    }
    // Whether another thread could take the flow's lock at each line that the update prints.
    static std::vector<bool> locked_at_reports(zon_fid_t of, const zon_flow_tuple_t& to) {
        std::vector<bool> locked;
        zon_errlog = zon_debug_flag_engine = true;
        {
            const watched_output reports([&] { locked.push_back(is_locked(record_of(of))); },
                                         stderr);
            EXPECT_NE(GetParam().update(of, &to), zon_error_none);
        }
        zon_errlog = zon_debug_flag_engine = false;
        return locked;
    }
    zon_fid_t fid = 0;
    zon_flow_tuple_t old_key{};
    zon_flow_tuple_t new_key = tuple4(0x0A00000A, 7000, 0x0A00000B, 8000);
};

TEST_P(every_update, makes_the_flow_known_under_the_new_key_alone) {
    const uint32_t inserts = g_zon->flow_tbl->profile_insert;
    const uint32_t deletes = g_zon->flow_tbl->profile_delete;
    EXPECT_EQ(update(new_key), zon_error_none);
    EXPECT_EQ(find(old_key), 0u);
    EXPECT_EQ(find(new_key), fid);
    // The tuple is taken as it is given, and the other side stays.
    EXPECT_EQ(find(reversed(new_key)), 0u);
    EXPECT_EQ(find(reversed(old_key)), fid);
    EXPECT_EQ(elements(), 2u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, inserts + 1);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, deletes + 1);
    EXPECT_FALSE(is_locked(record_of(fid)));
    EXPECT_EQ(handle(udp_packet(1, 2)).indications.fif, 1);
}

TEST_P(every_update, to_the_same_key_changes_nothing) {
    EXPECT_EQ(update(old_key), zon_error_none);
    EXPECT_EQ(find(old_key), fid);
    EXPECT_EQ(elements(), 2u);
}

TEST_P(every_update, keeps_the_type_of_an_announced_flow) {
    const zon_flow_tuple_t announced = tuple4(host_a, 2000, host_b, 53);
    const zon_fid_t pre = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, announced);
    EXPECT_EQ(GetParam().update(pre, &new_key), zon_error_none);
    EXPECT_EQ(zon_named_half_flow(record_of(pre), GetParam().dir)->key.key_type,
              uint32_t{ZON_IPV4_KEY_PRE_FLOW_COMPLETE});
    EXPECT_EQ(g_zon->flow_tbl->active_preflow_count[ZON_IPV4_KEY_PRE_FLOW_COMPLETE], 2u);
    EXPECT_EQ(find(new_key), pre);
}

TEST_P(every_update, works_for_ipv6) {
    const zon_fid_t flow = handle(udp6_packet(1000, 53)).fid;
    const zon_flow_tuple_t to = tuple6("2001:db8::a", 7000, "2001:db8::b", 8000);
    EXPECT_EQ(GetParam().update(flow, &to), zon_error_none);
    EXPECT_EQ(find(to), flow);
    EXPECT_EQ(elements(), 4u);
}

TEST_P(every_update, drops_the_hash_that_a_host_supplied) {
    zon_pkt_indications_t indications{};
    indications.hash_valid = 1;
    indications.hash_value = 12345;
    zon_error_t error = zon_error_none;
    bytes packet = udp_packet(2000, 53);
    const zon_fid_t flow = zon_handle_packet(packet.data(), 0, nullptr, &indications, &error);
    ASSERT_NE(flow, 0u);
    ASSERT_EQ(slot_of(flow)->key.hash_valid, 1u);
    EXPECT_EQ(GetParam().update(flow, &new_key), zon_error_none);
    EXPECT_EQ(slot_of(flow)->key.hash_valid, 0u);
    EXPECT_EQ(find(new_key), flow) << "a host that supplies no hash finds the flow";
}

TEST_P(every_update, keeps_the_objects_of_every_direction) {
    constexpr zon_flow_direction_e directions[] = {ZON_DIR_BI, ZON_DIR_INITIATOR,
                                                   ZON_DIR_RESPONDER};
    for (const zon_flow_direction_e dir : directions)
        ASSERT_EQ(zon_flow_attach_fo(fid, 1, dir, &objects[dir]), zon_error_none);
    EXPECT_EQ(update(new_key), zon_error_none);
    for (const zon_flow_direction_e dir : directions) {
        void* fo = nullptr;
        EXPECT_EQ(zon_flow_get_fo(fid, 1, dir, &fo), zon_error_none);
        EXPECT_EQ(fo, &objects[dir]);
    }
    EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr).feature_objects, 3);
}

// The sides no longer mirror each other: which way a packet runs is told by the initiator's address
// alone, also where the responder's key has led to the flow.
TEST_P(every_update, lets_the_initiators_address_tell_which_way_packets_run) {
    constexpr uint32_t host_c = 0x0A000003;
    const bool of_initiator = GetParam().dir == ZON_DIR_INITIATOR;
    EXPECT_EQ(update(of_initiator ? tuple4(host_b, 7000, host_a, 8000)
                                  : tuple4(host_a, 7000, host_c, 8000)),
              zon_error_none);
    const packet_result by_responders_key = handle(
        of_initiator
            ? packet_builder::ipv4(ipv4_address(host_b), ipv4_address(host_a)).udp(53, 1000)
            : packet_builder::ipv4(ipv4_address(host_a), ipv4_address(host_c)).udp(7000, 8000));
    EXPECT_EQ(by_responders_key.fid, fid);
    EXPECT_EQ(by_responders_key.indications.is_initiator, 1);
}

TEST_P(every_update, for_another_family_leaves_the_key_and_the_table_alone) {
    new_key.src_ip.addr_type = static_cast<zon_ip_addr_e>(0);
    EXPECT_EQ(update(new_key), zon_error_none);
    EXPECT_EQ(find(old_key), fid);
    EXPECT_EQ(elements(), 2u);
    EXPECT_FALSE(is_locked(record_of(fid)));
    // The bucket is still searched to its end.
    EXPECT_EQ(find(tuple4(host_a, 1, host_b, 2)), 0u);
}

TEST_P(every_update, across_the_families_stops_the_program) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(update(tuple6("2001:db8::a", 1, "2001:db8::b", 2)),
                 "key_type >= ZON_IPV6_FIRST_KEY");
}

TEST_P(every_update, refuses_a_null_tuple_before_the_flow) {
    EXPECT_EQ(GetParam().update(parameters.max_flows + 1, nullptr), zon_error_flow_tuple_is_null);
}

TEST_P(every_update, reports_a_missing_flow_in_its_own_way) {
    for (const zon_fid_t missing : {zon_fid_t{0}, fid + 1}) {
        zon_errlog = true;
        const std::string logged = traced(
            [&] { EXPECT_EQ(GetParam().update(missing, &new_key), zon_error_flow_not_found); });
        zon_errlog = false;
        zon_debug_flag_engine = true;
        const std::string debugged = traced(
            [&] { EXPECT_EQ(GetParam().update(missing, &new_key), zon_error_flow_not_found); });
        zon_debug_flag_engine = false;
        if (GetParam().dir == ZON_DIR_INITIATOR) {
            EXPECT_TRUE(ends_with(logged,
                                  "ZON_MSG_INDEX: 6. Could not find the flow for given fid  "
                                  "zon_flow_update_initiator, "
                                  "fid::" +
                                      std::to_string(missing) + "\n"))
                << logged;
            EXPECT_EQ(debugged, "");
        } else {
            EXPECT_EQ(logged, "");
            EXPECT_TRUE(ends_with(debugged, "\nZON Engine: ZON_ERRMSG_CLIENT_API, ")) << debugged;
        }
    }
}

TEST_P(every_update, makes_a_missing_side_of_the_complete_type) {
    lose_side(fid);
    const uint32_t deletes = g_zon->flow_tbl->profile_delete;
    EXPECT_EQ(update(new_key), zon_error_none);
    ASSERT_NE(slot(), nullptr);
    EXPECT_EQ(slot()->key.key_type, uint32_t{ZON_IPV4_KEY_COMPLETE});
    EXPECT_EQ(slot()->flow, record_of(fid));
    EXPECT_EQ(find(new_key), fid);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, deletes);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2u);
}

TEST_P(every_update, makes_a_missing_side_of_an_ipv6_flow_too) {
    const zon_fid_t flow = handle(udp6_packet(1000, 53)).fid;
    lose_side(flow);
    const zon_flow_tuple_t to = tuple6("2001:db8::a", 7000, "2001:db8::b", 8000);
    EXPECT_EQ(GetParam().update(flow, &to), zon_error_none);
    ASSERT_NE(slot_of(flow), nullptr);
    EXPECT_EQ(slot_of(flow)->key.key_type, uint32_t{ZON_IPV6_KEY_COMPLETE});
    EXPECT_EQ(slot_of(flow)->flow, record_of(flow));
    EXPECT_EQ(slot_of(flow)->fo_list, nullptr);
    EXPECT_EQ(find(to), flow);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv6_half_flow_alloc_count, 2u);
}

TEST_P(every_update, without_memory_for_a_missing_side_reports_ipv4_alone) {
    usage_may_drift = true;
    const zon_fid_t fid6 = handle(udp6_packet(1000, 53)).fid;
    zon_half_flow_t* half = std::exchange(slot(), nullptr);
    zon_flow_t* flow6 = record_of(fid6);
    zon_half_flow_t*& slot6 =
        GetParam().dir == ZON_DIR_INITIATOR ? flow6->initiator_flow : flow6->responder_flow;
    zon_half_flow_t* half6 = std::exchange(slot6, nullptr);
    zon_chunk_mem_t& chunks = g_zon->zon_chunk_ptr;
    const vem_chunk_type ipv4 = std::exchange(chunks.zon_ipv4_half_flow_mem, nullptr);
    const vem_chunk_type ipv6 = std::exchange(chunks.zon_ipv6_half_flow_mem, nullptr);
    const int32_t ready = std::exchange(zon_private_ipv4_flow_mem_buffer_count, 0);
    zon_errlog = zon_debug_flag_engine = true;
    const std::string text = traced([&] { EXPECT_EQ(update(new_key), zon_error_memory); });
    const zon_flow_tuple_t key6 = tuple6("2001:db8::a", 7000, "2001:db8::b", 8000);
    const std::string text6 =
        traced([&] { EXPECT_EQ(GetParam().update(fid6, &key6), zon_error_memory); });
    zon_errlog = zon_debug_flag_engine = false;
    const std::string expected = GetParam().dir == ZON_DIR_INITIATOR
                                     ? "ZON_MSG_INDEX: 0. Could not allocate memory for half flow  "
                                       "zon_flow_update_initiator, fid::1\n"
                                     : "\nZON Engine: ZON_ERRMSG_NO_MEMORY, ";
    EXPECT_TRUE(ends_with(text, expected)) << text;
    EXPECT_EQ(text6, "");
    EXPECT_FALSE(is_locked(record_of(fid)));
    EXPECT_EQ(locked_at_reports(fid, new_key), std::vector{false});
    chunks.zon_ipv4_half_flow_mem = ipv4;
    chunks.zon_ipv6_half_flow_mem = ipv6;
    zon_private_ipv4_flow_mem_buffer_count = ready;
    slot() = half;
    slot6 = half6;
}

// ---- full buckets ----

class every_refused_update : public every_update {
protected:
    every_refused_update() {
        parameters.max_flows = 10;
        parameters.max_bucket_depth = 1;
    }
    void SetUp() override {
        every_update::SetUp();
        // A key whose bucket the other side of the flow takes.
        for (new_key.src_port = 7000; bucket_of(new_key) != bucket_of(reversed(old_key));
             ++new_key.src_port) {
        }
    }
};

TEST_P(every_refused_update, leaves_the_side_out_of_the_table_for_good) {
    const zon_client_id_e cid = new_client();
    ASSERT_EQ(zon_flow_attach_fo(fid, cid, GetParam().dir, &objects[0]), zon_error_none);
    const zon_flow_fo_t* record = slot()->fo_list;
    const zon_half_flow_t* half = slot();
    zon_errlog = zon_debug_flag_engine = true;
    const std::string text =
        traced([&] { EXPECT_EQ(update(new_key), zon_error_flow_creation_prevented); });
    zon_errlog = zon_debug_flag_engine = false;
    const std::string expected =
        GetParam().dir == ZON_DIR_INITIATOR
            ? "ZON_MSG_INDEX: 3. Flow creation was prevented because of hash table bucket depth  "
              "zon_flow_update_initiator, fid::1\n"
            : "\nZON Engine: ZON_ERRMSG_FLOW_CREATION_PREVENTED, ";
    EXPECT_TRUE(ends_with(text, expected)) << text;
    EXPECT_FALSE(is_locked(record_of(fid)));
    EXPECT_EQ(slot(), half);
    EXPECT_EQ(elements(), 1u);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 1u);
    EXPECT_EQ(find(old_key), 0u);
    EXPECT_EQ(find(new_key), 0u);
    EXPECT_EQ(times_handed_out(record), 1);

    void* fo = nullptr;
    EXPECT_EQ(zon_flow_get_fo(fid, cid, GetParam().dir, &fo),
              zon_error_feature_object_not_attached);
    EXPECT_EQ(zon_flow_detach_fo(fid, cid, GetParam().dir, &fo),
              zon_error_feature_object_not_attached);
    EXPECT_EQ(zon_flow_attach_fo(fid, cid, GetParam().dir, &objects[0]),
              zon_error_feature_object_not_attached);
    EXPECT_EQ(zon_flow_attach_fo(fid, cid, ZON_DIR_BI, &objects[1]), zon_error_none);

    const uint32_t deletes = g_zon->flow_tbl->profile_delete;
    EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].flow_fo, &objects[1]);
    EXPECT_EQ(told[0].initiator_fo, nullptr);
    EXPECT_EQ(told[0].responder_fo, nullptr);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, deletes + 1);
    EXPECT_EQ(elements(), 0u);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 0u);
}

TEST_P(every_refused_update, is_reported_once_the_flow_is_unlocked) {
    EXPECT_EQ(locked_at_reports(fid, new_key), std::vector{false});
}

TEST_P(every_refused_update, leaves_the_refused_key_to_be_read) {
    ASSERT_EQ(update(new_key), zon_error_flow_creation_prevented);
    zon_flow_tuple_t tuple{};
    EXPECT_EQ(zon_flow_get_tuple(fid, GetParam().dir, &tuple), zon_error_none);
    EXPECT_EQ(std::memcmp(&tuple, &new_key, sizeof tuple), 0);
}

TEST_P(every_refused_update, can_be_followed_by_one_that_makes_the_side_anew) {
    ASSERT_EQ(update(new_key), zon_error_flow_creation_prevented);
    ASSERT_EQ(update(new_key), zon_error_flow_creation_prevented);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 1u);
    EXPECT_EQ(update(old_key), zon_error_none);
    EXPECT_EQ(find(old_key), fid);
    EXPECT_EQ(elements(), 2u);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2u);
    EXPECT_EQ(zon_flow_attach_fo(fid, 1, GetParam().dir, &objects[0]), zon_error_none);
}

TEST_P(every_refused_update, of_an_announced_flow_is_counted_out_with_the_flow) {
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    const zon_flow_tuple_t announced =
        GetParam().dir == ZON_DIR_INITIATOR ? old_key : reversed(old_key);
    fid = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, announced);
    ASSERT_EQ(update(new_key), zon_error_flow_creation_prevented);
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(g_zon->flow_tbl->active_preflow_count[ZON_IPV4_KEY_PRE_FLOW_COMPLETE], 0u);
    EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
}

// ---- sides that a refused promotion left outside the table ----

class update_after_a_refused_promotion : public client_scene,
                                         public ::testing::WithParamInterface<side_of_update> {
protected:
    void SetUp() override {
        make_engine();
        const zon_flow_tuple_t announced = tuple4(0, 0, host_b, 99);
        mean(pre_flow(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, announced));
        take_room();
        ASSERT_EQ(hand_in(udp_packet(1000, 99)), 0u);
        give_room();
        ASSERT_EQ(elements(), 2u) << "those of the other flow";
    }
};

TEST_P(update_after_a_refused_promotion, brings_its_side_back_into_the_table_and_no_other) {
    const zon_flow_tuple_t to = tuple4(0x0A00000A, 7000, 0x0A00000B, 8000);
    EXPECT_EQ(GetParam().update(flow, &to), zon_error_none);
    EXPECT_EQ(elements(), 3u);
    for (const auto side : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER}) {
        const bool is_outside = zon_named_half_flow(record, side)->hdr.pointer_to_us == nullptr;
        EXPECT_EQ(is_outside, side != GetParam().dir);
    }
    EXPECT_TRUE(zon_delete_flow_tamonet(flow, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    EXPECT_EQ(elements(), 2u);
}

constexpr side_of_update sides[] = {{"initiator", ZON_DIR_INITIATOR, zon_flow_update_initiator},
                                    {"responder", ZON_DIR_RESPONDER, zon_flow_update_responder}};
INSTANTIATE_TEST_SUITE_P(sides, every_update, ::testing::ValuesIn(sides),
                         [](const auto& row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(sides, every_refused_update, ::testing::ValuesIn(sides),
                         [](const auto& row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(sides, update_after_a_refused_promotion, ::testing::ValuesIn(sides),
                         [](const auto& row) { return row.param.name; });

// ---- VRF ----

class vrf_update : public api_fixture {};

TEST_F(vrf_update, moves_both_sides_and_leaves_a_level_of_the_lock) {
    const zon_fid_t fid = udp_flow(1000);
    const uint32_t inserts = g_zon->flow_tbl->profile_insert;
    EXPECT_EQ(zon_flow_update_vrf(fid, 12), 0);
    EXPECT_TRUE(is_locked(record_of(fid)));
    const zon_flow_tuple_t moved = tuple4(host_a, 1000, host_b, 53, udp, 12);
    EXPECT_EQ(find(moved), fid);
    EXPECT_EQ(find(reversed(moved)), fid);
    EXPECT_EQ(find(tuple4(host_a, 1000, host_b, 53)), 0u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, inserts);
    EXPECT_EQ(zon_flow_unlock(record_of(fid)->flow_lock), zon_error_none);
    EXPECT_FALSE(is_locked(record_of(fid)));
}

TEST_F(vrf_update, of_no_flow_is_0_and_changes_nothing) {
    const zon_fid_t fid = udp_flow(1000);
    EXPECT_EQ(zon_flow_update_vrf(0, 12), 0);
    EXPECT_EQ(zon_flow_update_vrf(fid + 1, 12), 0);
    EXPECT_EQ(find(tuple4(host_a, 1000, host_b, 53)), fid);
    EXPECT_FALSE(is_locked(record_of(fid)));
}

TEST(vrf_update_without_an_engine, is_0) {
    EXPECT_EQ(zon_flow_update_vrf(1, 2), 0);
}
TEST(update_without_an_engine, says_so) {
    EXPECT_EQ(zon_flow_update_initiator(1, nullptr), zon_error_engine_not_init);
    EXPECT_EQ(zon_flow_update_responder(1, nullptr), zon_error_engine_not_init);
}

// ---- threads ----

TEST_F(vrf_update, and_updates_never_let_a_lookup_miss_both_keys) {
    const zon_fid_t fid = udp_flow(1000);
    const zon_flow_tuple_t keys[] = {tuple4(host_a, 1000, host_b, 53),
                                     tuple4(host_a, 7000, host_b, 53)};
    std::atomic<int> reached = 0;
    std::atomic<bool> done = false;
    std::thread updater([&] {
        for (int round = 1; round <= 2000; ++round) {
            zon_flow_update_initiator(fid, &keys[round % 2]);
            reached = round;
        }
        done = true;
    });
    while (!done) {
        // While no update ended between the two lookups, at most one was under way: one of the keys
        // was there.
        const int before = reached;
        const bool found = find(keys[before % 2]) == fid || find(keys[(before + 1) % 2]) == fid;
        if (!found) {
            EXPECT_NE(reached, before) << "neither key was found within one update";
        }
    }
    updater.join();
    EXPECT_EQ(find(keys[0]), fid);
    EXPECT_EQ(elements(), 2u);
}

}  // namespace

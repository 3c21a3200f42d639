// zon_delete_test.cpp - the steps of a deletion, as callbacks and counters show them.

#include "api_fixture.h"
#include "osal/zon_timer.h"
#include "zon_api/zon_api_internal.h"
#include "zon_super_ctx.h"

using namespace zon_test;

namespace {

class deletion : public api_fixture {};

constexpr auto requested = ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST;

TEST_F(deletion, runs_once_for_the_same_flow) {
    new_client();
    const zon_fid_t fid = udp_flow(1000);
    EXPECT_TRUE(zon_delete_flow_tamonet(fid, requested));
    EXPECT_FALSE(zon_delete_flow_tamonet(fid, requested));
    EXPECT_EQ(told.size(), 1u);
}

TEST_F(deletion, is_true_and_tells_nobody_again_when_it_is_under_way) {
    new_client();
    const zon_fid_t fid = udp_flow(1000);
    while_telling = [](zon_fid_t flow) { EXPECT_TRUE(zon_delete_flow_tamonet(flow, requested)); };
    EXPECT_TRUE(zon_delete_flow_tamonet(fid, requested));
    EXPECT_EQ(told.size(), 1u);
}

TEST_F(deletion, of_a_marked_flow_only_lets_its_lock_go) {
    new_client();
    const zon_fid_t fid = udp_flow(1000);
    zon_flow_t* flow = zon_get_flow(fid);
    flow->marked_for_delete = 1;
    EXPECT_TRUE(zon_private_delete_locked_flow(flow, requested));
    EXPECT_TRUE(told.empty());
    EXPECT_FALSE(is_locked(flow));
    EXPECT_EQ(elements(), 2u);
    flow->marked_for_delete = 0;
}

TEST_F(deletion, of_no_flow_is_false) {
    EXPECT_FALSE(zon_delete_flow_tamonet(ZON_NULL_FID, requested));
    EXPECT_FALSE(zon_delete_flow_tamonet(1, requested));
}

TEST_F(deletion, of_an_identifier_above_the_capacity_stops_the_program) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zon_delete_flow_tamonet(parameters.max_flows + 1, requested),
                 "fid_is_valid\\(fid_table, fid\\)");
}

TEST(deletion_without_an_engine, is_false) {
    EXPECT_FALSE(zon_delete_flow_tamonet(1, ZON_FLOW_CLOSE_REASON_END_OF_FLOW));
}

TEST_F(deletion, tells_a_client_without_objects_three_nulls) {
    const zon_client_id_e cid = new_client();
    const zon_fid_t fid = udp_flow(1000);
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].fid, fid);
    EXPECT_EQ(told[0].initiator_fo, nullptr);
    EXPECT_EQ(told[0].responder_fo, nullptr);
    EXPECT_EQ(told[0].flow_fo, nullptr);
    EXPECT_EQ(told[0].reason, ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE);
    EXPECT_EQ(told[0].cid, cid);
}

TEST_F(deletion, tells_the_newest_client_first) {
    const zon_client_id_e older = new_client();
    const zon_client_id_e newer = new_client();
    zon_delete_flow_tamonet(udp_flow(1000), requested);
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0].cid, newer);
    EXPECT_EQ(told[1].cid, older);
}

TEST_F(deletion, hands_each_object_back_in_its_position) {
    const zon_client_id_e cid = new_client();
    const zon_fid_t fid = udp_flow(1000);
    // Each direction before the whole flow: later the directions would end in the list of the whole
    // flow.
    ASSERT_EQ(zon_flow_attach_fo(fid, cid, ZON_DIR_INITIATOR, &objects[1]), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(fid, cid, ZON_DIR_RESPONDER, &objects[2]), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(fid, cid, ZON_DIR_BI, &objects[3]), zon_error_none);
    zon_delete_flow_tamonet(fid, requested);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].initiator_fo, &objects[1]);
    EXPECT_EQ(told[0].responder_fo, &objects[2]);
    EXPECT_EQ(told[0].flow_fo, &objects[3]);
}

TEST_F(deletion, shows_a_shared_object_in_every_position_and_gives_its_record_back_once) {
    const zon_client_id_e owner = new_client();
    const zon_client_id_e other = new_client();
    const zon_fid_t fid = udp_flow(1000);
    zon_flow_attach_fo(fid, owner, ZON_DIR_BI, &objects[0]);
    zon_flow_attach_fo(fid, other, ZON_DIR_INITIATOR, &objects[1]);
    zon_flow_attach_fo(fid, other, ZON_DIR_RESPONDER, &objects[2]);
    const zon_flow_fo_t* shared = record_of(fid)->fo_list;
    const zon_flow_fo_t* of_initiator = record_of(fid)->initiator_flow->fo_list;
    ASSERT_EQ(of_initiator->next, shared);
    zon_delete_flow_tamonet(fid, requested);
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[1].cid, owner);
    EXPECT_EQ(told[1].initiator_fo, &objects[0]);
    EXPECT_EQ(told[1].responder_fo, &objects[0]);
    EXPECT_EQ(told[1].flow_fo, &objects[0]);
    EXPECT_EQ(times_handed_out(shared), 1);
    EXPECT_EQ(times_handed_out(of_initiator), 1);
}

TEST_F(deletion, gives_records_of_unregistered_clients_back_untold) {
    const zon_fid_t fid = udp_flow(1000);
    constexpr zon_client_id_e stranger = 3;
    zon_flow_attach_fo(fid, stranger, ZON_DIR_BI, &objects[0]);
    zon_flow_attach_fo(fid, 4, ZON_DIR_INITIATOR, &objects[1]);
    const zon_flow_fo_t* whole = record_of(fid)->fo_list;
    const zon_flow_fo_t* directed = record_of(fid)->initiator_flow->fo_list;
    zon_delete_flow_tamonet(fid, requested);
    EXPECT_TRUE(told.empty());
    EXPECT_EQ(times_handed_out(whole), 1);
    EXPECT_EQ(times_handed_out(directed), 1);
}

TEST_F(deletion, gives_records_back_of_a_client_without_a_callback) {
    const zon_client_id_e silent = new_client(false);
    const zon_fid_t fid = udp_flow(1000);
    zon_flow_attach_fo(fid, silent, ZON_DIR_BI, &objects[0]);
    const zon_flow_fo_t* record = record_of(fid)->fo_list;
    zon_delete_flow_tamonet(fid, requested);
    EXPECT_EQ(times_handed_out(record), 1);
}

// ---- the order of the steps ----

TEST_F(deletion, tells_clients_while_the_flow_is_whole_and_locked) {
    new_client();
    const zon_fid_t fid = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1000, host_b, 53));
    while_telling = [](zon_fid_t flow) {
        EXPECT_EQ(elements(), 2u);
        EXPECT_EQ(
            zon_private_get_incomplete_inserts(g_zon->flow_tbl, ZON_IPV4_KEY_PRE_FLOW_COMPLETE),
            2u);
        EXPECT_EQ(find(tuple4(host_a, 1000, host_b, 53)), flow);
        EXPECT_TRUE(is_locked(record_of(flow)));
        EXPECT_EQ(record_of(flow)->marked_for_delete, 1);
    };
    zon_delete_flow_tamonet(fid, requested);
    EXPECT_EQ(told.size(), 1u);
    EXPECT_EQ(elements(), 0u);
    EXPECT_EQ(zon_private_get_incomplete_inserts(g_zon->flow_tbl, ZON_IPV4_KEY_PRE_FLOW_COMPLETE),
              0u);
}

TEST_F(deletion, has_no_object_of_the_client_left_while_it_is_told) {
    const zon_client_id_e cid = new_client();
    const zon_fid_t fid = udp_flow(1000);
    zon_flow_attach_fo(fid, cid, ZON_DIR_BI, &objects[0]);
    while_telling = [](zon_fid_t flow) {
        void* fo = nullptr;
        EXPECT_EQ(zon_flow_get_fo(flow, told.back().cid, ZON_DIR_BI, &fo),
                  zon_error_feature_object_not_attached);
    };
    zon_delete_flow_tamonet(fid, requested);
    EXPECT_EQ(told.size(), 1u);
}

// A super context loses its last flow late in the deletion; its callback looks around.
int contexts_left;
void (*while_leaving)() = nullptr;
void context_left(uint32_t, zon_super_context_types_e, void**) {
    ++contexts_left;
    if (while_leaving != nullptr)
        while_leaving();
}
bool everything_is_context_7(void*, uint32_t* context) {
    *context = 7;
    return true;
}

class late_in_a_deletion : public deletion {
protected:
    void SetUp() override {
        deletion::SetUp();
        contexts_left = 0;
        ASSERT_EQ(
            zon_super_context_client_register(ZON_SUPER_CONTEXT_IDENTITY, everything_is_context_7),
            zon_error_none);
        ASSERT_EQ(zon_super_context_register_delete_cb(client, context_left), zon_error_none);
    }
    void TearDown() override {
        while_leaving = nullptr;
        deletion::TearDown();
    }
    void delete_while(zon_fid_t fid, void (*look)()) {
        ASSERT_EQ(zon_super_context_attach_fo(fid, ZON_SUPER_CONTEXT_IDENTITY, client, &objects[0]),
                  zon_error_none);
        fid_ = fid;
        while_leaving = look;
        EXPECT_TRUE(zon_delete_flow_tamonet(fid, requested));
        while_leaving = nullptr;
        EXPECT_EQ(contexts_left, 1);
    }
    static zon_fid_t fid_;
};
zon_fid_t late_in_a_deletion::fid_ = 0;

TEST_F(late_in_a_deletion, the_half_flows_are_gone_and_the_timer_is_stopped) {
    const zon_fid_t fid = udp_flow(1000);
    EXPECT_TRUE(zon_timer_running(&record_of(fid)->timer));
    delete_while(fid, [] {
        EXPECT_EQ(elements(), 0u);
        EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 0u);
        EXPECT_EQ(record_of(fid_)->initiator_flow, nullptr);
        EXPECT_EQ(record_of(fid_)->responder_flow, nullptr);
        EXPECT_FALSE(zon_timer_running(&record_of(fid_)->timer));
    });
}

TEST_F(late_in_a_deletion, the_deleting_thread_still_finds_the_flow_but_no_side_of_it) {
    delete_while(udp_flow(1000), [] {
        uint32_t count = 0;
        EXPECT_EQ(zon_flow_get_packet_count(fid_, &count), zon_error_none);
        EXPECT_EQ(count, 1u);
        zon_flow_tuple_t tuple;
        EXPECT_EQ(zon_flow_get_tuple(fid_, ZON_DIR_INITIATOR, &tuple), zon_error_flow_not_found);
        EXPECT_EQ(zon_flow_attach_fo(fid_, 9, ZON_DIR_RESPONDER, &objects[0]),
                  zon_error_flow_not_found);
    });
}

TEST_F(late_in_a_deletion, no_side_is_given_to_the_flow) {
    delete_while(udp_flow(1000), [] {
        const zon_flow_tuple_t tuple = tuple4(host_b, 7000, host_a, 8000);
        EXPECT_EQ(zon_flow_update_initiator(fid_, &tuple), zon_error_flow_not_found);
        EXPECT_EQ(zon_flow_update_responder(fid_, &tuple), zon_error_flow_not_found);
    });
    EXPECT_EQ(elements(), 0u);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 0u);
}

TEST_F(late_in_a_deletion, other_threads_do_not_find_the_flow) {
    delete_while(udp_flow(1000), [] {
        std::thread([] {
            uint32_t count = 0;
            EXPECT_EQ(zon_flow_get_packet_count(fid_, &count), zon_error_flow_not_found);
            EXPECT_FALSE(zon_delete_flow_tamonet(fid_, requested));
        }).join();
    });
}

TEST_F(late_in_a_deletion, an_object_attached_by_the_deleting_thread_is_given_back) {
    static const zon_flow_fo_t* record;
    delete_while(udp_flow(1000), [] {
        EXPECT_EQ(zon_flow_attach_fo(fid_, 9, ZON_DIR_BI, &objects[0]), zon_error_none);
        record = record_of(fid_)->fo_list;
    });
    EXPECT_EQ(times_handed_out(record), 1);
}

TEST_F(late_in_a_deletion, the_children_are_orphans_and_the_tunnel_is_not_counted) {
    const bytes inner = udp6_packet(1000, 53);
    const zon_fid_t fid = handle(in_ipv4("192.0.2.1", "192.0.2.2", inner)).fid;
    ASSERT_NE(fid, 0u);
    zon_flow_t child{};
    record_of(fid)->bundle_child = &child;
    child.bundle_parent = record_of(fid);
    ASSERT_EQ(zon_private_get_active_tunnel_flows_count(g_zon->flow_tbl, ZON_TUNNEL_TYPE_IPV6INIP),
              1u);
    delete_while(fid, [] {
        EXPECT_EQ(record_of(fid_)->bundle_child, nullptr);
        EXPECT_EQ(
            zon_private_get_active_tunnel_flows_count(g_zon->flow_tbl, ZON_TUNNEL_TYPE_IPV6INIP),
            0u);
    });
    EXPECT_EQ(child.bundle_parent, nullptr);
}

TEST_F(deletion, leaves_a_marked_record_without_a_slot_and_counts_one_removal) {
    const zon_fid_t fid = udp_flow(1000);
    zon_flow_t* flow = record_of(fid);
    const uint32_t removals = g_zon->flow_tbl->profile_delete;
    zon_delete_flow_tamonet(fid, requested);
    EXPECT_EQ(record_of(fid), nullptr);
    EXPECT_EQ(flow->marked_for_delete, 1);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, removals + 1);
    EXPECT_FALSE(is_locked(flow));
}

TEST_F(deletion, by_a_holder_of_the_lock_leaves_the_holder_its_level) {
    zon_fid_t fid = udp_flow(1000);
    const zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
    zon_lock_t lock = nullptr;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
              zon_error_none);
    zon_flow_t* flow = record_of(fid);
    EXPECT_TRUE(zon_delete_flow_tamonet(fid, requested));
    EXPECT_TRUE(is_locked(flow));
    zon_flow_unlock(lock);
    EXPECT_FALSE(is_locked(flow));
}

TEST_F(deletion, of_a_teredo_flow_lowers_its_own_count) {
    const bytes inner = udp6_packet(1000, 53);
    const zon_fid_t fid = handle(in_teredo("192.0.2.1", "192.0.2.2", inner)).fid;
    ASSERT_EQ(zon_private_get_active_tunnel_flows_count(g_zon->flow_tbl, ZON_TUNNEL_TYPE_TEREDO),
              1u);
    zon_delete_flow_tamonet(fid, requested);
    EXPECT_EQ(zon_private_get_active_tunnel_flows_count(g_zon->flow_tbl, ZON_TUNNEL_TYPE_TEREDO),
              0u);
}

TEST_F(deletion, of_announced_flows_lowers_both_counts_and_the_flag_with_the_last) {
    const zon_flow_table_t* tbl = g_zon->flow_tbl;
    const zon_fid_t half =
        pre_flow(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, tuple4(host_a, 1000, 0, 0));
    const zon_fid_t star =
        pre_flow(ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, tuple6("2001:db8::1", 1, "2001:db8::2", 2));
    EXPECT_EQ(tbl->active_preflow_count[ZON_IPV4_KEY_SRC_IP_PORT_ONLY], 1u);
    EXPECT_EQ(tbl->active_preflow_count[ZON_IPV4_KEY_DST_IP_PORT_ONLY], 1u);
    EXPECT_EQ(tbl->active_preflow_count[ZON_IPV6_KEY_VRF_STAR], 2u);
    zon_delete_flow_tamonet(half, requested);
    EXPECT_EQ(tbl->active_preflow_count[ZON_IPV4_KEY_SRC_IP_PORT_ONLY], 0u);
    EXPECT_EQ(tbl->active_preflow_count[ZON_IPV4_KEY_DST_IP_PORT_ONLY], 0u);
    EXPECT_TRUE(tbl->has_incomplete_inserts);
    zon_delete_flow_tamonet(star, requested);
    EXPECT_EQ(tbl->active_preflow_count[ZON_IPV6_KEY_VRF_STAR], 0u);
    EXPECT_FALSE(tbl->has_incomplete_inserts);
}

// ---- half flows alone ----

TEST_F(deletion, of_half_flows_alone_tells_nobody_and_keeps_the_identifier) {
    new_client();
    const zon_fid_t fid = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1000, host_b, 53));
    locked_flow flow = locked_flow::adopt(zon_get_flow(fid));
    const uint32_t removals = g_zon->flow_tbl->profile_delete;
    zon_private_delete_half_flows(flow.get());
    EXPECT_EQ(flow->initiator_flow, nullptr);
    EXPECT_EQ(flow->responder_flow, nullptr);
    EXPECT_EQ(elements(), 0u);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, removals + 2);
    EXPECT_EQ(g_zon->flow_tbl->active_preflow_count[ZON_IPV4_KEY_PRE_FLOW_COMPLETE], 0u);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 0u);
    EXPECT_TRUE(told.empty());
    EXPECT_EQ(record_of(fid), flow.get());
}

TEST_F(deletion, of_half_flows_of_no_flow_stops_the_program) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zon_private_delete_half_flows(nullptr), "flow");
}

// ---- trace ----

TEST_F(deletion, is_traced_with_the_initiators_key) {
    const zon_fid_t fid = handle(udp_packet(1000, 53), 7).fid;
    zon_debug_flag_engine = true;
    const std::string text = traced([&] { zon_delete_flow_tamonet(fid, requested); });
    EXPECT_NE(text.find("\nDeleting fid:" + std::to_string(fid) + " "), std::string::npos) << text;
    EXPECT_NE(text.find("<10.0.0.1:1000,"), std::string::npos) << text;
    EXPECT_NE(text.find("10.0.0.2:53,"), std::string::npos) << text;
    EXPECT_NE(text.find("17,7>0\n"), std::string::npos) << text;
}

TEST_F(deletion, of_an_ipv6_flow_is_traced_with_its_words_from_the_last) {
    const zon_fid_t fid = handle(udp6_packet(1000, 53)).fid;
    zon_debug_flag_all = true;
    const std::string text = traced([&] { zon_delete_flow_tamonet(fid, requested); });
    zon_debug_flag_all = false;
    EXPECT_NE(text.find("<0:1:0:0:0:0:2001:db8:1000,"), std::string::npos) << text;
    EXPECT_NE(text.find("0:2:0:0:0:0:2001:db8:53,"), std::string::npos) << text;
    EXPECT_NE(text.find("17,0>5\n"), std::string::npos) << text;
}

TEST_F(deletion, is_not_traced_while_the_switches_are_off) {
    const zon_fid_t fid = udp_flow(1000);
    EXPECT_EQ(traced([&] { zon_delete_flow_tamonet(fid, requested); }), "");
}

}  // namespace

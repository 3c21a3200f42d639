// zon_flow_table_clients_test.cpp - a client's feature objects are taken off every flow and handed
// back.

#include <gtest/gtest.h>

#include <vector>

#include "support/engine_fixture.h"
#include "zon_flow_table.h"

namespace {

struct told {
    zon_fid_t fid;
    void* initiator;
    void* responder;
    void* flow;
    zon_flow_deletion_reason_e reason;
    zon_client_id_e client;
    bool operator==(const told&) const = default;
};
std::vector<told> deletions;
void note_deletion(zon_flow_ptr_t fid, void* initiator, void* responder, void* flow,
                   zon_flow_deletion_reason_e reason, zon_client_id_e client) {
    deletions.push_back({fid, initiator, responder, flow, reason, client});
}

class client_objects : public zon_test::engine_fixture {
protected:
    void SetUp() override {
        engine_fixture::SetUp();
        deletions.clear();
        const auto packet = zon_test::packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1000, 53);
        first = handle(packet).fid;
        second = handle(zon_test::packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1001, 53)).fid;
    }
    zon_fid_t first = 0;
    zon_fid_t second = 0;
    int object = 0;
    int other_object = 0;
};

TEST_F(client_objects, stay_when_the_client_has_no_delete_callback) {
    ASSERT_EQ(zon_flow_attach_fo(first, client, ZON_DIR_BI, &object), zon_error_none);
    EXPECT_EQ(zon_flow_table_remove_client_fo(g_zon->flow_tbl, client),
              zon_error_client_delete_cb_not_registered);
    void* found = nullptr;
    EXPECT_EQ(zon_flow_get_fo(first, client, ZON_DIR_BI, &found), zon_error_none);
    EXPECT_EQ(found, &object);
}

TEST_F(client_objects, are_handed_back_once_for_each_flow_that_has_one) {
    ASSERT_EQ(zon_client_register_delete_cb(client, note_deletion), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(first, client, ZON_DIR_INITIATOR, &object), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(first, client, ZON_DIR_RESPONDER, &other_object), zon_error_none);
    EXPECT_EQ(zon_flow_table_remove_client_fo(g_zon->flow_tbl, client), zon_error_none);
    EXPECT_EQ(deletions, (std::vector<told>{{first, &object, &other_object, nullptr,
                                             ZON_FLOW_CLOSE_REASON_CLIENT_UNREGISTERED, client}}));
    void* found = nullptr;
    EXPECT_EQ(zon_flow_get_fo(first, client, ZON_DIR_INITIATOR, &found),
              zon_error_feature_object_not_attached);
    EXPECT_EQ(zon_flow_get_fo(first, client, ZON_DIR_RESPONDER, &found),
              zon_error_feature_object_not_attached);
    deletions.clear();
    EXPECT_EQ(zon_flow_table_remove_client_fo(g_zon->flow_tbl, client), zon_error_none);
    EXPECT_TRUE(deletions.empty());
}

TEST_F(client_objects, of_a_whole_flow_and_of_other_clients_are_told_apart) {
    zon_client_id_e other = 0;
    ASSERT_EQ(zon_client_feature_register(&other), zon_error_none);
    ASSERT_EQ(zon_client_register_delete_cb(client, note_deletion), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(second, client, ZON_DIR_BI, &object), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(second, other, ZON_DIR_BI, &other_object), zon_error_none);
    EXPECT_EQ(zon_flow_table_remove_client_fo(g_zon->flow_tbl, client), zon_error_none);
    ASSERT_EQ(deletions.size(), 1U);
    EXPECT_EQ(deletions[0].fid, second);
    EXPECT_EQ(deletions[0].flow, &object);
    void* found = nullptr;
    EXPECT_EQ(zon_flow_get_fo(second, other, ZON_DIR_BI, &found), zon_error_none);
    EXPECT_EQ(found, &other_object);
}

}  // namespace

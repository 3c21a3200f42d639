// zon_preflow_objects_test.cpp - feature objects on one direction of a tuple, announced or not.

#include "src/zon_api/zon_preflow_fixture.h"

using namespace zon_test;

namespace {

constexpr const char* client_api = "\nZON Engine: ZON_ERRMSG_CLIENT_API, ";

class uni_objects : public pre_flows {
protected:
    static constexpr auto complete = ZON_FLOW_TUPLE_TYPE_COMPLETE;
};

TEST_F(uni_objects, are_checked_by_client_then_type_then_tuple_then_pointer) {
    const auto wrong = static_cast<zon_flow_tuple_type_t>(4);
    for (const zon_client_id_e cid : {0u, 32u}) {
        EXPECT_EQ(zon_uni_flow_attach_fo(cid, wrong, nullptr, nullptr),
                  zon_error_client_id_invalid);
        EXPECT_EQ(zon_uni_flow_get_fo(cid, wrong, nullptr, nullptr), zon_error_client_id_invalid);
        EXPECT_EQ(zon_uni_flow_detach_fo(cid, wrong, nullptr, nullptr),
                  zon_error_client_id_invalid);
    }
    EXPECT_EQ(zon_uni_flow_attach_fo(1, wrong, nullptr, nullptr), zon_error_invalid_tuple_type);
    EXPECT_EQ(zon_uni_flow_get_fo(1, wrong, nullptr, nullptr), zon_error_invalid_tuple_type);
    EXPECT_EQ(zon_uni_flow_detach_fo(1, wrong, nullptr, nullptr), zon_error_invalid_tuple_type);
    EXPECT_EQ(zon_uni_flow_attach_fo(1, complete, nullptr, nullptr), zon_error_flow_tuple_is_null);
    EXPECT_EQ(zon_uni_flow_get_fo(1, complete, nullptr, nullptr), zon_error_flow_tuple_is_null);
    EXPECT_EQ(zon_uni_flow_detach_fo(1, complete, nullptr, nullptr), zon_error_flow_tuple_is_null);
    EXPECT_EQ(zon_uni_flow_attach_fo(1, complete, &tuple, nullptr), zon_error_parameter_is_null);
    EXPECT_EQ(zon_uni_flow_get_fo(1, complete, &tuple, nullptr), zon_error_parameter_is_null);
    EXPECT_EQ(zon_uni_flow_detach_fo(1, complete, &tuple, nullptr), zon_error_parameter_is_null);
}

TEST_F(uni_objects, need_a_delete_callback_to_be_attached) {
    const zon_client_id_e silent = new_client(false);
    pre_flow(complete, tuple);
    zon_debug_flag_engine = true;
    EXPECT_TRUE(ends_with(traced([&] {
                              EXPECT_EQ(
                                  zon_uni_flow_attach_fo(silent, complete, &tuple, &objects[0]),
                                  zon_error_client_delete_cb_not_registered);
                          }),
                          client_api));
    zon_debug_flag_engine = false;
}

TEST_F(uni_objects, are_kept_for_the_direction_of_the_tuple) {
    const zon_client_id_e cid = new_client();
    udp_flow(2000);
    zon_flow_tuple_t announced = tuple;
    zon_flow_tuple_t ordinary = tuple4(host_a, 2000, host_b, 53);
    pre_flow(complete, announced);
    for (zon_flow_tuple_t of : {announced, ordinary}) {
        void* fo = nullptr;
        zon_flow_tuple_t other_way = reversed(of);
        EXPECT_EQ(zon_uni_flow_attach_fo(cid, complete, &of, &objects[0]), zon_error_none);
        EXPECT_EQ(zon_uni_flow_get_fo(cid, complete, &of, &fo), zon_error_none);
        EXPECT_EQ(fo, &objects[0]);
        EXPECT_EQ(zon_uni_flow_get_fo(cid, complete, &other_way, &fo),
                  zon_error_feature_object_not_attached);
        EXPECT_EQ(fo, nullptr);
        const zon_fid_t fid = find(of);
        EXPECT_EQ(zon_flow_get_fo(fid, cid, ZON_DIR_INITIATOR, &fo), zon_error_none);
        EXPECT_EQ(zon_uni_flow_attach_fo(cid, complete, &other_way, &objects[1]), zon_error_none);
        EXPECT_EQ(zon_flow_get_fo(fid, cid, ZON_DIR_RESPONDER, &fo), zon_error_none);
        EXPECT_EQ(fo, &objects[1]);
        EXPECT_EQ(zon_uni_flow_detach_fo(cid, complete, &other_way, &fo), zon_error_none);
        EXPECT_EQ(fo, &objects[1]);
        EXPECT_EQ(zon_uni_flow_detach_fo(cid, complete, &other_way, &fo),
                  zon_error_feature_object_not_attached);
        EXPECT_FALSE(is_locked(record_of(fid)));
    }
}

TEST_F(uni_objects, join_the_list_of_the_direction_without_cutting_it) {
    const zon_client_id_e first = new_client();
    const zon_client_id_e second = new_client();
    const zon_fid_t fid = pre_flow(complete, tuple);
    EXPECT_EQ(zon_uni_flow_attach_fo(first, complete, &tuple, &objects[0]), zon_error_none);
    EXPECT_EQ(zon_uni_flow_attach_fo(second, complete, &tuple, &objects[1]), zon_error_none);
    EXPECT_EQ(record_of(fid)->initiator_flow->fo_list->id, second);
    EXPECT_EQ(record_of(fid)->initiator_flow->fo_list->next->id, first);
}

// The list of a direction may end in that of the whole flow.
TEST_F(uni_objects, detached_leave_every_list_that_they_are_on) {
    const zon_client_id_e of_both = new_client();
    const zon_client_id_e of_one = new_client();
    const zon_fid_t fid = pre_flow(complete, tuple);
    zon_flow_attach_fo(fid, of_both, ZON_DIR_BI, &objects[0]);
    zon_flow_attach_fo(fid, of_one, ZON_DIR_INITIATOR, &objects[1]);
    zon_flow_attach_fo(fid, of_one, ZON_DIR_RESPONDER, &objects[2]);
    void* fo = nullptr;
    EXPECT_EQ(zon_uni_flow_detach_fo(of_both, complete, &tuple, &fo), zon_error_none);
    EXPECT_EQ(fo, &objects[0]);
    const zon_flow_t* flow = record_of(fid);
    EXPECT_EQ(flow->fo_list, nullptr);
    for (const zon_half_flow_t* half : {flow->initiator_flow, flow->responder_flow}) {
        EXPECT_EQ(half->fo_list->id, of_one);
        EXPECT_EQ(half->fo_list->next, nullptr);
    }
    EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr).feature_objects, 2);
}

TEST_F(uni_objects, are_overwritten_and_missed_with_a_line_each) {
    const zon_client_id_e cid = new_client();
    pre_flow(complete, tuple);
    zon_debug_flag_engine = true;
    const auto attach = [&](void* fo) {
        EXPECT_EQ(zon_uni_flow_attach_fo(cid, complete, &tuple, fo), zon_error_none);
    };
    EXPECT_EQ(traced([&] { attach(&objects[0]); }), "");
    EXPECT_TRUE(ends_with(traced([&] { attach(&objects[1]); }),
                          "\nZON Engine: Overwrote the already attached FO with a new FO"));
    void* fo = nullptr;
    EXPECT_EQ(zon_uni_flow_get_fo(cid, complete, &tuple, &fo), zon_error_none);
    EXPECT_EQ(fo, &objects[1]);
    zon_flow_tuple_t nothing = tuple4(host_a, 5, host_b, 6);
    zon_flow_tuple_t other_way = reversed(tuple);
    EXPECT_TRUE(ends_with(traced([&] {
                              EXPECT_EQ(
                                  zon_uni_flow_attach_fo(cid, complete, &nothing, &objects[0]),
                                  zon_error_flow_not_found);
                          }),
                          client_api));
    EXPECT_TRUE(ends_with(traced([&] {
                              EXPECT_EQ(zon_uni_flow_get_fo(cid, complete, &nothing, &fo),
                                        zon_error_flow_not_found);
                          }),
                          client_api));
    EXPECT_TRUE(ends_with(traced([&] {
                              EXPECT_EQ(zon_uni_flow_detach_fo(cid, complete, &nothing, &fo),
                                        zon_error_flow_not_found);
                          }),
                          client_api));
    EXPECT_TRUE(ends_with(traced([&] {
                              EXPECT_EQ(zon_uni_flow_get_fo(cid, complete, &other_way, &fo),
                                        zon_error_feature_object_not_attached);
                          }),
                          client_api));
    EXPECT_TRUE(ends_with(traced([&] {
                              EXPECT_EQ(zon_uni_flow_detach_fo(cid, complete, &other_way, &fo),
                                        zon_error_feature_object_not_attached);
                          }),
                          client_api));
    zon_debug_flag_engine = false;
}

}  // namespace

// zon_preflow_test.cpp - announced flows: made, found, deleted, and announced by many threads.

#include <barrier>

#include "osal/zon_timer.h"
#include "src/zon_api/zon_preflow_fixture.h"
#include "zon_api/zon_api_internal.h"

using namespace zon_test;

namespace {

TEST(pre_flows_without_an_engine, say_so) {
    zon_fid_t fid = 0;
    void* fo = nullptr;
    zon_flow_tuple_t tuple{};
    EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, nullptr),
              zon_error_engine_not_init);
    EXPECT_EQ(zon_pre_flow_delete_using_flow_tuple(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple),
              zon_error_engine_not_init);
    EXPECT_EQ(zon_uni_flow_attach_fo(1, ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fo),
              zon_error_engine_not_init);
    EXPECT_EQ(zon_uni_flow_get_fo(1, ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fo),
              zon_error_engine_not_init);
    EXPECT_EQ(zon_uni_flow_detach_fo(1, ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fo),
              zon_error_engine_not_init);
}

struct announcement {
    bool is_ipv6;
    zon_flow_tuple_type_t type;
    uint32_t initiator;
    uint32_t responder;
};

class every_announcement : public pre_flows, public ::testing::WithParamInterface<announcement> {};

TEST_P(every_announcement, makes_two_half_flows_of_the_types_of_the_table_and_counts_them) {
    const announcement& row = GetParam();
    if (row.is_ipv6)
        tuple = tuple6("2001:db8::1", 1000, "2001:db8::2", 53);
    const zon_fid_t fid = pre_flow(row.type, tuple);
    ASSERT_NE(fid, 0u);
    const zon_flow_t* flow = record_of(fid);
    EXPECT_EQ(flow->initiator_flow->key.key_type, row.initiator);
    EXPECT_EQ(flow->responder_flow->key.key_type, row.responder);
    EXPECT_EQ(flow->initiator_flow->flow, flow);
    EXPECT_EQ(flow->responder_flow->flow, flow);
    EXPECT_EQ(flow->l4state.tcp_state, ZON_TCP_LISTEN);
    EXPECT_EQ(flow->age_ms, 0u);
    EXPECT_EQ(flow->bundle_parent, nullptr);
    EXPECT_TRUE(zon_timer_running(&flow->timer));
    EXPECT_FALSE(is_locked(flow));
    for (uint32_t type = 0; type < ZON_MAX_KEY; ++type)
        EXPECT_EQ(count(type),
                  static_cast<uint32_t>((type == row.initiator) + (type == row.responder)))
            << type;
    EXPECT_TRUE(g_zon->flow_tbl->has_incomplete_inserts);
    EXPECT_EQ(elements(), 2u);

    zon_flow_tuple_t responder{};
    EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_RESPONDER, &responder), zon_error_none);
    EXPECT_EQ(responder.src_port, 53);
    EXPECT_EQ(responder.dst_port, 1000);
    EXPECT_EQ(pre_flow(row.type, tuple), fid);
    EXPECT_EQ(elements(), 2u);

    EXPECT_EQ(zon_pre_flow_delete_using_flow_tuple(row.type, &tuple), zon_error_none);
    EXPECT_EQ(elements(), 0u);
    EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
    EXPECT_EQ(zon_pre_flow_delete_using_flow_tuple(row.type, &tuple), zon_error_flow_not_found);
}

INSTANTIATE_TEST_SUITE_P(
    rows, every_announcement,
    ::testing::Values(announcement{false, ZON_FLOW_TUPLE_TYPE_COMPLETE, 3, 3},
                      announcement{false, ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, 2, 1},
                      announcement{false, ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, 1, 2},
                      announcement{false, ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, 4, 4},
                      announcement{true, ZON_FLOW_TUPLE_TYPE_COMPLETE, 8, 8},
                      announcement{true, ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, 7, 6},
                      announcement{true, ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, 6, 7},
                      announcement{true, ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, 9, 9}));

TEST_F(pre_flows, of_an_existing_flow_return_that_flow) {
    const zon_fid_t ordinary = udp_flow(1000);
    EXPECT_EQ(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple), ordinary);
    EXPECT_EQ(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, reversed(tuple)), ordinary);
    EXPECT_EQ(elements(), 2u);
    EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
}

TEST_F(pre_flows, found_again_keep_the_parent_that_they_have_or_have_not) {
    const zon_fid_t parent = udp_flow(900);
    const zon_fid_t other = udp_flow(901);
    const zon_fid_t ordinary = udp_flow(902);
    const zon_fid_t announced = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple, parent);
    const zon_fid_t orphan = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2));
    EXPECT_EQ(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple, other), announced);
    EXPECT_EQ(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2), other), orphan);
    EXPECT_EQ(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 902, host_b, 53), other),
              ordinary);
    EXPECT_EQ(record_of(announced)->bundle_parent, record_of(parent));
    EXPECT_EQ(record_of(orphan)->bundle_parent, nullptr);
    EXPECT_EQ(record_of(ordinary)->bundle_parent, nullptr);
}

TEST_F(pre_flows, found_at_the_insertion_are_returned_instead) {
    const zon_fid_t parent = udp_flow(900);
    const zon_fid_t ordinary = udp_flow(1000);
    zon_any_key_t key;
    ASSERT_TRUE(zon_build_key(&key, ZON_IPV4_KEY_PRE_FLOW_COMPLETE, &tuple));
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    EXPECT_EQ(zon_private_insert_incomplete_tuple(&key.head, parent, &fid, &lock), zon_error_none);
    EXPECT_EQ(fid, ordinary);
    EXPECT_EQ(record_of(ordinary)->bundle_parent, nullptr);
    EXPECT_EQ(lock, record_of(ordinary)->flow_lock);
    EXPECT_TRUE(is_locked(record_of(ordinary)));
    zon_flow_unlock(lock);
    EXPECT_EQ(elements(), 4u);
    EXPECT_EQ(count(ZON_IPV4_KEY_PRE_FLOW_COMPLETE), 0u);
}

TEST_F(pre_flows, of_another_family_are_nothing_to_do) {
    tuple.src_ip.addr_type = static_cast<zon_ip_addr_e>(0);
    zon_fid_t fid = 7;
    zon_lock_t lock = &fid;
    EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, &lock),
              zon_error_none);
    EXPECT_EQ(fid, 0u);
    EXPECT_EQ(lock, nullptr);
    EXPECT_EQ(zon_pre_flow_delete_using_flow_tuple(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple),
              zon_error_flow_not_found);
}

TEST_F(pre_flows, come_back_locked_when_there_is_a_place_for_the_lock) {
    for (int made_or_found = 0; made_or_found < 2; ++made_or_found) {
        zon_fid_t fid = 0;
        zon_lock_t lock = nullptr;
        ASSERT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, &lock),
                  zon_error_none);
        EXPECT_EQ(lock, record_of(fid)->flow_lock);
        EXPECT_TRUE(is_locked(record_of(fid)));
        zon_flow_unlock(lock);
        EXPECT_FALSE(is_locked(record_of(fid)));
    }
}

TEST_F(pre_flows, have_the_parent_that_is_there) {
    const zon_fid_t parent = udp_flow(900);
    const zon_fid_t fid = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple, parent);
    EXPECT_EQ(record_of(fid)->bundle_parent, record_of(parent));
    EXPECT_EQ(record_of(parent)->bundle_child, nullptr);
    EXPECT_FALSE(is_locked(record_of(parent)));
    const zon_fid_t orphan =
        pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2), 500);
    EXPECT_NE(orphan, 0u);
    EXPECT_EQ(record_of(orphan)->bundle_parent, nullptr);
}

TEST_F(pre_flows, with_a_parent_above_the_capacity_stop_the_program) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple, parameters.max_flows + 1),
                 "fid_is_valid\\(fid_table, fid\\)");
}

TEST_F(pre_flows, age_out_on_the_time_of_announced_flows) {
    new_client();
    const zon_fid_t fid = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple);
    advance_ms(parameters.pre_flow_timer - 1);
    EXPECT_NE(record_of(fid), nullptr);
    advance_ms(32);
    EXPECT_EQ(record_of(fid), nullptr);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].reason, ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT);
}

class pre_flows_without_a_time : public pre_flows {
protected:
    pre_flows_without_a_time() { parameters.pre_flow_timer = 0; }
};

TEST_F(pre_flows_without_a_time, age_out_after_1024_ms) {
    const zon_fid_t fid = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple);
    advance_ms(1023);
    EXPECT_NE(record_of(fid), nullptr);
    advance_ms(32);
    EXPECT_EQ(record_of(fid), nullptr);
}

TEST_F(pre_flows, are_promoted_by_their_first_packet) {
    const zon_fid_t fid = pre_flow(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, tuple4(0, 0, host_b, 53));
    const packet_result result = handle(udp_packet(1000, 53));
    EXPECT_EQ(result.fid, fid);
    EXPECT_EQ(result.indications.was_promoted, 1);
    EXPECT_EQ(find(tuple), fid);
    EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
}

// ---- deletion by tuple ----

TEST_F(pre_flows, are_deleted_by_tuple_for_the_clients_request) {
    new_client();
    pre_flow(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, tuple);
    const zon_flow_tuple_t other_way = reversed(tuple);
    EXPECT_EQ(
        zon_pre_flow_delete_using_flow_tuple(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, &other_way),
        zon_error_none);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].reason, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(elements(), 0u);
}

TEST_F(pre_flows, deletion_leaves_an_ordinary_flow_alone_and_locked) {
    const zon_fid_t ordinary = udp_flow(1000);
    EXPECT_EQ(zon_pre_flow_delete_using_flow_tuple(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple),
              zon_error_flow_not_found);
    EXPECT_EQ(find(tuple), ordinary);
    EXPECT_TRUE(is_locked(record_of(ordinary)));
    zon_flow_unlock(record_of(ordinary)->flow_lock);
    EXPECT_FALSE(is_locked(record_of(ordinary)));
}

// ---- threads ----

TEST_F(pre_flows, announced_by_many_threads_at_once_are_one_flow) {
    constexpr int threads = 4;
    constexpr uint16_t tuples = 100;
    std::barrier start(threads);
    std::vector<std::vector<zon_fid_t>> seen(threads);
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t)
        running.emplace_back([&, t] {
            for (uint16_t port = 0; port < tuples; ++port) {
                start.arrive_and_wait();
                const zon_flow_tuple_t of = tuple4(host_a, port, host_b, 53);
                zon_fid_t fid = 0;
                // One of the threads carries the first packet instead.
                if (t == 0)
                    fid = handle(udp_packet(port, 53)).fid;
                else
                    zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &of, 0, &fid, nullptr);
                seen[static_cast<size_t>(t)].push_back(fid);
            }
        });
    for (std::thread& thread : running)
        thread.join();
    for (int t = 1; t < threads; ++t)
        EXPECT_EQ(seen[static_cast<size_t>(t)], seen[0]);
    EXPECT_EQ(elements(), 2u * tuples);
    EXPECT_EQ(count(ZON_IPV4_KEY_PRE_FLOW_COMPLETE), 0u);
}

}  // namespace

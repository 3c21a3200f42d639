// zon_preflow_test.cpp - announced flows: made, found, refused, deleted, and objects on one
// direction of a tuple.

#include <atomic>
#include <barrier>

#include "api_fixture.h"
#include "osal/zon_timer.h"
#include "zon_api/zon_api_internal.h"

using namespace zon_test;

namespace {

bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}
constexpr const char* client_api = "\nZON Engine: ZON_ERRMSG_CLIENT_API, ";

class pre_flows : public api_fixture {
protected:
    static uint32_t count(uint32_t key_type) {
        return g_zon->flow_tbl->active_preflow_count[key_type];
    }
    zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
};

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

// ---- no memory ----

TEST_F(pre_flows, without_a_record_are_refused_and_leave_nothing) {
    usage_may_drift = true;
    const uint32_t errors = g_zon->error_stats.flow_alloc_errors;
    const uint32_t usage = g_zon->memory_usage_stats.ipv4_half_flow_alloc_count;
    const uint32_t chunk = std::exchange(g_zon->fid_table->chunk_size, 0u);
    zon_flow_t* free_records = std::exchange(g_zon->fid_table->free_head, nullptr);
    zon_fid_t fid = 7;
    zon_debug_flag_engine = true;
    const std::string text = traced([&] {
        EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, nullptr),
                  zon_error_memory);
    });
    zon_debug_flag_engine = false;
    EXPECT_TRUE(ends_with(text, "\nZON Engine: ZON_ERRMSG_NO_MEMORY, ")) << text;
    EXPECT_EQ(fid, 0u);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, errors + 1);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, usage);
    EXPECT_EQ(elements(), 0u);
    EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
    g_zon->fid_table->chunk_size = chunk;
    g_zon->fid_table->free_head = free_records;
}

class pre_flows_of_little_memory : public pre_flows {
protected:
    pre_flows_of_little_memory() {
        parameters.max_mem_buffer_init = 1;
        usage_may_drift = true;
    }
    static void expect_refusal(const zon_flow_tuple_t& of, zon_fid_t parent = 0) {
        zon_debug_flag_engine = true;
        const std::string text = traced([&] {
            zon_fid_t fid = 7;
            zon_lock_t lock = &fid;
            EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &of, parent, &fid, &lock),
                      zon_error_memory);
            EXPECT_EQ(fid, 0u);
            EXPECT_EQ(lock, nullptr);
        });
        zon_debug_flag_engine = false;
        EXPECT_TRUE(ends_with(text, "\nZON Engine: ZON_ERRMSG_NO_MEMORY, ")) << text;
        EXPECT_TRUE(no_lock_is_held());
    }
};

// Half flows of this family come from their chunk alone.
TEST_F(pre_flows_of_little_memory, of_ipv6_are_refused_for_each_half_flow_too) {
    const zon_fid_t parent = udp_flow(900);
    for (const int half_flows_made : {0, 1}) {
        const failing_record_memory failing(half_flows_made);
        expect_refusal(tuple6("2001:db8::1", 1000, "2001:db8::2", 53), parent);
        EXPECT_TRUE(failing.has_failed());
        EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors,
                  static_cast<uint32_t>(half_flows_made + 1));
        EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr).ipv6_half_flows, 0);
    }
    EXPECT_EQ(elements(), 2u);
}

TEST_F(pre_flows_of_little_memory, are_refused_for_each_half_flow_and_counted_once) {
    const vem_chunk_type chunk =
        std::exchange(g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem, nullptr);
    std::vector<zon_half_flow_t*> taken;
    const auto leave_ready = [&](int32_t ready) {
        while (zon_private_ipv4_flow_mem_buffer_count > ready) {
            taken.push_back(zon_allocate_half_flow(ZON_IPV4_KEY_COMPLETE));
            taken.back()->key.key_type = ZON_IPV4_KEY_COMPLETE;
        }
    };
    leave_ready(1);
    expect_refusal(tuple);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 1u);
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer_count, 1);
    leave_ready(0);
    expect_refusal(tuple);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 2u);
    for (zon_half_flow_t* half : taken)
        zon_deallocate_half_flow(half);
    g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem = chunk;
}

// ---- full buckets ----

class pre_flows_in_shallow_buckets : public pre_flows {
protected:
    pre_flows_in_shallow_buckets() {
        parameters.max_flows = 10;
        parameters.max_bucket_depth = 1;
    }
    static int bucket_of(zon_flow_tuple_t of) {
        int bucket = -1;
        zon_flow_lookup_tamonet(&of, &bucket);
        return bucket;
    }
    // A tuple whose initiator's and responder's buckets are, or are not, the two buckets of the
    // flow on the way.
    zon_flow_tuple_t tuple_with(bool initiator_blocked, bool responder_blocked) const {
        const int taken1 = bucket_of(tuple);
        const int taken2 = bucket_of(reversed(tuple));
        for (uint16_t port = 2000;; ++port) {
            const zon_flow_tuple_t wanted = tuple4(host_a, port, host_b, 53);
            const int b1 = bucket_of(wanted);
            const int b2 = bucket_of(reversed(wanted));
            if (b1 != b2 && (b1 == taken1 || b1 == taken2) == initiator_blocked &&
                (b2 == taken1 || b2 == taken2) == responder_blocked)
                return wanted;
        }
    }
    void occupy() {
        // The flow that stands in the way needs two buckets of its own.
        while (bucket_of(tuple) == bucket_of(reversed(tuple)))
            ++tuple.src_port;
        ASSERT_NE(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple), 0u);
    }
    static std::string add_refused(const zon_flow_tuple_t& of, zon_fid_t parent) {
        zon_errlog = true;
        return traced([&] {
            zon_fid_t fid = 7;
            zon_lock_t lock = nullptr;
            EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &of, parent, &fid, &lock),
                      zon_error_flow_creation_prevented);
            EXPECT_EQ(fid, 0u);
            EXPECT_EQ(lock, nullptr);
        });
    }
};

std::string prevented(zon_fid_t parent) {
    return "ZON_MSG_INDEX: 3. Flow creation was prevented because of hash table bucket depth  "
           "zon_private_insert_incomplete_tuple, parent_fid::" +
           std::to_string(parent) + "\n";
}

TEST_F(pre_flows_in_shallow_buckets, are_refused_when_the_first_bucket_is_full) {
    occupy();
    const uint32_t inserts = g_zon->flow_tbl->profile_insert;
    for (const zon_fid_t parent : {0u, 1u, 9u}) {  // none, one that is there, one that is not
        const std::string text = add_refused(tuple_with(true, false), parent);
        EXPECT_TRUE(ends_with(text, prevented(parent))) << text;
    }
    EXPECT_TRUE(no_lock_is_held());
    EXPECT_EQ(elements(), 2u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, inserts);
    EXPECT_EQ(count(ZON_IPV4_KEY_PRE_FLOW_COMPLETE), 2u);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2u);
}

TEST_F(pre_flows_in_shallow_buckets,
       keep_the_place_of_the_first_half_when_the_second_bucket_is_full) {
    occupy();
    const uint32_t inserts = g_zon->flow_tbl->profile_insert;
    const uint32_t deletes = g_zon->flow_tbl->profile_delete;
    const zon_flow_tuple_t refused = tuple_with(false, true);
    const std::string text = add_refused(refused, 1);
    EXPECT_TRUE(ends_with(text, prevented(1))) << text;
    EXPECT_TRUE(no_lock_is_held());
    EXPECT_EQ(elements(), 3u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, inserts + 1);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, deletes);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2u);
    EXPECT_EQ(count(ZON_IPV4_KEY_PRE_FLOW_COMPLETE), 2u);
    EXPECT_EQ(find(refused), 0u);
    // The kept half is nobody's: the next flows do not get its buffer, and packets of the
    // connection do not find it.
    delete_all_flows();
    EXPECT_EQ(elements(), 1u);
    EXPECT_EQ(handle(udp_packet(refused.src_port, 53)).fid, 0u);
    const zon_flow_tuple_t elsewhere = tuple;
    EXPECT_NE(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, elsewhere), 0u);
    EXPECT_EQ(elements(), 3u);
    // The place stays taken until the engine goes.
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
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

// ---- objects of one direction ----

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

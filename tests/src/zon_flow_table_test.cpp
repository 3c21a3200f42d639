// zon_flow_table_test.cpp - size, inserts, lookups, deletions and counters of the flow table.

#include "zon_flow_table.h"

#include "src/zon_flow_table_fixture.h"

namespace {

using namespace zon_test;

// ---- creation ----

struct creation_row {
    uint32_t max_flows;
    int buckets;
};
class flow_table_size : public ::testing::TestWithParam<creation_row> {};

TEST_P(flow_table_size, is_the_prime_for_as_many_buckets_as_flows) {
    zon_flow_table_t* table = zon_flow_table_create(GetParam().max_flows, 4, 9);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->table->array_size, GetParam().buckets);
    EXPECT_EQ(table->table->concurrency_level, 4);
    EXPECT_EQ(table->table->max_bucket_depth, 9);
    EXPECT_TRUE(table->table->is_fixed_size);
    EXPECT_EQ(zon_flow_table_num_elements(table), 0U);
    EXPECT_FALSE(zon_private_has_incomplete_inserts(table));
    zon_flow_table_destroy(table);
}

INSTANTIATE_TEST_SUITE_P(rows, flow_table_size,
                         ::testing::Values(creation_row{0, 13}, creation_row{13, 13},
                                           creation_row{14, 29}, creation_row{5000, 6719},
                                           creation_row{6719, 6719}, creation_row{6720, 19219}),
                         [](const auto& row) {
                             return "of_" + std::to_string(row.param.max_flows);
                         });

// ---- insert and lookup ----

TEST_F(flow_table, keeps_the_level_of_the_flow_lock_through_inserts) {
    two_sided& made = make();
    EXPECT_TRUE(zon_flow_table_insert(table, made.initiator()));
    EXPECT_EQ(made.lock_levels(), 1);
    EXPECT_TRUE(zon_flow_table_insert_direct(table, made.responder(), bucket_of(made.responder())));
    EXPECT_EQ(made.lock_levels(), 1);
    EXPECT_EQ(table->profile_insert, 2U);
    EXPECT_EQ(zon_flow_table_num_elements(table), 2U);
}

TEST_F(flow_table, hands_a_found_flow_over_locked) {
    two_sided& made = put();
    key_record wanted;
    int bucket = -1;
    EXPECT_EQ(zon_flow_table_lookup(table, wanted.half(), &bucket), made.initiator());
    EXPECT_EQ(bucket, bucket_of(wanted.half()));
    EXPECT_EQ(made.lock_levels(), 2);
    zon_unlock_internal(made.flow()->flow_lock);
}

TEST_F(flow_table, finds_both_directions_of_a_flow) {
    two_sided& made = put();
    key_record reply;
    zon_swap_key(&reply.key());
    EXPECT_EQ(find(key_fields{}), made.initiator());
    EXPECT_EQ(find(reply.half()), made.responder());
}

TEST_F(flow_table, reports_the_bucket_of_a_key_that_it_does_not_hold) {
    key_record wanted;
    int bucket = -1;
    EXPECT_EQ(find(key_fields{}, &bucket), nullptr);
    EXPECT_EQ(bucket, bucket_of(wanted.half()));
}

TEST_F(flow_table, tells_flows_of_one_bucket_apart_by_vrf_and_protocol) {
    key_fields other_vrf;
    other_vrf.vrf_id = 1;
    key_fields other_protocol;
    other_protocol.protocol = 17;
    two_sided& plain = put();
    two_sided& in_vrf = put(other_vrf);
    two_sided& udp = put(other_protocol);
    EXPECT_EQ(find(key_fields{}), plain.initiator());
    EXPECT_EQ(find(other_vrf), in_vrf.initiator());
    EXPECT_EQ(find(other_protocol), udp.initiator());
}

TEST_F(flow_table, at_depth_one_refuses_a_second_flow_in_a_bucket_and_still_finds_the_first) {
    create(1);
    two_sided& first = make();
    EXPECT_TRUE(zon_flow_table_insert(table, first.initiator()));
    two_sided& second = make(with_forward_bucket(bucket_of(first.initiator()), {}));
    EXPECT_FALSE(zon_flow_table_insert(table, second.initiator()));
    EXPECT_EQ(second.lock_levels(), 1);
    EXPECT_FALSE(
        zon_flow_table_insert_direct(table, second.initiator(), bucket_of(second.initiator())));
    EXPECT_EQ(second.lock_levels(), 1);
    EXPECT_EQ(find(key_fields{}), first.initiator());
    EXPECT_EQ(table->profile_insert, 1U);
    EXPECT_EQ(zon_flow_table_num_elements(table), 1U);
}

TEST_F(flow_table, finds_a_complete_key_without_a_supplied_hash_and_not_with_a_wrong_one) {
    two_sided& made = put();
    key_record wanted;
    wanted.key().hash_value = zon_hash_calc(wanted.half(), nullptr) + 1;
    wanted.key().hash_valid = 0;
    EXPECT_EQ(find(wanted.half()), made.initiator());
    wanted.key().hash_valid = 1;
    EXPECT_EQ(find(wanted.half()), nullptr);
}

TEST_F(flow_table, finds_a_key_that_was_stored_under_a_supplied_hash_by_that_hash_only) {
    two_sided& made = make();
    made.initiator()->key.hash_value = zon_hash_calc(made.initiator(), nullptr) + 1;
    made.initiator()->key.hash_valid = 1;
    ASSERT_TRUE(zon_flow_table_insert(table, made.initiator()));
    EXPECT_EQ(find(key_fields{}), nullptr);
    key_record wanted;
    wanted.key().hash_value = made.initiator()->key.hash_value;
    wanted.key().hash_valid = 1;
    EXPECT_EQ(find(wanted.half()), made.initiator());
}

TEST_F(flow_table, answers_a_destination_only_key_of_any_protocol_and_vrf) {
    constexpr uint32_t types[] = {ZON_IPV4_KEY_DST_IP_PORT_ONLY, ZON_IPV6_KEY_DST_IP_PORT_ONLY};
    for (const uint32_t type : types) {
        key_fields announced;
        announced.type = type;
        two_sided& made = put(announced);
        key_fields wanted = announced;
        wanted.protocol = 17;
        wanted.vrf_id = 4711;
        wanted.src_ip = {9, 9, 9, 9};
        wanted.src_port = 1;
        EXPECT_EQ(find(wanted), made.initiator()) << key_type_name(type);
        wanted.dst_port = 81;
        EXPECT_EQ(find(wanted), nullptr) << key_type_name(type);
    }
}

TEST_F(flow_table, does_not_find_a_flow_in_deletion) {
    two_sided& made = put();
    made.flow()->private_dying = 1;
    EXPECT_EQ(find(key_fields{}), nullptr);
}

TEST(flow_table_that_is_missing, refuses_everything_and_does_nothing) {
    key_record record;
    EXPECT_FALSE(zon_flow_table_insert(nullptr, record.half()));
    EXPECT_FALSE(zon_flow_table_insert_direct(nullptr, record.half(), 0));
    int bucket = -1;
    EXPECT_EQ(zon_flow_table_lookup(nullptr, record.half(), &bucket), nullptr);
    EXPECT_EQ(bucket, -1);
    EXPECT_FALSE(zon_flow_table_delete(nullptr, record.half(), true));
    EXPECT_FALSE(zon_flow_table_delete_full_flow(nullptr, record.half(), record.half(), true));
    EXPECT_EQ(zon_flow_table_num_elements(nullptr), 0U);
    EXPECT_EQ(zon_flow_table_is_available(nullptr), zon_error_flow_table_access_failed);
    zon_flow_table_t without_set{};
    EXPECT_FALSE(zon_flow_table_insert(&without_set, record.half()));
    EXPECT_EQ(zon_flow_table_lookup(&without_set, record.half(), &bucket), nullptr);
    EXPECT_FALSE(zon_flow_table_delete(&without_set, record.half(), true));
    EXPECT_EQ(zon_flow_table_num_elements(&without_set), 0U);
}

// ---- delete ----

TEST_F(flow_table, counts_each_half_flow_that_is_deleted_singly_and_a_whole_flow_once) {
    two_sided& made = put();
    EXPECT_TRUE(zon_flow_table_delete(table, made.initiator(), true));
    EXPECT_TRUE(zon_flow_table_delete(table, made.responder(), false));
    EXPECT_EQ(table->profile_delete, 2U);
    two_sided& other = put();
    EXPECT_TRUE(zon_flow_table_delete_full_flow(table, other.initiator(), other.responder(), true));
    EXPECT_EQ(table->profile_delete, 3U);
    EXPECT_EQ(zon_flow_table_num_elements(table), 0U);
    EXPECT_EQ(find(key_fields{}), nullptr);
}

TEST_F(flow_table, leaves_no_lock_behind_a_deletion) {
    two_sided& made = put();
    zon_flow_table_delete(table, made.initiator(), true);
    EXPECT_EQ(levels_held(table->flow_table_lock), 0);
    EXPECT_EQ(made.lock_levels(), 1);
}

TEST_F(flow_table, counts_but_does_not_unlink_half_flows_that_are_outside) {
    two_sided& inside = put();
    two_sided& outside = make();  // its headers have no link back
    EXPECT_TRUE(zon_flow_table_delete(table, outside.initiator(), true));
    EXPECT_TRUE(
        zon_flow_table_delete_full_flow(table, outside.initiator(), outside.responder(), true));
    EXPECT_EQ(table->profile_delete, 2U);
    EXPECT_EQ(zon_flow_table_num_elements(table), 2U);
    EXPECT_EQ(find(key_fields{}), inside.initiator());
}

TEST_F(flow_table, unlinks_the_one_half_of_a_flow_that_is_inside) {
    two_sided& half_inside = make();
    ASSERT_TRUE(zon_flow_table_insert(table, half_inside.responder()));
    EXPECT_TRUE(zon_flow_table_delete_full_flow(table, half_inside.initiator(),
                                                half_inside.responder(), false));
    EXPECT_EQ(zon_flow_table_num_elements(table), 0U);
    two_sided& other_half = make();
    ASSERT_TRUE(zon_flow_table_insert(table, other_half.initiator()));
    EXPECT_TRUE(zon_flow_table_delete_full_flow(table, other_half.initiator(),
                                                other_half.responder(), false));
    EXPECT_EQ(zon_flow_table_num_elements(table), 0U);
}

// ---- statistics and counters ----

struct table_statistics {
    int32_t size = -1, used = -1, empty = -1, occupied = -1, average = -1, maximum = -1;
    uint32_t inserts = 99, deletes = 99, aged = 99;
    int32_t* preflows = nullptr;
};
table_statistics statistics_of(zon_flow_table_t* table) {
    table_statistics seen;
    zon_flow_table_statistics(table, &seen.size, &seen.used, &seen.empty, &seen.occupied,
                              &seen.average, &seen.maximum, &seen.inserts, &seen.deletes,
                              &seen.aged, nullptr, &seen.preflows);
    return seen;
}

TEST_F(flow_table, reports_its_statistics_and_the_live_counts_of_announced_keys) {
    two_sided& made = put();
    zon_flow_table_delete(table, made.initiator(), true);
    table->profile_passively_aged = 5;
    const table_statistics seen = statistics_of(table);
    EXPECT_EQ(seen.size, 13);
    EXPECT_EQ(seen.used, 1);
    EXPECT_EQ(seen.empty, 12);
    EXPECT_EQ(seen.occupied, 1);
    EXPECT_EQ(seen.average, 1);
    EXPECT_EQ(seen.maximum, 1);
    EXPECT_EQ(seen.inserts, 2U);
    EXPECT_EQ(seen.deletes, 1U);
    EXPECT_EQ(seen.aged, 5U);
    EXPECT_FALSE(table->in_use);
    ASSERT_EQ(static_cast<void*>(seen.preflows), table->active_preflow_count);
}

TEST_F(flow_table, clears_the_three_profile_counters_only) {
    put();
    table->profile_delete = 7;
    table->profile_passively_aged = 8;
    zon_private_increment_incomplete_inserts(table, 3);
    zon_private_increment_active_tunnel_flows(table, ZON_TUNNEL_TYPE_TEREDO);
    zon_flow_table_statistics_clear(table);
    EXPECT_EQ(table->profile_insert, 0U);
    EXPECT_EQ(table->profile_delete, 0U);
    EXPECT_EQ(table->profile_passively_aged, 0U);
    EXPECT_EQ(zon_private_get_incomplete_inserts(table, 3), 1U);
    EXPECT_EQ(zon_private_get_active_tunnel_flows_count(table, ZON_TUNNEL_TYPE_TEREDO), 1U);
}

TEST(flow_table_that_is_missing, has_no_statistics) {
    const table_statistics seen = statistics_of(nullptr);
    EXPECT_EQ(seen.size, -1);
    EXPECT_EQ(seen.inserts, 99U);
}

constexpr uint32_t announced_types[] = {1, 2, 3, 4, 6, 7, 8, 9};

class announced_count : public flow_table, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(announced_count, keeps_the_table_probing_until_it_is_back_at_zero) {
    zon_private_increment_incomplete_inserts(table, GetParam());
    zon_private_increment_incomplete_inserts(table, GetParam());
    for (uint32_t type = 0; type < ZON_MAX_KEY; ++type)
        EXPECT_EQ(zon_private_get_incomplete_inserts(table, type), type == GetParam() ? 2U : 0U);
    EXPECT_TRUE(zon_private_has_incomplete_inserts(table));
    zon_private_decrement_incomplete_inserts(table, GetParam());
    EXPECT_TRUE(zon_private_has_incomplete_inserts(table));
    zon_private_decrement_incomplete_inserts(table, GetParam());
    EXPECT_FALSE(zon_private_has_incomplete_inserts(table));
}

TEST_P(announced_count, of_one_type_is_enough_to_go_on_probing) {
    for (const uint32_t other : announced_types)
        zon_private_increment_incomplete_inserts(table, other);
    for (const uint32_t other : announced_types) {
        if (other != GetParam())
            zon_private_decrement_incomplete_inserts(table, other);
    }
    EXPECT_TRUE(zon_private_has_incomplete_inserts(table));
    zon_private_decrement_incomplete_inserts(table, GetParam());
    EXPECT_FALSE(zon_private_has_incomplete_inserts(table));
}

INSTANTIATE_TEST_SUITE_P(key_types, announced_count, ::testing::ValuesIn(announced_types),
                         [](const auto& row) { return key_type_name(row.param); });

TEST_F(flow_table, counts_tunnelled_flows_by_tunnel_and_others_not_at_all) {
    for (const zon_tunnel_type_e none : {ZON_TUNNEL_TYPE_NONE, ZON_TUNNEL_TYPE_MAX}) {
        zon_private_increment_active_tunnel_flows(table, none);
        EXPECT_EQ(zon_private_get_active_tunnel_flows_count(table, none), 0U);
        EXPECT_FALSE(zon_private_has_active_tunnel_flows(table, none));
    }
    zon_private_increment_active_tunnel_flows(table, ZON_TUNNEL_TYPE_IPV6INIP);
    zon_private_increment_active_tunnel_flows(table, ZON_TUNNEL_TYPE_IPV6INIP);
    zon_private_increment_active_tunnel_flows(table, ZON_TUNNEL_TYPE_TEREDO);
    EXPECT_EQ(table->active_tunnel_flows_count.active_ipv6inip_flows_count, 2U);
    EXPECT_EQ(table->active_tunnel_flows_count.active_teredo_flows_count, 1U);
    zon_private_decrement_active_tunnel_flows(table, ZON_TUNNEL_TYPE_IPV6INIP);
    zon_private_decrement_active_tunnel_flows(table, ZON_TUNNEL_TYPE_TEREDO);
    zon_private_decrement_active_tunnel_flows(table, ZON_TUNNEL_TYPE_NONE);
    EXPECT_TRUE(zon_private_has_active_tunnel_flows(table, ZON_TUNNEL_TYPE_IPV6INIP));
    EXPECT_FALSE(zon_private_has_active_tunnel_flows(table, ZON_TUNNEL_TYPE_TEREDO));
}

}  // namespace

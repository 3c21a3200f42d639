// zon_tuple_lookup_test.cpp - flows found by tuple, and the lock that comes with them.

#include <array>

#include "api_fixture.h"
#include "support/flow_reader.h"
#include "support/lock_level.h"
#include "zon_api/zon_api_internal.h"

using namespace zon_test;

namespace {

class tuple_lookup : public api_fixture {};

TEST(tuple_lookup_without_an_engine, says_so) {
    EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, nullptr, nullptr, nullptr),
              zon_error_engine_not_init);
    zon_flow_tuple_t tuple = tuple4(host_a, 1, host_b, 2);
    int bucket = 0;
    EXPECT_EQ(zon_flow_lookup_tamonet(&tuple, &bucket), 0);
}

TEST_F(tuple_lookup, checks_the_type_then_the_tuple_then_the_fid) {
    zon_fid_t fid = 5;
    int untouched = 0;
    zon_lock_t lock = &untouched;
    const zon_flow_tuple_t tuple = tuple4(host_a, 1, host_b, 2);
    for (const int type : {-1, 4})
        EXPECT_EQ(
            zon_flow_find_and_lock(static_cast<zon_flow_tuple_type_t>(type), nullptr, &fid, &lock),
            zon_error_invalid_tuple_type);
    EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, nullptr, nullptr, &lock),
              zon_error_flow_tuple_is_null);
    EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, nullptr, &lock),
              zon_error_parameter_is_null);
    EXPECT_EQ(fid, 5u);
    EXPECT_EQ(lock, &untouched);
}

TEST_F(tuple_lookup, clears_its_outputs_on_a_miss_and_for_an_unknown_family) {
    for (const int family : {10, 11, 0, 12}) {
        zon_flow_tuple_t tuple = tuple4(host_a, 1, host_b, 2);
        tuple.src_ip.addr_type = static_cast<zon_ip_addr_e>(family);
        zon_fid_t fid = 5;
        zon_lock_t lock = &fid;
        EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
                  zon_error_flow_not_found)
            << "family " << family;
        EXPECT_EQ(fid, 0u);
        EXPECT_EQ(lock, nullptr);
    }
}

TEST_F(tuple_lookup, returns_with_the_flow_locked_until_it_is_unlocked) {
    const zon_fid_t made = udp_flow(1000);
    const zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
    for (const zon_flow_tuple_t& direction : {tuple, reversed(tuple)}) {
        zon_fid_t fid = 0;
        zon_lock_t lock = nullptr;
        ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &direction, &fid, &lock),
                  zon_error_none);
        EXPECT_EQ(fid, made);
        EXPECT_EQ(lock, record_of(fid)->flow_lock);
        EXPECT_TRUE(is_locked(record_of(fid)));
        EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
        EXPECT_FALSE(is_locked(record_of(fid)));
    }
}

TEST_F(tuple_lookup, without_a_place_for_the_lock_leaves_the_flow_locked) {
    const zon_fid_t made = udp_flow(1000);
    const zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
    zon_fid_t fid = 0;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, nullptr),
              zon_error_none);
    EXPECT_EQ(fid, made);
    EXPECT_TRUE(is_locked(record_of(fid)));
    zon_unlock_flow_tamonet(record_of(fid));
    EXPECT_FALSE(is_locked(record_of(fid)));
}

TEST_F(tuple_lookup, lets_the_holder_of_the_lock_call_other_operations) {
    const zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
    zon_fid_t fid = udp_flow(1000);
    zon_lock_t lock = nullptr;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
              zon_error_none);
    uint32_t count = 0;
    EXPECT_EQ(zon_flow_get_packet_count(fid, &count), zon_error_none);
    EXPECT_EQ(zon_flow_attach_fo(fid, 1, ZON_DIR_BI, &objects[0]), zon_error_none);
    EXPECT_TRUE(is_locked(record_of(fid)));
    zon_flow_unlock(lock);
}

TEST_F(tuple_lookup, reads_the_family_of_the_source_alone) {
    const zon_fid_t made = udp_flow(1000);
    zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
    tuple.dst_ip.addr_type = static_cast<zon_ip_addr_e>(77);
    EXPECT_EQ(find(tuple), made);
}

TEST_F(tuple_lookup, finds_ipv6_flows) {
    const zon_fid_t made = handle(udp6_packet(1000, 53)).fid;
    const zon_flow_tuple_t tuple = tuple6("2001:db8::1", 1000, "2001:db8::2", 53);
    EXPECT_EQ(find(tuple), made);
    EXPECT_EQ(find(reversed(tuple)), made);
}

TEST_F(tuple_lookup, of_a_complete_tuple_finds_an_announced_flow_unless_there_is_an_ordinary_one) {
    const std::array tuples{tuple4(host_a, 1000, host_b, 53),
                            tuple6("2001:db8::1", 1000, "2001:db8::2", 53)};
    const std::array others{udp_packet(2000, 53), udp6_packet(2000, 53)};
    for (size_t family = 0; family < tuples.size(); ++family) {
        const zon_flow_tuple_t& tuple = tuples[family];
        const zon_fid_t announced = pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple);
        EXPECT_EQ(find(tuple), announced);
        EXPECT_EQ(find(reversed(tuple)), announced);
        // An ordinary flow that is given the announced key hides the announcement while it lives.
        const zon_fid_t ordinary = handle(others[family]).fid;
        ASSERT_EQ(zon_flow_update_initiator(ordinary, &tuple), zon_error_none);
        EXPECT_EQ(find(tuple), ordinary);
        ASSERT_TRUE(zon_delete_flow_tamonet(ordinary, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        EXPECT_EQ(find(tuple), announced);
    }
}

// What the operations on tuples go through themselves.
TEST_F(tuple_lookup, inside_the_engine_locks_what_it_finds_and_takes_the_key_type_as_it_is_given) {
    const zon_fid_t ordinary = udp_flow(1000);
    zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
    const zon_half_flow_t* half = zon_find_half_flow_using_tuple(ZON_IPV4_KEY_COMPLETE, &tuple);
    ASSERT_EQ(half, record_of(ordinary)->initiator_flow);
    EXPECT_EQ(levels_held(half->flow->flow_lock), 1);
    zon_unlock_internal(half->flow->flow_lock);
    EXPECT_EQ(zon_find_half_flow_using_tuple(ZON_IPV4_KEY_VRF_STAR, &tuple), nullptr);
    tuple.src_ip.addr_type = static_cast<zon_ip_addr_e>(0);
    EXPECT_EQ(zon_find_half_flow_using_tuple(ZON_IPV4_KEY_COMPLETE, &tuple), nullptr);
    EXPECT_TRUE(no_lock_is_held());
}

TEST_F(tuple_lookup, of_a_known_source_and_of_a_known_destination_cross_over_to_the_key_types) {
    const zon_flow_tuple_t known = tuple4(host_a, 1000, 0, 0);
    const zon_fid_t announced = pre_flow(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, known);
    EXPECT_EQ(record_of(announced)->initiator_flow->key.key_type,
              uint32_t{ZON_IPV4_KEY_SRC_IP_PORT_ONLY});
    EXPECT_EQ(find(known, ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN), announced);
    EXPECT_EQ(find(reversed(known), ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN), announced);
    EXPECT_EQ(find(known, ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN), 0u);
    EXPECT_EQ(find(known, ZON_FLOW_TUPLE_TYPE_COMPLETE), 0u);
}

TEST_F(tuple_lookup, of_known_sources_and_destinations_crosses_over_with_ipv6_too) {
    const zon_flow_tuple_t known = tuple6("2001:db8::1", 1000, "::", 0);
    const zon_fid_t announced = pre_flow(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, known);
    EXPECT_EQ(record_of(announced)->initiator_flow->key.key_type,
              uint32_t{ZON_IPV6_KEY_SRC_IP_PORT_ONLY});
    EXPECT_EQ(find(known, ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN), announced);
    EXPECT_EQ(find(reversed(known), ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN), announced);
    EXPECT_EQ(find(known, ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN), 0u);
    EXPECT_EQ(find(known, ZON_FLOW_TUPLE_TYPE_COMPLETE), 0u);
}

struct mapping {
    zon_ip_addr_e family;
    zon_flow_tuple_type_t tuple_type;
    zon_key_type_t key_type;
};

class key_type_of_a_tuple : public ::testing::TestWithParam<mapping> {};

TEST_P(key_type_of_a_tuple, is_that_of_the_table) {
    zon_key_type_t key_type = ZON_MAX_KEY;
    EXPECT_EQ(zon_get_key_type(GetParam().family, GetParam().tuple_type, &key_type),
              zon_error_none);
    EXPECT_EQ(key_type, GetParam().key_type);
}

INSTANTIATE_TEST_SUITE_P(
    rows, key_type_of_a_tuple,
    ::testing::Values(
        mapping{ZON_IP_ADDR_IPV4, ZON_FLOW_TUPLE_TYPE_COMPLETE, static_cast<zon_key_type_t>(0)},
        mapping{ZON_IP_ADDR_IPV4, ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN,
                static_cast<zon_key_type_t>(2)},
        mapping{ZON_IP_ADDR_IPV4, ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN,
                static_cast<zon_key_type_t>(1)},
        mapping{ZON_IP_ADDR_IPV4, ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, static_cast<zon_key_type_t>(4)},
        mapping{ZON_IP_ADDR_IPV6, ZON_FLOW_TUPLE_TYPE_COMPLETE, static_cast<zon_key_type_t>(5)},
        mapping{ZON_IP_ADDR_IPV6, ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN,
                static_cast<zon_key_type_t>(7)},
        mapping{ZON_IP_ADDR_IPV6, ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN,
                static_cast<zon_key_type_t>(6)},
        mapping{ZON_IP_ADDR_IPV6, ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN,
                static_cast<zon_key_type_t>(9)}));

TEST(key_type_of_another_family, stays_as_it_was) {
    zon_key_type_t key_type = ZON_MAX_KEY;
    EXPECT_NE(
        zon_get_key_type(static_cast<zon_ip_addr_e>(0), ZON_FLOW_TUPLE_TYPE_COMPLETE, &key_type),
        zon_error_none);
    EXPECT_EQ(key_type, ZON_MAX_KEY);
}

TEST(key_builders, refuse_key_types_of_the_other_family) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    zon_ipv4_key_t ipv4;
    zon_ipv6_key_t ipv6;
    const uint32_t address[4] = {};
    EXPECT_DEATH(zon_set_key_ipv4(&ipv4, 5, 1, 2, 3, 4, 6, 0),
                 "\\(key_type <= ZON_IPV4_LAST_KEY\\)");
    EXPECT_DEATH(zon_set_key_ipv6(&ipv6, 4, address, address, 3, 4, 6, 0),
                 "\\(key_type >= ZON_IPV6_FIRST_KEY\\) && \\(key_type <= ZON_IPV6_LAST_KEY\\)");
    EXPECT_DEATH(zon_set_key_ipv6(&ipv6, 10, address, address, 3, 4, 6, 0),
                 "key_type <= ZON_IPV6_LAST_KEY");
}

TEST_F(tuple_lookup, probe_finds_flows_of_vrf_0_whatever_the_tuple_says_and_unlocks_them) {
    const zon_fid_t fid = udp_flow(1000);
    zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53, udp, 42);
    int bucket = -1;
    EXPECT_EQ(zon_flow_lookup_tamonet(&tuple, &bucket), 1);
    EXPECT_GE(bucket, 0);
    EXPECT_FALSE(is_locked(record_of(fid)));
}

TEST_F(tuple_lookup, probe_takes_every_tuple_for_one_of_ipv4) {
    const zon_fid_t fid = udp_flow(1000);
    for (const int family : {0, 11, 12}) {
        zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
        tuple.src_ip.addr_type = tuple.dst_ip.addr_type = static_cast<zon_ip_addr_e>(family);
        int bucket = -1;
        EXPECT_EQ(zon_flow_lookup_tamonet(&tuple, &bucket), 1) << "family " << family;
        EXPECT_FALSE(is_locked(record_of(fid)));
    }
}

TEST_F(tuple_lookup, probe_misses_other_vrfs_and_announced_flows_and_still_tells_the_bucket) {
    handle(udp_packet(1000, 53), 42);
    zon_flow_tuple_t other_vrf = tuple4(host_a, 1000, host_b, 53, udp, 42);
    int bucket = -1;
    EXPECT_EQ(zon_flow_lookup_tamonet(&other_vrf, &bucket), 0);
    EXPECT_GE(bucket, 0);
    zon_flow_tuple_t announced = tuple4(host_a, 2000, host_b, 53);
    pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, announced);
    bucket = -1;
    EXPECT_EQ(zon_flow_lookup_tamonet(&announced, &bucket), 0);
    EXPECT_GE(bucket, 0);
}

TEST(flow_unlock, of_null_is_an_error) {
    EXPECT_EQ(zon_flow_unlock(nullptr), zon_error_parameter_is_null);
}

}  // namespace

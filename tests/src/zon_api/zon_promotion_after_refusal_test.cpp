// zon_promotion_after_refusal_test.cpp - an announced flow of which one side was refused a new key
// is promoted whole.

#include "api_fixture.h"
#include "zon_api/zon_api_internal.h"

using namespace zon_test;

namespace {

class promotion_after_refusal : public api_fixture {
protected:
    promotion_after_refusal() {
        parameters.max_flows = 10;
        parameters.max_bucket_depth = 2;
    }
    void SetUp() override {
        api_fixture::SetUp();
        fid = pre_flow(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, tuple4(0, 0, host_b, 53));
        pre_flow(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, tuple4(0, 0, host_b, 54));
        bool refused = false;
        for (uint16_t port = 7000; port < 7200 && !refused; ++port) {
            const zon_flow_tuple_t to = tuple4(0, 0, host_b, port);
            refused = zon_flow_update_initiator(fid, &to) == zon_error_flow_creation_prevented;
        }
        ASSERT_TRUE(refused);
    }

    zon_fid_t fid = 0;
};

TEST_F(promotion_after_refusal, links_both_sides) {
    const packet_result r = handle(
        packet_builder::ipv4(ipv4_address(host_b), ipv4_address(host_a)).udp(53, 1000).build());
    EXPECT_EQ(r.fid, fid);
    EXPECT_EQ(r.indications.was_promoted, 1);
    EXPECT_EQ(elements(), 4u);
    EXPECT_EQ(find(tuple4(host_b, 53, host_a, 1000)), fid);
    EXPECT_EQ(find(tuple4(host_a, 1000, host_b, 53)), fid);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 4u);
    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(elements(), 2u);
}

// A side of the other family would take a packet's key, of another size, into its memory.
TEST_F(promotion_after_refusal, meets_no_side_of_another_family) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const zon_flow_tuple_t ipv6 = tuple6("2001:db8::a", 1, "2001:db8::b", 2);
    EXPECT_DEATH(zon_flow_update_initiator(fid, &ipv6), "key_type >= ZON_IPV6_FIRST_KEY");
}

}  // namespace

// zon_host_hooks_test.cpp - what the hooks do while no host has replaced them.

#include <gtest/gtest.h>

#include "osal/zon_platform.h"
#include "support/engine_fixture.h"

TEST(host_hooks, know_one_vrf_and_no_translation) {
    int packet = 0;
    EXPECT_EQ(zon_get_vrf_table_id(nullptr), 0u);
    EXPECT_EQ(zon_get_vrf_table_id(&packet), 0u);
    EXPECT_FALSE(zon_ipnat_enabled(&packet));
    EXPECT_FALSE(zon_ipnat_translation_required(&packet));
}

TEST(host_hooks, translate_nothing) {
    uint32_t src_ip = 1, dst_ip = 2;
    uint16_t src_port = 3, dst_port = 4;
    EXPECT_FALSE(zon_ipv4nat_fixup_ip_port(nullptr, &src_ip, &src_port, &dst_ip, &dst_port, 6));
    EXPECT_FALSE(
        zon_ipv4nat_get_translated_ip_port(nullptr, &src_ip, &src_port, &dst_ip, &dst_port));
    EXPECT_EQ(src_ip, 1u);
    EXPECT_EQ(src_port, 3);
    EXPECT_EQ(dst_ip, 2u);
    EXPECT_EQ(dst_port, 4);
}

TEST(host_hooks, load_no_platform_defaults) {
    EXPECT_EQ(zon_init_default_params(), zon_error_none);
}

class packet_cleanup : public zon_test::engine_fixture {};

TEST_F(packet_cleanup, of_nothing_does_nothing) {
    EXPECT_FALSE(zon_cleanup_packet(nullptr));
}

TEST_F(packet_cleanup, before_the_last_packet_leaves_the_flow_alone) {
    zon_pkt_ctx_t context{};
    context.pkt_indications =
        handle(zon_test::packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1, 2)).indications;
    ASSERT_NE(context.pkt_indications.flow, ZON_NULL_FID);
    EXPECT_FALSE(zon_cleanup_packet(&context));
    advance_ms(1100);
    EXPECT_NE(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 0u);
}

TEST_F(packet_cleanup, after_the_last_packet_lets_the_flow_leave_within_about_a_second) {
    zon_pkt_ctx_t context{};
    context.pkt_indications =
        handle(zon_test::packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1, 2)).indications;
    context.pkt_indications.lif = 1;
    EXPECT_TRUE(zon_cleanup_packet(&context));
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2u);
    advance_ms(1100);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 0u);
}

TEST_F(packet_cleanup, of_a_flow_that_has_gone_fails) {
    zon_pkt_ctx_t context{};
    context.pkt_indications =
        handle(zon_test::packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1, 2)).indications;
    context.pkt_indications.lif = 1;
    delete_all_flows();
    EXPECT_FALSE(zon_cleanup_packet(&context));
}

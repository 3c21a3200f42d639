// zon_flow_report_test.cpp - snapshots of flows, and the filter that dumps apply.

#include "src/zon_api/api_fixture.h"
#include "support/flow_reader.h"

using namespace zon_test;

namespace {

class flow_report : public api_fixture {
protected:
    static bool fill(zon_fid_t fid, zon_flow_report_t* report,
                     zon_dump_flow_context* context = nullptr) {
        const locked_flow flow = locked_flow::adopt(zon_get_flow(fid));
        return zon_debug_flow_populate_report(flow.get(), report, context);
    }
};

TEST_F(flow_report, holds_the_flow_as_it_is) {
    const zon_fid_t parent = udp_flow(900);
    const zon_fid_t fid = child_of(parent, 1001);
    zon_flow_set_application_id(fid, 44);
    zon_flow_report_t report{};
    ASSERT_TRUE(fill(fid, &report));
    EXPECT_EQ(report.fid, fid);
    EXPECT_EQ(report.l4_sess_state, ZON_L4_OPENING);
    EXPECT_EQ(report.l4_tcp_state, ZON_TCP_LISTEN);
    EXPECT_EQ(report.num_l7_bytes, 10u);
    EXPECT_EQ(report.packet_number, 1u);
    EXPECT_EQ(report.first_payload_seen_on_pkt_num, 1u);
    EXPECT_EQ(report.app_id, 44u);
    EXPECT_EQ(report.age_ms, record_of(fid)->age_ms);
    EXPECT_EQ(report.marked_for_delete, 0);
    EXPECT_EQ(report.parent_fid, parent);
    EXPECT_EQ(report.initiator_key.ipv4.src_ip, host_a);
    EXPECT_EQ(report.initiator_key.ipv4.dst_port, 2000u);
    EXPECT_EQ(report.responder_key.ipv4.src_ip, host_b);
    EXPECT_EQ(report.responder_key.ipv4.dst_port, 1001u);
}

TEST_F(flow_report, tells_of_objects_in_every_entry_alike) {
    for (const zon_flow_direction_e dir : {ZON_DIR_BI, ZON_DIR_INITIATOR, ZON_DIR_RESPONDER}) {
        const zon_fid_t fid = udp_flow(static_cast<uint16_t>(1000 + dir));
        zon_flow_report_t report{};
        ASSERT_TRUE(fill(fid, &report));
        EXPECT_EQ(std::count(std::begin(report.hasFO), std::end(report.hasFO), 0), 32);
        zon_flow_attach_fo(fid, 5, dir, &objects[0]);
        ASSERT_TRUE(fill(fid, &report));
        EXPECT_EQ(std::count(std::begin(report.hasFO), std::end(report.hasFO), 1), 32);
    }
}

TEST_F(flow_report, holds_ipv6_keys_whole) {
    const zon_fid_t fid = handle(udp6_packet(1000, 53)).fid;
    zon_flow_report_t report{};
    ASSERT_TRUE(fill(fid, &report));
    EXPECT_EQ(report.initiator_key.key.key_type, uint32_t{ZON_IPV6_KEY_COMPLETE});
    EXPECT_EQ(report.initiator_key.ipv6.src_ip[0], 0x20010db8u);
    EXPECT_EQ(report.initiator_key.ipv6.src_ip[3], 1u);
    EXPECT_EQ(report.responder_key.ipv6.dst_port, 1000u);
}

TEST_F(flow_report, counts_packets_on_from_the_first_payload) {
    const zon_fid_t fid = udp_flow(1000);
    ASSERT_EQ(udp_flow(1000), fid);
    zon_flow_report_t report{};
    ASSERT_TRUE(fill(fid, &report));
    EXPECT_EQ(report.packet_number, 2u);
    EXPECT_EQ(report.first_payload_seen_on_pkt_num, 1u);
}

TEST_F(flow_report, knows_the_responder_by_its_own_key) {
    const zon_fid_t fid = udp_flow(1000);
    const zon_flow_tuple_t moved = tuple4(0x0A0000FE, 8000, host_a, 1000);
    ASSERT_EQ(zon_flow_update_responder(fid, &moved), zon_error_none);
    uint32_t address = 0x0A0000FE;
    zon_dump_flow_context context{};
    context.ip_type = L3_ADDR_IPV4;
    context.ipaddr = &address;
    context.port = 8000;
    zon_flow_report_t report{};
    captured_output lines(stdout);
    ASSERT_TRUE(fill(fid, &report, &context));
    EXPECT_EQ(report.responder_key.ipv4.src_ip, 0x0A0000FEu);
    EXPECT_EQ(report.responder_key.ipv4.src_port, 8000u);
    EXPECT_EQ(report.initiator_key.ipv4.dst_ip, host_b);
}

TEST_F(flow_report, is_refused_by_a_filter_that_neither_side_passes) {
    const zon_fid_t fid = udp_flow(1000);
    uint32_t address = host_b;
    zon_dump_flow_context context{};
    context.ip_type = L3_ADDR_IPV4;
    context.ipaddr = &address;
    context.port = 53;
    zon_flow_report_t report{};
    captured_output lines(stdout);
    EXPECT_TRUE(fill(fid, &report, &context));
    context.port = 54;
    report.fid = 77;
    EXPECT_FALSE(fill(fid, &report, &context));
    EXPECT_EQ(report.fid, 77u);
    EXPECT_EQ(lines.text(), "are we dumping here? \nare we dumping here? \n");
}

TEST_F(flow_report, is_refused_without_a_flow_or_a_place) {
    zon_flow_report_t report{};
    EXPECT_FALSE(zon_debug_flow_populate_report(nullptr, &report, nullptr));
    const zon_fid_t fid = udp_flow(1000);
    const locked_flow flow = locked_flow::adopt(zon_get_flow(fid));
    EXPECT_FALSE(zon_debug_flow_populate_report(flow.get(), nullptr, nullptr));
}

TEST_F(flow_report, tells_of_a_mark_and_leaves_what_it_does_not_fill) {
    const zon_fid_t fid = udp_flow(1000);
    zon_flow_report_t report{};
    report.is_dropped = 1;
    record_of(fid)->marked_for_delete = true;
    {
        const locked_flow flow = locked_flow::adopt(zon_get_flow(fid));
        ASSERT_TRUE(zon_debug_flow_populate_report(flow.get(), &report, nullptr));
    }
    record_of(fid)->marked_for_delete = false;
    EXPECT_EQ(report.marked_for_delete, 1);
    EXPECT_EQ(report.is_dropped, 1);
    EXPECT_EQ(report.parent_fid, 0u);
}

TEST_F(flow_report, holds_an_announced_key_of_each_side_by_its_own_type) {
    const zon_fid_t fid =
        pre_flow(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, tuple6("2001:db8::1", 1, "2001:db8::2", 2));
    zon_flow_report_t report{};
    ASSERT_TRUE(fill(fid, &report));
    EXPECT_EQ(report.initiator_key.key.key_type, uint32_t{ZON_IPV6_KEY_SRC_IP_PORT_ONLY});
    EXPECT_EQ(report.responder_key.key.key_type, uint32_t{ZON_IPV6_KEY_DST_IP_PORT_ONLY});
    EXPECT_EQ(report.initiator_key.ipv6.src_ip[3], report.responder_key.ipv6.dst_ip[3]);
}

// A host's record that begins with the filter.
struct collecting_context {
    zon_dump_flow_context filter;
    std::vector<zon_fid_t> fids;
    bool locks_were_free = true;
};
void collect(zon_flow_report_t* report, void* user) {
    auto& context = *static_cast<collecting_context*>(user);
    context.fids.push_back(report->fid);
    context.locks_were_free = context.locks_were_free && no_lock_is_held();
}

TEST_F(flow_report, reaches_any_callback_outside_all_locks) {
    const zon_fid_t first = udp_flow(1000);
    const zon_fid_t second = udp_flow(1001);
    collecting_context context{};
    zon_test_fid_table_iterate_flow(collect, &context);
    EXPECT_EQ(context.fids, (std::vector<zon_fid_t>{first, second}));
    EXPECT_TRUE(context.locks_were_free);
    zon_test_fid_table_iterate_flow(nullptr, nullptr);
    EXPECT_FALSE(g_zon->fid_table->in_use);
}

TEST_F(flow_report, reaches_a_callback_when_the_filter_at_the_head_of_its_context_lets_it) {
    udp_flow(1000);
    const zon_fid_t second = udp_flow(1001);
    uint32_t address = host_a;
    collecting_context context{};
    context.filter.ip_type = L3_ADDR_IPV4;
    context.filter.ipaddr = &address;
    context.filter.port = 1001;
    captured_output lines(stdout);
    zon_test_fid_table_iterate_flow(collect, &context);
    EXPECT_EQ(context.fids, std::vector<zon_fid_t>{second});
}

TEST_F(flow_report, may_be_the_last_of_a_flow_that_its_callback_deletes) {
    udp_flow(1000);
    udp_flow(1001);
    zon_test_fid_table_iterate_flow(
        [](zon_flow_report_t* report, void*) {
            zon_delete_flow_tamonet(report->fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        },
        nullptr);
    EXPECT_EQ(elements(), 0u);
}

struct filter_case {
    const char* name;
    uint8_t ip_type;
    uint32_t key_type;
    bool wanted_source;
    bool wanted_destination;
    bool right_port;
    bool expected;
};

class address_filter : public ::testing::TestWithParam<filter_case> {};

TEST_P(address_filter, passes_either_end_of_its_family) {
    const filter_case& row = GetParam();
    uint32_t wanted[4] = {1, 2, 3, 4};
    constexpr uint32_t other[4] = {1, 2, 3, 5};
    const uint32_t* src = row.wanted_source ? wanted : other;
    const uint32_t* dst = row.wanted_destination ? wanted : other;
    const uint16_t port = row.right_port ? 80 : 81;
    zon_report_key_t key{};
    if (row.ip_type == L3_ADDR_IPV6) {
        zon_set_key_ipv6(&key.ipv6, ZON_IPV6_KEY_COMPLETE, src, dst, 80, 80, 6, 0);
        key.key.key_type = row.key_type;
    } else {
        key.ipv4 = {row.key_type, 6, 0, 0, 0, src[3], 80, dst[3], 80};
        wanted[0] = 4;
    }
    EXPECT_EQ(zon_flow_compare_ip_and_port(row.ip_type, wanted, port, &key.key), row.expected);
}

INSTANTIATE_TEST_SUITE_P(
    rows, address_filter,
    ::testing::Values(filter_case{"ipv4_source", 1, 0, true, false, true, true},
                      filter_case{"ipv4_destination", 1, 4, false, true, true, true},
                      filter_case{"ipv4_other_port", 1, 0, true, true, false, false},
                      filter_case{"ipv4_other_address", 1, 0, false, false, true, false},
                      filter_case{"ipv4_of_an_ipv6_key", 1, 5, true, true, true, false},
                      filter_case{"ipv6_source", 20, 5, true, false, true, true},
                      filter_case{"ipv6_destination", 20, 9, false, true, true, true},
                      filter_case{"ipv6_of_type_4", 20, 4, true, false, true, true},
                      filter_case{"ipv6_of_type_3", 20, 3, true, true, true, false},
                      filter_case{"ipv6_above_the_types", 20, 10, true, true, true, false},
                      filter_case{"ipv6_other_port", 20, 5, true, true, false, false},
                      filter_case{"ipv6_other_address", 20, 5, false, false, true, false},
                      filter_case{"no_family", 0, 0, true, true, true, false},
                      filter_case{"unknown_family", 2, 0, true, true, true, false}),
    [](const auto& row) { return row.param.name; });

}  // namespace

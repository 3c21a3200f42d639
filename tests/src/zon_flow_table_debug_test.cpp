// zon_flow_table_debug_test.cpp - the dump of the flow table, its statistics, and what holds while
// a dump runs.

#include <cstdlib>
#include <memory>

#include "src/zon_api/api_fixture.h"
#include "support/allocation_faults.h"
#include "support/flow_reader.h"
#include "support/sample_packets.h"
#include "support/watched_output.h"

using namespace zon_test;

namespace {

thread_local uint64_t yields = 0;

template <typename operation>
uint64_t yields_during(operation run) {
    const uint64_t before = yields;
    run();
    return yields - before;
}

}  // namespace

// The linker leads sched_yield here.
extern "C" int __real_sched_yield();
extern "C" int __wrap_sched_yield();
extern "C" int __wrap_sched_yield() {
    ++yields;
    return __real_sched_yield();
}

namespace {

constexpr char title[] = "\nFID  L4-Sess L4-TCP      \tInitiator\t\t\t  Responder\n";
constexpr char no_flows[] = "There are no flows allocated.\n";
constexpr char looked_at[] = "are we dumping here? \n";

std::string dumped(zon_dump_output* out) {
    captured_output lines(stdout);
    zon_debug_flow_table_dump(out);
    return lines.text();
}
std::string dumped(zon_dump_output out) {
    return dumped(&out);
}

std::string parameters_text() {
    captured_output lines(stdout);
    zon_debug_global_params();
    return lines.text();
}

zon_dump_output only(bool zon_dump_output::*what) {
    zon_dump_output out{};
    out.*what = true;
    return out;
}

// One line of the statistics, by its start.
std::string line_of(const std::string& text, const std::string& start) {
    const size_t at = text.find("\n" + start);
    if (at == std::string::npos)
        return "no line " + start;
    return text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

struct depth_array {
    ~depth_array() { std::free(depths); }
    int32_t* depths = nullptr;
};

class flow_table_dump : public api_fixture {
protected:
    flow_table_dump() { parameters.max_flows = 100; }

    static std::string line_of_udp_flow(zon_fid_t fid, uint16_t sport, uint16_t dport = 53) {
        char line[200];
        std::snprintf(line, sizeof line,
                      "%6d      1    1 <10.0.0.1:%d,10.0.0.2:%d,17,0>  "
                      "<10.0.0.2:%d,10.0.0.1:%d,17,0>\n",
                      static_cast<int>(fid), sport, dport, dport, sport);
        return line;
    }
};

TEST_F(flow_table_dump, prints_the_statistics_as_operators_know_them) {
    udp_flow(1000);
    udp_flow(1001);
    zon_delete_flow_tamonet(udp_flow(1002), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    g_zon->error_stats = {3000000000U, 4};
    g_zon->flow_tbl->profile_passively_aged = 5;
    int32_t occupied = 0;
    int32_t maximum = 0;
    zon_debug_flow_table_stats(nullptr, nullptr, nullptr, &occupied, nullptr, &maximum, nullptr,
                               nullptr);
    const std::string deletes = std::to_string(g_zon->flow_tbl->profile_delete);
    EXPECT_EQ(dumped(only(&zon_dump_output::stats)),
              "hash table size\t\t 107\n"
              "active flows\t\t 4\n"
              "passively aged flows\t 5\n"
              "empty buckets\t\t " +
                  std::to_string(107 - occupied) +
                  "\n"
                  "occupied buckets\t " +
                  std::to_string(occupied) +
                  "\n"
                  "average bucket depth\t " +
                  std::to_string(4 / occupied) +
                  "\n"
                  "max bucket depth\t " +
                  std::to_string(maximum) +
                  "\n"
                  "flow table inserts\t\t 6\n"
                  "flow table deletes\t\t " +
                  deletes +
                  "\n"
                  "Full flow allocation errors\t 3000000000\n"
                  "Half flow allocation errors\t 4\n"
                  "IPv4 dst IP/port pre-flows\t 0\n"
                  "IPv4 src IP/port pre-flows\t 0\n"
                  "IPv4 complete pre-flows   \t 0\n"
                  "IPv4 VRF unknown pre-flows\t 0\n"
                  "IPv6 dst IP/port pre-flows\t 0\n"
                  "IPv6 src IP/port pre-flows\t 0\n"
                  "IPv6 complete pre-flows   \t 0\n"
                  "IPv6 VRF unknown pre-flows\t 0\n"
                  "IPV6INIPV4-flows:\t 0\n"
                  "teredo-flows:\t 0\n" +
                  parameters_text());
}

struct preflow_row {
    const char* name;
    uint32_t key_type;
    const char* line;
};

class preflow_line : public flow_table_dump, public ::testing::WithParamInterface<preflow_row> {};

TEST_P(preflow_line, counts_its_key_type_alone) {
    uint32_t& count = g_zon->flow_tbl->active_preflow_count[GetParam().key_type];
    count = 7;
    const std::string text = dumped(only(&zon_dump_output::stats));
    count = 0;
    const std::string start = GetParam().line;
    EXPECT_EQ(line_of(text, start), start + "\t 7");
    const std::string seven = "\t 7\n";
    EXPECT_EQ(text.find(seven), text.rfind(seven)) << "another line counts it, too:\n" << text;
}

INSTANTIATE_TEST_SUITE_P(
    rows, preflow_line,
    ::testing::Values(preflow_row{"ipv4_dst", 1, "IPv4 dst IP/port pre-flows"},
                      preflow_row{"ipv4_src", 2, "IPv4 src IP/port pre-flows"},
                      preflow_row{"ipv4_complete", 3, "IPv4 complete pre-flows   "},
                      preflow_row{"ipv4_vrf", 4, "IPv4 VRF unknown pre-flows"},
                      preflow_row{"ipv6_dst", 6, "IPv6 dst IP/port pre-flows"},
                      preflow_row{"ipv6_src", 7, "IPv6 src IP/port pre-flows"},
                      preflow_row{"ipv6_complete", 8, "IPv6 complete pre-flows   "},
                      preflow_row{"ipv6_vrf", 9, "IPv6 VRF unknown pre-flows"}),
    [](const auto& row) { return row.param.name; });

TEST_F(flow_table_dump, counts_announced_half_flows) {
    pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2));
    pre_flow(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, tuple6("2001:db8::1", 1, "2001:db8::2", 2));
    const std::string text = dumped(only(&zon_dump_output::stats));
    EXPECT_EQ(line_of(text, "IPv4 complete"), "IPv4 complete pre-flows   \t 2");
    EXPECT_EQ(line_of(text, "IPv6 src"), "IPv6 src IP/port pre-flows\t 1");
    EXPECT_EQ(line_of(text, "IPv6 dst"), "IPv6 dst IP/port pre-flows\t 1");
}

TEST_F(flow_table_dump, counts_flows_in_tunnels) {
    zon_private_increment_active_tunnel_flows(g_zon->flow_tbl, ZON_TUNNEL_TYPE_IPV6INIP);
    zon_private_increment_active_tunnel_flows(g_zon->flow_tbl, ZON_TUNNEL_TYPE_TEREDO);
    zon_private_increment_active_tunnel_flows(g_zon->flow_tbl, ZON_TUNNEL_TYPE_TEREDO);
    const std::string text = dumped(only(&zon_dump_output::stats));
    EXPECT_EQ(line_of(text, "IPV6INIPV4"), "IPV6INIPV4-flows:\t 1");
    EXPECT_EQ(line_of(text, "teredo"), "teredo-flows:\t 2");
    g_zon->flow_tbl->active_tunnel_flows_count = {};
}

// ---- the list of flows ----

TEST_F(flow_table_dump, prints_a_line_for_each_flow_in_the_order_of_identifiers) {
    const zon_fid_t first = udp_flow(1000);
    const zon_fid_t second = udp_flow(1001);
    const zon_fid_t third = udp_flow(1002);
    zon_delete_flow_tamonet(second, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    EXPECT_EQ(dumped(only(&zon_dump_output::active_flows)),
              title + line_of_udp_flow(first, 1000) + line_of_udp_flow(third, 1002));
}

TEST_F(flow_table_dump, prints_session_and_tcp_states) {
    const zon_fid_t fid = handle(packet_builder::ipv4(ipv4_address(host_a), ipv4_address(host_b))
                                     .tcp(5, 6)
                                     .flags(tcp_syn))
                              .fid;
    const zon_flow_t* flow = record_of(fid);
    char states[40];
    std::snprintf(states, sizeof states, "%6d %6d %4d ", static_cast<int>(fid),
                  flow->l4state.sess_state, flow->l4state.tcp_state);
    EXPECT_EQ(flow->l4state.tcp_state, ZON_TCP_SYNSENT);
    EXPECT_EQ(
        dumped(only(&zon_dump_output::active_flows)),
        title + std::string(states) + "<10.0.0.1:5,10.0.0.2:6,6,0>  <10.0.0.2:6,10.0.0.1:5,6,0>\n");
}

TEST_F(flow_table_dump, prints_empty_keys_of_a_flow_announced_complete) {
    const zon_fid_t fid =
        pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1000, host_b, 2000));
    const zon_flow_t* flow = record_of(fid);
    char line[40];
    std::snprintf(line, sizeof line, "%6d %6d %4d   \n", static_cast<int>(fid),
                  flow->l4state.sess_state, flow->l4state.tcp_state);
    EXPECT_EQ(dumped(only(&zon_dump_output::active_flows)), std::string(title) + line);
}

struct title_case {
    const char* name;
    bool active;
    bool deleted;
    bool any_flow;
    const char* head;
    bool flow_is_printed;
};

class dump_title : public flow_table_dump, public ::testing::WithParamInterface<title_case> {};

TEST_P(dump_title, is_the_row) {
    const title_case& row = GetParam();
    const zon_fid_t fid = row.any_flow ? udp_flow(1000) : 0;
    zon_dump_output out{};
    out.active_flows = row.active;
    out.deleted_flows = row.deleted;
    EXPECT_EQ(dumped(out),
              row.head + (row.flow_is_printed ? line_of_udp_flow(fid, 1000) : std::string()));
}

INSTANTIATE_TEST_SUITE_P(
    rows, dump_title,
    ::testing::Values(title_case{"nothing_asked", false, false, true, "", false},
                      title_case{"nothing_asked_no_flow", false, false, false, "", false},
                      title_case{"active", true, false, true, title, true},
                      title_case{"active_no_flow", true, false, false, no_flows, false},
                      title_case{"deleted", false, true, true, title, false},
                      title_case{"deleted_no_flow", false, true, false, title, false},
                      title_case{"both", true, true, true, title, true},
                      title_case{"both_no_flow", true, true, false, no_flows, false}),
    [](const auto& row) { return row.param.name; });

// ---- the filter ----

class filtered_dump : public flow_table_dump {
protected:
    static zon_dump_output of(uint8_t ip_type, uint32_t* address, uint16_t port) {
        zon_dump_output out = only(&zon_dump_output::active_flows);
        out.ip_type = ip_type;
        out.ipaddr = address;
        out.port = port;
        return out;
    }
};

TEST_F(filtered_dump, shows_flows_with_the_address_and_port_on_either_side) {
    const zon_fid_t to_53 = udp_flow(1000, 53);
    const zon_fid_t to_54 = udp_flow(1000, 54);
    const zon_fid_t back = handle(packet_builder::ipv4(ipv4_address(host_b), ipv4_address(host_a))
                                      .udp(53, 2000)
                                      .payload(1))
                               .fid;
    uint32_t server = host_b;
    const std::string text = dumped(of(L3_ADDR_IPV4, &server, 53));
    char from_server[200];
    std::snprintf(from_server, sizeof from_server,
                  "%6d      1    1 <10.0.0.2:53,10.0.0.1:2000,17,0>  "
                  "<10.0.0.1:2000,10.0.0.2:53,17,0>\n",
                  static_cast<int>(back));
    EXPECT_EQ(to_54, 2u);
    EXPECT_EQ(text, title + std::string(looked_at) + line_of_udp_flow(to_53, 1000, 53) + looked_at +
                        looked_at + from_server);
}

TEST_F(filtered_dump, wants_address_and_port_of_one_end) {
    udp_flow(1000, 53);
    uint32_t address = host_a;
    EXPECT_EQ(dumped(of(L3_ADDR_IPV4, &address, 53)), title + std::string(looked_at));
    EXPECT_EQ(dumped(of(L3_ADDR_IPV4, &address, 1000)),
              title + std::string(looked_at) + line_of_udp_flow(1, 1000, 53));
}

TEST_F(filtered_dump, shows_ipv6_flows) {
    udp_flow(1000, 53);
    handle(udp6_packet(1000, 53));
    uint32_t address[4] = {0x20010db8, 0, 0, 2};
    EXPECT_EQ(dumped(of(L3_ADDR_IPV6, address, 53)),
              title + std::string(looked_at) + looked_at +
                  "     2      1    1 <2001:db8:0:0:0:0:0:1 1000 2001:db8:0:0:0:0:0:2 53 17,0>  "
                  "<2001:db8:0:0:0:0:0:2 53 2001:db8:0:0:0:0:0:1 1000 17,0>\n");
    address[3] = 3;
    EXPECT_EQ(dumped(of(L3_ADDR_IPV6, address, 53)), title + std::string(looked_at) + looked_at);
}

TEST_F(filtered_dump, shows_nothing_for_an_unknown_family_or_without_an_address) {
    udp_flow(1000, 53);
    uint32_t address[4] = {host_a};
    EXPECT_EQ(dumped(of(4, address, 1000)), title + std::string(looked_at));
    EXPECT_EQ(dumped(of(L3_ADDR_IPV4, nullptr, 1000)), title + std::string(looked_at));
}

TEST_F(filtered_dump, leaves_its_trace_where_no_flow_is_asked_for) {
    udp_flow(1000, 53);
    uint32_t address = host_a;
    zon_dump_output out = of(L3_ADDR_IPV4, &address, 1000);
    out.active_flows = false;
    EXPECT_EQ(dumped(out), looked_at);
}

// ---- the distribution ----

TEST_F(flow_table_dump, prints_the_depth_of_every_bucket) {
    for (uint16_t port = 1000; port < 1040; ++port)
        udp_flow(port);
    depth_array expected;
    zon_debug_flow_table_stats(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               &expected.depths, nullptr);
    std::string lines = "Hash distribution:\n";
    int sum = 0;
    for (int bucket = 0; bucket < 107; ++bucket) {
        lines += std::to_string(bucket) + "," + std::to_string(expected.depths[bucket]) + "\n";
        sum += expected.depths[bucket];
    }
    EXPECT_EQ(sum, 80);
    EXPECT_EQ(dumped(only(&zon_dump_output::histogram)), lines);
}

TEST_F(flow_table_dump, prints_no_depths_without_memory_for_them) {
    const failing_table_memory failing(0);
    EXPECT_EQ(dumped(only(&zon_dump_output::histogram)), "Hash distribution:\n");
    EXPECT_TRUE(failing.has_failed());
}

// ---- giving way ----

TEST_F(flow_table_dump, gives_way_at_each_bucket_identifier_and_line) {
    udp_flow(1000);
    const auto buckets = static_cast<uint64_t>(g_zon->flow_tbl->table->array_size);
    const uint64_t identifiers = g_zon->fid_table->capacity;
    EXPECT_EQ(yields_during([] { dumped(nullptr); }), buckets + identifiers);
    EXPECT_EQ(yields_during([] { dumped(only(&zon_dump_output::histogram)); }),
              buckets + identifiers + buckets);
}

// ---- the whole of it ----

TEST_F(flow_table_dump, comes_in_one_order) {
    const zon_fid_t fid = udp_flow(1000);
    zon_dump_output out{true, true, true, true, 0, nullptr, 0};
    EXPECT_EQ(dumped(&out), dumped(only(&zon_dump_output::stats)) + title +
                                line_of_udp_flow(fid, 1000) +
                                dumped(only(&zon_dump_output::histogram)));
    EXPECT_FALSE(g_zon->in_use);
    EXPECT_TRUE(no_lock_is_held());
}

TEST_F(flow_table_dump, prints_nothing_when_nothing_is_asked_for) {
    udp_flow(1000);
    EXPECT_EQ(dumped(zon_dump_output{}), "");
    EXPECT_EQ(dumped(nullptr), "");
    EXPECT_FALSE(g_zon->in_use);
    EXPECT_FALSE(g_zon->fid_table->in_use);
    EXPECT_FALSE(g_zon->flow_tbl->in_use);
}

TEST_F(flow_table_dump, keeps_the_engine_until_its_flows_are_printed) {
    udp_flow(1000);
    std::string refused;
    std::string marks;
    {
        watched_output output([&] {
            marks += g_zon->in_use ? '1' : '0';
            if (g_zon->in_use)
                refused += zon_destroy() == zon_error_zon_table_access_failed ? '1' : '0';
        });
        zon_dump_output out{true, true, false, true, 0, nullptr, 0};
        zon_debug_flow_table_dump(&out);
        EXPECT_NE(output.text().find("106,"), std::string::npos);
    }
    EXPECT_EQ(marks.front(), '1') << "the statistics belong to the dump";
    // The buckets come last, on the dump's own figures.
    const size_t let_go = marks.find('0');
    ASSERT_NE(let_go, std::string::npos);
    EXPECT_GT(let_go, 10u);
    EXPECT_GE(marks.size() - let_go, 107u);
    EXPECT_EQ(marks.find('1', let_go), std::string::npos);
    EXPECT_EQ(refused.find('0'), std::string::npos);
}

TEST_F(flow_table_dump, keeps_the_engine_while_another_one_runs) {
    udp_flow(1000);
    bool second_ran = false;
    bool in_use_after_second = false;
    {
        watched_output output([&] {
            if (std::exchange(second_ran, true))
                return;
            std::thread([] { zon_debug_flow_table_dump(nullptr); }).join();
            in_use_after_second = g_zon->in_use;
        });
        zon_dump_output out = only(&zon_dump_output::active_flows);
        zon_debug_flow_table_dump(&out);
    }
    EXPECT_TRUE(second_ran);
    EXPECT_TRUE(in_use_after_second) << "the first to end cleared the mark of the other";
    EXPECT_FALSE(g_zon->in_use);
}

// ---- statistics ----

TEST_F(flow_table_dump, has_its_figures_for_callers) {
    udp_flow(1000);
    udp_flow(1001);
    int32_t size = 0, used = 0, empty = 0, occupied = 0, average = 0, maximum = 0;
    depth_array distribution;
    int32_t* preflow_counts = nullptr;
    zon_debug_flow_table_stats(&size, &used, &empty, &occupied, &average, &maximum,
                               &distribution.depths, &preflow_counts);
    EXPECT_EQ(size, 107);
    EXPECT_EQ(used, 4);
    EXPECT_EQ(empty + occupied, 107);
    EXPECT_EQ(average, 4 / occupied);
    EXPECT_EQ(maximum, *std::max_element(distribution.depths, distribution.depths + size));
    EXPECT_EQ(std::count(distribution.depths, distribution.depths + size, 0), empty);
    EXPECT_EQ(preflow_counts, reinterpret_cast<int32_t*>(g_zon->flow_tbl->active_preflow_count))
        << "the live counts are handed out";
    pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2));
    EXPECT_EQ(preflow_counts[ZON_IPV4_KEY_PRE_FLOW_COMPLETE], 2);
    EXPECT_FALSE(g_zon->flow_tbl->in_use);
}

TEST_F(flow_table_dump, has_no_distribution_without_memory) {
    int32_t size = 0;
    int32_t untouched = 0;
    int32_t* distribution = &untouched;
    const failing_table_memory failing(0);
    zon_debug_flow_table_stats(&size, nullptr, nullptr, nullptr, nullptr, nullptr, &distribution,
                               nullptr);
    EXPECT_TRUE(failing.has_failed());
    EXPECT_EQ(size, 107);
    EXPECT_EQ(distribution, nullptr);
}

TEST_F(flow_table_dump, gives_only_the_figures_that_are_wanted) {
    zon_debug_flow_table_stats(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr);
    int32_t used = -1;
    zon_debug_flow_table_stats(nullptr, &used, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr);
    EXPECT_EQ(used, 0);
}

TEST_F(flow_table_dump, forgets_its_counts_when_told) {
    pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, 1, host_b, 2));
    zon_delete_flow_tamonet(udp_flow(1000), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    g_zon->error_stats = {3, 4};
    g_zon->flow_tbl->profile_passively_aged = 5;
    zon_private_increment_active_tunnel_flows(g_zon->flow_tbl, ZON_TUNNEL_TYPE_TEREDO);
    zon_debug_flow_table_clear_stats();
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0u);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 0u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 0u);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, 0u);
    EXPECT_EQ(g_zon->flow_tbl->profile_passively_aged, 0u);
    EXPECT_EQ(g_zon->flow_tbl->active_preflow_count[ZON_IPV4_KEY_PRE_FLOW_COMPLETE], 2u)
        << "what is there now stays counted";
    EXPECT_EQ(g_zon->flow_tbl->active_tunnel_flows_count.active_teredo_flows_count, 1u);
    EXPECT_EQ(elements(), 2u);
    g_zon->flow_tbl->active_tunnel_flows_count = {};
}

// ---- no engine, or half of one ----

TEST(dump_without_an_engine, does_nothing) {
    ASSERT_EQ(g_zon, nullptr);
    zon_dump_output all{true, true, true, true, 0, nullptr, 0};
    EXPECT_EQ(dumped(&all), "");
    EXPECT_EQ(dumped(nullptr), "");
    int32_t size = 7;
    int32_t* distribution = &size;
    zon_debug_flow_table_stats(&size, &size, &size, &size, &size, &size, &distribution,
                               &distribution);
    EXPECT_EQ(size, 7);
    EXPECT_EQ(distribution, &size);
    zon_debug_flow_table_clear_stats();
    EXPECT_EQ(g_zon, nullptr);
    zon_test_fid_table_iterate_flow([](zon_flow_report_t*, void*) { FAIL(); }, nullptr);
}

TEST(dump_of_half_an_engine, prints_what_there_is) {
    // The engine itself is the first request for table memory; the chunks make three, then comes
    // the flow table.
    zon_error_t failed = zon_error_none;
    for (int request = 1; failed != zon_error_flow_table_creation_failed && request < 10;
         ++request) {
        const failing_table_memory failing(request);
        failed = zon_init(100, 0, 10, 4, 0, 16, 10);
    }
    ASSERT_EQ(failed, zon_error_flow_table_creation_failed);
    ASSERT_EQ(g_zon->flow_tbl, nullptr);
    zon_dump_output all{true, true, true, true, 0, nullptr, 0};
    const std::string text = dumped(&all);
    EXPECT_EQ(text.find("hash table size\t\t 0\nactive flows\t\t 0\n"), 0u) << text;
    EXPECT_EQ(line_of(text, "teredo"), "teredo-flows:\t 0");
    EXPECT_EQ(line_of(text, "Max Flows"), "Max Flows: 100");
    EXPECT_NE(text.find(no_flows + std::string("Hash distribution:\n")), std::string::npos);
    EXPECT_EQ(dumped(nullptr), "");
    int32_t size = 7;
    zon_debug_flow_table_stats(&size, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr);
    EXPECT_EQ(size, 7);
    g_zon->error_stats = {3, 4};
    zon_debug_flow_table_clear_stats();
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0u);
    zon_test_fid_table_iterate_flow([](zon_flow_report_t*, void*) { FAIL(); }, nullptr);
    EXPECT_EQ(zon_destroy(), zon_error_none);
}

}  // namespace

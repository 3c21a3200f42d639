/* packet_kit_host.c - a host without a network: it drives the engine with packets made of plain
 * fields, and prints and reads what operators look at. It has only include/ and the shared
 * library. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zon.h>

static int wrong;

static void check(bool holds, const char* what) {
    if (!holds)
        printf("not so: %s\n", what);
    wrong += !holds;
}

/* A host's own record behind the filter of a walk. */
struct counted {
    zon_dump_flow_context filter;
    int flows;
    zon_flow_report_t last;
};

static void count(zon_flow_report_t* report, void* user) {
    struct counted* counted = (struct counted*)user;
    ++counted->flows;
    counted->last = *report;
}

static void use_handlers(void) {
    const uint32_t a = 0x0a000001, b = 0x0a000002;
    uint32_t a6[4] = {0x20010db8, 0, 0, 1}, b6[4] = {0x20010db8, 0, 0, 2};
    zon_pkt_indications_t seen;
    zon_error_t error = zon_error_none;
    memset(&seen, 0, sizeof seen);
    zon_fid_t tcp4 = zon_test_handle_tcp_packet_fields(a, b, 1000, 80, 0, 1, 0, true, false, false,
                                                       false, 0, NULL, &seen, &error);
    check(tcp4 != 0 && seen.fif == 1, "a SYN makes a flow");
    zon_fid_t back = zon_test_handle_tcp_packet_fields(b, a, 80, 1000, 0, 9, 2, true, true, false,
                                                       false, 0, NULL, &seen, &error);
    check(back == tcp4 && seen.is_initiator == 0, "the answer belongs to it");
    zon_fid_t udp4 = zon_test_handle_packet_fields(a, b, 1000, 53, 17, 0, 100, NULL, &seen, &error);
    check(udp4 != 0 && seen.l4_payload_size == 92, "a UDP length of 100 is 92 bytes of payload");
    zon_fid_t tcp6 = zon_test_handle_ipv6_tcp_packet_fields(a6, b6, 1000, 80, 0, 1, 0, true, false,
                                                            false, false, 0, NULL, &seen, &error);
    zon_fid_t udp6 =
        zon_test_handle_ipv6_packet_fields(a6, b6, 1000, 53, 17, 0, 100, NULL, &seen, &error);
    check(tcp6 != 0 && udp6 != 0 && tcp6 != udp6, "IPv6 packets make flows of their own");
    check(error == zon_error_none, "no error was reported");
}

static void use_builders(void) {
    uint32_t a6[4] = {1, 2, 3, 4};
    zon_dp_fe_t fe;
    memset(&fe, 0, sizeof fe);
    zon_fe_test_fill_tcp_packet_fields(1, 2, 3, 4, 5, 6, true, false, false, false, 0, &fe);
    check(fe.network_start != NULL && zon_token_tcp_flags_syn(&fe) && zon_srcport(&fe) == 3,
          "a SYN is built");
    zon_fe_test_cleanup(&fe);
    zon_fe_test_fill_packet_fields(1, 2, 3, 4, 17, 20, &fe);
    check(zon_ipv4_dstip(&fe) == 2 && zon_token_udp_datalen(&fe) == 12, "a UDP packet is built");
    zon_fe_test_cleanup(&fe);
    zon_fe_test_fill_ipv6_tcp_packet_fields(a6, a6, 3, 4, 5, 6, false, true, true, false, 0, &fe);
    check(zon_token_tcp_flags_rst(&fe) && zon_ipv6_srcip(&fe)[3] == 4, "an IPv6 reset is built");
    zon_fe_test_cleanup(&fe);
    zon_fe_test_fill_ipv6_packet_fields(a6, a6, 3, 4, 17, 20, &fe);
    check(zon_dstport(&fe) == 4, "an IPv6 UDP packet is built");
    zon_fe_test_cleanup(&fe);
}

static void read_figures(void) {
    int32_t size = 0, used = 0, sum = 0, *distribution = NULL, *preflows = NULL;
    zon_debug_flow_table_stats(&size, &used, NULL, NULL, NULL, NULL, &distribution, &preflows);
    check(used == 8 && distribution != NULL && preflows != NULL,
          "four flows have eight half flows");
    for (int32_t bucket = 0; distribution != NULL && bucket < size; ++bucket)
        sum += distribution[bucket];
    check(sum == used, "the buckets hold them all");
    free(distribution);

    uint32_t server = 0x0a000002;
    struct counted counted;
    memset(&counted, 0, sizeof counted);
    zon_test_fid_table_iterate_flow(count, &counted);
    check(counted.flows == 4, "a walk reports four flows");
    counted.flows = 0;
    counted.filter.ip_type = L3_ADDR_IPV4;
    counted.filter.ipaddr = &server;
    counted.filter.port = 53;
    zon_test_fid_table_iterate_flow(count, &counted);
    check(counted.flows == 1 && counted.last.initiator_key.ipv4.dst_port == 53,
          "the filter leaves one");
    check(zon_flow_compare_ip_and_port(L3_ADDR_IPV4, &server, 53, &counted.last.responder_key.key),
          "its responder has the address, too");
}

int main(void) {
    zon_dump_output all = {true, true, true, true, 0, NULL, 0};
    zon_dump_flow_context any = {false, true, true, 0, NULL, 0};
    if (zon_init(100, 0, 10, 2, 0, 16, 10) != zon_error_none)
        return 2;
    use_builders();
    use_handlers();
    read_figures();
    zon_debug_flow_table_dump(&all);
    zon_debug_flow_table_clear_stats();
    zon_debug_global_params();
    zon_debug_flow_print_report(NULL, NULL);
    zon_debug_iterate_call_back(NULL, &any);
    zon_ipv4_key_t key = {ZON_IPV4_KEY_COMPLETE, 6, 0, 0, 0, 1, 2, 3, 4};
    zon_debug_flow_key_dump((zon_key_t*)&key);
    zon_flow_report_t report;
    check(!zon_debug_flow_populate_report(NULL, &report, NULL), "no flow has no report");
    check(zon_destroy() == zon_error_none, "the engine is destroyed");
    return wrong == 0 ? 0 : 1;
}

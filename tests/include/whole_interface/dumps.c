/* dumps.c - what operators look at. */
#include "host.h"

#include <stdlib.h>

void use_figures(void) {
    make_engine();
    udp_flow(1000, 53, NULL);
    udp_flow(1001, 53, NULL);
    int32_t size = 0, used = 0, empty = 0, occupied = 0, average = 0, maximum = 0, sum = 0;
    int32_t *depths = NULL, *announced = NULL;
    zon_debug_flow_table_stats(&size, &used, &empty, &occupied, &average, &maximum, &depths,
                               &announced);
    check(used == 4 && empty + occupied == size && maximum >= average && average >= 1,
          "two flows have four half flows");
    for (int32_t bucket = 0; depths != NULL && bucket < size; ++bucket)
        sum += depths[bucket];
    check(sum == used && announced != NULL && announced[ZON_IPV4_KEY_PRE_FLOW_COMPLETE] == 0,
          "all of them ordinary");
    free(depths);

    zon_dump_output out = {true, true, false, true, 0, NULL, 0};
    watch(stdout);
    zon_debug_flow_table_dump(&out);
    check(strstr(watched(stdout), "active flows") != NULL, "they are dumped");
    watch(stdout);
    zon_debug_global_params();
    check(strstr(watched(stdout), "Max Hash Bucket Depth: 0") != NULL,
          "with what the engine was made for");
    g_zon->error_stats.flow_alloc_errors = 3;
    zon_debug_flow_table_clear_stats();
    check(g_zon->error_stats.flow_alloc_errors == 0, "the counts start anew");
    end_engine();
}

static zon_flow_report_t last;
static unsigned reports;
static void keep(zon_flow_report_t* report, void* user) {
    (void)user;
    last = *report;
    ++reports;
}

void use_reports(void) {
    zon_client_id_e me = make_engine();
    zon_fid_t flow = udp_flow(1000, 53, NULL);
    zon_test_fid_table_iterate_flow(keep, NULL);
    check(reports == 1 && last.fid == flow && last.packet_number == 1 &&
              last.initiator_key.ipv4.src_port == 1000,
          "a flow is reported");
    uint32_t address = host_b;
    check(zon_flow_compare_ip_and_port(L3_ADDR_IPV4, &address, 53, &last.responder_key.key) &&
              !zon_flow_compare_ip_and_port(L3_ADDR_IPV4, &address, 54, &last.responder_key.key),
          "with both of its ends");

    int object = 0;
    void* found = NULL;
    zon_flow_t snapshot;
    zon_flow_report_t filled;
    zon_flow_attach_fo(flow, me, ZON_DIR_BI, &object);
    memset(&filled, 0, sizeof filled);
    check(zon_flow_get_fo_by_fid(flow, me, ZON_DIR_BI, &found, &snapshot) == zon_error_none &&
              zon_debug_flow_populate_report(&snapshot, &filled, NULL) && filled.fid == flow &&
              filled.hasFO[me] != 0,
          "a snapshot can be reported");
    zon_unlock_flow_tamonet(&snapshot);
    check(!zon_debug_flow_populate_report(NULL, &filled, NULL), "no flow cannot");

    watch(stdout);
    zon_debug_flow_print_report(NULL, NULL);
    check(strstr(watched(stdout), "Null report") != NULL, "no report is printed as such");
    zon_dump_flow_context any;
    memset(&any, 0, sizeof any);
    any.print_active = true;
    watch(stdout);
    zon_debug_iterate_call_back(&last, &any);
    check(strlen(watched(stdout)) > 20, "a report is a line");
    watch(stdout);
    zon_debug_flow_key_dump(&last.initiator_key.key);
    check(strstr(watched(stdout), "10.0.0.1") != NULL, "a key shows its addresses");
    end_engine();
}

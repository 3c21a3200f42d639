// life_scenarios.cpp - the engine and its timers come and go; what is configured and printed.

#include <algorithm>
#include <cstring>

#include "scenario.h"
#include "zon_fid_table.h"
#include "zon_hashset_internal.h"

namespace zon_faults {
namespace {

constexpr refusals no_init = {
    zon_error_zon_table_creation_failed,  zon_error_memory_chunk_creation_failed,
    zon_error_flow_table_creation_failed, zon_error_fid_table_creation_failed,
    zon_error_frag_table_creation_failed, zon_error_sctx_table_creation_failed};
constexpr refusals no_init_or_later = {zon_error_zon_table_creation_failed,
                                       zon_error_memory_chunk_creation_failed,
                                       zon_error_flow_table_creation_failed,
                                       zon_error_fid_table_creation_failed,
                                       zon_error_frag_table_creation_failed,
                                       zon_error_sctx_table_creation_failed,
                                       zon_error_memory,
                                       answered_false};
constexpr refusals refused = {answered_false};

zon_error_t make_timers() {
    return as_error(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                      &g_zon->zon_timer_process_create));
}

// A new flow ages with them, and stays without.
bool have_timers(bool done) {
    zon_fid_t flow = 0;
    uint32_t seconds = 0;
    return hand_in(packets().udp6, &flow) == zon_error_none &&
           zon_clock_advance_us(3'600'000'000) == zon_error_none &&
           (zon_flow_get_aging(flow, &seconds) == zon_error_flow_not_found) == done;
}

zon_error_t drop_timers() {
    zon_timer_tw_destroy(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                         &g_zon->zon_timer_process_create);
    return zon_error_none;
}

void make_a_flow() {
    hand_in(packets().udp4, &run.flow);
}

zon_error_t init() {
    run.engine_was_made = true;
    return make_small_engine();
}

zon_error_t init_with_ready_records() {
    run.engine_was_made = true;
    return zon_init(100, 0, 10, 4, 3, 16, 10);
}

zon_error_t restart() {
    run.engine_was_made = true;
    return as_error(zon_restart());
}

void want_huge_pages() {
    zon_config_set_huge_pages(true);
}
// Tables and pieces are large enough for a huge page each.
zon_error_t init_in_huge_pages() {
    run.engine_was_made = true;
    return zon_init(300'000, 0, 10, 2, 0, 30'000, 10);
}
// An engine that is made has one at least: a single request fails, or all from then on.
bool has_a_huge_page(bool) {
    constexpr uintptr_t huge_page = uintptr_t{2} << 20;
    const void* const tables[] = {g_zon->fid_table->table, g_zon->flow_tbl->table->array};
    return std::ranges::any_of(tables, [](const void* table) {
        return reinterpret_cast<uintptr_t>(table) % huge_page == 0;
    });
}

zon_error_t live_a_whole_life() {
    zon_error_t result = make_small_engine();
    if (result == zon_error_none)
        result = make_timers();
    if (result == zon_error_none)
        result = zon_client_feature_register(&run.client);
    if (result == zon_error_none)
        result = zon_client_enable_engine_capability(run.client, ZON_CAPABILITY_ENABLE_UDP);
    if (result == zon_error_none)
        result = hand_in(packets().udp4);
    return first_of({zon_destroy(), result});
}

zon_error_t use_configuration() {
    uint32_t flows = 0;
    zon_params_t params{};
    zon_flow_memory_usage_t usage{};
    zon_tw_timer_t timer{};
    const bool known = zon_is_init() == zon_error_none &&
                       zon_config_get_max_flows(&flows) == zon_error_none &&
                       zon_config_calc_max_flows_for_given_memory(392, &flows) == zon_error_none &&
                       flows == 1 && zon_config_calc_crnt_memory_usage(&usage) == zon_error_none &&
                       zon_set_default_params(&params) == zon_error_none &&
                       zon_config_set_max_flows(4000) == zon_error_none &&
                       zon_config_set_hash_seed(0) == zon_error_none &&
                       zon_config_set_half_open_share(0) == zon_error_none &&
                       zon_config_set_huge_pages(false) == zon_error_none;
    zon_timer_set_type(zon_get_tw_internal(), &timer, ZON_TIMER_FLOW_IDLE);
    zon_set_debug(true);
    zon_set_debug(false);
    zon_set_open_flow_after_pkts(0);
    return as_error(known && zon_set_default_aging(ZON_UDP_PROT, ZON_L4_OPENING, 20000) &&
                    strlen(zon_error_str(zon_error_memory)) > 0 &&
                    strlen(zon_tcp_state_string(ZON_TCP_LISTEN)) > 0 &&
                    strlen(zon_session_state_string(ZON_L4_OPENING)) > 0 &&
                    strlen(zon_l4_retcode_string(ZON_L4_NOERR)) > 0);
}

zon_error_t let_flows_age() {
    const uint64_t start = zon_clock_now_us();
    uint32_t seconds = 0;
    zon_error_t result = zon_clock_advance_us(3600000000);
    result = first_of({result, zon_clock_advance_to_us(start + 7200000000)});
    return first_of(
        {result, as_error(zon_flow_get_aging(run.flow, &seconds) == zon_error_flow_not_found)});
}

zon_error_t turn_the_clock_over() {
    return first_of(
        {zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE)});
}

zon_error_t use_hooks() {
    uint32_t from = 1, to = 2;
    uint16_t from_port = 3, to_port = 4;
    zon_pkt_ctx_t done{};
    return as_error(
        zon_get_vrf_table_id(nullptr) == 0 && !zon_ipnat_enabled(nullptr) &&
        !zon_ipnat_translation_required(nullptr) && !zon_cleanup_packet(&done) &&
        !zon_ipv4nat_fixup_ip_port(nullptr, &from, &from_port, &to, &to_port, ZON_UDP_PROT) &&
        !zon_ipv4nat_get_translated_ip_port(nullptr, &from, &from_port, &to, &to_port));
}

void count_report(zon_flow_report_t* report, void*) {
    run.other = report->fid;
}

// The array of figures is the caller's to free, and is not there when there is no memory for it.
zon_error_t read_figures() {
    int32_t used = 0;
    int32_t* depths = nullptr;
    zon_debug_flow_table_stats(nullptr, &used, nullptr, nullptr, nullptr, nullptr, &depths,
                               nullptr);
    const bool complete = depths != nullptr;
    free(depths);
    zon_debug_flow_table_clear_stats();
    return used == 2 ? as_error(complete) : zon_error_parameter_invalid;
}

zon_error_t print_everything() {
    zon_dump_output out = {true, true, true, true, 0, nullptr, 0};
    zon_debug_flow_table_dump(&out);
    zon_debug_global_params();
    zon_test_fid_table_iterate_flow(count_report, nullptr);
    return as_error(run.other == run.flow);
}

zon_error_t print_one_flow() {
    zon_flow_t snapshot;
    zon_flow_report_t report{};
    void* found = nullptr;
    const zon_error_t result =
        zon_flow_get_fo_by_fid(run.flow, run.client, ZON_DIR_BI, &found, &snapshot);
    if (result != zon_error_none)
        return result;
    const bool filled = zon_debug_flow_populate_report(&snapshot, &report, nullptr);
    zon_unlock_flow_tamonet(&snapshot);
    zon_dump_flow_context any{};
    any.print_active = true;
    zon_debug_flow_print_report(&report, &any);
    zon_debug_iterate_call_back(&report, &any);
    zon_debug_flow_key_dump(&report.initiator_key.key);
    uint32_t address = 0x0a000002;
    return as_error(filled && zon_flow_compare_ip_and_port(L3_ADDR_IPV4, &address, 53,
                                                           &report.responder_key.key));
}

void make_a_marked_flow() {
    make_a_flow();
    zon_flow_attach_fo(run.flow, run.client, ZON_DIR_BI, &run.object);
}

constexpr scenario rows[] = {
    {"engine_is_made", stage::empty, nullptr, init, no_init},
    {"engine_is_made_with_ready_records", stage::empty, nullptr, init_with_ready_records, no_init},
    {"engine_is_made_in_huge_pages", stage::empty, want_huge_pages, init_in_huge_pages, no_init,
     has_a_huge_page},
    {"engine_replaces_another", stage::timers, make_a_flow, init, no_init},
    {"engine_is_restarted", stage::timers, make_a_flow, restart, refused},
    {"engine_is_destroyed", stage::timers, make_a_flow, zon_destroy, {}},
    {"whole_life", stage::empty, nullptr, live_a_whole_life, no_init_or_later},
    {"timers_are_made", stage::engine, make_a_flow, make_timers, refused, have_timers},
    {"timers_are_made_again", stage::timers, make_a_flow,
     [] {
         return first_of({drop_timers(), make_timers()});
     },
     refused, have_timers},
    {"flows_age", stage::timers, make_a_flow, let_flows_age, {}},
    {"clock_is_turned_over", stage::timers, make_a_flow, turn_the_clock_over, {}},
    {"configuration_is_used", stage::timers, nullptr, use_configuration, {}},
    {"hooks_are_called", stage::engine, nullptr, use_hooks, {}},
    {"figures_are_read", stage::engine, make_a_flow, read_figures, refused},
    {"everything_is_printed", stage::engine, make_a_flow, print_everything, {}},
    {"a_flow_is_printed", stage::engine, make_a_marked_flow, print_one_flow, {}},
};

}  // namespace

std::span<const scenario> life_scenarios() {
    return rows;
}

}  // namespace zon_faults

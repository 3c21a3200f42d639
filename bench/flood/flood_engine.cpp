// flood_engine.cpp - the engine that is flooded.

#include "flood_engine.h"

#include <unistd.h>

#include <atomic>
#include <fstream>

#include "zon_frag.h"

namespace zon_bench {
namespace {

std::atomic<uint64_t> deleted_flows{0};
std::atomic<uint64_t> replaced_flows{0};

void count_deletion(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e reason,
                    zon_client_id_e) {
    deleted_flows.fetch_add(1, std::memory_order_relaxed);
    if (reason == ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE)
        replaced_flows.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

flood_engine::flood_engine(const engine_setup& setup, clock_choice clock) : clock_(clock) {
    require(zon_clock_set_mode(clock == clock_choice::turned ? ZON_CLOCK_MANUAL_INLINE
                                                             : ZON_CLOCK_SYSTEM) == zon_error_none,
            "no clock");
    if (setup.defend != nullptr)
        setup.defend();
    require(zon_init(setup.max_flows, 0, ZON_DEFAULT_MIN_INIT_FLOWS, ZON_DEFAULT_MAX_CONCURRENCY,
                     setup.bucket_depth, ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS,
                     ZON_DEFAULT_MAX_MEM_BUFFER_INIT) == zon_error_none,
            "no engine");
    require(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                              &g_zon->zon_timer_process_create),
            "no timers");
    zon_client_id_e client = 0;
    require(zon_client_feature_register(&client) == zon_error_none, "no client");
    require(zon_client_register_delete_cb(client, count_deletion) == zon_error_none, "no callback");
    constexpr auto wanted = ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP |
                            ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS;
    require(zon_client_enable_engine_capability(client, static_cast<zon_capability_e>(wanted)) ==
                zon_error_none,
            "no capabilities");
}

uint64_t flood_engine::deletions() {
    return deleted_flows.load(std::memory_order_relaxed);
}
uint64_t flood_engine::replacements() {
    return replaced_flows.load(std::memory_order_relaxed);
}

uint32_t flows_now() {
    zon_flow_memory_usage_t held{};
    require(zon_config_calc_crnt_memory_usage(&held) == zon_error_none, "no figures of memory");
    return (held.bytes_used_for_ipv4_half_flows / ipv4_half_flow_buf_size +
            held.bytes_used_for_ipv6_half_flows / ipv6_half_flow_buf_size) /
           2;
}

uint32_t datagrams_now() {
    return g_zon->frag_table->num_items;
}

memory_figures memory_now() {
    zon_flow_memory_usage_t held{};
    require(zon_config_calc_crnt_memory_usage(&held) == zon_error_none, "no figures of memory");
    uint64_t mapped_pages = 0, resident_pages = 0;
    std::ifstream("/proc/self/statm") >> mapped_pages >> resident_pages;
    return {resident_pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)),
            uint64_t{held.bytes_used_for_flows} + held.bytes_used_for_ipv4_half_flows +
                held.bytes_used_for_ipv6_half_flows};
}

}  // namespace zon_bench

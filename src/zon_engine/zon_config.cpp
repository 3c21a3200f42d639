// zon_config.cpp - reads and sets what the engine is configured with, and tells its memory use.
//
// Owns   nothing.
// Locks  none: configuration is set before traffic.

#include "osal/zon_platform.h"
#include "zon_engine_inline.h"
#include "zon_super_ctx_table.h"
#include "zon_timer_common.h"

namespace {

// One flow as it is accounted: its record and two IPv4 half flows.
constexpr uint32_t accounted_flow_size = sizeof(zon_flow_t) + 2 * sizeof(zon_ipv4_half_flow_t);

// A super context is accounted as so many list elements.
constexpr uint32_t list_elements_per_super_context =
    sizeof(zon_super_context_t) / sizeof(zon_flow_list_t);

constexpr uint32_t whole_percent = 100;

}  // namespace

uint32_t zon_hash_seed_of_next_engine = 0;
uint32_t zon_half_open_share_of_next_engine = 0;
bool zon_huge_pages_for_next_engine = false;

zon_error_t zon_config_set_hash_seed(uint32_t seed) {
    zon_hash_seed_of_next_engine = seed;
    return zon_error_none;
}

zon_error_t zon_config_set_half_open_share(uint32_t percent) {
    if (percent > whole_percent)
        return zon_error_parameter_invalid;
    zon_half_open_share_of_next_engine = percent;
    return zon_error_none;
}

zon_error_t zon_config_set_huge_pages(bool wanted) {
    zon_huge_pages_for_next_engine = wanted;
    return zon_error_none;
}

zon_error_t zon_config_get_max_flows(uint32_t* max_flows) {
    if (max_flows == nullptr)
        return zon_error_parameter_is_null;
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    *max_flows = g_zon->params.max_flows;
    return zon_error_none;
}

zon_error_t zon_config_set_max_flows(uint32_t max_flows) {
    if (max_flows == 0)
        return zon_error_parameter_is_null;
    if (max_flows < ZON_DEFAULT_MIN_INIT_FLOWS)
        return zon_error_parameter_invalid;
    ZON_DEFAULT_MAX_FLOWS = max_flows;
    return zon_error_none;
}

zon_error_t zon_config_calc_max_flows_for_given_memory(uint32_t mem_bytes,
                                                       uint32_t* num_max_flows) {
    if (num_max_flows == nullptr)
        return zon_error_parameter_is_null;
    *num_max_flows = mem_bytes / accounted_flow_size;
    return zon_error_none;
}

zon_error_t zon_config_calc_crnt_memory_usage(zon_flow_memory_usage_t* usage) {
    if (usage == nullptr)
        return zon_error_parameter_is_null;
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    const memory_usage_stats_t& held = g_zon->memory_usage_stats;
    const uint32_t flows =
        g_zon->fid_table != nullptr ? relaxed_load(g_zon->fid_table->allocated) : 0;
    usage->bytes_used_for_ipv4_half_flows =
        relaxed_load(held.ipv4_half_flow_alloc_count) * ipv4_half_flow_buf_size;
    usage->bytes_used_for_ipv6_half_flows =
        relaxed_load(held.ipv6_half_flow_alloc_count) * ipv6_half_flow_buf_size;
    usage->bytes_used_for_flows = flows * static_cast<uint32_t>(sizeof(zon_flow_t));
    usage->bytes_used_for_flow_aggregation =
        (relaxed_load(held.super_context_alloc_count) * list_elements_per_super_context +
         relaxed_load(held.list_element_alloc_count)) *
        static_cast<uint32_t>(sizeof(zon_flow_list_t));
    usage->active_flow_count = flows;
    return zon_error_none;
}

zon_error_t zon_set_default_params(zon_params_t* params) {
    if (params == nullptr)
        return zon_error_parameter_is_null;
    ZON_DEFAULT_MAX_FLOWS = params->max_flows;
    ZON_DEFAULT_MIN_INIT_FLOWS = params->min_init_flows;
    ZON_DEFAULT_MAX_CONCURRENCY = params->max_threads;
    ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS = params->create_chunk_elements;
    ZON_DEFAULT_MAX_MEM_BUFFER_INIT = params->max_mem_buffer_init;
    ZON_DEFAULT_MAX_COLLISION_SIZE = params->max_bucket_depth;
    return zon_error_none;
}

zon_tw_wheel_t* zon_get_tw_internal() {
    return &g_zon->zon_tw;
}

bool zon_set_default_aging(uint8_t prot, zon_l4_flow_state_e state, uint32_t time) {
    if ((prot != ZON_TCP_PROT && prot != ZON_UDP_PROT) || state < ZON_L4_ENUM_START ||
        state >= ZON_L4_ENUM_END)
        return false;
    return g_zon != nullptr && zon_set_default_aging_internal(static_cast<zon_l4_protocol_e>(prot),
                                                              state, time, &g_zon->timer_defaults);
}

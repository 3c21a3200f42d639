// zon_lifecycle.cpp - creates, destroys and re-creates the engine.
//
// Owns   g_zon and, through it, every table, chunk and record.
// Locks  none of its own: hosts call these while nothing else runs. Deletion takes each flow's
//        lock.

#include <cstdlib>
#include <iterator>

#include "osal/zon_debug.h"
#include "osal/zon_mem.h"
#include "osal/zon_timer.h"
#include "zon_engine/zon_clients.h"
#include "zon_engine/zon_half_open.h"
#include "zon_engine/zon_quarantine.h"
#include "zon_engine_inline.h"
#include "zon_frag.h"
#include "zon_key_hash_funcs_inline.h"
#include "zon_lane_counts.h"
#include "zon_super_ctx_table.h"
#include "zon_timer_common.h"

namespace {

constexpr uint32_t frag_table_buckets = 256;

// How often destruction goes through the flows while clients answer their end with new ones. A
// client that never stops making flows does not keep its host here.
constexpr int max_deletion_walks = 8;

void trace_engine(const char* text) {
    if (zon_tracing_engine())
        zon_buginf("%s", text);
}

// A half-built engine lacks some of its tables; those count as available.
zon_error_t tables_are_available(const zon_t* engine) {
    if (engine->flow_tbl != nullptr)
        if (const zon_error_t busy = zon_flow_table_is_available(engine->flow_tbl);
            busy != zon_error_none)
            return busy;
    return engine->fid_table != nullptr ? zon_fid_table_is_available(engine->fid_table)
                                        : zon_error_none;
}

bool stop_timer(zon_flow_t* flow, void*) {
    zon_private_stop_timer(flow);
    return true;
}

// The list of records only grows and no record is freed before the tables are: it is walked without
// the table's lock, so that callbacks which make records meanwhile do not wait for this walk. True
// when there was a flow to delete.
bool delete_flows_in_use(zon_flow_table_t* flow_tbl) {
    bool any = false;
    for (zon_flow_t* flow = flow_tbl->flow_head; flow != nullptr; flow = flow->next_flow) {
        zon_lock_internal(flow->flow_lock);
        any = any || !flow->marked_for_delete;
        zon_private_delete_locked_flow(flow, ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED);
    }
    return any;
}

// A callback may make a flow in a record that the walk has passed: its clients are told, too.
void delete_every_flow(zon_flow_table_t* flow_tbl) {
    for (int walk = 0; walk < max_deletion_walks && delete_flows_in_use(flow_tbl); ++walk) {
    }
}

void destroy_flows(zon_t* engine) {
    if (engine->flow_tbl == nullptr)
        return;
    zon_flow_table_iterate_flow(engine->flow_tbl, stop_timer, nullptr);
    if (zon_tracing_engine())
        zon_buginf("\nZON Engine: Deleting table with %d flows.",
                   static_cast<int>(zon_flow_table_num_elements(engine->flow_tbl)));
    delete_every_flow(engine->flow_tbl);
}

// From here on the only thread that is left finds everything where all threads look for it.
void end_lanes(zon_t* engine) {
    zon_lane_counts_settle();
    zon_lanes_end();
    if (engine->fid_table != nullptr)
        zon_fid_table_gather(engine->fid_table);
    zon_mem_gather_lanes();
}

void destroy_flow_tables(zon_t* engine) {
    if (engine->flow_tbl != nullptr) {
        zon_flow_table_destroy(engine->flow_tbl);
        engine->flow_tbl = nullptr;
    }
    zon_fid_table_destroy(engine->fid_table);
    engine->fid_table = nullptr;
}

zon_error_t destroy_chunks(zon_t* engine) {
    zon_private_release_quarantine();
    // A creation that failed has left some of the chunks at most, which is no error of theirs.
    if (zon_mem_chunk_destroy(&engine->zon_chunk_ptr) || !engine->memory_chunk_created)
        return zon_error_none;
    trace_engine("\nZON Engine: Unable to destroy memory chunk\n");
    return zon_error_memory_chunk_deletion_failed;
}

void destroy_side_tables(zon_t* engine) {
    zon_frag_table_destroy(engine->frag_table);
    engine->frag_table = nullptr;
    if (engine->super_ctx_table != nullptr) {
        zon_super_context_table_destroy(engine->super_ctx_table);
        engine->super_ctx_table = nullptr;
    }
}

zon_error_t build_tables(zon_t* engine) {
    const zon_params_t& params = engine->params;
    if (!zon_mem_chunk_create(params.max_mem_buffer_init, &engine->zon_chunk_ptr,
                              params.create_chunk_elements))
        return zon_error_memory_chunk_creation_failed;
    engine->memory_chunk_created = true;
    engine->flow_tbl =
        zon_flow_table_create(params.max_flows, params.max_threads, params.max_bucket_depth);
    if (engine->flow_tbl == nullptr)
        return zon_error_flow_table_creation_failed;
    engine->fid_table =
        zon_fid_table_init(params.max_flows, params.min_init_flows, params.max_threads);
    if (engine->fid_table == nullptr)
        return zon_error_fid_table_creation_failed;
    zon_timer_set_initial_default(&engine->timer_defaults);
    if (params.pre_flow_timer != 0)
        engine->timer_defaults.pre_flow_default = params.pre_flow_timer;
    engine->frag_table = zon_frag_table_create(frag_table_buckets);
    if (engine->frag_table == nullptr)
        return zon_error_frag_table_creation_failed;
    engine->super_ctx_table = zon_super_context_table_create(params.max_flows / 10);
    return engine->super_ctx_table != nullptr ? zon_error_none
                                              : zon_error_sctx_table_creation_failed;
}

}  // namespace

zon_error_t zon_init(uint32_t max_flows_supported, uint32_t pre_flow_timer, uint32_t min_init_flows,
                     uint32_t max_threads, uint8_t max_bucket_depth, uint32_t create_chunk_elements,
                     uint32_t max_mem_buffer_init) {
    if (g_zon != nullptr)
        if (const zon_error_t failed = zon_destroy(); failed != zon_error_none)
            return failed;
    g_zon = static_cast<zon_t*>(zon_heap_zalloc(1, sizeof(zon_t)));
    if (g_zon == nullptr)
        return zon_error_zon_table_creation_failed;
    zon_params_t& params = g_zon->params;
    params.max_flows = max_flows_supported;
    params.pre_flow_timer = pre_flow_timer;
    params.min_init_flows = min_init_flows;
    params.max_threads = max_threads;
    params.max_bucket_depth = max_bucket_depth;
    params.create_chunk_elements = create_chunk_elements;
    params.max_mem_buffer_init = max_mem_buffer_init;
    zon_mem_use_huge_pages(zon_huge_pages_for_next_engine);
    zon_hash_seed_in_force = zon_hash_seed_of_next_engine;
    zon_half_open_bound(max_flows_supported, zon_half_open_share_of_next_engine);

    // A failure leaves the engine half built, on purpose: the host destroys it or initialises
    // again.
    if (const zon_error_t failed = build_tables(g_zon); failed != zon_error_none)
        return failed;
    zon_build_free_client_ids(g_zon);
    trace_engine("\nZON Engine: zon_init ");
    params.capability_counter = {};
    g_zon->memory_usage_stats = {};
    return zon_error_none;
}

zon_error_t zon_destroy() {
    if (g_zon == nullptr) {
        trace_engine("\nZON Engine: zon_destroy");
        return zon_error_none;
    }
    if (relaxed_load(g_zon->in_use))
        return zon_error_zon_table_access_failed;
    if (const zon_error_t busy = tables_are_available(g_zon); busy != zon_error_none)
        return busy;
    // No timer handler runs from here on, while its tables are taken down.
    zon_timer_quiesce(g_zon->zon_tw);
    end_lanes(g_zon);
    destroy_flows(g_zon);
    destroy_flow_tables(g_zon);
    zon_timer_tw_destroy(&g_zon->zon_tw, &g_zon->zon_timer_vdm, &g_zon->zon_timer_process_create);
    const zon_error_t result = destroy_chunks(g_zon);
    destroy_side_tables(g_zon);
    zon_free_clients(g_zon);
    std::free(g_zon);
    g_zon = nullptr;
    zon_lanes_end();
    zon_lane_counts_clear();
    trace_engine("\nZON Engine: zon_destroy");
    return result;
}

bool zon_restart() {
    if (g_zon == nullptr)
        return false;
    const zon_params_t params = g_zon->params;
    if (zon_destroy() != zon_error_none) {
        trace_engine("\nZON Engine: zon_destroy failed\n");
        return false;
    }
    const bool initialised =
        zon_init(params.max_flows, params.pre_flow_timer, params.min_init_flows, params.max_threads,
                 params.max_bucket_depth, params.create_chunk_elements,
                 params.max_mem_buffer_init) == zon_error_none;
    if (!initialised)
        trace_engine("\nZON Engine: ZON initialization failed\n");
    // Capabilities stay in force although their clients are gone; hosts rely on it across a
    // restart.
    if (g_zon != nullptr) {
        g_zon->params.capability_counter = params.capability_counter;
        for (size_t id = 0; id < std::size(params.client_enabled_capability); ++id)
            g_zon->params.client_enabled_capability[id] = params.client_enabled_capability[id];
    }
    return initialised;
}

zon_error_t zon_is_init() {
    return g_zon != nullptr ? zon_error_none : zon_error_engine_not_init;
}

// zon_flow_table_debug.cpp - the statistics of the flow table, and the dump that operators ask for.
//
// Owns   nothing beyond a dump's own figures.
// Locks  a private mutex for the mark that a dump runs; the walks take bucket and flow locks one at
//        a time, inside, and nothing is held while a line is printed.

#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "osal/zon_lock_order.h"
#include "zon_debug_api.h"
#include "zon_fid_table.h"
#include "zon_flow_table_inline.h"
#include "zon_relaxed.h"

namespace {

ordered_mutex<lock_class::dump_marks> dumps_guard;
int dumps_running = 0;

// Keeps the engine from being destroyed; when two dumps overlap the mark falls with the last one.
class dump_in_progress {
public:
    explicit dump_in_progress(zon_t& engine) : engine_(engine) {
        const std::lock_guard guard(dumps_guard);
        ++dumps_running;
        relaxed_store(engine_.in_use, true);
    }
    ~dump_in_progress() {
        const std::lock_guard guard(dumps_guard);
        relaxed_store(engine_.in_use, --dumps_running != 0);
    }
    dump_in_progress(const dump_in_progress&) = delete;
    dump_in_progress& operator=(const dump_in_progress&) = delete;

private:
    zon_t& engine_;
};

struct heap_memory {
    void operator()(void* memory) const { std::free(memory); }
};

// All zero of an engine that has no flow table.
struct table_figures {
    int32_t size = 0;
    int32_t used = 0;
    int32_t empty = 0;
    int32_t occupied = 0;
    int32_t bucket_average = 0;
    int32_t bucket_maximum = 0;
    uint32_t inserts = 0;
    uint32_t deletes = 0;
    uint32_t passively_aged = 0;
    std::unique_ptr<int32_t[], heap_memory> distribution;
    int32_t* preflow_counts = nullptr;  // the table's own
};

table_figures gather_figures(zon_flow_table_t* tbl, bool with_distribution) {
    table_figures of;
    int32_t* distribution = nullptr;
    zon_flow_table_statistics(tbl, &of.size, &of.used, &of.empty, &of.occupied, &of.bucket_average,
                              &of.bucket_maximum, &of.inserts, &of.deletes, &of.passively_aged,
                              with_distribution ? &distribution : nullptr, &of.preflow_counts);
    of.distribution.reset(distribution);
    return of;
}

int announced(const zon_flow_table_t* tbl, uint32_t key_type) {
    return tbl != nullptr ? static_cast<int>(zon_private_get_incomplete_inserts(tbl, key_type)) : 0;
}

int tunnelled(zon_flow_table_t* tbl, zon_tunnel_type_e type) {
    return tbl != nullptr ? static_cast<int>(zon_private_get_active_tunnel_flows_count(tbl, type))
                          : 0;
}

void print_counts_by_kind(zon_flow_table_t* tbl) {
    std::printf(
        "IPv4 dst IP/port pre-flows\t %d\nIPv4 src IP/port pre-flows\t %d\n"
        "IPv4 complete pre-flows   \t %d\nIPv4 VRF unknown pre-flows\t %d\n",
        announced(tbl, ZON_IPV4_KEY_DST_IP_PORT_ONLY),
        announced(tbl, ZON_IPV4_KEY_SRC_IP_PORT_ONLY),
        announced(tbl, ZON_IPV4_KEY_PRE_FLOW_COMPLETE), announced(tbl, ZON_IPV4_KEY_VRF_STAR));
    std::printf(
        "IPv6 dst IP/port pre-flows\t %d\nIPv6 src IP/port pre-flows\t %d\n"
        "IPv6 complete pre-flows   \t %d\nIPv6 VRF unknown pre-flows\t %d\n",
        announced(tbl, ZON_IPV6_KEY_DST_IP_PORT_ONLY),
        announced(tbl, ZON_IPV6_KEY_SRC_IP_PORT_ONLY),
        announced(tbl, ZON_IPV6_KEY_PRE_FLOW_COMPLETE), announced(tbl, ZON_IPV6_KEY_VRF_STAR));
    std::printf("IPV6INIPV4-flows:\t %d\nteredo-flows:\t %d\n",
                tunnelled(tbl, ZON_TUNNEL_TYPE_IPV6INIP), tunnelled(tbl, ZON_TUNNEL_TYPE_TEREDO));
}

void print_statistics(const zon_t& engine, const table_figures& of) {
    std::printf(
        "hash table size\t\t %d\nactive flows\t\t %d\npassively aged flows\t %d\n"
        "empty buckets\t\t %d\noccupied buckets\t %d\naverage bucket depth\t %d\n"
        "max bucket depth\t %d\n",
        of.size, of.used, static_cast<int>(of.passively_aged), of.empty, of.occupied,
        of.bucket_average, of.bucket_maximum);
    std::printf("flow table inserts\t\t %d\nflow table deletes\t\t %d\n",
                static_cast<int>(of.inserts), static_cast<int>(of.deletes));
    std::printf("Full flow allocation errors\t %u\nHalf flow allocation errors\t %u\n",
                relaxed_load(engine.error_stats.flow_alloc_errors),
                relaxed_load(engine.error_stats.half_flow_alloc_errors));
    print_counts_by_kind(engine.flow_tbl);
    zon_debug_global_params();
}

void walk(const zon_t& engine, zon_dump_flow_context& context) {
    if (engine.fid_table != nullptr)
        zon_fid_table_iterate_flow(engine.fid_table, zon_debug_iterate_call_back, &context);
}

// Deleted flows alone get their title even where there is no flow at all: scripts look for it.
void print_title(zon_dump_flow_context& context, bool any_flow) {
    if (context.print_active && !any_flow) {
        std::puts("There are no flows allocated.");
    } else if (context.print_active || context.print_deleted) {
        context.print_title = true;
        zon_debug_iterate_call_back(nullptr, &context);
        context.print_title = false;
    }
}

void print_flows(const zon_t& engine, const zon_dump_output& out, bool any_flow) {
    zon_dump_flow_context context{};
    context.print_deleted = out.deleted_flows;
    context.print_active = out.active_flows;
    print_title(context, any_flow);
    context.ip_type = out.ip_type;
    context.ipaddr = out.ipaddr;
    context.port = out.port;
    walk(engine, context);
}

// Works on the dump's own figures: the engine may be gone meanwhile.
void print_histogram(const table_figures& of) {
    std::puts("Hash distribution:");
    if (of.distribution == nullptr)
        return;
    for (int32_t bucket = 0; bucket < of.size; ++bucket) {
        std::printf("%d,%d\n", bucket, of.distribution[static_cast<size_t>(bucket)]);
        sched_yield();  // each time, kept on purpose: packets go first
    }
}

void store(int32_t* to, int32_t value) {
    if (to != nullptr)
        *to = value;
}

}  // namespace

void zon_debug_flow_table_dump(zon_dump_output* out) {
    if (g_zon == nullptr)
        return;
    table_figures figures;
    {
        zon_t& engine = *g_zon;
        const dump_in_progress running(engine);
        figures = gather_figures(engine.flow_tbl, out != nullptr && out->histogram);
        if (out == nullptr) {
            zon_dump_flow_context silent{};
            walk(engine, silent);
            return;
        }
        if (out->stats)
            print_statistics(engine, figures);
        print_flows(engine, *out, figures.used > 0);
    }
    if (out->histogram)
        print_histogram(figures);
}

void zon_debug_flow_table_stats(int32_t* size, int32_t* used, int32_t* empty, int32_t* occupied,
                                int32_t* bucket_average, int32_t* bucket_maximum,
                                int32_t** distribution, int32_t** preflow_counts) {
    if (g_zon == nullptr || g_zon->flow_tbl == nullptr)
        return;
    table_figures of = gather_figures(g_zon->flow_tbl, distribution != nullptr);
    store(size, of.size);
    store(used, of.used);
    store(empty, of.empty);
    store(occupied, of.occupied);
    store(bucket_average, of.bucket_average);
    store(bucket_maximum, of.bucket_maximum);
    if (distribution != nullptr)
        *distribution = of.distribution.release();
    if (preflow_counts != nullptr)
        *preflow_counts = of.preflow_counts;
}

void zon_debug_flow_table_clear_stats() {
    if (g_zon == nullptr)
        return;
    relaxed_store(g_zon->error_stats.flow_alloc_errors, 0);
    relaxed_store(g_zon->error_stats.half_flow_alloc_errors, 0);
    if (g_zon->flow_tbl != nullptr)
        zon_flow_table_statistics_clear(g_zon->flow_tbl);
}

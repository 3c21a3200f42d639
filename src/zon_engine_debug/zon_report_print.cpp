// zon_report_print.cpp - the texts of a dump: the engine's parameters, keys, the line of a flow.
//
// Owns   nothing.
// Locks  none of the engine's; a flow's line holds standard output, so that it stays in one piece.
// Knows  reports and keys; flows themselves are not looked at.

#include <cstdio>

#include "zon_debug_api.h"
#include "zon_flow_defs.h"

namespace {

// Keeps other threads' prints out of a line that is printed in pieces.
class whole_line {
public:
    whole_line() { flockfile(stdout); }
    ~whole_line() { funlockfile(stdout); }
    whole_line(const whole_line&) = delete;
    whole_line& operator=(const whole_line&) = delete;
};

int as_int(uint32_t value) {
    return static_cast<int>(value);
}

void print_end(uint32_t ip, uint32_t port) {
    std::printf("%d.%d.%d.%d:%d,", as_int(ip >> 24), as_int(ip >> 16 & 0xFF),
                as_int(ip >> 8 & 0xFF), as_int(ip & 0xFF), as_int(port));
}
void print_end(const uint32_t (&ip)[4], uint32_t port) {
    std::printf("%x:%x:%x:%x:%x:%x:%x:%x %d ", ip[0] >> 16, ip[0] & 0xFFFF, ip[1] >> 16,
                ip[1] & 0xFFFF, ip[2] >> 16, ip[2] & 0xFFFF, ip[3] >> 16, ip[3] & 0xFFFF,
                as_int(port));
}

template <class full_key>
void print_key(const full_key& key) {
    std::printf("<");
    print_end(key.src_ip, key.src_port);
    print_end(key.dst_ip, key.dst_port);
    std::printf("%d,%d>", as_int(key.l4_protocol), as_int(key.vrf_id));
}

bool is_wanted(const zon_flow_report_t& report, const zon_dump_flow_context* ctx) {
    return ctx == nullptr || (report.marked_for_delete ? ctx->print_deleted : ctx->print_active);
}

}  // namespace

void zon_debug_global_params() {
    if (g_zon == nullptr)
        return;
    const zon_params_t& params = g_zon->params;
    std::puts("\n  Global ZON Parameters  ");
    std::puts("-------------------------");
    std::printf("Max Flows: %d\n", as_int(params.max_flows));
    std::printf("Default Pre-flow timeout: %d\n", as_int(params.pre_flow_timer));
    std::printf("Minimum Initial Flows: %d\n", as_int(params.min_init_flows));
    std::printf("Max Threads: %d\n", as_int(params.max_threads));
    std::printf("Max Hash Bucket Depth: %d\n", params.max_bucket_depth);
    std::printf("Create New Chunk Elements: %d\n", as_int(params.create_chunk_elements));
    std::printf("Max Initial Memory Buffer: %d\n", as_int(params.max_mem_buffer_init));
}

void zon_debug_flow_key_dump(zon_key_t* key) {
    if (key == nullptr)
        return;
    switch (key->key_type) {
    case ZON_IPV4_KEY_COMPLETE:
    case ZON_IPV4_KEY_DST_IP_PORT_ONLY:
    case ZON_IPV4_KEY_SRC_IP_PORT_ONLY:
    case ZON_IPV4_KEY_VRF_STAR:
        print_key(*reinterpret_cast<const zon_ipv4_key_t*>(key));
        break;
    case ZON_IPV6_KEY_COMPLETE:
    case ZON_IPV6_KEY_DST_IP_PORT_ONLY:
    case ZON_IPV6_KEY_SRC_IP_PORT_ONLY:
    case ZON_IPV6_KEY_VRF_STAR:
        print_key(*reinterpret_cast<const zon_ipv6_key_t*>(key));
        break;
    default:
        break;
    }
}

void zon_debug_flow_print_report(zon_flow_report_t* report, zon_dump_flow_context* ctx) {
    if (ctx != nullptr && ctx->print_title) {
        std::puts("\nFID  L4-Sess L4-TCP      \tInitiator\t\t\t  Responder");
        return;
    }
    if (report == nullptr) {
        std::puts("Null report");
        return;
    }
    if (!is_wanted(*report, ctx))
        return;
    const whole_line kept_together;
    std::printf("%6d %6d %4d ", as_int(report->fid), report->l4_sess_state, report->l4_tcp_state);
    zon_debug_flow_key_dump(&report->initiator_key.key);
    std::printf("  ");
    zon_debug_flow_key_dump(&report->responder_key.key);
    std::printf("\n");
}

void zon_debug_iterate_call_back(zon_flow_report_t* report, void* user) {
    zon_debug_flow_print_report(report, static_cast<zon_dump_flow_context*>(user));
}

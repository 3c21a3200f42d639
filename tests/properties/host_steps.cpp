// host_steps.cpp - what the host and its operators look at, and how they set the engine up.

#include <cstdlib>
#include <cstring>

#include "properties/side_by_side.h"
#include "support/captured_output.h"

namespace zon_test {

namespace {

// A walk's filter with the reports that it brought.
struct report_walk {
    zon_dump_flow_context filter{};
    std::vector<zon_flow_report_t> reports;
};

void keep_report(zon_flow_report_t* report, void* user) {
    static_cast<report_walk*>(user)->reports.push_back(*report);
}

bool has_end(const flow_of_model& of, const endpoint& end) {
    for (const side_key& side : of.sides)
        if (side.tuple.source == end || side.tuple.destination == end)
            return true;
    return false;
}

size_t lines_with(const std::string& text, const std::string& part) {
    size_t lines = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++lines;
    return lines;
}

// The number behind a line's name, or -1.
int figure(const std::string& text, const std::string& name) {
    const size_t at = text.find('\n' + name);
    return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + 1 + name.size());
}

}  // namespace

void side_by_side::report(const operation& step) {
    report_walk walk;
    endpoint end = tuple_of(step).source;
    const bool filtered = step[field::extra] % 4 == 3;
    if (filtered) {
        walk.filter.ip_type = end.ipv6 ? L3_ADDR_IPV6 : L3_ADDR_IPV4;
        walk.filter.ipaddr = end.ip.data();
        walk.filter.port = end.port;
        const captured_output output(stdout);
        zon_test_fid_table_iterate_flow(keep_report, &walk);
    } else {
        zon_test_fid_table_iterate_flow(keep_report, &walk);
    }
    size_t at = 0;
    for (const uint32_t fid : model_.fids()) {
        const flow_of_model& of = *model_.flow(fid);
        if (filtered && !has_end(of, end))
            continue;
        if (at == walk.reports.size())
            throw std::runtime_error("no report of flow " + std::to_string(fid));
        expect_report(walk.reports[at++], of);
    }
    expect("reports", walk.reports.size(), at);
    expect_table();
}

void side_by_side::dump(const operation& step) {
    endpoint end = tuple_of(step).source;
    zon_dump_output wanted{};
    wanted.stats = true;
    wanted.active_flows = true;
    wanted.histogram = true;
    const bool filtered = step[field::extra] % 2 != 0;
    if (filtered) {
        wanted.ip_type = end.ipv6 ? L3_ADDR_IPV6 : L3_ADDR_IPV4;
        wanted.ipaddr = end.ip.data();
        wanted.port = end.port;
    }
    std::string text = "\n";
    {
        captured_output output(stdout);
        zon_debug_flow_table_dump(&wanted);
        text += output.text();
    }
    size_t passing = 0;
    for (const uint32_t fid : model_.fids())
        passing += !filtered || has_end(*model_.flow(fid), end) ? 1U : 0;
    // Two keys a line; flows that were announced whole are known by their missing keys.
    const size_t lines = lines_with(text, "\n     ");
    const size_t visited = model_.fids().size();
    expect("lines of flows", lines, passing);
    expect("flows looked at", lines_with(text, "are we dumping here?"), filtered ? visited : 0);
    expect("title", lines_with(text, "FID  L4-Sess"), visited != 0 ? 1 : 0);
    expect("half flows printed", figure(text, "active flows\t\t "), 2 * visited);
    expect("inserts printed", figure(text, "flow table inserts\t\t "), model_.counts.inserts);
    expect("deletes printed", figure(text, "flow table deletes\t\t "), model_.counts.deletes);
    expect("aged flows printed", figure(text, "passively aged flows\t "), model_.counts.aged);
    expect("refused flows printed", figure(text, "Full flow allocation errors\t "),
           model_.counts.refused);
    expect("IPv6 complete pre-flows printed", figure(text, "IPv6 complete pre-flows   \t "),
           model_.sides_of_type(8));
    expect("capacity printed", figure(text, "Max Flows: "), engine_capacity);
}

// Defaults, sums, texts and the hooks that nobody replaced; nothing of it touches a flow.
void side_by_side::configure(const operation& step) {
    const uint32_t value = step[field::value];
    uint32_t flows = 0;
    expect_error("capacity", zon_config_get_max_flows(&flows), 0);
    expect("capacity", flows, engine_capacity);
    expect_error("flows in memory",
                 zon_config_calc_max_flows_for_given_memory(value * 1000, &flows), 0);
    expect("flows in memory", flows, value * 1000 / 392);

    const uint32_t before = ZON_DEFAULT_MAX_FLOWS;
    const zon_error_t expected = value == 0                           ? zon_error_parameter_is_null
                                 : value < ZON_DEFAULT_MIN_INIT_FLOWS ? zon_error_parameter_invalid
                                                                      : zon_error_none;
    expect_error("default capacity", zon_config_set_max_flows(value), expected);
    expect("default capacity", ZON_DEFAULT_MAX_FLOWS, expected == zon_error_none ? value : before);
    zon_params_t params = g_zon->params;
    const uint8_t depth = ZON_DEFAULT_MAX_COLLISION_SIZE;
    const std::array<uint32_t, 4> kept = {ZON_DEFAULT_MIN_INIT_FLOWS, ZON_DEFAULT_MAX_CONCURRENCY,
                                          ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS,
                                          ZON_DEFAULT_MAX_MEM_BUFFER_INIT};
    expect_error("defaults", zon_set_default_params(&params), 0);
    expect("default capacity", ZON_DEFAULT_MAX_FLOWS, engine_capacity);
    expect("default block", ZON_DEFAULT_MIN_INIT_FLOWS, engine_block);
    params.max_flows = before;
    params.min_init_flows = kept[0];
    params.max_threads = kept[1];
    params.create_chunk_elements = kept[2];
    params.max_mem_buffer_init = kept[3];
    params.max_bucket_depth = depth;
    zon_set_default_params(&params);

    const auto is_known = [](const char* text, const char* unknown) {
        return std::strcmp(text, unknown) != 0;
    };
    const auto number = static_cast<int>(value);
    expect("text of an error",
           is_known(zon_error_str(static_cast<zon_error_t>(number)), "unknown zon error"),
           value < zon_error_end);
    expect("text of a session", is_known(zon_session_state_string(number), "unknown"), value < 7);
    expect("text of a TCP state",
           is_known(zon_tcp_state_string(static_cast<zon_tcp_state_t>(number)), "unknown"),
           value < ZON_TCP_ENUM_END);
    expect("text of a verdict", is_known(zon_l4_retcode_string(number), "unknown"), value < 15);
    expect("VRF of a packet", zon_get_vrf_table_id(nullptr), 0);
    expect("clean-up of nothing", zon_cleanup_packet(nullptr), false);
    uint32_t ip = 1;
    uint16_t port = 2;
    expect("translation", zon_ipv4nat_get_translated_ip_port(nullptr, &ip, &port, &ip, &port),
           false);
}

}  // namespace zon_test

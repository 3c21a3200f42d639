// side_by_side.cpp - the life of an engine and its model, and what is compared after every step.

#include "properties/side_by_side.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>

#include "support/index_oracle.h"

namespace zon_test {

reached_so_far side_by_side::reached;

// ---- begin and end ----

side_by_side::side_by_side()
    : model_(zon_clock_now_us(), engine_capacity, engine_block, announced_ms) {
    expect_error("manual clock", zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE), 0);
    nat_is_on = false;
    zon_set_open_flow_after_pkts(0);
    expect_error("init", zon_init(engine_capacity, announced_ms, engine_block, 3, 0, 4, 5), 0);
    begin_engine();
    ++reached.scripts;
}

side_by_side::~side_by_side() {
    zon_destroy();
    zon_clock_set_mode(ZON_CLOCK_SYSTEM);
}

void side_by_side::begin_engine() {
    expect("timers",
           zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                             &g_zon->zon_timer_process_create),
           true);
    register_observer();
    told_by_engine().clear();
    seen_ = {};
    announced_halves_ = nullptr;
    was_rekeyed_ = {};
}

void side_by_side::register_observer() {
    constexpr auto both =
        static_cast<zon_capability_e>(ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP);
    zon_client_id_e id = 0;
    expect_error("first client", zon_client_feature_register(&id), 0);
    expect("its identifier", id, observer);
    expect("the model's first client", model_.clients.add().value_or(0), observer);
    expect_error("its delete callback", zon_client_register_delete_cb(id, note_deletion),
                 model_.clients.set(client_model::told_deletions, observer));
    expect_error("its capabilities", zon_client_enable_engine_capability(id, both),
                 model_.clients.enable(observer, both));
}

// A lock that an operation kept would stop another thread.
void side_by_side::expect_no_lock_held() {
    constexpr auto patience = std::chrono::seconds(10);
    const std::vector<uint32_t> fids = model_.fids();
    std::future<void> other = std::async(std::launch::async, [&fids] {
        uint32_t packets = 0;
        for (const uint32_t fid : fids)
            zon_flow_get_packet_count(fid, &packets);
    });
    if (other.wait_for(patience) == std::future_status::ready)
        return;
    // The other thread is let go before the difference is told.
    while (other.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
        for (const uint32_t fid : fids) {
            zon_flow_t kept = snapshot_of(fid);
            zon_unlock_flow_tamonet(&kept);
        }
    throw std::runtime_error("the lock of a flow is still held");
}

void side_by_side::clear_all() {
    expect_no_lock_held();
    for (const uint32_t fid : model_.fids())
        remove(fid, 2);
    expect_told();
    expect_flows();
    expect_figures();
}

// Everything is told again to the clients, and nothing stays but what they had enabled.
void side_by_side::restart(uint8_t how) {
    for (const uint32_t fid : model_.fids())
        model_.remove(fid, ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED);
    client_model clients;
    switch (how % 3) {
    case 0:
        expect("restart", zon_restart(), true);
        clients = model_.clients;
        clients.forget_clients();
        break;
    case 1:
        zon_timer_tw_destroy(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                             &g_zon->zon_timer_process_create);
        expect_error("destroy", zon_destroy(), 0);
        expect_error("no engine", zon_is_init(), zon_error_engine_not_init);
        [[fallthrough]];
    default:
        expect_error("init", zon_init(engine_capacity, announced_ms, engine_block, 3, 0, 4, 5), 0);
        break;
    }
    expect_error("engine", zon_is_init(), 0);
    expect_told();
    const uint8_t threshold = model_.udp_threshold;
    model_ = engine_model(zon_clock_now_us(), engine_capacity, engine_block, announced_ms);
    model_.udp_threshold = threshold;
    model_.clients = clients;
    begin_engine();
}

void side_by_side::expect_sound_index() {
    const index_look look = look_at_index();
    reached.indexed += look.named;
    expect("index of connections", look.difference, std::string());
}

// ---- the steps ----

void side_by_side::run(const operation& step) {
    ++reached.steps;
    ++reached.of_kind[step.kind];
    switch (step.kind) {
    case op::packet:
        packet(step);
        break;
    case op::sync_packet:
        sync_packet(step);
        break;
    case op::kit_packet:
        kit_packet(step);
        break;
    case op::engine_packet:
        engine_packet(step);
        break;
    case op::clean_up:
        clean_up();
        break;
    case op::wait:
        wait(step);
        break;
    case op::translate:
        nat_is_on = step[field::extra] % 2 != 0;
        break;
    case op::report:
        report(step);
        break;
    case op::dump:
        dump(step);
        break;
    case op::clear_stats:
        zon_debug_flow_table_clear_stats();
        model_.counts = {};
        break;
    case op::configure:
        configure(step);
        break;
    case op::restart:
        restart(step[field::extra]);
        break;
    default:
        if (step.kind >= op::register_client)
            run_client_step(step);
        else if (step.kind >= op::attach && step.kind <= op::detach_uni)
            run_object_step(step);
        else
            run_flow_step(step);
    }
    expect_told();
    expect_sound_index();
    expect_flows();
    expect_figures();
}

// ---- comparing ----

void side_by_side::expect_told() {
    expect("told to clients", told_by_engine(), model_.told);
    for (const notice& one : model_.told)
        reached.deletions += one.is_deletion_told_to(observer) ? 1 : 0;
    told_by_engine().clear();
    model_.told.clear();
}

void side_by_side::expect_flows() {
    for (uint32_t fid = 1; fid <= engine_capacity; ++fid) {
        uint32_t packets = 0;
        const bool in_use = zon_flow_get_packet_count(fid, &packets) == zon_error_none;
        const flow_of_model* of = model_.flow(fid);
        if (in_use != (of != nullptr))
            throw std::runtime_error("flow " + std::to_string(fid) + " is in use in the " +
                                     (in_use ? "engine" : "model") + " alone");
        if (!in_use)
            continue;
        expect("packets of the flow", packets, of->packets);
        expect_flow(*of);
    }
}

namespace {

bool same_end(const zon_ip_addr_t& address, uint16_t port, const endpoint& end) {
    if (port != end.port || (address.addr_type == ZON_IP_ADDR_IPV6) != end.ipv6)
        return false;
    return end.ipv6 ? std::memcmp(address.u.v6_addr, end.ip.data(), sizeof end.ip) == 0
                    : address.u.v4_addr == end.ip[0];
}

bool same_tuple(const zon_flow_tuple_t& engine, const connection_tuple& model) {
    return same_end(engine.src_ip, engine.src_port, model.source) &&
           same_end(engine.dst_ip, engine.dst_port, model.destination) &&
           engine.l4_protocol == model.protocol && engine.vrf_id == model.vrf_id;
}

template <class key>
bool same_ends(const key& engine, const connection_tuple& model) {
    const auto same = [](const auto& ip, const endpoint& end) {
        return std::memcmp(&ip, end.ip.data(), sizeof ip) == 0;
    };
    return same(engine.src_ip, model.source) && same(engine.dst_ip, model.destination) &&
           engine.src_port == model.source.port && engine.dst_port == model.destination.port;
}

bool same_key(const zon_report_key_t& engine, const side_key& model) {
    return engine.key.key_type == model.type() && engine.key.vrf_id == model.tuple.vrf_id &&
           engine.key.l4_protocol == model.tuple.protocol &&
           (model.tuple.source.ipv6 ? same_ends(engine.ipv6, model.tuple)
                                    : same_ends(engine.ipv4, model.tuple));
}

}  // namespace

void side_by_side::expect_flow(const flow_of_model& of) {
    const std::string name = "flow " + std::to_string(of.fid) + ": ";
    const auto expect_of = [&](const char* what, auto engine, auto model) {
        expect((name + what).c_str(), engine, model);
    };
    for (const size_t side : {initiator_side, responder_side}) {
        zon_flow_tuple_t tuple{};
        const auto dir = static_cast<zon_flow_direction_e>(side + 1);
        expect_of("tuple found", static_cast<int>(zon_flow_get_tuple(of.fid, dir, &tuple)), 0);
        expect_of(side == initiator_side ? "initiator's tuple is the model's"
                                         : "responder's tuple is the model's",
                  same_tuple(tuple, of.sides[side].tuple), true);
    }
    zon_l4_flow_state_e state{};
    uint32_t application = 0, aging = 0;
    zon_fid_t parent = 0;
    zon_flow_get_l4_state(of.fid, &state);
    zon_flow_get_application_id(of.fid, &application);
    zon_flow_get_aging(of.fid, &aging);
    const zon_error_t has_parent = zon_flow_get_parent(of.fid, &parent);
    expect_of("state", static_cast<int>(state), of.session.state);
    expect_of("application", application, of.application);
    expect_of("idle seconds", aging, of.age_ms / 1000);
    expect_of("parent", parent, model_.parent_of(of.fid));
    expect_of("error of its parent", static_cast<int>(has_parent),
              parent != 0 ? zon_error_none : zon_error_parent_fid_not_found);
}

void side_by_side::expect_report(const zon_flow_report_t& report, const flow_of_model& of) {
    expect("identifier reported", report.fid, of.fid);
    expect("session reported", int{report.l4_sess_state}, of.session.state);
    expect("TCP state reported", static_cast<int>(report.l4_tcp_state), of.session.tcp);
    expect("bytes reported", report.num_l7_bytes, of.bytes);
    expect("packets reported", report.packet_number, of.packets);
    expect("first payload reported", report.first_payload_seen_on_pkt_num, of.first_payload_on);
    expect("application reported", report.app_id, of.application);
    expect("idle time reported", report.age_ms, of.age_ms);
    expect("deletion reported", int{report.marked_for_delete}, 0);
    expect("parent reported", report.parent_fid, model_.parent_of(of.fid));
    for (const uint8_t has : report.hasFO)
        expect("objects reported", int{has}, of.objects.any());
    expect("initiator's key is the model's",
           same_key(report.initiator_key, of.sides[initiator_side]), true);
    expect("responder's key is the model's",
           same_key(report.responder_key, of.sides[responder_side]), true);
}

// A look at the whole table gives up the processor at every bucket: only now and then.
void side_by_side::expect_table() {
    int32_t size = 0, used = 0, empty = 0, occupied = 0, average = 0, maximum = 0;
    int32_t* distribution = nullptr;
    zon_debug_flow_table_stats(&size, &used, &empty, &occupied, &average, &maximum, &distribution,
                               &announced_halves_);
    int32_t in_buckets = 0, deepest = 0;
    for (int32_t bucket = 0; bucket < size; ++bucket) {
        in_buckets += distribution[bucket];
        deepest = std::max(deepest, distribution[bucket]);
    }
    std::free(distribution);
    expect("half flows in the table", used, 2 * model_.fids().size());
    expect("half flows in buckets", in_buckets, used);
    expect("deepest bucket", maximum, deepest);
    expect("buckets", empty + occupied, size);
}

void side_by_side::expect_figures() {
    zon_flow_memory_usage_t usage{};
    expect_error("memory usage", zon_config_calc_crnt_memory_usage(&usage), 0);
    expect("bytes of IPv4", usage.bytes_used_for_ipv4_half_flows,
           model_.sides_of_family(false) * ipv4_half_flow_buf_size);
    expect("bytes of IPv6", usage.bytes_used_for_ipv6_half_flows,
           model_.sides_of_family(true) * ipv6_half_flow_buf_size);
    expect("flow records", usage.active_flow_count, model_.made());
    expect("bytes of flows", usage.bytes_used_for_flows, model_.made() * 248);
    expect("any group", usage.bytes_used_for_flow_aggregation != 0, model_.contexts.size() != 0);
    // The engine's own counts, which its host was once given the address of.
    if (announced_halves_ != nullptr)
        for (const uint32_t type : {1U, 2U, 3U, 4U, 6U, 7U, 8U, 9U})
            expect("announced half flows", announced_halves_[type], model_.sides_of_type(type));
}

// ---- what several steps need ----

zon_flow_t side_by_side::snapshot_of(uint32_t fid) {
    zon_flow_t copy{};
    void* object = nullptr;
    const bool lent =
        zon_flow_get_fo_by_fid(fid, observer, ZON_DIR_BI, &object, &copy) != zon_error_none;
    if (lent) {
        zon_flow_attach_fo(fid, observer, ZON_DIR_BI, object_of(1));
        expect_error("snapshot", zon_flow_get_fo_by_fid(fid, observer, ZON_DIR_BI, &object, &copy),
                     0);
    }
    zon_unlock_flow_tamonet(&copy);
    if (lent)
        zon_flow_detach_fo(fid, observer, ZON_DIR_BI, &object);
    return copy;
}

zon_flow_tuple_type_t side_by_side::type_of(const operation& step) {
    return static_cast<zon_flow_tuple_type_t>(step[field::type]);
}

known side_by_side::known_of(const operation& step) {
    constexpr known parts[] = {known::everything, known::source, known::destination,
                               known::any_vrf};
    return parts[step[field::type] % 4];
}

uint32_t side_by_side::client_of(const operation& step) {
    return client_ids[step[field::client] % client_ids.size()];
}

// A flow keeps its family: the tuple is taken in the flow's.
connection_tuple side_by_side::tuple_in_family_of(const flow_of_model& of, const operation& step) {
    operation adapted = step;
    if (tuple_of(step).source.ipv6 != of.sides[initiator_side].tuple.source.ipv6)
        adapted.numbers[static_cast<size_t>(field::tuple)] ^= 2;
    return tuple_of(adapted);
}

}  // namespace zon_test

// burst_clients.cpp - what the clients write down, answer and do in the midst of packets.

#include "burst/burst_clients.h"

#include <utility>

#include "zon_pkt_inline.h"

namespace zon_test {

burst_run* burst_clients::running_ = nullptr;

void burst_clients::enter(burst_run& run) {
    running_ = &run;
}
void burst_clients::leave() {
    running_ = nullptr;
}

void burst_clients::register_functions(zon_client_id_e client) {
    zon_client_register_delete_cb(client, deleted);
    zon_client_register_pre_flow_create_cb(client, may_create);
    zon_client_register_bypass_cb(client, bypass);
    zon_super_context_register_delete_cb(client, context_gone);
    zon_super_context_client_register(static_cast<zon_super_context_types_e>(client % 4),
                                      find_context);
}

bool burst_clients::is_translated(const void* note) {
    return running_ != nullptr && note != nullptr &&
           static_cast<const packet_note*>(note)->is_translated;
}

bool burst_clients::may_create(void* note, zon_client_id_e client) {
    const auto* packet = static_cast<const packet_note*>(note);
    running_->tell("may create", {packet != nullptr ? packet->number : 0, client});
    running_->maybe_act();
    return packet == nullptr || !packet->is_vetoed;
}

void burst_clients::bypass(uint32_t payload, bool first, bool promoted, bool first_payload,
                           uint32_t* id) {
    running_->tell("bypass", {payload, first, promoted, first_payload, *id});
    *id = *id * 3 + payload + 1;
    running_->maybe_act();
}

void burst_clients::deleted(zon_flow_ptr_t fid, void* initiator, void* responder, void* whole,
                            zon_flow_deletion_reason_e reason, zon_client_id_e client) {
    ++running_->reached.deletions;
    running_->tell(
        "deleted",
        {fid, reinterpret_cast<uintptr_t>(initiator), reinterpret_cast<uintptr_t>(responder),
         reinterpret_cast<uintptr_t>(whole), static_cast<uint64_t>(reason), client});
    running_->maybe_act();
}

bool burst_clients::find_context(void* note, uint32_t* context) {
    const auto* packet = static_cast<const packet_note*>(note);
    running_->tell("find context", {packet != nullptr ? packet->number : 0});
    *context = packet != nullptr ? packet->number % 5 : 0;
    return *context != 0;
}

void burst_clients::context_gone(uint32_t context, zon_super_context_types_e type, void** object) {
    running_->tell("context gone",
                   {context, static_cast<uint64_t>(type), reinterpret_cast<uintptr_t>(*object)});
}

// ---- what clients and host do ----

void burst_run::maybe_act() {
    if (current_ == nullptr || depth_ > 1 || !one_in(24))
        return;
    ++depth_;
    act();
    --depth_;
}

void burst_run::act() {
    ++reached.acts;
    switch (below(8)) {
    case 0:
    case 1:
        return toggle_capability();
    case 2:
        return tell("delete",
                    {zon_delete_flow_tamonet(some_fid(), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST)});
    case 3:
        return announce();
    case 4:
        return hang_objects();
    case 5:
        return set_fields();
    case 6:
        return change_keys();
    default:
        return hand_in_from_inside();
    }
}

void burst_run::toggle_capability() {
    constexpr zon_capability_e any[] = {
        ZON_CAPABILITY_ENABLE_TCP,           ZON_CAPABILITY_ENABLE_UDP,
        ZON_CAPABILITY_ENABLE_IPV6INIP,      ZON_CAPABILITY_ENABLE_TEREDO,
        ZON_CAPABILITY_ENABLE_CLIENT_BYPASS, ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS};
    const zon_capability_e which = any[below(std::size(any))];
    // Switched off by all it is out of force, whoever had it.
    const bool by_all = one_in(2);
    const bool off = by_all || one_in(3);
    for (const zon_client_id_e client : clients_)
        if (by_all || client == clients_[random_() % clients_.size()])
            tell("capability",
                 {static_cast<uint64_t>(which), client,
                  static_cast<uint64_t>(off ? zon_client_disable_engine_capability(client, which)
                                            : zon_client_enable_engine_capability(client, which))});
}

void burst_run::announce() {
    const zon_flow_tuple_t tuple = traffic_.some_tuple(random_);
    zon_fid_t fid = 0;
    const zon_error_t error =
        zon_pre_flow_add(static_cast<zon_flow_tuple_type_t>(below(4)), &tuple,
                         one_in(2) ? some_fid() % max_flows_ : 0, &fid, nullptr);
    tell("announce", {fid, static_cast<uint64_t>(error)});
}

void burst_run::hang_objects() {
    const zon_fid_t fid = some_fid();
    const zon_client_id_e client = some_client();
    const auto dir = static_cast<zon_flow_direction_e>(below(3));
    void* object = reinterpret_cast<void*>(static_cast<uintptr_t>(1 + below(1000)));
    const zon_error_t error = one_in(3) ? zon_flow_detach_fo(fid, client, dir, &object)
                                        : zon_flow_attach_fo(fid, client, dir, object);
    tell("object", {fid, static_cast<uint64_t>(error), reinterpret_cast<uintptr_t>(object)});
}

void burst_run::set_fields() {
    const zon_fid_t fid = some_fid();
    switch (below(5)) {
    case 0:
        return tell("state", {static_cast<uint64_t>(zon_flow_set_l4_state(
                                 fid, static_cast<zon_l4_flow_state_e>(below(7))))});
    case 1:
        return tell("application",
                    {static_cast<uint64_t>(zon_flow_set_application_id(fid, below(100)))});
    case 2:
        return tell("bypass", {static_cast<uint64_t>(zon_flow_set_dpi_bypass_id(fid, below(100)))});
    case 3:
        return tell("aging", {static_cast<uint64_t>(zon_flow_set_aging(fid, below(10)))});
    default: {
        zon_client_id_e client = 0;
        const zon_error_t error = zon_client_feature_register(&client);
        tell("client", {client, static_cast<uint64_t>(error)});
        zon_client_feature_unregister(client);
    }
    }
}

// A flow keeps its family.
void burst_run::change_keys() {
    const zon_fid_t fid = some_fid();
    zon_flow_tuple_t old{};
    if (zon_flow_get_tuple(fid, ZON_DIR_INITIATOR, &old) != zon_error_none)
        return;
    zon_flow_tuple_t tuple = traffic_.some_tuple(random_);
    if (tuple.src_ip.addr_type != old.src_ip.addr_type)
        tuple = old;
    tell("initiator", {static_cast<uint64_t>(zon_flow_update_initiator(fid, &tuple))});
    std::swap(tuple.src_ip, tuple.dst_ip);
    std::swap(tuple.src_port, tuple.dst_port);
    if (!one_in(3))
        tell("responder", {static_cast<uint64_t>(zon_flow_update_responder(fid, &tuple))});
}

// Clients make packets, too: of any connection, the one at work included.
void burst_run::hand_in_from_inside() {
    const zon_flow_tuple_t tuple = traffic_.some_tuple(random_);
    if (tuple.src_ip.addr_type != ZON_IP_ADDR_IPV4)
        return;
    packet_builder packet = packet_builder::ipv4(tuple.src_ip.u.v4_addr, tuple.dst_ip.u.v4_addr);
    if (tuple.l4_protocol == ZON_TCP_PROT)
        packet.tcp(tuple.src_port, tuple.dst_port).flags(tcp_ack);
    else
        packet.udp(tuple.src_port, tuple.dst_port);
    bytes content = packet.payload(below(20)).build();
    zon_pkt_indications_t seen{};
    zon_error_t error{};
    ++reached.nested;
    const zon_fid_t fid =
        zon_handle_captured_packet(content.data(), static_cast<uint32_t>(content.size()),
                                   tuple.vrf_id, nullptr, &seen, &error);
    tell("packet inside", {fid, static_cast<uint64_t>(error), seen.flow_pkt_count, seen.fif,
                           seen.lif, seen.bypass_id});
}

}  // namespace zon_test

// The hooks of a host that translates: functions of these names take the place of the library's.

bool zon_ipnat_enabled(void* context) {
    return zon_test::burst_clients::is_translated(context);
}

bool zon_ipv4nat_fixup_ip_port(void*, uint32_t* src_ip, uint16_t* src_port, uint32_t*, uint16_t*,
                               uint8_t) {
    *src_ip = 0x0A000001;
    *src_port = static_cast<uint16_t>(1 + *src_port % 10);
    return true;
}

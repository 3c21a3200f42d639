// announcer.cpp - pre-flows of which only the destination is known, and their going with their
// parent.
#include "helpers/announcer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

namespace zonflow {

namespace {

constexpr size_t client_ids = 32;
constexpr zon_flow_tuple_type_t to_this_endpoint = ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN;

// Callbacks carry no pointer of the client's, but they carry its id.
std::array<announcer*, client_ids> announcer_of_client{};

void check(zon_error_t error, const char* what) {
    if (error != zon_error_none) {
        throw announcer_error(std::string(what) + ": " + zon_error_str(error));
    }
}

int order_of_addresses(const zon_ip_addr_t& one, const zon_ip_addr_t& other) {
    return one.addr_type == ZON_IP_ADDR_IPV6
               ? std::memcmp(one.u.v6_addr, other.u.v6_addr, sizeof(one.u.v6_addr))
               : std::memcmp(&one.u.v4_addr, &other.u.v4_addr, sizeof(one.u.v4_addr));
}

}  // namespace

// What a control flow has announced, oldest first. Some of it may have come or aged out by now.
struct announcer::control_state {
    std::deque<zon_flow_tuple_t> announced;
    control_state* next_orphan = nullptr;
};

bool announcer::endpoint_order::operator()(const zon_flow_tuple_t& one,
                                           const zon_flow_tuple_t& other) const {
    const auto numbers = [](const zon_flow_tuple_t& tuple) {
        return std::make_tuple(tuple.vrf_id, tuple.l4_protocol, tuple.dst_port,
                               tuple.dst_ip.addr_type);
    };
    return numbers(one) != numbers(other) ? numbers(one) < numbers(other)
                                          : order_of_addresses(one.dst_ip, other.dst_ip) < 0;
}

announcer::announcer(size_t most_per_flow) : most_per_flow_(most_per_flow) {
    check(zon_client_feature_register(&client_), "cannot register a helper");
    check(zon_client_register_delete_cb(client_, flow_goes_away),
          "cannot register a helper for ended flows");
    announcer_of_client.at(client_) = this;
}

announcer::~announcer() {
    announcer_of_client[client_] = nullptr;
    free_orphans();
}

void announcer::announce(zon_fid_t control, uint8_t protocol, const zon_ip_addr_t& address,
                         uint16_t port) {
    zon_flow_tuple_t tuple{};
    if (zon_flow_get_tuple(control, ZON_DIR_INITIATOR, &tuple) != zon_error_none) {
        return;
    }
    tuple.src_ip = {};
    tuple.src_ip.addr_type = address.addr_type;  // decides the family of the whole tuple
    tuple.src_port = 0;
    tuple.dst_ip = address;
    tuple.dst_port = port;
    tuple.l4_protocol = protocol;
    // An earlier announcement would keep its parent and the rest of its time.
    withdraw(tuple);

    control_state* state = state_of(control);
    zon_fid_t pre_flow = ZON_NULL_FID;
    if (state == nullptr ||
        zon_pre_flow_add(to_this_endpoint, &tuple, control, &pre_flow, nullptr) != zon_error_none) {
        return;
    }
    announced_[tuple] = state;
    state->announced.push_back(tuple);
    if (state->announced.size() > most_per_flow_) {
        const zon_flow_tuple_t oldest = state->announced.front();
        withdraw(oldest);
    }
}

void announcer::withdraw_orphans() {
    for (const control_state* orphan = orphans_; orphan != nullptr; orphan = orphan->next_orphan) {
        for (const zon_flow_tuple_t& tuple : orphan->announced) {
            // Nothing is found where the connection has come or was no longer awaited.
            zon_pre_flow_delete_using_flow_tuple(to_this_endpoint, &tuple);
            announced_.erase(tuple);
        }
    }
    free_orphans();
}

// The flow's feature object, made on first use; null where the engine has no memory for it.
announcer::control_state* announcer::state_of(zon_fid_t control) {
    void* known = nullptr;
    if (zon_flow_get_fo(control, client_, ZON_DIR_BI, &known) == zon_error_none) {
        return static_cast<control_state*>(known);
    }
    auto state = std::make_unique<control_state>();
    const bool attached =
        zon_flow_attach_fo(control, client_, ZON_DIR_BI, state.get()) == zon_error_none;
    return attached ? state.release() : nullptr;  // comes back through flow_goes_away
}

// Takes an announcement back, whoever made it; nothing happens where there is none.
void announcer::withdraw(const zon_flow_tuple_t& tuple) {
    const auto found = announced_.find(tuple);
    if (found == announced_.end()) {
        return;
    }
    zon_pre_flow_delete_using_flow_tuple(to_this_endpoint, &tuple);
    const auto same_endpoint = [&](const zon_flow_tuple_t& other) {
        return !endpoint_order()(tuple, other) && !endpoint_order()(other, tuple);
    };
    std::erase_if(found->second->announced, same_endpoint);
    announced_.erase(found);
}

void announcer::free_orphans() {
    while (orphans_ != nullptr) {
        const std::unique_ptr<control_state> orphan(std::exchange(orphans_, orphans_->next_orphan));
    }
}

// Runs with the flow locked, so other flows are left alone: what the flow announced is withdrawn
// later.
void announcer::flow_goes_away(zon_flow_ptr_t, void*, void*, void* flow_fo,
                               zon_flow_deletion_reason_e, zon_client_id_e client) {
    announcer* self = announcer_of_client[client];
    auto* state = static_cast<control_state*>(flow_fo);
    if (self != nullptr && state != nullptr) {
        state->next_orphan = std::exchange(self->orphans_, state);
    }
}

}  // namespace zonflow

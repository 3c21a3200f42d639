// source_groups.cpp - numbers the addresses, since a super context is known by 32 bits.
#include "flows/source_groups.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "flows/packet_context.h"

namespace zonflow {

namespace {

constexpr zon_super_context_types_e by_source = ZON_SUPER_CONTEXT_IDENTITY;

}  // namespace

zon_error_t source_groups::register_with(zon_client_id_e client) {
    client_ = client;
    return zon_super_context_client_register(by_source, look_up);
}

source_groups::address_key source_groups::key_of(const zon_ip_addr_t& address) {
    address_key key{};
    if (address.addr_type == ZON_IP_ADDR_IPV6) {
        key[0] = 6;
        std::memcpy(&key[1], address.u.v6_addr, sizeof(address.u.v6_addr));
    } else {
        key[0] = 4;
        key[1] = address.u.v4_addr;
    }
    return key;
}

// Never 0, which is no super context to be walked.
uint32_t source_groups::context_of(const zon_ip_addr_t& address) {
    const auto [found, is_new] =
        contexts_.try_emplace(key_of(address), static_cast<uint32_t>(groups_.size() + 1));
    if (is_new) {
        groups_.emplace_back().address = address;
    }
    return found->second;
}

// Runs with the new flow locked and its indications filled. The flow's own tuple is asked for, not
// the packet: behind a tunnel the initiator's address stands further in.
bool source_groups::look_up(void* pkt_ctx, uint32_t* context) {
    const auto& packet = *static_cast<const packet_context*>(pkt_ctx);
    zon_flow_tuple_t tuple{};
    if (zon_flow_get_tuple(packet.indications->flow, ZON_DIR_INITIATOR, &tuple) != zon_error_none) {
        return false;
    }
    try {
        *context = packet.groups->context_of(tuple.src_ip);
    } catch (const std::bad_alloc&) {
        return false;  // nothing may be thrown through the engine
    }
    return true;
}

zon_error_t source_groups::group_of(zon_fid_t flow, source_group** group) {
    void* known = nullptr;
    const zon_error_t error = zon_super_context_get_fo(flow, by_source, client_, &known);
    *group = static_cast<source_group*>(known);
    return error;
}

zon_error_t source_groups::add_flow(zon_fid_t flow) {
    source_group* group = nullptr;
    zon_error_t error = group_of(flow, &group);
    if (error == zon_error_none && group == nullptr) {
        uint32_t context = 0;
        error = zon_super_context_get_sctxt_handle(flow, by_source, &context);
        if (error == zon_error_none) {
            group = &groups_.at(context - 1);
            error = zon_super_context_attach_fo(flow, by_source, client_, group);
        }
    }
    if (error == zon_error_none) {
        ++group->flows;
    }
    return error;
}

zon_error_t source_groups::add_packet(zon_fid_t flow, uint32_t ip_bytes, uint32_t payload_bytes) {
    source_group* group = nullptr;
    const zon_error_t error = group_of(flow, &group);
    if (error == zon_error_none) {
        ++group->packets;
        group->ip_bytes += ip_bytes;
        group->payload_bytes += payload_bytes;
    }
    return error;
}

std::vector<source_group> source_groups::ranked() const {
    std::vector<source_group> ranked(groups_.begin(), groups_.end());
    std::sort(ranked.begin(), ranked.end(), [](const source_group& one, const source_group& other) {
        return one.ip_bytes != other.ip_bytes ? one.ip_bytes > other.ip_bytes
                                              : key_of(one.address) < key_of(other.address);
    });
    return ranked;
}

}  // namespace zonflow

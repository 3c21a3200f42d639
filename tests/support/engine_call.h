// engine_call.h - calls zon_engine itself, with every argument in the test's hands.

#pragma once

#include "support/packet_builder.h"
#include "zon.h"
#include "zon_bytes.h"
#include "zon_flow_defs.h"

namespace zon_test {

// An error code that the engine never produces: a test sees whether *zon_error was written.
inline constexpr auto untouched_error = static_cast<zon_error_t>(99);

struct engine_call {
    explicit engine_call(const packet_builder& built, uint32_t vrf_id = 0)
        : engine_call(built.build(), vrf_id) {}
    explicit engine_call(bytes content, uint32_t vrf_id = 0) : packet(std::move(content)) {
        zon_fe_extract_fields(packet.data(), &fe);
        const bool has_ports = fe.protocol == ZON_TCP_PROT || fe.protocol == ZON_UDP_PROT;
        const uint16_t source_port = has_ports ? load_be16(fe.l4_start) : uint16_t{0};
        const uint16_t destination_port = has_ports ? load_be16(fe.l4_start + 2) : uint16_t{0};
        if (fe.l3_proto == ZON_L3_IPV4)
            zon_set_key_ipv4(zon_full_key<ipv4_family>(key()), ZON_IPV4_KEY_COMPLETE,
                             load_be32(fe.network_start + 12), load_be32(fe.network_start + 16),
                             source_port, destination_port, fe.protocol, vrf_id);
        else
            zon_set_key_ipv6(&scratch.key, ZON_IPV6_KEY_COMPLETE, fe.ipv6_srcaddr, fe.ipv6_dstaddr,
                             source_port, destination_port, fe.protocol, vrf_id);
    }
    engine_call(const engine_call&) = delete;
    engine_call& operator=(const engine_call&) = delete;

    zon_half_flow_t* key() { return reinterpret_cast<zon_half_flow_t*>(&scratch); }

    zon_fid_t run() { return run(&g_zon->params.capability_counter); }
    zon_fid_t run(zon_capability_counter_t* capabilities) {
        fe.tunneled_flow_type = tunnel;
        return zon_engine(key(), &fe, context, &seen, &error, tunnel, capabilities, 0,
                          ZON_L4_CLOSED, 0);
    }
    // The mode in which the host reports a flow that it knows.
    zon_fid_t report(zon_fid_t fid, zon_l4_flow_state_e state, uint32_t packet_number) {
        return zon_engine(key(), &fe, context, &seen, &error, tunnel,
                          &g_zon->params.capability_counter, fid, state, packet_number);
    }

    bytes packet;
    zon_dp_fe_t fe{};
    zon_ipv6_half_flow_t scratch{};
    zon_pkt_indications_t seen{};
    zon_error_t error = untouched_error;
    zon_tunnel_type_e tunnel = ZON_TUNNEL_TYPE_NONE;
    void* context = nullptr;
};

}  // namespace zon_test

// zon_packet_entry.h - the steps that a packet takes before it is classified, shared by the
// straight way and the detour.

#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "zon_engine/zon_packet.h"
#include "zon_engine_defs.h"
#include "zon_engine_inline.h"
#include "zon_fe_inline.h"
#include "zon_fe_ondemand.h"
#include "zon_relaxed.h"

// A packet as the host handed it in.
struct arriving_packet {
    zon_t* engine;
    uint8_t* ip;
    size_t captured;  // zon_no_end: the host vouches for the packet
    uint32_t vrf_id;
    void* context;
    zon_pkt_indications_t* indications;
    zon_error_t* error;
    zon_fid_t reported_fid;
    zon_l4_flow_state_e reported_state;
    uint32_t reported_number;

    bool is_trusted() const { return captured == zon_no_end; }
};

// Every packet that is not a whole TCP or UDP packet right behind a plain IP header: options of
// captured packets, extension headers, fragments, tunnels, refusals, and all that no client
// enabled. Takes the packet by value, so that the straight way can keep its own in registers.
[[gnu::cold, gnu::noinline]] zon_fid_t zon_take_detour(arriving_packet arriving);

// Finds the flow of a parsed packet, through the fragment table when it is a fragment.
zon_fid_t zon_classify_or_follow(const arriving_packet& arriving, zon_dp_fe_t& fe,
                                 zon_tunnel_type_e tunnel);

// An engine of which memory allowed only a part stays until it is destroyed; this is made last.
inline bool zon_engine_is_whole(const zon_t* engine) {
    return engine->super_ctx_table != nullptr;
}

// Is the packet a fragment other than the first?
inline bool is_later_fragment(const zon_dp_fe_t& fe) {
    const auto handle = const_cast<zon_dp_fe_t*>(&fe);
    const zon_ip_frag_e type =
        fe.l3_proto == ZON_L3_IPV4 ? zon_ipv4_frag_type(handle) : zon_ipv6_frag_type(handle);
    return type == zon_ip_frag_middle || type == zon_ip_frag_last;
}

inline bool is_teredo_active(const zon_t* engine) {
    return relaxed_load(engine->params.capability_counter.zon_engine_tunnel_teredo) != 0 ||
           zon_private_has_active_tunnel_flows(engine->flow_tbl, ZON_TUNNEL_TYPE_TEREDO);
}

// 0 where nothing readable follows the header.
inline uint32_t l3_header_size_of(const zon_dp_fe_t& fe) {
    return fe.l4_start != nullptr ? static_cast<uint32_t>(fe.l4_start - fe.network_start) : 0;
}

inline void preset_indications(const arriving_packet& arriving, const zon_dp_fe_t& fe,
                               zon_tunnel_type_e tunnel) {
    zon_pkt_indications_t& seen = *arriving.indications;
    seen.flow = 0;
    seen.l7_flow_bytes = 0;
    seen.flow_pkt_count = 0;
    seen.l4_payload_size = 0;
    seen.l3_payload_size = zon_token_ip_l3_payload_size(const_cast<zon_dp_fe_t*>(&fe));
    seen.l3_header_size = l3_header_size_of(fe);
    seen.bypass_id = 0;
    seen.l4_port = {0, 0};
    seen.l3_protocol = fe.l3_proto;
    seen.is_initiator = 0;
    seen.fif = 0;
    seen.lif = 0;
    seen.first_payload = 0;
    seen.was_promoted = 0;
    seen.packet_seen = 1;
    seen.l4_protocol = fe.protocol;
    seen.is_fragment = 0;
    seen.l4_error = ZON_L4_NOERR;
    seen.tunnel_type = tunnel;
    seen.l3_start = fe.network_start;
    seen.l4_start = nullptr;
    seen.l7_start = nullptr;
}

// The packet's key in its own direction. Nothing but the key is set: the engine copies it and keeps
// no half flow of ours. Storage of the larger family serves both.
class scratch_half_flow {
public:
    template <class family>
    void set(const arriving_packet& arriving, const zon_dp_fe_t& fe, zon_l4_port_t ports) {
        if constexpr (std::is_same_v<family, ipv4_family>)
            set_ipv4(arriving, fe, ports);
        else
            set_ipv6(arriving, fe, ports);
    }
    void set_ipv4(const arriving_packet& arriving, const zon_dp_fe_t& fe, zon_l4_port_t ports) {
        zon_ipv4_key_t* key = zon_full_key<ipv4_family>(head());
        *key = {ZON_IPV4_KEY_COMPLETE,
                fe.protocol,
                0,
                0,
                arriving.vrf_id,
                load_be32(fe.network_start + 12),
                ports.src_port,
                load_be32(fe.network_start + 16),
                ports.dst_port};
        take_hash_of_host(arriving);
    }
    void set_ipv6(const arriving_packet& arriving, const zon_dp_fe_t& fe, zon_l4_port_t ports) {
        zon_ipv6_key_t* key = zon_full_key<ipv6_family>(head());
        key->key_type = ZON_IPV6_KEY_COMPLETE;
        key->l4_protocol = fe.protocol;
        key->hash_value = 0;
        key->hash_valid = 0;
        key->vrf_id = arriving.vrf_id;
        copy_address(key->src_ip, fe.ipv6_srcaddr);
        key->src_port = ports.src_port;
        copy_address(key->dst_ip, fe.ipv6_dstaddr);
        key->dst_port = ports.dst_port;
        take_hash_of_host(arriving);
    }
    zon_half_flow_t* head() { return reinterpret_cast<zon_half_flow_t*>(&storage_); }

private:
    // In the pieces in which extraction wrote it, so that the compiler keeps them in registers.
    static void copy_address(uint32_t (&to)[4], const uint32_t (&from)[4]) {
        std::memcpy(&to[0], &from[0], 8);
        std::memcpy(&to[2], &from[2], 8);
    }

    void take_hash_of_host(const arriving_packet& arriving) {
        if (arriving.indications->hash_valid == 1) [[unlikely]] {
            head()->key.hash_value = arriving.indications->hash_value;
            head()->key.hash_valid = 1;
        }
    }

    zon_ipv6_half_flow_t storage_;
};

inline zon_fid_t run_engine(const arriving_packet& arriving, zon_half_flow_t* key, zon_dp_fe_t& fe,
                            zon_tunnel_type_e tunnel) {
    packet_in_engine packet{key,
                            &fe,
                            arriving.context,
                            arriving.indications,
                            arriving.error,
                            tunnel,
                            &arriving.engine->params.capability_counter};
    if (arriving.reported_fid != 0) [[unlikely]]
        return zon_synchronise_packet(packet, arriving.reported_fid, arriving.reported_state,
                                      arriving.reported_number);
    return zon_classify_packet(packet);
}

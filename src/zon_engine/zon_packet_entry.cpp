// zon_packet_entry.cpp - takes packets in. Whole TCP and UDP packets right behind a plain IP header
// go straight to the engine; everything else takes the detour, which tells the same of such
// packets, only slower.
//
// Owns   nothing; a packet's state is on the stack.
// Locks  none.

#include "zon_engine/zon_packet_entry.h"

#include <algorithm>

#include "osal/zon_debug.h"
#include "zon_ipv6_tunnel_inline.h"
#include "zon_layout_check.h"
#include "zon_pkt_inline.h"

namespace {

constexpr uint32_t tcp_min_size = 20;
constexpr uint32_t udp_size = 8;
constexpr uint32_t ipv4_min_size = 20;
constexpr uint32_t ipv6_size = 40;

// room: bytes from the header on that may be read.
bool tcp_header_fits(const uint8_t* tcp, size_t room) {
    if (room < tcp_min_size)
        return false;
    const uint32_t size = (tcp[12] >> 4) * 4U;
    return size >= tcp_min_size && size <= room;
}

// datagram: bytes that the IP header promises, room: those of them that may be read.
bool udp_header_fits(const uint8_t* udp, size_t room, size_t datagram) {
    if (room < udp_size)
        return false;
    const uint32_t length = load_be16(udp + 4);
    return length >= udp_size && length <= datagram;
}

// A first look at the two bytes behind the UDP header: neither an IPv6 packet nor an indicator
// means no Teredo. The search itself is the detour's.
bool may_be_teredo(const uint8_t* udp) {
    return udp[8] >> 4 == 6 || load_be16(udp + 8) <= 1;
}

bool is_enabled(const uint32_t& capability) {
    return relaxed_load(capability) != 0;
}

template <bool trusted>
[[gnu::always_inline]] inline bool ipv4_packet_is_plain(const arriving_packet& arriving) {
    const uint8_t* ip = arriving.ip;
    const zon_capability_counter_t& enabled = arriving.engine->params.capability_counter;
    if constexpr (!trusted)
        if (arriving.captured < ipv4_min_size)
            return false;
    const uint32_t header = (ip[0] & 15) * 4U;
    const uint32_t total = load_be16(ip + 2);
    const size_t readable = trusted ? total : std::min<size_t>(arriving.captured, total);
    if constexpr (!trusted)
        if (header < ipv4_min_size || header > readable)
            return false;
    if ((load_be16(ip + 6) & 0x3FFF) != 0) [[unlikely]]
        return false;
    const uint8_t* l4 = ip + header;
    if (ip[9] == ZON_TCP_PROT) [[likely]]
        return (trusted || tcp_header_fits(l4, readable - header)) &&
               is_enabled(enabled.zon_engine_flow_tcp);
    if (ip[9] != ZON_UDP_PROT || !is_enabled(enabled.zon_engine_flow_udp) ||
        !(trusted || udp_header_fits(l4, readable - header, total - header)))
        return false;
    if (!is_teredo_active(arriving.engine))
        return true;
    return readable >= header + udp_size + 2 && !may_be_teredo(l4);
}

template <bool trusted>
[[gnu::always_inline]] inline bool ipv6_packet_is_plain(const arriving_packet& arriving) {
    const uint8_t* ip = arriving.ip;
    const zon_capability_counter_t& enabled = arriving.engine->params.capability_counter;
    if constexpr (!trusted)
        if (arriving.captured < ipv6_size)
            return false;
    const uint32_t payload = load_be16(ip + 4);
    const size_t room =
        trusted ? payload : std::min<size_t>(arriving.captured - ipv6_size, payload);
    if (relaxed_load(zon_debug_flag_fe)) [[unlikely]]
        return false;
    if (ip[6] == ZON_TCP_PROT) [[likely]]
        return (trusted || tcp_header_fits(ip + ipv6_size, room)) &&
               is_enabled(enabled.zon_engine_flow_tcp);
    return ip[6] == ZON_UDP_PROT && (trusted || udp_header_fits(ip + ipv6_size, room, payload)) &&
           is_enabled(enabled.zon_engine_flow_udp);
}

zon_l4_port_t ports_at(const uint8_t* l4) {
    return {load_be16(l4), load_be16(l4 + 2)};
}

[[gnu::always_inline]] inline zon_fid_t plain_ipv4_packet(const arriving_packet& arriving) {
    zon_dp_fe_t fe{};
    zon_dp_fe_extract_fields_ipv4(arriving.ip, &fe);
    preset_indications(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    scratch_half_flow scratch;
    scratch.set_ipv4(arriving, fe, ports_at(fe.l4_start));
    return run_engine(arriving, scratch.head(), fe, ZON_TUNNEL_TYPE_NONE);
}

[[gnu::always_inline]] inline zon_fid_t plain_ipv6_packet(const arriving_packet& arriving) {
    zon_dp_fe_t fe{};
    zon_dp_fe_extract_ipv6_header(arriving.ip, &fe);
    preset_indications(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    scratch_half_flow scratch;
    scratch.set_ipv6(arriving, fe, ports_at(fe.l4_start));
    return run_engine(arriving, scratch.head(), fe, ZON_TUNNEL_TYPE_NONE);
}

template <bool trusted>
[[gnu::always_inline]] inline zon_fid_t take_in(const arriving_packet& arriving) {
    if (!trusted && arriving.captured == 0) [[unlikely]]
        return zon_take_detour(arriving);
    switch (arriving.ip[0] >> 4) {
    case 4:
        if (ipv4_packet_is_plain<trusted>(arriving)) [[likely]]
            return plain_ipv4_packet(arriving);
        break;
    case 6:
        if (ipv6_packet_is_plain<trusted>(arriving)) [[likely]]
            return plain_ipv6_packet(arriving);
        break;
    default:
        break;
    }
    return zon_take_detour(arriving);
}

// Nothing can be said of the packet but why.
[[gnu::cold, gnu::noinline]] zon_fid_t give_up(zon_pkt_indications_t* indications,
                                               zon_error_t* error, zon_error_t why) {
    if (error != nullptr)
        *error = why;
    if (indications != nullptr) {
        arriving_packet nothing{};
        nothing.indications = indications;
        preset_indications(nothing, zon_dp_fe_t{}, ZON_TUNNEL_TYPE_NONE);
    }
    return 0;
}

// Runs before anything is read of the packet.
template <bool trusted>
[[gnu::always_inline]] inline zon_fid_t enter(uint8_t* iphdr, size_t captured, uint32_t vrf_id,
                                              void* pkt_ctx, zon_pkt_indications_t* indications,
                                              zon_error_t* error, zon_fid_t reported_fid,
                                              zon_l4_flow_state_e reported_state,
                                              uint32_t reported_number) {
    if constexpr (!trusted)
        if (error == nullptr || iphdr == nullptr) [[unlikely]]
            return give_up(indications, error, zon_error_parameter_invalid);
    if (indications == nullptr) [[unlikely]]
        return give_up(nullptr, error, zon_error_parameter_is_null);
    zon_t* engine = g_zon;
    if (engine == nullptr) [[unlikely]]
        return give_up(indications, error, zon_error_engine_not_init);
    *error = zon_error_none;
    return take_in<trusted>({engine, iphdr, captured, vrf_id, pkt_ctx, indications, error,
                             reported_fid, reported_state, reported_number});
}

}  // namespace

zon_fid_t zon_handle_packet(uint8_t* iphdr, uint32_t vrf_id, void* pkt_ctx,
                            zon_pkt_indications_t* pkt_indications, zon_error_t* zon_error) {
    return enter<true>(iphdr, zon_no_end, vrf_id, pkt_ctx, pkt_indications, zon_error, 0,
                       ZON_L4_CLOSED, 0);
}

zon_fid_t zon_sync_packet(uint8_t* iphdr, uint32_t vrf_id, void* pkt_ctx,
                          zon_pkt_indications_t* pkt_indications, zon_error_t* zon_error,
                          zon_fid_t platform_reported_dft_fid,
                          zon_l4_flow_state_e platform_reported_dft_flow_state,
                          uint32_t platform_reported_flow_packet_number) {
    return enter<true>(iphdr, zon_no_end, vrf_id, pkt_ctx, pkt_indications, zon_error,
                       platform_reported_dft_fid, platform_reported_dft_flow_state,
                       platform_reported_flow_packet_number);
}

zon_fid_t zon_handle_captured_packet(uint8_t* iphdr, uint32_t captured_length, uint32_t vrf_id,
                                     void* pkt_ctx, zon_pkt_indications_t* pkt_indications,
                                     zon_error_t* zon_error) {
    return enter<false>(iphdr, captured_length, vrf_id, pkt_ctx, pkt_indications, zon_error, 0,
                        ZON_L4_CLOSED, 0);
}

zon_fid_t zon_sync_captured_packet(uint8_t* iphdr, uint32_t captured_length, uint32_t vrf_id,
                                   void* pkt_ctx, zon_pkt_indications_t* pkt_indications,
                                   zon_error_t* zon_error, zon_fid_t platform_reported_dft_fid,
                                   zon_l4_flow_state_e platform_reported_dft_flow_state,
                                   uint32_t platform_reported_flow_packet_number) {
    return enter<false>(iphdr, captured_length, vrf_id, pkt_ctx, pkt_indications, zon_error,
                        platform_reported_dft_fid, platform_reported_dft_flow_state,
                        platform_reported_flow_packet_number);
}

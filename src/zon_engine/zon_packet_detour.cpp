// zon_packet_detour.cpp - takes in the packets that do not go straight: checks of captured ones,
// what no client enabled, and packets inside tunnels.
//
// Owns   nothing; a packet's state is on the stack.
// Locks  none.

#include <algorithm>

#include "zon_engine/zon_captured_packet.h"
#include "zon_engine/zon_packet_entry.h"
#include "zon_ipv6_tunnel_inline.h"

namespace {

// ---- packets that get no flow ----

zon_fid_t not_classified(const arriving_packet& arriving, const zon_dp_fe_t& fe,
                         zon_tunnel_type_e tunnel) {
    preset_indications(arriving, fe, tunnel);
    return 0;
}

zon_fid_t refuse(const arriving_packet& arriving, const zon_dp_fe_t& fe, zon_tunnel_type_e tunnel) {
    preset_indications(arriving, fe, tunnel);
    *arriving.error = zon_error_parameter_invalid;
    return 0;
}

zon_fid_t unreadable_fragment(const arriving_packet& arriving, const zon_dp_fe_t& fe,
                              zon_tunnel_type_e tunnel) {
    preset_indications(arriving, fe, tunnel);
    arriving.indications->is_fragment = 1;
    arriving.indications->l4_error = ZON_L4_NOERR_NON_FIRST_FRAG;
    return 0;
}

// ---- what clients enabled ----

bool is_transport_enabled(const zon_t* engine, uint8_t protocol) {
    const zon_capability_counter_t& enabled = engine->params.capability_counter;
    switch (protocol) {
    case ZON_TCP_PROT:
        return relaxed_load(enabled.zon_engine_flow_tcp) != 0;
    case ZON_UDP_PROT:
        return relaxed_load(enabled.zon_engine_flow_udp) != 0;
    default:
        return false;
    }
}

// Tunnelled flows keep being matched after the capability has gone.
bool is_enabled(const zon_t* engine, uint8_t protocol) {
    if (protocol != ZON_IPV6_ENCAPSULATION_PROT)
        return is_transport_enabled(engine, protocol);
    return relaxed_load(engine->params.capability_counter.zon_engine_tunnel_ipv6inip) != 0 ||
           zon_private_has_active_tunnel_flows(engine->flow_tbl, ZON_TUNNEL_TYPE_IPV6INIP);
}

// ---- tunnels ----

// room: bytes of the inner packet that may be read.
zon_fid_t tunnelled_packet(const arriving_packet& arriving, const zon_dp_fe_t& outer,
                           uint8_t* inner, size_t room, zon_tunnel_type_e tunnel) {
    zon_dp_fe_t fe{};
    packet_check check = packet_check::sound;
    if (arriving.is_trusted())
        zon_fe_extract_fields_within(inner, zon_no_end, &fe);
    else
        check = zon_check_captured_ipv6(inner, room, fe);
    fe.tunneled_flow_type = tunnel;
    if (check == packet_check::refused)
        return refuse(arriving, outer, tunnel);
    if (check == packet_check::unreadable_fragment)
        return unreadable_fragment(arriving, fe, tunnel);
    if (!is_transport_enabled(arriving.engine, fe.protocol))
        return not_classified(arriving, outer, tunnel);
    return zon_classify_or_follow(arriving, fe, tunnel);
}

// Bytes from the IPv4 payload's start on that belong to the packet. The length fields of a trusted
// packet bound it where they make sense, so that nothing behind a short datagram is taken for a
// tunnel.
size_t ipv4_room(const arriving_packet& arriving, const zon_dp_fe_t& fe) {
    const size_t header = l3_header_size_of(fe);
    const size_t total = load_be16(fe.network_start + 2);
    if (!arriving.is_trusted())
        return std::min(arriving.captured, total) - header;
    return total >= header ? total - header : zon_no_end;
}

size_t udp_room(const arriving_packet& arriving, const zon_dp_fe_t& fe) {
    const size_t room = ipv4_room(arriving, fe);
    if (is_later_fragment(fe))
        return room;
    const size_t length = load_be16(fe.l4_start + 4);
    return length >= 8 ? std::min(room, length) : room;
}

zon_fid_t ipv6_in_ipv4(const arriving_packet& arriving, const zon_dp_fe_t& fe) {
    // The data of a later fragment is not the beginning of an inner packet. A trusted packet is
    // looked into all the same, on purpose: its host vouches for what stands there.
    if (!arriving.is_trusted() && is_later_fragment(fe))
        return not_classified(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    if (fe.l4_start[0] >> 4 != 6)
        return not_classified(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    return tunnelled_packet(arriving, fe, fe.l4_start,
                            arriving.is_trusted() ? zon_no_end : ipv4_room(arriving, fe),
                            ZON_TUNNEL_TYPE_IPV6INIP);
}

zon_fid_t udp_over_ipv4(const arriving_packet& arriving, zon_dp_fe_t& fe) {
    if (is_teredo_active(arriving.engine)) {
        const size_t room = udp_room(arriving, fe);
        if (uint8_t* inner = zon_teredo_find_inner_packet(fe.l4_start, room)) {
            if (!arriving.is_trusted() && is_later_fragment(fe))
                return not_classified(arriving, fe, ZON_TUNNEL_TYPE_NONE);
            return tunnelled_packet(arriving, fe, inner,
                                    room - static_cast<size_t>(inner - fe.l4_start),
                                    ZON_TUNNEL_TYPE_TEREDO);
        }
    }
    return zon_classify_or_follow(arriving, fe, ZON_TUNNEL_TYPE_NONE);
}

packet_check parse(const arriving_packet& arriving, zon_dp_fe_t& fe) {
    if (!arriving.is_trusted())
        return zon_check_captured_packet(arriving.ip, arriving.captured, fe);
    zon_fe_extract_fields_within(arriving.ip, zon_no_end, &fe);
    return packet_check::sound;
}

}  // namespace

zon_fid_t zon_take_detour(arriving_packet arriving) {
    zon_dp_fe_t fe{};
    switch (parse(arriving, fe)) {
    case packet_check::sound:
        break;
    case packet_check::refused:
        return refuse(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    case packet_check::unreadable_fragment:
        return unreadable_fragment(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    }
    if (fe.l3_proto == ZON_L3_OTHER || !is_enabled(arriving.engine, fe.protocol))
        return not_classified(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    if (fe.l3_proto == ZON_L3_IPV4 && fe.protocol == ZON_UDP_PROT)
        return udp_over_ipv4(arriving, fe);
    if (fe.l3_proto == ZON_L3_IPV4 && fe.protocol == ZON_IPV6_ENCAPSULATION_PROT)
        return ipv6_in_ipv4(arriving, fe);
    return zon_classify_or_follow(arriving, fe, ZON_TUNNEL_TYPE_NONE);
}

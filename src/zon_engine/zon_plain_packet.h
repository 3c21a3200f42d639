// zon_plain_packet.h - the straight way of a packet: whole TCP or UDP right behind a plain IP
// header, of a connection that the index names. It reads the packet once, takes one lock and writes
// the indications once; whatever it cannot do is left to the steps in zon_packet_entry.h, which
// tell the same of such packets.

#pragma once

#include <algorithm>

#include "osal/zon_debug.h"
#include "zon_connection_lookup.h"
#include "zon_engine/zon_flow_accounting.h"
#include "zon_engine/zon_packet_entry.h"
#include "zon_ipv6_tunnel_inline.h"

inline constexpr uint32_t ipv4_header_min_size = 20;
inline constexpr uint32_t ipv6_header_size = 40;

template <class family>
struct plain_packet {
    uint8_t* ip;
    uint8_t* l4;
    uint32_t l3_payload;      // bytes behind the IP header, by its length fields, modulo 2^16
    uint32_t l4_header_size;  // bytes
    uint32_t l4_payload;      // bytes, by the length fields of the headers, modulo 2^16
    zon_l4_port_t ports;
    bool is_tcp;  // or UDP
    connection<family> between;

    // 0 for neither, which no plain packet is.
    static constexpr uint16_t l3_protocol =
        std::is_same_v<family, ipv4_family> ? ZON_L3_IPV4 : ZON_L3_IPV6;

    uint8_t protocol() const { return is_tcp ? ZON_TCP_PROT : ZON_UDP_PROT; }
};

// The packet as those see it who are rarely asked.
template <class family>
inline zon_dp_fe_t handle_of(uint8_t* ip) {
    zon_dp_fe_t fe{};
    if constexpr (std::is_same_v<family, ipv4_family>)
        zon_dp_fe_extract_fields_ipv4(ip, &fe);
    else
        zon_dp_fe_extract_ipv6_header(ip, &fe);
    return fe;
}

inline zon_l4_port_t ports_at(const uint8_t* l4) {
    return {load_be16(l4), load_be16(l4 + 2)};
}

// What lies behind the IP header, in bytes: by the IP header, and of that what may be read.
struct bytes_behind_ip {
    size_t promised;
    size_t readable;
};

// Reads the transport header, if it is one of TCP or UDP, whole and wanted by somebody. TCP and UDP
// packets alternate as they please: what differs between them is chosen without a branch.
template <bool trusted, class family>
[[gnu::always_inline]] inline bool read_plain_l4(const zon_t* engine, bytes_behind_ip bytes,
                                                 uint8_t protocol, plain_packet<family>& plain) {
    constexpr uint32_t tcp_min = 20;
    const zon_capability_counter_t& enabled = engine->params.capability_counter;
    const bool is_tcp = protocol == ZON_TCP_PROT;
    if (!is_tcp & (protocol != ZON_UDP_PROT)) [[unlikely]]
        return false;
    if (!trusted && bytes.readable < udp_header_size + is_tcp * (tcp_min - udp_header_size))
        [[unlikely]]
        return false;
    // The data offset of TCP (RFC 9293 3.1), the length of UDP (RFC 768).
    const uint32_t word = load_be16(plain.l4 + 4 + is_tcp * 8);
    const auto pick = [is_tcp](uint32_t tcp, uint32_t udp) {
        return static_cast<uint32_t>(connection_detail::choose(is_tcp, tcp, udp));
    };
    plain.l4_header_size = pick((word >> 12) * 4U, udp_header_size);
    if constexpr (!trusted) {
        const uint32_t least = pick(tcp_min, udp_header_size);
        const uint32_t length = pick(plain.l4_header_size, word);
        const size_t limit = connection_detail::choose(is_tcp, bytes.readable, bytes.promised);
        if ((length < least) | (length > limit)) [[unlikely]]
            return false;
    }
    const uint32_t& capability = (&enabled.zon_engine_flow_tcp)[!is_tcp];
    if (relaxed_load(capability) == 0) [[unlikely]]
        return false;
    plain.is_tcp = is_tcp;
    plain.l4_payload = static_cast<uint16_t>(pick(plain.l3_payload, word) - plain.l4_header_size);
    plain.ports = ports_at(plain.l4);
    return true;
}
static_assert(offsetof(zon_capability_counter_t, zon_engine_flow_udp) ==
              offsetof(zon_capability_counter_t, zon_engine_flow_tcp) + sizeof(uint32_t));

// A first look at the two bytes behind the UDP header: neither an IPv6 packet nor an indicator
// means no Teredo. The search itself is the detour's.
inline bool may_be_teredo(const uint8_t* udp, size_t readable) {
    return readable < udp_header_size + 2 || udp[8] >> 4 == 6 || load_be16(udp + 8) <= 1;
}

// False, and nothing said of the packet, when it is not plain.
template <bool trusted>
[[gnu::always_inline]] inline bool read_plain_packet(const arriving_packet& arriving,
                                                     plain_packet<ipv4_family>& plain) {
    uint8_t* ip = arriving.ip;
    if (!trusted && arriving.captured < ipv4_header_min_size) [[unlikely]]
        return false;
    const uint32_t header = ipv4_header_size(ip);
    const uint32_t total = load_be16(ip + 2);
    const size_t readable = trusted ? total : std::min<size_t>(arriving.captured, total);
    if (!trusted && (header < ipv4_header_min_size || header > readable)) [[unlikely]]
        return false;
    if ((load_be16(ip + 6) & 0x3FFF) != 0) [[unlikely]]  // a fragment
        return false;
    plain.ip = ip;
    plain.l4 = ip + header;
    plain.l3_payload = static_cast<uint16_t>(total - header);
    const bytes_behind_ip bytes{total - header, readable - header};
    if (!read_plain_l4<trusted>(arriving.engine, bytes, ip[9], plain)) [[unlikely]]
        return false;
    if (is_teredo_active(arriving.engine) && !plain.is_tcp &&
        may_be_teredo(plain.l4, bytes.readable)) [[unlikely]]
        return false;
    plain.between = connection_of(load_be32(ip + 12), load_be32(ip + 16), plain.ports.src_port,
                                  plain.ports.dst_port, plain.protocol(), arriving.vrf_id);
    return true;
}

template <bool trusted>
[[gnu::always_inline]] inline bool read_plain_packet(const arriving_packet& arriving,
                                                     plain_packet<ipv6_family>& plain) {
    uint8_t* ip = arriving.ip;
    if (!trusted && arriving.captured < ipv6_header_size) [[unlikely]]
        return false;
    if (relaxed_load(zon_debug_flag_fe)) [[unlikely]]
        return false;
    plain.ip = ip;
    plain.l4 = ip + ipv6_header_size;
    plain.l3_payload = load_be16(ip + 4);
    const size_t promised = plain.l3_payload;
    const size_t readable =
        trusted ? promised : std::min<size_t>(arriving.captured - ipv6_header_size, promised);
    if (!read_plain_l4<trusted>(arriving.engine, {promised, readable}, ip[6], plain)) [[unlikely]]
        return false;
    uint32_t source[4];
    uint32_t destination[4];
    zon_load_ipv6_address(source, ip + 8);
    zon_load_ipv6_address(destination, ip + 24);
    plain.between = connection_of(source, destination, plain.ports.src_port, plain.ports.dst_port,
                                  plain.protocol(), arriving.vrf_id);
    return true;
}

inline connection_ends<ipv4_family> ends_of(const plain_packet<ipv4_family>& plain) {
    return {{load_be32(plain.ip + 12), plain.ports.src_port, load_be32(plain.ip + 16),
             plain.ports.dst_port}};
}
inline connection_ends<ipv6_family> ends_of(const plain_packet<ipv6_family>& plain) {
    uint32_t source[4];
    uint32_t destination[4];
    zon_load_ipv6_address(source, plain.ip + 8);
    zon_load_ipv6_address(destination, plain.ip + 24);
    return {{source[0], source[1], source[2], source[3], plain.ports.src_port, destination[0],
             destination[1], destination[2], destination[3], plain.ports.dst_port}};
}

// What stands aside takes the packet by its address: what is known of it stays in registers.
template <class family>
[[gnu::cold, gnu::noinline]] void trace_plain_packet(const state_trace& trace, uint8_t* ip,
                                                     bool from_initiator) {
    zon_dp_fe_t fe = handle_of<family>(ip);
    fe.i2r_flag = from_initiator;
    trace.print_if_changed(&fe);
}

template <class family>
[[gnu::cold, gnu::noinline]] void go_on_half_open(zon_flow_t* flow, uint8_t* ip,
                                                  bool from_initiator) {
    zon_dp_fe_t fe = handle_of<family>(ip);
    fe.i2r_flag = from_initiator;
    zon_half_open_go_on(flow, &fe);
}

// What a packet may be the first of.
struct first_packet {
    bool in_flow;
    bool after_promotion;
};

// The clients' functions see as much of the indications as is known by now.
template <class family>
[[gnu::cold, gnu::noinline]] void run_bypass_functions(zon_flow_t* flow,
                                                       zon_pkt_indications_t* indications,
                                                       uint8_t* ip, zon_l4_retcode l4_error,
                                                       payload_of_packet payload,
                                                       first_packet is_first) {
    arriving_packet arriving{};
    arriving.indications = indications;
    preset_indications(arriving, handle_of<family>(ip), ZON_TUNNEL_TYPE_NONE);
    zon_pkt_indications_t& seen = *indications;
    seen.fif = is_first.in_flow;
    seen.was_promoted = is_first.after_promotion;
    seen.l4_error = l4_error;
    seen.l4_payload_size = payload.size;
    seen.first_payload = payload.is_first;
    run_bypass_callbacks(flow, is_first.in_flow, is_first.after_promotion, payload);
}

// What the engine found in a packet.
struct found_in_packet {
    uint32_t number;  // in its flow; a client's function may hand in packets of the flow meanwhile
    zon_l4_retcode l4_error;
    payload_of_packet payload;
    bool from_initiator;
    bool is_last;
    first_packet is_first;
};

template <class family>
[[gnu::always_inline]] inline void write_indications(zon_pkt_indications_t& seen,
                                                     const zon_flow_t* flow,
                                                     const plain_packet<family>& plain,
                                                     const found_in_packet& found) {
    seen.flow = flow->fid;
    seen.l7_flow_bytes = flow->num_l7_bytes;
    seen.flow_pkt_count = found.number;
    seen.l4_payload_size = found.payload.size;
    seen.l3_payload_size = plain.l3_payload;
    seen.l3_header_size = static_cast<uint32_t>(plain.l4 - plain.ip);
    seen.bypass_id = flow->bypass_id;
    seen.l4_port = plain.ports;
    seen.l3_protocol = plain.l3_protocol;
    seen.is_initiator = found.from_initiator;
    seen.fif = found.is_first.in_flow;
    seen.lif = found.is_last;
    seen.first_payload = found.payload.is_first;
    seen.was_promoted = found.is_first.after_promotion;
    seen.packet_seen = 1;
    seen.l4_protocol = plain.protocol();
    seen.is_fragment = 0;
    seen.l4_error = found.l4_error;
    seen.tunnel_type = ZON_TUNNEL_TYPE_NONE;
    seen.l3_start = plain.ip;
    seen.l4_start = plain.l4;
    seen.l7_start = plain.l4 + plain.l4_header_size;
}

// Brings the flow up to date and tells what was found. Clients' functions may have run while the
// flow was searched for.
template <class family>
[[gnu::always_inline]] inline zon_fid_t account_directed_packet(
    locked_flow flow, const arriving_packet& arriving, const plain_packet<family>& plain,
    bool from_initiator, first_packet is_first, bool was_searched) {
    const zon_capability_counter_t& enabled = arriving.engine->params.capability_counter;
    const uint32_t payload = plain.l4_payload;
    const state_trace trace(flow.get());
    const uint32_t number = ++flow->packet_number;
    const zon_l4_retcode l4_error =
        plain.is_tcp ? zon_track_tcp({plain.l4, payload, from_initiator}, flow->l4state,
                                     relaxed_load(enabled.zon_engine_tcp_state_checks) != 0)
                     : zon_track_udp(from_initiator, flow->l4state);
    if (l4_error != ZON_L4_NOERR) [[unlikely]]
        trace_l4_error(flow.get(), l4_error);
    const payload_of_packet counted{payload, account_payload(flow.get(), payload)};
    const bool is_shown = relaxed_load(enabled.zon_engine_client_bypass) != 0 && plain.is_tcp;
    if (is_shown) [[unlikely]]
        run_bypass_functions<family>(flow.get(), arriving.indications, plain.ip, l4_error, counted,
                                     is_first);
    if (is_shown || was_searched) [[unlikely]]
        clear_error(flow.get(), arriving.error);
    if (flow->private_half_open != 0) [[unlikely]]
        go_on_half_open<family>(flow.get(), plain.ip, from_initiator);
    const bool is_closed = flow->l4state.sess_state == ZON_L4_CLOSED;
    if (is_first.in_flow)
        start_aging(flow.get(), plain.protocol());
    else
        flow->should_reset_timer = !is_closed;
    write_indications(*arriving.indications, flow.get(), plain,
                      {number, l4_error, counted, from_initiator, is_closed, is_first});
    if (relaxed_load(zon_debug)) [[unlikely]]
        trace_plain_packet<family>(trace, plain.ip, from_initiator);
    const zon_fid_t fid = flow->fid;
    // Nobody deletes the flow before it has joined its super contexts.
    if (is_first.in_flow)
        zon_super_context_process_fif(flow.get(), arriving.context);
    return fid;
}

// The index names no flow of the packet: its own is searched for, or made.
template <class family>
[[gnu::always_inline]] inline zon_fid_t search_flow_of(const arriving_packet& arriving,
                                                       const plain_packet<family>& plain,
                                                       flow_buckets known) {
    zon_dp_fe_t fe = handle_of<family>(plain.ip);
    preset_indications(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    scratch_half_flow scratch;
    scratch.set<family>(arriving, fe, plain.ports);
    packet_in_engine packet{scratch.head(),
                            &fe,
                            arriving.context,
                            arriving.indications,
                            arriving.error,
                            ZON_TUNNEL_TYPE_NONE,
                            &arriving.engine->params.capability_counter,
                            true,
                            known};
    locked_flow flow = zon_find_or_make_flow(packet);
    if (!flow) [[unlikely]]
        return 0;
    const bool from_initiator = runs_from_initiator(flow.get(), &fe);
    return account_directed_packet(
        std::move(flow), arriving, plain, from_initiator,
        {arriving.indications->fif != 0, arriving.indications->was_promoted != 0}, true);
}

// The packet's flow is one that the index names.
template <class family>
[[gnu::always_inline]] inline zon_fid_t account_plain_packet(locked_flow flow,
                                                             const arriving_packet& arriving,
                                                             const plain_packet<family>& plain) {
    const bool from_initiator = runs_from_initiator(flow.get(), plain.between.from_lower);
    return account_directed_packet(std::move(flow), arriving, plain, from_initiator, {}, false);
}

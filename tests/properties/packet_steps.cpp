// packet_steps.cpp - packets through every entry, and the time that passes between them.

#include <algorithm>
#include <cstring>

#include "properties/side_by_side.h"

namespace zon_test {

namespace {

constexpr uint32_t outer_source = 0xC0000201, outer_destination = 0xC0000202;
constexpr uint16_t teredo_source_port = 51234, teredo_port = 3544;

// What stacks send, and two things that they do not.
uint8_t flags_of(const operation& step) {
    constexpr uint8_t flags[] = {tcp_syn,           tcp_syn | tcp_ack, tcp_ack, tcp_psh | tcp_ack,
                                 tcp_fin | tcp_ack, tcp_rst,           tcp_fin, tcp_syn | tcp_fin};
    return flags[step[field::extra] % 8];
}

// One packet in four is one that some client may forbid.
uint32_t veto_of(const operation& step) {
    switch (step[field::value] / 32) {
    case 5:
        return client_ids[0];
    case 6:
        return client_ids[1];
    default:
        return 0;
    }
}

packet_contexts contexts_of(const operation& step) {
    packet_contexts found;
    for (uint32_t type = 0; type < found.size(); ++type)
        if ((step[field::value] + type) % 3 != 0)
            found[type] = (step[field::value] / 3U + type) % 3;
    return found;
}

bytes packet_of(const packet_of_model& seen) {
    const connection_tuple& tuple = seen.tuple;
    packet_builder built = tuple.source.ipv6
                               ? packet_builder::ipv6(ipv6_address(tuple.source.ip),
                                                      ipv6_address(tuple.destination.ip))
                               : packet_builder::ipv4(tuple.source.ip[0], tuple.destination.ip[0]);
    if (tuple.protocol == 6)
        built.tcp(tuple.source.port, tuple.destination.port).flags(seen.tcp_flags);
    else
        built.udp(tuple.source.port, tuple.destination.port);
    return built.payload(seen.payload).build();
}

}  // namespace

side_by_side::arrival side_by_side::arrival_of(const operation& step) {
    arrival in;
    in.seen.tuple = tuple_of(step);
    in.seen.tcp_flags = flags_of(step);
    in.seen.payload = step[field::value] % 32;
    in.seen.vetoed_by = in.context.vetoed_by = veto_of(step);
    in.seen.contexts = in.context.contexts = contexts_of(step);
    if (nat_is_on && !in.seen.tuple.source.ipv6) {
        in.seen.translated = in.seen.tuple;
        in.seen.translated->source = {false, {translated_address, 0, 0, 0}, translated_port};
    }
    return in;
}

// Puts an IPv6 packet into a tunnel, and finds out what the engine is to see of it.
void side_by_side::enter_tunnel(uint32_t tunnel, bytes& packet, arrival& in) {
    if (tunnel == ZON_TUNNEL_TYPE_IPV6INIP) {
        packet = in_ipv4(outer_source, outer_destination, packet);
        in.seen.tunnel = tunnel;
        in.is_classified =
            in.is_classified && model_.is_tunnel_open(tunnel, ZON_CAPABILITY_ENABLE_IPV6INIP);
        return;
    }
    const auto inner_size = static_cast<uint32_t>(packet.size());
    packet = in_teredo(outer_source, outer_destination, packet, teredo_source_port, teredo_port);
    if (!model_.is_classified(17)) {
        in.is_classified = false;
    } else if (model_.is_tunnel_open(tunnel, ZON_CAPABILITY_ENABLE_TEREDO)) {
        in.seen.tunnel = tunnel;
    } else {
        in.is_classified = true;
        in.seen.payload = inner_size;
        in.seen.tuple = {{false, {outer_source, 0, 0, 0}, teredo_source_port},
                         {false, {outer_destination, 0, 0, 0}, teredo_port},
                         17,
                         in.seen.tuple.vrf_id};
        if (nat_is_on) {
            in.seen.translated = in.seen.tuple;
            in.seen.translated->source = {false, {translated_address, 0, 0, 0}, translated_port};
        }
    }
}

bytes side_by_side::content_of(const operation& step, arrival& in) {
    bytes packet = packet_of(in.seen);
    in.is_classified = model_.is_classified(in.seen.tuple.protocol);
    if (in.seen.tuple.source.ipv6 && step[field::extra] >= 160)
        enter_tunnel(1 + step[field::extra] / 8 % 2, packet, in);
    return packet;
}

// Checks of sequence numbers are not the model's: it takes over what became of the session.
void side_by_side::learn(arrival& in, uint32_t fid) {
    if (fid == 0 || in.seen.tuple.protocol != 6 ||
        !model_.clients.in_force(ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS))
        return;
    const zon_l4_state_t l4 = snapshot_of(fid).l4state;
    session_model learned;
    learned.state = static_cast<session_model::session>(l4.sess_state);
    learned.tcp = static_cast<session_model::tcp_state>(l4.tcp_state);
    learned.fin_by = {(l4.term_flags & 1) != 0, (l4.term_flags & 4) != 0};
    learned.acked_by = {(l4.term_flags & 8) != 0, (l4.term_flags & 2) != 0};
    learned.udp_packets = l4.pkt_count;
    in.seen.learned = learned;
}

void side_by_side::compare_packet(arrival& in, uint32_t fid, zon_error_t error,
                                  const std::optional<reported_flow>& reported) {
    packet_answer model;
    if (in.is_classified && reported) {
        model = model_.sync(*reported, in.seen);
    } else if (in.is_classified) {
        learn(in, fid);
        model = model_.packet(in.seen);
    }
    expect("flow", fid, model.fid);
    expect_error("error of the packet", error, model.error);
    expect("first of its flow", seen_.fif != 0, model.first);
    ++reached.packets;
    reached.refused += model.error == zon_error_memory ? 1U : 0;
    reached.vetoed += model.error == zon_error_client_pre_create_prevented ? 1U : 0;
    if (model.fid == 0)
        return;
    expect("last of its flow", seen_.lif != 0, model.last);
    expect("from the initiator", seen_.is_initiator != 0, model.from_initiator);
    expect("promoted", seen_.was_promoted != 0, model.promoted());
    expect("first payload", seen_.first_payload != 0, model.first_payload);
    expect("packets of its flow", seen_.flow_pkt_count, model.packets);
    expect("bytes of its flow", seen_.l7_flow_bytes, model.bytes);
    expect("payload", seen_.l4_payload_size, model.payload);
    expect("bypass identifier", seen_.bypass_id, model.bypass);
    expect("tunnel", static_cast<uint32_t>(seen_.tunnel_type), model.tunnel);
    reached.flows += model.first && !reported ? 1U : 0;
    reached.promotions += model.promoted() ? 1U : 0;
    reached.promoted_from[static_cast<size_t>(model.promoted_from)] += model.promoted() ? 1U : 0;
    reached.tunnelled += model.tunnel != 0 ? 1U : 0;
    reached.translated += model.first && in.seen.translated ? 1U : 0;
    if (model.first)
        was_rekeyed_[fid] = false;
    reached.rekeyed_and_found += was_rekeyed_[fid] && !reported ? 1U : 0;
}

void side_by_side::packet(const operation& step) {
    arrival in = arrival_of(step);
    bytes packet = content_of(step, in);
    const uint8_t variation = step[field::extra] / 8;
    seen_ = {};
    zon_error_t error = zon_error_end;
    uint32_t fid = 0;
    if (variation % 2 == 0) {
        fid = zon_handle_packet(packet.data(), in.seen.tuple.vrf_id, &in.context, &seen_, &error);
    } else {
        // Now and then less than its IP header was captured: nobody sees such a packet.
        const bool cut = variation % 16 == 15;
        const size_t captured = cut ? 19 : packet.size();
        fid = zon_handle_captured_packet(packet.data(), static_cast<uint32_t>(captured),
                                         in.seen.tuple.vrf_id, &in.context, &seen_, &error);
        if (cut) {
            expect_error("cut-off packet", error, zon_error_parameter_invalid);
            expect("flow of a cut-off packet", fid, 0);
            return;
        }
    }
    compare_packet(in, fid, error, std::nullopt);
}

void side_by_side::sync_packet(const operation& step) {
    arrival in = arrival_of(step);
    bytes packet = packet_of(in.seen);
    in.is_classified = model_.is_classified(in.seen.tuple.protocol);
    const auto state = static_cast<uint8_t>(step[field::value] / 8 % 7);
    const reported_flow reported = {step[field::fid], state, 1U + step[field::extra] / 16 % 4};
    seen_ = {};
    zon_error_t error = zon_error_end;
    const auto engine_state = static_cast<zon_l4_flow_state_e>(state);
    const uint32_t fid =
        step[field::extra] / 8 % 2 == 0
            ? zon_sync_packet(packet.data(), in.seen.tuple.vrf_id, &in.context, &seen_, &error,
                              reported.fid, engine_state, reported.number)
            : zon_sync_captured_packet(packet.data(), static_cast<uint32_t>(packet.size()),
                                       in.seen.tuple.vrf_id, &in.context, &seen_, &error,
                                       reported.fid, engine_state, reported.number);
    if (reported.fid == 0)
        compare_packet(in, fid, error, std::nullopt);
    else
        compare_packet(in, fid, error, reported);
}

// Packets of the kit are classified whatever is enabled.
void side_by_side::kit_packet(const operation& step) {
    arrival in = arrival_of(step);
    packet_of_model& seen = in.seen;
    endpoint& from = seen.tuple.source;
    endpoint& to = seen.tuple.destination;
    const uint8_t way = step[field::extra] / 8 % 4;
    const bool has_flags = seen.tuple.protocol == 6 && way != 1 && way != 2;
    if (way == 2) {
        seen.tuple.protocol = 1;
        from.port = to.port = 0;
        seen.payload = 0;
        if (seen.translated)
            seen.translated->destination.port = 0, seen.translated->protocol = 1;
    }
    seen.tcp_flags =
        has_flags ? seen.tcp_flags & (tcp_syn | tcp_ack | tcp_rst | tcp_fin) : uint8_t{0};
    const auto has = [&](uint8_t flag) { return (seen.tcp_flags & flag) != 0; };
    // The length fields that the plain builders fill count a header of their own.
    uint32_t size = seen.payload;
    if (!has_flags && seen.tuple.protocol == 17)
        size += 8;
    if (!has_flags && seen.tuple.protocol == 6 && from.ipv6)
        size += 20;
    seen_ = {};
    zon_error_t error = zon_error_none;
    uint32_t fid = 0;
    const uint32_t vrf = seen.tuple.vrf_id;
    if (from.ipv6 && has_flags)
        fid = zon_test_handle_ipv6_tcp_packet_fields(
            from.ip.data(), to.ip.data(), from.port, to.port, vrf, 7, 8, has(tcp_syn), has(tcp_ack),
            has(tcp_rst), has(tcp_fin), size, &in.context, &seen_, &error);
    else if (from.ipv6)
        fid = zon_test_handle_ipv6_packet_fields(from.ip.data(), to.ip.data(), from.port, to.port,
                                                 seen.tuple.protocol, vrf, size, &in.context,
                                                 &seen_, &error);
    else if (has_flags)
        fid = zon_test_handle_tcp_packet_fields(from.ip[0], to.ip[0], from.port, to.port, vrf, 7, 8,
                                                has(tcp_syn), has(tcp_ack), has(tcp_rst),
                                                has(tcp_fin), size, &in.context, &seen_, &error);
    else
        fid = zon_test_handle_packet_fields(from.ip[0], to.ip[0], from.port, to.port,
                                            seen.tuple.protocol, vrf, size, &in.context, &seen_,
                                            &error);
    compare_packet(in, fid, error, std::nullopt);
}

// A host that parses and keys its packets itself, of any tunnel that it names.
void side_by_side::engine_packet(const operation& step) {
    arrival in = arrival_of(step);
    bytes packet = packet_of(in.seen);
    in.seen.tunnel = step[field::extra] / 8 % 4;
    zon_dp_fe_t fe{};
    zon_fe_extract_fields(packet.data(), &fe);
    fe.tunneled_flow_type = static_cast<zon_tunnel_type_e>(in.seen.tunnel);
    zon_ipv6_half_flow_t scratch{};
    const auto fill = [&](auto& key, uint32_t type) {
        key = {};
        key.key_type = type;
        key.l4_protocol = in.seen.tuple.protocol;
        key.vrf_id = in.seen.tuple.vrf_id;
        key.src_port = in.seen.tuple.source.port;
        key.dst_port = in.seen.tuple.destination.port;
        std::memcpy(&key.src_ip, in.seen.tuple.source.ip.data(), sizeof key.src_ip);
        std::memcpy(&key.dst_ip, in.seen.tuple.destination.ip.data(), sizeof key.dst_ip);
    };
    if (in.seen.tuple.source.ipv6)
        fill(scratch.key, ZON_IPV6_KEY_COMPLETE);
    else
        fill(reinterpret_cast<zon_ipv4_half_flow_t*>(&scratch)->key, ZON_IPV4_KEY_COMPLETE);
    seen_ = {};
    zon_error_t error = zon_error_none;
    const uint32_t fid =
        zon_engine(reinterpret_cast<zon_half_flow_t*>(&scratch), &fe, &in.context, &seen_, &error,
                   fe.tunneled_flow_type, &g_zon->params.capability_counter, 0, ZON_L4_CLOSED, 0);
    compare_packet(in, fid, error, std::nullopt);
}

void side_by_side::clean_up() {
    zon_pkt_ctx_t finished{seen_};
    flow_of_model* of = seen_.lif != 0 ? model_.flow(seen_.flow) : nullptr;
    expect("clean-up", zon_cleanup_packet(&finished), of != nullptr);
    if (of != nullptr)
        model_.set_idle_seconds(*of, 0);
}

// ---- time ----

// The order of flows that leave at nearly the same moment is the engine's.
void side_by_side::wait(const operation& step) {
    // Mostly less than a flow lives, sometimes more than any does.
    const uint8_t kind = step[field::extra];
    const uint64_t ms =
        step[field::value] * uint64_t{kind < 192 ? 4U : 20U} + (kind > 240 ? 31000U : 0U);
    const uint64_t now = model_.next_certain_moment(zon_clock_now_us() + ms * 1000);
    std::vector<uint32_t> expected = model_.advance_to(now);
    expect_error("clock", zon_clock_advance_to_us(now), 0);
    std::vector<uint32_t> left;
    for (const notice& one : told_by_engine())
        if (one.is_deletion_told_to(observer))
            left.push_back(one.deleted_flow());
    std::vector<uint32_t> sorted = left;
    std::sort(sorted.begin(), sorted.end());
    if (sorted != expected) {
        std::ostringstream out;
        out << "aged out:" << told_by_engine() << ", expected flows:";
        for (const uint32_t fid : expected)
            out << ' ' << fid;
        throw std::runtime_error(out.str());
    }
    for (const uint32_t fid : left)
        model_.age_out(fid);
    reached.aged += left.size();
    for (const uint32_t fid : model_.vague())
        remove(fid, 2);
}

}  // namespace zon_test

// flow_record.cpp - adds packets to records, and the words that records are shown in.
#include "flows/flow_record.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace zonflow {

namespace {

constexpr uint8_t tcp_fin = 0x01;
constexpr uint8_t tcp_rst = 0x04;

// The engine does not know the state of a connection that it has not seen begin; the flags tell
// the end of such a one as well.
connection_end end_of_connection(const flow_record& record) {
    if (record.session_end != connection_end::none) {
        return record.session_end;
    }
    if ((record.initiator.tcp_flags & record.responder.tcp_flags & tcp_fin) != 0) {
        return connection_end::closed;
    }
    const bool refused = (record.last_tcp_flags & tcp_rst) != 0;
    return refused ? connection_end::reset : connection_end::none;
}

}  // namespace

void add_packet(flow_record& record, const packet_facts& packet) {
    const bool first = record.packets() == 0;
    // Time stamps may run backwards within a capture.
    record.first_seen_us = first ? packet.time_us : std::min(record.first_seen_us, packet.time_us);
    record.last_seen_us = std::max(record.last_seen_us, packet.time_us);

    direction_counts& counts = packet.from_initiator ? record.initiator : record.responder;
    counts.packets += 1;
    counts.ip_bytes += packet.ip_bytes;
    counts.payload_bytes += packet.payload_bytes;
    counts.tcp_flags |= packet.tcp_flags;
    record.later_fragments += packet.later_fragment ? 1 : 0;
    record.last_tcp_flags = packet.later_fragment ? record.last_tcp_flags : packet.tcp_flags;
}

void note_states(flow_record& record, uint8_t session_state, zon_tcp_state_t tcp_state,
                 const packet_facts& packet) {
    record.session_state = session_state;
    record.tcp_state = tcp_state;
    if (tcp_state == ZON_TCP_TIMEWAIT && record.session_end == connection_end::none) {
        record.session_end =
            (packet.tcp_flags & tcp_rst) != 0 ? connection_end::reset : connection_end::closed;
    }
}

const char* end_name(const flow_record& record) {
    switch (end_of_connection(record)) {
    case connection_end::closed:
        return "closed";
    case connection_end::reset:
        return "reset";
    case connection_end::none:
        break;
    }
    switch (record.end_reason) {
    case ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT:
        return "idle";
    case ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED:
        return "open";
    default:
        return "other";
    }
}

std::string tcp_flag_letters(uint8_t flags) {
    constexpr std::array<std::pair<uint8_t, char>, 6> letters{
        {{0x02, 'S'}, {0x10, 'A'}, {0x08, 'P'}, {0x20, 'U'}, {tcp_fin, 'F'}, {tcp_rst, 'R'}}};
    std::string text;
    for (const auto& [bit, letter] : letters) {
        if ((flags & bit) != 0) {
            text += letter;
        }
    }
    return text;
}

int ip_version(const flow_record& record) {
    return record.tuple.src_ip.addr_type == ZON_IP_ADDR_IPV6 ? 6 : 4;
}

std::string address_text(const zon_ip_addr_t& address, int ip_version) {
    char text[INET6_ADDRSTRLEN] = "";
    if (ip_version == 6) {
        // Tuples hold IPv6 addresses as four words in host order.
        std::array<uint32_t, 4> words{};
        std::memcpy(words.data(), address.u.v6_addr, sizeof(words));
        for (uint32_t& word : words) {
            word = htonl(word);
        }
        inet_ntop(AF_INET6, words.data(), text, sizeof(text));
    } else {
        const uint32_t word = htonl(address.u.v4_addr);
        inet_ntop(AF_INET, &word, text, sizeof(text));
    }
    return text;
}

std::string address_text(const zon_ip_addr_t& address) {
    return address_text(address, address.addr_type == ZON_IP_ADDR_IPV6 ? 6 : 4);
}

const char* end_reason_name(zon_flow_deletion_reason_e reason) {
    switch (reason) {
    case ZON_FLOW_CLOSE_REASON_END_OF_FLOW:
        return "end_of_flow";
    case ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT:
        return "inactive_timeout";
    case ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST:
        return "client_request";
    case ZON_FLOW_CLOSE_REASON_CLIENT_UNREGISTERED:
        return "client_unregistered";
    case ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE:
        return "resource_shortage";
    case ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED:
        return "flows_destroyed";
    }
    return "unknown";
}

const char* tunnel_name(zon_tunnel_type_e tunnel) {
    switch (tunnel) {
    case ZON_TUNNEL_TYPE_NONE:
        return "none";
    case ZON_TUNNEL_TYPE_IPV6INIP:
        return "ipv6inip";
    case ZON_TUNNEL_TYPE_TEREDO:
        return "teredo";
    case ZON_TUNNEL_TYPE_MAX:
        break;
    }
    return "unknown";
}

}  // namespace zonflow

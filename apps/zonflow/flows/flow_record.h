// flow_record.h - what zonflow keeps of one flow: its feature object, written out when the flow
// goes away.
//
// Units  microseconds since 1970 (_us), bytes. IP bytes are those of the outermost IP packet by its
//        length field, so a tunnelled flow's include the tunnel's own headers. Payload bytes are
//        those of the flow's own protocol, by length fields as well: a capture that was cut to a
//        few bytes a packet still adds up.
#ifndef ZONFLOW_FLOW_RECORD_H
#define ZONFLOW_FLOW_RECORD_H

#include <cstdint>
#include <optional>
#include <string>

#include "capture/ip_header.h"
#include "zon_api_enum.h"
#include "zon_flow_tuple.h"

namespace zonflow {

struct direction_counts {
    uint64_t packets = 0;
    uint64_t ip_bytes = 0;
    uint64_t payload_bytes = 0;
    uint8_t tcp_flags = 0;  // all flags seen, as in byte 13 of the TCP header
};

// What TCP's own flags say of the end of a connection.
enum class connection_end { none, closed, reset };

struct flow_record {
    zon_fid_t fid = 0;
    zon_flow_tuple_t tuple{};  // from the initiator to the responder
    direction_counts initiator;
    direction_counts responder;
    uint64_t payload_bytes = 0;  // as the engine counts them
    uint64_t later_fragments = 0;
    uint64_t first_seen_us = 0;
    uint64_t last_seen_us = 0;
    uint8_t session_state = 0;  // after the last packet
    zon_tcp_state_t tcp_state = ZON_TCP_CLOSED;
    uint8_t last_tcp_flags = 0;
    connection_end session_end = connection_end::none;  // what brought it to time_wait
    zon_tunnel_type_e tunnel = ZON_TUNNEL_TYPE_NONE;
    zon_fid_t parent = 0;
    bool promoted = false;
    std::optional<uint32_t> bypass_id;  // 0 until the flow is bypassed; none when none ever is
    zon_flow_deletion_reason_e end_reason = ZON_FLOW_CLOSE_REASON_END_OF_FLOW;

    ip_address
        initiator_outer_source{};  // tells the direction of later fragments, which have no ports
    flow_record* next = nullptr;   // link of the queue of ended flows

    uint64_t packets() const { return initiator.packets + responder.packets; }
};

// What one packet adds to its flow.
struct packet_facts {
    uint64_t time_us = 0;
    uint32_t ip_bytes = 0;
    uint32_t payload_bytes = 0;
    uint8_t tcp_flags = 0;
    bool from_initiator = false;
    bool later_fragment = false;
};

void add_packet(flow_record& record, const packet_facts& packet);

// To be called after add_packet, with the states after the packet.
void note_states(flow_record& record, uint8_t session_state, zon_tcp_state_t tcp_state,
                 const packet_facts& packet);

// How the flow ended, in a word of at most six letters:
//   "closed"  TCP: each side has sent its FIN
//   "reset"   TCP: a RST ended the connection, or was the last that was seen of the connection
//   "idle"    none of these; nothing came for the idle time
//   "open"    none of these, when the capture ended
//   "other"   the engine took it off for another reason (end_reason_name)
const char* end_name(const flow_record& record);

int ip_version(const flow_record& record);
// "192.0.2.1" or "2001:db8::1".
std::string address_text(const zon_ip_addr_t& address, int ip_version);
// The same for an address that says its own family; those of a tuple leave that to its source.
std::string address_text(const zon_ip_addr_t& address);

// A letter for each flag that is set, always in the order "SAPUFR".
std::string tcp_flag_letters(uint8_t flags);
// The name of a deletion reason and of a tunnel type, in lower case; "unknown" for any other value.
const char* end_reason_name(zon_flow_deletion_reason_e reason);
const char* tunnel_name(zon_tunnel_type_e tunnel);

}  // namespace zonflow

#endif

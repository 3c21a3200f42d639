// traffic.h - the connections of the mixed stress and their packets.
//
// Every kind of connection has addresses of its own, so that what is announced, re-keyed or
// forbidden never stands for a connection of another kind. Within a kind the number decides the
// family (odd: IPv6) and the protocol (bit 1: TCP).

#pragma once

#include <cstdint>

#include "support/packet_builder.h"
#include "zon_flow_tuple.h"

namespace zon_test {

enum class kind : uint8_t {
    plain,      // packets of both directions; strictly one flow
    cut_up,     // datagrams in fragments
    tunnelled,  // IPv6 in IPv4 (even numbers) and Teredo (odd ones)
    expected,   // announced before the first packet, sometimes
    moved,      // a side or the VRF is changed while packets flow
    parent,     // stays for the whole round
    forbidden,  // a client refuses every packet of it
};

struct connection {
    kind what = kind::plain;
    uint32_t number = 0;

    bool is_ipv6() const { return what == kind::tunnelled || (number & 1) != 0; }
    uint8_t protocol() const {
        return what != kind::cut_up && (number & 2) != 0 ? uint8_t{6} : uint8_t{17};
    }
    // How an expected one is announced.
    zon_flow_tuple_type_t announced_as() const {
        return static_cast<zon_flow_tuple_type_t>(number >> 2 & 3);
    }
    uint32_t client4() const { return 0x0A000000 + static_cast<uint32_t>(what) * 0x10000 + number; }
    uint32_t server4() const { return 0xC6120000 + static_cast<uint32_t>(what) * 0x1000 + number; }
    ipv6_address client6() const;
    ipv6_address server6() const;
    // Where the replies of a moved connection come to.
    uint16_t moved_port() const { return 50000; }
};

inline constexpr uint16_t mixed_client_port = 40000;
inline constexpr uint16_t mixed_server_port = 5000;

// Forward or back; a TCP packet carries the flags.
bytes packet_of(const connection& which, bool back, uint8_t flags = tcp_ack);
// A reply to the client's other port.
bytes reply_to_moved(const connection& which);
// Fragment 0, 1 or 2 of a datagram; 1 and 2 follow the first.
bytes fragment_of(const connection& which, uint32_t part, uint32_t ident);

zon_flow_tuple_t tuple_of(const connection& which, bool back = false);
zon_flow_tuple_t moved_responder_of(const connection& which);

}  // namespace zon_test

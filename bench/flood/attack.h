// attack.h - packets of a flood, written one after the other just before they are handed in.

#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "zon.h"

namespace zon_bench {

struct wire_packet {
    std::array<uint8_t, 96> bytes;
    uint32_t captured;
};

class attack {
public:
    virtual ~attack() = default;
    virtual void write(uint64_t number, wire_packet& packet) = 0;
    // How many of the first so many packets the checks of captured packets refuse.
    virtual uint64_t broken_of(uint64_t) const { return 0; }
    // The tuples of a flood that aims at a bucket, each used over TCP and over UDP.
    virtual std::span<const zon_flow_tuple_t> tuples() const { return {}; }
};

// One SYN of every source.
std::unique_ptr<attack> syn_flood();
// First fragments, by turns of both families, of ever new datagrams of some thousand flows.
std::unique_ptr<attack> first_fragments();
// Packets of several shapes, cut off behind each of their bytes in turn.
std::unique_ptr<attack> short_packets();
// Every port of one host after the other; the most of them answer that they are closed.
std::unique_ptr<attack> port_scan();

// The endpoints of an IPv4 packet, in host order.
zon_flow_tuple_t tuple_of(const uint8_t* packet);
// One first packet of each tuple over TCP and over UDP: the hash leaves the protocol out.
std::unique_ptr<attack> first_packets_of(std::vector<zon_flow_tuple_t> tuples);

// Tuples to the victim's destination that share its bucket in an engine of so many flows, as far as
// the hash is the plain one. Whoever attacks finds them at home, on an engine of his own; so does
// this, before there is another.
std::vector<zon_flow_tuple_t> tuples_in_bucket_of(const zon_flow_tuple_t& victim,
                                                  uint32_t max_flows, size_t count);

}  // namespace zon_bench

// zon_connection.h - a connection as both of its directions see it, and where a flow remembers its
// own.
//
// The two ends of a connection are put in order, so that the packets of either direction have the
// same words and the same hash, and one comparison proves that a packet belongs to a flow.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "osal/zon_lock.h"
#include "osal/zon_mem.h"
#include "zon_flow_defs.h"
#include "zon_relaxed.h"

template <class family>
struct connection_words;

// The lower end in the low 48 bits, address before port; protocol and family above it.
template <>
struct connection_words<ipv4_family> {
    static constexpr size_t count = 3;
};
// Ports, protocol and family; the VRF; two words for each address.
template <>
struct connection_words<ipv6_family> {
    static constexpr size_t count = 6;
};

template <class family>
struct connection {
    uint64_t words[connection_words<family>::count];
    bool from_lower;    // the packet, or the key, comes from the lower end
    bool same_address;  // both ends have one address
};

namespace connection_detail {

constexpr uint64_t protocol_word(uint32_t protocol, uint64_t family) {
    return (uint64_t{protocol} << 48) | (family << 56);
}

struct address128 {
    uint64_t high;
    uint64_t low;
};
inline address128 address_of(const uint32_t (&words)[4]) {
    return {uint64_t{words[0]} << 32 | words[1], uint64_t{words[2]} << 32 | words[3]};
}

// One of two words without a branch: which direction comes next, nobody can predict.
constexpr uint64_t choose(bool first, uint64_t a, uint64_t b) {
    return b ^ ((a ^ b) & (uint64_t{0} - uint64_t{first}));
}

}  // namespace connection_detail

inline connection<ipv4_family> connection_of(uint32_t src_ip, uint32_t dst_ip, uint16_t src_port,
                                             uint16_t dst_port, uint8_t protocol, uint32_t vrf_id) {
    const uint64_t source = uint64_t{src_ip} << 16 | src_port;
    const uint64_t destination = uint64_t{dst_ip} << 16 | dst_port;
    using namespace connection_detail;
    const bool lower = source < destination;
    return {{choose(lower, source, destination) | protocol_word(protocol, 4),
             choose(lower, destination, source), vrf_id},
            lower,
            src_ip == dst_ip};
}

inline connection<ipv6_family> connection_of(const uint32_t (&src_ip)[4],
                                             const uint32_t (&dst_ip)[4], uint16_t src_port,
                                             uint16_t dst_port, uint8_t protocol, uint32_t vrf_id) {
    using namespace connection_detail;
    const address128 source = address_of(src_ip);
    const address128 destination = address_of(dst_ip);
    const bool same_high = source.high == destination.high;
    const bool same_address = same_high & (source.low == destination.low);
    const bool lower = (source.high < destination.high) |
                       (same_high & (source.low < destination.low)) |
                       (same_address & (src_port < dst_port));
    const uint64_t ports = choose(lower, uint64_t{src_port} | uint64_t{dst_port} << 16,
                                  uint64_t{dst_port} | uint64_t{src_port} << 16);
    return {
        {ports | protocol_word(protocol, 6), vrf_id, choose(lower, source.high, destination.high),
         choose(lower, source.low, destination.low), choose(lower, destination.high, source.high),
         choose(lower, destination.low, source.low)},
        lower,
        same_address};
}

// A key's words hold a port and a protocol each, with nothing above them.
template <class family>
inline connection<family> connection_of(const typename family::key& key) {
    return connection_of(key.src_ip, key.dst_ip, static_cast<uint16_t>(key.src_port),
                         static_cast<uint16_t>(key.dst_port), static_cast<uint8_t>(key.l4_protocol),
                         relaxed_load(key.vrf_id));
}

// A flow as it is allocated: what hosts know, then what proves that a packet is the flow's, written
// under the flow's lock, and a lock for engines that have one for each flow. It begins so far into
// its first cache line that what a packet of a known flow touches, from the identifier on, begins
// the second: four lines instead of five.
struct alignas(64) flow_record {
    union {
        uint64_t connection_hash;
        zon_flow_t* end_of_free_row;  // of free records (zon_free_records.h)
    };
    zon_flow_t flow;
    uint64_t connection_words[6];
    recursive_lock own_lock;
};
static_assert(sizeof(flow_record) == zon_flow_record_size);
static_assert((offsetof(flow_record, flow) + offsetof(zon_flow_t, fid)) % 64 == 0 &&
              offsetof(flow_record, connection_words) % 64 == 0);

// What zon_flow_t::private_indexed says while packets find the flow without a search.
enum indexed_flags : uint8_t { is_indexed = 1, initiator_is_lower = 2, ends_share_address = 4 };

// Whether a packet of the connection of a flow that is indexed runs from the initiator. Where both
// ends have one address all packets do, on purpose.
inline bool runs_from_initiator(const zon_flow_t* flow, bool from_lower) {
    const uint8_t flags = flow->private_indexed;
    return ((flags & ends_share_address) != 0) |
           (from_lower == ((flags & initiator_is_lower) != 0));
}

inline flow_record* record_of(zon_flow_t* flow) {
    return reinterpret_cast<flow_record*>(reinterpret_cast<char*>(flow) -
                                          offsetof(flow_record, flow));
}
inline const flow_record* record_of(const zon_flow_t* flow) {
    return record_of(const_cast<zon_flow_t*>(flow));
}

template <class family>
inline bool is_connection_of(const flow_record& record, const connection<family>& wanted) {
    uint64_t difference = 0;
    for (size_t i = 0; i < std::size(wanted.words); ++i)
        difference |= record.connection_words[i] ^ wanted.words[i];
    return difference == 0;
}

// burst_traffic.h - what arrives at a host that polls a ring: bursts of packets of some hundred
// connections, with fragments, tunnels and rubbish between them. It depends on a seed alone.

#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "support/packet_builder.h"
#include "support/packet_script.h"
#include "zon.h"

namespace zon_test {

// What a packet's context points at.
struct packet_note {
    uint32_t number = 0;
    bool is_vetoed = false;
    bool is_translated = false;
};

struct arriving_packet_of_burst {
    std::unique_ptr<uint8_t[]> content;  // exactly what was captured
    uint32_t captured = 0;
    bool has_header = true;
    bool has_indications = true;
    bool has_note = true;
    uint32_t vrf_id = 0;
    uint32_t hash_valid = 0;
    uint32_t hash_value = 0;
    packet_note note;
};
using burst = std::vector<arriving_packet_of_burst>;

class burst_traffic {
public:
    explicit burst_traffic(uint32_t seed);

    burst next();
    // Any connection, as clients name it.
    zon_flow_tuple_t some_tuple(std::mt19937& random) const;

private:
    struct talk {
        bool is_ipv6 = false;
        bool is_tcp = false;
        uint32_t vrf_id = 0;
        std::array<uint32_t, 2> hosts{};
        std::array<uint16_t, 2> ports{};
        std::array<bytes, 2> packets;        // of either direction, varied in place
        std::array<uint32_t, 2> sequence{};  // what either side sends next
    };

    uint32_t below(uint32_t end) { return static_cast<uint32_t>(random_()) % end; }
    bool one_in(uint32_t many) { return below(many) == 0; }
    talk new_talk();
    talk& some_talk();
    bytes packet_of(talk& of, size_t side);
    void vary_tcp(talk& of, size_t side, bytes& packet, size_t header, uint32_t payload);
    bytes fragment_of(talk& of, size_t side);
    bytes in_tunnel(talk& of, size_t side);
    scripted_packet next_content(talk& of);
    arriving_packet_of_burst next_packet();

    std::mt19937 random_;
    packet_script rubbish_;
    bool is_hashed_;
    uint32_t number_ = 0;
    size_t favourite_ = 0;
    bool is_calm_ = false;  // the burst at hand: plain packets of a few connections alone
    std::vector<talk> talks_;
};

}  // namespace zon_test

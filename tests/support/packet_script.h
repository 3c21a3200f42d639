// packet_script.h - rows of random packets: of every layer, damaged here and there, cut off or
// padded.

#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>

#include "support/packet_builder.h"

namespace zon_test {

// One packet of a script, and the bytes of it that were captured. Behind them stand what the other
// bytes would have been.
struct scripted_packet {
    bytes content;
    size_t captured;
};

class packet_script {
public:
    explicit packet_script(unsigned seed) : random_(seed) {}

    scripted_packet next() {
        bytes packet = some_packet();
        for (uint32_t flips = below(4); flips > 0; --flips)
            damage(packet);
        size_t captured = packet.size();
        if (below(4) == 0)
            captured = below(static_cast<uint32_t>(packet.size()) + 1);
        else if (below(8) == 0)
            captured += below(20);  // padding
        packet.resize(packet.size() + 20, static_cast<uint8_t>(random_()));
        return {std::move(packet), captured};
    }

private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_()) % limit; }

    packet_builder transport(packet_builder packet) {
        const auto port = static_cast<uint16_t>(1 + below(3));
        switch (below(8)) {
        case 0:
            return packet.icmp();
        case 1:
            return packet.protocol(static_cast<uint8_t>(below(256))).payload(below(30));
        case 2:
        case 3:
        case 4:
            return packet.udp(port, below(4) == 0 ? 3544 : 2)
                .payload(bytes(below(60), static_cast<uint8_t>(below(3))));
        default:
            return packet.tcp(port, 2)
                .flags(static_cast<uint8_t>(below(64)))
                .seq(below(100))
                .payload(below(30));
        }
    }
    packet_builder some_ipv4() {
        packet_builder packet = packet_builder::ipv4(0x0A000001 + below(2), 0x0A000001 + below(2));
        if (below(8) == 0)
            packet.ip_options(bytes(below(41), 1));
        if (below(6) == 0)
            packet.fragment(static_cast<uint16_t>(below(3) * 8), below(2) == 0, below(2));
        return transport(packet);
    }
    packet_builder some_ipv6() {
        packet_builder packet =
            packet_builder::ipv6({{0x20010000, 0, 0, below(2)}}, {{0x20010db8, 0, 0, below(2)}});
        for (uint32_t headers = below(3) == 0 ? below(6) : 0; headers > 0; --headers)
            switch (below(6)) {
            case 0:
                packet.hop_by_hop(static_cast<uint8_t>(below(3)));
                break;
            case 1:
                packet.authentication(static_cast<uint8_t>(below(5)));
                break;
            case 2:
                packet.routing();
                break;
            case 3:
                packet.fragment(static_cast<uint16_t>(below(3) * 8), below(2) == 0, below(2));
                break;
            case 4:
                packet.esp();
                break;
            default:
                packet.destination_options();
                break;
            }
        return transport(packet);
    }
    bytes some_packet() {
        switch (below(6)) {
        case 0:
            return in_ipv4(0xC0000201, 0xC0000202, some_ipv6().build());
        case 1: {
            bytes indicators =
                below(2) == 0 ? bytes{} : teredo_authentication(static_cast<uint8_t>(below(9)));
            if (below(2) == 0) {
                const bytes origin = teredo_origin();
                indicators.insert(indicators.end(), origin.begin(), origin.end());
            }
            return in_teredo(0xC0000201, 0xC0000202, some_ipv6().build(), 5,
                             below(2) == 0 ? 3544 : 5, indicators);
        }
        case 2:
        case 3:
            return some_ipv6().build();
        default:
            return some_ipv4().build();
        }
    }
    void damage(bytes& packet) {
        // Mostly in the headers, often to a number near the old one.
        const auto reach =
            static_cast<uint32_t>(std::min<size_t>(packet.size(), below(4) == 0 ? 200 : 50));
        uint8_t& byte = packet[below(reach)];
        byte = static_cast<uint8_t>(below(2) == 0 ? random_() : byte + below(5) - 2);
    }

    std::mt19937 random_;
};

}  // namespace zon_test

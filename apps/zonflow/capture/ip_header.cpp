// ip_header.cpp - reads IPv4 and IPv6 headers within the captured bytes.
#include "capture/ip_header.h"

#include <algorithm>

namespace zonflow {

namespace {

using bytes = std::span<const uint8_t>;

constexpr uint8_t hop_by_hop = 0;
constexpr uint8_t routing = 43;
constexpr uint8_t fragment = 44;
constexpr uint8_t authentication = 51;
constexpr uint8_t destination_options = 60;

uint16_t big_endian_16(bytes data, size_t at) {
    return static_cast<uint16_t>(data[at] << 8 | data[at + 1]);
}

ip_header read_ipv4(bytes packet) {
    ip_header header;
    if (packet.size() < 20) {
        return header;
    }
    header.version = 4;
    header.total_length = big_endian_16(packet, 2);
    header.later_fragment = (big_endian_16(packet, 6) & 0x1fff) != 0;
    std::copy_n(packet.begin() + 12, 4, header.source.begin());
    std::copy_n(packet.begin() + 16, 4, header.destination.begin());
    return header;
}

// Walks the extension headers (RFC 8200 4.1) up to a fragment header, which stands before all that
// is fragmented.
bool has_later_fragment_header(uint8_t next_header, bytes rest) {
    while (rest.size() >= 8) {
        size_t length = 0;
        switch (next_header) {
        case fragment:
            return (big_endian_16(rest, 2) & 0xfff8) != 0;
        case hop_by_hop:
        case routing:
        case destination_options:
            length = (size_t{rest[1]} + 1) * 8;
            break;
        case authentication:
            length = (size_t{rest[1]} + 2) * 4;
            break;
        default:
            return false;
        }
        next_header = rest[0];
        rest = rest.subspan(std::min(length, rest.size()));
    }
    return false;
}

ip_header read_ipv6(bytes packet) {
    ip_header header;
    if (packet.size() < 40) {
        return header;
    }
    header.version = 6;
    header.total_length = 40u + big_endian_16(packet, 4);
    header.later_fragment = has_later_fragment_header(packet[6], packet.subspan(40));
    std::copy_n(packet.begin() + 8, 16, header.source.begin());
    std::copy_n(packet.begin() + 24, 16, header.destination.begin());
    return header;
}

}  // namespace

ip_header read_ip_header(bytes packet) {
    const int version = packet.empty() ? 0 : packet[0] >> 4;
    if (version == 4) {
        return read_ipv4(packet);
    }
    return version == 6 ? read_ipv6(packet) : ip_header{};
}

}  // namespace zonflow

// ip_header.h - the few facts of an IP header that the engine does not hand back.
#ifndef ZONFLOW_IP_HEADER_H
#define ZONFLOW_IP_HEADER_H

#include <array>
#include <cstdint>
#include <span>

namespace zonflow {

// 4 bytes of address for IPv4, 16 for IPv6, zeros behind; in network order.
using ip_address = std::array<uint8_t, 16>;

struct ip_header {
    int version = 0;            // 4, 6, or 0 for neither and for a header that is cut off
    uint32_t total_length = 0;  // bytes of the packet by its length field
    ip_address source{};
    ip_address destination{};
    bool later_fragment = false;  // a fragment other than the first of its datagram
};

// Reads the outermost header. What is cut off or of another version stays as in an empty ip_header.
ip_header read_ip_header(std::span<const uint8_t> packet);

}  // namespace zonflow

#endif

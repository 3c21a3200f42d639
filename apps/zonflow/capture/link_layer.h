// link_layer.h - finds the IP header in a captured frame.
//
// Ethernet, Linux cooked (both versions), BSD loopback and raw IP. Behind an EtherType any stack of
// VLAN tags, MPLS labels and PPPoE sessions is stepped over. Nothing outside the captured bytes is
// read.
#ifndef ZONFLOW_LINK_LAYER_H
#define ZONFLOW_LINK_LAYER_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace zonflow {

enum class link_verdict {
    ip,      // ip_bytes starts with the IP header and holds at least one byte
    not_ip,  // the frame says that it carries something else
    cut      // the frame ends before its IP header begins, or before it says what it carries
};

struct link_result {
    link_verdict verdict = link_verdict::not_ip;
    std::span<const uint8_t> ip_bytes;
    uint16_t outer_vlan = 0;  // VLAN identifier of the outermost tag; 0 without one
};

class link_layer {
public:
    // Nothing for a link type that is not known.
    static std::optional<link_layer> of_type(int link_type);

    link_result find_ip(std::span<const uint8_t> frame) const { return find_(frame); }

private:
    using finder = link_result (*)(std::span<const uint8_t>);
    explicit link_layer(finder find) : find_(find) {}
    finder find_;
};

// The known link types, for an error message.
std::string known_link_types();

}  // namespace zonflow

#endif

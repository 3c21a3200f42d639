// seen_packet.cpp - finds the payload by offsets, so that no pointer ever leaves the captured
// bytes.
#include "helpers/seen_packet.h"

#include <algorithm>

namespace zonflow {

namespace {

// Where a pointer of the indications points to, counted from the first captured byte.
size_t offset_of(const uint8_t* at, std::span<const uint8_t> ip_packet) {
    return static_cast<size_t>(reinterpret_cast<uintptr_t>(at) -
                               reinterpret_cast<uintptr_t>(ip_packet.data()));
}

}  // namespace

std::string_view captured_payload(const zon_pkt_indications_t& indications,
                                  std::span<const uint8_t> ip_packet) {
    const bool later_fragment = indications.l4_error == ZON_L4_NOERR_NON_FIRST_FRAG;
    if (indications.l7_start == nullptr || indications.l3_start == nullptr || later_fragment) {
        return {};
    }
    const size_t begin = offset_of(indications.l7_start, ip_packet);
    const size_t ip_end = offset_of(indications.l3_start, ip_packet) + indications.l3_header_size +
                          indications.l3_payload_size;
    const size_t end = std::min({begin + indications.l4_payload_size, ip_end, ip_packet.size()});
    // A pointer before the packet makes an offset beyond every end.
    if (begin >= end) {
        return {};
    }
    return {reinterpret_cast<const char*>(ip_packet.data()) + begin, end - begin};
}

}  // namespace zonflow

// seen_packet.h - what a helper is shown of a packet once it has been counted to its flow.
#ifndef ZONFLOW_SEEN_PACKET_H
#define ZONFLOW_SEEN_PACKET_H

#include <cstdint>
#include <span>
#include <string_view>

#include "zon.h"

namespace zonflow {

struct seen_packet {
    zon_fid_t flow = 0;
    const zon_pkt_indications_t& indications;
    std::string_view payload;  // as much of it as was captured; empty for a later fragment
};

// The part of a packet's TCP or UDP payload that lies within the captured bytes, whatever the
// headers claim, and within the IP packet, so that padding of the link is none of it.
std::string_view captured_payload(const zon_pkt_indications_t& indications,
                                  std::span<const uint8_t> ip_packet);

}  // namespace zonflow

#endif

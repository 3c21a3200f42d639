// packet_context.h - what travels with a packet through the engine, for the callbacks that are
// asked about it.
#ifndef ZONFLOW_PACKET_CONTEXT_H
#define ZONFLOW_PACKET_CONTEXT_H

#include <cstdint>
#include <span>

#include "zon.h"

namespace zonflow {

class source_groups;
class veto_list;

// Lives as long as the call that hands the packet in.
struct packet_context {
    std::span<const uint8_t> ip_packet;
    const zon_pkt_indications_t* indications = nullptr;
    const veto_list* vetoes = nullptr;
    source_groups* groups = nullptr;
};

}  // namespace zonflow

#endif

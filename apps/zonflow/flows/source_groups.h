// source_groups.h - flows added up under the address of their initiator.
//
// The address is the super context of a flow: the engine puts the flow into it when the flow is
// made, and on the super context hangs, as the client's feature object, the group that its flows
// are added to. A super context ends with its last flow; the group stays, and the next super
// context of the address takes it up again.
#ifndef ZONFLOW_SOURCE_GROUPS_H
#define ZONFLOW_SOURCE_GROUPS_H

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "zon.h"

namespace zonflow {

struct source_group {
    zon_ip_addr_t address{};
    uint64_t flows = 0;
    uint64_t packets = 0;
    uint64_t ip_bytes = 0;
    uint64_t payload_bytes = 0;
};

class source_groups {
public:
    // Asks to be asked about new flows. Returns what the engine says.
    zon_error_t register_with(zon_client_id_e client);

    // Each returns what the engine says; the flow is one that it reported while registered.
    zon_error_t add_flow(zon_fid_t flow);
    zon_error_t add_packet(zon_fid_t flow, uint32_t ip_bytes, uint32_t payload_bytes);

    // The groups, those with most bytes first; where these are equal, by address.
    std::vector<source_group> ranked() const;

private:
    using address_key = std::array<uint32_t, 5>;  // the IP version and four words, host order

    uint32_t context_of(const zon_ip_addr_t& address);
    zon_error_t group_of(zon_fid_t flow, source_group** group);
    static address_key key_of(const zon_ip_addr_t& address);
    static bool look_up(void* pkt_ctx, uint32_t* context);

    zon_client_id_e client_ = 0;
    std::map<address_key, uint32_t> contexts_;
    std::deque<source_group> groups_;  // that of context n stands at n - 1, and stays there
};

}  // namespace zonflow

#endif

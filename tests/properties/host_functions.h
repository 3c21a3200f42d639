// host_functions.h - the functions that the host and its clients give to the engine under test.
//
// They write down what they are told. One thread calls them.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "properties/context_model.h"
#include "properties/notice.h"
#include "zon.h"

namespace zon_test {

// What the context of a packet points at.
struct packet_context {
    uint32_t vetoed_by = 0;  // the client that forbids a flow for it
    packet_contexts contexts;
};

// What was told since the log was cleared.
notices& told_by_engine();
// The flows that a walk has visited since the log was cleared.
std::vector<uint32_t>& visited_by_engine();

void note_deletion(zon_flow_ptr_t fid, void* initiator, void* responder, void* whole,
                   zon_flow_deletion_reason_e reason, zon_client_id_e client);
bool may_create(void* context, zon_client_id_e client);
void rewrite_bypass(uint32_t payload, bool first, bool promoted, bool first_payload, uint32_t* id);
void note_context_gone(uint32_t context, zon_super_context_types_e type, void** object);
bool note_visit(zon_flow_ptr_t fid);
// By type.
extern const std::array<zon_super_context_lookup_callback, 4> context_lookups;

// The host's NAT: while it is on, the source of every IPv4 packet is translated to one end.
extern bool nat_is_on;
inline constexpr uint32_t translated_address = 0x0A000003;
inline constexpr uint16_t translated_port = 1000;

}  // namespace zon_test

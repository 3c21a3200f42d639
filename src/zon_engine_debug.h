// zon_engine_debug.h - snapshots of flows for dumps, and the filter that dumps apply.

#pragma once

#include "zon_debug_api.h"
#include "zon_engine_defs.h"

// Filters of a dump by the family of addresses; 0 means no filter.
inline constexpr uint8_t zon_filter_ipv4 = 1;
inline constexpr uint8_t zon_filter_ipv6 = 20;

// Whether one end of a key is this address and port. ipaddr is one or four words; key is a full key
// of its type's family. An announced IPv4 key with unknown VRF (type 4) passes for an IPv6 key, on
// purpose, and must have that key's storage.
bool zon_flow_compare_ip_and_port(uint8_t ip_type, uint32_t* ipaddr, uint16_t port, zon_key_t* key);

// Fills the report of a locked flow; false, with the report untouched, when the context's filter
// rejects the flow. A null context accepts every flow. is_dropped stays as it is; the key of a side
// that the flow lacks is zero.
bool zon_debug_flow_populate_report(zon_flow_t* flow, zon_flow_report_t* report,
                                    zon_dump_flow_context* ctx);

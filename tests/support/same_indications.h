// same_indications.h - whether two packets were told the same, field by field: what lies between
// fields is nobody's.

#pragma once

#include <tuple>

#include "zon_engine_defs.h"

namespace zon_test {

inline bool same_indications(const zon_pkt_indications_t& one, const zon_pkt_indications_t& other) {
    const auto fields = [](const zon_pkt_indications_t& of) {
        return std::tuple(of.flow, of.l7_flow_bytes, of.flow_pkt_count, of.l4_payload_size,
                          of.l3_payload_size, of.l3_header_size, of.bypass_id, of.hash_valid,
                          of.hash_value, of.l4_port.src_port, of.l4_port.dst_port, of.l3_protocol,
                          of.is_initiator, of.fif, of.lif, of.first_payload, of.was_promoted,
                          of.packet_seen, of.l4_protocol, of.is_fragment, of.l4_error,
                          of.tunnel_type, of.l3_start, of.l4_start, of.l7_start);
    };
    return fields(one) == fields(other);
}

}  // namespace zon_test

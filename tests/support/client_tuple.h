// client_tuple.h - a tuple of the models, as clients hand it to the engine.

#pragma once

#include <cstring>

#include "support/flow_model.h"
#include "zon.h"

namespace zon_test {

inline zon_ip_addr_t to_client(const endpoint& from) {
    zon_ip_addr_t out{};
    out.addr_type = from.ipv6 ? ZON_IP_ADDR_IPV6 : ZON_IP_ADDR_IPV4;
    if (from.ipv6)
        std::memcpy(out.u.v6_addr, from.ip.data(), sizeof out.u.v6_addr);
    else
        out.u.v4_addr = from.ip[0];
    return out;
}

inline zon_flow_tuple_t to_client(const connection_tuple& tuple) {
    zon_flow_tuple_t out{};
    out.src_ip = to_client(tuple.source);
    out.dst_ip = to_client(tuple.destination);
    out.src_port = tuple.source.port;
    out.dst_port = tuple.destination.port;
    out.vrf_id = tuple.vrf_id;
    out.l4_protocol = tuple.protocol;
    return out;
}

}  // namespace zon_test

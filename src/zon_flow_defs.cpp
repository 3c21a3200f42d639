// zon_flow_defs.cpp - reverses and copies keys.

#include "zon_flow_defs.h"

#include <algorithm>

#include "zon_layout_check.h"

namespace {

template <class key>
void swap_endpoints(key* k) {
    std::swap(k->src_ip, k->dst_ip);
    const uint32_t new_source_port = k->dst_port;
    k->dst_port = static_cast<uint16_t>(k->src_port);
    k->src_port = new_source_port;
}

uint32_t reversed_type(uint32_t key_type) {
    switch (key_type) {
    case ZON_IPV4_KEY_DST_IP_PORT_ONLY:
        return ZON_IPV4_KEY_SRC_IP_PORT_ONLY;
    case ZON_IPV4_KEY_SRC_IP_PORT_ONLY:
        return ZON_IPV4_KEY_DST_IP_PORT_ONLY;
    case ZON_IPV6_KEY_DST_IP_PORT_ONLY:
        return ZON_IPV6_KEY_SRC_IP_PORT_ONLY;
    case ZON_IPV6_KEY_SRC_IP_PORT_ONLY:
        return ZON_IPV6_KEY_DST_IP_PORT_ONLY;
    default:
        return key_type;
    }
}

}  // namespace

void zon_swap_key(zon_key_t* key) {
    if (!zon_key_type_is_valid(key->key_type))
        return;
    if (zon_key_is_ipv4(key->key_type))
        swap_endpoints(reinterpret_cast<zon_ipv4_key_t*>(key));
    else
        swap_endpoints(reinterpret_cast<zon_ipv6_key_t*>(key));
    key->key_type = reversed_type(key->key_type);
}

// Two copies of known size: one of a size that is chosen here would be a slow loop.
void zon_copy_key(zon_key_t* dst, const zon_key_t* src) {
    if (zon_key_is_ipv4(src->key_type))
        std::memcpy(static_cast<void*>(dst), src, sizeof(zon_ipv4_key_t));
    else if (zon_key_type_is_valid(src->key_type))
        std::memcpy(static_cast<void*>(dst), src, sizeof(zon_ipv6_key_t));
}

// zon_flow_defs.h - builds, reverses and copies keys, and tells their family.

#pragma once

#include <cstring>
#include <utility>

#include "osal/zon_debug.h"
#include "zon_engine_defs.h"

constexpr bool zon_key_is_ipv4(uint32_t key_type) {
    return key_type <= ZON_IPV4_LAST_KEY;
}
constexpr bool zon_key_type_is_valid(uint32_t key_type) {
    return key_type <= ZON_IPV6_LAST_KEY;
}
// A key that is announced and not yet promoted: everything but the two complete types.
constexpr bool zon_key_is_preflow(uint32_t key_type) {
    return zon_key_type_is_valid(key_type) && key_type != ZON_IPV4_KEY_COMPLETE &&
           key_type != ZON_IPV6_KEY_COMPLETE;
}

// What differs between the two families, for code that is written once.
struct ipv4_family {
    using key = zon_ipv4_key_t;
    using half_flow = zon_ipv4_half_flow_t;
    using address = uint32_t;
    static constexpr uint32_t complete = ZON_IPV4_KEY_COMPLETE;
    static constexpr uint32_t pre_flow_complete = ZON_IPV4_KEY_PRE_FLOW_COMPLETE;
    static constexpr uint32_t vrf_star = ZON_IPV4_KEY_VRF_STAR;
    static constexpr uint32_t dst_only = ZON_IPV4_KEY_DST_IP_PORT_ONLY;
    static constexpr uint32_t src_only = ZON_IPV4_KEY_SRC_IP_PORT_ONLY;
    static constexpr size_t address_words = 1;
};
struct ipv6_family {
    using key = zon_ipv6_key_t;
    using half_flow = zon_ipv6_half_flow_t;
    using address = uint32_t[4];
    static constexpr uint32_t complete = ZON_IPV6_KEY_COMPLETE;
    static constexpr uint32_t pre_flow_complete = ZON_IPV6_KEY_PRE_FLOW_COMPLETE;
    static constexpr uint32_t vrf_star = ZON_IPV6_KEY_VRF_STAR;
    static constexpr uint32_t dst_only = ZON_IPV6_KEY_DST_IP_PORT_ONLY;
    static constexpr uint32_t src_only = ZON_IPV6_KEY_SRC_IP_PORT_ONLY;
    static constexpr size_t address_words = 4;
};

// The full key behind a head whose type says which family it is.
template <class family>
inline typename family::key* zon_full_key(zon_half_flow_t* half_flow) {
    return &reinterpret_cast<typename family::half_flow*>(half_flow)->key;
}
template <class family>
inline const typename family::key* zon_full_key(const zon_half_flow_t* half_flow) {
    return &reinterpret_cast<const typename family::half_flow*>(half_flow)->key;
}

inline void zon_set_key_ipv4(zon_ipv4_key_t* key, uint8_t key_type, uint32_t saddr, uint32_t daddr,
                             uint16_t sport, uint16_t dport, uint8_t proto, uint32_t vrfid) {
    zon_require(key_type <= ZON_IPV4_LAST_KEY, "(key_type <= ZON_IPV4_LAST_KEY)");
    *key = {key_type, proto, 0, 0, vrfid, saddr, sport, daddr, dport};
}

// The addresses may be unaligned.
inline void zon_set_key_ipv6(zon_ipv6_key_t* key, uint8_t key_type, const void* saddr,
                             const void* daddr, uint16_t sport, uint16_t dport, uint8_t proto,
                             uint32_t vrfid) {
    zon_require(key_type >= ZON_IPV6_FIRST_KEY && key_type <= ZON_IPV6_LAST_KEY,
                "(key_type >= ZON_IPV6_FIRST_KEY) && (key_type <= ZON_IPV6_LAST_KEY)");
    key->key_type = key_type;
    key->l4_protocol = proto;
    key->hash_value = 0;
    key->hash_valid = 0;
    key->vrf_id = vrfid;
    std::memcpy(key->src_ip, saddr, sizeof key->src_ip);
    key->src_port = sport;
    std::memcpy(key->dst_ip, daddr, sizeof key->dst_ip);
    key->dst_port = dport;
}

// Turns a key into that of the reverse direction; a source-only key becomes a destination-only one
// and back. The hash and its validity stay: a host that supplies hashes supplies the same one for
// both directions. The new destination port keeps only the low 16 bits of the old source port, on
// purpose. A type outside the table leaves the key alone.
void zon_swap_key(zon_key_t* key);

// Copies the whole key, by the family of src.
void zon_copy_key(zon_key_t* dst, const zon_key_t* src);

// The same into or out of a half flow, whose storage must be of the key's family.
inline void zon_copy_key_to_half_flow(zon_half_flow_t* half_flow, const zon_key_t* src) {
    zon_copy_key(&half_flow->key, src);
}

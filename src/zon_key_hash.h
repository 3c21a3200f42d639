// zon_key_hash.h - hash and match of keys, one code for both families.

#pragma once

#include <algorithm>

#include "osal/zon_debug.h"
#include "zon_engine_defs.h"
#include "zon_flow_defs.h"
#include "zon_key_hash_funcs_inline.h"

// Words of stored keys that change in place (the type at a promotion, the VRF at a move) are stored
// and loaded as atomic words: a lookup meanwhile sees the old or the new one.
inline uint32_t key_type_of(const zon_key_t& key) {
    return relaxed_load(key.key_type);
}

// Hashes the words that are known in a key of this type. Address and port stand side by side in the
// key, source before destination, so every choice is one run of words.
template <class family>
inline const uint32_t* known_words(const typename family::key& key) {
    return reinterpret_cast<const uint32_t*>(&key) + sizeof(zon_key_t) / sizeof(uint32_t);
}
template <class family>
inline uint32_t hash_of_key(const typename family::key& key) {
    constexpr size_t endpoint = family::address_words + 1;
    const uint32_t* words = known_words<family>(key);
    switch (relaxed_load(key.key_type)) {
    case family::complete:
    case family::pre_flow_complete:
    case family::vrf_star:
        return jenkins_hashword_2006(words, 2 * endpoint, zon_hash_seed_in_force);
    case family::dst_only:
        return jenkins_hashword_2006(words + endpoint, endpoint, zon_hash_seed_in_force);
    case family::src_only:
        return jenkins_hashword_2006(words, endpoint, zon_hash_seed_in_force);
    default:
        zon_require(false, "0", "zon_hash_func_ipv6");
        return 0;
    }
}

// The same for a key that is known to be complete, without a choice on the way.
template <class family>
[[gnu::always_inline]] inline uint32_t hash_of_complete_key(const typename family::key& key) {
    if (key.hash_valid == 1) [[unlikely]]
        return key.hash_value;
    return jenkins_hashword_2006(known_words<family>(key), 2 * (family::address_words + 1),
                                 zon_hash_seed_in_force);
}

// The hash of the reverse of a complete key.
template <class family>
[[gnu::always_inline]] inline uint32_t hash_of_reverse_key(const typename family::key& key) {
    if (key.hash_valid == 1) [[unlikely]]
        return key.hash_value;
    constexpr size_t endpoint = family::address_words + 1;
    const uint32_t* words = known_words<family>(key);
    uint32_t reversed[2 * endpoint];
    std::copy_n(words + endpoint, endpoint, reversed);
    std::copy_n(words, endpoint, reversed + endpoint);
    return jenkins_hashword_2006(reversed, 2 * endpoint, zon_hash_seed_in_force);
}

inline uint32_t hash_of_key(const zon_half_flow_t* half_flow) {
    // A hash that the host supplied is taken as it is.
    if (half_flow->key.hash_valid == 1)
        return half_flow->key.hash_value;
    return zon_key_is_ipv4(key_type_of(half_flow->key))
               ? hash_of_key<ipv4_family>(*zon_full_key<ipv4_family>(half_flow))
               : hash_of_key<ipv6_family>(*zon_full_key<ipv6_family>(half_flow));
}

inline bool same_address(uint32_t a, uint32_t b) {
    return a == b;
}
inline bool same_address(const uint32_t (&a)[4], const uint32_t (&b)[4]) {
    return ((a[0] ^ b[0]) | (a[1] ^ b[1]) | (a[2] ^ b[2]) | (a[3] ^ b[3])) == 0;
}

template <class key>
inline bool same_source(const key& a, const key& b) {
    return a.src_port == b.src_port && same_address(a.src_ip, b.src_ip);
}
template <class key>
inline bool same_destination(const key& a, const key& b) {
    return a.dst_port == b.dst_port && same_address(a.dst_ip, b.dst_ip);
}

// Whether two keys of one complete type are equal; the path of nearly every packet.
template <class family>
inline bool same_complete_key(const typename family::key& a, const typename family::key& b) {
    return same_source(a, b) && same_destination(a, b) && a.l4_protocol == b.l4_protocol &&
           relaxed_load(a.vrf_id) == relaxed_load(b.vrf_id);
}

template <class key>
inline bool same_in_any_vrf(const key& a, const key& b) {
    return same_source(a, b) && same_destination(a, b) && a.l4_protocol == b.l4_protocol;
}

// Whether a stored key answers to a wanted one of the same type: unknown parts match anything.
template <class family>
inline bool key_matches(const typename family::key& wanted, const typename family::key& stored) {
    switch (wanted.key_type) {
    case family::complete:
    case family::pre_flow_complete:
        return same_complete_key<family>(wanted, stored);
    case family::dst_only:
        return same_destination(wanted, stored);
    case family::src_only:
        return same_source(wanted, stored);
    case family::vrf_star:
        return same_in_any_vrf(wanted, stored);
    default:
        return false;
    }
}

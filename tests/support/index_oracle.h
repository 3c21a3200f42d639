// index_oracle.h - whether the index of connections leads to the flows that a search through the
// chains finds, for every connection that any record or any half flow has or had; asked while
// nothing else runs.
//
//   EXPECT_EQ(look_at_index().difference, "");

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>

#include "zon_connection_lookup.h"
#include "zon_flow_table.h"
#include "zon_hashset_internal.h"
#include "zon_key_hash.h"

namespace zon_test {

struct index_look {
    size_t asked = 0;        // directions of connections
    size_t named = 0;        // of those, found by the index
    std::string difference;  // empty, or the first connection that leads astray
};

namespace index_oracle_detail {

// What a packet of the connection would be looked up by.
inline zon_ipv4_key_t key_of_words(const uint64_t* words, ipv4_family) {
    const auto port = [](uint64_t end) { return static_cast<uint32_t>(end & 0xFFFF); };
    const auto ip = [](uint64_t end) { return static_cast<uint32_t>(end >> 16); };
    return {ZON_IPV4_KEY_COMPLETE,
            static_cast<uint32_t>(words[0] >> 48 & 0xFF),
            0,
            0,
            static_cast<uint32_t>(words[2]),
            ip(words[0]),
            port(words[0]),
            ip(words[1]),
            port(words[1])};
}
inline zon_ipv6_key_t key_of_words(const uint64_t* words, ipv6_family) {
    zon_ipv6_key_t key{};
    key.key_type = ZON_IPV6_KEY_COMPLETE;
    key.l4_protocol = static_cast<uint32_t>(words[0] >> 48 & 0xFF);
    key.vrf_id = static_cast<uint32_t>(words[1]);
    for (size_t i = 0; i < 4; ++i) {
        const unsigned shift = i % 2 == 0 ? 32 : 0;
        key.src_ip[i] = static_cast<uint32_t>(words[2 + i / 2] >> shift);
        key.dst_ip[i] = static_cast<uint32_t>(words[4 + i / 2] >> shift);
    }
    key.src_port = static_cast<uint32_t>(words[0] & 0xFFFF);
    key.dst_port = static_cast<uint32_t>(words[0] >> 16 & 0xFFFF);
    return key;
}

template <class key>
key reversed(const key& of) {
    key other = of;
    std::memcpy(&other.src_ip, &of.dst_ip, sizeof of.src_ip);
    std::memcpy(&other.dst_ip, &of.src_ip, sizeof of.dst_ip);
    std::swap(other.src_port, other.dst_port);
    return other;
}

// The bucket that a half flow is linked in, by the links that lead back; past the end for one that
// is in none.
inline ptrdiff_t bucket_with(const zon_half_flow_t* half) {
    zon_hashset set = g_zon->flow_tbl->table;
    zon_hashset_hdr** from = half->hdr.pointer_to_us;
    for (int hops = 0; hops < 1000 && from != nullptr; ++hops) {
        if (from >= set->array && from < set->array + set->array_size)
            return from - set->array;
        static_assert(offsetof(zon_half_flow_t, hdr) == 0);
        const auto* newer = reinterpret_cast<const zon_hashset_hdr*>(
            reinterpret_cast<const char*>(from) - offsetof(zon_hashset_hdr, next));
        from = newer->pointer_to_us;
    }
    return set->array_size;
}

// What a search finds in the bucket: the newest half flow of the key whose flow is not on its way
// out.
template <class family>
const zon_half_flow_t* by_chain(ptrdiff_t bucket, const typename family::key& wanted) {
    zon_hashset set = g_zon->flow_tbl->table;
    if (bucket >= set->array_size)
        return nullptr;
    for (zon_hashset_hdr* header = set->array[bucket]; header != nullptr; header = header->next) {
        const auto* half = static_cast<const zon_half_flow_t*>(item_of(set, header));
        if (half->key.key_type == family::complete && !zon_flow_is_dying(half->flow) &&
            same_complete_key<family>(wanted, *zon_full_key<family>(half)))
            return half;
    }
    return nullptr;
}

template <class family>
const zon_half_flow_t* by_index(const typename family::key& wanted) {
    const ::connection<family> of = connection_of<family>(wanted);
    const connection_index& index = index_of(g_zon->flow_tbl);
    const connection_index::guess guess = index.find(index.hash_of(of));
    if (guess.flow == nullptr || zon_flow_is_dying(guess.flow) ||
        !is_connection_of(*::record_of(guess.flow), of))
        return nullptr;
    return of.from_lower == ((guess.flow->private_indexed & initiator_is_lower) != 0)
               ? guess.flow->initiator_flow
               : guess.flow->responder_flow;
}

template <class key>
std::string text_of(const key& of) {
    std::ostringstream out;
    const auto address = [&](const auto& words) {
        const auto* word = reinterpret_cast<const uint32_t*>(&words);
        for (size_t i = 0; i < sizeof words / sizeof *word; ++i)
            out << (i != 0 ? "." : "") << std::hex << word[i] << std::dec;
    };
    address(of.src_ip);
    out << " port " << of.src_port << " to ";
    address(of.dst_ip);
    out << " port " << of.dst_port << ", protocol " << of.l4_protocol << ", VRF " << of.vrf_id;
    return out.str();
}

inline void name(std::ostream& out, const zon_half_flow_t* half) {
    if (half == nullptr)
        out << "no flow";
    else
        out << "flow " << half->flow->fid << " from its "
            << (half->flow->initiator_flow == half ? "initiator" : "responder");
}

template <class family>
void ask(index_look& so_far, const typename family::key& forth) {
    for (const typename family::key& wanted : {forth, reversed(forth)}) {
        ++so_far.asked;
        const zon_half_flow_t* indexed = by_index<family>(wanted);
        if (indexed == nullptr)
            continue;
        ++so_far.named;
        // A packet is searched for in the bucket of its own hash, which a host's would not lead to.
        const ptrdiff_t bucket = bucket_with(indexed);
        const zon_half_flow_t* chained = by_chain<family>(bucket, wanted);
        if ((indexed == chained && indexed->key.hash_valid != 1) || !so_far.difference.empty())
            continue;
        std::ostringstream out;
        out << text_of(wanted) << ": the index names ";
        name(out, indexed);
        out << ", the chain holds ";
        name(out, chained);
        so_far.difference = out.str();
    }
}

template <class family>
void ask_of_half(index_look& so_far, const zon_half_flow_t* half) {
    // A packet has ports and a protocol of its own size and, mostly, no hash.
    typename family::key wanted = *zon_full_key<family>(half);
    wanted.key_type = family::complete;
    wanted.hash_valid = 0;
    wanted.hash_value = 0;
    wanted.src_port &= 0xFFFF;
    wanted.dst_port &= 0xFFFF;
    wanted.l4_protocol &= 0xFF;
    ask<family>(so_far, wanted);
}

}  // namespace index_oracle_detail

inline index_look look_at_index() {
    using namespace index_oracle_detail;
    index_look look;
    zon_hashset set = g_zon->flow_tbl->table;
    for (int bucket = 0; bucket < set->array_size; ++bucket)
        for (zon_hashset_hdr* header = set->array[bucket]; header != nullptr;
             header = header->next) {
            const auto* half = static_cast<const zon_half_flow_t*>(item_of(set, header));
            if (zon_key_is_ipv4(half->key.key_type))
                ask_of_half<ipv4_family>(look, half);
            else
                ask_of_half<ipv6_family>(look, half);
        }
    // Whatever a record says of its connection, a packet may ask for.
    for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
         flow = flow->next_flow) {
        const uint64_t* words = ::record_of(flow)->connection_words;
        switch (words[0] >> 56) {
        case 4:
            ask<ipv4_family>(look, key_of_words(words, ipv4_family{}));
            break;
        case 6:
            ask<ipv6_family>(look, key_of_words(words, ipv6_family{}));
            break;
        default:
            break;
        }
    }
    return look;
}

}  // namespace zon_test

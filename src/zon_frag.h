// zon_frag.h - ties the later fragments of a datagram to the flow of its first.
//
// An entry lives 30 seconds from its insertion, whatever follows. The table holds 512 entries and
// neither grows nor evicts: a datagram too many is simply not tracked.
//
// Threads    any; every operation runs under one lock of the table, which is taken after all others
//            but the wheel's.
// Byte order addresses as the caller hands them in; host-order words on the packet path.

#pragma once

#include <cstdint>

#include "zon_engine_defs.h"

// Word 0 counts the words that follow: identification, VRF, protocol, source, destination.
using zon_frag_key_t = uint32_t[12];

struct zon_frag_item_ {
    zon_frag_item_* bucket_next;
    zon_frag_item_* list_prev;
    zon_frag_item_* list_next;
    zon_frag_key_t key;
    zon_fid_t fid;
    uint32_t age_ms;
    zon_tw_timer_t timer;
    uint32_t table_index;
};
using zon_frag_item_t = zon_frag_item_;

struct zon_frag_table_ {
    zon_frag_item_t** table;
    uint32_t table_size;
    uint32_t table_mask;
    uint32_t num_items;
    zon_frag_item_t* list_head;
    zon_frag_item_t* free_list_head;
    zon_frag_item_t* frag_arry;
};
using zon_frag_table_t = zon_frag_table_;

static_assert(sizeof(zon_frag_item_t) == 128 && sizeof(zon_frag_table_t) == 48);

inline constexpr uint32_t zon_frag_capacity = 512;
inline constexpr uint32_t zon_frag_idle_ms = 30000;

// num_buckets must be a power of two. Null otherwise and without memory.
zon_frag_table_t* zon_frag_table_create(uint32_t num_buckets);
void zon_frag_table_destroy(zon_frag_table_t* table);

// Returns fid, or 0 when the table is full. An entry of the same datagram takes the new fid and
// keeps its timer.
zon_fid_t zon_frag_flow_insert_ipv4(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, uint32_t src_ip, uint32_t dst_ip,
                                    zon_fid_t fid);
zon_fid_t zon_frag_flow_insert_ipv6(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, const uint32_t* src_ip,
                                    const uint32_t* dst_ip, zon_fid_t fid);

// The recorded fid, or 0.
zon_fid_t zon_frag_flow_lookup_ipv4(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, uint32_t src_ip, uint32_t dst_ip);
zon_fid_t zon_frag_flow_lookup_ipv6(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, const uint32_t* src_ip,
                                    const uint32_t* dst_ip);

// The fid of the entry that was removed, or 0.
zon_fid_t zon_frag_flow_delete_ipv4(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, uint32_t src_ip, uint32_t dst_ip);
zon_fid_t zon_frag_flow_delete_ipv6(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, const uint32_t* src_ip,
                                    const uint32_t* dst_ip);
// The same, but only while the entry still names that fid: a newer first fragment may have taken it
// over.
zon_fid_t zon_frag_flow_delete_if_ipv4(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                       uint32_t protocol, uint32_t src_ip, uint32_t dst_ip,
                                       zon_fid_t fid);
zon_fid_t zon_frag_flow_delete_if_ipv6(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                       uint32_t protocol, const uint32_t* src_ip,
                                       const uint32_t* dst_ip, zon_fid_t fid);
// Removes the item's entry from the engine's table; 0 when it has gone already. For the item's
// timer: an expiry that was cancelled on its way removes nothing, because the item may serve
// another datagram by now.
zon_fid_t zon_frag_flow_delete(zon_frag_item_t* frag_item);

uint32_t zon_frag_entry_count(zon_frag_table_t* table);

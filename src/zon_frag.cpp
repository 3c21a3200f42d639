// zon_frag.cpp - ties the later fragments of a datagram to the flow of its first.
//
// Owns   the 512 entries and their free list.
// Locks  one lock for every operation, taken last: inside it only the timer wheel's. Never held
//        across a callback.
// Knows nothing of flows beyond their identifier.

#include "zon_frag.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "osal/zon_debug.h"
#include "osal/zon_lock_order.h"
#include "osal/zon_mem.h"
#include "osal/zon_timer.h"
#include "zon_key_hash_funcs_inline.h"
#include "zon_layout_check.h"

namespace {

ordered_mutex<lock_class::fragment> table_lock;

constexpr uint32_t ipv4_key_words = 5;
constexpr uint32_t ipv6_key_words = 11;

constexpr bool is_power_of_two(uint32_t number) {
    return number != 0 && (number & (number - 1)) == 0;
}

void set_key_ipv4(zon_frag_key_t& key, uint32_t ident, uint32_t vrf_id, uint32_t protocol,
                  uint32_t src_ip, uint32_t dst_ip) {
    key[0] = ipv4_key_words;
    key[1] = ident;
    key[2] = vrf_id;
    key[3] = protocol;
    key[4] = src_ip;
    key[5] = dst_ip;
}

void set_key_ipv6(zon_frag_key_t& key, uint32_t ident, uint32_t vrf_id, uint32_t protocol,
                  const uint32_t* src_ip, const uint32_t* dst_ip) {
    key[0] = ipv6_key_words;
    key[1] = ident;
    key[2] = vrf_id;
    key[3] = protocol;
    std::copy_n(src_ip, 4, key + 4);
    std::copy_n(dst_ip, 4, key + 8);
}

uint32_t hash_of(const zon_frag_key_t& key) {
    return jenkins_hashword_2006(key + 1, key[0], zon_hash_seed_in_force);
}

// Word 0 tells the families apart.
bool same_key(const zon_frag_key_t& a, const zon_frag_key_t& b) {
    return std::equal(a, a + a[0] + 1, b);
}

void copy_key(zon_frag_key_t& to, const zon_frag_key_t& from) {
    std::copy_n(from, from[0] + 1, to);
}

// The pointer that leads to the entry of the key in its bucket, or the null one at the bucket's
// end.
zon_frag_item_t** find(const zon_frag_table_t* table, const zon_frag_key_t& key, uint32_t bucket) {
    zon_frag_item_t** link = &table->table[bucket];
    while (*link != nullptr && !same_key((*link)->key, key))
        link = &(*link)->bucket_next;
    return link;
}

uint32_t bucket_of(const zon_frag_table_t* table, const zon_frag_key_t& key) {
    return hash_of(key) & table->table_mask;
}

// ---- the free list and the list of entries in use ----

zon_frag_item_t* take_free_item(zon_frag_table_t* table) {
    zon_frag_item_t* item = table->free_list_head;
    if (item == nullptr)
        return nullptr;
    table->free_list_head = item->list_next;
    if (table->free_list_head != nullptr)
        table->free_list_head->list_prev = nullptr;
    return item;
}

void push(zon_frag_item_t*& head, zon_frag_item_t* item) {
    item->list_prev = nullptr;
    item->list_next = head;
    if (head != nullptr)
        head->list_prev = item;
    head = item;
}

void unlink_from_list(zon_frag_table_t* table, zon_frag_item_t* item) {
    if (item->list_prev != nullptr)
        item->list_prev->list_next = item->list_next;
    else
        table->list_head = item->list_next;
    if (item->list_next != nullptr)
        item->list_next->list_prev = item->list_prev;
}

// ---- the operations, written once for both families; the lock is held ----

void start_timer_locked(zon_frag_item_t* item) {
    if (g_zon != nullptr)
        zon_timer_frag_start(&g_zon->zon_tw, &item->timer, item->age_ms, item);
}

// False when no entry is free.
bool insert_locked(zon_frag_table_t* table, const zon_frag_key_t& key, zon_fid_t fid) {
    const uint32_t bucket = bucket_of(table, key);
    if (zon_frag_item_t* present = *find(table, key, bucket)) {
        present->fid = fid;
        return true;
    }
    zon_frag_item_t* item = take_free_item(table);
    if (item == nullptr)
        return false;
    copy_key(item->key, key);
    item->fid = fid;
    item->table_index = bucket;
    item->age_ms = zon_frag_idle_ms;
    item->bucket_next = table->table[bucket];
    table->table[bucket] = item;
    if (g_zon != nullptr)
        zon_timer_set_type(&g_zon->zon_tw, &item->timer, ZON_TIMER_FRAG_FLOW_IDLE);
    push(table->list_head, item);
    ++table->num_items;
    start_timer_locked(item);
    return true;
}

// link leads to the entry.
zon_fid_t remove_locked(zon_frag_table_t* table, zon_frag_item_t** link) {
    zon_frag_item_t* item = *link;
    zon_timer_stop(&item->timer);
    const zon_fid_t fid = item->fid;
    *link = item->bucket_next;
    item->bucket_next = nullptr;
    unlink_from_list(table, item);
    push(table->free_list_head, item);
    --table->num_items;
    return fid;
}

zon_fid_t insert(zon_frag_table_t* table, const zon_frag_key_t& key, zon_fid_t fid) {
    {
        const std::lock_guard held(table_lock);
        if (insert_locked(table, key, fid))
            return fid;
    }
    if (zon_tracing_engine())
        zon_buginf("\nZON Engine: ZON FRAG Table: zon_frag_malloc_item: free list is empty");
    return 0;
}

zon_fid_t lookup(const zon_frag_table_t* table, const zon_frag_key_t& key) {
    const std::lock_guard held(table_lock);
    const zon_frag_item_t* item = *find(table, key, bucket_of(table, key));
    return item != nullptr ? item->fid : 0;
}

zon_fid_t remove(zon_frag_table_t* table, const zon_frag_key_t& key) {
    const std::lock_guard held(table_lock);
    zon_frag_item_t** link = find(table, key, bucket_of(table, key));
    return *link != nullptr ? remove_locked(table, link) : 0;
}

zon_fid_t remove_if(zon_frag_table_t* table, const zon_frag_key_t& key, zon_fid_t fid) {
    const std::lock_guard held(table_lock);
    zon_frag_item_t** link = find(table, key, bucket_of(table, key));
    return *link != nullptr && (*link)->fid == fid ? remove_locked(table, link) : 0;
}

// Traces the misuse; true when there is a table.
bool has_table(const zon_frag_table_t* table, const char* operation) {
    if (table != nullptr)
        return true;
    if (zon_tracing_engine())
        zon_buginf("\nZON Engine: ZON FRAG Table: %s, tbl is 0", operation);
    return false;
}

void free_table(zon_frag_table_t* table) {
    std::free(table->frag_arry);
    std::free(table->table);
    std::free(table);
}

}  // namespace

zon_frag_table_t* zon_frag_table_create(uint32_t num_buckets) {
    if (!is_power_of_two(num_buckets))
        return nullptr;
    auto* table = static_cast<zon_frag_table_t*>(zon_heap_zalloc(1, sizeof(zon_frag_table_t)));
    if (table == nullptr)
        return nullptr;
    table->table_size = num_buckets;
    table->table_mask = num_buckets - 1;
    table->table =
        static_cast<zon_frag_item_t**>(zon_heap_zalloc(num_buckets, sizeof(zon_frag_item_t*)));
    table->frag_arry =
        static_cast<zon_frag_item_t*>(zon_heap_zalloc(zon_frag_capacity, sizeof(zon_frag_item_t)));
    if (table->table == nullptr || table->frag_arry == nullptr) {
        free_table(table);
        return nullptr;
    }
    for (uint32_t at = 0; at < zon_frag_capacity; ++at)
        push(table->free_list_head, &table->frag_arry[at]);
    return table;
}

void zon_frag_table_destroy(zon_frag_table_t* table) {
    if (table == nullptr)
        return;
    if (table->table == nullptr) {
        std::free(table);
        return;
    }
    {
        const std::lock_guard held(table_lock);
        while (const zon_frag_item_t* item = table->list_head)
            remove_locked(table, find(table, item->key, item->table_index));
    }
    free_table(table);
}

zon_fid_t zon_frag_flow_insert_ipv4(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, uint32_t src_ip, uint32_t dst_ip,
                                    zon_fid_t fid) {
    if (!has_table(table, "zon_frag_flow_insert_ipv4"))
        return 0;
    zon_frag_key_t key;
    set_key_ipv4(key, ident, vrf_id, protocol, src_ip, dst_ip);
    return insert(table, key, fid);
}

zon_fid_t zon_frag_flow_insert_ipv6(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, const uint32_t* src_ip,
                                    const uint32_t* dst_ip, zon_fid_t fid) {
    if (!has_table(table, "zon_frag_flow_insert_ipv6"))
        return 0;
    zon_frag_key_t key;
    set_key_ipv6(key, ident, vrf_id, protocol, src_ip, dst_ip);
    return insert(table, key, fid);
}

zon_fid_t zon_frag_flow_lookup_ipv4(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, uint32_t src_ip, uint32_t dst_ip) {
    if (!has_table(table, "zon_frag_flow_lookup_ipv4"))
        return 0;
    zon_frag_key_t key;
    set_key_ipv4(key, ident, vrf_id, protocol, src_ip, dst_ip);
    return lookup(table, key);
}

zon_fid_t zon_frag_flow_lookup_ipv6(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, const uint32_t* src_ip,
                                    const uint32_t* dst_ip) {
    if (!has_table(table, "zon_frag_flow_lookup_ipv6"))
        return 0;
    zon_frag_key_t key;
    set_key_ipv6(key, ident, vrf_id, protocol, src_ip, dst_ip);
    return lookup(table, key);
}

zon_fid_t zon_frag_flow_delete_ipv4(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, uint32_t src_ip, uint32_t dst_ip) {
    if (!has_table(table, "zon_frag_flow_delete_ipv4"))
        return 0;
    zon_frag_key_t key;
    set_key_ipv4(key, ident, vrf_id, protocol, src_ip, dst_ip);
    return remove(table, key);
}

zon_fid_t zon_frag_flow_delete_ipv6(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                    uint32_t protocol, const uint32_t* src_ip,
                                    const uint32_t* dst_ip) {
    if (!has_table(table, "zon_frag_flow_delete_ipv6"))
        return 0;
    zon_frag_key_t key;
    set_key_ipv6(key, ident, vrf_id, protocol, src_ip, dst_ip);
    return remove(table, key);
}

zon_fid_t zon_frag_flow_delete_if_ipv4(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                       uint32_t protocol, uint32_t src_ip, uint32_t dst_ip,
                                       zon_fid_t fid) {
    if (!has_table(table, "zon_frag_flow_delete_ipv4"))
        return 0;
    zon_frag_key_t key;
    set_key_ipv4(key, ident, vrf_id, protocol, src_ip, dst_ip);
    return remove_if(table, key, fid);
}

zon_fid_t zon_frag_flow_delete_if_ipv6(zon_frag_table_t* table, uint32_t ident, uint32_t vrf_id,
                                       uint32_t protocol, const uint32_t* src_ip,
                                       const uint32_t* dst_ip, zon_fid_t fid) {
    if (!has_table(table, "zon_frag_flow_delete_ipv6"))
        return 0;
    zon_frag_key_t key;
    set_key_ipv6(key, ident, vrf_id, protocol, src_ip, dst_ip);
    return remove_if(table, key, fid);
}

zon_fid_t zon_frag_flow_delete(zon_frag_item_t* frag_item) {
    zon_frag_table_t* table = g_zon != nullptr ? g_zon->frag_table : nullptr;
    if (!has_table(table, "zon_frag_flow_delete"))
        return 0;
    const std::lock_guard held(table_lock);
    if (zon_timer_expiry_cancelled(&frag_item->timer))
        return 0;
    zon_frag_item_t** link = find(table, frag_item->key, bucket_of(table, frag_item->key));
    return *link == frag_item ? remove_locked(table, link) : 0;
}

uint32_t zon_frag_entry_count(zon_frag_table_t* table) {
    if (!has_table(table, "zon_frag_entry_count"))
        return 0;
    const std::lock_guard held(table_lock);
    return table->num_items;
}

// zon_flow_table.cpp - the keyed index of all half flows, and the list of all flow records.
//
// Owns   the hash set of half flows and the table-wide lock; half flows and records are the
//        engine's.
// Locks  flow_table_lock for the list and the walks; bucket locks inside the hash set
//        (docs/locking.md).

#include "zon_flow_table.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "osal/zon_debug.h"
#include "osal/zon_lock_order.h"
#include "osal/zon_mem.h"
#include "zon_connection_lookup.h"
#include "zon_engine/zon_clients.h"
#include "zon_engine_inline.h"
#include "zon_flow_table_inline.h"
#include "zon_hashset_internal.h"
#include "zon_key_hash.h"
#include "zon_lane_counts.h"

namespace {

// Keeps in_use set; when two readers overlap the flag falls with the last one.
class reading {
public:
    explicit reading(flow_table_storage& tbl) : tbl_(tbl) {
        const std::lock_guard guard(tbl_.readers_guard);
        ++tbl_.readers;
        relaxed_store(tbl_.in_use, true);
    }
    ~reading() {
        const std::lock_guard guard(tbl_.readers_guard);
        relaxed_store(tbl_.in_use, --tbl_.readers != 0);
    }
    reading(const reading&) = delete;
    reading& operator=(const reading&) = delete;

private:
    flow_table_storage& tbl_;
};

bool has_set(const zon_flow_table_t* tbl) {
    return tbl != nullptr && tbl->table != nullptr;
}

constexpr uint32_t preflow_key_types[] = {
    ZON_IPV4_KEY_DST_IP_PORT_ONLY,  ZON_IPV4_KEY_SRC_IP_PORT_ONLY, ZON_IPV4_KEY_PRE_FLOW_COMPLETE,
    ZON_IPV4_KEY_VRF_STAR,          ZON_IPV6_KEY_DST_IP_PORT_ONLY, ZON_IPV6_KEY_SRC_IP_PORT_ONLY,
    ZON_IPV6_KEY_PRE_FLOW_COMPLETE, ZON_IPV6_KEY_VRF_STAR};

template <class family>
bool has_complete_key(const zon_half_flow_t* stored, const typename family::key& wanted) {
    return key_type_of(stored->key) == family::complete &&
           same_complete_key<family>(wanted, *zon_full_key<family>(stored));
}

// A key that a packet may have and that the engine hashes itself.
template <class family>
bool may_be_indexed(const typename family::key& key) {
    return key.hash_valid != 1 && ((key.src_port | key.dst_port) >> 16 | key.l4_protocol >> 8) == 0;
}

template <class family>
zon_half_flow_t* find_in_index(zon_flow_table_t* tbl, const typename family::key& wanted) {
    if (!may_be_indexed<family>(wanted))
        return nullptr;
    const connection<family> of = connection_of<family>(wanted);
    zon_flow_t* flow = zon_find_connection_locked(tbl, of, index_of(tbl).hash_of(of));
    if (flow == nullptr)
        return nullptr;
    const bool initiator_lower = (flow->private_indexed & initiator_is_lower) != 0;
    return of.from_lower == initiator_lower ? flow->initiator_flow : flow->responder_flow;
}

template <class family>
zon_half_flow_t* find_in_chain(zon_hashset set, uint32_t bucket,
                               const typename family::key& wanted) {
    return static_cast<zon_half_flow_t*>(find_locked(set, bucket, [&wanted](zon_hashset_item item) {
        return has_complete_key<family>(static_cast<const zon_half_flow_t*>(item), wanted);
    }));
}

template <class family>
zon_half_flow_t* find_complete(zon_flow_table_t* tbl, const zon_half_flow_t* half_flow,
                               int* bucket) {
    zon_hashset set = tbl->table;
    const typename family::key& wanted = *zon_full_key<family>(half_flow);
    const uint32_t b = bucket_of(set, hash_of_complete_key<family>(wanted));
    if (bucket != nullptr)
        *bucket = static_cast<int>(b);
    if (zon_half_flow_t* found = find_in_index<family>(tbl, wanted))
        return found;
    return find_in_chain<family>(set, b, wanted);
}

template <class family>
zon_half_flow_t* search_complete(zon_flow_table_t* tbl, const zon_half_flow_t* half_flow,
                                 flow_buckets* buckets) {
    zon_hashset set = tbl->table;
    const typename family::key& wanted = *zon_full_key<family>(half_flow);
    if (buckets->responder < 0) {
        buckets->initiator = static_cast<int>(bucket_of(set, hash_of_complete_key<family>(wanted)));
        prefetch_bucket(set, static_cast<uint32_t>(buckets->initiator));
        buckets->responder = static_cast<int>(bucket_of(set, hash_of_reverse_key<family>(wanted)));
        prefetch_bucket(set, static_cast<uint32_t>(buckets->responder));
        prefetch_first_item(set, static_cast<uint32_t>(buckets->responder));
    }
    return find_in_chain<family>(set, static_cast<uint32_t>(buckets->initiator), wanted);
}

enum class vrf_star_keys { count, do_not_count };

// The keys of one type are compared as far as they are known. A complete key is also a connection
// that was announced, with its VRF or without; one that is being announced may already be there.
template <class family, vrf_star_keys vrf_stars>
bool key_of_same_connection(const typename family::key& fresh, const typename family::key& stored) {
    const uint32_t type = fresh.key_type;
    const uint32_t stored_type = relaxed_load(stored.key_type);
    if (type == family::complete && stored_type == family::vrf_star)
        return vrf_stars == vrf_star_keys::count && same_in_any_vrf(fresh, stored);
    const bool comparable =
        stored_type == type ||
        (type == family::complete && stored_type == family::pre_flow_complete) ||
        (type == family::pre_flow_complete && stored_type == family::complete);
    return comparable && key_matches<family>(fresh, stored);
}

// Lookups pass over announced types that nobody counts; a connection that they do not find is not
// there.
bool is_looked_for(zon_flow_table_t* tbl, const zon_half_flow_t* stored) {
    const uint32_t type = key_type_of(stored->key);
    return !zon_key_is_preflow(type) || zon_private_get_incomplete_inserts(tbl, type) != 0;
}

// Whether a stored half flow stands for the connection of a new one. Neither a flow in deletion nor
// the moved flow itself does.
template <class family, vrf_star_keys vrf_stars>
bool same_connection(zon_flow_table_t* tbl, const zon_half_flow_t* fresh,
                     const zon_half_flow_t* stored) {
    return key_of_same_connection<family, vrf_stars>(*zon_full_key<family>(fresh),
                                                     *zon_full_key<family>(stored)) &&
           stored->flow != fresh->flow && !zon_flow_is_dying(stored->flow) &&
           (zon_key_is_preflow(fresh->key.key_type) || is_looked_for(tbl, stored));
}

template <vrf_star_keys vrf_stars>
bool same_connection_any_family(const void* fresh_item, const void* stored_item, void* table) {
    auto* tbl = static_cast<zon_flow_table_t*>(table);
    const auto* fresh = static_cast<const zon_half_flow_t*>(fresh_item);
    const auto* stored = static_cast<const zon_half_flow_t*>(stored_item);
    return zon_key_is_ipv4(fresh->key.key_type)
               ? same_connection<ipv4_family, vrf_stars>(tbl, fresh, stored)
               : same_connection<ipv6_family, vrf_stars>(tbl, fresh, stored);
}

// A flow that was announced without its VRF gives way to no other one of that kind: clients can
// re-key two of them to one tuple.
zon_hashset_same same_connection_for(const zon_flow_t* announced) {
    const uint32_t type = announced->initiator_flow->key.key_type;
    return type == ZON_IPV4_KEY_VRF_STAR || type == ZON_IPV6_KEY_VRF_STAR
               ? same_connection_any_family<vrf_star_keys::do_not_count>
               : same_connection_any_family<vrf_star_keys::count>;
}

// ---- the index of connections ----

// The keys of both halves, each the reverse of the other, are those of a connection that the index
// can name.
template <class key>
bool is_reverse(const key& one, const key& other) {
    return one.src_port == other.dst_port && one.dst_port == other.src_port &&
           same_address(one.src_ip, other.dst_ip) && same_address(one.dst_ip, other.src_ip) &&
           one.l4_protocol == other.l4_protocol &&
           relaxed_load(one.vrf_id) == relaxed_load(other.vrf_id);
}
template <class key>
bool has_one_end(const key& of) {
    return of.src_port == of.dst_port && same_address(of.src_ip, of.dst_ip);
}
template <class family>
bool can_be_reversed(const typename family::key& key) {
    return may_be_indexed<family>(key) && !has_one_end(key);
}
template <class family>
bool is_one_connection(const typename family::key& initiator,
                       const typename family::key& responder) {
    return can_be_reversed<family>(initiator) && may_be_indexed<family>(responder) &&
           is_reverse(initiator, responder);
}

template <class family>
bool is_complete(const zon_half_flow_t* half) {
    return half != nullptr && key_type_of(half->key) == family::complete;
}

template <class family>
void name_in_index(zon_flow_table_t* tbl, zon_flow_t* flow) {
    flow_record& record = *record_of(flow);
    const connection<family> of =
        connection_of<family>(*zon_full_key<family>(flow->initiator_flow));
    std::ranges::copy(of.words, record.connection_words);
    record.connection_hash = index_of(tbl).hash_of(of);
    flow->private_indexed =
        static_cast<uint8_t>(is_indexed | (of.from_lower ? initiator_is_lower : 0) |
                             (of.same_address ? ends_share_address : 0));
    if (!index_of(tbl).put(record.connection_hash, flow))
        flow->private_indexed = 0;
}

// Whoever was found by this key may no longer be the newest.
template <class family>
void unname_all(zon_flow_table_t* tbl, const zon_half_flow_t* half) {
    if (is_complete<family>(half))
        index_of(tbl).remove_all(
            index_of(tbl).hash_of(connection_of<family>(*zon_full_key<family>(half))));
}
void unname_all(zon_flow_table_t* tbl, const zon_half_flow_t* half) {
    unname_all<ipv4_family>(tbl, half);
    unname_all<ipv6_family>(tbl, half);
}

template <class family>
bool can_be_named(const zon_flow_t* flow) {
    return is_complete<family>(flow->initiator_flow) && is_complete<family>(flow->responder_flow) &&
           is_one_connection<family>(*zon_full_key<family>(flow->initiator_flow),
                                     *zon_full_key<family>(flow->responder_flow));
}

// Both halves have just been linked, and their buckets are locked.
void name_new_flow(zon_hashset_item initiator, zon_hashset_item responder, void* table) {
    auto* tbl = static_cast<zon_flow_table_t*>(table);
    zon_flow_t* flow = flow_of(initiator);
    if (can_be_named<ipv4_family>(flow)) {
        name_in_index<ipv4_family>(tbl, flow);
    } else if (can_be_named<ipv6_family>(flow)) {
        name_in_index<ipv6_family>(tbl, flow);
    } else {
        unname_all(tbl, static_cast<const zon_half_flow_t*>(initiator));
        unname_all(tbl, static_cast<const zon_half_flow_t*>(responder));
    }
}

template <class family>
bool name_if_reversed(zon_flow_table_t* tbl, const zon_half_flow_t* initiator) {
    if (!is_complete<family>(initiator) ||
        !can_be_reversed<family>(*zon_full_key<family>(initiator)))
        return false;
    name_in_index<family>(tbl, initiator->flow);
    return true;
}

// The same for a flow whose responder's key was made of the initiator's by reversing it.
void name_new_reversed_flow(zon_hashset_item initiator, zon_hashset_item responder, void* table) {
    auto* tbl = static_cast<zon_flow_table_t*>(table);
    const auto* half = static_cast<const zon_half_flow_t*>(initiator);
    if (!name_if_reversed<ipv4_family>(tbl, half) && !name_if_reversed<ipv6_family>(tbl, half))
        name_new_flow(initiator, responder, table);
}

// The half flow's bucket is locked.
template <class family>
bool is_newest_of_key(zon_hashset set, const zon_half_flow_t* half, uint32_t bucket) {
    const typename family::key& key = *zon_full_key<family>(half);
    for (zon_hashset_hdr* header = set->array[bucket]; header != nullptr; header = header->next) {
        const auto* item = static_cast<const zon_half_flow_t*>(item_of(set, header));
        if (has_complete_key<family>(item, key))
            return item == half;
    }
    return false;
}

template <class family>
void name_if_newest(zon_flow_table_t* tbl, zon_flow_t* flow) {
    if (!can_be_named<family>(flow))
        return;
    zon_hashset set = tbl->table;
    const zon_half_flow_t* initiator = flow->initiator_flow;
    const zon_half_flow_t* responder = flow->responder_flow;
    const uint32_t b1 = bucket_of(set, hash_of_key(initiator));
    const uint32_t b2 = bucket_of(set, hash_of_key(responder));
    held_buckets<2> held(set, {b1, b2});
    if (is_newest_of_key<family>(set, initiator, b1) &&
        is_newest_of_key<family>(set, responder, b2))
        name_in_index<family>(tbl, flow);
}

template <class family>
flow_buckets buckets_of(const zon_flow_table_t* tbl, const connection_ends<family>& ends) {
    constexpr size_t words = 2 * connection_ends<family>::words_of_end;
    uint32_t reversed[words];
    std::rotate_copy(ends.words, ends.words + words / 2, ends.words + words, reversed);
    const auto bucket_of_words = [tbl](const uint32_t* key_words) {
        return static_cast<int>(
            bucket_of(tbl->table, jenkins_hashword_2006(key_words, words, zon_hash_seed_in_force)));
    };
    return {bucket_of_words(ends.words), bucket_of_words(reversed)};
}

template <class family>
void name_if_room(zon_flow_table_t* tbl, zon_flow_t* flow) {
    if (!is_complete<family>(flow->initiator_flow))
        return;
    const connection<family> of =
        connection_of<family>(*zon_full_key<family>(flow->initiator_flow));
    if (index_of(tbl).has_room(index_of(tbl).hash_of(of)))
        name_if_newest<family>(tbl, flow);
}

bool count_single(zon_flow_table_t* tbl, const zon_half_flow_t* half_flow, bool linked) {
    if (!linked)
        return false;
    zon_count(tbl->profile_insert, lane_count::inserts, 1);
    unname_all(tbl, half_flow);
    return true;
}

}  // namespace

unsigned int zon_hash_calc(void* element, void*) {
    return hash_of_key(static_cast<const zon_half_flow_t*>(element));
}

bool zon_matcher(void* element1, void* element2, void*) {
    const auto* wanted = static_cast<const zon_half_flow_t*>(element1);
    const auto* stored = static_cast<const zon_half_flow_t*>(element2);
    const uint32_t type = wanted->key.key_type;
    if (type != key_type_of(stored->key))
        return false;
    if (!zon_key_type_is_valid(type)) {
        if (zon_tracing_engine())
            zon_buginf("\nZON Engine: Unknown key type %d", static_cast<int>(type));
        return false;
    }
    return zon_key_is_ipv4(type) ? key_matches<ipv4_family>(*zon_full_key<ipv4_family>(wanted),
                                                            *zon_full_key<ipv4_family>(stored))
                                 : key_matches<ipv6_family>(*zon_full_key<ipv6_family>(wanted),
                                                            *zon_full_key<ipv6_family>(stored));
}

namespace {

// With what has been made of it; the set is gone.
void free_table(flow_table_storage* tbl) {
    std::free(tbl->flow_table_lock);
    tbl->~flow_table_storage();
    std::free(tbl);
}

}  // namespace

zon_flow_table_t* zon_flow_table_create(uint32_t max_flows, uint32_t max_threads,
                                        uint8_t max_bucket_depth) {
    void* memory = zon_heap_zalloc(1, sizeof(flow_table_storage));
    if (memory == nullptr)
        return nullptr;
    auto* tbl = new (memory) flow_table_storage{};
    zon_hash_attr attrs{};
    zon_hash_attr_init(&attrs);
    zon_hash_attr_sethashtable(
        &attrs, false,
        static_cast<int>(max_flows / std::max(1U, ZON_DEFAULT_FLOW_TO_HASH_SIZE_RATIO)),
        static_cast<int>(max_threads), max_bucket_depth);
    if (zon_hashset_create(&tbl->table, &attrs, 0, zon_hash_calc, zon_matcher, nullptr) !=
        zon_error_none) {
        free_table(tbl);
        return nullptr;
    }
    tbl->flow_table_lock = zon_lock_allocate();
    if (tbl->flow_table_lock == nullptr || !tbl->index.create(max_flows, zon_hash_seed_in_force)) {
        zon_hashset_free(&tbl->table);
        free_table(tbl);
        return nullptr;
    }
    zon_lock_init(tbl->flow_table_lock);
    zon_lock_set_class(tbl->flow_table_lock, lock_class::flow_table);
    return tbl;
}

void zon_flow_table_destroy(zon_flow_table_t* tbl) {
    zon_hashset_free(&tbl->table);
    zon_lock_destroy(tbl->flow_table_lock);
    free_table(storage_of(tbl));
}

void zon_flow_table_unindex(zon_flow_table_t* tbl, zon_flow_t* flow) {
    if (flow->private_indexed == 0)
        return;
    index_of(tbl).remove(record_of(flow)->connection_hash, flow);
    flow->private_indexed = 0;
}

void zon_flow_table_index_anew(zon_flow_table_t* tbl, zon_flow_t* flow) {
    zon_flow_table_unindex(tbl, flow);
    for (const zon_half_flow_t* half : {flow->initiator_flow, flow->responder_flow})
        unname_all(tbl, half);
    name_if_newest<ipv4_family>(tbl, flow);
    name_if_newest<ipv6_family>(tbl, flow);
}

void zon_flow_table_index_again(zon_flow_table_t* tbl, zon_flow_t* flow) {
    if (flow->private_indexed != 0 && index_of(tbl).names(record_of(flow)->connection_hash, flow))
        return;
    flow->private_indexed = 0;
    name_if_room<ipv4_family>(tbl, flow);
    name_if_room<ipv6_family>(tbl, flow);
}

bool zon_flow_table_insert(zon_flow_table_t* tbl, zon_half_flow_t* half_flow) {
    if (!has_set(tbl))
        return false;
    const bool linked = zon_hashset_insert(tbl->table, half_flow);
    // The set hands the flow over locked once more; the caller's own level was never let go.
    zon_unlock_internal(half_flow->flow->flow_lock);
    return count_single(tbl, half_flow, linked);
}

bool zon_flow_table_insert_direct(zon_flow_table_t* tbl, zon_half_flow_t* half_flow, int bucket) {
    if (!has_set(tbl))
        return false;
    const bool linked = zon_hashset_insert_direct(tbl->table, half_flow, bucket);
    zon_unlock_internal(half_flow->flow->flow_lock);
    return count_single(tbl, half_flow, linked);
}

pair_insert_result zon_flow_table_insert_flow(zon_flow_table_t* tbl, zon_flow_t* flow,
                                              flow_buckets buckets) {
    zon_hashset set = tbl->table;
    const bool is_reversed = buckets.responder >= 0;
    if (!is_reversed)
        buckets.responder = static_cast<int>(bucket_of(set, hash_of_key(flow->responder_flow)));
    const pair_insert_result result =
        zon_hashset_insert_pair(set, flow->initiator_flow, buckets.initiator, flow->responder_flow,
                                buckets.responder, same_connection_any_family<vrf_star_keys::count>,
                                is_reversed ? name_new_reversed_flow : name_new_flow, tbl);
    if (result == pair_insert_result::linked) {
        zon_count(tbl->profile_insert, lane_count::inserts, 2);
    } else if (result == pair_insert_result::second_refused) {
        // The initiator was in and came out again.
        zon_count(tbl->profile_insert, lane_count::inserts, 1);
        zon_count(tbl->profile_delete, lane_count::deletes, 1);
    }
    return result;
}

pair_insert_result zon_flow_table_relink_flow(zon_flow_table_t* tbl, zon_flow_t* flow,
                                              const zon_key_t* key) {
    zon_half_flow_t* initiator = flow->initiator_flow;
    zon_half_flow_t* responder = flow->responder_flow;
    zon_ipv6_half_flow_t fresh_initiator;
    zon_ipv6_half_flow_t fresh_responder;
    auto* wanted_initiator = reinterpret_cast<zon_half_flow_t*>(&fresh_initiator);
    auto* wanted_responder = reinterpret_cast<zon_half_flow_t*>(&fresh_responder);
    zon_copy_key_to_half_flow(wanted_initiator, key);
    zon_copy_key_to_half_flow(wanted_responder, key);
    zon_swap_key(&wanted_responder->key);
    wanted_initiator->flow = wanted_responder->flow = flow;

    held_lock table(tbl->flow_table_lock);
    zon_flow_table_unindex(tbl, flow);
    const relink_pair move{initiator, wanted_initiator, responder, wanted_responder, tbl};
    const pair_insert_result result = zon_hashset_relink_pair(
        tbl->table, move, same_connection_for(flow), [](zon_hashset_item item, const void* wanted) {
            zon_copy_key(&static_cast<zon_half_flow_t*>(item)->key,
                         &static_cast<const zon_half_flow_t*>(wanted)->key);
        });
    if (result == pair_insert_result::already_present)
        return result;
    zon_count(tbl->profile_delete, lane_count::deletes, 2);
    if (result == pair_insert_result::linked) {
        zon_flow_table_index_anew(tbl, flow);
        zon_count(tbl->profile_insert, lane_count::inserts, 2);
    } else if (result == pair_insert_result::second_refused) {
        zon_count(tbl->profile_insert, lane_count::inserts, 1);
        zon_count(tbl->profile_delete, lane_count::deletes, 1);
    }
    return result;
}

zon_half_flow_t* zon_flow_table_lookup_locked(zon_flow_table_t* tbl,
                                              const zon_half_flow_t* half_flow, int* bucket) {
    if (!has_set(tbl))
        return nullptr;
    switch (half_flow->key.key_type) {
    case ZON_IPV4_KEY_COMPLETE:
        return find_complete<ipv4_family>(tbl, half_flow, bucket);
    case ZON_IPV6_KEY_COMPLETE:
        return find_complete<ipv6_family>(tbl, half_flow, bucket);
    default:
        return static_cast<zon_half_flow_t*>(
            zon_hashset_get(tbl->table, const_cast<zon_half_flow_t*>(half_flow), bucket));
    }
}

flow_buckets zon_buckets_of(const zon_flow_table_t* tbl, const connection_ends<ipv4_family>& ends) {
    return buckets_of(tbl, ends);
}
flow_buckets zon_buckets_of(const zon_flow_table_t* tbl, const connection_ends<ipv6_family>& ends) {
    return buckets_of(tbl, ends);
}

zon_half_flow_t* zon_flow_table_search_locked(zon_flow_table_t* tbl,
                                              const zon_half_flow_t* half_flow,
                                              flow_buckets* buckets) {
    return half_flow->key.key_type == ZON_IPV4_KEY_COMPLETE
               ? search_complete<ipv4_family>(tbl, half_flow, buckets)
               : search_complete<ipv6_family>(tbl, half_flow, buckets);
}

bool zon_flow_table_delete(zon_flow_table_t* tbl, zon_half_flow_t* half_flow, bool lock) {
    if (!has_set(tbl))
        return false;
    held_lock held(lock ? tbl->flow_table_lock : nullptr);
    zon_flow_table_unindex(tbl, half_flow->flow);
    zon_hashset_remove(tbl->table, half_flow);
    zon_count(tbl->profile_delete, lane_count::deletes, 1);
    return true;
}

bool zon_flow_table_delete_full_flow(zon_flow_table_t* tbl, zon_half_flow_t* half_flow1,
                                     zon_half_flow_t* half_flow2, bool lock) {
    if (!has_set(tbl))
        return false;
    held_lock held(lock ? tbl->flow_table_lock : nullptr);
    zon_flow_table_unindex(tbl, half_flow1->flow);
    zon_hashset_remove_full(tbl->table, half_flow1, half_flow2);
    zon_count(tbl->profile_delete, lane_count::deletes, 1);
    return true;
}

void zon_flow_table_link(zon_flow_table_t* tbl, zon_flow_t* flow) {
    held_lock held(tbl->flow_table_lock);
    flow->next_flow = nullptr;
    if (tbl->flow_tail != nullptr)
        relaxed_store(tbl->flow_tail->next_flow, flow);
    else
        tbl->flow_head = flow;
    tbl->flow_tail = flow;
}

void zon_flow_table_iterate_flow(zon_flow_table_t* tbl, zon_flow_callback cb, void* user) {
    held_lock held(tbl->flow_table_lock);
    for (zon_flow_t* flow = tbl->flow_head; flow != nullptr; flow = flow->next_flow)
        if (!cb(flow, user))
            return;
}

void zon_flow_table_iterate_half_flow(zon_flow_table_t* tbl, zon_half_flow_callback cb,
                                      void* user) {
    struct adapter {
        zon_half_flow_callback cb;
        void* user;
    } call{cb, user};
    held_lock held(tbl->flow_table_lock);
    zon_hashset_iterate(
        tbl->table,
        [](zon_hashset, zon_hashset_item item, void* context) {
            const auto* to = static_cast<const adapter*>(context);
            to->cb(static_cast<zon_half_flow_t*>(item), to->user);
        },
        &call);
}

uint32_t zon_flow_table_num_elements(zon_flow_table_t* tbl) {
    if (!has_set(tbl))
        return 0;
    held_lock held(tbl->flow_table_lock);
    return static_cast<uint32_t>(zon_hashset_size(tbl->table));
}

zon_error_t zon_flow_table_is_available(zon_flow_table_t* tbl) {
    if (tbl == nullptr)
        return zon_error_flow_table_access_failed;
    held_lock held(tbl->flow_table_lock);
    return relaxed_load(tbl->in_use) || !zon_hashset_is_available(tbl->table)
               ? zon_error_flow_table_access_failed
               : zon_error_none;
}

void zon_flow_table_statistics(zon_flow_table_t* tbl, int32_t* size, int32_t* used, int32_t* empty,
                               int32_t* occupied, int32_t* bucket_ave, int32_t* bucket_max,
                               uint32_t* inserts, uint32_t* deletes, uint32_t* passively_aged,
                               int32_t** distribution, int32_t** preflow_count) {
    if (!has_set(tbl))
        return;
    const reading shown(*storage_of(tbl));
    zon_hashset_get_statistics(tbl->table, size, used, empty, occupied, bucket_ave, bucket_max,
                               distribution);
    const table_counts counted = zon_counts_of(tbl);
    *inserts = counted.inserts;
    *deletes = counted.deletes;
    *passively_aged = relaxed_load(tbl->profile_passively_aged);
    if (preflow_count != nullptr)
        *preflow_count = reinterpret_cast<int32_t*>(tbl->active_preflow_count);
}

void zon_flow_table_statistics_clear(zon_flow_table_t* tbl) {
    zon_lane_counts_settle();
    relaxed_store(tbl->profile_insert, 0);
    relaxed_store(tbl->profile_delete, 0);
    relaxed_store(tbl->profile_passively_aged, 0);
}

void zon_private_increment_incomplete_inserts(zon_flow_table_t* tbl, uint32_t key_type) {
    std::lock_guard guard(storage_of(tbl)->preflow_counts);
    relaxed_add(tbl->active_preflow_count[key_type], 1);
    relaxed_store(tbl->has_incomplete_inserts, true);
}

void zon_private_decrement_incomplete_inserts(zon_flow_table_t* tbl, uint32_t key_type) {
    std::lock_guard guard(storage_of(tbl)->preflow_counts);
    relaxed_add(tbl->active_preflow_count[key_type], -1);
    for (const uint32_t type : preflow_key_types)
        if (relaxed_load(tbl->active_preflow_count[type]) != 0)
            return;
    relaxed_store(tbl->has_incomplete_inserts, false);
}

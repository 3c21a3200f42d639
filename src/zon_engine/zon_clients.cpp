// zon_clients.cpp - who the clients are, what they want to be called for and which capabilities
// they enable.
//
// Owns   the entries of the clients and of the free ids, unregistered entries included until the
//        engine goes.
// Locks  one private mutex around every change, taken last; no client function runs under it. The
//        packet path and deletion walk without it.
// Knows nothing of what clients keep on flows.

#include "zon_engine/zon_clients.h"

#include <cstdlib>
#include <iterator>
#include <mutex>

#include "osal/zon_errlog.h"
#include "osal/zon_lock_order.h"
#include "osal/zon_mem.h"
#include "zon_flow_table.h"
#include "zon_relaxed.h"

namespace {

using client_entry = zon_client_info_list_entry_;
using free_id_entry = zon_client_id_list_entry_;

// An unregistered client stays in memory, because a walk may stand on its entry.
struct client_record {
    client_entry entry;
    client_record* next_parked;
};

ordered_mutex<lock_class::clients> clients_mutex;
client_record* parked_clients;

constexpr const char* id_too_large = "Client id exceeds max number of clients that ZON can support";
constexpr const char* null_callback = "Invalid call back provided";

bool usable(zon_client_id_e id) {
    return id >= 1 && id <= zon_last_client_id;
}

zon_error_t refuse(zon_error_t error, const char* complaint, const char* label, uint32_t value) {
    zon_log_error_message(ZON_ERRMSG_CLIENT_API, complaint, label, static_cast<int>(value));
    return error;
}

// Complete before it is seen: walks on other threads follow the head and the links that are stored
// here.
template <class entry_t>
void link_at_head(entry_t*& head, entry_t* entry) {
    entry->entries.next = head;
    entry->entries.prev = &head;
    if (head != nullptr)
        head->entries.prev = &entry->entries.next;
    __atomic_store_n(&head, entry, __ATOMIC_RELEASE);
}

// The entry's own forward link stays, so that a walk that stands on it goes on.
template <class entry_t>
void unlink(entry_t* entry) {
    entry_t* next = entry->entries.next;
    if (next != nullptr)
        next->entries.prev = entry->entries.prev;
    __atomic_store_n(entry->entries.prev, next, __ATOMIC_RELEASE);
}

template <class callback>
void set_callback(callback& slot, callback cb) {
    __atomic_store_n(&slot, cb, __ATOMIC_RELEASE);
}

client_entry* find_client(const zon_t* engine, zon_client_id_e id) {
    for (client_entry* client = zon_first_client(engine); client != nullptr;
         client = zon_next_client(client))
        if (client->id == id)
            return client;
    return nullptr;
}

client_entry* new_client(zon_client_id_e id) {
    auto* record = static_cast<client_record*>(zon_heap_zalloc(1, sizeof(client_record)));
    if (record == nullptr)
        return nullptr;
    record->entry.id = id;
    return &record->entry;
}

// Whoever walks the list at this moment may still come past the entry, but calls nobody.
void park(client_entry* client) {
    set_callback(client->fo_del_cb, {});
    set_callback(client->pre_create_cb, {});
    set_callback(client->bypass_cb, {});
    auto* record =
        reinterpret_cast<client_record*>(client);  // every entry is the head of its record
    record->next_parked = parked_clients;
    parked_clients = record;
}

// Sets one callback of a registered client; false when there is no such client.
template <class callback>
bool change_callback(callback client_entry::*slot, zon_client_id_e id, callback cb) {
    const std::lock_guard hold(clients_mutex);
    client_entry* client = find_client(g_zon, id);
    if (client == nullptr)
        return false;
    set_callback(client->*slot, cb);
    return true;
}

// What the three registrations and the three unregistrations check, except that the complaints
// differ.
zon_error_t check_id(zon_client_id_e id, const char* complaint, const char* label) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    return usable(id) ? zon_error_none : refuse(zon_error_client_id_invalid, complaint, label, id);
}

template <class callback>
zon_error_t register_callback(callback client_entry::*slot, zon_client_id_e id, callback cb) {
    return change_callback(slot, id, cb) ? zon_error_none : zon_error_client_id_invalid;
}

template <class callback>
zon_error_t unregister_callback(callback client_entry::*slot, zon_client_id_e id) {
    change_callback(slot, id, callback{});
    return zon_error_none;
}

}  // namespace

// ---- the lists ----

void zon_build_free_client_ids(zon_t* engine) {
    const std::lock_guard hold(clients_mutex);
    for (zon_client_id_e id = 1; id <= zon_last_client_id; ++id) {
        auto* entry = static_cast<free_id_entry*>(zon_heap_zalloc(1, sizeof(free_id_entry)));
        if (entry == nullptr)
            return;
        entry->id = id;
        link_at_head(engine->free_client_ids, entry);
    }
}

void zon_free_clients(zon_t* engine) {
    const std::lock_guard hold(clients_mutex);
    while (client_entry* client = engine->clients) {
        unlink(client);
        park(client);
    }
    while (client_record* record = parked_clients) {
        parked_clients = record->next_parked;
        free(record);
    }
    while (free_id_entry* entry = engine->free_client_ids) {
        unlink(entry);
        free(entry);
    }
}

// ---- registration ----

zon_error_t zon_client_feature_register(zon_client_id_e* cid) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    const std::lock_guard hold(clients_mutex);
    free_id_entry* free_id = g_zon->free_client_ids;
    if (free_id == nullptr)
        return zon_error_memory;
    if (cid == nullptr)
        return zon_error_parameter_is_null;
    const zon_client_id_e id = free_id->id;
    client_entry* client = new_client(id);
    if (client == nullptr)
        return zon_error_memory;
    link_at_head(g_zon->clients, client);
    unlink(free_id);
    free(free_id);
    *cid = id;
    return zon_error_none;
}

// The id goes back whether or not it was taken: hosts unregister on paths where they do not know.
zon_error_t zon_client_feature_unregister(zon_client_id_e cid) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    const std::lock_guard hold(clients_mutex);
    auto* free_id = static_cast<free_id_entry*>(zon_heap_zalloc(1, sizeof(free_id_entry)));
    if (free_id == nullptr)
        return zon_error_memory;
    free_id->id = cid;
    link_at_head(g_zon->free_client_ids, free_id);
    if (client_entry* client = find_client(g_zon, cid); client != nullptr) {
        unlink(client);
        park(client);
    }
    return zon_error_none;
}

zon_error_t zon_unreg_client_fo(zon_client_id_e cid) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (cid > zon_last_client_id)
        return zon_error_client_id_invalid;
    return zon_flow_table_remove_client_fo(g_zon->flow_tbl, cid);
}

// ---- callbacks ----

zon_error_t zon_client_register_delete_cb(zon_client_id_e id, zon_client_fo_delete_cb_t cb) {
    static constexpr const char* label = "zon_client_register_delete_cb, id:";
    if (const zon_error_t error = check_id(id, id_too_large, label); error != zon_error_none)
        return error;
    if (cb == nullptr)
        return refuse(zon_error_parameter_is_null, null_callback, label, id);
    zon_private_set_delete_cb(id, cb);
    return zon_error_none;
}

zon_error_t zon_client_unregister_delete_cb(zon_client_id_e id) {
    const zon_error_t error = check_id(id, id_too_large, "zon_client_unregister_delete_cb, id:");
    return error != zon_error_none ? error : unregister_callback(&client_entry::fo_del_cb, id);
}

zon_error_t zon_client_register_pre_flow_create_cb(zon_client_id_e id,
                                                   zon_client_pre_flow_create_cb_t cb) {
    static constexpr const char* label = "zon_client_register_pre_flow_create_cb, id:";
    if (const zon_error_t error = check_id(id, id_too_large, label); error != zon_error_none)
        return error;
    if (cb == nullptr)
        return refuse(zon_error_parameter_is_null, null_callback, label, id);
    return register_callback(&client_entry::pre_create_cb, id, cb);
}

zon_error_t zon_client_unregister_pre_flow_create_cb(zon_client_id_e id) {
    const zon_error_t error =
        check_id(id, id_too_large, "zon_client_unregister_pre_flow_create_cb, id:");
    return error != zon_error_none ? error : unregister_callback(&client_entry::pre_create_cb, id);
}

zon_error_t zon_client_register_bypass_cb(zon_client_id_e id, zon_client_bypass_cb_t cb) {
    if (const zon_error_t error =
            check_id(id, "Bad client ID", "zon_client_register_bypass_cb, id:");
        error != zon_error_none)
        return error;
    // Logs under the name of the pre-flow registration, on purpose: log readers of hosts match this
    // line.
    if (cb == nullptr)
        return refuse(zon_error_parameter_is_null, null_callback,
                      "zon_client_register_pre_flow_create_cb, id:", id);
    return register_callback(&client_entry::bypass_cb, id, cb);
}

zon_error_t zon_client_unregister_bypass_cb(zon_client_id_e id) {
    const zon_error_t error = check_id(id, "Only client id that ZON can support is ORMA2",
                                       "zon_client_unregister_bypass_cb, id:");
    return error != zon_error_none ? error : unregister_callback(&client_entry::bypass_cb, id);
}

// Creates the client when its id was never handed out, on purpose: hosts with fixed ids register
// nothing else.
void zon_private_set_delete_cb(zon_client_id_e id, zon_client_fo_delete_cb_t cb) {
    if (g_zon == nullptr)
        return;
    const std::lock_guard hold(clients_mutex);
    if (client_entry* client = find_client(g_zon, id); client != nullptr) {
        set_callback(client->fo_del_cb, cb);
        return;
    }
    client_entry* client = new_client(id);
    if (client == nullptr)
        return;
    client->fo_del_cb = cb;
    link_at_head(g_zon->clients, client);
}

zon_client_fo_delete_cb_t zon_private_get_delete_cb(zon_client_id_e id) {
    const client_entry* client = g_zon == nullptr ? nullptr : find_client(g_zon, id);
    return client == nullptr ? nullptr : __atomic_load_n(&client->fo_del_cb, __ATOMIC_ACQUIRE);
}

// ---- capabilities ----

// Bit i of a set of capabilities is counted by row i.
static constexpr uint32_t zon_capability_counter_t::*capability_counters[] = {
    &zon_capability_counter_t::zon_engine_flow_tcp,
    &zon_capability_counter_t::zon_engine_flow_udp,
    &zon_capability_counter_t::zon_engine_flow_icmp,
    &zon_capability_counter_t::zon_engine_tcp_state_checks,
    &zon_capability_counter_t::zon_engine_tunnel_ipv6inip,
    &zon_capability_counter_t::zon_engine_tunnel_teredo,
    &zon_capability_counter_t::zon_engine_client_bypass,
};
static_assert((1U << std::size(capability_counters)) - 1 == ZON_CAPABILITY_ENABLE_ALL);

template <class action>
static void for_each_counter(zon_capability_e bits, action change) {
    if (g_zon == nullptr)
        return;
    for (size_t bit = 0; bit < std::size(capability_counters); ++bit)
        if ((static_cast<uint32_t>(bits) >> bit & 1) != 0)
            change(g_zon->params.capability_counter.*capability_counters[bit]);
}

void zon_engine_flow_type_register(zon_capability_e bits) {
    for_each_counter(bits, [](uint32_t& counter) { relaxed_add(counter, 1); });
}

void zon_engine_flow_type_unregister(zon_capability_e bits) {
    for_each_counter(bits, [](uint32_t& counter) {
        uint32_t clients = relaxed_load(counter);
        while (clients != 0 && !__atomic_compare_exchange_n(&counter, &clients, clients - 1, true,
                                                            __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
        }
    });
}

static zon_error_t check_capability_range(zon_client_id_e id, uint32_t bits, const char* id_label,
                                          const char* capability_label) {
    if (id > zon_last_client_id)
        return refuse(zon_error_client_id_invalid, id_too_large, id_label, id);
    if (bits > ZON_CAPABILITY_ENABLE_ALL)
        return refuse(zon_error_engine_capability_invalid, "Engine capability not supported",
                      capability_label, bits);
    return g_zon == nullptr ? zon_error_engine_not_init : zon_error_none;
}

// The parameters repeat each client's set, so that a restart's owner can see who had enabled what.
static void set_enabled(client_entry& client, uint32_t bits) {
    client.enabled_capability = static_cast<zon_capability_e>(bits);
    relaxed_store(g_zon->params.client_enabled_capability[client.id], client.enabled_capability);
}

zon_error_t zon_client_enable_engine_capability(zon_client_id_e id, zon_capability_e capability) {
    const auto wanted = static_cast<uint32_t>(capability);
    if (const zon_error_t error =
            check_capability_range(id, wanted, "zon_client_enable_engine_capability, id:",
                                   "zon_client_enable_engine_capability, capability:");
        error != zon_error_none)
        return error;
    const std::lock_guard hold(clients_mutex);
    client_entry* client = find_client(g_zon, id);
    if (client == nullptr)
        return zon_error_client_id_invalid;
    const auto enabled = static_cast<uint32_t>(client->enabled_capability);
    if ((enabled & wanted) != 0)
        return refuse(
            zon_error_engine_capability_invalid, "Cannot enable the same engine capability twice",
            "zon_client_enable_engine_capability, already_enabled_capability:", enabled & wanted);
    zon_engine_flow_type_register(capability);
    set_enabled(*client, enabled | wanted);
    return zon_error_none;
}

zon_error_t zon_client_disable_engine_capability(zon_client_id_e id, zon_capability_e capability) {
    auto unwanted = static_cast<uint32_t>(capability);
    if (const zon_error_t error =
            check_capability_range(id, unwanted, "zon_client_disable_engine_capability, id:",
                                   "zon_client_disable_engine_capability, capability:");
        error != zon_error_none)
        return error;
    const std::lock_guard hold(clients_mutex);
    client_entry* client = find_client(g_zon, id);
    if (client == nullptr)
        return zon_error_client_id_invalid;
    const auto enabled = static_cast<uint32_t>(client->enabled_capability);
    if (unwanted == ZON_CAPABILITY_ENABLE_ALL)
        unwanted = enabled;
    if ((unwanted & ~enabled) != 0)
        return refuse(
            zon_error_engine_capability_invalid, "Cannot disable the particular engine capability",
            "zon_client_disable_engine_capability, invalid capability:", unwanted & ~enabled);
    zon_engine_flow_type_unregister(static_cast<zon_capability_e>(unwanted));
    set_enabled(*client, enabled & ~unwanted);
    return zon_error_none;
}

zon_error_t zon_engine_get_capability(zon_capability_e cap, bool* value) {
    const auto bits = static_cast<uint32_t>(cap);
    if (value == nullptr)
        return refuse(zon_error_parameter_is_null, "Engine capability value is NULL",
                      "zon_get_capability_value, capability:", bits);
    if (bits >= ZON_CAPABILITY_ENABLE_ALL)
        return refuse(zon_error_engine_capability_invalid, "Engine capability value not supported",
                      "zon_get_capability_flag, capability:", bits);
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    for (size_t bit = 0; (1U << bit) < ZON_CAPABILITY_ENABLE_CLIENT_BYPASS; ++bit)
        if (bits == 1U << bit) {
            *value = relaxed_load(g_zon->params.capability_counter.*capability_counters[bit]) != 0;
            return zon_error_none;
        }
    return zon_error_engine_capability_invalid;
}

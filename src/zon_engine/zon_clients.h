// zon_clients.h - the registered clients, as the packet path and deletion walk them.
//
// Threads    the packet path and deletion walk the list without a lock while a client may register
//            or unregister: links and callbacks are read once, atomically, and an entry that leaves
//            the list keeps its link and its memory until zon_destroy.

#pragma once

#include "zon_client.h"
#include "zon_engine_defs.h"

struct zon_client_info_list_entry_ {
    zon_client_id_e id;
    zon_client_fo_delete_cb_t fo_del_cb;
    zon_client_pre_flow_create_cb_t pre_create_cb;
    zon_client_bypass_cb_t bypass_cb;
    zon_capability_e enabled_capability;
    struct {
        zon_client_info_list_entry_* next;
        zon_client_info_list_entry_** prev;
    } entries;
};

struct zon_client_id_list_entry_ {
    zon_client_id_e id;
    struct {
        zon_client_id_list_entry_* next;
        zon_client_id_list_entry_** prev;
    } entries;
};

static_assert(sizeof(zon_client_info_list_entry_) == 56 && sizeof(zon_client_id_list_entry_) == 24);

inline constexpr zon_client_id_e zon_last_client_id = 31;

// The newest client, and the one registered before a given one. Acquire loads: an entry is complete
// when it is seen.
inline zon_client_info_list_entry_* zon_first_client(const zon_t* engine) {
    return __atomic_load_n(&engine->clients, __ATOMIC_ACQUIRE);
}
inline zon_client_info_list_entry_* zon_next_client(const zon_client_info_list_entry_* client) {
    return __atomic_load_n(&client->entries.next, __ATOMIC_ACQUIRE);
}

// A callback of a client: what its registrar prepared before is seen along with it.
template <class function>
inline function zon_callback_of(const function& slot) {
    return __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
}

// Builds the list of free client ids of a new engine, so that 31 is handed out first.
void zon_build_free_client_ids(zon_t* engine);
// Frees every client and free id, parked entries included.
void zon_free_clients(zon_t* engine);

void zon_private_set_delete_cb(zon_client_id_e id, zon_client_fo_delete_cb_t cb);
zon_client_fo_delete_cb_t zon_private_get_delete_cb(zon_client_id_e id);

void zon_engine_flow_type_register(zon_capability_e bits);
void zon_engine_flow_type_unregister(zon_capability_e bits);

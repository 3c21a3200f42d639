// zon_engine_inline.h - what the units of the engine share: half flows, flows by key and by
// identifier, deletion.

#pragma once

#include "osal/zon_lock.h"
#include "osal/zon_mem.h"
#include "zon_engine_defs.h"
#include "zon_fid_table_inline.h"
#include "zon_flow_defs.h"
#include "zon_flow_table_inline.h"
#include "zon_layout_check.h"

// A buffer of the type's family with an empty feature-object list and nothing else set; null
// without memory, counted in error_stats. The usage counter counts the attempt, on purpose.
zon_half_flow_t* zon_allocate_half_flow(uint8_t half_flow_key_type);
void zon_deallocate_half_flow(zon_half_flow_t* half_flow);
// The same for both halves of a flow. On false the flow has the initiator's half or none.
bool zon_allocate_half_flows(uint8_t half_flow_key_type, zon_flow_t* flow);
void zon_deallocate_half_flows(zon_half_flow_t* one, zon_half_flow_t* other);

// Look up a key; a complete key that finds nothing is tried once more as an announced one. The flow
// comes back locked.
zon_half_flow_t* zon_private_flow_lookup_ipv4(const zon_ipv4_key_t* key);
zon_half_flow_t* zon_private_flow_lookup_ipv6(const zon_ipv6_key_t* key);

// The flow of an identifier, locked, or null.
zon_flow_t* zon_get_flow(zon_fid_t fid);

bool zon_private_add_half_flow(zon_half_flow_t* half_flow);
// The caller holds the flow's lock.
bool zon_private_remove_half_flow(zon_half_flow_t* half_flow);
void zon_private_link_flow(zon_flow_t* flow);
void zon_private_deallocate_flow(zon_flow_t* flow);
// A flow marked so can no longer be deleted; internal.
void zon_inst_mark_flow_for_delete(zon_flow_t* flow);
void zon_private_stop_timer(zon_flow_t* flow);

// Comes into force with the next engine (zon_config_set_hash_seed).
extern uint32_t zon_hash_seed_of_next_engine;
// The same of zon_config_set_half_open_share, in percent.
extern uint32_t zon_half_open_share_of_next_engine;
extern bool zon_huge_pages_for_next_engine;

// ---- deletion (zon_api) ----

// Consumes the flow lock. Always true: the deletion is done, or this thread is in the middle of it.
bool zon_private_delete_locked_flow(zon_flow_t* flow,
                                    const zon_flow_deletion_reason_e flow_deletion_reason);
bool zon_private_delete_flow(zon_fid_t fid, zon_flow_deletion_reason_e flow_deletion_reason);
// The caller holds the flow's lock.
void zon_private_delete_half_flows(zon_flow_t* flow);
void zon_private_free_all_fos(zon_flow_t* flow);
void zon_private_debug_delete_flow(zon_flow_t* flow);

zon_flow_fo_t* zon_flow_fo_list_find(zon_flow_fo_t* fo_list, zon_client_id_e cid);
// Unlinks and returns the client's record; it is not freed.
zon_flow_fo_t* zon_flow_fo_list_find_and_remove(zon_flow_fo_t** fo_list, zon_client_id_e cid);
// Unlinks a record by its address, wherever in the list it stands.
void zon_flow_fo_list_unlink(zon_flow_fo_t** fo_list, const zon_flow_fo_t* record);

// ---- marks in the private bytes of a flow ----

// Set under the flow lock, which the deletion keeps to its end, before the half flows leave the
// table: from then on no lookup finds the flow. Also read without the lock.
inline bool zon_flow_is_dying(const zon_flow_t* flow) {
    return __atomic_load_n(&flow->private_dying, __ATOMIC_ACQUIRE) != 0;
}
// The caller holds the flow's lock.
inline bool zon_flow_has_half(const zon_flow_t* flow, const zon_half_flow_t* half) {
    return flow->initiator_flow == half || flow->responder_flow == half;
}
inline void zon_flow_set_dying(zon_flow_t* flow, bool dying) {
    __atomic_store_n(&flow->private_dying, static_cast<uint8_t>(dying), __ATOMIC_RELEASE);
}

// ---- bundles (zon_api/zon_bundle.cpp); one private lock guards the three links of all flows ----

// Puts a promoted flow at the head of its parent's children, if it has a parent.
void zon_private_link_to_parent(zon_flow_t* flow);
// Undoes the links of a flow in deletion.
void zon_private_unbind(zon_flow_t* flow);
// Sets the parent of an announced flow, unless the slot of parent_fid no longer holds that record.
void zon_private_set_parent(zon_flow_t* flow, zon_flow_t* parent, zon_fid_t parent_fid);
// The parent's identifier, or 0.
zon_fid_t zon_private_parent_fid(const zon_flow_t* flow);

// Key types in the order in which a packet is tried against announced flows: the most specific
// wins.
inline constexpr uint32_t zon_incomplete_keys_ipv4[] = {
    ZON_IPV4_KEY_PRE_FLOW_COMPLETE, ZON_IPV4_KEY_VRF_STAR, ZON_IPV4_KEY_DST_IP_PORT_ONLY,
    ZON_IPV4_KEY_SRC_IP_PORT_ONLY};
inline constexpr uint32_t zon_incomplete_keys_ipv6[] = {
    ZON_IPV6_KEY_PRE_FLOW_COMPLETE, ZON_IPV6_KEY_VRF_STAR, ZON_IPV6_KEY_DST_IP_PORT_ONLY,
    ZON_IPV6_KEY_SRC_IP_PORT_ONLY};

// zon_api_internal.h - what the operations on flows share: tuples to keys, the side of a flow,
// trace texts.

#pragma once

#include "osal/zon_debug.h"
#include "zon_engine_inline.h"
#include "zon_flow.h"

// ---- tuples (zon_tuple_lookup.cpp) ----

// The key type of a tuple. For another family than the two: 1, and *key_type stays as it is.
zon_error_t zon_get_key_type(zon_ip_addr_e addr_type, zon_flow_tuple_type_t tuple_type,
                             zon_key_type_t* key_type);
constexpr bool zon_tuple_type_is_valid(zon_flow_tuple_type_t tuple_type) {
    return tuple_type >= ZON_FLOW_TUPLE_TYPE_COMPLETE &&
           tuple_type <= ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN;
}

// Storage for a key of either family behind its common head.
union zon_any_key_t {
    zon_key_t head;
    zon_ipv4_key_t ipv4;
    zon_ipv6_key_t ipv6;
};

// Builds the key of a tuple, every field of it whatever the type. False for another family than the
// two.
bool zon_build_key(zon_any_key_t* key, zon_key_type_t key_type, const zon_flow_tuple_t* flow_tuple);

// The half flow of a key or of a tuple, its flow locked, or null.
zon_half_flow_t* zon_find_half_flow(const zon_any_key_t* key);
zon_half_flow_t* zon_find_half_flow_using_tuple(zon_key_type_t key_type,
                                                const zon_flow_tuple_t* flow_tuple);

// Tells the caller a flow's identifier and leaves the flow locked when there is a place for its
// lock.
inline void zon_hand_over_found_flow(locked_flow flow, zon_fid_t* fid, zon_lock_t* flow_lock) {
    *fid = flow->fid;
    if (flow_lock != nullptr)
        *flow_lock = std::move(flow).hand_over()->flow_lock;
}

// ---- pre-flows (zon_engine/zon_preflow_insert.cpp) ----

// Makes the announced flow of a key, whose type must not be a complete one; with flow_lock it comes
// back locked. When a flow of the key has appeared meanwhile, that one is returned.
zon_error_t zon_private_insert_incomplete_tuple(const zon_key_t* key, zon_fid_t parent_fid,
                                                zon_fid_t* pre_flow_fid, zon_lock_t* flow_lock);

// ---- the sides of a flow ----

// Bits of private_given_back: a refused re-keying has given the half flow of that side back.
// The flow still names it and its key can be read; its buffer is kept for the flow, though no
// longer counted, until the flow goes or the side is made anew. To feature objects, re-keying and
// deletion the side is absent.
inline constexpr uint8_t zon_given_back_initiator = 1;
inline constexpr uint8_t zon_given_back_responder = 2;

constexpr uint8_t zon_given_back_mark(zon_flow_direction_e dir) {
    return dir == ZON_DIR_INITIATOR ? zon_given_back_initiator : zon_given_back_responder;
}
inline bool zon_side_is_given_back(const zon_flow_t* flow, zon_flow_direction_e dir) {
    return (flow->private_given_back & zon_given_back_mark(dir)) != 0;
}

// The half flow that a flow names for a side, given back or not.
inline zon_half_flow_t* zon_named_half_flow(const zon_flow_t* flow, zon_flow_direction_e dir) {
    return dir == ZON_DIR_INITIATOR ? flow->initiator_flow : flow->responder_flow;
}
// The half flow of a side, or null when the side is absent.
inline zon_half_flow_t* zon_half_flow_of(const zon_flow_t* flow, zon_flow_direction_e dir) {
    return zon_side_is_given_back(flow, dir) ? nullptr : zon_named_half_flow(flow, dir);
}

// Takes a half flow, present or given back, out of the count of announced ones, if it is one
// (zon_delete.cpp).
void zon_uncount_announced(const zon_half_flow_t* half);
// Releases the buffer that is kept for a side that was given back, if it was (zon_delete.cpp).
void zon_free_given_back(zon_flow_t* flow, zon_flow_direction_e dir);
// Takes the sides that were given back into use again, outside the flow table, before a promotion
// links them anew (zon_rekey.cpp).
void zon_private_reclaim_sides(zon_flow_t* flow);

// ---- feature objects (zon_feature_objects.cpp) ----

// Takes a record off all three lists of its flow: the lists of the directions may end in that of
// the whole flow.
void zon_flow_fo_unlink_everywhere(zon_flow_t* flow, const zon_flow_fo_t* record);
zon_flow_fo_t* zon_flow_fo_allocate(zon_client_id_e cid);
void zon_flow_fo_release(zon_flow_fo_t* record);
// Gives back a direction's own records; those of the whole flow that its list ends in stay on that
// list.
void zon_flow_fo_release_side(const zon_flow_t* flow, zon_half_flow_t* half);

// ---- bundles (zon_bundle.cpp) ----

// Copies the links of a flow to its siblings and parent into a snapshot.
void zon_private_copy_links(const zon_flow_t* flow, zon_flow_t* snapshot);

// ---- trace texts ----

// Printed as they stand, with nothing after them: hosts match these lines, the blank at the end
// included.
inline constexpr char zon_client_api_text[] = "\nZON Engine: ZON_ERRMSG_CLIENT_API, ";
inline constexpr char zon_client_api_short_text[] = "\nZON Engine: ZON_ERRMSG_CLIENT_API,";
inline constexpr char zon_no_memory_text[] = "\nZON Engine: ZON_ERRMSG_NO_MEMORY, ";
inline constexpr char zon_creation_prevented_text[] =
    "\nZON Engine: ZON_ERRMSG_FLOW_CREATION_PREVENTED, ";

inline void zon_trace_engine_text(const char* text) {
    if (zon_tracing_engine())
        zon_buginf("%s", text);
}

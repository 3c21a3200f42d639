/* zon_flow.h - finds flows and hands them to clients: lookup, feature objects, pre-flows, queries,
 * bundles, deletion.
 *
 * Threads    any thread, unless a function says otherwise.
 * Locks      flow locks are recursive and shared by several flows. Operations take and release
 *            them inside, except those that say that they return with the flow locked. Every
 *            operation on a flow waits for its lock, a lookup included: with one flow locked, wait
 *            for another only where no other thread does so too; two that each hold a flow and wait
 *            for the other's stand still for ever.
 * Ownership  the engine owns every flow; feature objects stay their client's.
 * Units      seconds (_sec), bytes; byte order of tuples: zon_flow_tuple.h.
 * Errors     checks run in the order listed; the first failure is returned. An identifier above the
 *            engine's capacity is a programming error and aborts.
 */
#ifndef ZON_FLOW_H
#define ZON_FLOW_H

#include "zon_api_enum.h"
#include "zon_error.h"
#include "zon_flow_tuple.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Called for each child of a flow; the result is ignored. */
typedef bool (*child_flow_traverser_t)(const zon_flow_ptr_t child);

/* ---- lookup ---- */

/* Finds the flow of a tuple, as seen from its source, and locks it.
 *   0   *fid and *flow_lock are set; release with zon_flow_unlock, once. A caller that passes a
 *       null flow_lock gets the flow locked without the means to release it.
 *   15 no engine, 3 tuple type, 10 null tuple, 9 null fid
 *   1   no such flow, or another address family: *fid is 0, *flow_lock is NULL */
ZON_API zon_error_t zon_flow_find_and_lock(zon_flow_tuple_type_t tuple_type,
                                           const zon_flow_tuple_t* flow_tuple, zon_fid_t* fid,
                                           zon_lock_t* flow_lock);
/* Releases one level of a flow's lock, on the thread that took it; on another thread it does
 * nothing and still returns 0. Each level is released once: a flow that its holder deletes still
 * has its lock released, and a second release could let go of a lock that guards other flows by
 * then.
 *   9 null lock */
ZON_API zon_error_t zon_flow_unlock(zon_lock_t flow_lock);
/* 1 when a complete IPv4 flow of VRF 0 exists, else 0; announced flows are not seen. With an engine
 * the bucket is stored either way; hash_bucket may be NULL, flow_tuple may not. The tuple's VRF and
 * address family are not read. */
ZON_API int zon_flow_lookup_tamonet(zon_flow_tuple_t* flow_tuple, int* hash_bucket);
/* Releases the lock of a flow record, or of a snapshot of one; not NULL. */
ZON_API void zon_unlock_flow_tamonet(void* flow);

/* ---- feature objects ---- */

/* Hangs a client's object on a flow or a direction, over any earlier one of the same client. A
 * direction keeps one client's object: kept on purpose, when another client attaches there the
 * first one's is dropped untold. Where several clients meet, ZON_DIR_BI and zon_uni_flow_attach_fo
 * keep the objects of all.
 *   15 no engine, 8 cid outside 1 to 31, 17 direction, 9 null fo, 1 no such flow, 7 a refused
 *     re-keying took that direction away, 2 no memory */
ZON_API zon_error_t zon_flow_attach_fo(zon_fid_t fid, zon_fo_id_t cid, zon_flow_direction_e dir,
                                       void* fo);
/* Reads it. A direction's list ends in the list of the whole flow, so a client that has no object
 * for the direction may be given its object for the whole flow.
 *   15, 8, 17, 9 as above, 1 no such flow, 7 not attached */
ZON_API zon_error_t zon_flow_get_fo(const zon_fid_t fid, zon_client_id_e cid,
                                    zon_flow_direction_e dir, void** fo);
/* The same with a copy of the whole flow record in flow_wn, a buffer of sizeof(zon_flow_t), not
 * NULL. It is taken before the search, so it is there with 7, too. On success the flow stays locked
 * until zon_unlock_flow_tamonet(flow_wn). The timer in the copy is a picture: it is never started
 * or stopped. */
ZON_API zon_error_t zon_flow_get_fo_by_fid(const zon_flow_ptr_t fid, zon_client_id_e cid,
                                           zon_flow_direction_e dir, void** fo, void* flow_wn);
/* The same by a full key of a live flow (zon_ipv4_key_t or zon_ipv6_key_t), which is looked for
 * under its own type only. */
ZON_API zon_error_t zon_flow_get_fo_by_flow_key(void* key, zon_client_id_e cid,
                                                zon_flow_direction_e dir, void** fo, void* flow_wn);
/* Takes the object off and gives it back in *fo. Errors as zon_flow_get_fo. */
ZON_API zon_error_t zon_flow_detach_fo(zon_fid_t fid, zon_client_id_e cid, zon_flow_direction_e dir,
                                       void** fo);

/* ---- pre-flows ---- */

/* Announces a connection of which part may be unknown; a matching packet turns it into a flow, a
 * child of the parent. It is awaited for the pre_flow_timer of zon_init, with 0 for about a second.
 * When a flow or pre-flow of the tuple exists, that one is returned, with the parent that it has,
 * and nothing is made. Neither a
 * parent that does not exist is an error (the flow has none then, as with 0) nor an address family
 * other than the two (*pre_flow_fid stays 0). With flow_lock given the flow is returned locked, for
 * zon_flow_unlock.
 *   15 no engine, 3 tuple type, 10 null tuple, 9 null pre_flow_fid, 2 no memory, 13 the bucket is
 *      full */
ZON_API zon_error_t zon_pre_flow_add(zon_flow_tuple_type_t tuple_type,
                                     const zon_flow_tuple_t* flow_tuple, zon_fid_t parent_fid,
                                     zon_fid_t* pre_flow_fid, zon_lock_t* flow_lock);
/* Deletes a pre-flow. For an ordinary flow of the tuple it returns 1 and, kept on purpose, leaves
 * that flow locked.
 *   15 no engine, 3 tuple type, 10 null tuple, 1 no such pre-flow */
ZON_API zon_error_t zon_pre_flow_delete_using_flow_tuple(zon_flow_tuple_type_t tuple_type,
                                                         const zon_flow_tuple_t* flow_tuple);
/* Feature objects of the one direction that the tuple names, on flows and pre-flows alike.
 *   15 no engine, 8 cid outside 1 to 31, 3 tuple type, 10 null tuple, 9 null fo,
 *   5 the client has no delete callback (attach only), 1 no such flow, 7 not attached, 2 no
 *     memory */
ZON_API zon_error_t zon_uni_flow_attach_fo(zon_client_id_e cid, zon_flow_tuple_type_t tuple_type,
                                           const zon_flow_tuple_t* flow_tuple, void* fo);
ZON_API zon_error_t zon_uni_flow_get_fo(zon_client_id_e cid, zon_flow_tuple_type_t tuple_type,
                                        zon_flow_tuple_t* flow_tuple, void** fo);
ZON_API zon_error_t zon_uni_flow_detach_fo(zon_client_id_e cid, zon_flow_tuple_type_t tuple_type,
                                           const zon_flow_tuple_t* flow_tuple, void** fo);

/* ---- queries and setters ---- */

/*   15 no engine, 9 null state, 1 no such flow: *state is 0 */
ZON_API zon_error_t zon_flow_get_l4_state(const zon_fid_t fid, zon_l4_flow_state_e* state);
/* From ZON_L4_BI_ESTABLISHED on the flow no longer counts as half-open (zon_engine_defs.h).
 *   15 no engine, 33 state outside 0 to 6, 1 no such flow */
ZON_API zon_error_t zon_flow_set_l4_state(const zon_fid_t fid, zon_l4_flow_state_e state);
/*   15 no engine, 9 null pointer, 1 no such flow */
ZON_API zon_error_t zon_flow_get_packet_count(zon_flow_ptr_t fid, uint32_t* pkt_count);
ZON_API zon_error_t zon_flow_get_application_id(const zon_fid_t fid, uint32_t* app_id);
/*   15 no engine, 1 no such flow */
ZON_API zon_error_t zon_flow_set_application_id(const zon_fid_t fid, uint32_t appid);
ZON_API zon_error_t zon_flow_set_dpi_bypass_id(const zon_fid_t fid, uint32_t appid);
/* The key of one direction as a tuple.
 *   15 no engine, 10 null tuple, 1 no such flow, 17 not the initiator or the responder */
ZON_API zon_error_t zon_flow_get_tuple(zon_fid_t fid, zon_flow_direction_e dir,
                                       zon_flow_tuple_t* flow_tuple);
/* What one side will send next and the window that it advertised last; window may be NULL. Any
 * direction other than the initiator's reads the responder's side.
 *   15 no engine, 9 null pointer, 17 ZON_DIR_BI, 1 no such flow, 34 not known */
ZON_API zon_error_t zon_flow_get_next_tcp_seq_nbr(zon_flow_ptr_t fid, zon_flow_direction_e dir,
                                                  uint32_t* nxt_seq_nbr, uint16_t* window);

/* Idle time of one flow, in seconds; the timer starts anew. Packets do not touch the timer: one
 * that fires after a packet came starts anew. So a flow ends at least time_sec and at most twice
 * that after its last packet or this call, whichever is later. A packet of a closed session renews
 * nothing and takes an earlier renewal back: the flow ends when its timer next fires. 0 stands for
 * about a second; the milliseconds are taken modulo 2^32, so that 4294967 is the longest time.
 *   15 no engine, 1 no such flow */
ZON_API zon_error_t zon_flow_set_aging(zon_fid_t fid, uint32_t time_sec);
/* Whole seconds; 0 for an announced flow, whose time has not been chosen yet.
 *   15 no engine, 9 null pointer, 1 no such flow: *aging_sec is 0 */
ZON_API zon_error_t zon_flow_get_aging(const zon_fid_t fid, uint32_t* aging_sec);

/* ---- re-keying ---- */

/* Gives one side of a flow a new key; the responder's tuple is written from the responder's point
 * of view. An announced side stays announced. A tuple of neither family changes nothing and returns
 * 0; one of the family that the flow does not have is a programming error and aborts.
 *   15 no engine, 10 null tuple, 1 no such flow, 2 no memory, 13 the bucket is full: no packet
 *   finds
 *      that side any more, and its feature objects are dropped untold */
ZON_API zon_error_t zon_flow_update_initiator(zon_fid_t fid, const zon_flow_tuple_t* flow_tuple);
ZON_API zon_error_t zon_flow_update_responder(zon_fid_t fid, const zon_flow_tuple_t* flow_tuple);
/* Moves a flow into another VRF. Always 0. Kept on purpose: where there is a flow, one level of its
 * lock stays with the caller. Find it with zon_flow_find_and_lock first and release twice. A side
 * that a refused re-keying took away keeps its VRF. */
ZON_API int zon_flow_update_vrf(zon_fid_t fid, uint32_t new_vrf_id);

/* ---- parents and children ---- */

/* Known from the announcement on, before the child's first packet.
 *   15 no engine, 9 null parent, 1 no such child, 4 it has no parent; with 1 and 4 *parent is 0 */
ZON_API zon_error_t zon_flow_get_parent(zon_fid_t child, zon_fid_t* parent);
/* Calls func for each listed child, newest first, with the parent and the child locked; func's
 * answer is not looked at. Call it with no flow lock of your own. While other threads change the
 * family, those that stay are visited and those that have gone are not; func itself ends the walk
 * when it deletes the child or the parent. Kept on purpose: with the newest child the older ones
 * leave the list, though zon_flow_get_parent still names their parent.
 *   15 no engine, 9 null func, 4 no such parent */
ZON_API zon_error_t zon_flow_traverse_child_flows(zon_fid_t parent, child_flow_traverser_t func);

/* ---- deletion ---- */

/* Deletes a flow: every client is told. True when this call deleted it, or comes from inside the
 * flow's own deletion. False for 0, for an identifier that names no flow, and for a flow that
 * another thread is deleting: the call waits while that thread tells the clients. A caller that
 * holds the flow's lock still releases it afterwards. */
ZON_API bool zon_delete_flow_tamonet(zon_fid_t fid,
                                     zon_flow_deletion_reason_e flow_deletion_reason);

#ifdef __cplusplus
}
#endif

#endif

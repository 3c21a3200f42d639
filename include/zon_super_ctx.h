/* zon_super_ctx.h - groups of flows that share a value which the client derives from their packets.
 *
 * A client registers, per type, a function that maps a packet's context to a 32-bit value. All
 * flows whose first packet gave the same value and type are members of one super context, which
 * lives as long as its members do.
 *
 * Threads    any, unless said otherwise.
 * Locks      the operations that take a flow lock it for the time of the call. Clients' functions
 *            run without any private lock of the engine.
 * Ownership  fo stays its client's. Without a delete callback it is dropped silently when the super
 *            context goes.
 * Errors     checks run in the order listed; the first failure is returned. Out-parameters are
 *            cleared once the arguments are found good. An identifier above the engine's capacity
 *            is a programming error and aborts.
 */
#ifndef ZON_SUPER_CTX_H
#define ZON_SUPER_CTX_H

#include "zon_api_enum.h"
#include "zon_error.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returns true and writes *context when the packet belongs to a super context of the type. Runs on
 * the packet thread, with the new flow locked: it must not wait for another flow's lock. The value
 * 0 groups flows like any other, but zon_super_context_traverse_flows refuses it: use others. */
typedef bool (*zon_super_context_lookup_callback)(void* pkt_ctx, uint32_t* context);
/* The super context lost its last flow; fo is the pointer that the client had stored. Runs while
 * that flow is deleted, with the flow locked. */
typedef void (*zon_super_context_fo_delete_cb_t)(uint32_t context, zon_super_context_types_e type,
                                                 void** fo);
/* Called for each member flow, with no lock held; the result is ignored. */
typedef bool (*super_context_flow_traverser_callback)(zon_flow_ptr_t flow);

/* Sets the lookup function of a type, over any earlier one.
 *   9 null function, 31 type outside 0 to 3, 30 no engine */
ZON_API zon_error_t zon_super_context_client_register(
    zon_super_context_types_e type, zon_super_context_lookup_callback lookup_func);
/* Members stay; new flows join no super context of the type.
 *   31 type outside 0 to 3, 30 no engine */
ZON_API zon_error_t zon_super_context_client_unregister(zon_super_context_types_e type);
/* Sets the client's delete callback, over any earlier one. Unlike elsewhere, client id 0 is allowed
 * in this header.
 *   9 null function, 8 cid above 31, 30 no engine */
ZON_API zon_error_t zon_super_context_register_delete_cb(
    zon_client_id_e cid, zon_super_context_fo_delete_cb_t delete_cb);
/*   8 cid above 31, 30 no engine */
ZON_API zon_error_t zon_super_context_unregister_delete_cb(zon_client_id_e cid);

/* Stores the client's pointer on the super context of a flow, over any earlier one.
 *   9 null fo or null flow, 31 type above 3, 8 cid above 31, 30 no engine, 1 no such flow, 7 no
 *     super context */
ZON_API zon_error_t zon_super_context_attach_fo(zon_flow_ptr_t flow, zon_super_context_types_e type,
                                                zon_client_id_e cid, void* fo);
/* Reads it back; *fo may come back NULL. Errors as above. */
ZON_API zon_error_t zon_super_context_get_fo(zon_flow_ptr_t flow, zon_super_context_types_e type,
                                             zon_client_id_e cid, void** fo);
/* The value that identifies the flow's super context.
 *   9 null pointer or null flow, 30 no engine, 31 type above 3, 1 no such flow, 32 no super
 *     context */
ZON_API zon_error_t zon_super_context_get_sctxt_handle(zon_flow_ptr_t flow,
                                                       zon_super_context_types_e type,
                                                       uint32_t* sctxt_id);
/* Calls func for each member, newest first, with no lock held.
 *   31 handle 0 or type outside 0 to 3, 30 no engine, 9 no such super context, 2 no memory for the
 *      copy of the members that is walked */
ZON_API zon_error_t zon_super_context_traverse_flows(zon_super_context_types_e type,
                                                     uint32_t sctxt_handle,
                                                     super_context_flow_traverser_callback func);

#ifdef __cplusplus
}
#endif

#endif

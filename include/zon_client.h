/* zon_client.h - registration of clients, their callbacks and the capabilities that they enable.
 *
 * A client is a feature of the host that keeps state per flow. It holds an id from 1 to 31, may
 * register three callbacks and enables what it needs of the engine.
 *
 * Threads    registration and capability changes are made while no packets flow.
 * Locks      no operation returns with a lock held; zon_unreg_client_fo locks each flow in turn.
 * Ownership  feature objects stay their client's; the engine owns the entries of the clients.
 * Errors     checks run in the order in which each function lists them; the first failure is
 *            returned.
 */
#ifndef ZON_CLIENT_H
#define ZON_CLIENT_H

#include "zon_api_enum.h"
#include "zon_error.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A flow is going away. Called for every client that registered one, with the feature objects that
 * the client had attached to the initiator's direction, the responder's direction and the flow as a
 * whole (each may be NULL). Runs with the flow locked; it may query that flow, but must neither
 * delete it nor wait for another flow's lock. Every operation on another flow waits for its lock, a
 * lookup included, and two threads that each hold a flow and wait for the other's stand still for
 * ever. */
typedef void (*zon_client_fo_delete_cb_t)(zon_flow_ptr_t flow, void* initiator_fo,
                                          void* responder_fo, void* flow_fo,
                                          zon_flow_deletion_reason_e reason, zon_client_id_e cid);

/* A packet is about to create a flow, or to turn an announced one into a flow; return false to
 * forbid it. Runs with no lock held. */
typedef bool (*zon_client_pre_flow_create_cb_t)(void* pkt_ctx, zon_client_id_e cid);

/* A TCP packet of a flow; may rewrite the flow's bypass id. Called only while
 * ZON_CAPABILITY_ENABLE_CLIENT_BYPASS is in force, with the flow locked: it must not wait for
 * another flow's lock either. */
typedef void (*zon_client_bypass_cb_t)(uint32_t l4_payload_size, bool fif, bool was_promoted,
                                       bool first_payload, uint32_t* bypass_id);

/* Takes the highest free id and writes it to *cid.
 *   15 no engine, 2 no free id, 9 null cid, 2 no memory */
ZON_API zon_error_t zon_client_feature_register(zon_client_id_e* cid);

/* Gives an id back. Feature objects, capabilities and super-context callbacks of the client stay:
 * remove them first. An id that was not registered is put on the free list all the same.
 *   15 no engine, 2 no memory */
ZON_API zon_error_t zon_client_feature_unregister(zon_client_id_e cid);

/* Takes the client's feature objects off every flow; the client's delete callback receives them
 * with the reason ZON_FLOW_CLOSE_REASON_CLIENT_UNREGISTERED.
 *   15 no engine, 8 cid above 31, 5 no delete callback */
ZON_API zon_error_t zon_unreg_client_fo(zon_client_id_e cid);

/* Registers the delete callback; creates the client's entry when the id was never handed out.
 * Unregistering it for an id that is no client's changes nothing and returns 0.
 *   15 no engine, 8 id outside 1 to 31, 9 null callback (register only) */
ZON_API zon_error_t zon_client_register_delete_cb(zon_client_id_e id, zon_client_fo_delete_cb_t cb);
ZON_API zon_error_t zon_client_unregister_delete_cb(zon_client_id_e id);

/* Set and clear the other two callbacks. Unregistering one for an id that is no client's changes
 * nothing and returns 0.
 *   15 no engine, 8 id outside 1 to 31, 9 null callback and 8 no such client (register only) */
ZON_API zon_error_t zon_client_register_pre_flow_create_cb(zon_client_id_e id,
                                                           zon_client_pre_flow_create_cb_t cb);
ZON_API zon_error_t zon_client_unregister_pre_flow_create_cb(zon_client_id_e id);
ZON_API zon_error_t zon_client_register_bypass_cb(zon_client_id_e id, zon_client_bypass_cb_t cb);
ZON_API zon_error_t zon_client_unregister_bypass_cb(zon_client_id_e id);

/* Enables capabilities (one or several bits) for a client; each is counted across clients.
 *   8 id above 31, 28 unknown capability, 15 no engine, 8 no such client, 28 one of them already
 *     enabled by it */
ZON_API zon_error_t zon_client_enable_engine_capability(zon_client_id_e id,
                                                        zon_capability_e capability);

/* Disables capabilities of a client; ZON_CAPABILITY_ENABLE_ALL stands for all that it has enabled.
 *   8 id above 31, 28 unknown capability, 15 no engine, 8 no such client, 28 one of them not
 *     enabled by it */
ZON_API zon_error_t zon_client_disable_engine_capability(zon_client_id_e id,
                                                         zon_capability_e capability);

/* Tells whether one capability is in force. The client-bypass capability cannot be asked for.
 *   9 null value, 28 cap of 127 or more, 15 no engine, 28 not exactly one of the first six bits */
ZON_API zon_error_t zon_engine_get_capability(zon_capability_e cap, bool* value);

#ifdef __cplusplus
}
#endif

#endif

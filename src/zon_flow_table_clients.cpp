// zon_flow_table_clients.cpp - takes what a client attached off every flow.
//
// Owns   nothing; the records go back to their chunk.
// Locks  one flow's at a time; the client's function is called under it.

#include "osal/zon_lock_order.h"
#include "osal/zon_mem.h"
#include "zon_engine/zon_clients.h"
#include "zon_engine_inline.h"
#include "zon_flow_table.h"

namespace {

struct removed_fos {
    zon_flow_fo_t* initiator = nullptr;
    zon_flow_fo_t* responder = nullptr;
    zon_flow_fo_t* flow = nullptr;
};

void* fo_of(const zon_flow_fo_t* record) {
    return record != nullptr ? record->fo : nullptr;
}

zon_flow_fo_t* remove_from_half(zon_half_flow_t* half_flow, zon_client_id_e cid) {
    return half_flow != nullptr ? zon_flow_fo_list_find_and_remove(&half_flow->fo_list, cid)
                                : nullptr;
}

// A record may hang in several lists, whose tails are shared: it leaves all of them before it is
// given back.
void release_record(zon_flow_t* flow, zon_flow_fo_t* record) {
    if (record == nullptr)
        return;
    zon_flow_fo_list_unlink(&flow->fo_list, record);
    for (zon_half_flow_t* half : {flow->initiator_flow, flow->responder_flow})
        if (half != nullptr)
            zon_flow_fo_list_unlink(&half->fo_list, record);
    zon_private_chunk_free_or_trace(ZON_FLOW_FO_MEM_TYPE, record, &g_zon->zon_chunk_ptr);
}

void remove_client_from_flow(zon_flow_t* flow, zon_client_id_e cid,
                             zon_client_fo_delete_cb_t tell) {
    removed_fos found;
    found.flow = zon_flow_fo_list_find_and_remove(&flow->fo_list, cid);
    found.initiator = remove_from_half(flow->initiator_flow, cid);
    found.responder = remove_from_half(flow->responder_flow, cid);
    if (fo_of(found.flow) != nullptr || fo_of(found.initiator) != nullptr ||
        fo_of(found.responder) != nullptr) {
        const client_function called;
        tell(flow->fid, fo_of(found.initiator), fo_of(found.responder), fo_of(found.flow),
             ZON_FLOW_CLOSE_REASON_CLIENT_UNREGISTERED, cid);
    }
    if (found.responder == found.flow || found.responder == found.initiator)
        found.responder = nullptr;
    if (found.initiator == found.flow)
        found.initiator = nullptr;
    release_record(flow, found.flow);
    release_record(flow, found.initiator);
    release_record(flow, found.responder);
}

}  // namespace

zon_error_t zon_flow_table_remove_client_fo(zon_flow_table_t*, zon_client_id_e cid) {
    const zon_client_fo_delete_cb_t tell = zon_private_get_delete_cb(cid);
    if (tell == nullptr)
        return zon_error_client_delete_cb_not_registered;
    // Records are numbered in the order of the list of all records, and each is taken under its own
    // lock: packets may attach and delete meanwhile.
    zon_fid_table_t* fid_table = g_zon->fid_table;
    // An engine that could not be built whole has no flows.
    const uint32_t made = fid_table != nullptr ? relaxed_load(fid_table->allocated) : 0;
    for (zon_fid_t fid = 1; fid <= made; ++fid) {
        locked_flow flow = zon_fid_table_lookup(fid_table, fid);
        if (flow && !flow->marked_for_delete)
            remove_client_from_flow(flow.get(), cid, tell);
    }
    return zon_error_none;
}

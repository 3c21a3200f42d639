// zon_super_ctx.cpp - flows join and leave super contexts; clients hang objects on them and walk
// their flows.
//
// Owns   the super contexts and their lists of member flows.
// Locks  one private lock around table, reference counts, member lists and feature-object slots,
//        taken after a flow's lock. Clients' functions are called before it is taken or after it is
//        released.
// Knows nothing of packets: what groups them is the clients' lookup functions.

#include "zon_super_ctx.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "osal/zon_lock_order.h"
#include "osal/zon_mem.h"
#include "zon_engine/zon_clients.h"
#include "zon_fid_table_inline.h"
#include "zon_relaxed.h"
#include "zon_super_ctx_table.h"

namespace {

ordered_mutex<lock_class::super_context> super_ctx_mutex;
// Counts up at every making of a super context and at every departure from one. The moments are
// unlike among all super contexts: while that of its own stands still, a walker's copy of a member
// list is up to date, and one made anew under the same value is told apart.
uint32_t last_change;

// Asks a client for the super context of a packet; false without one.
bool look_up(zon_super_context_lookup_callback lookup, void* pkt_ctx, uint32_t* context) {
    const client_function called;
    return lookup(pkt_ctx, context);
}

bool valid_type(zon_super_context_types_e type) {
    return static_cast<uint32_t>(type) < ZON_SUPER_CONTEXT_MAX;
}

zon_super_context_table_t* the_table() {
    return g_zon == nullptr ? nullptr : g_zon->super_ctx_table;
}

zon_super_context_types_e type_at(int type) {
    return static_cast<zon_super_context_types_e>(type);
}

// Client functions are exchanged while flows come and go.
template <class function>
function load_function(const function& slot) {
    return __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
}
template <class function>
void store_function(function& slot, function value) {
    __atomic_store_n(&slot, value, __ATOMIC_RELEASE);
}

zon_super_context_t* find(zon_super_context_table_t* table, uint32_t context,
                          zon_super_context_types_e type) {
    zon_super_context_t key{};
    key.context = context;
    key.type = type;
    return zon_super_context_table_lookup(table, &key);
}

bool nobody_looks_up(const zon_super_context_table_t* table) {
    return std::ranges::all_of(table->lookup_funcs,
                               [](const auto& lookup) { return load_function(lookup) == nullptr; });
}
bool is_in_none(const zon_flow_t* flow) {
    return std::ranges::all_of(flow->super_ctx,
                               [](const void* joined) { return joined == nullptr; });
}

// ---- joining ----

// Under the lock. A record from the chunk holds arbitrary content: the slots must not look
// attached.
zon_super_context_t* create(zon_super_context_table_t* table, uint32_t context,
                            zon_super_context_types_e type) {
    auto* made = static_cast<zon_super_context_t*>(
        zon_private_chunk_malloc(ZON_SUPER_CTX_MEM_TYPE, &g_zon->zon_chunk_ptr));
    if (made == nullptr)
        return nullptr;
    relaxed_add(g_zon->memory_usage_stats.super_context_alloc_count, 1);
    memset(made, 0, sizeof *made);
    made->context = context;
    made->type = type;
    made->changed_at = ++last_change;
    if (zon_super_context_table_insert(table, made))
        return made;
    zon_super_context_free(made);
    return nullptr;
}

// Under the lock. Without memory the flow is counted as a member, but not listed.
void list_member(zon_super_context_t* super_ctx, zon_fid_t fid) {
    auto* element = static_cast<zon_flow_list_t*>(
        zon_private_chunk_malloc(ZON_FLOW_LIST_ELEMENT_MEM_TYPE, &g_zon->zon_chunk_ptr));
    if (element == nullptr)
        return;
    *element = {fid, super_ctx->flow_list_head};
    super_ctx->flow_list_head = element;
    relaxed_add(g_zon->memory_usage_stats.list_element_alloc_count, 1);
}

// Null when a super context is missing and cannot be made.
zon_super_context_t* join(zon_super_context_table_t* table, uint32_t context,
                          zon_super_context_types_e type, zon_fid_t fid) {
    const std::lock_guard hold(super_ctx_mutex);
    zon_super_context_t* super_ctx = find(table, context, type);
    if (super_ctx == nullptr)
        super_ctx = create(table, context, type);
    if (super_ctx == nullptr)
        return nullptr;
    ++super_ctx->refcount;
    list_member(super_ctx, fid);
    return super_ctx;
}

// ---- leaving ----

void free_element(zon_flow_list_t* element) {
    zon_private_chunk_free_or_trace(ZON_FLOW_LIST_ELEMENT_MEM_TYPE, element,
                                    g_zon == nullptr ? nullptr : &g_zon->zon_chunk_ptr);
    if (g_zon != nullptr)
        relaxed_add(g_zon->memory_usage_stats.list_element_alloc_count, -1);
}

// The link that points at a member's element, or the null link at the end of the list.
zon_flow_list_t** find_member(zon_super_context_t* super_ctx, zon_fid_t fid) {
    zon_flow_list_t** link = &super_ctx->flow_list_head;
    while (*link != nullptr && (*link)->flow != fid)
        link = &(*link)->next;
    return link;
}

// True when that was the last member: the super context is out of the table then, and the caller's
// alone.
bool leave(zon_super_context_table_t* table, zon_super_context_t* super_ctx, zon_fid_t fid) {
    const std::lock_guard hold(super_ctx_mutex);
    super_ctx->changed_at = ++last_change;
    zon_flow_list_t** link = find_member(super_ctx, fid);
    if (zon_flow_list_t* element = *link; element != nullptr) {
        *link = element->next;
        free_element(element);
    }
    if (--super_ctx->refcount > 0)
        return false;
    zon_super_context_table_remove(table, super_ctx);
    return true;
}

void tell_clients(const zon_super_context_table_t* table, const zon_super_context_t* super_ctx) {
    const client_function called;
    for (zon_client_id_e cid = 0; cid <= zon_last_client_id; ++cid) {
        const auto deleted = load_function(table->delete_funcs[cid]);
        if (deleted != nullptr && super_ctx->fo[cid] != nullptr)
            deleted(super_ctx->context, super_ctx->type, static_cast<void**>(super_ctx->fo[cid]));
    }
}

// ---- walking ----

// The members of a super context at one moment, newest first.
class member_copy {
public:
    member_copy() = default;
    member_copy(const member_copy&) = delete;
    member_copy& operator=(const member_copy&) = delete;
    ~member_copy() { free(fids_); }

    //   9 no such super context, 2 no memory for the copy
    zon_error_t take(zon_super_context_table_t* table, uint32_t context,
                     zon_super_context_types_e type) {
        const std::lock_guard hold(super_ctx_mutex);
        zon_super_context_t* super_ctx = find(table, context, type);
        if (super_ctx == nullptr)
            return zon_error_parameter_is_null;
        fids_ = static_cast<zon_fid_t*>(
            zon_heap_zalloc(static_cast<size_t>(super_ctx->refcount), sizeof(zon_fid_t)));
        if (fids_ == nullptr)
            return zon_error_memory;
        for (const zon_flow_list_t* at = super_ctx->flow_list_head; at != nullptr; at = at->next)
            fids_[count_++] = at->flow;
        taken_at_ = super_ctx->changed_at;
        return zon_error_none;
    }

    const zon_fid_t* begin() const { return fids_; }
    const zon_fid_t* end() const { return fids_ + count_; }

    // Searches only when some member left since the copy. A walk whose function deletes the flow
    // that it is given finds the next one at the head of the list.
    bool still_member(zon_super_context_table_t* table, uint32_t context,
                      zon_super_context_types_e type, zon_fid_t fid) const {
        const std::lock_guard hold(super_ctx_mutex);
        zon_super_context_t* super_ctx = find(table, context, type);
        if (super_ctx == nullptr)
            return false;
        return super_ctx->changed_at == taken_at_ || *find_member(super_ctx, fid) != nullptr;
    }

private:
    zon_fid_t* fids_ = nullptr;
    size_t count_ = 0;
    uint32_t taken_at_ = 0;
};

// ---- the clients' functions and slots ----

zon_error_t set_lookup_function(zon_super_context_types_e type,
                                zon_super_context_lookup_callback lookup_func) {
    if (!valid_type(type))
        return zon_error_sctx_type_invalid;
    if (the_table() == nullptr)
        return zon_error_sctx_table_creation_failed;
    store_function(the_table()->lookup_funcs[type], lookup_func);
    return zon_error_none;
}

zon_error_t set_delete_function(zon_client_id_e cid, zon_super_context_fo_delete_cb_t delete_cb) {
    if (cid > zon_last_client_id)
        return zon_error_client_id_invalid;
    if (the_table() == nullptr)
        return zon_error_sctx_table_creation_failed;
    store_function(the_table()->delete_funcs[cid], delete_cb);
    return zon_error_none;
}

// The flow's super context of the type, or null. The flow is locked and stays a member meanwhile.
zon_super_context_t* super_ctx_of(const zon_flow_t& flow, zon_super_context_types_e type) {
    zon_super_context_t* super_ctx = flow.super_ctx[type];
    return super_ctx != nullptr && super_ctx->type == type ? super_ctx : nullptr;
}

zon_error_t check_slot(zon_flow_ptr_t flow, zon_super_context_types_e type, zon_client_id_e cid,
                       const void* fo) {
    if (fo == nullptr || flow == ZON_NULL_FID)
        return zon_error_parameter_is_null;
    if (!valid_type(type))
        return zon_error_sctx_type_invalid;
    if (cid > zon_last_client_id)
        return zon_error_client_id_invalid;
    return the_table() == nullptr ? zon_error_sctx_table_creation_failed : zon_error_none;
}

// Calls use(slot) under the lock, with the client's slot on the flow's super context.
template <class action>
zon_error_t with_slot(zon_flow_ptr_t flow, zon_super_context_types_e type, zon_client_id_e cid,
                      action use) {
    const locked_flow found = zon_fid_table_lookup(g_zon->fid_table, flow);
    if (!found)
        return zon_error_flow_not_found;
    zon_super_context_t* super_ctx = super_ctx_of(*found, type);
    if (super_ctx == nullptr)
        return zon_error_feature_object_not_attached;
    const std::lock_guard hold(super_ctx_mutex);
    use(super_ctx->fo[cid]);
    return zon_error_none;
}

}  // namespace

// ---- the engine's side ----

void zon_super_context_process_fif(zon_flow_t* flow, void* pkt_ctx) {
    zon_super_context_table_t* table = the_table();
    if (table == nullptr || flow == nullptr)
        return;
    if (nobody_looks_up(table) && is_in_none(flow)) [[likely]]
        return;
    for (int type = 0; type < ZON_SUPER_CONTEXT_MAX; ++type) {
        const auto lookup = load_function(table->lookup_funcs[type]);
        uint32_t context = 0;
        if (lookup == nullptr || !look_up(lookup, pkt_ctx, &context)) {
            flow->super_ctx[type] = nullptr;
            continue;
        }
        zon_super_context_t* joined = join(table, context, type_at(type), flow->fid);
        if (joined == nullptr)  // no memory: the other types are left out, too
            return;
        flow->super_ctx[type] = joined;
    }
}

void zon_super_context_process_lif(zon_flow_t* flow) {
    zon_super_context_table_t* table = the_table();
    if (table == nullptr || flow == nullptr)
        return;
    for (zon_super_context_t*& membership : flow->super_ctx) {
        zon_super_context_t* super_ctx = std::exchange(membership, nullptr);
        if (super_ctx == nullptr || !leave(table, super_ctx, flow->fid))
            continue;
        tell_clients(table, super_ctx);
        zon_super_context_free(super_ctx);
    }
}

void zon_super_context_free(zon_super_context_t* super_ctx) {
    if (super_ctx == nullptr)
        return;
    zon_flow_list_t* element = std::exchange(super_ctx->flow_list_head, nullptr);
    while (element != nullptr)
        free_element(std::exchange(element, element->next));
    zon_private_chunk_free_or_trace(ZON_SUPER_CTX_MEM_TYPE, super_ctx,
                                    g_zon == nullptr ? nullptr : &g_zon->zon_chunk_ptr);
    if (g_zon != nullptr)
        relaxed_add(g_zon->memory_usage_stats.super_context_alloc_count, -1);
}

// ---- the clients' side ----

zon_error_t zon_super_context_client_register(zon_super_context_types_e type,
                                              zon_super_context_lookup_callback lookup_func) {
    return lookup_func == nullptr ? zon_error_parameter_is_null
                                  : set_lookup_function(type, lookup_func);
}

zon_error_t zon_super_context_client_unregister(zon_super_context_types_e type) {
    return set_lookup_function(type, nullptr);
}

zon_error_t zon_super_context_register_delete_cb(zon_client_id_e cid,
                                                 zon_super_context_fo_delete_cb_t delete_cb) {
    return delete_cb == nullptr ? zon_error_parameter_is_null : set_delete_function(cid, delete_cb);
}

zon_error_t zon_super_context_unregister_delete_cb(zon_client_id_e cid) {
    return set_delete_function(cid, nullptr);
}

zon_error_t zon_super_context_attach_fo(zon_flow_ptr_t flow, zon_super_context_types_e type,
                                        zon_client_id_e cid, void* fo) {
    if (const zon_error_t error = check_slot(flow, type, cid, fo); error != zon_error_none)
        return error;
    return with_slot(flow, type, cid, [fo](void*& slot) { slot = fo; });
}

zon_error_t zon_super_context_get_fo(zon_flow_ptr_t flow, zon_super_context_types_e type,
                                     zon_client_id_e cid, void** fo) {
    if (const zon_error_t error = check_slot(flow, type, cid, fo); error != zon_error_none)
        return error;
    *fo = nullptr;
    return with_slot(flow, type, cid, [fo](void* slot) { *fo = slot; });
}

zon_error_t zon_super_context_get_sctxt_handle(zon_flow_ptr_t flow, zon_super_context_types_e type,
                                               uint32_t* sctxt_id) {
    if (sctxt_id == nullptr || flow == ZON_NULL_FID)
        return zon_error_parameter_is_null;
    if (the_table() == nullptr)
        return zon_error_sctx_table_creation_failed;
    if (!valid_type(type))
        return zon_error_sctx_type_invalid;
    *sctxt_id = 0;
    const locked_flow found = zon_fid_table_lookup(g_zon->fid_table, flow);
    if (!found)
        return zon_error_flow_not_found;
    const zon_super_context_t* super_ctx = super_ctx_of(*found, type);
    if (super_ctx == nullptr)
        return zon_error_sctx_unmapped;
    *sctxt_id = super_ctx->context;
    return zon_error_none;
}

zon_error_t zon_super_context_traverse_flows(zon_super_context_types_e type, uint32_t sctxt_handle,
                                             super_context_flow_traverser_callback func) {
    if (sctxt_handle == 0 || !valid_type(type))
        return zon_error_sctx_type_invalid;
    zon_super_context_table_t* table = the_table();
    if (table == nullptr)
        return zon_error_sctx_table_creation_failed;
    member_copy members;
    if (const zon_error_t error = members.take(table, sctxt_handle, type); error != zon_error_none)
        return error;
    for (const zon_fid_t fid : members)
        if (members.still_member(table, sctxt_handle, type, fid))
            func(fid);
    return zon_error_none;
}

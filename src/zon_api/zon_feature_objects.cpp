// zon_feature_objects.cpp - the objects that clients hang on flows and directions.
//
// Owns   the lists of records; never the objects themselves.
// Locks  a flow's lists are read and written under its lock.

#include <cstddef>
#include <cstring>

#include "osal/zon_debug.h"
#include "osal/zon_mem.h"
#include "osal/zon_timer.h"
#include "zon_api_internal.h"

namespace {

constexpr bool client_id_is_valid(zon_client_id_e cid) {
    return cid >= 1 && cid <= 31;
}
constexpr bool direction_is_valid(zon_flow_direction_e dir) {
    return dir >= ZON_DIR_BI && dir <= ZON_DIR_RESPONDER;
}

bool is_on_list(const zon_flow_fo_t* list, const zon_flow_fo_t* record) {
    while (list != nullptr && list != record)
        list = list->next;
    return list != nullptr;
}

zon_error_t check_arguments(zon_client_id_e cid, zon_flow_direction_e dir, const void* pointer) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (!client_id_is_valid(cid))
        return zon_error_client_id_invalid;
    if (!direction_is_valid(dir))
        return zon_error_direction_parameter_is_invalid;
    return pointer == nullptr ? zon_error_parameter_is_null : zon_error_none;
}

// The head of a direction's list, or null when the flow lacks that side.
zon_flow_fo_t** list_of(zon_flow_t* flow, zon_flow_direction_e dir) {
    if (dir == ZON_DIR_BI)
        return &flow->fo_list;
    zon_half_flow_t* half = zon_half_flow_of(flow, dir);
    return half != nullptr ? &half->fo_list : nullptr;
}

// What an operation answers when the side of a flow is absent: a refused re-keying took the side
// and its objects away, a deletion under way takes the whole flow.
zon_error_t absent_side(const zon_flow_t* flow, zon_flow_direction_e dir) {
    return zon_side_is_given_back(flow, dir) ? zon_error_feature_object_not_attached
                                             : zon_error_flow_not_found;
}

void trace_overwrite(zon_flow_direction_e dir) {
    constexpr const char* texts[] = {
        "\nZON Engine: Overwrote the already attached Bi-FO with a new FO",
        "\nZON Engine: Overwrote the already attached initiator FO with a new FO",
        "\nZON Engine: Overwrote the already attached responder FO with a new FO",
    };
    zon_trace_engine_text(texts[dir]);
}

// The backslash and the n are printed as two characters, on purpose: the lines of these messages
// are matched as they are.
constexpr const char bi_missing[] = "\nZON Engine: Bi-FO is not attached for the given flow \\n";
constexpr const char initiator_missing[] =
    "\nZON Engine: Initiator FO is not attached for the given flow \\n";
constexpr const char responder_missing[] =
    "\nZON Engine: Responder FO is not attached for the given flow \\n";

void trace_missing(const char* text, int blanks, const char* operation, zon_fid_t fid) {
    if (zon_tracing_engine())
        zon_buginf("%s%*s%s, fid=[%d]", text, blanks, "", operation, static_cast<int>(fid));
}

void trace_get_missing(zon_flow_direction_e dir, zon_fid_t fid) {
    if (dir == ZON_DIR_BI)
        trace_missing(bi_missing, 33, "zon_flow_get_fo", fid);
    else if (dir == ZON_DIR_INITIATOR)
        trace_missing(initiator_missing, 38, "zon_flow_get_fo", fid);
    else
        zon_trace_engine_text(zon_client_api_text);
}

void trace_detach_missing(zon_flow_direction_e dir, zon_fid_t fid) {
    constexpr const char* texts[] = {bi_missing, initiator_missing, responder_missing};
    trace_missing(texts[dir], 38, "zon_flow_detach_fo", fid);
}

// Reads the client's object; the lock stays as it is.
zon_error_t get_from(zon_flow_t* flow, zon_client_id_e cid, zon_flow_direction_e dir, void** fo) {
    zon_flow_fo_t** list = list_of(flow, dir);
    const zon_flow_fo_t* record = list != nullptr ? zon_flow_fo_list_find(*list, cid) : nullptr;
    if (record != nullptr) {
        *fo = record->fo;
        return zon_error_none;
    }
    const zon_error_t error =
        list != nullptr ? zon_error_feature_object_not_attached : absent_side(flow, dir);
    if (error == zon_error_feature_object_not_attached)
        trace_get_missing(dir, flow->fid);
    return error;
}

template <class member>
void copy_fields(const zon_flow_t* flow, void* to, member zon_flow_t::*first, size_t end) {
    const auto* from = reinterpret_cast<const char*>(&(flow->*first));
    const auto offset = static_cast<size_t>(from - reinterpret_cast<const char*>(flow));
    std::memcpy(static_cast<char*>(to) + offset, from, end - offset);
}

// Copies a locked flow. What other locks guard is copied under them; a flow in use is on no list of
// free ones.
void take_snapshot(const zon_flow_t* flow, void* to) {
    auto* snapshot = static_cast<zon_flow_t*>(to);
    std::memset(to, 0, sizeof *flow);
    copy_fields(flow, to, &zon_flow_t::initiator_flow, offsetof(zon_flow_t, next_free));
    copy_fields(flow, to, &zon_flow_t::fid, offsetof(zon_flow_t, timer));
    copy_fields(flow, to, &zon_flow_t::flow_lock, sizeof *flow);
    snapshot->next_flow = relaxed_load(flow->next_flow);
    zon_timer_copy(&flow->timer, &snapshot->timer);
    zon_private_copy_links(flow, snapshot);
}

zon_error_t get_with_snapshot(locked_flow flow, zon_client_id_e cid, zon_flow_direction_e dir,
                              void** fo, void* flow_wn) {
    if (!flow)
        return zon_error_flow_not_found;
    take_snapshot(flow.get(), flow_wn);
    const zon_error_t error = get_from(flow.get(), cid, dir, fo);
    if (error == zon_error_none)
        std::move(flow).hand_over();
    return error;
}

}  // namespace

zon_flow_fo_t* zon_flow_fo_list_find(zon_flow_fo_t* fo_list, zon_client_id_e cid) {
    while (fo_list != nullptr && fo_list->id != cid)
        fo_list = fo_list->next;
    return fo_list;
}

zon_flow_fo_t* zon_flow_fo_list_find_and_remove(zon_flow_fo_t** fo_list, zon_client_id_e cid) {
    while (*fo_list != nullptr && (*fo_list)->id != cid)
        fo_list = &(*fo_list)->next;
    zon_flow_fo_t* found = *fo_list;
    if (found != nullptr)
        *fo_list = found->next;
    return found;
}

void zon_flow_fo_list_unlink(zon_flow_fo_t** fo_list, const zon_flow_fo_t* record) {
    while (*fo_list != nullptr && *fo_list != record)
        fo_list = &(*fo_list)->next;
    if (*fo_list != nullptr)
        *fo_list = record->next;
}

void zon_flow_fo_unlink_everywhere(zon_flow_t* flow, const zon_flow_fo_t* record) {
    for (const zon_flow_direction_e dir : {ZON_DIR_BI, ZON_DIR_INITIATOR, ZON_DIR_RESPONDER})
        if (zon_flow_fo_t** list = list_of(flow, dir))
            zon_flow_fo_list_unlink(list, record);
}

zon_flow_fo_t* zon_flow_fo_allocate(zon_client_id_e cid) {
    auto* record = static_cast<zon_flow_fo_t*>(
        zon_private_chunk_malloc(ZON_FLOW_FO_MEM_TYPE, &g_zon->zon_chunk_ptr));
    if (record != nullptr)
        record->id = cid;
    return record;
}

void zon_flow_fo_release(zon_flow_fo_t* record) {
    zon_private_chunk_free_or_trace(ZON_FLOW_FO_MEM_TYPE, record, &g_zon->zon_chunk_ptr);
}

void zon_flow_fo_release_side(const zon_flow_t* flow, zon_half_flow_t* half) {
    while (half->fo_list != nullptr && !is_on_list(flow->fo_list, half->fo_list)) {
        zon_flow_fo_t* record = half->fo_list;
        half->fo_list = record->next;
        zon_flow_fo_release(record);
    }
    half->fo_list = nullptr;
}

zon_error_t zon_flow_attach_fo(zon_fid_t fid, zon_fo_id_t cid, zon_flow_direction_e dir, void* fo) {
    if (const zon_error_t error = check_arguments(cid, dir, fo); error != zon_error_none)
        return error;
    locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
    if (!flow)
        return zon_error_flow_not_found;
    zon_flow_fo_t** list = list_of(flow.get(), dir);
    if (list == nullptr)
        return absent_side(flow.get(), dir);
    zon_flow_fo_t* record = zon_flow_fo_list_find(*list, cid);
    if (record != nullptr) {
        trace_overwrite(dir);
    } else {
        record = zon_flow_fo_allocate(cid);
        if (record == nullptr)
            return zon_error_memory;
        // Kept on purpose: a direction's list is cut to the new record followed by the list of the
        // whole flow. Clients find their object for the whole flow through it, and lose earlier
        // ones of the direction.
        if (dir != ZON_DIR_BI)
            zon_flow_fo_release_side(flow.get(), zon_half_flow_of(flow.get(), dir));
        record->next = flow->fo_list;
        *list = record;
    }
    record->fo = fo;
    return zon_error_none;
}

zon_error_t zon_flow_get_fo(const zon_fid_t fid, zon_client_id_e cid, zon_flow_direction_e dir,
                            void** fo) {
    if (const zon_error_t error = check_arguments(cid, dir, fo); error != zon_error_none)
        return error;
    *fo = nullptr;
    const locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
    return flow ? get_from(flow.get(), cid, dir, fo) : zon_error_flow_not_found;
}

zon_error_t zon_flow_get_fo_by_fid(const zon_flow_ptr_t fid, zon_client_id_e cid,
                                   zon_flow_direction_e dir, void** fo, void* flow_wn) {
    if (const zon_error_t error = check_arguments(cid, dir, fo); error != zon_error_none)
        return error;
    *fo = nullptr;
    return get_with_snapshot(zon_fid_table_lookup(g_zon->fid_table, fid), cid, dir, fo, flow_wn);
}

zon_error_t zon_flow_get_fo_by_flow_key(void* key, zon_client_id_e cid, zon_flow_direction_e dir,
                                        void** fo, void* flow_wn) {
    zon_ipv6_half_flow_t wanted{};
    auto* half = reinterpret_cast<zon_half_flow_t*>(&wanted);
    const auto* given = static_cast<const zon_key_t*>(key);
    if (given != nullptr && zon_key_type_is_valid(given->key_type))
        zon_copy_key_to_half_flow(half, given);
    else
        key = nullptr;
    if (const zon_error_t error = check_arguments(cid, dir, fo); error != zon_error_none)
        return error;
    *fo = nullptr;
    int bucket = 0;
    const zon_half_flow_t* found =
        key != nullptr ? zon_flow_table_lookup(g_zon->flow_tbl, half, &bucket) : nullptr;
    return get_with_snapshot(locked_flow::adopt(found != nullptr ? found->flow : nullptr), cid, dir,
                             fo, flow_wn);
}

zon_error_t zon_flow_detach_fo(zon_fid_t fid, zon_client_id_e cid, zon_flow_direction_e dir,
                               void** fo) {
    if (const zon_error_t error = check_arguments(cid, dir, fo); error != zon_error_none)
        return error;
    *fo = nullptr;
    locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
    if (!flow) {
        if (fid != 0)
            zon_trace_engine_text(zon_client_api_text);
        return zon_error_flow_not_found;
    }
    zon_flow_fo_t** list = list_of(flow.get(), dir);
    zon_flow_fo_t* record = list != nullptr ? zon_flow_fo_list_find(*list, cid) : nullptr;
    if (record == nullptr) {
        const zon_error_t error =
            list != nullptr ? zon_error_feature_object_not_attached : absent_side(flow.get(), dir);
        if (error == zon_error_feature_object_not_attached)
            trace_detach_missing(dir, fid);
        return error;
    }
    *fo = record->fo;
    zon_flow_fo_unlink_everywhere(flow.get(), record);
    zon_flow_fo_release(record);
    return zon_error_none;
}

// zon_error.cpp - the texts of the error codes.
//
// Owns   the table.
// Locks  none.

#include "zon_error.h"

#include <cstddef>
#include <iterator>

namespace {

struct error_row {
    zon_error_t code;
    const char* text;
};

// The texts are part of the interface, odd wordings and spellings included: hosts match them in
// their logs.
constexpr error_row error_rows[] = {
    {zon_error_none, "no zon error"},
    {zon_error_flow_not_found, "flow not found"},
    {zon_error_memory, "out of memory"},
    {zon_error_invalid_tuple_type, "invalid tuple type"},
    {zon_error_parent_fid_not_found, "fid not found"},
    {zon_error_client_delete_cb_not_registered, "Client delete callback not registered"},
    {zon_error_feature_object_already_attached, "feature object already attached"},
    {zon_error_feature_object_not_attached, "feature object not attached"},
    {zon_error_client_id_invalid, "client id is invalid"},
    {zon_error_parameter_is_null, "parameter is null"},
    {zon_error_flow_tuple_is_null, "flow tuple is null"},
    {zon_error_client_pre_create_prevented, "client pre-flow created prevented"},
    {zon_error_unsupported_l3_protocol, "unsupported L3 protocol"},
    {zon_error_flow_creation_prevented, "flow creation prevented"},
    {zon_error_non_first_ip_fragment, "non-first ip fragment"},
    {zon_error_engine_not_init, "zon engine not initialized"},
    {zon_error_client_not_registered, "zon client not registered"},
    {zon_error_direction_parameter_is_invalid, "direction parameter is invalid"},
    {zon_error_zon_table_access_failed, "zon table access failed"},
    {zon_error_flow_table_access_failed, "flow table access failed"},
    {zon_error_fid_table_access_failed, "fid table access failed"},
    {zon_error_zon_table_creation_failed, "zon table creation failed"},
    {zon_error_flow_table_creation_failed, "flow table creation failed"},
    {zon_error_timer_wheel_creation_failed, "timer wheel creation failed"},
    {zon_error_fid_table_creation_failed, "fid table creation failed"},
    {zon_error_memory_chunk_creation_failed, "memory chunk creation failed"},
    {zon_error_memory_chunk_deletion_failed, "memory chunk deletetion failed"},
    {zon_error_tunnel_type_invalid, "invalid tunnel type specified"},
    {zon_error_engine_capability_invalid, "invalid engine capability"},
    {zon_error_frag_table_creation_failed, "fragmentation table creation failed"},
    {zon_error_sctx_table_creation_failed, "super context table creation failed"},
    {zon_error_sctx_type_invalid, "super context type invalid"},
    {zon_error_sctx_unmapped, "super context unmapped"},
    {zon_error_l4_state_invalid, "invalid L4 state specified"},
    {zon_error_invalid_next_seq_number, "invalid l4 sequence number"},
    {zon_error_parameter_invalid, "invalid parameter specified"},
};

// Row i describes code i, and no code below the end mark is without a text.
constexpr bool rows_follow_codes() {
    for (size_t row = 0; row < std::size(error_rows); ++row)
        if (static_cast<size_t>(error_rows[row].code) != row || error_rows[row].text == nullptr)
            return false;
    return std::size(error_rows) == zon_error_end;
}
static_assert(rows_follow_codes());

}  // namespace

const char* zon_error_str(zon_error_t err) {
    const auto row = static_cast<uint32_t>(err);  // a negative value lies beyond the table, too
    return row < std::size(error_rows) ? error_rows[row].text : "unknown zon error";
}

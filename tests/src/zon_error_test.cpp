// zon_error_test.cpp - every error code has its fixed text.

#include "zon_error.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct text_row {
    const char* name;
    zon_error_t code;
    int value;
    const char* text;
};

constexpr text_row text_rows[] = {
    {"min", zon_error_min, 0, "no zon error"},
    {"none", zon_error_none, 0, "no zon error"},
    {"flow_not_found", zon_error_flow_not_found, 1, "flow not found"},
    {"memory", zon_error_memory, 2, "out of memory"},
    {"invalid_tuple_type", zon_error_invalid_tuple_type, 3, "invalid tuple type"},
    {"parent_fid_not_found", zon_error_parent_fid_not_found, 4, "fid not found"},
    {"client_delete_cb_not_registered", zon_error_client_delete_cb_not_registered, 5,
     "Client delete callback not registered"},
    {"feature_object_already_attached", zon_error_feature_object_already_attached, 6,
     "feature object already attached"},
    {"feature_object_not_attached", zon_error_feature_object_not_attached, 7,
     "feature object not attached"},
    {"client_id_invalid", zon_error_client_id_invalid, 8, "client id is invalid"},
    {"parameter_is_null", zon_error_parameter_is_null, 9, "parameter is null"},
    {"flow_tuple_is_null", zon_error_flow_tuple_is_null, 10, "flow tuple is null"},
    {"client_pre_create_prevented", zon_error_client_pre_create_prevented, 11,
     "client pre-flow created prevented"},
    {"unsupported_l3_protocol", zon_error_unsupported_l3_protocol, 12, "unsupported L3 protocol"},
    {"flow_creation_prevented", zon_error_flow_creation_prevented, 13, "flow creation prevented"},
    {"non_first_ip_fragment", zon_error_non_first_ip_fragment, 14, "non-first ip fragment"},
    {"engine_not_init", zon_error_engine_not_init, 15, "zon engine not initialized"},
    {"client_not_registered", zon_error_client_not_registered, 16, "zon client not registered"},
    {"direction_parameter_is_invalid", zon_error_direction_parameter_is_invalid, 17,
     "direction parameter is invalid"},
    {"zon_table_access_failed", zon_error_zon_table_access_failed, 18, "zon table access failed"},
    {"flow_table_access_failed", zon_error_flow_table_access_failed, 19,
     "flow table access failed"},
    {"fid_table_access_failed", zon_error_fid_table_access_failed, 20, "fid table access failed"},
    {"zon_table_creation_failed", zon_error_zon_table_creation_failed, 21,
     "zon table creation failed"},
    {"flow_table_creation_failed", zon_error_flow_table_creation_failed, 22,
     "flow table creation failed"},
    {"timer_wheel_creation_failed", zon_error_timer_wheel_creation_failed, 23,
     "timer wheel creation failed"},
    {"fid_table_creation_failed", zon_error_fid_table_creation_failed, 24,
     "fid table creation failed"},
    {"memory_chunk_creation_failed", zon_error_memory_chunk_creation_failed, 25,
     "memory chunk creation failed"},
    {"memory_chunk_deletion_failed", zon_error_memory_chunk_deletion_failed, 26,
     "memory chunk deletetion failed"},
    {"tunnel_type_invalid", zon_error_tunnel_type_invalid, 27, "invalid tunnel type specified"},
    {"engine_capability_invalid", zon_error_engine_capability_invalid, 28,
     "invalid engine capability"},
    {"frag_table_creation_failed", zon_error_frag_table_creation_failed, 29,
     "fragmentation table creation failed"},
    {"sctx_table_creation_failed", zon_error_sctx_table_creation_failed, 30,
     "super context table creation failed"},
    {"sctx_type_invalid", zon_error_sctx_type_invalid, 31, "super context type invalid"},
    {"sctx_unmapped", zon_error_sctx_unmapped, 32, "super context unmapped"},
    {"l4_state_invalid", zon_error_l4_state_invalid, 33, "invalid L4 state specified"},
    {"invalid_next_seq_number", zon_error_invalid_next_seq_number, 34,
     "invalid l4 sequence number"},
    {"parameter_invalid", zon_error_parameter_invalid, 35, "invalid parameter specified"},
    {"end", zon_error_end, 36, "unknown zon error"},
    {"minus_one", static_cast<zon_error_t>(-1), -1, "unknown zon error"},
    {"least", static_cast<zon_error_t>(INT32_MIN), INT32_MIN, "unknown zon error"},
    {"thousand", static_cast<zon_error_t>(1000), 1000, "unknown zon error"},
};

class error_text : public ::testing::TestWithParam<text_row> {};

}  // namespace

TEST_P(error_text, is_the_one_of_the_table) {
    EXPECT_EQ(static_cast<int>(GetParam().code), GetParam().value);
    EXPECT_STREQ(zon_error_str(GetParam().code), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(, error_text, ::testing::ValuesIn(text_rows),
                         [](const auto& row) { return std::string(row.param.name); });

struct message_row {
    zon_errmsg_index_e index;
    int value;
};

TEST(error_log_index, has_the_value_of_the_table) {
    constexpr message_row rows[] = {
        {ZON_ERRMSG_NO_MEMORY, 0},
        {ZON_ERRMSG_MAX_MEMORY, 1},
        {ZON_ERRMSG_CLIENT_PRE_CREATE_PREVENTED, 2},
        {ZON_ERRMSG_FLOW_CREATION_PREVENTED, 3},
        {ZON_ERRMSG_UNSUPPORTED_L3_PROTOCOL, 4},
        {ZON_ERRMSG_NON_FIRST_IP_FRAGMENT, 5},
        {ZON_ERRMSG_CLIENT_API, 6},
        {ZON_ERRMSG_UNKNOWN, 7},
        {ZON_ERRMSG_INDEX_MAX, 8},
    };
    for (const message_row& row : rows)
        EXPECT_EQ(static_cast<int>(row.index), row.value);
}

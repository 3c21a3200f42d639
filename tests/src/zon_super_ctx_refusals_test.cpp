// zon_super_ctx_refusals_test.cpp - what the operations on super contexts refuse, in the order of
// their checks.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "src/zon_super_ctx_fixture.h"

using namespace zon_test;
using namespace zon_test::super_ctx;

namespace {

struct refusal_row {
    const char* name;
    zon_error_t expected;
    bool without_engine_too;  // the check comes before the one for an engine
    std::function<zon_error_t()> call;
};

int an_object;
void* a_slot;
uint32_t a_handle;
constexpr zon_fid_t no_such_flow = 100;

const refusal_row refusal_rows[] = {
    {"register_null_and_bad_type", zon_error_parameter_is_null, true,
     [] { return zon_super_context_client_register(type_4, nullptr); }},
    {"register_type_4", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_client_register(type_4, answer<0>); }},
    {"register_type_minus_1", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_client_register(type_minus_1, answer<0>); }},
    {"unregister_type_4", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_client_unregister(type_4); }},
    {"unregister_type_minus_1", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_client_unregister(type_minus_1); }},
    {"register_delete_null_and_bad_client", zon_error_parameter_is_null, true,
     [] { return zon_super_context_register_delete_cb(32, nullptr); }},
    {"register_delete_client_32", zon_error_client_id_invalid, true,
     [] { return zon_super_context_register_delete_cb(32, note_deletion); }},
    {"unregister_delete_client_32", zon_error_client_id_invalid, true,
     [] { return zon_super_context_unregister_delete_cb(32); }},
    {"attach_null_object", zon_error_parameter_is_null, true,
     [] { return zon_super_context_attach_fo(1, type_4, 32, nullptr); }},
    {"attach_null_flow", zon_error_parameter_is_null, true,
     [] { return zon_super_context_attach_fo(ZON_NULL_FID, type_4, 32, &an_object); }},
    {"attach_type_4", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_attach_fo(1, type_4, 32, &an_object); }},
    {"attach_client_32", zon_error_client_id_invalid, true,
     [] { return zon_super_context_attach_fo(1, type_3, 32, &an_object); }},
    {"attach_no_such_flow", zon_error_flow_not_found, false,
     [] { return zon_super_context_attach_fo(no_such_flow, type_3, 31, &an_object); }},
    {"attach_no_super_context", zon_error_feature_object_not_attached, false,
     [] { return zon_super_context_attach_fo(1, type_3, 31, &an_object); }},
    {"get_null_slot", zon_error_parameter_is_null, true,
     [] { return zon_super_context_get_fo(1, type_4, 32, nullptr); }},
    {"get_null_flow", zon_error_parameter_is_null, true,
     [] { return zon_super_context_get_fo(ZON_NULL_FID, type_4, 32, &a_slot); }},
    {"get_type_4", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_get_fo(1, type_4, 32, &a_slot); }},
    {"get_client_32", zon_error_client_id_invalid, true,
     [] { return zon_super_context_get_fo(1, type_3, 32, &a_slot); }},
    {"get_no_such_flow", zon_error_flow_not_found, false,
     [] { return zon_super_context_get_fo(no_such_flow, type_3, 31, &a_slot); }},
    {"get_no_super_context", zon_error_feature_object_not_attached, false,
     [] { return zon_super_context_get_fo(1, type_3, 31, &a_slot); }},
    {"handle_null_result", zon_error_parameter_is_null, true,
     [] { return zon_super_context_get_sctxt_handle(1, type_4, nullptr); }},
    {"handle_null_flow", zon_error_parameter_is_null, true,
     [] { return zon_super_context_get_sctxt_handle(ZON_NULL_FID, type_4, &a_handle); }},
    // Here the engine is looked for before the type is looked at.
    {"handle_type_4", zon_error_sctx_type_invalid, false,
     [] { return zon_super_context_get_sctxt_handle(1, type_4, &a_handle); }},
    {"handle_no_such_flow", zon_error_flow_not_found, false,
     [] { return zon_super_context_get_sctxt_handle(no_such_flow, type_3, &a_handle); }},
    {"handle_no_super_context", zon_error_sctx_unmapped, false,
     [] { return zon_super_context_get_sctxt_handle(1, type_3, &a_handle); }},
    {"traverse_handle_0", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_traverse_flows(type_0, 0, note_member); }},
    {"traverse_type_4", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_traverse_flows(type_4, 77, note_member); }},
    {"traverse_type_minus_1", zon_error_sctx_type_invalid, true,
     [] { return zon_super_context_traverse_flows(type_minus_1, 77, note_member); }},
    {"traverse_unknown_handle", zon_error_parameter_is_null, false,
     [] { return zon_super_context_traverse_flows(type_0, 77, note_member); }},
};

struct engine_row {
    const char* name;
    std::function<zon_error_t()> call;
};

const engine_row engine_rows[] = {
    {"register", [] { return zon_super_context_client_register(type_3, answer<0>); }},
    {"unregister", [] { return zon_super_context_client_unregister(type_3); }},
    {"register_delete", [] { return zon_super_context_register_delete_cb(31, note_deletion); }},
    {"unregister_delete", [] { return zon_super_context_unregister_delete_cb(31); }},
    {"attach", [] { return zon_super_context_attach_fo(1, type_3, 31, &an_object); }},
    {"get", [] { return zon_super_context_get_fo(1, type_3, 31, &a_slot); }},
    {"handle", [] { return zon_super_context_get_sctxt_handle(1, type_4, &a_handle); }},
    {"traverse", [] { return zon_super_context_traverse_flows(type_3, 77, note_member); }},
};

class super_context_refusal : public super_contexts,
                              public ::testing::WithParamInterface<refusal_row> {};
class super_context_operation : public super_contexts,
                                public ::testing::WithParamInterface<engine_row> {};

}  // namespace

TEST_P(super_context_refusal, comes_in_its_order) {
    ASSERT_EQ(new_flow(), 1u);
    EXPECT_EQ(GetParam().call(), GetParam().expected);
    remove_flow(1);
    ASSERT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(GetParam().call(), GetParam().without_engine_too
                                     ? GetParam().expected
                                     : zon_error_sctx_table_creation_failed);
    EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
}

INSTANTIATE_TEST_SUITE_P(, super_context_refusal, ::testing::ValuesIn(refusal_rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(super_context_operation, needs_the_table_of_an_engine) {
    zon_super_context_table_t* kept = std::exchange(g_zon->super_ctx_table, nullptr);
    EXPECT_EQ(GetParam().call(), zon_error_sctx_table_creation_failed);
    g_zon->super_ctx_table = kept;
}

INSTANTIATE_TEST_SUITE_P(, super_context_operation, ::testing::ValuesIn(engine_rows),
                         [](const auto& row) { return std::string(row.param.name); });

// zon_super_ctx_fixture.h - an engine whose flows are grouped as a test says, and what its
// callbacks have noted.

#pragma once

#include <vector>

#include "support/engine_fixture.h"
#include "zon_fid_table_inline.h"
#include "zon_super_ctx.h"
#include "zon_super_ctx_table.h"

namespace zon_test::super_ctx {

inline constexpr auto type_0 = ZON_SUPER_CONTEXT_IDENTITY;
inline constexpr auto type_1 = static_cast<zon_super_context_types_e>(1);
inline constexpr auto type_2 = static_cast<zon_super_context_types_e>(2);
inline constexpr auto type_3 = static_cast<zon_super_context_types_e>(3);
inline constexpr auto type_4 = ZON_SUPER_CONTEXT_MAX;
inline constexpr auto type_minus_1 = static_cast<zon_super_context_types_e>(-1);

// What the lookup function of each type answers for the next packets; 0 is "belongs to none".
inline uint32_t answers[4];

template <int type>
bool answer(void*, uint32_t* context) {
    *context = answers[type];
    return answers[type] != 0;
}

inline bool answer_zero(void*, uint32_t* context) {
    *context = 0;
    return true;
}

struct deleted_super_ctx {
    uint32_t context;
    zon_super_context_types_e type;
    void* fo;
    bool operator==(const deleted_super_ctx&) const = default;
};
inline std::vector<deleted_super_ctx> deletions;

inline void note_deletion(uint32_t context, zon_super_context_types_e type, void** fo) {
    deletions.push_back({context, type, static_cast<void*>(fo)});
}

inline std::vector<zon_fid_t> walked;
inline bool note_member(zon_flow_ptr_t flow) {
    walked.push_back(flow);
    return false;  // the result is ignored
}

class super_contexts : public engine_fixture {
public:  // for the functions that walks call
    void SetUp() override {
        engine_fixture::SetUp();
        for (uint32_t& context : answers)
            context = 0;
        deletions.clear();
        walked.clear();
    }

    static void group_by(zon_super_context_types_e type) {
        constexpr zon_super_context_lookup_callback functions[] = {answer<0>, answer<1>, answer<2>,
                                                                   answer<3>};
        ASSERT_EQ(zon_super_context_client_register(type, functions[type]), zon_error_none);
    }

    // A new flow whose packets the lookup functions answer for as `answers` says.
    zon_fid_t new_flow() {
        const auto source_port = static_cast<uint16_t>(++last_port);
        const zon_fid_t fid =
            handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(source_port, 53)).fid;
        EXPECT_NE(fid, ZON_NULL_FID);
        return fid;
    }
    zon_fid_t new_flow_in(uint32_t context) {
        answers[0] = context;
        return new_flow();
    }

    static void remove_flow(zon_fid_t fid) {
        EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    }

    static zon_super_context_t* super_ctx_of(zon_fid_t fid,
                                             zon_super_context_types_e type = type_0) {
        const locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
        return flow ? flow->super_ctx[type] : nullptr;
    }

    static std::vector<zon_fid_t> members(uint32_t context,
                                          zon_super_context_types_e type = type_0) {
        walked.clear();
        EXPECT_EQ(zon_super_context_traverse_flows(type, context, note_member), zon_error_none);
        return walked;
    }

    static uint32_t super_ctx_count() {
        return g_zon->memory_usage_stats.super_context_alloc_count;
    }
    static uint32_t element_count() { return g_zon->memory_usage_stats.list_element_alloc_count; }

    uint32_t last_port = 1000;
};

}  // namespace zon_test::super_ctx

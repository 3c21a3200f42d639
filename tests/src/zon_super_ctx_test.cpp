// zon_super_ctx_test.cpp - flows join and leave super contexts; clients hang objects on them and
// walk their flows.

#include "zon_super_ctx.h"

#include <gtest/gtest.h>

#include <vector>

#include "osal/zon_mem.h"
#include "src/zon_super_ctx_fixture.h"
#include "support/lock_level.h"

using namespace zon_test;
using namespace zon_test::super_ctx;

namespace {

// Takes a chunk away for a while, as if its memory had run out.
class empty_chunk {
public:
    explicit empty_chunk(vem_chunk_type& chunk) : chunk_(chunk), kept_(chunk) { chunk_ = nullptr; }
    empty_chunk(const empty_chunk&) = delete;
    empty_chunk& operator=(const empty_chunk&) = delete;
    ~empty_chunk() { chunk_ = kept_; }

private:
    vem_chunk_type& chunk_;
    vem_chunk_type kept_;
};

}  // namespace

// ---- joining and leaving ----

TEST_F(super_contexts, are_shared_by_flows_of_the_same_value) {
    group_by(type_0);
    const zon_fid_t first = new_flow_in(77);
    const zon_fid_t second = new_flow_in(77);
    ASSERT_NE(super_ctx_of(first), nullptr);
    EXPECT_EQ(super_ctx_of(first), super_ctx_of(second));
    EXPECT_EQ(super_ctx_of(first)->refcount, 2);
    EXPECT_EQ(super_ctx_of(first)->context, 77u);
    EXPECT_EQ(super_ctx_of(first)->type, type_0);
    EXPECT_EQ(super_ctx_count(), 1u);
    EXPECT_EQ(element_count(), 2u);
    EXPECT_EQ(g_zon->super_ctx_table->allocated, 1u);
}

TEST_F(super_contexts, live_as_long_as_their_last_flow) {
    group_by(type_0);
    const zon_fid_t first = new_flow_in(77);
    const zon_fid_t second = new_flow_in(77);
    remove_flow(first);
    ASSERT_NE(super_ctx_of(second), nullptr);
    EXPECT_EQ(super_ctx_of(second)->refcount, 1);
    EXPECT_EQ(element_count(), 1u);
    remove_flow(second);
    EXPECT_EQ(super_ctx_count(), 0u);
    EXPECT_EQ(element_count(), 0u);
    EXPECT_EQ(g_zon->super_ctx_table->allocated, 0u);
}

TEST_F(super_contexts, tell_each_client_with_an_object_once_when_the_last_flow_leaves) {
    group_by(type_0);
    int objects[32];
    for (const zon_client_id_e cid : {0u, 7u, 31u})
        ASSERT_EQ(zon_super_context_register_delete_cb(cid, note_deletion), zon_error_none);
    const zon_fid_t first = new_flow_in(77);
    const zon_fid_t second = new_flow_in(77);
    for (const zon_client_id_e cid : {31u, 0u, 8u})  // client 7 has no object, client 8 no callback
        ASSERT_EQ(zon_super_context_attach_fo(first, type_0, cid, &objects[cid]), zon_error_none);
    remove_flow(first);
    EXPECT_TRUE(deletions.empty());
    remove_flow(second);
    EXPECT_EQ(deletions, (std::vector<deleted_super_ctx>{{77, type_0, &objects[0]},
                                                         {77, type_0, &objects[31]}}));
}

TEST_F(super_contexts, differ_by_value_and_by_type) {
    group_by(type_0);
    group_by(type_1);
    answers[0] = answers[1] = 77;
    const zon_fid_t first = new_flow();
    answers[0] = 78;
    const zon_fid_t second = new_flow();
    EXPECT_NE(super_ctx_of(first, type_0), super_ctx_of(first, type_1));
    EXPECT_NE(super_ctx_of(first, type_0), super_ctx_of(second, type_0));
    EXPECT_EQ(super_ctx_of(first, type_1), super_ctx_of(second, type_1));
    EXPECT_EQ(super_ctx_count(), 3u);
    EXPECT_EQ(super_ctx_of(first, type_1)->type, type_1);
}

TEST_F(super_contexts, of_all_four_types_are_joined_at_once) {
    for (const auto type : {type_0, type_1, type_2, type_3})
        group_by(type);
    for (int type = 0; type < 4; ++type)
        answers[type] = 100 + static_cast<uint32_t>(type);
    const zon_fid_t fid = new_flow();
    for (const auto type : {type_0, type_1, type_2, type_3}) {
        uint32_t handle_of_type = 0;
        EXPECT_EQ(zon_super_context_get_sctxt_handle(fid, type, &handle_of_type), zon_error_none);
        EXPECT_EQ(handle_of_type, 100 + static_cast<uint32_t>(type));
    }
}

TEST_F(super_contexts, are_not_joined_when_the_lookup_function_says_no) {
    group_by(type_0);
    const zon_fid_t fid = new_flow_in(0);
    EXPECT_EQ(super_ctx_of(fid), nullptr);
    uint32_t context = 5;
    EXPECT_EQ(zon_super_context_get_sctxt_handle(fid, type_0, &context), zon_error_sctx_unmapped);
    EXPECT_EQ(context, 0u);
    EXPECT_EQ(super_ctx_count(), 0u);
}

TEST_F(super_contexts, of_value_0_exist_but_cannot_be_walked) {
    ASSERT_EQ(zon_super_context_client_register(type_0, answer_zero), zon_error_none);
    const zon_fid_t fid = new_flow();
    uint32_t context = 5;
    EXPECT_EQ(zon_super_context_get_sctxt_handle(fid, type_0, &context), zon_error_none);
    EXPECT_EQ(context, 0u);
    EXPECT_EQ(zon_super_context_traverse_flows(type_0, 0, note_member),
              zon_error_sctx_type_invalid);
}

TEST_F(super_contexts, take_flows_from_the_registration_on_and_keep_them_after_it_ends) {
    const zon_fid_t before = new_flow_in(77);
    group_by(type_0);
    const zon_fid_t during = new_flow_in(77);
    ASSERT_EQ(zon_super_context_client_unregister(type_0), zon_error_none);
    const zon_fid_t after = new_flow_in(77);
    EXPECT_EQ(super_ctx_of(before), nullptr);
    EXPECT_NE(super_ctx_of(during), nullptr);
    EXPECT_EQ(super_ctx_of(after), nullptr);
    EXPECT_EQ(members(77), std::vector<zon_fid_t>{during});
}

TEST_F(super_contexts, use_the_function_registered_last) {
    ASSERT_EQ(zon_super_context_client_register(type_0, answer_zero), zon_error_none);
    group_by(type_0);
    EXPECT_EQ(super_ctx_of(new_flow_in(9))->context, 9u);
}

TEST_F(super_contexts, hand_the_packet_context_to_the_lookup_function) {
    static void* seen;
    ASSERT_EQ(zon_super_context_client_register(type_0,
                                                [](void* pkt_ctx, uint32_t*) {
                                                    seen = pkt_ctx;
                                                    return false;
                                                }),
              zon_error_none);
    int packet_context = 0;
    auto packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(9, 53).build();
    zon_pkt_indications_t indications{};
    zon_error_t error = zon_error_none;
    ASSERT_NE(zon_handle_packet(packet.data(), 0, &packet_context, &indications, &error),
              ZON_NULL_FID);
    EXPECT_EQ(seen, &packet_context);
}

TEST_F(super_contexts, start_without_objects_even_in_a_record_that_was_used_before) {
    group_by(type_0);
    int object = 0;
    const zon_fid_t first = new_flow_in(77);
    for (zon_client_id_e cid = 0; cid < 32; ++cid)
        ASSERT_EQ(zon_super_context_attach_fo(first, type_0, cid, &object), zon_error_none);
    const zon_super_context_t* used = super_ctx_of(first);
    remove_flow(first);
    const zon_fid_t second = new_flow_in(78);
    ASSERT_EQ(super_ctx_of(second), used) << "the record freed last is not the one handed out next";
    for (zon_client_id_e cid = 0; cid < 32; ++cid) {
        void* fo = &object;
        EXPECT_EQ(zon_super_context_get_fo(second, type_0, cid, &fo), zon_error_none);
        EXPECT_EQ(fo, nullptr);
    }
}

TEST_F(super_contexts, are_left_by_flows_that_age_out) {
    group_by(type_0);
    new_flow_in(77);
    advance_sec(3600);
    EXPECT_EQ(super_ctx_count(), 0u);
}

// ---- without memory ----

TEST_F(super_contexts, that_cannot_be_made_end_the_joining_of_further_types) {
    for (const auto type : {type_0, type_1, type_2, type_3})
        group_by(type);
    answers[0] = 77;
    const zon_fid_t member = new_flow();
    answers[0] = 0;
    answers[1] = 78;  // new, cannot be made
    answers[2] = 0;
    answers[3] = 77;
    {
        const empty_chunk no_memory(g_zon->zon_chunk_ptr.zon_super_ctx_mem);
        const zon_fid_t fid = new_flow();
        for (const auto type : {type_0, type_1, type_2, type_3})
            EXPECT_EQ(super_ctx_of(fid, type), nullptr);
    }
    {
        const empty_chunk no_memory(g_zon->zon_chunk_ptr.zon_super_ctx_mem);
        answers[0] = 77;  // exists already
        const zon_fid_t fid = new_flow();
        EXPECT_EQ(super_ctx_of(fid), super_ctx_of(member));
    }
    EXPECT_EQ(super_ctx_count(), 1u);
}

TEST_F(super_contexts, count_a_member_that_cannot_be_listed) {
    group_by(type_0);
    const zon_fid_t listed = new_flow_in(77);
    zon_fid_t unlisted = ZON_NULL_FID;
    {
        const empty_chunk no_memory(g_zon->zon_chunk_ptr.zon_flow_list_mem);
        unlisted = new_flow_in(77);
    }
    EXPECT_EQ(super_ctx_of(unlisted)->refcount, 2);
    EXPECT_EQ(element_count(), 1u);
    EXPECT_EQ(members(77), std::vector<zon_fid_t>{listed});
    remove_flow(listed);
    EXPECT_EQ(super_ctx_of(unlisted)->refcount, 1);
    remove_flow(unlisted);
    EXPECT_EQ(super_ctx_count(), 0u);
}

TEST_F(super_contexts, give_back_their_elements_when_they_are_freed) {
    auto* made = static_cast<zon_super_context_t*>(
        zon_private_chunk_malloc(ZON_SUPER_CTX_MEM_TYPE, &g_zon->zon_chunk_ptr));
    ASSERT_NE(made, nullptr);
    made->flow_list_head = nullptr;
    for (zon_fid_t fid = 1; fid <= 3; ++fid) {
        auto* element = static_cast<zon_flow_list_t*>(
            zon_private_chunk_malloc(ZON_FLOW_LIST_ELEMENT_MEM_TYPE, &g_zon->zon_chunk_ptr));
        ASSERT_NE(element, nullptr);
        *element = {fid, made->flow_list_head};
        made->flow_list_head = element;
    }
    g_zon->memory_usage_stats.super_context_alloc_count += 1;
    g_zon->memory_usage_stats.list_element_alloc_count += 3;
    zon_super_context_free(made);
    EXPECT_EQ(super_ctx_count(), 0u);
    EXPECT_EQ(element_count(), 0u);
    zon_super_context_free(nullptr);
}

TEST_F(super_contexts, of_nothing_are_neither_joined_nor_left) {
    zon_super_context_process_fif(nullptr, nullptr);
    zon_super_context_process_lif(nullptr);
    zon_flow_t lonely{};
    zon_super_context_process_lif(&lonely);
    EXPECT_EQ(super_ctx_count(), 0u);
}

TEST(super_contexts_without_engine, leave_the_flow_alone) {
    ASSERT_EQ(g_zon, nullptr);
    zon_super_context_t untouched{};
    zon_flow_t flow{};
    flow.super_ctx[2] = &untouched;
    zon_super_context_process_fif(&flow, nullptr);
    zon_super_context_process_lif(&flow);
    EXPECT_EQ(flow.super_ctx[2], &untouched);
}

// ---- objects ----

TEST_F(super_contexts, carry_one_object_per_client_for_all_their_flows) {
    group_by(type_0);
    const zon_fid_t first = new_flow_in(77);
    const zon_fid_t second = new_flow_in(77);
    int object = 0, newer = 0;
    void* fo = &object;
    EXPECT_EQ(zon_super_context_get_fo(first, type_0, 3, &fo), zon_error_none);
    EXPECT_EQ(fo, nullptr);
    EXPECT_EQ(zon_super_context_attach_fo(first, type_0, 3, &object), zon_error_none);
    EXPECT_EQ(zon_super_context_get_fo(second, type_0, 3, &fo), zon_error_none);
    EXPECT_EQ(fo, &object);
    EXPECT_EQ(zon_super_context_attach_fo(second, type_0, 3, &newer), zon_error_none);
    EXPECT_EQ(zon_super_context_get_fo(first, type_0, 3, &fo), zon_error_none);
    EXPECT_EQ(fo, &newer);
    EXPECT_EQ(zon_super_context_get_fo(first, type_0, 4, &fo), zon_error_none);
    EXPECT_EQ(fo, nullptr);
}

TEST_F(super_contexts, give_back_the_flow_lock_after_each_operation) {
    group_by(type_0);
    const zon_fid_t fid = new_flow_in(77);
    int object = 0;
    void* fo = nullptr;
    uint32_t context = 0;
    zon_super_context_attach_fo(fid, type_0, 3, &object);
    zon_super_context_get_fo(fid, type_0, 3, &fo);
    zon_super_context_get_sctxt_handle(fid, type_0, &context);
    zon_super_context_attach_fo(fid, type_1, 3, &object);
    zon_super_context_get_sctxt_handle(fid, type_1, &context);
    zon_lock_t lock = nullptr;
    {
        const locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
        lock = flow->flow_lock;
    }
    EXPECT_TRUE(is_free_for_others(lock));
}

TEST_F(super_contexts, of_another_type_in_a_slot_count_as_none) {
    group_by(type_0);
    const zon_fid_t fid = new_flow_in(77);
    int object = 0;
    void* fo = nullptr;
    uint32_t context = 0;
    super_ctx_of(fid)->type = type_1;
    EXPECT_EQ(zon_super_context_attach_fo(fid, type_0, 3, &object),
              zon_error_feature_object_not_attached);
    EXPECT_EQ(zon_super_context_get_fo(fid, type_0, 3, &fo), zon_error_feature_object_not_attached);
    EXPECT_EQ(zon_super_context_get_sctxt_handle(fid, type_0, &context), zon_error_sctx_unmapped);
    super_ctx_of(fid)->type = type_0;
}

TEST_F(super_contexts, may_be_used_again_from_a_delete_callback) {
    group_by(type_0);
    static zon_error_t in_callback;
    ASSERT_EQ(zon_super_context_register_delete_cb(
                  3,
                  [](uint32_t context, zon_super_context_types_e type, void**) {
                      in_callback = zon_super_context_traverse_flows(type, context, note_member);
                  }),
              zon_error_none);
    int object = 0;
    const zon_fid_t fid = new_flow_in(77);
    ASSERT_EQ(zon_super_context_attach_fo(fid, type_0, 3, &object), zon_error_none);
    remove_flow(fid);
    EXPECT_EQ(in_callback, zon_error_parameter_is_null)
        << "the super context has left the table by then";
}

TEST_F(super_contexts, stop_telling_a_client_that_unregistered_its_callback) {
    group_by(type_0);
    int object = 0;
    ASSERT_EQ(zon_super_context_register_delete_cb(3, note_deletion), zon_error_none);
    const zon_fid_t fid = new_flow_in(77);
    ASSERT_EQ(zon_super_context_attach_fo(fid, type_0, 3, &object), zon_error_none);
    ASSERT_EQ(zon_super_context_unregister_delete_cb(3), zon_error_none);
    remove_flow(fid);
    EXPECT_TRUE(deletions.empty());
}

// ---- walks ----

TEST_F(super_contexts, are_walked_newest_member_first) {
    group_by(type_0);
    const zon_fid_t first = new_flow_in(77);
    new_flow_in(78);
    const zon_fid_t second = new_flow_in(77);
    const zon_fid_t third = new_flow_in(77);
    EXPECT_EQ(members(77), (std::vector<zon_fid_t>{third, second, first}));
    remove_flow(second);
    EXPECT_EQ(members(77), (std::vector<zon_fid_t>{third, first}));
}

TEST_F(super_contexts, may_lose_the_flow_that_a_walk_stands_on) {
    group_by(type_0);
    for (int i = 0; i < 50; ++i)
        new_flow_in(77);
    const auto remove = [](zon_flow_ptr_t flow) {
        walked.push_back(flow);
        remove_flow(flow);
        return true;
    };
    EXPECT_EQ(zon_super_context_traverse_flows(type_0, 77, remove), zon_error_none);
    EXPECT_EQ(walked.size(), 50u);
    EXPECT_EQ(super_ctx_count(), 0u);
}

TEST_F(super_contexts, are_not_walked_to_members_that_left_meanwhile) {
    group_by(type_0);
    static std::vector<zon_fid_t> fids;
    fids.clear();
    for (int i = 0; i < 4; ++i)
        fids.push_back(new_flow_in(77));
    const auto remove_next = [](zon_flow_ptr_t flow) {
        walked.push_back(flow);
        if (flow == fids[3])
            remove_flow(fids[2]);
        return true;
    };
    EXPECT_EQ(zon_super_context_traverse_flows(type_0, 77, remove_next), zon_error_none);
    EXPECT_EQ(walked, (std::vector<zon_fid_t>{fids[3], fids[1], fids[0]}));
}

TEST_F(super_contexts, are_not_walked_to_members_that_joined_meanwhile) {
    group_by(type_0);
    const zon_fid_t member = new_flow_in(77);
    static super_contexts* test;
    test = this;
    const auto add = [](zon_flow_ptr_t flow) {
        walked.push_back(flow);
        test->new_flow_in(77);
        return true;
    };
    EXPECT_EQ(zon_super_context_traverse_flows(type_0, 77, add), zon_error_none);
    EXPECT_EQ(walked, std::vector<zon_fid_t>{member});
    EXPECT_EQ(members(77).size(), 2u);
}

TEST_F(super_contexts, accept_every_client_id_up_to_31_and_0) {
    group_by(type_0);
    int object = 0;
    const zon_fid_t fid = new_flow_in(77);
    for (zon_client_id_e cid = 0; cid < 32; ++cid) {
        EXPECT_EQ(zon_super_context_register_delete_cb(cid, note_deletion), zon_error_none);
        EXPECT_EQ(zon_super_context_attach_fo(fid, type_0, cid, &object), zon_error_none);
    }
    remove_flow(fid);
    EXPECT_EQ(deletions.size(), 32u);
}

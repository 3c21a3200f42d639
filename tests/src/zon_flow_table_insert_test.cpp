// zon_flow_table_insert_test.cpp - both halves of a flow enter the table at once, or neither does.

#include "src/zon_flow_table_fixture.h"

namespace {

using namespace zon_test;

class flow_insert : public flow_table {
protected:
    pair_insert_result insert(two_sided& made) {
        const pair_insert_result result =
            zon_flow_table_insert_flow(table, made.flow(), {bucket_of(made.initiator()), -1});
        EXPECT_EQ(made.lock_levels(), 1) << "the level of the flow's lock changed";
        return result;
    }
};

TEST_F(flow_insert, links_both_halves_and_counts_two) {
    two_sided& made = make();
    EXPECT_EQ(insert(made), pair_insert_result::linked);
    EXPECT_EQ(table->profile_insert, 2U);
    EXPECT_EQ(table->profile_delete, 0U);
    EXPECT_EQ(zon_flow_table_num_elements(table), 2U);
}

TEST_F(flow_insert, counts_nothing_when_the_initiator_is_refused) {
    create(1);
    two_sided& blocker = make(with_forward_bucket(bucket_of(make().initiator()), {}, 50000));
    ASSERT_TRUE(zon_flow_table_insert(table, blocker.initiator()));
    two_sided& made = make();
    EXPECT_EQ(insert(made), pair_insert_result::first_refused);
    EXPECT_EQ(table->profile_insert, 1U);
    EXPECT_EQ(table->profile_delete, 0U);
    EXPECT_EQ(zon_flow_table_num_elements(table), 1U);
}

TEST_F(flow_insert, counts_one_in_and_one_out_when_the_responder_is_refused) {
    create(1);
    two_sided& made = make();
    ASSERT_NE(bucket_of(made.initiator()), bucket_of(made.responder()))
        << "the example needs two buckets";
    two_sided& blocker = make(with_forward_bucket(bucket_of(made.responder()), {}, 50000));
    ASSERT_TRUE(zon_flow_table_insert(table, blocker.initiator()));
    EXPECT_EQ(insert(made), pair_insert_result::second_refused);
    EXPECT_EQ(table->profile_insert, 2U);
    EXPECT_EQ(table->profile_delete, 1U);
    EXPECT_EQ(zon_flow_table_num_elements(table), 1U);
    EXPECT_EQ(find(key_fields{}), nullptr);
}

struct presence_row {
    uint32_t present;
    uint32_t fresh;
    bool same;
    bool counted = true;
};
class flow_presence : public flow_insert, public ::testing::WithParamInterface<presence_row> {};

TEST_P(flow_presence, is_judged_by_key_and_by_complete_against_announced) {
    key_fields fields;
    fields.type = GetParam().present;
    if (GetParam().counted)
        zon_private_increment_incomplete_inserts(table, fields.type);
    ASSERT_EQ(insert(make(fields)), pair_insert_result::linked);
    fields.type = GetParam().fresh;
    EXPECT_EQ(insert(make(fields)),
              GetParam().same ? pair_insert_result::already_present : pair_insert_result::linked);
    EXPECT_EQ(zon_flow_table_num_elements(table), GetParam().same ? 2U : 4U);
    EXPECT_EQ(table->profile_insert, GetParam().same ? 2U : 4U);
}

INSTANTIATE_TEST_SUITE_P(
    rows, flow_presence,
    ::testing::Values(presence_row{0, 0, true}, presence_row{3, 0, true}, presence_row{0, 3, true},
                      presence_row{3, 3, true}, presence_row{4, 4, true}, presence_row{4, 0, true},
                      presence_row{0, 4, false}, presence_row{5, 5, true}, presence_row{8, 5, true},
                      presence_row{5, 8, true}, presence_row{9, 5, true}, presence_row{9, 9, true},
                      presence_row{5, 9, false}, presence_row{1, 0, false},
                      presence_row{2, 0, false}, presence_row{1, 1, true}, presence_row{2, 2, true},
                      presence_row{3, 0, false, false}, presence_row{4, 0, false, false},
                      presence_row{8, 5, false, false}, presence_row{9, 5, false, false}),
    [](const auto& row) {
        return std::string(key_type_name(row.param.fresh)) + "_beside_" +
               (row.param.counted ? "" : "uncounted_") + key_type_name(row.param.present);
    });

TEST_F(flow_insert, passes_over_a_flow_in_deletion) {
    two_sided& leaving = make();
    insert(leaving);
    leaving.flow()->private_dying = 1;
    EXPECT_EQ(insert(make()), pair_insert_result::linked);
}

TEST_F(flow_insert, lets_two_flows_share_a_reverse_key) {
    two_sided& first = make();
    insert(first);
    key_fields other;
    other.src_port = 50000;
    two_sided& second = make(other);
    *zon_full_key<ipv4_family>(second.responder()) = *zon_full_key<ipv4_family>(first.responder());
    EXPECT_EQ(insert(second), pair_insert_result::linked);
    EXPECT_EQ(find(first.responder()), second.responder()) << "the newest is found";
}

}  // namespace

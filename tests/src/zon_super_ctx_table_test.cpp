// zon_super_ctx_table_test.cpp - super contexts by value and type.

#include "zon_super_ctx_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/allocation_faults.h"
#include "zon_key_hash_funcs_inline.h"

namespace {

constexpr auto type_0 = ZON_SUPER_CONTEXT_IDENTITY;
constexpr auto type_1 = static_cast<zon_super_context_types_e>(1);

zon_super_context_t record_of(uint32_t context, zon_super_context_types_e type) {
    zon_super_context_t record{};
    record.context = context;
    record.type = type;
    return record;
}

class super_context_table : public ::testing::Test {
protected:
    void SetUp() override {
        table = zon_super_context_table_create(1);
        ASSERT_NE(table, nullptr);
    }
    void TearDown() override { zon_super_context_table_destroy(table); }

    zon_super_context_t* look_up(uint32_t context, zon_super_context_types_e type) {
        const zon_super_context_t key = record_of(context, type);
        return zon_super_context_table_lookup(table, &key);
    }

    // Values that all fall into the bucket of the first one.
    std::vector<uint32_t> values_of_one_bucket(size_t count) const {
        std::vector<uint32_t> values;
        const zon_super_context_t first = record_of(1, type_0);
        for (uint32_t value = 1; values.size() < count; ++value) {
            const zon_super_context_t record = record_of(value, type_0);
            if (zon_super_context_hash(table, &record) == zon_super_context_hash(table, &first))
                values.push_back(value);
        }
        return values;
    }

    zon_super_context_table_t* table = nullptr;
};

struct size_row {
    uint32_t requested;
    uint32_t buckets;
};

class super_context_table_size : public ::testing::TestWithParam<size_row> {};

}  // namespace

TEST_P(super_context_table_size, is_what_was_asked_for_but_at_least_100) {
    zon_super_context_table_t* table = zon_super_context_table_create(GetParam().requested);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->max_size, GetParam().buckets);
    EXPECT_EQ(table->allocated, 0u);
    for (uint32_t bucket = 0; bucket < table->max_size; ++bucket)
        ASSERT_EQ(table->table[bucket], nullptr);
    for (const auto lookup : table->lookup_funcs)
        EXPECT_EQ(lookup, nullptr);
    for (const auto deleted : table->delete_funcs)
        EXPECT_EQ(deleted, nullptr);
    zon_super_context_table_destroy(table);
}

INSTANTIATE_TEST_SUITE_P(, super_context_table_size,
                         ::testing::Values(size_row{0, 100}, size_row{50, 100}, size_row{99, 100},
                                           size_row{100, 100}, size_row{101, 101},
                                           size_row{5000, 5000}),
                         [](const auto& row) {
                             return "of_" + std::to_string(row.param.requested);
                         });

TEST(super_context_table_memory, that_is_missing_gives_no_table) {
    for (const int requests_before : {0, 1}) {
        const zon_test::failing_table_memory fault(requests_before);
        EXPECT_EQ(zon_super_context_table_create(100), nullptr);
        EXPECT_TRUE(fault.has_failed());
    }
}

TEST_F(super_context_table, hashes_the_value_alone) {
    for (const uint32_t value : {0u, 1u, 77u, 0xffffffffu}) {
        const zon_super_context_t first = record_of(value, type_0);
        const zon_super_context_t second = record_of(value, type_1);
        EXPECT_EQ(zon_super_context_hash(table, &first), jenkins_hashword_2006(&value, 1) % 100);
        EXPECT_EQ(zon_super_context_hash(table, &second), zon_super_context_hash(table, &first));
    }
}

TEST_F(super_context_table, finds_by_value_and_type) {
    zon_super_context_t first = record_of(77, type_0);
    zon_super_context_t second = record_of(77, type_1);
    EXPECT_TRUE(zon_super_context_table_insert(table, &first));
    EXPECT_TRUE(zon_super_context_table_insert(table, &second));
    EXPECT_EQ(table->allocated, 2u);
    EXPECT_EQ(look_up(77, type_0), &first);
    EXPECT_EQ(look_up(77, type_1), &second);
    EXPECT_EQ(look_up(78, type_0), nullptr);
    EXPECT_EQ(look_up(77, static_cast<zon_super_context_types_e>(2)), nullptr);
}

TEST_F(super_context_table, finds_the_newest_of_two_equal_ones) {
    zon_super_context_t older = record_of(77, type_0);
    zon_super_context_t newer = record_of(77, type_0);
    zon_super_context_table_insert(table, &older);
    zon_super_context_table_insert(table, &newer);
    EXPECT_EQ(look_up(77, type_0), &newer);
    EXPECT_TRUE(zon_super_context_table_remove(table, &newer));
    EXPECT_EQ(look_up(77, type_0), &older);
}

TEST_F(super_context_table, removes_from_head_middle_and_end_of_a_bucket) {
    const std::vector<uint32_t> values = values_of_one_bucket(4);
    std::vector<zon_super_context_t> records;
    for (const uint32_t value : values)
        records.push_back(record_of(value, type_0));
    for (zon_super_context_t& record : records)
        ASSERT_TRUE(zon_super_context_table_insert(table, &record));
    std::vector<bool> present(4, true);
    for (const size_t gone :
         {size_t{1}, size_t{3}, size_t{0}, size_t{2}}) {  // the head is the one inserted last
        EXPECT_TRUE(zon_super_context_table_remove(table, &records[gone]));
        present[gone] = false;
        for (size_t i = 0; i < 4; ++i)
            EXPECT_EQ(look_up(values[i], type_0), present[i] ? &records[i] : nullptr);
    }
    EXPECT_EQ(table->allocated, 0u);
}

TEST_F(super_context_table, does_not_remove_what_it_does_not_hold) {
    zon_super_context_t held = record_of(77, type_0);
    zon_super_context_t equal = record_of(77, type_0);
    EXPECT_FALSE(zon_super_context_table_remove(table, &held));
    zon_super_context_table_insert(table, &held);
    EXPECT_FALSE(zon_super_context_table_remove(table, &equal));
    EXPECT_EQ(table->allocated, 1u);
}

TEST_F(super_context_table, refuses_null) {
    zon_super_context_t record = record_of(77, type_0);
    EXPECT_FALSE(zon_super_context_table_insert(table, nullptr));
    EXPECT_FALSE(zon_super_context_table_insert(nullptr, &record));
    EXPECT_FALSE(zon_super_context_table_remove(table, nullptr));
    EXPECT_FALSE(zon_super_context_table_remove(nullptr, &record));
    EXPECT_EQ(zon_super_context_table_lookup(table, nullptr), nullptr);
    EXPECT_EQ(zon_super_context_table_lookup(nullptr, &record), nullptr);
    zon_super_context_table_destroy(nullptr);
}

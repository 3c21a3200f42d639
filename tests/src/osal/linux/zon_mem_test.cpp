// zon_mem_test.cpp - the six chunks, and the stacks of ready records before three of them.

#include "osal/zon_mem.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "support/allocation_faults.h"
#include "support/captured_output.h"
#include "support/fixed_time_stamp.h"
#include "vem/vem_mem_chunk.h"

using zon_test::captured_output;
using zon_test::fixed_time_stamp;

namespace {

struct type_row {
    const char* name;
    zon_memory_type type;
    int value;
    vem_chunk_type zon_chunk_mem_t::*handle;
    size_t element_size;
    bool has_stack;
};

constexpr type_row type_rows[] = {
    {"ipv4_half_flow", ZON_IPV4_HALF_FLOW_MEM_TYPE, 1, &zon_chunk_mem_t::zon_ipv4_half_flow_mem, 72,
     true},
    {"ipv6_half_flow", ZON_IPV6_HALF_FLOW_MEM_TYPE, 2, &zon_chunk_mem_t::zon_ipv6_half_flow_mem, 96,
     false},
    {"flow", ZON_FLOW_MEM_TYPE, 3, &zon_chunk_mem_t::zon_flow_mem, zon_flow_record_size, true},
    {"super_ctx", ZON_SUPER_CTX_MEM_TYPE, 4, &zon_chunk_mem_t::zon_super_ctx_mem, 288, false},
    {"flow_list_element", ZON_FLOW_LIST_ELEMENT_MEM_TYPE, 5, &zon_chunk_mem_t::zon_flow_list_mem,
     16, false},
    {"flow_fo", ZON_FLOW_FO_MEM_TYPE, 6, &zon_chunk_mem_t::zon_flow_fo_mem, 24, false},
};

constexpr zon_memory_type no_types[] = {static_cast<zon_memory_type>(0), ZON_MEM_TYPE_MAX,
                                        static_cast<zon_memory_type>(8),
                                        static_cast<zon_memory_type>(-1)};

class memory_chunks : public ::testing::TestWithParam<type_row> {
protected:
    void TearDown() override { zon_mem_chunk_destroy(&chunks); }

    void create(uint32_t ready, uint32_t step = 16) {
        ASSERT_TRUE(zon_mem_chunk_create(ready, &chunks, step));
    }

    void* allocate(zon_memory_type type) { return zon_private_chunk_malloc(type, &chunks); }
    bool release(zon_memory_type type, void* data) {
        return zon_private_chunk_free(type, data, &chunks);
    }

    std::vector<void*> pop_all(zon_memory_type type, int count) {
        std::vector<void*> popped;
        for (int i = 0; i < count; ++i)
            popped.push_back(allocate(type));
        return popped;
    }

    zon_chunk_mem_t chunks{};
};

using chunk_of_type = memory_chunks;

struct stack_view {
    void**& slots;
    int32_t& count;
    int32_t& count_init;
};

const stack_view ipv4_stack{zon_private_ipv4_flow_mem_buffer,
                            zon_private_ipv4_flow_mem_buffer_count,
                            zon_private_ipv4_flow_mem_buffer_count_init};
const stack_view ipv6_stack{zon_private_ipv6_flow_mem_buffer,
                            zon_private_ipv6_flow_mem_buffer_count,
                            zon_private_ipv6_flow_mem_buffer_count_init};
const stack_view flow_stack{zon_private_flow_mem_buffer, zon_private_flow_mem_buffer_count,
                            zon_private_flow_mem_buffer_count_init};

std::string row_name(const ::testing::TestParamInfo<type_row>& row) {
    return row.param.name;
}

}  // namespace

// ---- every type ----

TEST_P(chunk_of_type, is_selected_by_its_value) {
    create(0);
    EXPECT_EQ(static_cast<int>(GetParam().type), GetParam().value);
    void* data = zon_mem_chunk_malloc(GetParam().type, &chunks);
    ASSERT_NE(data, nullptr);
    // The chunk of the type, and no other, hands the record out again.
    EXPECT_TRUE(zon_mem_chunk_free(data, GetParam().type, &chunks));
    EXPECT_EQ(vem_mem_chunk_malloc(chunks.*GetParam().handle), data);
}

TEST_P(chunk_of_type, holds_records_of_its_size_side_by_side) {
    create(0);
    auto* first = static_cast<char*>(zon_mem_chunk_malloc(GetParam().type, &chunks));
    auto* second = static_cast<char*>(zon_mem_chunk_malloc(GetParam().type, &chunks));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(second - first, static_cast<ptrdiff_t>(GetParam().element_size));
    memset(first, 0x5a, GetParam().element_size);
    memset(second, 0xa5, GetParam().element_size);
}

TEST_P(chunk_of_type, gives_back_what_the_front_end_was_given) {
    create(2);
    std::set<void*> seen;
    std::vector<void*> held = pop_all(GetParam().type, 50);
    for (void* data : held) {
        ASSERT_NE(data, nullptr);
        EXPECT_TRUE(seen.insert(data).second) << "a record was handed out twice";
        memset(data, 0x5a, GetParam().element_size);
    }
    for (void* data : held)
        EXPECT_TRUE(release(GetParam().type, data));
}

TEST_P(chunk_of_type, has_a_ready_stack_or_none) {
    create(3);
    const int32_t ready = ipv4_stack.count + ipv6_stack.count + flow_stack.count;
    void* data = allocate(GetParam().type);
    EXPECT_EQ(ipv4_stack.count + ipv6_stack.count + flow_stack.count,
              ready - (GetParam().has_stack ? 1 : 0));
    EXPECT_TRUE(release(GetParam().type, data));
    EXPECT_EQ(ipv4_stack.count + ipv6_stack.count + flow_stack.count, ready);
}

TEST_P(chunk_of_type, needs_a_chunk_set) {
    EXPECT_EQ(zon_mem_chunk_malloc(GetParam().type, nullptr), nullptr);
    int record = 0;
    EXPECT_FALSE(zon_mem_chunk_free(&record, GetParam().type, nullptr));
    create(0);
    EXPECT_EQ(zon_private_chunk_malloc(GetParam().type, nullptr), nullptr);
    EXPECT_FALSE(zon_private_chunk_free(GetParam().type, &record, nullptr));
}

TEST_P(chunk_of_type, that_is_missing_fails_destruction_but_the_rest_is_destroyed) {
    create(2);
    vem_mem_chunk_destroy(chunks.*GetParam().handle);
    chunks.*GetParam().handle = nullptr;
    // The ready records of a chunk that is gone are gone with it.
    EXPECT_FALSE(zon_mem_chunk_destroy(&chunks));
    for (const type_row& row : type_rows)
        EXPECT_EQ(chunks.*row.handle, nullptr) << row.name;
    create(1);
    EXPECT_TRUE(zon_mem_chunk_destroy(&chunks));
}

INSTANTIATE_TEST_SUITE_P(, chunk_of_type, ::testing::ValuesIn(type_rows), row_name);

// ---- no type ----

TEST_F(memory_chunks, give_nothing_for_a_type_outside_one_to_six_and_touch_nothing) {
    create(2);
    int record = 0;
    for (const zon_memory_type type : no_types) {
        EXPECT_EQ(zon_mem_chunk_malloc(type, &chunks), nullptr);
        EXPECT_FALSE(zon_mem_chunk_free(&record, type, &chunks));
        EXPECT_EQ(allocate(type), nullptr);
        EXPECT_FALSE(release(type, &record));
    }
    EXPECT_EQ(flow_stack.count, 2);
    EXPECT_EQ(ipv4_stack.count, 4);
    EXPECT_EQ(ipv6_stack.count, 0);
}

TEST_F(memory_chunks, trace_a_record_that_is_refused) {
    create(0);
    const fixed_time_stamp stamp;
    captured_output errors(stderr);
    int record = 0;
    zon_private_chunk_free_or_trace(ZON_MEM_TYPE_MAX, &record, &chunks, "src/a_unit.cpp", 77);
    EXPECT_EQ(errors.text(), "noon : Could not free memory src/a_unit.cpp: 77");
}

TEST_F(memory_chunks, trace_nothing_for_a_record_that_is_taken) {
    create(0);
    captured_output errors(stderr);
    zon_private_chunk_free_or_trace(ZON_FLOW_FO_MEM_TYPE, allocate(ZON_FLOW_FO_MEM_TYPE), &chunks);
    EXPECT_EQ(errors.text(), "");
}

// ---- creation and destruction ----

TEST_F(memory_chunks, cannot_be_made_or_destroyed_nowhere) {
    EXPECT_FALSE(zon_mem_chunk_create(10, nullptr, 16));
    EXPECT_FALSE(zon_mem_chunk_destroy(nullptr));
}

TEST_F(memory_chunks, are_not_made_without_memory_for_a_stack_that_is_used) {
    struct {
        const char* array;
        int requests_before;
        bool made;
    } const rows[] = {
        {"IPv4 half flows", 0, false}, {"IPv6 half flows", 1, true}, {"flows", 2, false}};
    for (const auto& row : rows) {
        const zon_test::failing_table_memory fault(row.requests_before);
        EXPECT_EQ(zon_mem_chunk_create(3, &chunks, 16), row.made) << row.array;
        EXPECT_TRUE(fault.has_failed()) << row.array;
        EXPECT_EQ(chunks.zon_flow_mem != nullptr, row.made) << row.array;
        EXPECT_EQ(zon_mem_chunk_destroy(&chunks), row.made) << row.array;
        for (const stack_view& stack : {flow_stack, ipv4_stack, ipv6_stack})
            EXPECT_EQ(stack.slots, nullptr) << row.array << ": an array is left";
    }
}

TEST_F(memory_chunks, start_with_ready_flows_and_twice_as_many_ipv4_half_flows) {
    create(10);
    EXPECT_EQ(flow_stack.count, 10);
    EXPECT_EQ(flow_stack.count_init, 10);
    EXPECT_EQ(ipv4_stack.count, 20);
    EXPECT_EQ(ipv4_stack.count_init, 20);
    EXPECT_EQ(ipv6_stack.count, 0);
    EXPECT_EQ(ipv6_stack.count_init, 0);
}

TEST_F(memory_chunks, without_ready_records_come_straight_from_the_chunks) {
    create(0);
    EXPECT_EQ(flow_stack.count_init, 0);
    EXPECT_EQ(ipv4_stack.count_init, 0);
    void* flow = allocate(ZON_FLOW_MEM_TYPE);
    void* half_flow = allocate(ZON_IPV4_HALF_FLOW_MEM_TYPE);
    EXPECT_NE(flow, nullptr);
    EXPECT_NE(half_flow, nullptr);
    EXPECT_TRUE(release(ZON_FLOW_MEM_TYPE, flow));
    EXPECT_TRUE(release(ZON_IPV4_HALF_FLOW_MEM_TYPE, half_flow));
    EXPECT_EQ(flow_stack.count, 0);
    EXPECT_EQ(ipv4_stack.count, 0);
    EXPECT_EQ(zon_mem_chunk_malloc(ZON_FLOW_MEM_TYPE, &chunks), flow)
        << "the record did not go back to its chunk";
}

TEST_F(memory_chunks, may_grow_by_nothing_at_a_time) {
    create(1, 0);
    EXPECT_NE(allocate(ZON_FLOW_MEM_TYPE), nullptr);
    EXPECT_NE(allocate(ZON_FLOW_MEM_TYPE), nullptr);
}

TEST_F(memory_chunks, clear_their_stacks_when_they_are_destroyed) {
    create(4);
    EXPECT_TRUE(zon_mem_chunk_destroy(&chunks));
    for (const stack_view& stack : {flow_stack, ipv4_stack, ipv6_stack}) {
        EXPECT_EQ(stack.slots, nullptr);
        EXPECT_EQ(stack.count, 0);
        EXPECT_EQ(stack.count_init, 0);
    }
    EXPECT_FALSE(zon_mem_chunk_destroy(&chunks)) << "the chunks were destroyed twice";
}

TEST_F(memory_chunks, are_destroyed_with_records_still_out) {
    create(4);
    allocate(ZON_FLOW_MEM_TYPE);
    for (int i = 0; i < 100; ++i)
        allocate(ZON_IPV4_HALF_FLOW_MEM_TYPE);
    EXPECT_TRUE(zon_mem_chunk_destroy(&chunks));
}

// ---- the stacks ----

TEST_F(memory_chunks, hand_out_last_what_came_first) {
    create(3);
    const std::vector<void*> stacked(flow_stack.slots, flow_stack.slots + 3);
    const std::vector<void*> popped = pop_all(ZON_FLOW_MEM_TYPE, 3);
    EXPECT_EQ(popped, std::vector<void*>(stacked.rbegin(), stacked.rend()));
    EXPECT_EQ(flow_stack.count, 0);
    EXPECT_EQ(flow_stack.count_init, 3);
}

// Destruction gives back what stands in the slots: a record that is out must not.
TEST_F(memory_chunks, keep_no_trace_of_a_record_that_left_its_stack) {
    create(3);
    allocate(ZON_FLOW_MEM_TYPE);
    EXPECT_NE(flow_stack.slots[1], nullptr);
    EXPECT_EQ(flow_stack.slots[2], nullptr);
}

TEST_F(memory_chunks, hand_out_next_the_record_released_last) {
    create(3);
    void* first = allocate(ZON_IPV4_HALF_FLOW_MEM_TYPE);
    void* second = allocate(ZON_IPV4_HALF_FLOW_MEM_TYPE);
    release(ZON_IPV4_HALF_FLOW_MEM_TYPE, second);
    release(ZON_IPV4_HALF_FLOW_MEM_TYPE, first);
    EXPECT_EQ(allocate(ZON_IPV4_HALF_FLOW_MEM_TYPE), first);
    EXPECT_EQ(allocate(ZON_IPV4_HALF_FLOW_MEM_TYPE), second);
}

TEST_F(memory_chunks, give_the_release_beyond_a_full_stack_to_the_chunk) {
    create(5);
    std::vector<void*> held = pop_all(ZON_FLOW_MEM_TYPE, 5);
    void* beyond = allocate(ZON_FLOW_MEM_TYPE);
    for (void* data : held)
        EXPECT_TRUE(release(ZON_FLOW_MEM_TYPE, data));
    EXPECT_EQ(flow_stack.count, flow_stack.count_init);
    EXPECT_TRUE(release(ZON_FLOW_MEM_TYPE, beyond));
    EXPECT_EQ(flow_stack.count, 5);
    EXPECT_EQ(zon_mem_chunk_malloc(ZON_FLOW_MEM_TYPE, &chunks), beyond);
}

TEST_F(memory_chunks, never_stack_ipv6_half_flows) {
    create(5);
    void* half_flow = allocate(ZON_IPV6_HALF_FLOW_MEM_TYPE);
    EXPECT_TRUE(release(ZON_IPV6_HALF_FLOW_MEM_TYPE, half_flow));
    EXPECT_EQ(ipv6_stack.count, 0);
    EXPECT_EQ(zon_mem_chunk_malloc(ZON_IPV6_HALF_FLOW_MEM_TYPE, &chunks), half_flow);
}

TEST_F(memory_chunks, do_not_stack_a_null_record) {
    create(2);
    allocate(ZON_FLOW_MEM_TYPE);
    EXPECT_FALSE(release(ZON_FLOW_MEM_TYPE, nullptr));
    EXPECT_EQ(flow_stack.count, 1);
}

TEST(heap, is_handed_out_zero_filled) {
    auto* words = static_cast<uint64_t*>(zon_heap_zalloc(1000, sizeof(uint64_t)));
    ASSERT_NE(words, nullptr);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(words[i], 0u);
    free(words);
}

// zon_test_packets_memory_test.cpp - where the packet kit takes its memory, what becomes of a
// packet without it, and what an engine answers that is not there.

#include "src/zon_engine_debug/zon_test_packets_fixture.h"
#include "support/allocation_faults.h"

using namespace zon_test;

namespace {

class kit_memory : public every_handler {
protected:
    static int32_t ready() {
        return is_ipv4(GetParam()) ? zon_private_ipv4_flow_mem_buffer_count
                                   : zon_private_ipv6_flow_mem_buffer_count;
    }
    static vem_chunk_type& chunk() {
        return is_ipv4(GetParam()) ? g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem
                                   : g_zon->zon_chunk_ptr.zon_ipv6_half_flow_mem;
    }
    // Takes every ready record away while it lives.
    class empty_reserve {
    public:
        empty_reserve() {
            while (ready() > 0)
                taken_.push_back(
                    zon_private_chunk_malloc(ZON_IPV4_HALF_FLOW_MEM_TYPE, &g_zon->zon_chunk_ptr));
        }
        ~empty_reserve() {
            for (void* record : taken_)
                zon_private_chunk_free(ZON_IPV4_HALF_FLOW_MEM_TYPE, record, &g_zon->zon_chunk_ptr);
        }

    private:
        std::vector<void*> taken_;
    };
};

TEST_P(kit_memory, of_the_key_is_borrowed_past_the_counters) {
    packet(syn());
    const memory_usage_stats_t before = g_zon->memory_usage_stats;
    const int32_t ready_before = ready();
    packet(syn());
    EXPECT_EQ(ready(), ready_before);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count,
              before.ipv4_half_flow_alloc_count);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv6_half_flow_alloc_count,
              before.ipv6_half_flow_alloc_count);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 0u);
}

int32_t ready_during_call;
bool note_ready(void*, zon_client_id_e) {
    ready_during_call = zon_private_ipv4_flow_mem_buffer_count;
    return false;
}

TEST_P(kit_memory, of_an_ipv4_key_comes_from_the_reserve) {
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, note_ready), zon_error_none);
    const int32_t before = zon_private_ipv4_flow_mem_buffer_count;
    packet(syn());
    EXPECT_EQ(ready_during_call, before - (is_ipv4(GetParam()) ? 1 : 0));
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer_count, before);
}

TEST_P(kit_memory, of_the_key_comes_from_the_chunk_when_the_reserve_is_empty) {
    const empty_reserve nothing_ready;
    EXPECT_NE(packet(syn()).fid, 0u);
}

TEST_P(kit_memory, of_the_key_may_be_missing) {
    const empty_reserve nothing_ready;
    const vem_chunk_type kept = std::exchange(chunk(), nullptr);
    const handled result = packet(syn());
    chunk() = kept;
    EXPECT_EQ(result.fid, 0u);
    EXPECT_EQ(result.error, zon_error_memory);
    EXPECT_EQ(result.seen.packet_seen, 0xEE) << "nothing was looked at";
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 0u);
    EXPECT_EQ(elements(), 0u);
}

TEST_P(kit_memory, of_the_packet_may_be_missing) {
    const int32_t ready_before = ready();
    const failing_table_memory failing(0);
    const handled result = packet(syn());
    EXPECT_TRUE(failing.has_failed());
    EXPECT_EQ(result.fid, 0u);
    EXPECT_EQ(result.error, zon_error_memory);
    EXPECT_EQ(result.seen.packet_seen, 0xEE);
    EXPECT_EQ(ready(), ready_before) << "the key is given back";
    EXPECT_EQ(elements(), 0u);
}

TEST_P(kit_memory, may_be_missing_where_nobody_asks_for_the_error) {
    const failing_table_memory failing(0);
    EXPECT_EQ(call(GetParam(), syn(), nullptr, nullptr), 0u);
}

vem_chunk_type* chunk_to_lose;
bool lose_chunk(void*, zon_client_id_e) {
    *chunk_to_lose = nullptr;
    return false;
}

TEST_P(kit_memory, that_cannot_be_given_back_is_reported) {
    const empty_reserve nothing_ready;
    // The reserve must not take the record instead.
    const int32_t capacity = std::exchange(zon_private_ipv4_flow_mem_buffer_count_init, 0);
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, lose_chunk), zon_error_none);
    chunk_to_lose = &chunk();
    const vem_chunk_type kept = chunk();
    const std::string text = traced([] { packet(syn()); });
    chunk() = kept;
    zon_private_ipv4_flow_mem_buffer_count_init = capacity;
    ++(is_ipv4(GetParam()) ? lost_on_purpose.ipv4_half_flows : lost_on_purpose.ipv6_half_flows);
    const size_t at = text.find(" : Could not free memory src/zon_engine_debug: ");
    ASSERT_NE(at, std::string::npos) << text;
    const size_t number = text.find_last_of(' ') + 1;
    const std::string line =
        text.substr(number, text.find_first_not_of("0123456789", number) - number);
    EXPECT_GT(line.size(), 0u);
    EXPECT_EQ(text.substr(number + line.size()), GetParam() == handler::ipv4 ? "!\n" : "");
}

void expect_refusal_of_every_kind() {
    for (const handler which :
         {handler::ipv4_tcp, handler::ipv4, handler::ipv6_tcp, handler::ipv6}) {
        const handled result = hand_in(which, kit_packet{});
        EXPECT_EQ(result.fid, 0u);
        EXPECT_EQ(result.error, zon_error_engine_not_init);
        EXPECT_EQ(result.seen.packet_seen, 0xEE);
        EXPECT_EQ(call(which, kit_packet{}, nullptr, nullptr), 0u);
    }
}

TEST(packet_kit_without_an_engine, reports_that_there_is_none) {
    ASSERT_EQ(g_zon, nullptr);
    expect_refusal_of_every_kind();
}

TEST(packet_kit_on_half_an_engine, reports_that_there_is_none) {
    for (const zon_error_t missing :
         {zon_error_flow_table_creation_failed, zon_error_fid_table_creation_failed}) {
        zon_error_t failed = zon_error_none;
        for (int request = 1; failed != missing && request < 20; ++request) {
            if (g_zon != nullptr) {
                ASSERT_EQ(zon_destroy(), zon_error_none);
            }
            const failing_table_memory failing(request);
            failed = zon_init(100, 0, 10, 4, 0, 16, 10);
        }
        ASSERT_EQ(failed, missing);
        expect_refusal_of_every_kind();
        ASSERT_EQ(zon_destroy(), zon_error_none);
    }
}

INSTANTIATE_TEST_SUITE_P(all, kit_memory, all_handlers, handler_name);

}  // namespace

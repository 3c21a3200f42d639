// zon_preflow_refusals_test.cpp - announced flows that there is no memory or no place in a bucket
// for.

#include <utility>

#include "src/zon_api/zon_preflow_fixture.h"

using namespace zon_test;

namespace {

// ---- no memory ----

TEST_F(pre_flows, without_a_record_are_refused_and_leave_nothing) {
    usage_may_drift = true;
    const uint32_t errors = g_zon->error_stats.flow_alloc_errors;
    const uint32_t usage = g_zon->memory_usage_stats.ipv4_half_flow_alloc_count;
    const uint32_t chunk = std::exchange(g_zon->fid_table->chunk_size, 0u);
    zon_flow_t* free_records = std::exchange(g_zon->fid_table->free_head, nullptr);
    zon_fid_t fid = 7;
    zon_debug_flag_engine = true;
    const std::string text = traced([&] {
        EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, nullptr),
                  zon_error_memory);
    });
    zon_debug_flag_engine = false;
    EXPECT_TRUE(ends_with(text, "\nZON Engine: ZON_ERRMSG_NO_MEMORY, ")) << text;
    EXPECT_EQ(fid, 0u);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, errors + 1);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, usage);
    EXPECT_EQ(elements(), 0u);
    EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
    g_zon->fid_table->chunk_size = chunk;
    g_zon->fid_table->free_head = free_records;
}

class pre_flows_of_little_memory : public pre_flows {
protected:
    pre_flows_of_little_memory() {
        parameters.max_mem_buffer_init = 1;
        usage_may_drift = true;
    }
    static void expect_refusal(const zon_flow_tuple_t& of, zon_fid_t parent = 0) {
        zon_debug_flag_engine = true;
        const std::string text = traced([&] {
            zon_fid_t fid = 7;
            zon_lock_t lock = &fid;
            EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &of, parent, &fid, &lock),
                      zon_error_memory);
            EXPECT_EQ(fid, 0u);
            EXPECT_EQ(lock, nullptr);
        });
        zon_debug_flag_engine = false;
        EXPECT_TRUE(ends_with(text, "\nZON Engine: ZON_ERRMSG_NO_MEMORY, ")) << text;
        EXPECT_TRUE(no_lock_is_held());
    }
};

// Half flows of this family come from their chunk alone.
TEST_F(pre_flows_of_little_memory, of_ipv6_are_refused_for_each_half_flow_too) {
    const zon_fid_t parent = udp_flow(900);
    for (const int half_flows_made : {0, 1}) {
        const failing_record_memory failing(half_flows_made);
        expect_refusal(tuple6("2001:db8::1", 1000, "2001:db8::2", 53), parent);
        EXPECT_TRUE(failing.has_failed());
        EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors,
                  static_cast<uint32_t>(half_flows_made + 1));
        EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr).ipv6_half_flows, 0);
    }
    EXPECT_EQ(elements(), 2u);
}

TEST_F(pre_flows_of_little_memory, are_refused_for_each_half_flow_and_counted_once) {
    const vem_chunk_type chunk =
        std::exchange(g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem, nullptr);
    std::vector<zon_half_flow_t*> taken;
    const auto leave_ready = [&](int32_t ready) {
        while (zon_private_ipv4_flow_mem_buffer_count > ready) {
            taken.push_back(zon_allocate_half_flow(ZON_IPV4_KEY_COMPLETE));
            taken.back()->key.key_type = ZON_IPV4_KEY_COMPLETE;
        }
    };
    leave_ready(1);
    expect_refusal(tuple);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 1u);
    EXPECT_EQ(zon_private_ipv4_flow_mem_buffer_count, 1);
    leave_ready(0);
    expect_refusal(tuple);
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 2u);
    for (zon_half_flow_t* half : taken)
        zon_deallocate_half_flow(half);
    g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem = chunk;
}

// ---- full buckets ----

class pre_flows_in_shallow_buckets : public pre_flows {
protected:
    pre_flows_in_shallow_buckets() {
        parameters.max_flows = 10;
        parameters.max_bucket_depth = 1;
    }
    // A tuple whose initiator's and responder's buckets are, or are not, the two buckets of the
    // flow on the way.
    zon_flow_tuple_t tuple_with(bool initiator_blocked, bool responder_blocked) const {
        const int taken1 = bucket_of(tuple);
        const int taken2 = bucket_of(reversed(tuple));
        for (uint16_t port = 2000;; ++port) {
            const zon_flow_tuple_t wanted = tuple4(host_a, port, host_b, 53);
            const int b1 = bucket_of(wanted);
            const int b2 = bucket_of(reversed(wanted));
            if (b1 != b2 && (b1 == taken1 || b1 == taken2) == initiator_blocked &&
                (b2 == taken1 || b2 == taken2) == responder_blocked)
                return wanted;
        }
    }
    void occupy() {
        // The flow that stands in the way needs two buckets of its own.
        while (bucket_of(tuple) == bucket_of(reversed(tuple)))
            ++tuple.src_port;
        ASSERT_NE(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple), 0u);
    }
    static std::string add_refused(const zon_flow_tuple_t& of, zon_fid_t parent) {
        zon_errlog = true;
        return traced([&] {
            zon_fid_t fid = 7;
            zon_lock_t lock = nullptr;
            EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &of, parent, &fid, &lock),
                      zon_error_flow_creation_prevented);
            EXPECT_EQ(fid, 0u);
            EXPECT_EQ(lock, nullptr);
        });
    }
};

std::string prevented(zon_fid_t parent) {
    return "ZON_MSG_INDEX: 3. Flow creation was prevented because of hash table bucket depth  "
           "zon_private_insert_incomplete_tuple, parent_fid::" +
           std::to_string(parent) + "\n";
}

TEST_F(pre_flows_in_shallow_buckets, are_refused_when_the_first_bucket_is_full) {
    occupy();
    const uint32_t inserts = g_zon->flow_tbl->profile_insert;
    for (const zon_fid_t parent : {0u, 1u, 9u}) {  // none, one that is there, one that is not
        const std::string text = add_refused(tuple_with(true, false), parent);
        EXPECT_TRUE(ends_with(text, prevented(parent))) << text;
    }
    EXPECT_TRUE(no_lock_is_held());
    EXPECT_EQ(elements(), 2u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, inserts);
    EXPECT_EQ(count(ZON_IPV4_KEY_PRE_FLOW_COMPLETE), 2u);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2u);
}

TEST_F(pre_flows_in_shallow_buckets,
       keep_the_place_of_the_first_half_when_the_second_bucket_is_full) {
    occupy();
    const uint32_t inserts = g_zon->flow_tbl->profile_insert;
    const uint32_t deletes = g_zon->flow_tbl->profile_delete;
    const zon_flow_tuple_t refused = tuple_with(false, true);
    const std::string text = add_refused(refused, 1);
    EXPECT_TRUE(ends_with(text, prevented(1))) << text;
    EXPECT_TRUE(no_lock_is_held());
    EXPECT_EQ(elements(), 3u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, inserts + 1);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, deletes);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2u);
    EXPECT_EQ(count(ZON_IPV4_KEY_PRE_FLOW_COMPLETE), 2u);
    EXPECT_EQ(find(refused), 0u);
    // The kept half is nobody's: the next flows do not get its buffer, and packets of the
    // connection do not find it.
    delete_all_flows();
    EXPECT_EQ(elements(), 1u);
    EXPECT_EQ(handle(udp_packet(refused.src_port, 53)).fid, 0u);
    const zon_flow_tuple_t elsewhere = tuple;
    EXPECT_NE(pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, elsewhere), 0u);
    EXPECT_EQ(elements(), 3u);
    // The place stays taken until the engine goes.
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
}

}  // namespace

// zon_half_open_replacement_test.cpp - which half-open flow gives way to a new one, where it is
// looked for, and what holds while it goes.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>
#include <utility>
#include <vector>

#include "support/captured_output.h"
#include "support/half_open_host.h"
#include "support/lock_level.h"

namespace {

using namespace zon_test;

// Three half-open flows at most, and few buckets: every one is near every other.
class three_half_open : public half_open_host {
protected:
    three_half_open() {
        parameters.max_flows = 10;
        share = 30;
    }
    void SetUp() override {
        half_open_host::SetUp();
        for (zon_fid_t& fid : fids)
            fid = syn(++last_number).fid;
        ASSERT_EQ(zon_half_open.count, 3U);
        ASSERT_TRUE(told.empty());
    }
    packet_result syn_of_another() { return syn(++last_number); }

    uint32_t last_number = 0;
    std::array<zon_fid_t, 3> fids{};
};

TEST_F(three_half_open, give_way_in_the_order_of_their_making) {
    for (const zon_fid_t oldest : fids) {
        const packet_result made = syn_of_another();
        EXPECT_NE(made.fid, 0U);
        EXPECT_EQ(made.error, zon_error_none);
        EXPECT_EQ(made.indications.fif, 1);
        EXPECT_EQ(record_of(oldest), nullptr);
        ASSERT_EQ(told.size(), clients);
        for (const told_deletion& one : told) {
            EXPECT_EQ(one.fid, oldest);
            EXPECT_EQ(one.reason, ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE);
        }
        EXPECT_NE(told[0].client, told[1].client);
        told.clear();
        EXPECT_EQ(zon_half_open.count, 3U);
        EXPECT_EQ(flows_in_use(), 3U);
        EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 6U);
    }
}

TEST_F(three_half_open, stay_longer_when_packets_come) {
    EXPECT_EQ(syn(1).fid, fids[0]) << "sent again";
    EXPECT_EQ(handle(connection(2).reversed().flags(tcp_syn | tcp_ack)).fid, fids[1]);
    syn_of_another();
    EXPECT_EQ(times_told(fids[2]), 1U);
    syn_of_another();
    EXPECT_EQ(times_told(fids[0]), 1U);
    EXPECT_EQ(times_told(fids[1]), 0U);
}

TEST_F(three_half_open, keep_their_order_when_the_numbers_wrap) {
    delete_all_flows();
    zon_half_open.newest = 0xfffffffe;
    for (zon_fid_t& fid : fids)
        fid = syn(++last_number).fid;
    EXPECT_EQ(record_of(fids[0])->private_half_open, 0xffffffffU);
    EXPECT_EQ(record_of(fids[1])->private_half_open, 1U) << "0 is no number";
    told.clear();
    for (const zon_fid_t oldest : fids) {
        EXPECT_NE(syn_of_another().fid, 0U);
        EXPECT_EQ(told.back().fid, oldest);
    }
}

// The lock of a flow, held by another thread.
class held_elsewhere {
public:
    explicit held_elsewhere(zon_lock_t lock)
        : holder_([this, lock] {
              const held_lock theirs(lock);
              has_it_ = true;
              has_it_.notify_one();
              const held_lock until_the_end(end_);
          }) {
        has_it_.wait(false);
    }
    ~held_elsewhere() {
        zon_unlock_internal(end_);
        holder_.join();
        zon_lock_destroy(end_);
        std::free(end_);
    }
    held_elsewhere(const held_elsewhere&) = delete;
    held_elsewhere& operator=(const held_elsewhere&) = delete;

private:
    static zon_lock_t new_held_lock() {
        zon_lock_t lock = zon_lock_allocate();
        zon_lock_init(lock);
        zon_lock_internal(lock);
        return lock;
    }
    zon_lock_t end_ = new_held_lock();
    std::atomic<bool> has_it_{false};
    std::thread holder_;
};

TEST_F(three_half_open, are_passed_over_while_another_thread_holds_them) {
    const held_elsewhere busy(record_of(fids[0])->flow_lock);
    EXPECT_NE(syn_of_another().fid, 0U);
    EXPECT_EQ(times_told(fids[0]), 0U);
    EXPECT_EQ(times_told(fids[1]), 1U);
}

TEST_F(three_half_open, give_no_place_while_all_are_held_elsewhere) {
    const held_elsewhere first(record_of(fids[0])->flow_lock);
    const held_elsewhere second(record_of(fids[1])->flow_lock);
    const held_elsewhere third(record_of(fids[2])->flow_lock);
    zon_debug_flag_engine = true;
    captured_output trace(stderr);
    const packet_result refused = syn_of_another();
    zon_debug_flag_engine = false;
    EXPECT_TRUE(trace.text().ends_with("\nZON Engine: Could not allocate memory for the flow"))
        << trace.text();
    EXPECT_EQ(refused.fid, 0U);
    EXPECT_EQ(refused.error, zon_error_memory);
    EXPECT_EQ(refused.indications.fif, 0);
    EXPECT_EQ(refused.indications.flow, 0U);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 1U);
    EXPECT_TRUE(told.empty());
    EXPECT_EQ(flows_in_use(), 3U);
}

TEST_F(three_half_open, go_before_anything_of_the_packet_is_locked) {
    int locked = 0;
    in_delete_callback = [&](zon_fid_t fid) {
        for_each_flow_lock([&](zon_lock_t lock) {
            if (is_free_for_others(lock))
                return;
            ++locked;
            EXPECT_EQ(lock, record_of(fid)->flow_lock);
        });
        EXPECT_EQ(flows_in_use(), 3U) << "the new flow is not made yet";
    };
    EXPECT_NE(syn_of_another().fid, 0U);
    EXPECT_EQ(locked, 1);
}

TEST_F(three_half_open, give_no_place_to_packets_of_delete_callbacks) {
    packet_result from_callback;
    in_delete_callback = [&](zon_fid_t) { from_callback = syn(1000); };
    EXPECT_NE(syn_of_another().fid, 0U);
    EXPECT_EQ(from_callback.error, zon_error_memory);
    EXPECT_EQ(told.size(), clients) << "one flow went";
    EXPECT_EQ(zon_half_open.count, 3U);
    EXPECT_NE(syn_of_another().fid, 0U) << "the next packet replaces one again";
}

TEST_F(three_half_open, keep_their_places_while_their_own_packet_is_on_its_way) {
    static std::vector<zon_fid_t> from_inside;
    static bool inside;
    from_inside.clear();
    inside = false;
    enable(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS);
    ASSERT_EQ(zon_client_register_bypass_cb(client,
                                            [](uint32_t, bool, bool, bool, uint32_t*) {
                                                if (std::exchange(inside, true))
                                                    return;
                                                for (uint32_t number = 501; number <= 504; ++number)
                                                    from_inside.push_back(syn(number).fid);
                                            }),
              zon_error_none);
    const packet_result made = syn(500);
    ASSERT_NE(made.fid, 0U);
    EXPECT_EQ(from_inside.size(), 4U);
    EXPECT_EQ(std::ranges::count(from_inside, 0U), 0);
    EXPECT_EQ(std::ranges::count(from_inside, made.fid), 0) << "its record went to another flow";
    EXPECT_EQ(times_told(made.fid), 0U);
    EXPECT_EQ(handle(connection(500)).fid, made.fid);
    EXPECT_EQ(zon_half_open.count, 3U);
}

TEST_F(three_half_open, are_not_replaced_for_a_connection_that_another_packet_has_made_meanwhile) {
    static zon_fid_t made;
    static bool inside;
    made = 0;
    inside = false;
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client,
                                                     [](void*, zon_client_id_e) {
                                                         if (!inside) {
                                                             inside = true;
                                                             made = syn(500).fid;
                                                         }
                                                         return true;
                                                     }),
              zon_error_none);
    EXPECT_EQ(syn(500).fid, made);
    EXPECT_NE(made, 0U);
    EXPECT_EQ(told.size(), clients) << "one flow went, for the first packet";
    EXPECT_EQ(zon_half_open.count, 3U);
}

TEST_F(three_half_open, make_room_for_flows_of_any_protocol_and_family) {
    EXPECT_NE(datagram(77).fid, 0U);
    EXPECT_NE(syn(78, true).fid, 0U);
    EXPECT_NE(datagram(79, true).fid, 0U);
    for (const zon_fid_t fid : fids)
        EXPECT_EQ(times_told(fid), 1U);
    EXPECT_EQ(zon_half_open.count, 3U);
}

TEST_F(three_half_open, give_no_place_after_they_were_answered) {
    for (uint32_t number = 1; number <= 3; ++number) {
        handle(connection(number).reversed().flags(tcp_syn | tcp_ack));
        handle(connection(number).flags(tcp_ack));
    }
    EXPECT_EQ(zon_half_open.count, 0U);
    for (int more = 0; more < 20; ++more)
        EXPECT_NE(syn_of_another().fid, 0U);
    for (const zon_fid_t fid : fids)
        EXPECT_EQ(times_told(fid), 0U);
}

// ---- the neighbourhood ----

// Ten half-open flows among 1361 buckets: a search sees 256 of them.
class sparse_half_open : public half_open_host {
protected:
    static constexpr int nearby = 256;

    sparse_half_open() { share = 1; }
    void SetUp() override {
        parameters.max_flows = 1000;
        half_open_host::SetUp();
        ASSERT_EQ(zon_half_open.bound, 10U);
        buckets = g_zon->flow_tbl->table->array_size;
        ASSERT_EQ(buckets, 1361);
    }
    static int bucket_of(uint32_t number, bool back) {
        zon_flow_tuple_t tuple{};
        tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
        tuple.src_ip.u.v4_addr = 0x0A000000 + number;
        tuple.dst_ip.u.v4_addr = ipv4_address("192.0.2.2").value;
        tuple.src_port = 4000;
        tuple.dst_port = 80;
        tuple.l4_protocol = ZON_TCP_PROT;
        if (back) {
            std::swap(tuple.src_ip, tuple.dst_ip);
            std::swap(tuple.src_port, tuple.dst_port);
        }
        int bucket = -1;
        EXPECT_EQ(zon_flow_lookup_tamonet(&tuple, &bucket), 0U);
        return bucket;
    }
    bool is_between(int bucket, int first, int last) const {
        return bucket >= first && bucket <= last;
    }
    // The next connection with both halves between the two buckets, or the first in just one.
    uint32_t connection_between(int first, int last) {
        do
            ++last_number;
        while (!is_between(bucket_of(last_number, false), first, last) ||
               !is_between(bucket_of(last_number, true), first, last));
        return last_number;
    }
    uint32_t connection_from(int bucket) {
        do
            ++last_number;
        while (bucket_of(last_number, false) != bucket);
        return last_number;
    }
    std::vector<zon_fid_t> fill_between(int first, int last) {
        std::vector<zon_fid_t> fids;
        while (zon_half_open.count < zon_half_open.bound)
            fids.push_back(syn(connection_between(first, last)).fid);
        return fids;
    }

    int buckets = 0;
    uint32_t last_number = 0;
};

TEST_F(sparse_half_open, give_no_place_to_a_packet_of_a_distant_bucket) {
    fill_between(0, 400);
    const packet_result refused = syn(connection_from(401));
    EXPECT_EQ(refused.error, zon_error_memory);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 1U);
    EXPECT_EQ(syn(connection_from(buckets - nearby)).error, zon_error_memory);
    EXPECT_TRUE(told.empty());
    EXPECT_EQ(zon_half_open.count, 10U);
}

TEST_F(sparse_half_open, are_looked_for_up_to_the_last_bucket_of_the_neighbourhood) {
    fill_between(300, 400);
    int nearest = buckets;
    for (int bucket = 300; bucket <= 400 && nearest == buckets; ++bucket)
        if (g_zon->flow_tbl->table->array[bucket] != nullptr)
            nearest = bucket;
    EXPECT_EQ(syn(connection_from(nearest - nearby)).error, zon_error_memory);
    EXPECT_NE(syn(connection_from(nearest - nearby + 1)).fid, 0U);
    EXPECT_EQ(told.size(), clients);
}

TEST_F(sparse_half_open, are_found_past_the_end_of_the_table) {
    const std::vector<zon_fid_t> fids = fill_between(0, 100);
    EXPECT_NE(syn(connection_from(buckets - 1)).fid, 0U);
    EXPECT_EQ(times_told(fids.front()), 1U);
}

TEST_F(sparse_half_open, are_found_behind_newer_ones_of_their_bucket) {
    std::vector<zon_fid_t> fids;
    while (zon_half_open.count < zon_half_open.bound)
        fids.push_back(syn(connection_from(700)).fid);
    for (const zon_fid_t oldest : fids) {
        EXPECT_NE(syn(connection_from(700)).fid, 0U);
        EXPECT_EQ(told.back().fid, oldest);
    }
}

TEST_F(sparse_half_open, are_looked_for_in_fewer_buckets_when_there_are_more_of_them) {
    EXPECT_EQ(zon_destroy(), zon_error_none);
    ASSERT_EQ(zon_config_set_half_open_share(100), zon_error_none);
    engine_fixture::SetUp();
    // 4 * 1361 / 600 buckets make 9.
    for (uint32_t number = 0; number < 600; ++number)
        syn(connection_between(0, 1000));
    zon_half_open.bound = 600;
    EXPECT_EQ(syn(connection_from(1001)).error, zon_error_memory);
    EXPECT_EQ(syn(connection_from(buckets - 9)).error, zon_error_memory);
    EXPECT_EQ(zon_half_open.count, 600U);
}

}  // namespace

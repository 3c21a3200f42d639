// zon_hashset_move_test.cpp - an item gets another key without ever being absent.

#include "zon_hashset_move.h"

#include "src/zon_api/api_fixture.h"
#include "zon_hashset_internal.h"
#include "zon_key_hash.h"

using namespace zon_test;

namespace {

zon_hashset set_of_engine() {
    return g_zon->flow_tbl->table;
}

class hashset_move : public api_fixture {
protected:
    hashset_move() {
        parameters.max_flows = 10;
        parameters.max_threads = 13;
    }
    static uint32_t bucket_for(const void* half) {
        return bucket_of(set_of_engine(), hash_of_key(static_cast<const zon_half_flow_t*>(half)));
    }
    static void copy_key(zon_hashset_item item, const void* wanted) {
        zon_copy_key(&static_cast<zon_half_flow_t*>(item)->key,
                     &static_cast<const zon_half_flow_t*>(wanted)->key);
    }
    // The key of a flow from host A's port 1000 with another source port, in a bucket other than
    // the flow's own.
    const zon_half_flow_t* wanted_elsewhere(const zon_half_flow_t* half) {
        for (uint16_t port = 2000;; ++port) {
            zon_set_key_ipv4(&wanted.key, ZON_IPV4_KEY_COMPLETE, host_a, host_b, port, 53, udp, 0);
            if (bucket_for(&wanted) != bucket_for(half))
                return reinterpret_cast<const zon_half_flow_t*>(&wanted);
        }
    }
    zon_ipv4_half_flow_t wanted{};
};

// Set while a move rewrites its item.
uint32_t buckets_in_question[2];
bool bucket_was_free[2];

void look_at_buckets(zon_hashset_item item, const void* wanted) {
    std::thread([] {
        for (int i = 0; i < 2; ++i) {
            zon_hashset set = set_of_engine();
            const zon_lock_t lock =
                zon_lock_get_pool_lock(set->bucket_locks, stripe_of(set, buckets_in_question[i]));
            bucket_was_free[i] = zon_try_lock_internal(lock);
            if (bucket_was_free[i])
                zon_unlock_internal(lock);
        }
    }).join();
    zon_copy_key(&static_cast<zon_half_flow_t*>(item)->key,
                 &static_cast<const zon_half_flow_t*>(wanted)->key);
}

TEST_F(hashset_move, shows_the_item_to_nobody_between_the_two_keys) {
    const locked_flow flow = locked_flow::adopt(zon_get_flow(udp_flow(1000)));
    zon_half_flow_t* half = flow->initiator_flow;
    const zon_half_flow_t* to = wanted_elsewhere(half);
    buckets_in_question[0] = bucket_for(half);
    buckets_in_question[1] = bucket_for(to);
    EXPECT_TRUE(zon_hashset_move(set_of_engine(), half, to, look_at_buckets));
    EXPECT_FALSE(bucket_was_free[0]);
    EXPECT_FALSE(bucket_was_free[1]);
}

TEST_F(hashset_move, leaves_the_old_bucket_and_joins_the_new_one) {
    const locked_flow flow = locked_flow::adopt(zon_get_flow(udp_flow(1000)));
    zon_half_flow_t* half = flow->initiator_flow;
    zon_hashset set = set_of_engine();
    const zon_half_flow_t* to = wanted_elsewhere(half);
    const uint32_t from_bucket = bucket_for(half);
    const uint8_t depth_before = set->items_in_bucket[from_bucket];
    EXPECT_TRUE(zon_hashset_move(set, half, to, copy_key));
    EXPECT_EQ(set->items_in_bucket[from_bucket], depth_before - 1);
    EXPECT_EQ(set->array[bucket_for(to)], &half->hdr);
    EXPECT_EQ(zon_hashset_size(set), 2);
}

TEST_F(hashset_move, links_an_item_that_was_outside) {
    const locked_flow flow = locked_flow::adopt(zon_get_flow(udp_flow(1000)));
    zon_half_flow_t* half = flow->initiator_flow;
    zon_hashset set = set_of_engine();
    zon_hashset_remove(set, half);
    half->hdr = {nullptr, nullptr};
    EXPECT_EQ(zon_hashset_size(set), 1);
    EXPECT_TRUE(zon_hashset_move(set, half, wanted_elsewhere(half), copy_key));
    EXPECT_EQ(zon_hashset_size(set), 2);
}

class hashset_move_of_little_depth : public hashset_move {
protected:
    hashset_move_of_little_depth() { parameters.max_bucket_depth = 1; }
};

TEST_F(hashset_move_of_little_depth, within_one_bucket_has_the_room_that_the_item_leaves) {
    const locked_flow flow = locked_flow::adopt(zon_get_flow(udp_flow(1000)));
    zon_half_flow_t* half = flow->initiator_flow;
    wanted.key = *zon_full_key<ipv4_family>(half);
    EXPECT_TRUE(zon_hashset_move(set_of_engine(), half, &wanted, copy_key));
    EXPECT_EQ(zon_hashset_size(set_of_engine()), 2);
}

TEST_F(hashset_move_of_little_depth, into_a_full_bucket_leaves_the_item_outside_under_its_new_key) {
    const locked_flow flow = locked_flow::adopt(zon_get_flow(udp_flow(1000)));
    zon_half_flow_t* half = flow->initiator_flow;
    wanted.key = *zon_full_key<ipv4_family>(flow->responder_flow);
    EXPECT_FALSE(zon_hashset_move(set_of_engine(), half, &wanted, copy_key));
    EXPECT_EQ(half->hdr.pointer_to_us, nullptr);
    EXPECT_EQ(zon_full_key<ipv4_family>(half)->src_ip, host_b);
    EXPECT_EQ(zon_hashset_size(set_of_engine()), 1);
}

}  // namespace

// shared_lock_test.cpp - a flow is deleted while other threads hold, or wait for, the lock that it
// shares with flows of the same bucket.
#include <atomic>
#include <vector>

#include "support/deletion_halfway.h"
#include "support/flow_reader.h"
#include "support/stress_engine.h"

namespace zon_test {
namespace {

std::atomic<bool> telling;
std::atomic<bool> may_end;

// Stays in a delete callback, under the flow's lock, until it is let go.
void linger(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e reason,
            zon_client_id_e) {
    if (reason != ZON_FLOW_CLOSE_REASON_END_OF_FLOW)
        return;
    telling = true;
    wait_until([] { return may_end.load(); });
}

struct lock_row {
    const char* name;
    uint32_t locks;  // of flows and of buckets
};

// Flows whose identifiers are congruent share a lock, and a bucket holds flows of all locks.
class shared_lock : public contended_engine, public ::testing::WithParamInterface<lock_row> {
protected:
    shared_lock() {
        parameters.max_threads = GetParam().locks;
        parameters.max_flows = 13;
    }
    void SetUp() override {
        contended_engine::SetUp();
        telling = false;
        may_end = false;
        ASSERT_EQ(zon_client_register_delete_cb(client, linger), zon_error_none);
        for (uint32_t number = 1; number <= flows; ++number)
            ASSERT_EQ(send(connection_packet::udp(number)).fid, number);
        ASSERT_EQ(record_of(doomed)->flow_lock, record_of(held)->flow_lock);
    }
    void TearDown() override {
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_TRUE(no_lock_is_held());
        contended_engine::TearDown();
    }

    // A thread that looks up every flow, by packet, by tuple and by identifier, and makes one more.
    void start_lookups(uint32_t number) {
        threads.emplace_back([this, number] {
            ++started;
            for (uint32_t round = 0; round < 20; ++round)
                for (uint32_t connection = 1; connection <= flows; ++connection) {
                    EXPECT_NE(send(connection_packet::udp(connection, round % 2 != 0)).fid, 0U);
                    const zon_flow_tuple_t tuple = tuple_of(connection);
                    zon_fid_t fid = 0;
                    zon_lock_t lock = nullptr;
                    if (zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock) ==
                        zon_error_none) {
                        EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
                    }
                    uint32_t count = 0;
                    zon_flow_get_packet_count(connection, &count);
                }
            EXPECT_NE(send(connection_packet::udp(100 + number)).fid, 0U);
        });
    }
    void start_deletion(zon_flow_deletion_reason_e reason) {
        threads.emplace_back([this, reason] {
            ++started;
            EXPECT_TRUE(zon_delete_flow_tamonet(doomed, reason));
            deleted = true;
        });
    }
    void wait_for_starts(uint32_t count) {
        wait_until([this, count] { return started == count; });
        for (int turn = 0; turn < 50; ++turn)
            std::this_thread::yield();
    }
    void finish_and_destroy() {
        for (std::thread& thread : threads)
            thread.join();
        threads.clear();
        EXPECT_TRUE(deleted);
        EXPECT_EQ(zon_destroy(), zon_error_none);
        EXPECT_EQ(g_zon, nullptr);
        contended_engine::SetUp();
    }

    // Identifiers; both lie under the same lock, with one lock and with two.
    static constexpr zon_fid_t doomed = 1;
    static constexpr zon_fid_t held = 3;
    static constexpr uint32_t flows = 6;
    const watchdog watched{std::chrono::seconds(120), [] {}};
    std::vector<std::thread> threads;
    std::atomic<uint32_t> started{0};
    std::atomic<bool> deleted{false};
};

// The deletion waits for the holder, the lookups wait for both, and the holder for nobody.
TEST_P(shared_lock, that_a_client_holds_keeps_a_deletion_waiting_and_nothing_else) {
    const zon_flow_tuple_t tuple = tuple_of(held);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
              zon_error_none);
    ASSERT_EQ(fid, held);
    start_deletion(ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    for (uint32_t number = 0; number < 3; ++number)
        start_lookups(number);
    wait_for_starts(4);
    EXPECT_FALSE(deleted) << "the flow was deleted without its lock";
    // What the holder asks about shares its lock: the flow on its way out, and a bucket's others.
    for (const uint32_t number : {uint32_t{doomed}, uint32_t{held}}) {
        uint32_t count = 0;
        EXPECT_EQ(send(connection_packet::udp(number)).fid, number);
        EXPECT_EQ(zon_flow_get_packet_count(number, &count), zon_error_none);
        EXPECT_GE(count, 2U);
    }
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    finish_and_destroy();
}

// One level of the lock is left with the caller of an update of the VRF, who may take its time.
TEST_P(shared_lock, that_an_update_of_the_vrf_left_keeps_a_deletion_waiting_and_nothing_else) {
    EXPECT_EQ(zon_flow_update_vrf(held, 5), 0);
    start_deletion(ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    for (uint32_t number = 0; number < 3; ++number)
        start_lookups(number);
    wait_for_starts(4);
    EXPECT_FALSE(deleted);
    zon_flow_tuple_t tuple{};
    EXPECT_EQ(zon_flow_get_tuple(held, ZON_DIR_INITIATOR, &tuple), zon_error_none);
    EXPECT_EQ(tuple.vrf_id, 5U);
    EXPECT_EQ(zon_flow_unlock(record_of(held)->flow_lock), zon_error_none);
    finish_and_destroy();
}

// The lookups find the bucket free and the lock of its flows taken.
TEST_P(shared_lock, that_a_delete_callback_keeps_lets_lookups_wait_without_the_bucket) {
    start_deletion(ZON_FLOW_CLOSE_REASON_END_OF_FLOW);
    wait_until([] { return telling.load(); });
    for (uint32_t number = 0; number < 3; ++number)
        start_lookups(number);
    wait_for_starts(4);
    EXPECT_FALSE(deleted);
    // Nobody waits for a flow with a bucket or a table in hand.
    for (int stripe = 0; stripe < g_zon->flow_tbl->table->concurrency_level; ++stripe) {
        const held_lock bucket(
            zon_lock_get_pool_lock(g_zon->flow_tbl->table->bucket_locks, stripe));
    }
    { const held_lock table(g_zon->fid_table->fid_table_lock); }
    may_end = true;
    finish_and_destroy();
}

// The flow is beyond recall and waits for its bucket with its lock held.
TEST_P(shared_lock, of_a_flow_half_deleted_is_waited_for_until_the_bucket_is_free) {
    deletion_halfway deletion(doomed);
    for (uint32_t number = 0; number < 3; ++number)
        start_lookups(number);
    wait_for_starts(3);
    deletion.finish();
    deleted = true;
    finish_and_destroy();
}

INSTANTIATE_TEST_SUITE_P(stress, shared_lock,
                         ::testing::Values(lock_row{"one_lock", 1}, lock_row{"two_locks", 2}),
                         [](const auto& row) { return row.param.name; });

// ---- flows of the same addresses ----

// They differ in their VRF alone, and the newer one comes first in the bucket.
class same_addresses : public contended_engine {
protected:
    void SetUp() override {
        contended_engine::SetUp();
        for (const uint32_t vrf_id : {0U, 1U})
            ASSERT_EQ(send_in(vrf_id), vrf_id + 1);
        ASSERT_NE(record_of(1)->flow_lock, record_of(2)->flow_lock);
    }
    static zon_fid_t send_in(uint32_t vrf_id) {
        connection_packet packet = connection_packet::udp(1);
        sent_packet sent;
        return zon_handle_packet(packet.content.data(), vrf_id, nullptr, &sent.seen, &sent.error);
    }
    static zon_lock_t find_in(uint32_t vrf_id) {
        zon_flow_tuple_t tuple = tuple_of(1);
        tuple.vrf_id = vrf_id;
        zon_fid_t fid = 0;
        zon_lock_t lock = nullptr;
        EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
                  zon_error_none);
        EXPECT_EQ(fid, vrf_id + 1);
        return lock;
    }
};

// A client that holds its own flow may look it up again. If that waited for another client's flow,
// the two could wait for each other.
TEST_F(same_addresses, are_looked_up_without_waiting_for_the_other_flow) {
    const watchdog watched(std::chrono::seconds(60), [] {
        std::fputs("a lookup waits for the flow of another VRF\n", stderr);
    });
    const zon_lock_t newer = find_in(1);
    std::thread([] {
        const zon_lock_t older = find_in(0);
        EXPECT_EQ(send_in(0), 1U);
        EXPECT_EQ(zon_flow_unlock(find_in(0)), zon_error_none);
        EXPECT_EQ(zon_flow_unlock(older), zon_error_none);
    }).join();
    EXPECT_EQ(zon_flow_unlock(newer), zon_error_none);
}

}  // namespace
}  // namespace zon_test

// undone_flows_test.cpp - flows that found no room in the flow table, just when their records are
// given back.
#include <algorithm>
#include <memory>
#include <set>

#include "osal/zon_lock.h"
#include "support/parked_thread.h"
#include "support/stress_engine.h"
#include "zon_fid_table.h"
#include "zon_hashset.h"

namespace zon_test {
namespace {

// Stops what makes a flow at three places, with locks that this thread can go on taking itself:
// before it takes a record, before it links the flow, and, as the flow is refused, between the
// moment that the record is unlocked and the moment that its identifier is free.
class flow_taken_back {
public:
    explicit flow_taken_back(std::function<void()> make) {
        take(fid_table_lock());
        maker_ = std::make_unique<parked_thread>(std::move(make));
        maker_->wait_until_parked();
        for (int stripe = 0; stripe < stripes(); ++stripe)
            take(zon_lock_get_pool_lock(bucket_locks(), stripe));
        zon_unlock_internal(fid_table_lock());
        maker_->wait_until_parked();
        take(fid_table_lock());
        fid_ = newest_flow();
        for (int stripe = 0; stripe < stripes(); ++stripe)
            zon_unlock_pool_internal(bucket_locks(), stripe);
        maker_->wait_until_parked();
    }
    ~flow_taken_back() { finish(); }
    flow_taken_back(const flow_taken_back&) = delete;
    flow_taken_back& operator=(const flow_taken_back&) = delete;

    void finish() {
        if (maker_ != nullptr)
            zon_unlock_internal(fid_table_lock());
        maker_.reset();
    }
    zon_fid_t fid() const { return fid_; }

private:
    // Free, or let go in a moment: tried for, as the engine's order of locks is not kept here.
    static void take(zon_lock_t lock) {
        wait_until([lock] { return zon_try_lock_internal(lock); });
    }
    static zon_lock_pool_t bucket_locks() { return g_zon->flow_tbl->table->bucket_locks; }
    static zon_lock_t fid_table_lock() { return g_zon->fid_table->fid_table_lock; }
    static int stripes() { return std::max(1, g_zon->flow_tbl->table->concurrency_level); }
    // Records are taken in the order of their identifiers, as long as none comes back.
    static zon_fid_t newest_flow() {
        zon_fid_t fid = relaxed_load(g_zon->fid_table->allocated);
        while (fid != 0 && relaxed_load(g_zon->fid_table->table[fid - 1]) == nullptr)
            --fid;
        return fid;
    }

    std::unique_ptr<parked_thread> maker_;
    zon_fid_t fid_ = 0;
};

// A few buckets that hold one item each.
class undone_flows : public contended_engine {
protected:
    undone_flows() {
        parameters.max_flows = 13;
        parameters.max_bucket_depth = 1;
    }
    void SetUp() override {
        contended_engine::SetUp();
        watched_ = std::make_unique<watchdog>(std::chrono::seconds(120), [] {});
    }
    void TearDown() override {
        destroy_after_refused_announcements();
        contended_engine::TearDown();
        watched_.reset();
    }

    static constexpr uint32_t candidates = 64;
    static zon_error_t announce(uint32_t connection, zon_fid_t* fid) {
        const zon_flow_tuple_t tuple = tuple_of(connection);
        return zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, fid, nullptr);
    }

    // What a client asks with an identifier that it has kept from a flow before.
    void expect_to_be_hidden(zon_fid_t fid) {
        static int object;
        zon_flow_tuple_t tuple{};
        zon_flow_t snapshot;
        void* fo = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_INITIATOR, &tuple), zon_error_flow_not_found);
        EXPECT_EQ(zon_flow_get_packet_count(fid, &count), zon_error_flow_not_found);
        EXPECT_EQ(zon_flow_attach_fo(fid, client, ZON_DIR_BI, &object), zon_error_flow_not_found);
        EXPECT_EQ(zon_flow_get_fo_by_fid(fid, client, ZON_DIR_BI, &fo, &snapshot),
                  zon_error_flow_not_found);
        EXPECT_FALSE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    }

private:
    std::unique_ptr<watchdog> watched_;
};

TEST_F(undone_flows, of_packets_are_found_by_no_operation_on_their_identifiers) {
    uint32_t refused = 0;
    while (refused < candidates && send(connection_packet::udp(refused)).fid != 0)
        ++refused;
    ASSERT_LT(refused, candidates) << "all connections found room";
    const uint32_t before = half_flows();
    sent_packet sent{1, zon_error_none, {}};
    {
        flow_taken_back flow([&] { sent = send(connection_packet::udp(refused)); });
        expect_to_be_hidden(flow.fid());
        flow.finish();
    }
    EXPECT_EQ(sent.fid, 0u);
    EXPECT_EQ(half_flows(), before);
}

TEST_F(undone_flows, of_announcements_are_found_by_no_operation_on_their_identifiers) {
    uint32_t refused = 0;
    zon_fid_t fid = 0;
    while (refused < candidates && announce(refused, &fid) == zon_error_none)
        ++refused;
    ASSERT_LT(refused, candidates) << "all connections found room";
    zon_error_t error = zon_error_none;
    {
        flow_taken_back flow([&] { error = announce(refused, &fid); });
        expect_to_be_hidden(flow.fid());
        flow.finish();
    }
    EXPECT_EQ(error, zon_error_flow_creation_prevented);
    EXPECT_EQ(fid, 0u);
}

// When only its second half was refused, the first one keeps its place in the table until the
// engine goes, and nobody else gets its memory.
TEST_F(undone_flows, of_announcements_keep_the_memory_that_is_still_linked) {
    uint32_t number = 0;
    zon_fid_t fid = 0;
    uint32_t before = 0;
    do
        before = half_flows();
    while (number < candidates &&
           (announce(number++, &fid) == zon_error_none || half_flows() == before));
    ASSERT_EQ(half_flows(), before + 1) << "no announcement was refused for its second half";
    delete_all_flows();
    for (number = 100; number < 100 + candidates; ++number)
        send(connection_packet::udp(number));
    std::multiset<const zon_half_flow_t*> linked;
    zon_flow_table_iterate_half_flow(
        g_zon->flow_tbl,
        [](zon_half_flow_t* half, void* user) {
            static_cast<std::multiset<const zon_half_flow_t*>*>(user)->insert(half);
            return true;
        },
        &linked);
    EXPECT_EQ(linked.size(), half_flows());
    for (const zon_half_flow_t* half : linked)
        EXPECT_EQ(linked.count(half), 1u) << "a half flow is linked in two places";
}

}  // namespace
}  // namespace zon_test

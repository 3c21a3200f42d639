// aging_test.cpp - expiries that are on their way while packets and clients work on the same flows.
#include <atomic>
#include <memory>
#include <utility>

#include "osal/zon_timer.h"
#include "support/deletion_halfway.h"
#include "support/stress_engine.h"
#include "vem/vem_tw.h"
#include "zon_fid_table.h"
#include "zon_frag.h"

namespace zon_test {
namespace {

constexpr uint64_t sec_us = 1'000'000;

std::atomic<uint32_t> aged_flows;
std::atomic<uint32_t> deleted_flows;
void count_deleted(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e reason,
                   zon_client_id_e) {
    if (reason == ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT)
        ++aged_flows;
    ++deleted_flows;
}

// ---- an expiry that stands still just before its handler looks at the flow ----

// The timer calls a function that waits in front of the handler. Another thread turns the clock;
// the constructor returns when the flow's timer has been taken off the wheel.
class expiry_on_its_way {
public:
    explicit expiry_on_its_way(zon_fid_t fid, uint64_t after_us) {
        zon_flow_t* flow = g_zon->fid_table->table[fid - 1];
        handler_ = std::exchange(flow->timer.callback, wait_then_handle);
        held_ = true;
        turner_ = std::thread([after_us] { zon_clock_advance_us(after_us); });
        wait_until([flow] { return !vem_tw_timer_running(&flow->timer); });
    }
    ~expiry_on_its_way() { arrive(); }
    expiry_on_its_way(const expiry_on_its_way&) = delete;
    expiry_on_its_way& operator=(const expiry_on_its_way&) = delete;

    static void let_go() { held_ = false; }
    void arrive() {
        let_go();
        if (turner_.joinable())
            turner_.join();
    }

private:
    static void wait_then_handle(vem_tw_wheel wheel, vem_tw_timer* timer, void* context) {
        wait_until([] { return !held_; });
        handler_(wheel, timer, context);
    }

    static inline vem_tw_timer_handler handler_;
    static inline std::atomic<bool> held_;
    std::thread turner_;
};

class stale_expiry : public engine_with_timer_thread {
protected:
    stale_expiry() { parameters.max_flows = 1; }
    void SetUp() override {
        engine_with_timer_thread::SetUp();
        aged_flows = deleted_flows = 0;
        ASSERT_EQ(zon_client_register_delete_cb(client, count_deleted), zon_error_none);
        watched_ = std::make_unique<watchdog>(std::chrono::seconds(120), [] {});
    }
    void TearDown() override {
        engine_with_timer_thread::TearDown();
        watched_.reset();
    }
    static bool timer_runs(zon_fid_t fid) {
        return vem_tw_timer_running(&g_zon->fid_table->table[fid - 1]->timer);
    }

    // A flow that was last heard of long enough ago.
    static constexpr uint64_t idle_us = 61 * sec_us;
    static zon_fid_t idle_flow() {
        const zon_fid_t fid = send(connection_packet::udp(1)).fid;
        EXPECT_EQ(zon_flow_set_aging(fid, 60), zon_error_none);
        return fid;
    }

private:
    std::unique_ptr<watchdog> watched_;
};

TEST_F(stale_expiry, leaves_the_next_flow_of_the_record_alone) {
    const zon_fid_t fid = idle_flow();
    {
        expiry_on_its_way expiry(fid, idle_us);
        ASSERT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        ASSERT_EQ(send(connection_packet::udp(2)).fid, fid) << "the table has one record";
        expiry.arrive();
    }
    EXPECT_EQ(aged_flows, 0u) << "a new flow was aged out by the timer of the one before it";
    EXPECT_EQ(deleted_flows, 1u);
    EXPECT_TRUE(timer_runs(fid)) << "the new flow will never age";
    EXPECT_EQ(send(connection_packet::udp(2)).seen.flow_pkt_count, 2u);
}

// The handler finds nothing, just when the record is taken for another flow.
TEST_F(stale_expiry, leaves_the_timer_of_the_next_flow_running) {
    const lock_stumbles behind_locks;
    for (uint32_t round = 0; round < 300; ++round) {
        const zon_fid_t fid = idle_flow();
        expiry_on_its_way expiry(fid, idle_us);
        ASSERT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        expiry.let_go();
        ASSERT_EQ(send(connection_packet::udp(2)).fid, fid);
        expiry.arrive();
        ASSERT_TRUE(timer_runs(fid)) << "the new flow will never age";
        ASSERT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    }
}

TEST_F(stale_expiry, is_called_off_by_a_longer_idle_time) {
    const zon_fid_t fid = idle_flow();
    {
        expiry_on_its_way expiry(fid, idle_us);
        ASSERT_EQ(zon_flow_set_aging(fid, 3600), zon_error_none);
        expiry.arrive();
    }
    EXPECT_EQ(aged_flows, 0u) << "aged out although a client had just set an hour";
    EXPECT_TRUE(timer_runs(fid));
    ASSERT_EQ(zon_clock_advance_us(3601 * sec_us), zon_error_none);
    EXPECT_EQ(aged_flows, 1u);
}

// The deleting thread holds the flow's lock, which the handler wants: it must not wait for the
// handler.
TEST_F(stale_expiry, is_not_waited_for_by_a_deletion) {
    const zon_fid_t fid = idle_flow();
    expiry_on_its_way expiry(fid, idle_us);
    ASSERT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    expiry.arrive();
    EXPECT_EQ(aged_flows, 0u);
    EXPECT_EQ(deleted_flows, 1u);
}

TEST_F(stale_expiry, ages_an_idle_flow_when_nobody_interferes) {
    const zon_fid_t fid = idle_flow();
    expiry_on_its_way expiry(fid, idle_us);
    expiry.arrive();
    EXPECT_EQ(aged_flows, 1u);
    EXPECT_EQ(g_zon->flow_tbl->profile_passively_aged, 1u);
}

// The same for an entry of a datagram: the item is taken for another one between the dispatch and
// the handler.
zon_frag_item_t* expiring_item;
void replace_entry_then_handle(vem_tw_wheel wheel, vem_tw_timer* timer, void* context) {
    std::thread([] {
        zon_frag_table_t* table = g_zon->frag_table;
        EXPECT_EQ(zon_frag_flow_delete_ipv4(table, 1, 0, 17, 1, 2), 7u);
        EXPECT_EQ(zon_frag_flow_insert_ipv4(table, 2, 0, 17, 1, 2, 9), 9u);
        EXPECT_EQ(table->list_head, expiring_item) << "the new entry has an item of its own";
    }).join();
    zon_timer_handle_frag_flow_idle_timeout_full(wheel, timer, context);
}

TEST_F(stale_expiry, leaves_the_next_entry_of_a_fragment_item_alone) {
    zon_frag_table_t* table = g_zon->frag_table;
    ASSERT_EQ(zon_frag_flow_insert_ipv4(table, 1, 0, 17, 1, 2, 7), 7u);
    expiring_item = table->list_head;
    ASSERT_EQ(vem_tw_timer_start(*zon_get_tw_internal(), &expiring_item->timer, 1000,
                                 replace_entry_then_handle, expiring_item),
              0);
    ASSERT_EQ(zon_clock_advance_us(2 * sec_us), zon_error_none);
    EXPECT_EQ(zon_frag_flow_lookup_ipv4(table, 2, 0, 17, 1, 2), 9u)
        << "a new entry was aged out by the timer of the one before it";
    EXPECT_TRUE(vem_tw_timer_running(&expiring_item->timer)) << "the new entry will never age";
    ASSERT_EQ(zon_clock_advance_us(zon_frag_idle_ms * 1000 + sec_us), zon_error_none);
    EXPECT_EQ(zon_frag_entry_count(table), 0u);
}

TEST_F(stale_expiry, of_a_flow_in_deletion_does_not_come_again) {
    const zon_fid_t fid = idle_flow();
    const deletion_halfway deletion(fid);
    ASSERT_EQ(zon_clock_advance_us(idle_us), zon_error_none);
    EXPECT_FALSE(vem_tw_timer_running(&deletion.flow()->timer));
    EXPECT_EQ(aged_flows, 0u);
}

// ---- locks that stay held ----

class locked_against_aging : public stale_expiry {
protected:
    locked_against_aging() {
        parameters.max_flows = 8;
        parameters.max_threads = 2;
    }
};

// A client thread that keeps a flow locked until it is told to let go.
class flow_holder {
public:
    explicit flow_holder(uint32_t connection) {
        thread_ = std::thread([this, connection] {
            const zon_flow_tuple_t tuple = tuple_of(connection);
            zon_fid_t fid = 0;
            zon_lock_t lock = nullptr;
            EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
                      zon_error_none);
            held_ = true;
            wait_until([this] { return let_go_.load(); });
            zon_flow_unlock(lock);
        });
        wait_until([this] { return held_.load(); });
    }
    ~flow_holder() { let_go(); }
    flow_holder(const flow_holder&) = delete;
    flow_holder& operator=(const flow_holder&) = delete;
    void let_go() {
        let_go_ = true;
        if (thread_.joinable())
            thread_.join();
    }

private:
    std::atomic<bool> held_{false};
    std::atomic<bool> let_go_{false};
    std::thread thread_;
};

TEST_F(locked_against_aging, flow_does_not_stop_the_aging_of_others) {
    const zon_fid_t held = send(connection_packet::udp(1)).fid;
    const zon_fid_t other = send(connection_packet::udp(2)).fid;
    ASSERT_NE(g_zon->fid_table->table[held - 1]->flow_lock,
              g_zon->fid_table->table[other - 1]->flow_lock);
    ASSERT_EQ(zon_flow_set_aging(held, 5), zon_error_none);
    ASSERT_EQ(zon_flow_set_aging(other, 6), zon_error_none);
    flow_holder holder(1);
    ASSERT_EQ(zon_clock_advance_us(8 * sec_us), zon_error_none);
    EXPECT_EQ(aged_flows, 1u) << "the flow that nobody holds is still there";
    uint32_t count = 0;
    EXPECT_EQ(zon_flow_get_packet_count(other, &count), zon_error_flow_not_found);
    EXPECT_NE(send(connection_packet::udp(2)).fid, 0u) << "the engine stands still";
    holder.let_go();
    ASSERT_EQ(zon_clock_advance_us(sec_us), zon_error_none);
    EXPECT_EQ(zon_flow_get_packet_count(held, &count), zon_error_flow_not_found)
        << "a held flow ages once it is let go";
}

// ---- everything at once ----

class aging_on_threads : public stress_engine_with_timer_thread {
protected:
    aging_on_threads() { parameters.max_flows = 24; }
    void SetUp() override {
        stress_engine_with_timer_thread::SetUp();
        aged_flows = deleted_flows = 0;
        ASSERT_EQ(zon_client_register_delete_cb(client, count_deleted), zon_error_none);
    }
    static void expect_all_timers_to_run() {
        for (zon_fid_t fid = 1; fid <= g_zon->fid_table->allocated; ++fid) {
            const zon_flow_t* flow = g_zon->fid_table->table[fid - 1];
            if (flow != nullptr) {
                EXPECT_TRUE(vem_tw_timer_running(&flow->timer))
                    << "flow " << fid << " will never age";
            }
        }
    }
};

TEST_P(aging_on_threads, flows_age_and_keep_their_timers) {
    constexpr uint32_t rounds = 8000;
    constexpr uint32_t connections = 10;
    std::atomic<uint32_t> firsts{0};
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [&firsts](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("send");
                const sent_packet sent = send(connection_packet::udp(self.below(connections)));
                EXPECT_NE(sent.fid, 0u);
                firsts += sent.seen.fif;
                self.doing("set the idle time");
                if (sent.fid != 0)
                    zon_flow_set_aging(sent.fid, self.below(3));
                self.stumble();
            }
        });
    crew.add("clock", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("turn the clock");
            zon_clock_advance_us(400'000);
        }
    });
    crew.add("deleter", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("delete");
            zon_delete_flow_tamonet(1 + self.below(connections),
                                    ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            self.stumble();
        }
    });
    run(crew);
    expect_all_timers_to_run();
    EXPECT_EQ(aged_flows, g_zon->flow_tbl->profile_passively_aged);
    EXPECT_EQ(deleted_flows + half_flows() / 2, firsts);
    // However long a flow's last idle time was, an hour ends it.
    ASSERT_EQ(zon_clock_advance_us(7200 * sec_us), zon_error_none);
    EXPECT_EQ(half_flows(), 0u) << "flows that never age";
    EXPECT_EQ(deleted_flows, firsts);
}

// ---- fragments ----

// Entries are replaced just when those before them expire: a new entry takes the item of the one
// that was deleted last.
TEST_P(aging_on_threads, a_fresh_fragment_entry_outlives_the_expiry_of_the_one_before) {
    constexpr uint32_t rounds = 400;
    constexpr uint32_t datagrams = 40;
    constexpr uint64_t turn_us = (zon_frag_idle_ms + 100) * 1000;
    std::atomic<uint32_t> lost{0};
    std::atomic<uint32_t> turns{0};
    stress_crew crew;
    crew.add("clock", [&turns](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            self.meet();
            self.doing("turn the clock");
            zon_clock_advance_us(turn_us);
            ++turns;
            self.meet();
        }
    });
    crew.add("packets", [&lost, &turns](stress_thread& self) {
        zon_frag_table_t* table = g_zon->frag_table;
        for (uint32_t round = 0; round < rounds; ++round) {
            for (uint32_t ident = 0; ident < datagrams; ++ident)
                zon_frag_flow_insert_ipv4(table, ident, 0, 17, 1, 2, 7);
            self.meet();
            self.doing("replace entries");
            for (uint32_t i = 0; i < 2 * datagrams || turns <= round; ++i) {
                const uint32_t ident = i % datagrams;
                zon_frag_flow_delete_ipv4(table, ident, 0, 17, 1, 2);
                const uint64_t inserted_us = zon_clock_now_us();
                zon_frag_flow_insert_ipv4(table, ident, 0, 17, 1, 2, 9);
                const bool present = zon_frag_flow_lookup_ipv4(table, ident, 0, 17, 1, 2) == 9;
                // Unless the whole turn came in between, the entry is milliseconds old.
                lost += !present && zon_clock_now_us() < inserted_us + turn_us / 2;
            }
            self.meet();
        }
    });
    run(crew);
    EXPECT_EQ(lost, 0u) << "fresh entries were removed by the timers of earlier ones";
}

// A fragment whose flow has gone takes its entry away, unless the entry has become another flow's
// meanwhile.
TEST_P(aging_on_threads, a_stray_fragment_leaves_the_entry_of_a_new_flow) {
    constexpr uint32_t rounds = 4000;
    uint32_t lost = 0;
    stress_crew crew;
    crew.add("stray", [&lost](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            self.doing("make and delete a flow");
            const zon_fid_t gone = send(connection_packet::first_fragment(1, 7)).fid;
            EXPECT_TRUE(zon_delete_flow_tamonet(gone, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
            self.meet();
            self.doing("send a stray fragment");
            send(connection_packet::middle_fragment(1, 7));
            self.meet();
            self.doing("send a fragment of the new flow");
            if (self.is_alone())
                send(connection_packet::first_fragment(1, 7));
            const zon_fid_t fid = send(connection_packet::middle_fragment(1, 7)).fid;
            lost += fid == 0;
            zon_delete_flow_tamonet(send(connection_packet::udp(1)).fid,
                                    ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    });
    crew.add("new flow", [](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            self.meet();
            self.doing("send a first fragment");
            EXPECT_NE(send(connection_packet::first_fragment(1, 7)).fid, 0u);
            self.meet();
        }
    });
    run(crew);
    EXPECT_EQ(lost, 0u) << "entries of new flows were taken away";
}

TEST_P(aging_on_threads, leaves_no_fragment_entry_behind) {
    constexpr uint32_t rounds = 10000;
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [thread](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                const auto ident = static_cast<uint16_t>(thread * 100 + i % 50);
                self.doing("send fragments");
                const zon_fid_t first = send(connection_packet::first_fragment(thread, ident)).fid;
                EXPECT_NE(first, 0u);
                send(connection_packet::last_fragment(thread, ident));
                self.stumble();
            }
        });
    crew.add("deleter", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds / 4; ++i) {
            self.doing("delete");
            zon_delete_flow_tamonet(1 + self.below(8), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            self.stumble();
        }
    });
    crew.add("clock", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds / 4; ++i) {
            self.doing("turn the clock");
            zon_clock_advance_us(10 * sec_us);
        }
    });
    run(crew);
    ASSERT_EQ(zon_clock_advance_us(31 * sec_us), zon_error_none);
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 0u) << "entries that never age";
}

INSTANTIATE_TEST_SUITE_P(stress, aging_on_threads, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test

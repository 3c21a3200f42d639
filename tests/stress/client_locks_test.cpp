// client_locks_test.cpp - clients that keep a flow locked and call the engine, while everything
// else goes on.
//
// What is checked is mostly that it ends: flow locks are few and shared, and whoever waits for one
// while it holds a table's or a bucket's lock stops everybody sooner or later.
#include <atomic>

#include "osal/zon_lock.h"
#include "support/stress_engine.h"
#include "zon_fid_table.h"

namespace zon_test {
namespace {

constexpr uint32_t connections = 8;
constexpr uint32_t rounds = 30000;

int object;

void nothing_to_tell(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                     zon_client_id_e) {}

// All flows share one lock: a client that holds one of them may ask about any.
class one_flow_lock : public stress_engine {
protected:
    one_flow_lock() {
        parameters.max_threads = 1;
        parameters.max_flows = 64;
    }
    void SetUp() override {
        stress_engine::SetUp();
        ASSERT_EQ(zon_client_register_delete_cb(client, nothing_to_tell), zon_error_none);
    }

    static void add_packets(stress_crew& crew) {
        crew.add("packets", [](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("send");
                EXPECT_NE(
                    send(connection_packet::udp(self.below(connections), self.below(2) != 0)).fid,
                    0u);
            }
        });
    }
    static void add_deleter(stress_crew& crew) {
        crew.add("deleter", [](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("delete");
                zon_delete_flow_tamonet(1 + self.below(2 * connections),
                                        ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
                self.stumble();
            }
        });
    }
    // Calls action(self, fid) with the flow of a random connection locked.
    template <class operation>
    static void add_holder(stress_crew& crew, operation action) {
        crew.add("holder", [action](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                const zon_flow_tuple_t tuple = tuple_of(self.below(connections));
                zon_fid_t fid = 0;
                zon_lock_t lock = nullptr;
                self.doing("find and lock");
                if (zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock) !=
                    zon_error_none)
                    continue;
                self.stumble();
                action(self, fid);
                self.doing("unlock");
                EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
            }
        });
    }
};

TEST_P(one_flow_lock, holder_asks_by_identifier) {
    stress_crew crew;
    add_packets(crew);
    add_deleter(crew);
    add_holder(crew, [this](stress_thread& self, zon_fid_t fid) {
        uint32_t count = 0;
        zon_flow_tuple_t tuple{};
        void* fo = nullptr;
        self.doing("ask for the packet count");
        EXPECT_EQ(zon_flow_get_packet_count(fid, &count), zon_error_none)
            << "a locked flow went away";
        EXPECT_GT(count, 0u);
        self.doing("ask for the tuple");
        EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_RESPONDER, &tuple), zon_error_none)
            << "a locked flow went away";
        self.doing("attach and detach");
        EXPECT_EQ(zon_flow_attach_fo(fid, client, ZON_DIR_BI, &object), zon_error_none);
        EXPECT_EQ(zon_flow_detach_fo(fid, client, ZON_DIR_BI, &fo), zon_error_none);
        self.doing("ask about another flow");
        zon_flow_get_packet_count(1 + self.below(2 * connections), &count);
    });
    run(crew);
}

TEST_P(one_flow_lock, holder_asks_by_tuple) {
    stress_crew crew;
    add_packets(crew);
    add_deleter(crew);
    add_holder(crew, [this](stress_thread& self, zon_fid_t fid) {
        const uint32_t number = self.below(connections);
        zon_flow_tuple_t tuple = tuple_of(number);
        zon_fid_t announced = 0;
        self.doing("probe a tuple");
        zon_flow_lookup_tamonet(&tuple, nullptr);
        self.doing("attach to one direction");
        zon_uni_flow_attach_fo(client, ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &object);
        self.doing("announce a child");
        tuple = tuple_of(100 + number);
        EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, &tuple, fid, &announced,
                                   nullptr),
                  zon_error_none);
        self.doing("delete the child");
        EXPECT_TRUE(zon_delete_flow_tamonet(announced, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    });
    run(crew);
    expect_no_pre_flows();
}

TEST_P(one_flow_lock, holder_deletes_what_it_holds) {
    stress_crew crew;
    add_packets(crew);
    add_deleter(crew);
    std::atomic<int> in_hold{0};
    for (int holder = 0; holder < 2; ++holder)
        add_holder(crew, [&in_hold](stress_thread& self, zon_fid_t fid) {
            EXPECT_EQ(in_hold.fetch_add(1), 0) << "two threads hold one lock";
            self.doing("delete the held flow");
            EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
            self.stumble();
            // The lock is still this thread's, although it now belongs to other flows.
            in_hold.fetch_sub(1);
        });
    run(crew);
}

TEST_P(one_flow_lock, holder_moves_flows_to_other_keys) {
    stress_crew crew;
    add_packets(crew);
    add_deleter(crew);
    for (int holder = 0; holder < 2; ++holder)
        add_holder(crew, [](stress_thread& self, zon_fid_t fid) {
            const zon_flow_tuple_t moved = tuple_of(200 + self.below(connections));
            self.doing("re-key");
            EXPECT_EQ(zon_flow_update_initiator(fid, &moved), zon_error_none);
            self.doing("delete the moved flow");
            EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        });
    run(crew);
}

// ---- two clients, two locks -------------------------------------------------------------------

class two_flow_locks : public stress_engine {
protected:
    two_flow_locks() {
        parameters.max_threads = 2;
        parameters.max_flows = 16;
    }
};

// Each holds a parent of its own and needs a free record, whose lock may be the other's.
TEST_P(two_flow_locks, holders_announce_children) {
    ASSERT_EQ(send(connection_packet::udp(1)).fid, 1u);
    ASSERT_EQ(send(connection_packet::udp(2)).fid, 2u);
    ASSERT_NE(g_zon->fid_table->table[0]->flow_lock, g_zon->fid_table->table[1]->flow_lock);
    stress_crew crew;
    for (uint32_t parent = 1; parent <= 2; ++parent)
        crew.add("parent " + std::to_string(parent), [parent](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                const zon_flow_tuple_t own = tuple_of(parent);
                const zon_flow_tuple_t child = tuple_of(10 * parent + i % 3);
                zon_fid_t fid = 0;
                zon_lock_t lock = nullptr;
                self.doing("lock the parent");
                ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &own, &fid, &lock),
                          zon_error_none);
                zon_fid_t announced = 0;
                self.doing("announce a child");
                EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &child, fid, &announced,
                                           nullptr),
                          zon_error_none);
                self.doing("unlock the parent");
                EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
                self.doing("delete the child");
                EXPECT_TRUE(
                    zon_delete_flow_tamonet(announced, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
            }
        });
    run(crew);
    EXPECT_EQ(half_flows(), 4u);
}

class a_held_flow : public contended_engine {};

// A client that sits on its flow stops that flow and those that share its lock, nobody else.
TEST_F(a_held_flow, stops_no_flow_under_another_lock) {
    const watchdog watched(std::chrono::seconds(120), [] {});
    ASSERT_EQ(send(connection_packet::udp(1)).fid, 1u);
    ASSERT_EQ(send(connection_packet::udp(2)).fid, 2u);
    const zon_flow_tuple_t tuple = tuple_of(1);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
              zon_error_none);
    std::atomic<bool> asked{false};
    std::thread waiting([&asked] {
        uint32_t count = 0;
        asked = true;
        EXPECT_EQ(zon_flow_get_packet_count(1, &count), zon_error_none);
    });
    wait_until([&asked] { return asked.load(); });
    std::thread([] {
        for (uint32_t i = 0; i < 1000; ++i) {
            uint32_t count = 0;
            EXPECT_EQ(zon_flow_get_packet_count(2, &count), zon_error_none);
            EXPECT_EQ(count, i + 1);
            EXPECT_EQ(send(connection_packet::udp(2)).fid, 2u);
            const zon_fid_t fresh = send(connection_packet::udp(3)).fid;
            EXPECT_NE(fresh, 0u);
            EXPECT_TRUE(zon_delete_flow_tamonet(fresh, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        }
    }).join();
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    waiting.join();
}

// The only free record lies under the lock that a client keeps: whoever announces a child waits for
// it, and the parent can be asked about meanwhile.
class one_free_record : public contended_engine {
protected:
    one_free_record() { parameters.max_flows = 4; }
};

TEST_F(one_free_record, is_waited_for_without_the_parent) {
    const watchdog watched(std::chrono::seconds(120), [] {});
    for (uint32_t number = 1; number <= 4; ++number)
        ASSERT_EQ(send(connection_packet::udp(number)).fid, number);
    ASSERT_EQ(g_zon->fid_table->table[1]->flow_lock, g_zon->fid_table->table[3]->flow_lock);
    ASSERT_TRUE(zon_delete_flow_tamonet(4, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    const zon_flow_tuple_t kept = tuple_of(2);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &kept, &fid, &lock),
              zon_error_none);
    zon_fid_t announced = 0;
    std::atomic<bool> started{false};
    std::thread announcer([&announced, &started] {
        const zon_flow_tuple_t child = tuple_of(10);
        started = true;
        EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &child, 1, &announced, nullptr),
                  zon_error_none);
    });
    wait_until([&started] { return started.load(); });
    for (uint32_t i = 0; i < 200; ++i) {
        std::this_thread::yield();
        uint32_t count = 0;
        EXPECT_EQ(zon_flow_get_packet_count(1, &count), zon_error_none);
    }
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    announcer.join();
    EXPECT_EQ(announced, 4u);
}

INSTANTIATE_TEST_SUITE_P(stress, one_flow_lock, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, two_flow_locks, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test

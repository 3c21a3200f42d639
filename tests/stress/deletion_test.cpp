// deletion_test.cpp - packets, clients and dumps that meet a flow on its way out.
#include <atomic>
#include <memory>

#include "support/deletion_halfway.h"
#include "support/lock_level.h"
#include "support/stress_engine.h"
#include "zon_fid_table_inline.h"
#include "zon_super_ctx.h"

namespace zon_test {
namespace {

class flow_in_deletion : public contended_engine {
protected:
    void SetUp() override {
        contended_engine::SetUp();
        watched_ = std::make_unique<watchdog>(std::chrono::seconds(120), [] {});
    }
    void TearDown() override {
        contended_engine::TearDown();
        watched_.reset();
    }

private:
    std::unique_ptr<watchdog> watched_;
};

TEST_F(flow_in_deletion, is_found_by_no_operation_on_its_identifier) {
    static int object;
    const zon_fid_t fid = send(connection_packet::udp(1)).fid;
    ASSERT_EQ(zon_flow_attach_fo(fid, client, ZON_DIR_BI, &object), zon_error_none);
    const deletion_halfway deletion(fid);

    zon_flow_tuple_t tuple{};
    zon_flow_t snapshot;
    void* fo = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_INITIATOR, &tuple), zon_error_flow_not_found);
    EXPECT_EQ(zon_flow_get_packet_count(fid, &count), zon_error_flow_not_found);
    EXPECT_EQ(zon_flow_attach_fo(fid, client, ZON_DIR_INITIATOR, &object),
              zon_error_flow_not_found);
    EXPECT_EQ(zon_flow_get_fo_by_fid(fid, client, ZON_DIR_BI, &fo, &snapshot),
              zon_error_flow_not_found);
    EXPECT_EQ(zon_flow_set_aging(fid, 10), zon_error_flow_not_found);
    EXPECT_FALSE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_END_OF_FLOW));
    connection_packet packet = connection_packet::udp(1);
    sent_packet sent;
    EXPECT_EQ(zon_sync_packet(packet.content.data(), 0, nullptr, &sent.seen, &sent.error, fid,
                              ZON_L4_BI_ESTABLISHED, 5),
              0u);
}

TEST_F(flow_in_deletion, is_found_by_no_operation_on_its_tuple) {
    const zon_fid_t fid = send(connection_packet::udp(1)).fid;
    const deletion_halfway deletion(fid);
    zon_flow_tuple_t tuple = tuple_of(1);
    zon_fid_t found = 0;
    zon_lock_t lock = nullptr;
    EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &found, &lock),
              zon_error_flow_not_found);
    EXPECT_EQ(zon_flow_lookup_tamonet(&tuple, nullptr), 0);
}

TEST_F(flow_in_deletion, leaves_its_next_packet_to_a_new_flow) {
    const zon_fid_t old_fid = send(connection_packet::udp(1)).fid;
    sent_packet sent;
    {
        deletion_halfway deletion(old_fid);
        sent = send(connection_packet::udp(1));
        EXPECT_NE(sent.fid, old_fid);
        EXPECT_EQ(sent.seen.fif, 1);
        deletion.finish();
    }
    const sent_packet second = send(connection_packet::udp(1));
    EXPECT_EQ(second.fid, sent.fid) << "the old flow took the new one out of the table";
    EXPECT_EQ(second.seen.flow_pkt_count, 2u);
    EXPECT_EQ(half_flows(), 2u);
}

TEST_F(flow_in_deletion, is_not_promoted) {
    const zon_flow_tuple_t tuple = tuple_of(1);
    zon_fid_t announced = 0;
    ASSERT_EQ(
        zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, &tuple, 0, &announced, nullptr),
        zon_error_none);
    sent_packet sent;
    {
        const deletion_halfway deletion(announced);
        sent = send(connection_packet::udp(1));
        EXPECT_NE(sent.fid, announced);
        EXPECT_EQ(sent.seen.was_promoted, 0);
    }
    EXPECT_EQ(send(connection_packet::udp(1)).fid, sent.fid);
    EXPECT_EQ(half_flows(), 2u);
    expect_no_pre_flows();
}

// Other flows share the lock: a deletion that let go of it could wait for a client's flow, with the
// timer thread waiting in it.
TEST_F(flow_in_deletion, keeps_its_lock) {
    const zon_fid_t fid = send(connection_packet::udp(1)).fid;
    const deletion_halfway deletion(fid);
    for (int looks = 0; looks < 50; ++looks)
        ASSERT_FALSE(is_free_for_others(deletion.flow()->flow_lock));
}

uint32_t reported_flows;

TEST_F(flow_in_deletion, is_in_no_dump) {
    const zon_fid_t fid = send(connection_packet::udp(1)).fid;
    send(connection_packet::udp(2));
    const deletion_halfway deletion(fid);
    reported_flows = 0;
    zon_dump_flow_context filter{};
    filter.print_active = filter.print_deleted = true;
    zon_fid_table_iterate_flow(
        g_zon->fid_table, [](zon_flow_report_t*, void*) { ++reported_flows; }, &filter);
    EXPECT_EQ(reported_flows, 1u);
}

// ---- everything at once ----

// What the delete callback finds: how many packets the flows had when they went.
std::atomic<uint64_t> packets_of_deleted;
std::atomic<uint32_t> deleted_flows;

void count_at_deletion(zon_flow_ptr_t fid, void*, void*, void*, zon_flow_deletion_reason_e,
                       zon_client_id_e) {
    uint32_t count = 0;
    EXPECT_EQ(zon_flow_get_packet_count(fid, &count), zon_error_none);
    packets_of_deleted += count;
    ++deleted_flows;
    std::this_thread::yield();
}

class packets_and_deletions : public stress_engine {
protected:
    packets_and_deletions() {
        parameters.max_flows = 64;
        parameters.max_threads = 3;
    }
    void SetUp() override {
        stress_engine::SetUp();
        packets_of_deleted = 0;
        deleted_flows = 0;
        ASSERT_EQ(zon_client_register_delete_cb(client, count_at_deletion), zon_error_none);
    }
};

constexpr uint32_t connections = 6;

TEST_P(packets_and_deletions, lose_no_packet) {
    constexpr uint32_t packets = 50000;
    std::atomic<uint64_t> sent{0};
    std::atomic<uint32_t> firsts{0};
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [&](stress_thread& self) {
            for (uint32_t i = 0; i < packets; ++i) {
                self.doing("send");
                const sent_packet packet =
                    send(connection_packet::udp(self.below(connections), self.below(2) != 0));
                ASSERT_NE(packet.fid, 0u);
                ++sent;
                firsts += packet.seen.fif;
            }
        });
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("deleter " + std::to_string(thread), [&](stress_thread& self) {
            for (uint32_t i = 0; i < packets; ++i) {
                self.doing("delete");
                zon_delete_flow_tamonet(1 + self.below(2 * connections),
                                        ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
                self.stumble();
            }
        });
    run(crew);
    delete_all_flows();
    EXPECT_EQ(packets_of_deleted, sent) << "packets were counted to flows that were gone already";
    EXPECT_EQ(deleted_flows, firsts);
    EXPECT_EQ(half_flows(), 0u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 2 * firsts);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, firsts.load());
}

// Two deletions whose halves lie under the same two locks, in opposite orders.
TEST_P(packets_and_deletions, of_many_flows_do_not_wait_for_each_other) {
    constexpr uint32_t rounds = 6000;
    stress_crew crew;
    for (uint32_t thread = 0; thread < 3; ++thread)
        crew.add("life and death " + std::to_string(thread), [thread](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("create");
                const zon_fid_t fid =
                    send(connection_packet::udp(thread * 1000 + self.below(16), self.below(2) != 0))
                        .fid;
                self.doing("delete");
                EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
            }
        });
    run(crew);
    EXPECT_EQ(half_flows(), 0u);
    EXPECT_EQ(deleted_flows, 3 * rounds);
}

void check_tuple(zon_fid_t fid) {
    zon_flow_tuple_t initiator{};
    zon_flow_tuple_t responder{};
    if (zon_flow_get_tuple(fid, ZON_DIR_INITIATOR, &initiator) == zon_error_none) {
        const bool from_server = initiator.src_ip.u.v4_addr == server_address;
        EXPECT_EQ(from_server ? initiator.src_port : initiator.dst_port, server_port);
        EXPECT_EQ(from_server ? initiator.dst_port : initiator.src_port, client_port);
    }
    if (zon_flow_get_tuple(fid, ZON_DIR_RESPONDER, &responder) == zon_error_none) {
        EXPECT_EQ(responder.l4_protocol, 17);
    }
}

TEST_P(packets_and_deletions, do_not_confuse_clients_that_ask_by_identifier) {
    constexpr uint32_t rounds = 40000;
    static int object;
    stress_crew crew;
    crew.add("packets", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("send");
            send(connection_packet::udp(self.below(connections)));
        }
    });
    crew.add("deleter", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("delete");
            zon_delete_flow_tamonet(1 + self.below(2 * connections),
                                    ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            self.stumble();
        }
    });
    crew.add("client", [this](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            const zon_fid_t fid = 1 + self.below(2 * connections);
            void* fo = nullptr;
            zon_flow_t snapshot;
            self.doing("ask for the tuple");
            check_tuple(fid);
            self.doing("attach");
            zon_flow_attach_fo(fid, client, static_cast<zon_flow_direction_e>(self.below(3)),
                               &object);
            self.doing("read with a copy");
            if (zon_flow_get_fo_by_fid(fid, client, ZON_DIR_INITIATOR, &fo, &snapshot) ==
                zon_error_none) {
                EXPECT_EQ(fo, &object);
                EXPECT_NE(snapshot.initiator_flow, nullptr);
                zon_unlock_flow_tamonet(&snapshot);
            }
            self.doing("detach");
            zon_flow_detach_fo(fid, client, ZON_DIR_INITIATOR, &fo);
        }
    });
    run(crew);
}

// Buckets that hold one item: most creations are undone, while others ask about every identifier.
class refused_creations : public stress_engine {
protected:
    refused_creations() {
        parameters.max_flows = 13;
        parameters.max_bucket_depth = 1;
    }
    void TearDown() override { destroy_after_refused_announcements(); }
};

TEST_P(refused_creations, leave_nothing_behind) {
    constexpr uint32_t rounds = 10000;
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("send");
                const zon_fid_t fid = send(connection_packet::udp(self.below(64))).fid;
                self.doing("delete");
                if (fid != 0 && self.below(2) == 0)
                    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            }
        });
    crew.add("announcer", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            // With a part unknown: the promotion moves both halves, and may find no room for them.
            const zon_flow_tuple_t tuple = tuple_of(self.below(64));
            zon_fid_t announced = 0;
            self.doing("announce");
            zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, &tuple, 0, &announced, nullptr);
            self.doing("delete the announced");
            if (self.below(2) == 0)
                zon_delete_flow_tamonet(announced, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    });
    crew.add("client", [](stress_thread& self) {
        for (uint32_t i = 0; i < 4 * rounds; ++i) {
            self.doing("ask for the tuple");
            check_tuple(1 + i % 13);
            self.doing("report a packet of the flow");
            connection_packet packet = connection_packet::udp(self.below(64));
            sent_packet sent;
            zon_sync_packet(packet.content.data(), 0, nullptr, &sent.seen, &sent.error, 1 + i % 13,
                            ZON_L4_OPENING, 2);
        }
    });
    crew.add("dump", [](stress_thread& self) {
        zon_dump_flow_context filter{};
        filter.print_active = true;
        for (uint32_t i = 0; i < rounds / 20; ++i) {
            self.doing("dump");
            zon_fid_table_iterate_flow(
                g_zon->fid_table,
                [](zon_flow_report_t* report, void*) {
                    // Of an announced flow only the server's end may be known.
                    EXPECT_LE(report->initiator_key.ipv4.key_type, ZON_IPV4_LAST_KEY);
                },
                &filter);
        }
    });
    run(crew);
    EXPECT_EQ(zon_flow_table_is_available(g_zon->flow_tbl), zon_error_none);
    EXPECT_EQ(zon_fid_table_is_available(g_zon->fid_table), zon_error_none);
}

// Announcements with a part unknown move to other buckets when they are promoted, and find some of
// them full.
class refused_promotions : public refused_creations {
protected:
    refused_promotions() { parameters.max_flows = 60; }
};

TEST_P(refused_promotions, leave_nothing_behind) {
    constexpr uint32_t announced = 40;
    std::atomic<uint32_t> refused{0};
    for (uint32_t number = 0; number < announced; ++number) {
        const zon_flow_tuple_t tuple = tuple_of(number);
        zon_fid_t fid = 0;
        zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, &tuple, 0, &fid, nullptr);
    }
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [thread, &refused](stress_thread& self) {
            for (uint32_t number = 0; number < announced; ++number) {
                self.doing("promote");
                refused +=
                    send(connection_packet::udp(thread == 0 ? number : announced - number)).fid ==
                    0;
            }
        });
    crew.add("deleter", [](stress_thread& self) {
        for (zon_fid_t fid = 60; fid > 0; --fid) {
            self.doing("delete");
            zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    });
    run(crew);
    EXPECT_GT(refused, 0u) << "no promotion was refused: the test tests nothing";
}

// ---- super contexts ----

bool one_of_three_contexts(void* pkt_ctx, uint32_t* context) {
    std::this_thread::yield();
    *context = 1 + *static_cast<uint32_t*>(pkt_ctx) % 3;
    return true;
}

std::atomic<int64_t> objects_deleted;

void count_context(uint32_t context, zon_super_context_types_e, void** fo) {
    EXPECT_EQ(*reinterpret_cast<uint32_t*>(fo), context) << "another super context's object";
    ++objects_deleted;
}

bool count_member(zon_flow_ptr_t fid) {
    uint32_t context = 0;
    if (zon_super_context_get_sctxt_handle(fid, ZON_SUPER_CONTEXT_IDENTITY, &context) ==
        zon_error_none) {
        EXPECT_GE(context, 1u);
        EXPECT_LE(context, 3u);
    }
    return true;
}

// A flow joins its super contexts however soon it is deleted, and leaves them once: the fixture
// finds what is left.
TEST_P(packets_and_deletions, keep_super_contexts_in_step_with_their_flows) {
    constexpr uint32_t rounds = 6000;
    static uint32_t objects[4] = {0, 1, 2, 3};
    objects_deleted = 0;
    ASSERT_EQ(zon_super_context_client_register(ZON_SUPER_CONTEXT_IDENTITY, one_of_three_contexts),
              zon_error_none);
    ASSERT_EQ(zon_super_context_register_delete_cb(client, count_context), zon_error_none);
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                uint32_t number = self.below(2 * connections);
                self.doing("send");
                const zon_fid_t fid = send(connection_packet::udp(number), &number).fid;
                self.doing("ask for the context");
                count_member(fid);
            }
        });
    crew.add("deleter", [](stress_thread& self) {
        for (uint32_t i = 0; i < 2 * rounds; ++i) {
            self.doing("delete");
            zon_delete_flow_tamonet(1 + self.below(3 * connections),
                                    ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    });
    crew.add("walker", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds / 4; ++i) {
            self.doing("walk the members");
            zon_super_context_traverse_flows(ZON_SUPER_CONTEXT_IDENTITY, 1 + self.below(3),
                                             count_member);
        }
    });
    crew.add("client", [this](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            const zon_fid_t fid = 1 + self.below(3 * connections);
            // The context of a flow does not change while the flow lives: under its lock it is the
            // object's.
            const locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, fid);
            uint32_t context = 0;
            self.doing("attach to a super context");
            if (!flow || zon_super_context_get_sctxt_handle(fid, ZON_SUPER_CONTEXT_IDENTITY,
                                                            &context) != zon_error_none)
                continue;
            EXPECT_EQ(zon_super_context_attach_fo(fid, ZON_SUPER_CONTEXT_IDENTITY, client,
                                                  &objects[context]),
                      zon_error_none);
        }
    });
    run(crew);
    delete_all_flows();
    EXPECT_EQ(g_zon->memory_usage_stats.super_context_alloc_count, 0u);
    EXPECT_EQ(g_zon->memory_usage_stats.list_element_alloc_count, 0u);
}

INSTANTIATE_TEST_SUITE_P(stress, packets_and_deletions, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, refused_promotions, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, refused_creations, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test

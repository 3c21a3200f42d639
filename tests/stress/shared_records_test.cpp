// shared_records_test.cpp - what all threads share: memory, counters, clients, feature objects,
// switches.
#include <array>
#include <atomic>
#include <set>
#include <utility>
#include <vector>

#include "osal/zon_lock.h"
#include "osal/zon_mem.h"
#include "support/obstructed_lock.h"
#include "support/parked_thread.h"
#include "support/stress_engine.h"
#include "zon_fid_table.h"
#include "zon_frag.h"
#include "zon_relaxed.h"
#include "zon_super_ctx.h"

namespace zon_test {
namespace {

class shared_by_threads : public stress_engine {
protected:
    shared_by_threads() {
        parameters.max_flows = 64;
        parameters.max_mem_buffer_init = 3;
        parameters.create_chunk_elements = 2;
    }
};

// ---- memory ----

TEST_P(shared_by_threads, no_record_has_two_owners) {
    constexpr uint32_t rounds = 30000;
    std::atomic<uint32_t> trampled{0};
    stress_crew crew;
    for (uint64_t thread = 1; thread <= 3; ++thread)
        crew.add("owner " + std::to_string(thread), [thread, &trampled](stress_thread& self) {
            constexpr zon_memory_type types[] = {ZON_IPV4_HALF_FLOW_MEM_TYPE,
                                                 ZON_IPV6_HALF_FLOW_MEM_TYPE, ZON_FLOW_FO_MEM_TYPE};
            for (uint32_t i = 0; i < rounds; ++i) {
                const zon_memory_type type = types[self.below(3)];
                self.doing("take a record");
                auto* record =
                    static_cast<uint64_t*>(zon_private_chunk_malloc(type, &g_zon->zon_chunk_ptr));
                ASSERT_NE(record, nullptr);
                *record = thread;
                self.stumble();
                trampled += *record != thread;
                self.doing("give it back");
                EXPECT_TRUE(zon_private_chunk_free(type, record, &g_zon->zon_chunk_ptr));
            }
        });
    run(crew);
    EXPECT_EQ(trampled, 0u) << "records were handed out twice";
    // All are back, and the ready ones are taken first and given back first.
    ASSERT_EQ(zon_private_ipv4_flow_mem_buffer_count, zon_private_ipv4_flow_mem_buffer_count_init);
    std::set<void*> ready;
    for (int32_t slot = 0; slot < zon_private_ipv4_flow_mem_buffer_count; ++slot) {
        void* record = zon_private_ipv4_flow_mem_buffer[slot];
        EXPECT_NE(record, nullptr) << "a ready record was lost";
        EXPECT_TRUE(ready.insert(record).second) << "a record is ready twice";
    }
}

// ---- counters ----

TEST_P(shared_by_threads, counters_come_back_to_where_they_were) {
    constexpr uint32_t rounds = 4000;
    std::atomic<uint32_t> firsts{0};
    const auto tunnelled = [](uint32_t number) {
        return in_ipv4(0x0A000000 + number, server_address,
                       packet_builder::ipv6(std::array<uint32_t, 4>{number, 0, 0, 1}, "2001:db8::2")
                           .udp(1, 2)
                           .build());
    };
    enable(ZON_CAPABILITY_ENABLE_IPV6INIP);
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [thread, &firsts,
                                                       tunnelled](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("send through a tunnel");
                sent_packet sent;
                bytes packet = tunnelled(10 * thread + self.below(4));
                sent.fid = zon_handle_packet(packet.data(), 0, nullptr, &sent.seen, &sent.error);
                EXPECT_NE(sent.fid, 0u);
                firsts += sent.seen.fif;
                self.doing("delete");
                zon_delete_flow_tamonet(sent.fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            }
        });
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("statistics " + std::to_string(thread), [](stress_thread& self) {
            for (uint32_t i = 0; i < rounds / 40; ++i) {
                int32_t size, used, empty, occupied, average, most;
                uint32_t inserts, deletes, aged;
                self.doing("read the statistics");
                zon_flow_table_statistics(g_zon->flow_tbl, &size, &used, &empty, &occupied,
                                          &average, &most, &inserts, &deletes, &aged, nullptr,
                                          nullptr);
                EXPECT_EQ(empty + occupied, size);
            }
        });
    run(crew);
    EXPECT_EQ(half_flows(), 0u);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 2 * firsts);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, firsts.load());
    EXPECT_EQ(g_zon->flow_tbl->active_tunnel_flows_count.active_ipv6inip_flows_count, 0u);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv6_half_flow_alloc_count, 0u);
    EXPECT_EQ(zon_flow_table_is_available(g_zon->flow_tbl), zon_error_none)
        << "a walk that ended counts as running";
}

// ---- dumps that overlap ----

std::atomic<int> dumps_inside;
std::atomic<bool> dump_may_end;

TEST_F(contended_engine, is_not_destroyed_while_one_of_two_dumps_still_runs) {
    const watchdog watched(std::chrono::seconds(120), [] {});
    send(connection_packet::udp(1));
    dumps_inside = 0;
    dump_may_end = false;
    zon_dump_flow_context filter{};
    filter.print_active = true;
    std::thread slow([&filter] {
        zon_fid_table_iterate_flow(
            g_zon->fid_table,
            [](zon_flow_report_t*, void*) {
                ++dumps_inside;
                wait_until([] { return dump_may_end.load(); });
            },
            &filter);
    });
    wait_until([] { return dumps_inside == 1; });
    std::thread([&filter] {
        zon_fid_table_iterate_flow(
            g_zon->fid_table, [](zon_flow_report_t*, void*) {}, &filter);
    }).join();
    EXPECT_EQ(zon_destroy(), zon_error_fid_table_access_failed)
        << "the second dump ended, the first one did not";
    dump_may_end = true;
    slow.join();
    EXPECT_EQ(zon_fid_table_is_available(g_zon->fid_table), zon_error_none);
}

// The walk of the first reader stands at a bucket's lock, which the second one can take.
TEST_F(contended_engine, is_in_use_while_one_of_two_readers_of_statistics_still_reads) {
    const watchdog watched(std::chrono::seconds(120), [] {});
    const auto read = [] {
        int32_t size, used, empty, occupied, average, most;
        uint32_t inserts, deletes, aged;
        zon_flow_table_statistics(g_zon->flow_tbl, &size, &used, &empty, &occupied, &average, &most,
                                  &inserts, &deletes, &aged, nullptr, nullptr);
    };
    const zon_lock_t bucket = zon_lock_get_pool_lock(g_zon->flow_tbl->table->bucket_locks, 0);
    obstruct(bucket);
    parked_thread reader(read);
    reader.wait_until_parked();
    read();
    EXPECT_TRUE(relaxed_load(g_zon->flow_tbl->in_use));
    EXPECT_EQ(zon_destroy(), zon_error_flow_table_access_failed);
    clear_obstructed(bucket);
    reader.finish();
    EXPECT_EQ(zon_flow_table_is_available(g_zon->flow_tbl), zon_error_none);
}

// ---- clients and switches ----

bool allow(void*, zon_client_id_e) {
    return true;
}
void ignore_bypass(uint32_t, bool, bool, bool, uint32_t*) {}
void ignore_deletion(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                     zon_client_id_e) {}

TEST_P(shared_by_threads, clients_come_and_go_while_packets_are_shown_to_them) {
    constexpr uint32_t rounds = 10000;
    constexpr auto capabilities = static_cast<zon_capability_e>(
        ZON_CAPABILITY_ENABLE_CLIENT_BYPASS | ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS |
        ZON_CAPABILITY_ENABLE_ICMP);
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [thread](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("send");
                const zon_fid_t fid = send(connection_packet::tcp(10 * thread + self.below(4))).fid;
                EXPECT_NE(fid, 0u);
                self.doing("delete");
                if (self.below(2) == 0)
                    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            }
        });
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("client " + std::to_string(thread), [](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                zon_client_id_e id = 0;
                self.doing("register");
                ASSERT_EQ(zon_client_feature_register(&id), zon_error_none);
                EXPECT_EQ(zon_client_register_pre_flow_create_cb(id, allow), zon_error_none);
                EXPECT_EQ(zon_client_register_bypass_cb(id, ignore_bypass), zon_error_none);
                EXPECT_EQ(zon_client_register_delete_cb(id, ignore_deletion), zon_error_none);
                EXPECT_EQ(zon_client_enable_engine_capability(id, capabilities), zon_error_none);
                self.stumble();
                self.doing("unregister");
                EXPECT_EQ(zon_client_disable_engine_capability(id, capabilities), zon_error_none);
                EXPECT_EQ(zon_client_feature_unregister(id), zon_error_none);
            }
        });
    run(crew);
    const zon_capability_counter_t& counted = g_zon->params.capability_counter;
    EXPECT_EQ(counted.zon_engine_client_bypass, 0u);
    EXPECT_EQ(counted.zon_engine_tcp_state_checks, 0u);
    EXPECT_EQ(counted.zon_engine_flow_icmp, 0u);
    EXPECT_EQ(counted.zon_engine_flow_tcp, 1u);
}

// What a client prepares before it registers a function is there when the function is called. Each
// function has data of its own, which is written once.
constexpr size_t function_count = 64;
std::array<size_t, function_count> prepared_for_packets;
std::array<size_t, function_count> prepared_for_contexts;

template <size_t number>
bool allow_when_prepared(void*, zon_client_id_e) {
    EXPECT_EQ(prepared_for_packets[number], number + 1);
    return true;
}
template <size_t number>
bool one_context_when_prepared(void*, uint32_t* context) {
    EXPECT_EQ(prepared_for_contexts[number], number + 1);
    *context = 1;
    return true;
}

struct client_functions {
    std::array<zon_client_pre_flow_create_cb_t, function_count> allow;
    std::array<zon_super_context_lookup_callback, function_count> context;
};
template <size_t... numbers>
constexpr client_functions make_functions(std::index_sequence<numbers...>) {
    return {{allow_when_prepared<numbers>...}, {one_context_when_prepared<numbers>...}};
}

TEST_P(shared_by_threads, client_functions_find_what_was_prepared_for_them) {
    constexpr uint32_t rounds = 5000;
    static constexpr client_functions functions =
        make_functions(std::make_index_sequence<function_count>());
    stress_crew crew;
    crew.add("client", [this](stress_thread& self) {
        for (size_t number = 0; number < function_count; ++number) {
            self.doing("register");
            prepared_for_packets[number] = number + 1;
            EXPECT_EQ(zon_client_register_pre_flow_create_cb(client, functions.allow[number]),
                      zon_error_none);
            prepared_for_contexts[number] = number + 1;
            EXPECT_EQ(zon_super_context_client_register(ZON_SUPER_CONTEXT_IDENTITY,
                                                        functions.context[number]),
                      zon_error_none);
            std::this_thread::yield();
        }
    });
    crew.add("packets", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("send");
            const zon_fid_t fid = send(connection_packet::udp(1)).fid;
            EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        }
    });
    run(crew);
}

zon_client_id_e leaving_client;
bool leave_and_allow(void*, zon_client_id_e id) {
    if (id == leaving_client) {
        EXPECT_EQ(zon_client_feature_unregister(id), zon_error_none);
    }
    return true;
}

TEST_F(contended_engine, goes_on_behind_a_client_that_unregisters_itself) {
    zon_client_id_e behind = 0;
    static std::atomic<uint32_t> asked;
    asked = 0;
    ASSERT_EQ(zon_client_feature_register(&behind), zon_error_none);
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(behind,
                                                     [](void*, zon_client_id_e) {
                                                         ++asked;
                                                         return true;
                                                     }),
              zon_error_none);
    for (uint32_t i = 0; i < 20; ++i) {
        ASSERT_EQ(zon_client_feature_register(&leaving_client), zon_error_none);
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(leaving_client, leave_and_allow),
                  zon_error_none);
        EXPECT_NE(send(connection_packet::udp(i)).fid, 0u);
    }
    EXPECT_EQ(asked, 20u);
}

TEST_P(shared_by_threads, switches_are_turned_while_packets_flow) {
    constexpr uint32_t rounds = 20000;
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("packets " + std::to_string(thread), [](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("send");
                const zon_fid_t fid =
                    send(connection_packet::udp(self.below(8), self.below(2) != 0)).fid;
                if (self.below(8) == 0)
                    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            }
        });
    crew.add("operator", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("set default idle times");
            EXPECT_TRUE(zon_set_default_aging(17, ZON_L4_OPENING, 1000 + i));
            self.doing("set when flows open");
            zon_set_open_flow_after_pkts(2 + i % 3);
            self.doing("turn switches");
            zon_set_debug(false);
            relaxed_store(zon_debug_flag_l4, false);
            bool enabled = false;
            EXPECT_EQ(zon_engine_get_capability(ZON_CAPABILITY_ENABLE_UDP, &enabled),
                      zon_error_none);
            EXPECT_TRUE(enabled);
        }
        zon_set_open_flow_after_pkts(1);
    });
    run(crew);
}

// ---- feature objects ----

constexpr uint32_t fo_rounds = 12000;
constexpr uint32_t fo_threads = 3;
// How often each object came back to its client; an object is attached once.
std::vector<std::atomic<int>> given_back(fo_threads* fo_rounds);

void give_back(void* object) {
    if (object != nullptr)
        ++*static_cast<std::atomic<int>*>(object);
}

void take_back_deleted(zon_flow_ptr_t, void* initiator, void* responder, void* whole,
                       zon_flow_deletion_reason_e, zon_client_id_e) {
    // One record may be found in several positions: it is still one object.
    give_back(whole);
    if (initiator != whole)
        give_back(initiator);
    if (responder != whole && responder != initiator)
        give_back(responder);
}

TEST_P(shared_by_threads, each_feature_object_comes_back_once) {
    for (std::atomic<int>& count : given_back)
        count = 0;
    zon_client_id_e clients[fo_threads];
    for (zon_client_id_e& id : clients) {
        ASSERT_EQ(zon_client_feature_register(&id), zon_error_none);
        ASSERT_EQ(zon_client_register_delete_cb(id, take_back_deleted), zon_error_none);
    }
    std::atomic<uint32_t> attached{0};
    stress_crew crew;
    for (uint32_t thread = 0; thread < fo_threads; ++thread)
        crew.add("client " + std::to_string(thread), [&, thread](stress_thread& self) {
            const zon_client_id_e id = clients[thread];
            for (uint32_t i = 0; i < fo_rounds; ++i) {
                self.doing("send");
                const zon_fid_t fid = send(connection_packet::udp(self.below(6))).fid;
                void* mine = nullptr;
                self.doing("detach");
                if (zon_flow_detach_fo(fid, id, ZON_DIR_BI, &mine) == zon_error_none)
                    give_back(mine);
                self.doing("attach");
                std::atomic<int>* object = &given_back[thread * fo_rounds + i];
                // Nobody else attaches for this client: the place is empty since the detaching.
                if (zon_flow_attach_fo(fid, id, ZON_DIR_BI, object) == zon_error_none)
                    ++attached;
                else
                    ++*object;  // the flow went meanwhile
            }
        });
    crew.add("deleter", [](stress_thread& self) {
        for (uint32_t i = 0; i < fo_rounds; ++i) {
            self.doing("delete");
            zon_delete_flow_tamonet(1 + self.below(8), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            self.stumble();
        }
    });
    crew.add("unregistering", [&clients](stress_thread& self) {
        for (uint32_t i = 0; i < fo_rounds / 4; ++i) {
            self.doing("take a client's objects off");
            EXPECT_EQ(zon_unreg_client_fo(clients[self.below(fo_threads)]), zon_error_none);
        }
    });
    run(crew);
    delete_all_flows();
    uint32_t wrong = 0;
    for (const std::atomic<int>& count : given_back)
        wrong += count != 1;
    EXPECT_EQ(wrong, 0u) << "objects were lost, or came back twice, of " << given_back.size();
    EXPECT_GT(attached, 0u);
}

// Clients with objects on the whole flow and on directions share the ends of their lists.
TEST_P(shared_by_threads, feature_objects_stay_with_their_flow) {
    constexpr uint32_t rounds = 15000;
    static uint32_t flow_of_object[65];
    zon_client_id_e clients[3];
    for (zon_client_id_e& id : clients) {
        ASSERT_EQ(zon_client_feature_register(&id), zon_error_none);
        ASSERT_EQ(zon_client_register_delete_cb(
                      id,
                      [](zon_flow_ptr_t fid, void* initiator, void* responder, void* whole,
                         zon_flow_deletion_reason_e, zon_client_id_e) {
                          for (void* object : {initiator, responder, whole}) {
                              if (object != nullptr) {
                                  EXPECT_EQ(*static_cast<uint32_t*>(object), fid)
                                      << "another flow's object";
                              }
                          }
                      }),
                  zon_error_none);
    }
    for (uint32_t fid = 0; fid <= 64; ++fid)
        flow_of_object[fid] = fid;
    stress_crew crew;
    for (uint32_t thread = 0; thread < 3; ++thread)
        crew.add("client " + std::to_string(thread), [&clients](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                const zon_client_id_e id = clients[self.below(3)];
                const zon_fid_t fid = send(connection_packet::udp(self.below(6))).fid;
                const auto direction = static_cast<zon_flow_direction_e>(self.below(3));
                void* object = nullptr;
                self.doing("attach");
                zon_flow_attach_fo(fid, id, direction, &flow_of_object[fid]);
                self.doing("read");
                if (zon_flow_get_fo(fid, id, static_cast<zon_flow_direction_e>(self.below(3)),
                                    &object) == zon_error_none) {
                    EXPECT_EQ(*static_cast<uint32_t*>(object), fid) << "another flow's object";
                }
                self.doing("detach");
                if (self.below(3) == 0 &&
                    zon_flow_detach_fo(fid, id, direction, &object) == zon_error_none) {
                    EXPECT_EQ(*static_cast<uint32_t*>(object), fid) << "another flow's object";
                }
                self.doing("delete");
                if (self.below(6) == 0)
                    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            }
        });
    run(crew);
}

// A client's object on a direction is followed by the one on the whole flow: both leave both lists,
// or the next owner of the records finds them on this flow.
TEST_F(contended_engine, takes_an_unregistering_client_s_objects_off_all_lists) {
    static int objects[4];
    zon_client_id_e leaving = 0;
    ASSERT_EQ(zon_client_feature_register(&leaving), zon_error_none);
    ASSERT_EQ(zon_client_register_delete_cb(leaving, ignore_deletion), zon_error_none);
    const zon_fid_t first = send(connection_packet::udp(1)).fid;
    const zon_fid_t second = send(connection_packet::udp(2)).fid;
    ASSERT_EQ(zon_flow_attach_fo(first, leaving, ZON_DIR_BI, &objects[0]), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(first, leaving, ZON_DIR_INITIATOR, &objects[1]), zon_error_none);
    ASSERT_EQ(zon_unreg_client_fo(leaving), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(second, client, ZON_DIR_BI, &objects[2]), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(second, client, ZON_DIR_INITIATOR, &objects[3]), zon_error_none);
    for (const zon_flow_direction_e direction :
         {ZON_DIR_BI, ZON_DIR_INITIATOR, ZON_DIR_RESPONDER}) {
        void* found = nullptr;
        EXPECT_EQ(zon_flow_get_fo(first, client, direction, &found),
                  zon_error_feature_object_not_attached);
        EXPECT_EQ(found, nullptr) << "another flow's object";
    }
}

// ---- fragments ----

TEST_P(shared_by_threads, fragment_entries_are_kept_apart) {
    constexpr uint32_t rounds = 40000;
    std::atomic<uint32_t> wrong{0};
    stress_crew crew;
    for (uint32_t thread = 0; thread < 3; ++thread)
        crew.add("datagrams " + std::to_string(thread), [thread, &wrong](stress_thread& self) {
            zon_frag_table_t* table = g_zon->frag_table;
            for (uint32_t i = 0; i < rounds; ++i) {
                const uint32_t ident = self.below(100);
                const zon_fid_t fid = 1 + thread;
                self.doing("insert");
                wrong += zon_frag_flow_insert_ipv4(table, ident, thread, 17, 1, 2, fid) != fid;
                self.doing("look up");
                wrong += zon_frag_flow_lookup_ipv4(table, ident, thread, 17, 1, 2) != fid;
                self.doing("delete");
                wrong += self.below(2) != 0 &&
                         zon_frag_flow_delete_ipv4(table, ident, thread, 17, 1, 2) != fid;
            }
            for (uint32_t ident = 0; ident < 100; ++ident)
                zon_frag_flow_delete_ipv4(table, ident, thread, 17, 1, 2);
        });
    run(crew);
    EXPECT_EQ(wrong, 0u) << "entries were lost or mixed up";
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 0u);
}

// ---- re-keying ----

class rekeyed_flows : public stress_engine {
protected:
    rekeyed_flows() { parameters.max_flows = 64; }
};

// A flow that is given the key that it has, over and over, is never out of the table meanwhile: its
// packets find it.
TEST_P(rekeyed_flows, are_found_at_every_moment) {
    constexpr uint32_t rounds = 25000;
    const zon_fid_t fid = send(connection_packet::udp(1)).fid;
    std::atomic<uint32_t> missed{0};
    stress_crew crew;
    crew.add("client", [fid](stress_thread& self) {
        const zon_flow_tuple_t tuple = tuple_of(1);
        const zon_lock_t lock = g_zon->fid_table->table[fid - 1]->flow_lock;
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("re-key");
            EXPECT_EQ(zon_flow_update_initiator(fid, &tuple), zon_error_none);
            self.doing("change the VRF");
            zon_flow_update_vrf(fid, 0);
            zon_flow_unlock(lock);
        }
    });
    crew.add("packets", [&missed](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("send");
            missed += send(connection_packet::udp(1, self.below(2) != 0)).seen.fif;
        }
    });
    crew.add("other flows", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("create and delete");
            const zon_fid_t other = send(connection_packet::udp(10 + self.below(20))).fid;
            zon_delete_flow_tamonet(other, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    });
    run(crew);
    EXPECT_EQ(missed, 0u) << "packets found their flow in no place";
    EXPECT_EQ(half_flows(), 2u);
}

INSTANTIATE_TEST_SUITE_P(stress, shared_by_threads, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, rekeyed_flows, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test

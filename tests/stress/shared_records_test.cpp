// shared_records_test.cpp - what all threads share: memory, counters, fragment entries, keys.
#include <array>
#include <atomic>
#include <set>

#include "osal/zon_lock.h"
#include "osal/zon_mem.h"
#include "stress/shared_by_threads.h"
#include "support/obstructed_lock.h"
#include "support/parked_thread.h"
#include "zon_fid_table.h"
#include "zon_frag.h"

namespace zon_test {
namespace {

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

// packet_threads_test.cpp - packets of the same connections on several threads.
#include <atomic>
#include <set>
#include <vector>

#include "support/guarded_memory.h"
#include "support/packet_builder.h"
#include "support/stress_engine.h"
#include "zon_flow_table_inline.h"

// The engine asks the host about address translation in the middle of a flow's creation, between
// the search for the flow and its insertion. There is none here; the tests let other threads in at
// this point.
static std::atomic<bool> pause_creation{false};
extern "C" bool zon_ipnat_enabled(void*) {
    if (pause_creation.load(std::memory_order_relaxed))
        std::this_thread::yield();
    return false;
}

namespace zon_test {
namespace {

constexpr uint32_t packet_threads = 3;

struct seen_packet {
    zon_fid_t fid;
    uint32_t count;
    bool first;
    bool promoted;
};
using seen_round = std::array<seen_packet, packet_threads>;

seen_packet as_seen(const sent_packet& sent) {
    return {sent.fid, sent.seen.flow_pkt_count, sent.seen.fif != 0, sent.seen.was_promoted != 0};
}

class packets_on_threads : public stress_engine {
protected:
    packets_on_threads() { parameters.max_flows = 20000; }
    void SetUp() override {
        stress_engine::SetUp();
        pause_creation = true;
    }
    void TearDown() override {
        pause_creation = false;
        stress_engine::TearDown();
    }

    // All threads hand in make(connection, thread) of one connection at a time.
    template <class packet_maker>
    std::vector<seen_round> send_at_once(uint32_t connections, packet_maker make) {
        std::vector<seen_round> seen(connections);
        stress_crew crew;
        for (uint32_t thread = 0; thread < packet_threads; ++thread)
            crew.add("packets " + std::to_string(thread), [&, thread](stress_thread& self) {
                for (uint32_t connection = 0; connection < connections; ++connection) {
                    self.meet();
                    self.doing("send the first packet");
                    seen[connection][thread] = as_seen(send(make(connection, thread)));
                }
            });
        run(crew);
        return seen;
    }
};

// Every thread's packet was counted to the one flow, as its first, second, ...
void expect_one_flow(const seen_round& round, uint32_t number) {
    uint32_t firsts = 0;
    std::set<uint32_t> counts;
    for (const seen_packet& packet : round) {
        EXPECT_NE(packet.fid, 0u) << "connection " << number << " has a packet without a flow";
        EXPECT_EQ(packet.fid, round[0].fid) << "connection " << number << " has two flows";
        EXPECT_TRUE(counts.insert(packet.count).second)
            << "two packets of connection " << number << " are packet " << packet.count;
        EXPECT_LE(packet.count, packet_threads);
        EXPECT_EQ(packet.first, packet.count == 1) << "connection " << number;
        firsts += packet.first;
    }
    EXPECT_EQ(firsts, 1u) << "connection " << number;
}

TEST_P(packets_on_threads, make_one_flow_of_one_connection) {
    constexpr uint32_t rounds = 1500;
    // One of them comes from the other side.
    const auto seen = send_at_once(rounds, [](uint32_t connection, uint32_t thread) {
        return connection_packet::udp(connection, thread == 1);
    });
    for (uint32_t round = 0; round < rounds; ++round)
        expect_one_flow(seen[round], round);
    EXPECT_EQ(half_flows(), 2 * rounds);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 2 * rounds);
    EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 2 * rounds);
}

// A pre-create callback that pauses widens the time between a packet's search and its flow's
// insertion.
bool allow_after_a_pause(void*, zon_client_id_e) {
    std::this_thread::yield();
    return true;
}

TEST_P(packets_on_threads, make_one_flow_while_clients_are_asked) {
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, allow_after_a_pause), zon_error_none);
    constexpr uint32_t rounds = 1000;
    const auto seen = send_at_once(
        rounds, [](uint32_t connection, uint32_t) { return connection_packet::tcp(connection); });
    for (uint32_t round = 0; round < rounds; ++round)
        expect_one_flow(seen[round], round);
    EXPECT_EQ(half_flows(), 2 * rounds);
}

// Between two looks at a packet somebody may begin to want tunnels, which are searched for in the
// payload: here it is cut off, with nothing readable behind.
TEST_P(packets_on_threads, are_read_within_their_bytes_while_wishes_change) {
    constexpr uint32_t packets = 60000;
    constexpr size_t captured = 28;  // both headers
    std::atomic<bool> is_done{false};
    stress_crew crew;
    crew.add("cut packets", [&is_done](stress_thread&) {
        guarded_memory memory(captured);
        for (uint32_t i = 0; i < packets; ++i) {
            const bytes whole = packet_builder::ipv4("10.0.0.1", "10.0.0.2")
                                    .udp(static_cast<uint16_t>(1 + i), 53)
                                    .payload(40)
                                    .build();
            zon_pkt_indications_t seen{};
            zon_error_t error = zon_error_none;
            zon_handle_captured_packet(memory.place(whole, captured), captured, 0, nullptr, &seen,
                                       &error);
            EXPECT_NE(error, zon_error_parameter_invalid);
        }
        is_done = true;
    });
    crew.add("wishes", [this, &is_done](stress_thread&) {
        while (!is_done) {
            enable(ZON_CAPABILITY_ENABLE_TEREDO);
            disable(ZON_CAPABILITY_ENABLE_TEREDO);
        }
    });
    run(crew);
}

// ---- announced flows --------------------------------------------------------------------------

struct announced_round {
    seen_round packets{};
    zon_fid_t announced = 0;
};

class packets_and_announcements : public packets_on_threads {
protected:
    // Announces each connection while its first packets arrive.
    std::vector<announced_round> announce_and_send(zon_flow_tuple_type_t type, uint32_t rounds) {
        std::vector<announced_round> all(rounds);
        stress_crew crew;
        crew.add("announcer", [&all, type](stress_thread& self) {
            for (uint32_t number = 0; number < all.size(); ++number) {
                self.meet();
                self.doing("announce");
                const zon_flow_tuple_t tuple = tuple_of(number);
                EXPECT_EQ(zon_pre_flow_add(type, &tuple, 0, &all[number].announced, nullptr),
                          zon_error_none);
                self.meet();
            }
        });
        add_senders(crew, all);
        run(crew);
        return all;
    }
    // They meet the announcer before each packet and after it.
    static void add_senders(stress_crew& crew, std::vector<announced_round>& all) {
        for (uint32_t thread = 0; thread + 1 < packet_threads; ++thread)
            crew.add("packets " + std::to_string(thread), [&all, thread](stress_thread& self) {
                for (uint32_t number = 0; number < all.size(); ++number) {
                    self.meet();
                    self.doing("send");
                    all[number].packets[thread] = as_seen(send(connection_packet::udp(number)));
                    self.meet();
                }
            });
    }
};

TEST_P(packets_and_announcements, share_the_flow_of_a_complete_tuple) {
    constexpr uint32_t rounds = 1500;
    const std::vector<announced_round> all =
        announce_and_send(ZON_FLOW_TUPLE_TYPE_COMPLETE, rounds);
    for (uint32_t number = 0; number < rounds; ++number) {
        const seen_packet* packets = all[number].packets.data();
        EXPECT_EQ(packets[0].fid, all[number].announced)
            << "connection " << number << " has a flow and a pre-flow";
        EXPECT_EQ(packets[1].fid, all[number].announced)
            << "connection " << number << " has a flow and a pre-flow";
        EXPECT_EQ(packets[0].count + packets[1].count, 3u) << "connection " << number;
        EXPECT_LE(packets[0].promoted + packets[1].promoted, 1)
            << "connection " << number << " was promoted twice";
    }
    EXPECT_EQ(half_flows(), 2 * rounds);
    expect_no_pre_flows();
}

TEST_P(packets_and_announcements, promote_once_what_was_announced_in_part) {
    constexpr uint32_t rounds = 1500;
    std::vector<announced_round> all(rounds);
    stress_crew crew;
    // Announced before the packets: each must be promoted, by exactly one of them.
    crew.add("announcer", [&all](stress_thread& self) {
        for (uint32_t number = 0; number < rounds; ++number) {
            self.doing("announce");
            const zon_flow_tuple_t tuple = tuple_of(number);
            EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, &tuple, 0,
                                       &all[number].announced, nullptr),
                      zon_error_none);
            self.meet();
            self.meet();
        }
    });
    add_senders(crew, all);
    run(crew);
    for (uint32_t number = 0; number < rounds; ++number) {
        const seen_packet* packets = all[number].packets.data();
        EXPECT_EQ(packets[0].fid, all[number].announced) << "connection " << number;
        EXPECT_EQ(packets[1].fid, all[number].announced) << "connection " << number;
        EXPECT_EQ(packets[0].count + packets[1].count, 3u) << "connection " << number;
        EXPECT_EQ(packets[0].promoted + packets[1].promoted, 1) << "connection " << number;
    }
    EXPECT_EQ(half_flows(), 2 * rounds);
    expect_no_pre_flows();
}

// Every thread announces and uses connections of its own: what the others take back must not hide
// what it has announced.
TEST_P(packets_and_announcements, find_each_live_announcement) {
    constexpr uint32_t rounds = 3000;
    std::atomic<uint32_t> missed{0};
    stress_crew crew;
    for (uint32_t thread = 0; thread < packet_threads; ++thread)
        crew.add("announcer " + std::to_string(thread), [&missed, thread](stress_thread& self) {
            const uint32_t number = thread + 1;
            const zon_flow_tuple_type_t types[] = {ZON_FLOW_TUPLE_TYPE_COMPLETE,
                                                   ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN};
            for (uint32_t round = 0; round < rounds; ++round) {
                const zon_flow_tuple_t tuple = tuple_of(number);
                zon_fid_t announced = 0;
                self.doing("announce");
                EXPECT_EQ(zon_pre_flow_add(types[self.below(2)], &tuple, 0, &announced, nullptr),
                          zon_error_none);
                self.doing("send");
                const sent_packet sent = send(connection_packet::udp(number));
                missed += sent.fid != announced || sent.seen.was_promoted == 0;
                self.doing("delete");
                EXPECT_TRUE(
                    zon_delete_flow_tamonet(sent.fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
                self.stumble();
            }
        });
    run(crew);
    EXPECT_EQ(missed, 0u) << "announced flows were not found by their first packets";
    expect_no_pre_flows();
}

// Whether any flow is announced at all is asked for every packet of an unknown connection: what is
// counted in stays seen while others count in and out.
TEST_P(packets_and_announcements, are_looked_for_as_long_as_one_is_counted) {
    constexpr uint32_t rounds = 100000;
    uint32_t unseen = 0;
    stress_crew crew;
    crew.add("coming and going", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("count in and out");
            zon_private_increment_incomplete_inserts(g_zon->flow_tbl, ZON_IPV4_KEY_VRF_STAR);
            zon_private_decrement_incomplete_inserts(g_zon->flow_tbl, ZON_IPV4_KEY_VRF_STAR);
            std::this_thread::yield();
        }
    });
    crew.add("staying", [&unseen](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            std::this_thread::yield();
            self.doing("count in");
            zon_private_increment_incomplete_inserts(g_zon->flow_tbl,
                                                     ZON_IPV4_KEY_PRE_FLOW_COMPLETE);
            std::this_thread::yield();
            unseen += !zon_private_has_incomplete_inserts(g_zon->flow_tbl);
            self.doing("count out");
            zon_private_decrement_incomplete_inserts(g_zon->flow_tbl,
                                                     ZON_IPV4_KEY_PRE_FLOW_COMPLETE);
        }
    });
    run(crew);
    EXPECT_EQ(unseen, 0u) << "announced flows are not looked for";
    expect_no_pre_flows();
}

// A client that is asked before a flow is made gives another flow the packet's tuple: the announced
// one, which was known in part only, must not get it, too.
zon_fid_t flow_to_rekey;
bool rekey_and_allow(void*, zon_client_id_e) {
    const zon_flow_tuple_t tuple = tuple_of(1);
    EXPECT_EQ(zon_flow_update_initiator(flow_to_rekey, &tuple), zon_error_none);
    return true;
}

TEST_F(contended_engine, promotes_no_flow_to_a_tuple_that_another_flow_was_given) {
    const zon_flow_tuple_t tuple = tuple_of(1);
    zon_fid_t announced = 0;
    ASSERT_EQ(
        zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, &tuple, 0, &announced, nullptr),
        zon_error_none);
    flow_to_rekey = send(connection_packet::udp(2)).fid;
    ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, rekey_and_allow), zon_error_none);
    const sent_packet sent = send(connection_packet::udp(1));
    EXPECT_EQ(sent.fid, flow_to_rekey);
    EXPECT_EQ(sent.seen.was_promoted, 0);
    EXPECT_TRUE(zon_private_has_incomplete_inserts(g_zon->flow_tbl)) << "it is announced still";
}

// Two clients announce the same tuple: one announcement.
TEST_P(packets_and_announcements, make_one_announcement_of_one_tuple) {
    constexpr uint32_t rounds = 1500;
    std::vector<std::array<zon_fid_t, 2>> fids(rounds);
    stress_crew crew;
    for (uint32_t thread = 0; thread < 2; ++thread)
        crew.add("announcer " + std::to_string(thread), [&fids, thread](stress_thread& self) {
            for (uint32_t number = 0; number < rounds; ++number) {
                self.meet();
                self.doing("announce");
                const zon_flow_tuple_t tuple = tuple_of(number);
                EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0,
                                           &fids[number][thread], nullptr),
                          zon_error_none);
            }
        });
    run(crew);
    for (uint32_t number = 0; number < rounds; ++number)
        EXPECT_EQ(fids[number][0], fids[number][1]) << "tuple " << number << " was announced twice";
    EXPECT_EQ(half_flows(), 2 * rounds);
    EXPECT_EQ(zon_private_get_incomplete_inserts(g_zon->flow_tbl, ZON_IPV4_KEY_PRE_FLOW_COMPLETE),
              2 * rounds);
}

// A dozen buckets: whenever an item leaves its bucket, its neighbours move up at the front.
class crowded_buckets : public stress_engine {
protected:
    crowded_buckets() {
        ZON_DEFAULT_FLOW_TO_HASH_SIZE_RATIO = 1000;
        parameters.max_flows = 1000;
    }
    ~crowded_buckets() override { ZON_DEFAULT_FLOW_TO_HASH_SIZE_RATIO = 1; }
};

TEST_P(crowded_buckets, promote_while_neighbours_leave) {
    constexpr uint32_t rounds = 100;
    constexpr uint32_t connections = 30;
    const auto announce_promote_delete = [](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            std::array<zon_fid_t, connections> announced{};
            self.doing("announce");
            for (uint32_t number = 0; number < connections; ++number) {
                const zon_flow_tuple_t tuple = tuple_of(number);
                EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0,
                                           &announced[number], nullptr),
                          zon_error_none);
            }
            self.doing("promote and delete");
            for (uint32_t number = 0; number < connections; ++number) {
                const sent_packet sent = send(connection_packet::udp(number));
                EXPECT_EQ(sent.fid, announced[number]);
                EXPECT_EQ(sent.seen.was_promoted, 1);
            }
            for (const zon_fid_t fid : announced)
                EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        }
    };
    const auto create_delete = [](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            std::array<zon_fid_t, connections> fids{};
            self.doing("create and delete");
            for (uint32_t number = 0; number < connections; ++number)
                EXPECT_NE(fids[number] = send(connection_packet::udp(1000 + number)).fid, 0u);
            for (const zon_fid_t fid : fids)
                EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        }
    };
    stress_crew crew;
    crew.add("promoted", announce_promote_delete);
    crew.add("neighbours", create_delete);
    run(crew);
    EXPECT_EQ(half_flows(), 0u);
}

INSTANTIATE_TEST_SUITE_P(stress, packets_on_threads, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, packets_and_announcements, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, crowded_buckets, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test

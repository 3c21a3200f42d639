// shared_clients_test.cpp - clients come and go, and switches are turned, while packets flow.
#include <array>
#include <atomic>
#include <utility>

#include "stress/shared_by_threads.h"
#include "zon_relaxed.h"
#include "zon_super_ctx.h"

namespace zon_test {
namespace {

class clients_on_threads : public shared_by_threads {};

bool allow(void*, zon_client_id_e) {
    return true;
}
void ignore_bypass(uint32_t, bool, bool, bool, uint32_t*) {}
void ignore_deletion(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                     zon_client_id_e) {}

TEST_P(clients_on_threads, come_and_go_while_packets_are_shown_to_them) {
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

TEST_P(clients_on_threads, have_functions_that_find_what_was_prepared_for_them) {
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

TEST_P(clients_on_threads, see_switches_turned_while_packets_flow) {
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

INSTANTIATE_TEST_SUITE_P(stress, clients_on_threads, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test

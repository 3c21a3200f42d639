// zon_classify_clients_test.cpp - which clients a packet is shown to, and by whose capabilities.

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "src/zon_engine/zon_classify_fixture.h"
#include "support/captured_output.h"
#include "support/engine_call.h"
#include "support/sample_packets.h"

namespace {

using namespace zon_test;

packet_builder plain_tcp() {
    return ipv4().tcp(40000, 80);
}

std::vector<std::string> asked;
bool refuse = false;
bool allow_a(void* context, zon_client_id_e client) {
    asked.push_back("a" + std::to_string(client) + (context != nullptr ? "!" : ""));
    return true;
}
bool maybe_refuse_b(void*, zon_client_id_e client) {
    asked.push_back("b" + std::to_string(client));
    return !refuse;
}

class asked_clients : public classified_packet {
protected:
    void SetUp() override {
        classified_packet::SetUp();
        asked.clear();
        refuse = false;
        ASSERT_EQ(zon_client_feature_register(&second), zon_error_none);
        ASSERT_EQ(zon_client_feature_register(&third), zon_error_none);
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, allow_a), zon_error_none);
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(third, maybe_refuse_b), zon_error_none);
    }
    void TearDown() override {
        zon_errlog = false;
        classified_packet::TearDown();
    }
    zon_client_id_e second = 0;
    zon_client_id_e third = 0;
};

TEST_F(asked_clients, are_asked_newest_first_and_for_new_connections_only) {
    engine_call call(udp4());
    call.context = &call;
    EXPECT_NE(call.run(), 0U);
    EXPECT_EQ(asked, (std::vector<std::string>{"b29", "a31!"}));
    engine_call(udp4().reversed()).run();
    EXPECT_EQ(asked.size(), 2U);
}

TEST_F(asked_clients, can_refuse_which_stops_the_asking_and_leaves_nothing_behind) {
    refuse = true;
    zon_errlog = true;
    captured_output log(stderr);
    engine_call call(udp4());
    call.seen.fif = 1;
    EXPECT_EQ(call.run(), 0U);
    EXPECT_EQ(call.error, zon_error_client_pre_create_prevented);
    EXPECT_EQ(call.seen.fif, 0);
    EXPECT_EQ(asked, std::vector<std::string>{"b29"});
    EXPECT_NE(log.text().find(
                  "ZON_MSG_INDEX: 2. Client pre-create prevented  zon_flow_lookup, half_flow::0\n"),
              std::string::npos)
        << log.text();
    EXPECT_EQ(flows_in_use(), 0U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0U);
}

std::vector<std::string> bypasses;
void bypass_one(uint32_t payload, bool fif, bool promoted, bool first_payload, uint32_t* id) {
    bypasses.push_back("one " + std::to_string(payload) + (fif ? " fif" : "") +
                       (promoted ? " promoted" : "") + (first_payload ? " first" : "") + " id" +
                       std::to_string(*id));
    *id += 1;
}
void bypass_two(uint32_t, bool, bool, bool, uint32_t* id) {
    bypasses.push_back("two id" + std::to_string(*id));
    *id += 10;
}

class bypassing_clients : public classified_packet {
protected:
    void SetUp() override {
        classified_packet::SetUp();
        bypasses.clear();
        zon_client_id_e second = 0;
        ASSERT_EQ(zon_client_feature_register(&second), zon_error_none);
        ASSERT_EQ(zon_client_register_bypass_cb(client, bypass_one), zon_error_none);
        ASSERT_EQ(zon_client_register_bypass_cb(second, bypass_two), zon_error_none);
    }
};

TEST_F(bypassing_clients, see_tcp_packets_while_the_capability_is_in_force_and_may_set_the_id) {
    engine_call before(plain_tcp());
    before.run();
    EXPECT_TRUE(bypasses.empty());
    enable(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS);
    engine_call call(plain_tcp().payload(5));
    const zon_fid_t fid = call.run();
    EXPECT_EQ(bypasses, (std::vector<std::string>{"two id0", "one 5 first id10"}));
    EXPECT_EQ(call.seen.bypass_id, 11U);
    EXPECT_EQ(record_of(fid)->bypass_id, 11U);
    engine_call(udp4()).run();
    EXPECT_EQ(bypasses.size(), 2U) << "UDP is not shown";
}

// What the host's own record says while the clients look at the packet, whichever way it takes.
TEST_F(bypassing_clients, find_in_the_indications_what_is_known_by_then) {
    static zon_pkt_indications_t* of_host;
    static std::vector<zon_pkt_indications_t> seen;
    seen.clear();
    enable(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS);
    zon_client_id_e watching = 0;
    ASSERT_EQ(zon_client_feature_register(&watching), zon_error_none);
    ASSERT_EQ(zon_client_register_bypass_cb(watching, [](uint32_t, bool, bool, bool,
                                                         uint32_t*) { seen.push_back(*of_host); }),
              zon_error_none);
    for (const bool hashed_by_host : {false, true}) {
        bytes packet = plain_tcp().payload(7).build();
        zon_pkt_indications_t indications;
        of_host = &indications;
        seen.clear();
        for (const bool first : {true, false}) {
            std::memset(&indications, 0xA5, sizeof indications);
            indications.hash_valid = hashed_by_host;
            indications.hash_value = 99;
            zon_error_t error;
            ASSERT_NE(
                zon_handle_packet(packet.data(), hashed_by_host, nullptr, &indications, &error),
                0U);
            const zon_pkt_indications_t& told = seen.back();
            EXPECT_EQ(told.flow, 0U);
            EXPECT_EQ(told.flow_pkt_count, 0U);
            EXPECT_EQ(told.l7_flow_bytes, 0U);
            EXPECT_EQ(told.l4_payload_size, 7U);
            EXPECT_EQ(told.l3_header_size, 20U);
            EXPECT_EQ(told.fif, first);
            EXPECT_EQ(told.first_payload, first);
            EXPECT_EQ(told.packet_seen, 1);
            EXPECT_EQ(told.l4_error, indications.l4_error);
            EXPECT_EQ(told.l3_start, packet.data());
            EXPECT_EQ(told.l4_start, nullptr);
        }
        EXPECT_EQ(seen.size(), 2U);
    }
}

TEST_F(bypassing_clients, are_called_by_the_counters_handed_in_and_not_by_the_engines) {
    zon_capability_counter_t counters{};
    counters.zon_engine_client_bypass = 1;
    engine_call(plain_tcp()).run(&counters);
    EXPECT_EQ(bypasses, (std::vector<std::string>{"two id0", "one 0 fif id10"}));
}

// ---- functions that hand in packets, with the host's one error variable ----

class error_of_host : public bypassing_clients {
protected:
    void SetUp() override {
        bypassing_clients::SetUp();
        ASSERT_EQ(zon_client_register_pre_flow_create_cb(client, hand_in_and_allow),
                  zon_error_none);
        ASSERT_EQ(zon_client_register_bypass_cb(client, hand_in_while_shown), zon_error_none);
    }

    // A packet in whose midst a client's function hands in another one, which is refused.
    static void expect_none_after(const packet_builder& packet) {
        hands_in = true;
        bytes content = packet.build();
        zon_pkt_indications_t seen{};
        EXPECT_NE(zon_handle_packet(content.data(), 0, nullptr, &seen, &error), 0U);
        EXPECT_FALSE(hands_in);
        EXPECT_EQ(error, zon_error_none);
    }

private:
    static void hand_in_a_packet_to_refuse() {
        if (!std::exchange(hands_in, false))
            return;
        bytes nested = packet_builder::ipv4("10.9.9.9", "10.9.9.8").tcp(1, 2).build();
        zon_pkt_indications_t seen{};
        refuses = true;
        EXPECT_EQ(zon_handle_packet(nested.data(), 0, nullptr, &seen, &error), 0U);
        EXPECT_EQ(error, zon_error_client_pre_create_prevented);
        refuses = false;
    }
    static bool hand_in_and_allow(void*, zon_client_id_e) {
        if (refuses)
            return false;
        hand_in_a_packet_to_refuse();
        return true;
    }
    static void hand_in_while_shown(uint32_t, bool, bool, bool, uint32_t*) {
        hand_in_a_packet_to_refuse();
    }

    static inline zon_error_t error;
    static inline bool hands_in = false;
    static inline bool refuses = false;
};

// On the straight way and on the detour.
TEST_F(error_of_host, is_cleared_once_they_have_run) {
    const packet_builder packets[] = {tcp4(), tcp6(), ipv4().ip_options({1}).tcp(40001, 80),
                                      ipv6().destination_options().tcp(40001, 80)};
    for (const packet_builder& packet : packets) {
        expect_none_after(packet);
        enable(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS);
        expect_none_after(packet);
        disable(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS);
    }
}

TEST_F(classified_packet, is_checked_by_the_counters_handed_in) {
    zon_capability_counter_t checking{};
    checking.zon_engine_tcp_state_checks = 1;
    engine_call(plain_tcp().flags(tcp_syn).seq(1000)).run(&checking);
    engine_call repeated(plain_tcp().flags(tcp_syn).seq(1001));
    repeated.run(&checking);
    EXPECT_EQ(repeated.seen.l4_error, ZON_L4_INVALID_DATA);
    zon_capability_counter_t trusting{};
    engine_call again(plain_tcp().flags(tcp_syn).seq(1002));
    again.run(&trusting);
    EXPECT_EQ(again.seen.l4_error, ZON_L4_RETRANS_SEG);
}

}  // namespace

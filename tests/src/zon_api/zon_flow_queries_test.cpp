// zon_flow_queries_test.cpp - single fields of flows, read and written by identifier.

#include <functional>

#include "api_fixture.h"

using namespace zon_test;

namespace {

class flow_queries : public api_fixture {
protected:
    void SetUp() override {
        api_fixture::SetUp();
        fid = udp_flow(1000);
    }
    zon_fid_t fid = 0;
};

zon_l4_flow_state_e state_out;
uint32_t number_out;
uint16_t window_out;
zon_flow_tuple_t tuple_out;

// Every operation, called with good arguments for an identifier, and the end of what a miss prints.
struct operation {
    const char* name;
    zon_error_t (*call)(zon_fid_t);
    const char* miss;
    bool traces_null_fid;
};
constexpr const char* with_blank = "\nZON Engine: ZON_ERRMSG_CLIENT_API, ";
constexpr const char* without_blank = "\nZON Engine: ZON_ERRMSG_CLIENT_API,";

const operation operations[] = {
    {"get_l4_state", [](zon_fid_t f) { return zon_flow_get_l4_state(f, &state_out); }, with_blank,
     true},
    {"set_l4_state", [](zon_fid_t f) { return zon_flow_set_l4_state(f, ZON_L4_CLOSING); }, "",
     true},
    {"get_packet_count", [](zon_fid_t f) { return zon_flow_get_packet_count(f, &number_out); },
     without_blank, true},
    {"get_application_id", [](zon_fid_t f) { return zon_flow_get_application_id(f, &number_out); },
     with_blank, true},
    {"set_application_id", [](zon_fid_t f) { return zon_flow_set_application_id(f, 1); },
     without_blank, true},
    {"set_dpi_bypass_id", [](zon_fid_t f) { return zon_flow_set_dpi_bypass_id(f, 1); },
     without_blank, true},
    {"get_tuple", [](zon_fid_t f) { return zon_flow_get_tuple(f, ZON_DIR_INITIATOR, &tuple_out); },
     with_blank, false},
    {"get_next_tcp_seq_nbr",
     [](zon_fid_t f) {
         return zon_flow_get_next_tcp_seq_nbr(f, ZON_DIR_INITIATOR, &number_out, &window_out);
     },
     without_blank, true},
};

class every_flow_query : public flow_queries, public ::testing::WithParamInterface<operation> {};

TEST_P(every_flow_query, misses_no_flow_and_an_empty_slot_and_traces_its_own_text) {
    EXPECT_EQ(GetParam().call(0), zon_error_flow_not_found);
    EXPECT_EQ(GetParam().call(fid + 1), zon_error_flow_not_found);
    zon_debug_flag_engine = true;
    const std::string empty_slot = traced([&] { GetParam().call(fid + 1); });
    EXPECT_TRUE(ends_with(empty_slot, GetParam().miss)) << '"' << empty_slot << '"';
    EXPECT_EQ(empty_slot.empty(), std::string(GetParam().miss).empty());
    const std::string null_fid = traced([&] { GetParam().call(0); });
    EXPECT_TRUE(ends_with(null_fid, GetParam().traces_null_fid ? GetParam().miss : ""))
        << '"' << null_fid << '"';
    EXPECT_EQ(null_fid.empty(),
              !GetParam().traces_null_fid || std::string(GetParam().miss).empty());
}

TEST_P(every_flow_query, leaves_the_flow_unlocked) {
    GetParam().call(fid);
    EXPECT_FALSE(is_locked(record_of(fid)));
}

TEST_P(every_flow_query, stops_the_program_for_an_identifier_above_the_capacity) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(GetParam().call(parameters.max_flows + 1), "fid_is_valid\\(fid_table, fid\\)");
}

INSTANTIATE_TEST_SUITE_P(rows, every_flow_query, ::testing::ValuesIn(operations),
                         [](const auto& row) { return row.param.name; });

TEST(flow_queries_without_an_engine, say_so) {
    for (const operation& each : operations)
        EXPECT_EQ(each.call(1), zon_error_engine_not_init) << each.name;
}

TEST_F(flow_queries, refuse_null_pointers_before_the_flow) {
    const zon_fid_t wild = parameters.max_flows + 1;
    EXPECT_EQ(zon_flow_get_l4_state(wild, nullptr), zon_error_parameter_is_null);
    EXPECT_EQ(zon_flow_get_packet_count(wild, nullptr), zon_error_parameter_is_null);
    EXPECT_EQ(zon_flow_get_application_id(wild, nullptr), zon_error_parameter_is_null);
    EXPECT_EQ(zon_flow_get_tuple(wild, ZON_DIR_BI, nullptr), zon_error_flow_tuple_is_null);
    EXPECT_EQ(zon_flow_get_next_tcp_seq_nbr(wild, ZON_DIR_BI, nullptr, nullptr),
              zon_error_parameter_is_null);
}

TEST_F(flow_queries, l4_state_of_no_flow_is_left_closed) {
    zon_l4_flow_state_e state = ZON_L4_CLOSING;
    EXPECT_EQ(zon_flow_get_l4_state(fid + 1, &state), zon_error_flow_not_found);
    EXPECT_EQ(state, ZON_L4_CLOSED);
}

TEST_F(flow_queries, l4_state_is_set_and_read_and_nothing_else_changes) {
    const zon_tcp_state_t tcp_state = record_of(fid)->l4state.tcp_state;
    for (int value = ZON_L4_CLOSED; value <= ZON_L4_CLOSING; ++value) {
        EXPECT_EQ(zon_flow_set_l4_state(fid, static_cast<zon_l4_flow_state_e>(value)),
                  zon_error_none);
        zon_l4_flow_state_e state = ZON_L4_ENUM_END;
        EXPECT_EQ(zon_flow_get_l4_state(fid, &state), zon_error_none);
        EXPECT_EQ(state, value);
    }
    EXPECT_EQ(record_of(fid)->l4state.tcp_state, tcp_state);
}

TEST_F(flow_queries, l4_state_outside_the_states_is_refused_before_the_flow_is_looked_at) {
    for (const int value : {-1, 7, 255})
        EXPECT_EQ(zon_flow_set_l4_state(parameters.max_flows + 1,
                                        static_cast<zon_l4_flow_state_e>(value)),
                  zon_error_l4_state_invalid);
}

TEST_F(flow_queries, l4_state_set_for_no_flow_is_logged_under_the_getters_name) {
    zon_errlog = true;
    const std::string text = traced([&] { zon_flow_set_l4_state(fid + 1, ZON_L4_OPENING); });
    const std::string expected =
        "ZON_MSG_INDEX: 6. Could not find flow for the given fid  zon_flow_get_l4_state, fid::" +
        std::to_string(fid + 1) + "\n";
    EXPECT_TRUE(ends_with(text, expected)) << '"' << text << '"';
}

TEST_F(flow_queries, numbers_are_read_as_they_are) {
    handle(udp_packet(1000, 53));
    uint32_t number = 0;
    EXPECT_EQ(zon_flow_get_packet_count(fid, &number), zon_error_none);
    EXPECT_EQ(number, 2u);
    EXPECT_EQ(zon_flow_set_application_id(fid, 0xFFFFFFFF), zon_error_none);
    EXPECT_EQ(zon_flow_get_application_id(fid, &number), zon_error_none);
    EXPECT_EQ(number, 0xFFFFFFFFu);
    EXPECT_EQ(zon_flow_set_dpi_bypass_id(fid, 17), zon_error_none);
    EXPECT_EQ(record_of(fid)->bypass_id, 17u);
    EXPECT_EQ(handle(udp_packet(1000, 53)).indications.bypass_id, 17u);
}

// What an operation writes into the record of its flow.
struct written {
    const char* name;
    zon_error_t (*set)(zon_fid_t);
    void (*in_record)(zon_flow_t&);
};

TEST_F(flow_queries, setters_write_their_field_alone) {
    const written rows[] = {
        {"set_l4_state", [](zon_fid_t f) { return zon_flow_set_l4_state(f, ZON_L4_CLOSING); },
         [](zon_flow_t& record) { record.l4state.sess_state = ZON_L4_CLOSING; }},
        {"set_application_id", [](zon_fid_t f) { return zon_flow_set_application_id(f, ~0U); },
         [](zon_flow_t& record) { record.app_id = ~0U; }},
        {"set_dpi_bypass_id", [](zon_fid_t f) { return zon_flow_set_dpi_bypass_id(f, ~0U); },
         [](zon_flow_t& record) { record.bypass_id = ~0U; }},
    };
    for (const written& row : rows) {
        zon_flow_t expected;
        std::memcpy(static_cast<void*>(&expected), record_of(fid), sizeof expected);
        row.in_record(expected);
        EXPECT_EQ(row.set(fid), zon_error_none) << row.name;
        EXPECT_EQ(std::memcmp(&expected, record_of(fid), sizeof expected), 0) << row.name;
    }
}

TEST_F(flow_queries, tuple_is_the_key_of_the_direction) {
    const zon_fid_t other_vrf = handle(udp_packet(1001, 53), 9).fid;
    zon_flow_tuple_t tuple{};
    ASSERT_EQ(zon_flow_get_tuple(other_vrf, ZON_DIR_INITIATOR, &tuple), zon_error_none);
    EXPECT_EQ(tuple.src_ip.addr_type, ZON_IP_ADDR_IPV4);
    EXPECT_EQ(tuple.dst_ip.addr_type, ZON_IP_ADDR_IPV4);
    EXPECT_EQ(tuple.src_ip.u.v4_addr, host_a);
    EXPECT_EQ(tuple.dst_ip.u.v4_addr, host_b);
    EXPECT_EQ(tuple.src_port, 1001);
    EXPECT_EQ(tuple.dst_port, 53);
    EXPECT_EQ(tuple.vrf_id, 9u);
    EXPECT_EQ(tuple.l4_protocol, udp);
    ASSERT_EQ(zon_flow_get_tuple(other_vrf, ZON_DIR_RESPONDER, &tuple), zon_error_none);
    EXPECT_EQ(tuple.src_ip.u.v4_addr, host_b);
    EXPECT_EQ(tuple.dst_port, 1001);
}

TEST_F(flow_queries, tuple_of_an_ipv6_flow_holds_its_words) {
    const zon_fid_t flow = handle(udp6_packet(1000, 53), 9).fid;
    const zon_flow_tuple_t expected = tuple6("2001:db8::1", 1000, "2001:db8::2", 53);
    zon_flow_tuple_t tuple{};
    ASSERT_EQ(zon_flow_get_tuple(flow, ZON_DIR_INITIATOR, &tuple), zon_error_none);
    EXPECT_EQ(tuple.src_ip.addr_type, ZON_IP_ADDR_IPV6);
    EXPECT_EQ(tuple.dst_ip.addr_type, ZON_IP_ADDR_IPV6);
    EXPECT_EQ(std::memcmp(tuple.src_ip.u.v6_addr, expected.src_ip.u.v6_addr, 16), 0);
    EXPECT_EQ(std::memcmp(tuple.dst_ip.u.v6_addr, expected.dst_ip.u.v6_addr, 16), 0);
    EXPECT_EQ(tuple.src_port, 1000);
    EXPECT_EQ(tuple.dst_port, 53);
    EXPECT_EQ(tuple.vrf_id, 9u);
    EXPECT_EQ(tuple.l4_protocol, udp);
}

TEST_F(flow_queries, tuple_of_an_announced_flow_has_what_was_announced_where_nothing_is_known) {
    zon_flow_tuple_t announced4 = tuple4(0x0A0000AA, 7000, 0x0A0000BB, 8000, tcp, 12);
    zon_flow_tuple_t announced6 = tuple6("2001:db8::aa", 7000, "2001:db8::bb", 8000, tcp);
    announced6.vrf_id = 12;
    for (const zon_flow_tuple_t& announced : {announced4, announced6})
        for (int type = ZON_FLOW_TUPLE_TYPE_COMPLETE; type <= ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN;
             ++type) {
            const zon_fid_t flow = pre_flow(static_cast<zon_flow_tuple_type_t>(type), announced);
            for (const auto dir : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER}) {
                const zon_flow_tuple_t expected =
                    dir == ZON_DIR_INITIATOR ? announced : reversed(announced);
                zon_flow_tuple_t tuple{};
                ASSERT_EQ(zon_flow_get_tuple(flow, dir, &tuple), zon_error_none);
                EXPECT_EQ(std::memcmp(&tuple, &expected, sizeof tuple), 0)
                    << "tuple type " << type << ", direction " << dir;
            }
        }
}

TEST_F(flow_queries, tuple_finds_its_flow_again) {
    zon_flow_tuple_t tuple{};
    ASSERT_EQ(zon_flow_get_tuple(fid, ZON_DIR_RESPONDER, &tuple), zon_error_none);
    EXPECT_EQ(find(tuple), fid);
}

TEST_F(flow_queries, tuple_of_the_whole_flow_is_refused_after_the_flow_was_found) {
    zon_flow_tuple_t tuple{};
    for (const int dir : {0, 3, -1}) {
        const auto direction = static_cast<zon_flow_direction_e>(dir);
        EXPECT_EQ(zon_flow_get_tuple(fid, direction, &tuple),
                  zon_error_direction_parameter_is_invalid);
        EXPECT_EQ(zon_flow_get_tuple(fid + 1, direction, &tuple), zon_error_flow_not_found);
        EXPECT_FALSE(is_locked(record_of(fid)));
    }
}

TEST_F(flow_queries, next_sequence_number_is_read_from_the_side_of_the_direction) {
    zon_l4_state_t& l4 = record_of(fid)->l4state;
    l4.i_info.valid_next_seq_number = ZON_TCP_NEXT_SEQ_VALID;
    l4.i_info.sndnxt = 100;
    l4.i_info.rcvwnd = 0x12345;
    l4.r_info.valid_next_seq_number = ZON_TCP_NEXT_SEQ_VALID;
    l4.r_info.sndnxt = 200;
    l4.r_info.rcvwnd = 6;
    for (const auto& [dir, expected, expected_window] :
         {std::tuple{1, 100u, 0x2345}, {2, 200u, 6}, {5, 200u, 6}}) {
        uint32_t number = 0;
        uint16_t window = 0;
        EXPECT_EQ(zon_flow_get_next_tcp_seq_nbr(fid, static_cast<zon_flow_direction_e>(dir),
                                                &number, &window),
                  zon_error_none);
        EXPECT_EQ(number, expected);
        EXPECT_EQ(window, expected_window);
    }
    uint32_t number = 0;
    EXPECT_EQ(zon_flow_get_next_tcp_seq_nbr(fid, ZON_DIR_INITIATOR, &number, nullptr),
              zon_error_none);
    EXPECT_EQ(number, 100u);
}

TEST_F(flow_queries, next_sequence_number_of_a_new_flow_is_not_known) {
    uint32_t number = 3;
    EXPECT_EQ(zon_flow_get_next_tcp_seq_nbr(fid, ZON_DIR_RESPONDER, &number, nullptr),
              zon_error_invalid_next_seq_number);
    EXPECT_EQ(zon_flow_get_next_tcp_seq_nbr(parameters.max_flows + 1, ZON_DIR_BI, &number, nullptr),
              zon_error_direction_parameter_is_invalid);
    EXPECT_EQ(number, 3u);
}

}  // namespace

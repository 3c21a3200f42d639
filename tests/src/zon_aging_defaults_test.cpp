// zon_aging_defaults_test.cpp - the table of default idle time-outs.

#include <gtest/gtest.h>

#include <array>
#include <climits>

#include "zon_timer_common.h"

namespace {

using words = std::array<uint32_t, 6>;

words words_of(const zon_timer_defaults_t& d) {
    return {d.tcp_opening, d.tcp_estab, d.tcp_closing,
            d.udp_opening, d.udp_estab, d.pre_flow_default};
}

constexpr int none = -1;
struct row {
    int protocol;
    int state;
    int word;  // in the order of the record
};
constexpr row rows[] = {
    {6, -1, none},      {6, 0, 0},           {6, 1, 0},  {6, 2, 1},    {6, 3, 1},
    {6, 4, 1},          {6, 5, 1},           {6, 6, 2},  {6, 7, none}, {6, 255, none},
    {6, INT_MAX, none}, {17, -1, none},      {17, 0, 3}, {17, 1, 3},   {17, 2, 4},
    {17, 3, 4},         {17, 4, 4},          {17, 5, 4}, {17, 6, 4},   {17, 7, none},
    {17, 255, none},    {17, INT_MAX, none},
};

TEST(aging_defaults, start_at_5_and_30_seconds_and_leave_pre_flows_alone) {
    zon_timer_defaults_t d{1, 1, 1, 1, 1, 4711};
    zon_timer_set_initial_default(&d);
    EXPECT_EQ(words_of(d), (words{5000, 30000, 5000, 5000, 30000, 4711}));
}

TEST(aging_defaults, are_set_by_protocol_and_state) {
    for (const row& r : rows) {
        SCOPED_TRACE(testing::Message() << "protocol " << r.protocol << " state " << r.state);
        zon_timer_defaults_t d{10, 11, 12, 13, 14, 15};
        words expected{10, 11, 12, 13, 14, 15};
        if (r.word != none)
            expected[static_cast<size_t>(r.word)] = 777;
        EXPECT_EQ(
            zon_set_default_aging_internal(static_cast<zon_l4_protocol_e>(r.protocol),
                                           static_cast<zon_l4_flow_state_e>(r.state), 777, &d),
            r.word != none);
        EXPECT_EQ(words_of(d), expected);
    }
}

TEST(aging_defaults, are_not_set_for_any_other_protocol) {
    for (int protocol = -1; protocol <= 256; ++protocol) {
        if (protocol == ZON_TCP_PROT || protocol == ZON_UDP_PROT)
            continue;
        zon_timer_defaults_t d{10, 11, 12, 13, 14, 15};
        for (int state = ZON_L4_CLOSED; state <= ZON_L4_CLOSING; ++state)
            EXPECT_FALSE(zon_set_default_aging_internal(static_cast<zon_l4_protocol_e>(protocol),
                                                        static_cast<zon_l4_flow_state_e>(state),
                                                        777, &d));
        EXPECT_EQ(words_of(d), (words{10, 11, 12, 13, 14, 15}));
    }
}

TEST(aging_defaults, take_any_number_of_milliseconds) {
    zon_timer_defaults_t d{};
    for (const uint32_t time_ms : {0xffffffffu, 0u}) {
        EXPECT_TRUE(zon_set_default_aging_internal(ZON_TCP_PROT, ZON_L4_CLOSING, time_ms, &d));
        EXPECT_EQ(d.tcp_closing, time_ms);
    }
}

TEST(aging_defaults, are_read_by_protocol_and_state) {
    const zon_timer_defaults_t d{10, 11, 12, 13, 14, 15};
    for (const row& r : rows) {
        if (r.state < 0)
            continue;  // the session state of a flow is never negative
        SCOPED_TRACE(testing::Message() << "protocol " << r.protocol << " state " << r.state);
        const uint32_t expected = r.word == none ? 0 : words_of(d)[static_cast<size_t>(r.word)];
        EXPECT_EQ(
            zon_timer_get_default_value_internal(static_cast<zon_l4_protocol_e>(r.protocol),
                                                 static_cast<zon_l4_flow_state_e>(r.state), &d),
            expected);
    }
}

TEST(aging_defaults, are_30_seconds_for_any_other_protocol_in_every_state) {
    const zon_timer_defaults_t d{10, 11, 12, 13, 14, 15};
    for (const int protocol : {0, 1, 41, 58, 132, 255})
        for (int state = 0; state < 9; ++state)
            EXPECT_EQ(
                zon_timer_get_default_value_internal(static_cast<zon_l4_protocol_e>(protocol),
                                                     static_cast<zon_l4_flow_state_e>(state), &d),
                30000u);
}

}  // namespace

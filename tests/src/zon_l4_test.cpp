// zon_l4_test.cpp - the texts of states and verdicts, and the choice of the tracker.

#include "zon_l4.h"

#include <gtest/gtest.h>

#include <climits>

#include "support/tcp_packet.h"

namespace {

TEST(tcp_state_string, names_every_state) {
    constexpr const char* texts[] = {"closed", "listen",     "syn_sent", "syn_recv",
                                     "estab",  "close_wait", "last_ack", "time_wait"};
    for (int state = 0; state < 8; ++state)
        EXPECT_STREQ(zon_tcp_state_string(static_cast<zon_tcp_state_t>(state)), texts[state]);
}

TEST(session_state_string, names_every_state) {
    constexpr const char* texts[] = {"closed",          "opening",
                                     "uni-established", "uni-established incorrect",
                                     "bi-established",  "bi-established incorrect",
                                     "closing"};
    for (int state = 0; state < 7; ++state)
        EXPECT_STREQ(zon_session_state_string(state), texts[state]);
}

TEST(l4_retcode_string, names_every_verdict) {
    constexpr const char* texts[] = {"no error",
                                     "invalid dir",
                                     "invalid flags",
                                     "invalid data",
                                     "invalid ack",
                                     "invalid seq",
                                     "OOO Seg",
                                     "retrans seg",
                                     "rst in wind",
                                     "syn in wind",
                                     "retrans invalid flags",
                                     "invalid state",
                                     "OOO prot semantics",
                                     "unsupported protocol",
                                     "non-first frag"};
    for (int code = 0; code < 15; ++code)
        EXPECT_STREQ(zon_l4_retcode_string(code), texts[code]);
}

TEST(l4_texts, are_unknown_outside_the_enumerations) {
    for (const int value : {-1, INT_MIN, INT_MAX, 256, 1000}) {
        EXPECT_STREQ(zon_tcp_state_string(static_cast<zon_tcp_state_t>(value)), "unknown");
        EXPECT_STREQ(zon_session_state_string(value), "unknown");
        EXPECT_STREQ(zon_l4_retcode_string(value), "unknown");
    }
    EXPECT_STREQ(zon_tcp_state_string(ZON_TCP_ENUM_END), "unknown");
    EXPECT_STREQ(zon_session_state_string(7), "unknown");
    EXPECT_STREQ(zon_l4_retcode_string(15), "unknown");
}

TEST(l4_engine, sends_tcp_and_udp_to_their_trackers) {
    tcp_test::tcp_fields fields;
    fields.flags = tcp_test::syn;
    tcp_test::tcp_packet packet(fields, {});
    zon_l4_state_t l4{};
    l4.tcp_state = ZON_TCP_LISTEN;
    EXPECT_EQ(zon_l4_engine(packet.fe(), &l4, true), ZON_L4_NOERR);
    EXPECT_EQ(l4.tcp_state, ZON_TCP_SYNSENT);
    EXPECT_EQ(l4.i_info.valid_next_seq_number, ZON_TCP_NEXT_SEQ_VALID);
    EXPECT_EQ(l4.pkt_count, 0);

    zon_dp_fe_t datagram{};
    datagram.protocol = ZON_UDP_PROT;
    datagram.i2r_flag = 1;
    zon_l4_state_t udp{};
    EXPECT_EQ(zon_l4_engine(&datagram, &udp, true), ZON_L4_NOERR);
    EXPECT_EQ(udp.sess_state, ZON_L4_OPENING);
    EXPECT_EQ(udp.pkt_count, 1);
}

TEST(l4_engine, tracks_nothing_for_any_other_protocol) {
    for (unsigned protocol = 0; protocol < 256; ++protocol) {
        if (protocol == ZON_TCP_PROT || protocol == ZON_UDP_PROT)
            continue;
        zon_dp_fe_t fe{};  // without a layer 4 header to read
        fe.protocol = static_cast<uint8_t>(protocol);
        fe.i2r_flag = 1;
        zon_l4_state_t l4{};
        EXPECT_EQ(zon_l4_engine(&fe, &l4, true), ZON_L4_UNSUPPORTED_PROTO);
        EXPECT_EQ(l4.sess_state, ZON_L4_CLOSED);
        EXPECT_EQ(l4.pkt_count, 0);
    }
}

}  // namespace

// zon_udp_test.cpp - the session states of UDP flows.

#include "zon_udp.h"

#include <gtest/gtest.h>

namespace {

class udp : public testing::Test {
protected:
    ~udp() override { zon_set_open_flow_after_pkts(0); }

    zon_l4_retcode packet(bool from_initiator) {
        zon_dp_fe_t fe{};
        fe.protocol = ZON_UDP_PROT;
        fe.i2r_flag = from_initiator ? 1 : 0;
        return zon_dp_l4_engine_udp(&fe, &l4);
    }
    zon_l4_retcode initiator() { return packet(true); }
    zon_l4_retcode responder() { return packet(false); }

    zon_l4_state_t l4{};
};

TEST_F(udp, opens_at_the_initiator_and_is_established_by_the_first_reply) {
    EXPECT_EQ(initiator(), ZON_L4_NOERR);
    EXPECT_EQ(l4.sess_state, ZON_L4_OPENING);
    EXPECT_EQ(initiator(), ZON_L4_NOERR);
    EXPECT_EQ(l4.sess_state, ZON_L4_OPENING);
    EXPECT_EQ(responder(), ZON_L4_NOERR);
    EXPECT_EQ(l4.sess_state, ZON_L4_UNI_ESTABLISHED);
    EXPECT_EQ(l4.pkt_count, 3);
}

TEST_F(udp, stays_closed_until_the_initiator_speaks) {
    for (int n = 0; n < 5; ++n) {
        EXPECT_EQ(responder(), ZON_L4_NOERR);
        EXPECT_EQ(l4.sess_state, ZON_L4_CLOSED);
    }
    EXPECT_EQ(initiator(), ZON_L4_NOERR);
    EXPECT_EQ(l4.sess_state, ZON_L4_OPENING);
}

TEST_F(udp, stays_established) {
    l4.sess_state = ZON_L4_UNI_ESTABLISHED;
    for (const bool from_initiator : {true, false}) {
        EXPECT_EQ(packet(from_initiator), ZON_L4_NOERR);
        EXPECT_EQ(l4.sess_state, ZON_L4_UNI_ESTABLISHED);
    }
}

TEST_F(udp, refuses_packets_in_states_that_are_not_its_own) {
    for (unsigned state = ZON_L4_UNI_ESTABLISHED_INCORRECT; state < 256; ++state)
        for (const bool from_initiator : {true, false}) {
            l4 = {};
            l4.sess_state = static_cast<uint8_t>(state);
            EXPECT_EQ(packet(from_initiator), ZON_L4_INVALID_STATE);
            EXPECT_EQ(l4.sess_state, state);
            EXPECT_EQ(l4.pkt_count, 1) << "counted all the same";
        }
}

TEST_F(udp, waits_for_a_reply_that_is_at_least_the_third_packet) {
    zon_set_open_flow_after_pkts(3);
    initiator();
    responder();
    EXPECT_EQ(l4.sess_state, ZON_L4_OPENING);
    initiator();
    EXPECT_EQ(l4.sess_state, ZON_L4_OPENING) << "the third, but not a reply";
    responder();
    EXPECT_EQ(l4.sess_state, ZON_L4_UNI_ESTABLISHED);
}

TEST_F(udp, is_established_by_a_reply_that_is_exactly_the_third_packet) {
    zon_set_open_flow_after_pkts(3);
    initiator();
    initiator();
    responder();
    EXPECT_EQ(l4.sess_state, ZON_L4_UNI_ESTABLISHED);
}

TEST_F(udp, keeps_the_threshold_modulo_256) {
    zon_set_open_flow_after_pkts(259);
    EXPECT_EQ(g_open_after_n_pkts, 3u);
    zon_set_open_flow_after_pkts(256);
    EXPECT_EQ(g_open_after_n_pkts, 0u);
    zon_set_open_flow_after_pkts(0xffffffff);
    EXPECT_EQ(g_open_after_n_pkts, 255u);
}

TEST_F(udp, is_held_back_for_a_moment_when_the_count_wraps) {
    zon_set_open_flow_after_pkts(2);
    for (int n = 0; n < 255; ++n)
        initiator();
    EXPECT_EQ(l4.pkt_count, 255);
    responder();
    EXPECT_EQ(l4.pkt_count, 0);
    EXPECT_EQ(l4.sess_state, ZON_L4_OPENING);
    responder();
    EXPECT_EQ(l4.sess_state, ZON_L4_OPENING);
    responder();
    EXPECT_EQ(l4.sess_state, ZON_L4_UNI_ESTABLISHED);
}

TEST_F(udp, is_not_held_back_by_the_wrap_without_a_threshold) {
    l4.sess_state = ZON_L4_OPENING;
    l4.pkt_count = 255;
    responder();
    EXPECT_EQ(l4.sess_state, ZON_L4_UNI_ESTABLISHED);
}

TEST_F(udp, touches_nothing_but_count_and_session) {
    l4.term_flags = 9;
    l4.tcp_state = ZON_TCP_LISTEN;
    l4.i_info.sndnxt = 5;
    initiator();
    responder();
    EXPECT_EQ(l4.term_flags, 9);
    EXPECT_EQ(l4.tcp_state, ZON_TCP_LISTEN);
    EXPECT_EQ(l4.i_info.sndnxt, 5u);
}

}  // namespace

// zon_tcp_test.cpp - the TCP tracker, case by case. The whole table is walked by
// zon_tcp_table_test.cpp.

#include "zon_tcp.h"

#include <gtest/gtest.h>

#include "support/tcp_packet.h"

namespace {

using namespace tcp_test;

constexpr uint32_t i_start = 1000;
constexpr uint32_t r_start = 9000;
constexpr uint16_t full_window = 8000;

// One connection whose packets are all of one family. Numbers are relative to the sides' initial
// ones.
class connection {
public:
    explicit connection(family ip, bool checks = true, uint32_t i = i_start, uint32_t r = r_start)
        : shape_{ip, 8, 12}, checks_(checks), i_(i), r_(r) {
        l4.tcp_state = ZON_TCP_LISTEN;
    }

    zon_l4_retcode initiator(uint8_t flags, uint32_t seq, uint32_t ack_of, uint16_t length = 0,
                             uint16_t window = full_window) {
        return send({true, flags, i_ + seq, r_ + ack_of, window, length});
    }
    zon_l4_retcode responder(uint8_t flags, uint32_t seq, uint32_t ack_of, uint16_t length = 0,
                             uint16_t window = full_window) {
        return send({false, flags, r_ + seq, i_ + ack_of, window, length});
    }
    connection& established() {
        EXPECT_EQ(initiator(syn, 0, 0), ZON_L4_NOERR);
        EXPECT_EQ(responder(syn | ack, 0, 1), ZON_L4_NOERR);
        EXPECT_EQ(initiator(ack, 1, 1), ZON_L4_NOERR);
        EXPECT_EQ(l4.tcp_state, ZON_TCP_ESTAB);
        return *this;
    }
    uint32_t initiator_sent() const { return l4.i_info.sndnxt - i_; }
    uint32_t responder_sent() const { return l4.r_info.sndnxt - r_; }

    zon_l4_state_t l4{};

private:
    zon_l4_retcode send(const tcp_fields& fields) {
        tcp_packet packet(fields, shape_);
        return zon_dp_l4_engine_tcp(packet.fe(), &l4, checks_);
    }

    tcp_shape shape_;
    bool checks_;
    uint32_t i_, r_;
};

void expect_state(const connection& c, zon_tcp_state_t state, zon_l4_flow_state_e session) {
    EXPECT_EQ(c.l4.tcp_state, state);
    EXPECT_EQ(c.l4.sess_state, session);
}

class tcp : public testing::TestWithParam<family> {};
INSTANTIATE_TEST_SUITE_P(families, tcp, testing::Values(family::ipv4, family::ipv6),
                         [](const auto& one) {
                             return one.param == family::ipv4 ? "ipv4" : "ipv6";
                         });

TEST_P(tcp, refuses_a_responder_packet_on_a_fresh_flow_and_keeps_listening) {
    connection c(GetParam());
    EXPECT_EQ(c.responder(syn, 0, 0), ZON_L4_INVALID_DIR);
    expect_state(c, ZON_TCP_LISTEN, ZON_L4_UNI_ESTABLISHED_INCORRECT);
    EXPECT_EQ(c.initiator(syn, 0, 0), ZON_L4_NOERR);
    expect_state(c, ZON_TCP_SYNSENT, ZON_L4_OPENING);
}

TEST_P(tcp, opens_at_any_first_initiator_packet) {
    for (unsigned flags = 0; flags < 256; ++flags) {
        connection c(GetParam());
        EXPECT_EQ(c.initiator(static_cast<uint8_t>(flags), 0, 0, 100), ZON_L4_NOERR);
        expect_state(c, ZON_TCP_SYNSENT, ZON_L4_OPENING);
    }
}

TEST_P(tcp, learns_the_first_sequence_number_only_with_checks) {
    connection without(GetParam(), false);
    without.initiator(syn, 0, 0);
    EXPECT_EQ(without.l4.i_info.valid_next_seq_number, ZON_TCP_NEXT_SEQ_INVALID);
    EXPECT_EQ(without.l4.i_info.sndnxt, 0u);

    connection with(GetParam());
    with.initiator(syn, 0, 0);
    EXPECT_EQ(with.l4.i_info.valid_next_seq_number, ZON_TCP_NEXT_SEQ_VALID);
    EXPECT_EQ(with.l4.i_info.iseq, i_start);
    EXPECT_EQ(with.l4.i_info.sndnxt, i_start + 1);
    EXPECT_EQ(with.l4.i_info.rcvwnd, full_window);
    EXPECT_EQ(with.l4.r_info.valid_next_seq_number, ZON_TCP_NEXT_SEQ_INVALID);
}

TEST_P(tcp, takes_a_repeated_syn_for_a_retransmission) {
    for (const bool checks : {true, false}) {
        connection c(GetParam(), checks);
        c.initiator(syn, 0, 0);
        const zon_tcp_state_info own = c.l4.i_info;
        EXPECT_EQ(c.initiator(syn, 0, 0), ZON_L4_RETRANS_SEG);
        expect_state(c, ZON_TCP_SYNSENT, ZON_L4_OPENING);
        EXPECT_EQ(c.l4.i_info.sndnxt, own.sndnxt);
        // The congestion bits of RFC 3168 make it no other SYN.
        EXPECT_EQ(c.initiator(syn | 0xc0, 0, 0), ZON_L4_RETRANS_SEG);
    }
}

TEST_P(tcp, refuses_a_repeated_syn_with_data) {
    connection c(GetParam());
    c.initiator(syn, 0, 0);
    EXPECT_EQ(c.initiator(syn, 0, 0, 10), ZON_L4_INVALID_DATA);
    expect_state(c, ZON_TCP_SYNSENT, ZON_L4_UNI_ESTABLISHED_INCORRECT);
}

TEST_P(tcp, does_not_compare_the_acknowledgement_of_a_syn_ack) {
    connection c(GetParam());
    c.initiator(syn, 0, 0);
    EXPECT_EQ(c.responder(syn | ack, 0, 4711), ZON_L4_NOERR);
    expect_state(c, ZON_TCP_SYNRCVD, ZON_L4_UNI_ESTABLISHED);
}

TEST_P(tcp, follows_a_handshake) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.l4.sess_state, ZON_L4_BI_ESTABLISHED);
    EXPECT_EQ(c.l4.i_info.rcvnxt, r_start + 1);
    EXPECT_EQ(c.l4.i_info.rcvlmt, r_start + 1 + full_window);
    EXPECT_EQ(c.l4.r_info.rcvnxt, i_start + 1);
    EXPECT_EQ(c.l4.r_info.rcvlmt, i_start + 1 + full_window);
}

TEST_P(tcp, goes_straight_to_close_wait_when_the_third_step_carries_a_fin) {
    for (const bool checks : {true, false}) {
        connection c(GetParam(), checks);
        c.initiator(syn, 0, 0);
        c.responder(syn | ack, 0, 1);
        EXPECT_EQ(c.initiator(ack | fin, 1, 1), ZON_L4_NOERR);
        expect_state(c, ZON_TCP_CLOSEWAIT, ZON_L4_BI_ESTABLISHED);
        EXPECT_EQ(c.l4.term_flags, 1);
    }
}

TEST_P(tcp, accepts_a_segment_that_ends_65534_bytes_before_the_expected_number_but_not_65535) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.initiator(ack, 1 - 65534u, 1), ZON_L4_RETRANS_SEG);
    EXPECT_EQ(c.initiator(ack, 1 - 65535u, 1), ZON_L4_INVALID_SEQ);
    EXPECT_EQ(c.initiator(ack, 1 - 65634u, 1, 100), ZON_L4_RETRANS_SEG);
    EXPECT_EQ(c.initiator(ack, 1 - 65635u, 1, 100), ZON_L4_INVALID_SEQ);
}

TEST_P(tcp, refuses_a_segment_that_starts_beyond_the_window) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.initiator(ack, 1 + full_window + 1, 1, 10), ZON_L4_INVALID_SEQ);
    EXPECT_EQ(c.initiator_sent(), 1u);
    EXPECT_EQ(c.initiator(ack, 1 + full_window, 1, 10), ZON_L4_OOO_SEG);
}

TEST_P(tcp, moves_on_to_the_end_of_a_segment_behind_a_gap) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.initiator(ack, 101, 1, 50), ZON_L4_OOO_SEG);
    EXPECT_EQ(c.initiator_sent(), 151u);
    EXPECT_EQ(c.initiator(ack, 1, 1, 100), ZON_L4_RETRANS_SEG) << "the gap filled late";
    EXPECT_EQ(c.initiator_sent(), 151u);
}

TEST_P(tcp, accepts_new_data_behind_an_overlap) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.initiator(ack, 1, 1, 100), ZON_L4_NOERR);
    EXPECT_EQ(c.initiator(ack, 51, 1, 100), ZON_L4_NOERR);
    EXPECT_EQ(c.initiator_sent(), 151u);
}

TEST_P(tcp, refuses_an_acknowledgement_of_what_was_never_sent) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.initiator(ack, 1, 2), ZON_L4_INVALID_ACK);
    EXPECT_EQ(c.initiator(psh, 1, 1), ZON_L4_INVALID_ACK) << "no ACK at all";
    EXPECT_EQ(c.l4.tcp_state, ZON_TCP_ESTAB);
}

TEST_P(tcp, never_moves_the_edge_of_a_window_back) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.responder(ack, 1, 1, 0, 100), ZON_L4_NOERR);
    EXPECT_EQ(c.l4.r_info.rcvwnd, 100u);
    EXPECT_EQ(c.l4.r_info.rcvlmt, i_start + 1 + full_window);
}

TEST_P(tcp, keeps_the_connection_at_a_reset_that_is_not_exactly_expected) {
    connection c(GetParam());
    c.established();
    c.initiator(ack, 1, 1, 100);
    EXPECT_EQ(c.initiator(rst, 101, 0), ZON_L4_RST_IN_WIND) << "unacknowledged data lies before it";
    EXPECT_EQ(c.initiator(rst, 0, 0), ZON_L4_RETRANS_INVALID_FLAGS);
    expect_state(c, ZON_TCP_ESTAB, ZON_L4_BI_ESTABLISHED);
    EXPECT_EQ(c.initiator(rst, 1, 0), ZON_L4_NOERR);
    expect_state(c, ZON_TCP_TIMEWAIT, ZON_L4_CLOSED);
}

TEST_P(tcp, takes_a_reset_beyond_all_that_was_sent_for_a_gap) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.initiator(rst, 2, 1), ZON_L4_OOO_SEG);
    EXPECT_EQ(c.initiator_sent(), 2u);
    EXPECT_EQ(c.l4.tcp_state, ZON_TCP_ESTAB);
}

TEST_P(tcp, tells_a_reset_in_last_ack_by_its_number_alone) {
    connection c(GetParam());
    c.established();
    c.initiator(fin | ack, 1, 1);
    c.responder(fin | ack, 1, 2);
    ASSERT_EQ(c.l4.tcp_state, ZON_TCP_LASTACK);
    EXPECT_EQ(c.responder(rst, 0, 2), ZON_L4_RETRANS_INVALID_FLAGS);
    EXPECT_EQ(c.responder(rst, 2, 2), ZON_L4_RST_IN_WIND);
    EXPECT_EQ(c.l4.tcp_state, ZON_TCP_LASTACK);
    EXPECT_EQ(c.responder(rst, 1, 2), ZON_L4_NOERR);
    expect_state(c, ZON_TCP_TIMEWAIT, ZON_L4_CLOSED);
}

TEST_P(tcp, accepts_any_reset_without_checks) {
    connection c(GetParam(), false);
    c.established();
    EXPECT_EQ(c.responder(rst, 123456, 0), ZON_L4_NOERR);
    expect_state(c, ZON_TCP_TIMEWAIT, ZON_L4_CLOSED);
}

TEST_P(tcp, refuses_data_behind_the_senders_own_fin) {
    connection c(GetParam());
    c.established();
    ASSERT_EQ(c.initiator(fin | ack, 1, 1), ZON_L4_NOERR);
    ASSERT_EQ(c.l4.tcp_state, ZON_TCP_CLOSEWAIT);
    EXPECT_EQ(c.initiator(ack, 2, 1, 10), ZON_L4_INVALID_DATA);
    EXPECT_EQ(c.initiator_sent(), 2u);

    ASSERT_EQ(c.responder(fin | ack, 1, 2), ZON_L4_NOERR);
    ASSERT_EQ(c.l4.tcp_state, ZON_TCP_LASTACK);
    EXPECT_EQ(c.initiator(ack, 2, 2, 10), ZON_L4_INVALID_DATA);
    EXPECT_EQ(c.responder(ack, 2, 2, 10), ZON_L4_INVALID_DATA);
    EXPECT_EQ(c.initiator_sent(), 2u);
    EXPECT_EQ(c.responder_sent(), 2u);
    expect_state(c, ZON_TCP_LASTACK, ZON_L4_CLOSING);
}

TEST_P(tcp, lets_data_behind_a_fin_pass_where_it_crosses_the_wrap) {
    connection c(GetParam(), true, 0xfffffff0);
    c.established();
    ASSERT_EQ(c.initiator(fin | ack, 1, 1), ZON_L4_NOERR);
    EXPECT_EQ(c.initiator(ack, 2, 1, 20), ZON_L4_NOERR);
    EXPECT_EQ(c.initiator_sent(), 22u);
}

TEST_P(tcp, lets_the_other_side_go_on_sending_after_a_fin) {
    connection c(GetParam());
    c.established();
    c.initiator(fin | ack, 1, 1);
    EXPECT_EQ(c.responder(ack, 1, 2, 100), ZON_L4_NOERR);
    EXPECT_EQ(c.l4.term_flags, 1 | 2);
    EXPECT_EQ(c.l4.tcp_state, ZON_TCP_CLOSEWAIT);
}

TEST_P(tcp, closes_when_each_side_has_acknowledged_the_others_fin) {
    for (const bool checks : {true, false}) {
        connection c(GetParam(), checks);
        c.established();
        EXPECT_EQ(c.initiator(fin | ack, 1, 1), ZON_L4_NOERR);
        expect_state(c, ZON_TCP_CLOSEWAIT, ZON_L4_BI_ESTABLISHED);
        EXPECT_EQ(c.responder(fin | ack, 1, 2), ZON_L4_NOERR);
        expect_state(c, ZON_TCP_LASTACK, ZON_L4_CLOSING);
        EXPECT_EQ(c.l4.term_flags, 1 | 4 | 2);
        EXPECT_EQ(c.initiator(ack, 2, 2), ZON_L4_NOERR);
        expect_state(c, ZON_TCP_TIMEWAIT, ZON_L4_CLOSED);
        EXPECT_EQ(c.l4.term_flags, 1 | 4 | 2 | 8);
    }
}

TEST_P(tcp, closes_after_fins_that_crossed) {
    connection c(GetParam());
    c.established();
    EXPECT_EQ(c.initiator(fin | ack, 1, 1), ZON_L4_NOERR);
    EXPECT_EQ(c.responder(fin | ack, 1, 1), ZON_L4_NOERR) << "sent before the other one arrived";
    expect_state(c, ZON_TCP_CLOSEWAIT, ZON_L4_BI_ESTABLISHED);
    EXPECT_EQ(c.initiator(ack, 2, 2), ZON_L4_NOERR);
    expect_state(c, ZON_TCP_LASTACK, ZON_L4_CLOSING);
    EXPECT_EQ(c.responder(ack, 2, 2), ZON_L4_NOERR);
    expect_state(c, ZON_TCP_TIMEWAIT, ZON_L4_CLOSED);
}

TEST_P(tcp, refuses_every_packet_in_time_wait) {
    for (unsigned flags = 0; flags < 256; ++flags) {
        connection c(GetParam(), flags % 2 == 0);
        c.l4.tcp_state = ZON_TCP_TIMEWAIT;
        const bool reset = (flags & rst) != 0;
        EXPECT_EQ(c.initiator(static_cast<uint8_t>(flags), 1, 1),
                  reset ? ZON_L4_INVALID_FLAGS : ZON_L4_INVALID_STATE);
        expect_state(c, ZON_TCP_TIMEWAIT, ZON_L4_CLOSED);
    }
}

TEST_P(tcp, counts_no_packets) {
    connection c(GetParam());
    c.l4.pkt_count = 7;
    c.established();
    EXPECT_EQ(c.l4.pkt_count, 7);
}

// The same conversation, wherever in the sequence space its two sides start.
TEST_P(tcp, judges_alike_across_the_wrap) {
    for (const uint32_t i :
         {0u, 1u, 0x7fffffffu, 0x80000000u, 0xffffff00u, 0xfffffffeu, 0xffffffffu})
        for (const uint32_t r : {0u, 0x7fffff00u, 0xfffffe00u, 0xffffffffu}) {
            SCOPED_TRACE(testing::Message() << "initiator from " << i << ", responder from " << r);
            connection c(GetParam(), true, i, r);
            c.established();
            EXPECT_EQ(c.initiator(ack | psh, 1, 1, 300), ZON_L4_NOERR);
            EXPECT_EQ(c.responder(ack, 1, 301, 1000), ZON_L4_NOERR);
            EXPECT_EQ(c.responder(ack, 1, 301, 1000), ZON_L4_RETRANS_SEG);
            EXPECT_EQ(c.responder(ack, 1101, 301, 100), ZON_L4_OOO_SEG);
            EXPECT_EQ(c.responder(ack, 1001, 301, 100), ZON_L4_RETRANS_SEG);
            EXPECT_EQ(c.initiator(ack, 301, 1201), ZON_L4_NOERR);
            EXPECT_EQ(c.initiator(ack, 301, 1202), ZON_L4_INVALID_ACK);
            EXPECT_EQ(c.initiator(ack, 302 + full_window, 1201), ZON_L4_INVALID_SEQ);
            EXPECT_EQ(c.initiator(ack, 301 - 65535u, 1201), ZON_L4_INVALID_SEQ);
            EXPECT_EQ(c.initiator(ack, 301 - 65534u, 1201), ZON_L4_RETRANS_SEG);
            EXPECT_EQ(c.responder(fin | ack, 1201, 301), ZON_L4_NOERR);
            EXPECT_EQ(c.initiator(ack, 301, 1202), ZON_L4_NOERR);
            EXPECT_EQ(c.initiator(fin | ack, 301, 1202), ZON_L4_NOERR);
            expect_state(c, ZON_TCP_LASTACK, ZON_L4_CLOSING);
            EXPECT_EQ(c.responder(ack, 1202, 302), ZON_L4_NOERR);
            expect_state(c, ZON_TCP_TIMEWAIT, ZON_L4_CLOSED);
        }
}

TEST(tcp_payload_length, leaves_out_all_headers) {
    for (const uint16_t options : std::initializer_list<uint16_t>{0, 8, 40})
        for (const uint16_t length : std::initializer_list<uint16_t>{0, 1, 1460, 65400}) {
            tcp_fields fields;
            fields.payload = length;
            EXPECT_EQ(zon_token_tcp_datalen(tcp_packet(fields, {family::ipv4, 4, options}).fe()),
                      length);
            EXPECT_EQ(zon_token_tcp_datalen(tcp_packet(fields, {family::ipv6, 24, options}).fe()),
                      length);
        }
}

TEST(tcp_payload_length, wraps_to_16_bits_when_the_headers_claim_more_than_the_packet) {
    tcp_packet v4({}, {});
    v4.fe()->l4_start[12] = 0xf0;  // 60 bytes where 20 are
    EXPECT_EQ(zon_token_tcp_datalen(v4.fe()), 65536u - 40);
    tcp_packet v6({}, {family::ipv6});
    v6.fe()->l4_start[12] = 0xf0;
    EXPECT_EQ(zon_token_tcp_datalen(v6.fe()), 65536u - 40);
}

TEST(tcp_payload_length, is_zero_for_another_network_protocol) {
    tcp_fields fields;
    fields.payload = 100;
    tcp_packet packet(fields, {});
    packet.fe()->l3_proto = ZON_L3_OTHER;
    EXPECT_EQ(zon_token_tcp_datalen(packet.fe()), 0u);
}

TEST(tcp_sequence, counts_one_number_for_syn_and_fin_together) {
    zon_tcp_state_info snd{}, rcv{};
    rcv.rcvlmt = 1000;
    tcp_packet packet({true, syn | fin, 0, 0, 0, 10}, {});
    EXPECT_EQ(valid_tcp_seq(packet.fe(), &snd, &rcv, false), ZON_L4_NOERR);
    EXPECT_EQ(snd.sndnxt, 11u);
}

TEST(tcp_acknowledgement, moves_the_records_only_when_it_is_accepted) {
    zon_tcp_state_info snd{}, rcv{};
    rcv.sndnxt = 500;
    tcp_packet beyond({true, ack, 0, 501, 300, 0}, {});
    EXPECT_FALSE(valid_tcp_ack(beyond.fe(), &snd, &rcv));
    EXPECT_EQ(snd.rcvwnd, 0u);
    tcp_packet all({true, ack, 0, 500, 300, 0}, {});
    EXPECT_TRUE(valid_tcp_ack(all.fe(), &snd, &rcv));
    EXPECT_EQ(snd.rcvnxt, 500u);
    EXPECT_EQ(snd.rcvwnd, 300u);
    EXPECT_EQ(snd.rcvlmt, 800u);
}

}  // namespace

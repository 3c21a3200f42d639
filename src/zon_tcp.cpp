// zon_tcp.cpp - follows a TCP connection from the middle (RFC 9293, simplified).
//
// Owns   nothing: a connection's state is the record that the caller hands in.
// Locks  none of its own; the flow is locked by the caller.
// Reads  lengths in the IP header and the first 16 bytes of the TCP header, which must be there.
//
// One function per state, its rows in the order of docs/states/tcp.md; a test interprets that
// document and holds it against this file. Checks are on while a client has asked for them: then
// sequence and acknowledgement numbers are judged; otherwise the flags alone decide.

#include "zon_tcp.h"

#include "zon_bytes.h"

namespace {

using verdict = zon_l4_retcode;

enum class side : uint8_t { initiator, responder };

// RFC 9293 3.1. The congestion bits above them (RFC 3168) never change a verdict.
constexpr uint8_t flag_fin = 0x01;
constexpr uint8_t flag_syn = 0x02;
constexpr uint8_t flag_rst = 0x04;
constexpr uint8_t flag_psh = 0x08;
constexpr uint8_t flag_ack = 0x10;
constexpr uint8_t flag_urg = 0x20;
constexpr uint8_t judged_flags = 0x3f;

// A segment may end so many bytes before what its receiver expects and still count as an old copy.
constexpr uint32_t oldest_copy = 65534;

// Where a stands from b in sequence space (RFC 9293 3.4): negative before it, positive behind it.
constexpr int32_t distance(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b);
}
constexpr bool before(uint32_t a, uint32_t b) {
    return distance(a, b) < 0;
}
constexpr bool after(uint32_t a, uint32_t b) {
    return distance(a, b) > 0;
}

// One packet of a connection. Only direction and flags are read at once: without checks most
// packets need no more.
struct segment {
    explicit segment(const tcp_segment& of)
        : header(of.header),
          length(of.payload),
          from(of.from_initiator ? side::initiator : side::responder),
          flags(of.header[13] & judged_flags) {}

    bool has(uint8_t any_of) const { return (flags & any_of) != 0; }
    bool lacks(uint8_t all_of) const { return !has(all_of); }
    bool has_exactly(uint8_t these) const { return flags == these; }
    uint32_t seq() const { return load_be32(header + 4); }
    uint32_t ack() const { return load_be32(header + 8); }
    uint32_t window() const { return load_be16(header + 14); }
    uint32_t payload() const { return length; }
    // Sequence numbers that SYN and FIN take up; one, even when both are set.
    uint32_t control() const { return has(flag_syn | flag_fin) ? 1 : 0; }

    const uint8_t* const header;
    const uint32_t length;
    const side from;
    const uint8_t flags;
};

constexpr side other(side from) {
    return from == side::initiator ? side::responder : side::initiator;
}
zon_tcp_state_info& record_of(zon_l4_state_t& l4, side which) {
    return which == side::initiator ? l4.i_info : l4.r_info;
}

// term_flags: the bit of a side's FIN, and the bit of its acknowledgement of the other side's.
constexpr uint8_t fin_sent_by(side which) {
    return which == side::initiator ? 1 : 4;
}
constexpr uint8_t fin_acked_by(side which) {
    return which == side::initiator ? 8 : 2;
}
bool noted(const zon_l4_state_t& l4, uint8_t bit) {
    return (l4.term_flags & bit) != 0;
}
void note(zon_l4_state_t& l4, uint8_t bit) {
    l4.term_flags = static_cast<uint8_t>(l4.term_flags | bit);
}

verdict incorrect(zon_l4_state_t& l4, zon_l4_flow_state_e session, verdict result) {
    l4.sess_state = static_cast<uint8_t>(session);
    return result;
}

void finish(zon_l4_state_t& l4) {
    l4.tcp_state = ZON_TCP_TIMEWAIT;
    l4.sess_state = ZON_L4_CLOSED;
}

verdict reset(zon_l4_state_t& l4) {
    finish(l4);
    return ZON_L4_NOERR;
}

// A reset counts only at exactly the number that its receiver expects (RFC 5961 3.2). The refused
// ones are told apart by comparing plain numbers, on purpose: near the wrap of the sequence space
// the two verdicts change places.
verdict reset_if_expected(const segment& seg, zon_l4_state_t& l4) {
    const uint32_t seq = seg.seq();
    const uint32_t expected = record_of(l4, other(seg.from)).rcvnxt;
    if (seq == expected)
        return reset(l4);
    return seq < expected ? ZON_L4_RETRANS_INVALID_FLAGS : ZON_L4_RST_IN_WIND;
}

verdict judge_sequence(const segment& seg, zon_tcp_state_info& snd, const zon_tcp_state_info& rcv,
                       bool fin_was_sent) {
    const uint32_t seq = seg.seq();
    const uint32_t length = seg.payload() + seg.control();
    const uint32_t end = seq + length;
    if (before(end + oldest_copy, rcv.rcvnxt))
        return ZON_L4_INVALID_SEQ;
    if (after(seq, rcv.rcvlmt))
        return ZON_L4_INVALID_SEQ;

    const uint32_t old = snd.sndnxt;
    verdict result = ZON_L4_RETRANS_SEG;
    if (seq == old) {
        snd.sndnxt = end;
        result = ZON_L4_NOERR;
    } else if (!before(end - 1, old)) {
        snd.sndnxt = end;
        result = before(seq, old) ? ZON_L4_NOERR : ZON_L4_OOO_SEG;
    }
    // Plain numbers, on purpose: data behind a FIN passes where it crosses the wrap, as hosts have
    // always seen it.
    if (fin_was_sent && old < snd.sndnxt) {
        snd.sndnxt = old;
        return ZON_L4_INVALID_DATA;
    }
    return result;
}

bool judge_acknowledgement(const segment& seg, zon_tcp_state_info& snd,
                           const zon_tcp_state_info& rcv) {
    const uint32_t ack = seg.ack();
    if (after(ack, rcv.sndnxt))
        return false;
    if (after(ack, snd.rcvnxt))
        snd.rcvnxt = ack;
    snd.rcvwnd = seg.window();
    const uint32_t edge = snd.rcvnxt + snd.rcvwnd;
    if (after(edge, snd.rcvlmt))
        snd.rcvlmt = edge;
    return true;
}

// What checks made of a packet: a verdict, and whether it is the last word.
struct judged {
    verdict result;
    bool is_final;
};
constexpr judged settled(verdict result) {
    return {result, true};
}
constexpr judged so_far(verdict result) {
    return {result, false};
}

enum class gap { is_final, passes };

// What ESTAB, CLOSEWAIT and LASTACK demand of a segment while checks are on. What is not final is
// NOERR, RETRANS_SEG or, where a gap passes, OOO_SEG.
judged check_segment(const segment& seg, zon_l4_state_t& l4, bool fin_was_sent, gap at_gap) {
    zon_tcp_state_info& snd = record_of(l4, seg.from);
    const zon_tcp_state_info& rcv = record_of(l4, other(seg.from));
    const verdict result = judge_sequence(seg, snd, rcv, fin_was_sent);
    if (result == ZON_L4_INVALID_DATA || result == ZON_L4_INVALID_SEQ)
        return settled(result);
    if (result == ZON_L4_OOO_SEG && at_gap == gap::is_final)
        return settled(result);
    if (seg.has(flag_rst))
        return settled(reset_if_expected(seg, l4));
    if (seg.has(flag_syn))
        return settled(ZON_L4_SYN_IN_WIND);
    if (seg.lacks(flag_ack) || !judge_acknowledgement(seg, snd, rcv))
        return settled(ZON_L4_INVALID_ACK);
    return so_far(result);
}

// listen: nothing seen. Any first packet of the initiator opens the connection, since the engine
// may have been started in its midst.
verdict in_listen(const segment& seg, zon_l4_state_t& l4, bool checked) {
    if (seg.from == side::responder)
        return incorrect(l4, ZON_L4_UNI_ESTABLISHED_INCORRECT, ZON_L4_INVALID_DIR);
    if (checked) {
        zon_tcp_state_info& own = l4.i_info;
        own.valid_next_seq_number = ZON_TCP_NEXT_SEQ_VALID;
        own.iseq = seg.seq();
        own.sndnxt = own.iseq + 1;
        own.rcvwnd = seg.window();
    }
    l4.tcp_state = ZON_TCP_SYNSENT;
    l4.sess_state = ZON_L4_OPENING;
    return ZON_L4_NOERR;
}

verdict in_syn_sent_initiator(const segment& seg, zon_l4_state_t& l4, bool checked) {
    if (checked && seg.seq() != l4.i_info.iseq)
        return incorrect(l4, ZON_L4_UNI_ESTABLISHED_INCORRECT, ZON_L4_INVALID_DATA);
    if (seg.has_exactly(flag_syn) && seg.payload() == 0)
        return ZON_L4_RETRANS_SEG;
    return incorrect(l4, ZON_L4_UNI_ESTABLISHED_INCORRECT, ZON_L4_INVALID_DATA);
}

// The acknowledgement of a SYN-ACK is not compared, and a SYN without one passes too: simultaneous
// open (RFC 9293 3.5).
verdict in_syn_sent_responder(const segment& seg, zon_l4_state_t& l4, bool checked) {
    if (seg.lacks(flag_syn) &&
        (seg.lacks(flag_ack) || (checked && seg.ack() != l4.i_info.iseq + 1)))
        return incorrect(l4, ZON_L4_UNI_ESTABLISHED_INCORRECT, ZON_L4_INVALID_ACK);
    if (seg.has(flag_rst))
        return reset(l4);
    if (seg.lacks(flag_syn))
        return ZON_L4_OOO_PROT_SEMANTICS;
    if (seg.payload() != 0)
        return ZON_L4_INVALID_DATA;
    if (seg.has(flag_psh | flag_urg | flag_fin))
        return ZON_L4_INVALID_FLAGS;
    if (checked) {
        const uint32_t seq = seg.seq();
        const uint32_t window = seg.window();
        const uint32_t expects = l4.i_info.iseq + 1;
        l4.r_info = {ZON_TCP_NEXT_SEQ_VALID, seq, expects, seq + 1, window, expects + window};
    }
    l4.tcp_state = ZON_TCP_SYNRCVD;
    l4.sess_state = ZON_L4_UNI_ESTABLISHED;
    return ZON_L4_NOERR;
}

// syn_sent: the initiator has spoken.
verdict in_syn_sent(const segment& seg, zon_l4_state_t& l4, bool checked) {
    return seg.from == side::initiator ? in_syn_sent_initiator(seg, l4, checked)
                                       : in_syn_sent_responder(seg, l4, checked);
}

// A SYN that carries an ACK is judged by its acknowledgement alone.
judged check_third_step(const segment& seg, zon_l4_state_t& l4) {
    const zon_tcp_state_info& peer = l4.r_info;
    const uint32_t seq = seg.seq();
    const bool window_is_closed = peer.rcvlmt == peer.rcvnxt;
    if (before(seq, l4.i_info.iseq))
        return settled(ZON_L4_INVALID_SEQ);
    if (window_is_closed && (seg.payload() != 0 || after(seq, peer.rcvnxt)))
        return settled(ZON_L4_INVALID_SEQ);
    if (!window_is_closed && !before(seq, peer.rcvlmt))
        return settled(ZON_L4_INVALID_SEQ);
    if (seq == l4.i_info.iseq && seg.has_exactly(flag_syn) && seg.payload() == 0)
        return settled(ZON_L4_RETRANS_SEG);
    if (seq == l4.i_info.iseq)
        return settled(ZON_L4_INVALID_DATA);
    if (seq != peer.rcvnxt)
        return settled(ZON_L4_OOO_SEG);
    if (seg.has(flag_rst))  // it stands at the expected number, or it would have ended above
        return settled(reset(l4));
    if (seg.has(flag_syn) && seg.lacks(flag_ack))
        return settled(ZON_L4_SYN_IN_WIND);
    return so_far(ZON_L4_NOERR);
}

verdict in_syn_rcvd_initiator(const segment& seg, zon_l4_state_t& l4, bool checked) {
    if (checked) {
        if (const judged seen = check_third_step(seg, l4); seen.is_final)
            return seen.result;
    }
    if (!checked && seg.has(flag_rst))
        return reset(l4);
    const uint32_t expects = l4.r_info.iseq + 1;
    if (seg.lacks(flag_ack) || (checked && seg.ack() != expects))
        return incorrect(l4, ZON_L4_BI_ESTABLISHED_INCORRECT, ZON_L4_INVALID_ACK);

    // Without checks too, so that the record is whole when a client turns them on later.
    zon_tcp_state_info& own = l4.i_info;
    own.rcvnxt = expects;
    own.sndnxt = seg.seq() + seg.payload();
    own.rcvwnd = seg.window();
    own.rcvlmt = expects + own.rcvwnd;
    l4.tcp_state = ZON_TCP_ESTAB;
    l4.sess_state = ZON_L4_BI_ESTABLISHED;
    if (seg.has(flag_fin)) {
        own.sndnxt += checked ? 1 : 0;
        note(l4, fin_sent_by(side::initiator));
        l4.tcp_state = ZON_TCP_CLOSEWAIT;
    }
    return ZON_L4_NOERR;
}

judged check_repeated_answer(const segment& seg, const zon_tcp_state_info& own) {
    const uint32_t seq = seg.seq();
    if (seg.payload() != 0)
        return settled(ZON_L4_INVALID_DATA);
    if (seq == own.iseq && seg.has_exactly(flag_syn | flag_ack))
        return settled(ZON_L4_RETRANS_SEG);
    if (seq == own.iseq)
        return settled(ZON_L4_INVALID_FLAGS);
    if (seq != own.sndnxt)
        return settled(ZON_L4_OOO_SEG);
    return so_far(ZON_L4_NOERR);
}

// Before the initiator has answered, the responder may repeat itself, reset or close; nothing
// else.
verdict in_syn_rcvd_responder(const segment& seg, zon_l4_state_t& l4, bool checked) {
    zon_tcp_state_info& own = l4.r_info;
    if (checked) {
        if (const judged seen = check_repeated_answer(seg, own); seen.is_final)
            return seen.result;
    }
    if (seg.has(flag_rst))
        return reset(l4);
    if (seg.has(flag_syn))
        return ZON_L4_SYN_IN_WIND;
    if (seg.lacks(flag_ack) || (checked && seg.ack() != l4.i_info.sndnxt))
        return incorrect(l4, ZON_L4_BI_ESTABLISHED_INCORRECT, ZON_L4_INVALID_ACK);
    if (seg.lacks(flag_fin))
        return ZON_L4_INVALID_FLAGS;
    if (checked) {
        own.sndnxt += 1;
        own.rcvwnd = seg.window();
        own.rcvlmt = own.rcvnxt + own.rcvwnd;
    }
    note(l4, fin_sent_by(side::responder));
    l4.tcp_state = ZON_TCP_CLOSEWAIT;
    return ZON_L4_NOERR;
}

// syn_recv: the responder has answered with a SYN.
verdict in_syn_rcvd(const segment& seg, zon_l4_state_t& l4, bool checked) {
    return seg.from == side::initiator ? in_syn_rcvd_initiator(seg, l4, checked)
                                       : in_syn_rcvd_responder(seg, l4, checked);
}

// estab: the three steps of the handshake are done.
[[gnu::flatten]] verdict in_estab(const segment& seg, zon_l4_state_t& l4, bool checked) {
    const judged seen =
        checked ? check_segment(seg, l4, false, gap::is_final) : so_far(ZON_L4_NOERR);
    if (seen.is_final)
        return seen.result;
    if (!checked && seg.has(flag_rst))
        return reset(l4);
    if (seg.has(flag_fin)) {
        note(l4, fin_sent_by(seg.from));
        l4.tcp_state = ZON_TCP_CLOSEWAIT;
    }
    return seen.result;
}

// close_wait: at least one FIN has been seen.
verdict in_close_wait(const segment& seg, zon_l4_state_t& l4, bool checked) {
    const bool fin_was_sent = noted(l4, fin_sent_by(seg.from));
    const judged seen =
        checked ? check_segment(seg, l4, fin_was_sent, gap::is_final) : so_far(ZON_L4_NOERR);
    if (seen.is_final)
        return seen.result;
    if (!checked && seg.has(flag_rst))
        return reset(l4);
    if (seg.has(flag_fin) && (seen.result != ZON_L4_RETRANS_SEG || !fin_was_sent))
        note(l4, fin_sent_by(seg.from));
    if (!noted(l4, fin_sent_by(other(seg.from))))
        return seen.result;
    if (checked && before(seg.ack(), record_of(l4, other(seg.from)).sndnxt))
        return seen.result;  // the peer's FIN is not acknowledged yet
    note(l4, fin_acked_by(seg.from));
    if (noted(l4, fin_sent_by(seg.from))) {
        l4.tcp_state = ZON_TCP_LASTACK;
        l4.sess_state = ZON_L4_CLOSING;
    }
    return seen.result;
}

// last_ack: both FINs have been seen and the first one is acknowledged.
verdict in_last_ack(const segment& seg, zon_l4_state_t& l4, bool checked) {
    const bool fin_was_sent = noted(l4, fin_sent_by(seg.from));
    const judged seen =
        checked ? check_segment(seg, l4, fin_was_sent, gap::passes) : so_far(ZON_L4_NOERR);
    if (seen.is_final)
        return seen.result;
    if (!checked && seg.has(flag_rst))
        return reset(l4);
    if (!noted(l4, fin_acked_by(other(seg.from))))
        return seen.result;
    note(l4, fin_acked_by(seg.from));
    finish(l4);
    return seen.result;
}

// time_wait: finished or reset. Nothing opens the flow again; it leaves by aging.
verdict in_time_wait(const segment& seg) {
    return seg.has(flag_rst) ? ZON_L4_INVALID_FLAGS : ZON_L4_INVALID_STATE;
}

segment segment_of(zon_fe_handle fe) {
    const auto& packet = *static_cast<const zon_dp_fe_t*>(fe);
    return segment({packet.l4_start, zon_token_tcp_datalen(fe), packet.i2r_flag != 0});
}

}  // namespace

zon_l4_retcode valid_tcp_seq(zon_fe_handle fe, zon_tcp_state_info* snd_info,
                             const zon_tcp_state_info* rcv_info, bool receiver_got_fin) {
    return judge_sequence(segment_of(fe), *snd_info, *rcv_info, receiver_got_fin);
}

bool valid_tcp_ack(zon_fe_handle fe, zon_tcp_state_info* snd_info,
                   const zon_tcp_state_info* rcv_info) {
    return judge_acknowledgement(segment_of(fe), *snd_info, *rcv_info);
}

zon_l4_retcode zon_track_tcp(const tcp_segment& of, zon_l4_state_t& l4, bool checked) {
    const segment seg(of);
    switch (l4.tcp_state) {
    case ZON_TCP_LISTEN:
        return in_listen(seg, l4, checked);
    case ZON_TCP_SYNSENT:
        return in_syn_sent(seg, l4, checked);
    case ZON_TCP_SYNRCVD:
        return in_syn_rcvd(seg, l4, checked);
    case ZON_TCP_ESTAB:
        return in_estab(seg, l4, checked);
    case ZON_TCP_CLOSEWAIT:
        return in_close_wait(seg, l4, checked);
    case ZON_TCP_LASTACK:
        return in_last_ack(seg, l4, checked);
    case ZON_TCP_TIMEWAIT:
        return in_time_wait(seg);
    case ZON_TCP_CLOSED:
    default:
        return ZON_L4_INVALID_STATE;
    }
}

zon_l4_retcode zon_dp_l4_engine_tcp(const zon_fe_handle zon_fe, zon_l4_state_t* l4_info,
                                    bool process_tcp_state_checks) {
    const auto& packet = *static_cast<const zon_dp_fe_t*>(zon_fe);
    return zon_track_tcp({packet.l4_start, zon_token_tcp_datalen(zon_fe), packet.i2r_flag != 0},
                         *l4_info, process_tcp_state_checks);
}

// zon_tcp_table_test.cpp - holds the TCP tracker against the tables of docs/states/tcp.md.
//
// The tables are walked cell by cell: state, side, every set of flags, checks on and off, and the
// sequence cases at the edges of both records. Then packets and connections are drawn at random,
// near the wrap of the sequence space.

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "support/tcp_rules.h"
#include "zon_tcp.h"

namespace {

using namespace tcp_test;

const rule_book& book() {
    static const rule_book rules(read_tcp_document());
    return rules;
}

std::string shown(const zon_tcp_state_info& side) {
    std::ostringstream out;
    out << "{valid " << side.valid_next_seq_number << " iseq " << side.iseq << " rcvnxt "
        << side.rcvnxt << " sndnxt " << side.sndnxt << " rcvwnd " << side.rcvwnd << " rcvlmt "
        << side.rcvlmt << "}";
    return out.str();
}

std::string shown(const zon_l4_state_t& l4) {
    std::ostringstream out;
    out << "state " << int{l4.tcp_state} << " session " << int{l4.sess_state} << " term "
        << int{l4.term_flags} << " count " << int{l4.pkt_count} << " i " << shown(l4.i_info)
        << " r " << shown(l4.r_info);
    return out.str();
}

std::string shown(const tcp_fields& p, bool checks) {
    static constexpr const char* names[] = {"FIN", "SYN", "RST", "PSH", "ACK", "URG", "ECE", "CWR"};
    std::ostringstream out;
    out << (p.from_initiator ? "initiator" : "responder") << ", checks " << (checks ? "on" : "off")
        << ", flags";
    for (int bit = 0; bit < 8; ++bit)
        if (p.flags >> bit & 1)
            out << ' ' << names[bit];
    out << ", seq " << p.seq << " ack " << p.ack << " win " << p.window << " len " << p.payload;
    return out.str();
}

bool same(const zon_tcp_state_info& a, const zon_tcp_state_info& b) {
    return a.valid_next_seq_number == b.valid_next_seq_number && a.iseq == b.iseq &&
           a.rcvnxt == b.rcvnxt && a.sndnxt == b.sndnxt && a.rcvwnd == b.rcvwnd &&
           a.rcvlmt == b.rcvlmt;
}

bool same(const zon_l4_state_t& a, const zon_l4_state_t& b) {
    return a.sess_state == b.sess_state && a.tcp_state == b.tcp_state &&
           a.term_flags == b.term_flags && a.pkt_count == b.pkt_count && same(a.i_info, b.i_info) &&
           same(a.r_info, b.r_info);
}

// Judges one packet both ways and leaves what the tracker made of the record in it.
testing::AssertionResult agree(zon_l4_state_t& record, const tcp_fields& fields,
                               const tcp_shape& shape, bool checks) {
    const zon_l4_state_t start = record;
    const judgement expected = book().judge(start, fields, checks);
    tcp_packet packet(fields, shape);
    const zon_l4_retcode verdict = zon_dp_l4_engine_tcp(packet.fe(), &record, checks);
    if (verdict == expected.verdict && same(record, expected.record))
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "packet: " << shown(fields, checks) << "\n  before:   " << shown(start)
           << "\n  expected: " << name_of_verdict(expected.verdict) << ", "
           << shown(expected.record) << "\n  got:      " << name_of_verdict(verdict) << ", "
           << shown(record);
}

// ---- the walk ----------------------------------------------------------------------------------

struct cell {
    int state;
    bool from_initiator;
    bool checks;
};

// Gives the cell a name in the output.
void PrintTo(const cell& c, std::ostream* out) {
    *out << "state " << c.state << (c.from_initiator ? " initiator" : " responder")
         << (c.checks ? " checked" : " unchecked");
}

std::vector<cell> all_cells() {
    std::vector<cell> cells;
    for (int state = ZON_TCP_CLOSED; state <= ZON_TCP_TIMEWAIT; ++state)
        for (const bool from_initiator : {true, false})
            for (const bool checks : {true, false})
                cells.push_back({state, from_initiator, checks});
    return cells;
}

std::string cell_name(const testing::TestParamInfo<cell>& info) {
    static constexpr const char* states[] = {"closed", "listen",     "syn_sent", "syn_recv",
                                             "estab",  "close_wait", "last_ack", "time_wait"};
    return std::string(states[info.param.state]) +
           (info.param.from_initiator ? "_initiator" : "_responder") +
           (info.param.checks ? "_checked" : "_unchecked");
}

enum class window { open, shut, all_acknowledged };

// A connection whose sides started at i and r and have sent 300 and 700 bytes since, if they could.
zon_l4_state_t connection(int state, uint8_t term, window kind, uint32_t i, uint32_t r) {
    const bool open_yet = state >= ZON_TCP_ESTAB;
    zon_l4_state_t l4{};
    l4.tcp_state = static_cast<zon_tcp_state_t>(state);
    l4.sess_state = open_yet ? ZON_L4_BI_ESTABLISHED : ZON_L4_OPENING;
    l4.term_flags = term;
    l4.pkt_count = 77;
    l4.i_info = {ZON_TCP_NEXT_SEQ_VALID, i, 0, i + 1 + (open_yet ? 300 : 0), 4000, 0};
    l4.r_info = {ZON_TCP_NEXT_SEQ_VALID, r, i + 1, r + 1 + (open_yet ? 700 : 0), 3000, 0};
    if (open_yet) {
        const bool all = kind == window::all_acknowledged;
        l4.i_info.rcvnxt = all ? l4.r_info.sndnxt : r + 1 + 500;
        l4.r_info.rcvnxt = all ? l4.i_info.sndnxt : i + 1 + 200;
    }
    if (open_yet || state == ZON_TCP_SYNRCVD) {
        l4.i_info.rcvlmt = l4.i_info.rcvnxt + (kind == window::shut ? 0 : 4000);
        l4.r_info.rcvlmt = l4.r_info.rcvnxt + (kind == window::shut ? 0 : 3000);
    }
    // Records as they are after checks were off for a while: the sides seem to have gone ahead.
    if (state == ZON_TCP_SYNRCVD && kind == window::all_acknowledged) {
        l4.i_info.sndnxt += 7;
        l4.r_info.sndnxt += 7;
    }
    return l4;
}

struct sides {
    const zon_tcp_state_info& snd;
    const zon_tcp_state_info& rcv;
};
sides seen_from(const zon_l4_state_t& l4, bool from_initiator) {
    if (from_initiator)
        return {l4.i_info, l4.r_info};
    return {l4.r_info, l4.i_info};
}

std::vector<uint32_t> sequence_edges(const sides& s) {
    std::set<uint32_t> edges;
    for (const uint32_t at : {s.snd.iseq, s.snd.sndnxt, s.rcv.rcvnxt, s.rcv.rcvlmt,
                              s.snd.sndnxt - 100, s.snd.sndnxt + 0x80000000u})
        for (const uint32_t by : {~0u, 0u, 1u})
            edges.insert(at + by);
    // A segment of 0, 1 or 101 numbers that ends at the oldest that counts, or one before it.
    for (const uint32_t length : {0u, 1u, 2u, 100u, 101u, 102u})
        edges.insert(s.rcv.rcvnxt - 65534 - length);
    return {edges.begin(), edges.end()};
}

std::vector<uint32_t> acknowledgement_edges(const sides& s) {
    std::set<uint32_t> edges{s.rcv.iseq, s.rcv.iseq + 1, s.rcv.iseq + 2, s.snd.iseq + 1};
    for (const uint32_t at : {s.rcv.sndnxt, s.snd.rcvnxt})
        for (const uint32_t by : {~0u, 0u, 1u})
            edges.insert(at + by);
    return {edges.begin(), edges.end()};
}

// Starting numbers of the two sides: plain, and such that records, windows and half-way points lie
// across the wrap.
constexpr std::pair<uint32_t, uint32_t> starts[] = {
    {1000, 500000}, {0xfffffeff, 0x7ffffe00}, {0x7fffff80, 0xfffffd80}, {0xffffffff, 0xfffff000}};

class tcp_table : public testing::TestWithParam<cell> {
protected:
    // False after a difference.
    bool walk(const zon_l4_state_t& record) {
        const sides s = seen_from(record, GetParam().from_initiator);
        const auto acks = acknowledgement_edges(s);
        for (const uint32_t seq : sequence_edges(s))
            for (const uint32_t ack_number : acks)
                for (const uint16_t length : {uint16_t{0}, uint16_t{1}, uint16_t{100}})
                    if (!walk_flags(record, seq, ack_number, length))
                        return false;
        return true;
    }

private:
    bool walk_flags(const zon_l4_state_t& record, uint32_t seq, uint32_t ack_number,
                    uint16_t length) {
        constexpr uint16_t windows[] = {0, 4096, 65535, 2900, 8000};
        for (unsigned flags = 0; flags < 64; ++flags) {
            ++cases_;
            tcp_fields fields{GetParam().from_initiator, 0, seq, ack_number, 0, length};
            // The two bits above the six take turns: they must never matter.
            fields.flags = static_cast<uint8_t>(flags | (cases_ / 64 % 4) << 6);
            fields.window = windows[cases_ % 5];
            const tcp_shape shape{cases_ % 2 ? family::ipv4 : family::ipv6,
                                  static_cast<uint16_t>(cases_ / 2 % 3 * 8),
                                  static_cast<uint16_t>(cases_ / 8 % 5 * 8)};
            zon_l4_state_t tracked = record;
            if (const auto outcome = agree(tracked, fields, shape, GetParam().checks); !outcome) {
                ADD_FAILURE() << outcome.message();
                return false;
            }
        }
        return true;
    }

    size_t cases_ = 0;
};

// Every row of the document that this cell can reach has decided something, so that no row goes
// untested.
void expect_rows_were_used(const std::vector<rule>& rows, const cell& c) {
    for (const rule& row : rows) {
        const bool other_side =
            row.from != "either" && (row.from == "initiator") != c.from_initiator;
        const bool other_checks =
            std::any_of(row.when.begin(), row.when.end(), [&](const auto& any) {
                return any.size() == 1 && any[0].kind == condition::checks &&
                       any[0].negated == c.checks;
            });
        if (!other_side && !other_checks) {
            EXPECT_GT(row.hits, 0u) << "never used: " << row.text;
        }
        row.hits = 0;
    }
}

TEST_P(tcp_table, is_obeyed_in_every_cell) {
    const cell& c = GetParam();
    const bool closing = c.state == ZON_TCP_CLOSEWAIT || c.state == ZON_TCP_LASTACK;
    unsigned round = 0;
    // Before the first FIN no bit is noted; that none is looked at is worth one more round.
    for (uint8_t term = 0; term < 16; term = static_cast<uint8_t>(term + (closing ? 1 : 15)))
        for (const window kind : {window::open, window::shut, window::all_acknowledged})
            for (unsigned start = 0; start < (closing ? 1 : std::size(starts)); ++start) {
                const auto& [i, r] = starts[round++ % std::size(starts)];
                if (!walk(connection(c.state, term, kind, i, r)))
                    return;
            }
    const auto rows = book().states().find(c.state);
    if (rows != book().states().end())
        expect_rows_were_used(rows->second, c);
    if (closing && c.checks && c.state == ZON_TCP_CLOSEWAIT)
        for (const auto& [name, step] : book().steps())
            if (name != "reset")
                expect_rows_were_used(step, c);
}

INSTANTIATE_TEST_SUITE_P(cells, tcp_table, testing::ValuesIn(all_cells()), cell_name);

TEST(tcp_table, has_rows_for_every_state_but_closed) {
    for (int state = ZON_TCP_LISTEN; state <= ZON_TCP_TIMEWAIT; ++state)
        EXPECT_EQ(book().states().count(state), 1u) << "state " << state;
    EXPECT_EQ(book().states().count(ZON_TCP_CLOSED), 0u);
    EXPECT_EQ(book().steps().size(), 4u);
}

TEST(tcp_table, refuses_states_outside_the_enumeration) {
    for (const int state : {-1, 8, 9, 255, 0x7fffffff})
        for (unsigned flags = 0; flags < 256; ++flags)
            for (const bool checks : {true, false}) {
                zon_l4_state_t l4 = connection(ZON_TCP_ESTAB, 5, window::open, 10, 20);
                l4.tcp_state = static_cast<zon_tcp_state_t>(state);
                const tcp_fields fields{
                    flags % 2 == 0, static_cast<uint8_t>(flags), 300, 500, 9, 9};
                ASSERT_TRUE(agree(l4, fields, {}, checks));
            }
}

// ---- at random ---------------------------------------------------------------------------------

class draw {
public:
    explicit draw(uint32_t seed) : random_(seed) {}
    uint32_t word() { return static_cast<uint32_t>(random_()); }
    uint32_t below(uint32_t end) { return word() % end; }
    bool one_in(uint32_t n) { return below(n) == 0; }

    // A number at or near the places where the tables decide.
    uint32_t near(std::initializer_list<uint32_t> places) {
        const uint32_t at = *(places.begin() + below(static_cast<uint32_t>(places.size())));
        switch (below(8)) {
        case 0:
            return at + below(70000) - 35000;
        case 1:
            return at - 65534 - below(4);
        case 2:
            return at + 0x80000000u + below(3) - 1;
        case 3:
        case 4:
            return at + below(3) - 1;
        default:
            return at;
        }
    }

    tcp_fields packet_for(const zon_l4_state_t& l4) {
        const bool from_initiator = one_in(2);
        const sides s = seen_from(l4, from_initiator);
        constexpr uint8_t usual[] = {ack, psh | ack, syn, syn | ack, fin | ack, rst, rst | ack};
        constexpr uint16_t lengths[] = {0, 0, 0, 1, 2, 100, 1460, 65495};
        tcp_fields p{from_initiator, 0, 0, 0, 0, 0};
        p.flags = one_in(4) ? static_cast<uint8_t>(below(256)) : usual[below(std::size(usual))];
        p.seq = near({s.snd.sndnxt, s.snd.sndnxt, s.rcv.rcvnxt, s.rcv.rcvlmt, s.snd.iseq});
        p.ack = near({s.rcv.sndnxt, s.rcv.sndnxt, s.snd.rcvnxt, s.rcv.iseq + 1});
        p.window = one_in(4) ? 0 : static_cast<uint16_t>(below(65536));
        p.payload = lengths[below(std::size(lengths))];
        return p;
    }

    tcp_shape shape() {
        const bool v6 = one_in(2);
        return {v6 ? family::ipv6 : family::ipv4,
                static_cast<uint16_t>(v6 ? below(6) * 8 : below(11) * 4),
                static_cast<uint16_t>(below(11) * 4)};
    }

private:
    std::mt19937 random_;
};

// The payload that the length fields give: 16 bits hold less than a long segment behind many
// options needs.
void fit(tcp_fields& p, const tcp_shape& s) {
    const uint16_t most = static_cast<uint16_t>(65535 - 40 - s.ip_options - s.tcp_options);
    p.payload = std::min(p.payload, most);
}

TEST(tcp_table, is_obeyed_by_random_records_around_the_wrap) {
    draw d(20240611);
    for (int n = 0; n < 300000; ++n) {
        const uint32_t base = d.one_in(2) ? 0u : (d.one_in(2) ? 0x80000000u : d.word());
        const auto spot = [&] { return base + d.below(140000) - 70000; };
        zon_l4_state_t l4{};
        l4.tcp_state = static_cast<zon_tcp_state_t>(d.below(8));
        l4.sess_state = static_cast<uint8_t>(d.below(7));
        l4.term_flags = static_cast<uint8_t>(d.below(16));
        l4.pkt_count = static_cast<uint8_t>(n);
        for (zon_tcp_state_info* side : {&l4.i_info, &l4.r_info})
            *side = {static_cast<zon_tcp_next_seq_valid_e>(d.below(2)),
                     spot(),
                     spot(),
                     spot(),
                     d.below(65536),
                     spot()};
        tcp_fields fields = d.packet_for(l4);
        const tcp_shape shape = d.shape();
        fit(fields, shape);
        ASSERT_TRUE(agree(l4, fields, shape, !d.one_in(4))) << "case " << n;
    }
}

// A plausible next packet, so that connections get past their first steps.
tcp_fields next_packet(draw& d, const zon_l4_state_t& l4, uint32_t i, uint32_t r) {
    const bool from_initiator = d.one_in(2);
    const sides s = seen_from(l4, from_initiator);
    tcp_fields p{from_initiator, ack, s.snd.sndnxt, s.rcv.sndnxt, 8000, 0};
    switch (l4.tcp_state) {
    case ZON_TCP_LISTEN:
        return {true, syn, i, 0, 8000, 0};
    case ZON_TCP_SYNSENT:
        return {false, syn | ack, r, i + 1, 8000, 0};
    case ZON_TCP_SYNRCVD:
        return {true, ack, i + 1, r + 1, 8000, 0};
    default:
        p.payload = static_cast<uint16_t>(d.below(3) * 200);
        p.flags = d.one_in(6) ? fin | ack : ack;
        return p;
    }
}

TEST(tcp_table, is_obeyed_by_whole_random_connections) {
    std::set<int> states, verdicts;
    for (uint32_t seed = 0; seed < 12000; ++seed) {
        draw d(seed);
        const uint32_t i = d.one_in(3) ? d.word() : d.below(3000) - 1500;
        const uint32_t r = d.one_in(3) ? d.word() : 0x80000000u + d.below(3000) - 1500;
        bool checks = !d.one_in(4);
        zon_l4_state_t l4{};
        l4.tcp_state = ZON_TCP_LISTEN;
        for (int n = 0; n < 40; ++n) {
            if (d.one_in(60))
                checks = !checks;
            tcp_fields fields = d.one_in(3) ? d.packet_for(l4) : next_packet(d, l4, i, r);
            const tcp_shape shape = d.shape();
            fit(fields, shape);
            verdicts.insert(book().judge(l4, fields, checks).verdict);
            ASSERT_TRUE(agree(l4, fields, shape, checks)) << "seed " << seed << " packet " << n;
            states.insert(l4.tcp_state);
        }
    }
    EXPECT_EQ(states.size(), 7u) << "the connections did not reach every state";
    EXPECT_EQ(verdicts.size(), 13u) << "the connections did not meet every verdict";
}

}  // namespace

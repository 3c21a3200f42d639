// tracker_fuzz.cpp - connections that do what they like, on the tracker and on the tables of
// docs/states/tcp.md.
//
// Eight bytes make a segment: its direction and whether checks are on, its flags, and where its
// numbers stand beside those that the two sides expect.
//
// Holds  verdict and record are those of the tables after each segment.

#include <array>
#include <cstring>

#include "fuzz_input.h"
#include "support/tcp_packet.h"
#include "support/tcp_rules.h"
#include "zon_tcp.h"

using namespace zon_fuzz;

namespace {

const tcp_test::rule_book& book() {
    static const tcp_test::rule_book rules(tcp_test::read_tcp_document());
    return rules;
}

// A number that one side or the other may expect, or one of its neighbours, or one far away.
uint32_t number_near(const zon_l4_state_t& l4, uint8_t choice, uint8_t offset) {
    const std::array<uint32_t, 8> expected = {l4.i_info.sndnxt, l4.r_info.sndnxt, l4.i_info.rcvnxt,
                                              l4.r_info.rcvnxt, l4.i_info.rcvlmt, l4.r_info.rcvlmt,
                                              l4.i_info.iseq,   l4.r_info.iseq};
    const uint32_t distance = static_cast<uint32_t>(static_cast<int8_t>(offset));
    return expected[choice % 8] + (choice < 128 ? distance : distance << (choice >> 3 & 15));
}

struct drawn_segment {
    tcp_test::tcp_fields fields;
    bool checks;
};

drawn_segment draw(fuzz_input& input, const zon_l4_state_t& l4) {
    const uint8_t kind = input.byte();
    drawn_segment drawn{};
    drawn.checks = (kind & 2) == 0;
    drawn.fields.from_initiator = (kind & 1) == 0;
    drawn.fields.flags = input.byte();
    const uint8_t seq = input.byte();
    drawn.fields.seq = number_near(l4, seq, input.byte());
    const uint8_t ack = input.byte();
    drawn.fields.ack = number_near(l4, ack, input.byte());
    drawn.fields.window = static_cast<uint16_t>(input.byte() << (kind >> 4));
    drawn.fields.payload = static_cast<uint16_t>(input.byte() << (kind >> 2 & 3));
    return drawn;
}

bool same(const zon_l4_state_t& a, const zon_l4_state_t& b) {
    static_assert(std::has_unique_object_representations_v<zon_tcp_state_info>);
    return a.sess_state == b.sess_state && a.tcp_state == b.tcp_state &&
           a.term_flags == b.term_flags && a.pkt_count == b.pkt_count &&
           std::memcmp(&a.i_info, &b.i_info, sizeof a.i_info) == 0 &&
           std::memcmp(&a.r_info, &b.r_info, sizeof a.r_info) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    zon_l4_state_t l4{};
    l4.tcp_state = ZON_TCP_LISTEN;
    // Anywhere in the sequence space: seeds begin near its wrap.
    l4.i_info.sndnxt = input.four_bytes();
    l4.r_info.sndnxt = input.four_bytes();
    while (!input.is_empty()) {
        const drawn_segment drawn = draw(input, l4);
        const tcp_test::judgement expected = book().judge(l4, drawn.fields, drawn.checks);
        tcp_test::tcp_packet packet(drawn.fields, {});
        const zon_l4_retcode verdict = zon_dp_l4_engine_tcp(packet.fe(), &l4, drawn.checks);
        require(verdict == expected.verdict, "the verdict is that of the tables");
        require(same(l4, expected.record), "the record is that of the tables");
    }
    return 0;
}

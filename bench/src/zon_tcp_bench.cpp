// zon_tcp_bench.cpp - the TCP tracker alone: packets of an established connection in turn, and
// whole connections from the SYN to the last acknowledgement.

#include "zon_tcp.h"

#include <benchmark/benchmark.h>

#include <array>

namespace {

constexpr uint8_t fin = 0x01;
constexpr uint8_t syn = 0x02;
constexpr uint8_t ack = 0x10;

class header {
public:
    header(uint32_t seq, uint32_t acknowledged, uint8_t flags) {
        put(4, seq);
        put(8, acknowledged);
        bytes_[12] = 0x50;
        bytes_[13] = flags;
        bytes_[14] = bytes_[15] = 0xFF;
    }
    const uint8_t* data() const { return bytes_.data(); }

private:
    void put(size_t at, uint32_t word) {
        for (size_t i = 0; i < 4; ++i)
            bytes_[at + i] = static_cast<uint8_t>(word >> (24 - 8 * i));
    }
    std::array<uint8_t, 20> bytes_{};
};

const header syn_of_initiator(1000, 0, syn);
const header syn_of_responder(2000, 1001, syn | ack);
const header ack_of_initiator(1001, 2001, ack);
const header ack_of_responder(2001, 1001, ack);

zon_l4_state_t new_flow() {
    zon_l4_state_t l4{};
    l4.tcp_state = ZON_TCP_LISTEN;
    return l4;
}

// Returns 0 where the tracker objects to nothing.
int open_connection(zon_l4_state_t& l4, bool checked) {
    return zon_track_tcp({syn_of_initiator.data(), 0, true}, l4, checked) |
           zon_track_tcp({syn_of_responder.data(), 0, false}, l4, checked) |
           zon_track_tcp({ack_of_initiator.data(), 0, true}, l4, checked);
}

template <bool checked>
void established(benchmark::State& state) {
    zon_l4_state_t l4 = new_flow();
    int objections = open_connection(l4, checked);
    const header* both[] = {&ack_of_initiator, &ack_of_responder};
    bool back = false;
    for (auto _ : state) {
        objections |= zon_track_tcp({both[back]->data(), 0, !back}, l4, checked);
        back = !back;
    }
    if (objections != ZON_L4_NOERR)
        state.SkipWithError("a packet that the tracker complains of");
}

template <bool checked>
void whole_connection(benchmark::State& state) {
    const header fin_of_initiator(1001, 2001, fin | ack);
    const header fin_of_responder(2001, 1002, fin | ack);
    const header last(1002, 2002, ack);
    int objections = 0;
    bool closed = true;
    for (auto _ : state) {
        zon_l4_state_t l4 = new_flow();
        objections |= open_connection(l4, checked);
        objections |= zon_track_tcp({fin_of_initiator.data(), 0, true}, l4, checked);
        objections |= zon_track_tcp({fin_of_responder.data(), 0, false}, l4, checked);
        objections |= zon_track_tcp({last.data(), 0, true}, l4, checked);
        closed &= l4.sess_state == ZON_L4_CLOSED;
    }
    if (objections != ZON_L4_NOERR || !closed)
        state.SkipWithError("a connection that does not end");
    state.counters["ns_per_packet"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * 6e-9,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK(established<true>)->Name("tcp_established/checks:on");
BENCHMARK(established<false>)->Name("tcp_established/checks:off");
BENCHMARK(whole_connection<true>)->Name("tcp_whole_connection/checks:on");
BENCHMARK(whole_connection<false>)->Name("tcp_whole_connection/checks:off");

}  // namespace

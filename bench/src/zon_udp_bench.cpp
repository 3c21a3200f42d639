// zon_udp_bench.cpp - the UDP tracker alone.

#include "zon_udp.h"

#include <benchmark/benchmark.h>

namespace {

void established(benchmark::State& state) {
    zon_l4_state_t l4{};
    bool from_initiator = true;
    int objections = zon_track_udp(true, l4) | zon_track_udp(false, l4);
    for (auto _ : state) {
        objections |= zon_track_udp(from_initiator, l4);
        from_initiator = !from_initiator;
        benchmark::DoNotOptimize(l4);
    }
    if (objections != ZON_L4_NOERR || l4.sess_state != ZON_L4_UNI_ESTABLISHED)
        state.SkipWithError("a flow that is not established");
}

BENCHMARK(established)->Name("udp_established");

}  // namespace

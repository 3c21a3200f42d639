// runtime_bench.cpp - the hash, the modulo and the timer wheel alone.

#include <benchmark/benchmark.h>

#include <vector>

#include "bench_engine.h"
#include "osal/zon_timer.h"
#include "zon_fast_modulo.h"
#include "zon_key_hash_funcs_inline.h"

namespace {

using namespace zon_bench;

template <size_t words>
void hash(benchmark::State& state) {
    uint32_t key[words] = {};
    for (auto step : state) {
        ++key[0];
        benchmark::DoNotOptimize(jenkins_hashword_2006(key, words));
    }
}

void modulo(benchmark::State& state) {
    volatile uint32_t divisor = 1280519;
    const fast_modulo modulo(divisor);
    uint32_t dividend = 1;
    for (auto step : state)
        benchmark::DoNotOptimize(modulo(dividend += 2654435761U));
}

void timer_start_stop(benchmark::State& state) {
    engine running(1000);
    std::vector<zon_tw_timer_t> timers(100000);
    std::vector<zon_fid_t> fids(timers.size(), 1);
    random_order order;
    for (auto step : state) {
        const uint32_t i = order.below(static_cast<uint32_t>(timers.size()));
        zon_timer_flow_start(zon_get_tw_internal(), &timers[i], 60000 + order.below(600000), &fids[i]);
        if (order.below(2) == 0)
            zon_timer_stop(&timers[i]);
    }
    for (zon_tw_timer_t& timer : timers)
        zon_timer_stop(&timer);
}

}  // namespace

BENCHMARK(hash<4>);
BENCHMARK(hash<10>);
BENCHMARK(modulo);
BENCHMARK(timer_start_stop);

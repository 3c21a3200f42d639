// vem_tw_bench.cpp - starts, restarts and stops of timers beside many that run.

#include "vem/vem_tw.h"

#include <benchmark/benchmark.h>

#include <vector>

#include "support/second_thread.h"
#include "vem/vem_clock.h"

namespace {

const zon_bench::second_thread idle;

void ignore(vem_tw_wheel, vem_tw_timer*, void*) {}

class wheel_of_timers {
public:
    explicit wheel_of_timers(size_t count) : timers(count) {
        vem_tw_init_wheel(&wheel, 1024, 15000, 3, 0, 0, 0);
    }
    ~wheel_of_timers() { vem_tw_destroy_wheel(&wheel); }
    wheel_of_timers(const wheel_of_timers&) = delete;
    wheel_of_timers& operator=(const wheel_of_timers&) = delete;

    // From a second to ten minutes.
    void start(size_t at) {
        vem_tw_timer_start(wheel, &timers[at], 1000 + static_cast<uint32_t>(at * 7919 % 600'000),
                           ignore, nullptr);
    }

    vem_tw_wheel wheel = nullptr;
    std::vector<vem_tw_timer> timers;
};

void start_and_stop(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    wheel_of_timers running(count);
    for (size_t at = 0; at < count; at += 2)
        running.start(at);
    size_t at = 1;
    for (auto _ : state) {
        running.start(at);
        vem_tw_timer_stop(&running.timers[at]);
        at = (at + 7918) % count | 1;
    }
}

void restart(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    wheel_of_timers running(count);
    for (size_t at = 0; at < count; ++at)
        running.start(at);
    size_t at = 0;
    for (auto _ : state) {
        running.start(at);
        at = (at + 7919) % count;
    }
}

void read_clock(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(vem_clock_now_us());
}

BENCHMARK(start_and_stop)->Arg(1'000)->Arg(1'000'000);
BENCHMARK(restart)->Arg(1'000)->Arg(1'000'000);
BENCHMARK(read_clock);

}  // namespace

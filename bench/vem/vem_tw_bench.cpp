// vem_tw_bench.cpp - starts, restarts and stops of timers beside many that run, and the end of many
// at once.

#include "vem/vem_tw.h"

#include <benchmark/benchmark.h>

#include <vector>

#include "support/measure.h"
#include "vem/vem_clock.h"
#include "vem/vem_dm.h"

namespace {

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

// Starts of timers that do not run yet, or stops of ones that do; the other half is not timed.
template <bool starts>
void start_or_stop(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    wheel_of_timers crowd(count);
    double total = 0;
    for (auto _ : state) {
        const zon_bench::stopwatch starting;
        for (size_t at = 0; at < count; ++at)
            crowd.start(at * 7919 % count);
        const double start_seconds = starting.seconds();
        const zon_bench::stopwatch stopping;
        for (size_t at = 0; at < count; ++at)
            vem_tw_timer_stop(&crowd.timers[at * 7919 % count]);
        const double seconds = starts ? start_seconds : stopping.seconds();
        state.SetIterationTime(seconds);
        total += seconds;
    }
    state.counters["ns_per_timer"] =
        total * 1e9 / (static_cast<double>(state.iterations()) * static_cast<double>(count));
}

// The clock is turned by hand over ten minutes, and what is due runs inside the turn.
void expire(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    vem_clock_set_mode(VEM_CLOCK_MANUAL_INLINE);
    {
        vem_dm_handle manager = nullptr;
        vem_dm_create(&manager, nullptr, 0);
        wheel_of_timers crowd(count);
        vem_tw_attach_vdm(crowd.wheel, manager);
        double total = 0;
        for (auto _ : state) {
            for (size_t at = 0; at < count; ++at)
                crowd.start(at);
            const zon_bench::stopwatch watch;
            vem_clock_advance_us(602'000'000);
            const double seconds = watch.seconds();
            state.SetIterationTime(seconds);
            total += seconds;
            if (vem_tw_timer_running(&crowd.timers[count - 1]) ||
                vem_tw_timer_running(&crowd.timers[0]))
                state.SkipWithError("a timer that did not expire");
        }
        state.counters["ns_per_timer"] =
            total * 1e9 / (static_cast<double>(state.iterations()) * static_cast<double>(count));
        vem_dm_destroy(&manager);
    }
    vem_clock_set_mode(VEM_CLOCK_SYSTEM);
}

void read_clock(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(vem_clock_now_us());
}

BENCHMARK(start_and_stop)->Arg(1'000)->Arg(1'000'000);
BENCHMARK(restart)->Arg(1'000)->Arg(1'000'000);
BENCHMARK(start_or_stop<true>)->Name("start")->Arg(1'000)->Arg(1'000'000)->UseManualTime();
BENCHMARK(start_or_stop<false>)->Name("stop")->Arg(1'000)->Arg(1'000'000)->UseManualTime();
BENCHMARK(expire)->Arg(1'000)->Arg(1'000'000)->UseManualTime();
BENCHMARK(read_clock);

}  // namespace

int main(int argc, char** argv) {
    return zon_bench::run_benchmarks(argc, argv);
}

// packet_path_bench.cpp - what a packet of a known flow costs: N established flows, half TCP with
// state checks and half UDP, hit in random order in both directions, while a second thread exists.
//
//   packet_path_bench --benchmark_repetitions=9 --benchmark_report_aggregates_only=true
//
// `skeleton` touches the memory that no packet can do without, under one recursive lock, and does
// nothing else.

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <memory>
#include <vector>

#include "support/bench_engine.h"
#include "support/second_thread.h"

namespace zon_bench {
namespace {

// Making a million flows takes longer than measuring them: one engine is kept from run to run.
bench_engine& engine_with(uint32_t flows) {
    static std::unique_ptr<bench_engine> engine;
    static uint32_t size = 0;
    if (size != flows) {
        engine.reset();
        engine = std::make_unique<bench_engine>(flows);
        for (uint32_t connection = 0; connection < flows; ++connection)
            engine->establish(connection);
        size = flows;
    }
    return *engine;
}

template <zon_fid_t (bench_engine::*entry)(uint8_t*)>
void hit(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    bench_engine& engine = engine_with(flows);
    random_order next(2 * flows);
    uint32_t lost = 0;
    const stopwatch watch;
    for (auto _ : state) {
        const uint32_t which = next();
        lost += (engine.*entry)(engine.packets.established(which >> 1, (which & 1) != 0)) == 0;
    }
    state.counters["ns_per_packet"] = watch.ns_per(static_cast<double>(state.iterations()));
    if (lost != 0)
        state.SkipWithError("packets without a flow");
}

void zon_handle_packet_hit(benchmark::State& state) {
    hit<&bench_engine::send>(state);
}
void zon_handle_captured_packet_hit(benchmark::State& state) {
    hit<&bench_engine::send_captured>(state);
}

void zon_handle_packet_burst_hit(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    bench_engine& engine = engine_with(flows);
    random_order next(2 * flows);
    uint32_t lost = 0;
    const stopwatch watch;
    for (auto _ : state) {
        for (uint32_t slot = 0; slot < bench_engine::burst_size; ++slot) {
            const uint32_t which = next();
            engine.put_into_burst(slot, engine.packets.established(which >> 1, (which & 1) != 0));
        }
        lost += engine.send_burst();
    }
    state.counters["ns_per_packet"] =
        watch.ns_per(static_cast<double>(state.iterations() * bench_engine::burst_size));
    if (lost != 0)
        state.SkipWithError("packets without a flow");
}

// ---- the skeleton -----------------------------------------------------------------------------

// The sizes of the engine's records: 248 bytes a flow, 72 bytes a direction, a pointer a bucket.
struct skeleton_flow {
    uint64_t words[31];
};
struct skeleton_half {
    skeleton_half* next;
    skeleton_flow* flow;
    uint64_t words[7];
};
static_assert(sizeof(skeleton_flow) == 248 && sizeof(skeleton_half) == 72);

class skeleton_table {
public:
    explicit skeleton_table(uint32_t flows)
        : flows_(flows), halves_(2 * flows), buckets_(2 * flows) {
        pthread_mutexattr_t recursive;
        pthread_mutexattr_init(&recursive);
        pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&lock_, &recursive);
        for (uint32_t i = 0; i < 2 * flows; ++i) {
            halves_[i].flow = &flows_[i / 2];
            halves_[i].words[0] = i;
            halves_[i].next = nullptr;
            buckets_[bucket_of(i)] = &halves_[i];
        }
    }
    ~skeleton_table() { pthread_mutex_destroy(&lock_); }
    skeleton_table(const skeleton_table&) = delete;
    skeleton_table& operator=(const skeleton_table&) = delete;

    // One bucket head, one half flow, the four lines of its record.
    bool touch(uint32_t which) {
        skeleton_half* half = buckets_[bucket_of(which)];
        pthread_mutex_lock(&lock_);
        const bool found = half->words[0] == which;
        skeleton_flow* flow = half->flow;
        ++flow->words[0];
        ++flow->words[8];
        ++flow->words[16];
        ++flow->words[24];
        pthread_mutex_unlock(&lock_);
        return found;
    }

private:
    // Each half flow in a bucket of its own, anywhere in the array.
    uint32_t bucket_of(uint32_t which) const {
        return static_cast<uint32_t>((static_cast<uint64_t>(which) * 2654435761U + 7) %
                                     buckets_.size());
    }

    pthread_mutex_t lock_;
    std::vector<skeleton_flow> flows_;
    std::vector<skeleton_half> halves_;
    std::vector<skeleton_half*> buckets_;
};

void skeleton(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    skeleton_table table(flows);
    random_order next(2 * flows);
    uint32_t lost = 0;
    const stopwatch watch;
    for (auto _ : state)
        lost += !table.touch(next());
    state.counters["ns_per_packet"] = watch.ns_per(static_cast<double>(state.iterations()));
    if (lost != 0)
        state.SkipWithError("half flows that share a bucket");
}

BENCHMARK(zon_handle_packet_hit)->Arg(50)->Arg(5'000)->Arg(100'000)->Arg(1'000'000);
BENCHMARK(zon_handle_captured_packet_hit)->Arg(5'000)->Arg(100'000)->Arg(1'000'000);
BENCHMARK(zon_handle_packet_burst_hit)
    ->Arg(50)->Arg(5'000)->Arg(100'000)->Arg(1'000'000)->Arg(4'000'000);
BENCHMARK(skeleton)->Arg(50)->Arg(5'000)->Arg(100'000)->Arg(1'000'000);

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    const zon_bench::second_thread idle;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

// flow_creation_bench.cpp - what the first packet of a connection costs, its timer's start
// included, and what a deletion does.
//
//   flow_creation_bench --benchmark_repetitions=9 --benchmark_report_aggregates_only=true
//
// An iteration is a whole table of flows; the counter tells the time for one of them.

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "support/bench_engine.h"
#include "support/second_thread.h"

namespace zon_bench {
namespace {

// The connections of a table in an order that follows no address: the step has no factor in common
// with the size.
class scattered {
public:
    explicit scattered(uint32_t size) : size_(size) {}
    uint32_t operator[](uint32_t at) const {
        return static_cast<uint32_t>(at * uint64_t{2'654'435'761U} % size_);
    }

private:
    uint32_t size_;
};

void create_all(bench_engine& engine, uint32_t flows, std::vector<zon_fid_t>& fids) {
    const scattered order(flows);
    for (uint32_t at = 0; at < flows; ++at)
        fids[at] = engine.send(engine.packets.udp(order[at], false));
}

void delete_all(const std::vector<zon_fid_t>& fids) {
    for (const zon_fid_t fid : fids)
        zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
}

void report(benchmark::State& state, double total_seconds, uint32_t flows) {
    state.counters["ns_per_flow"] =
        total_seconds * 1e9 / (static_cast<double>(state.iterations()) * flows);
}

// A new engine each time: the records are made on the way.
void create_flows_in_a_new_engine(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    std::vector<zon_fid_t> fids(flows);
    double total = 0;
    for (auto _ : state) {
        bench_engine engine(flows);
        const stopwatch watch;
        create_all(engine, flows, fids);
        const double seconds = watch.seconds();
        state.SetIterationTime(seconds);
        total += seconds;
        require(engine.seen.fif == 1 && fids.back() != 0, "no new flow");
    }
    report(state, total, flows);
}

enum class phase { creation, deletion };

template <phase timed>
void create_and_delete_flows(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    std::vector<zon_fid_t> fids(flows);
    bench_engine engine(flows);
    create_all(engine, flows, fids);
    delete_all(fids);
    double total = 0;
    for (auto _ : state) {
        const stopwatch creation;
        create_all(engine, flows, fids);
        const double creating = creation.seconds();
        require(engine.seen.fif == 1 && fids.back() != 0, "no new flow");
        const stopwatch deletion;
        delete_all(fids);
        const double seconds = timed == phase::creation ? creating : deletion.seconds();
        state.SetIterationTime(seconds);
        total += seconds;
    }
    report(state, total, flows);
}

void create_flows(benchmark::State& state) {
    create_and_delete_flows<phase::creation>(state);
}
void delete_flows(benchmark::State& state) {
    create_and_delete_flows<phase::deletion>(state);
}

BENCHMARK(create_flows_in_a_new_engine)->Arg(5'000)->Arg(100'000)->UseManualTime();
BENCHMARK(create_flows)->Arg(5'000)->Arg(100'000)->UseManualTime();
BENCHMARK(delete_flows)->Arg(5'000)->Arg(100'000)->UseManualTime();

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

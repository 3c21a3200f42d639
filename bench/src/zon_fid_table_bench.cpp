// zon_fid_table_bench.cpp - from an identifier to its flow, and records handed out and taken back.

#include "zon_fid_table.h"

#include <benchmark/benchmark.h>

#include "support/bench_engine.h"
#include "support/measure.h"
#include "support/random_order.h"
#include "zon_engine_inline.h"
#include "zon_fid_table_inline.h"

namespace zon_bench {
namespace {

// A new flow, unlocked; it has no half flows.
zon_fid_t take() {
    zon_flow_t* flow = zon_fid_table_new_flow_locked(g_zon->fid_table);
    require(flow != nullptr, "the table is full");
    zon_unlock_internal(flow->flow_lock);
    return flow->fid;
}

void look_up(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    bench_engine engine(flows);
    engine.establish_all(flows);
    random_order next(flows);
    bool found = true;
    for (auto _ : state)
        found &= static_cast<bool>(zon_fid_table_lookup(g_zon->fid_table, next() + 1));
    if (!found)
        state.SkipWithError("an identifier without a flow");
}

// As many records are free as are asked for in one go, in an order that follows no address.
void take_and_recycle(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    bench_engine engine(flows);
    const scattered order(flows);
    for (uint32_t i = 0; i < flows; ++i)
        take();
    for (uint32_t i = 0; i < flows; ++i)
        zon_fid_table_recycle_flow(g_zon->fid_table, order[i] + 1);
    for (auto _ : state)
        zon_fid_table_recycle_flow(g_zon->fid_table, take());
}

BENCHMARK(look_up)->Arg(5'000)->Arg(1'000'000);
BENCHMARK(take_and_recycle)->Arg(5'000)->Arg(1'000'000);

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    return zon_bench::run_benchmarks(argc, argv);
}

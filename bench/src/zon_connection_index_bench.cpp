// zon_connection_index_bench.cpp - the index of connections alone: the order and hash of a
// connection's ends, a line that knows a flow and one that does not, and a name put in and taken
// out. The flows are never looked at.

#include "zon_connection_index.h"

#include <benchmark/benchmark.h>

#include "support/bench_engine.h"
#include "support/measure.h"
#include "support/random_order.h"

namespace zon_bench {
namespace {

connection<ipv4_family> connection_number(uint32_t number) {
    return connection_of(0x0A000000 + number, 0xC0000200, uint16_t{40000}, uint16_t{443},
                         uint8_t{6}, 0);
}
// An address that no two connections share; nothing stands there.
zon_flow_t* flow_number(uint32_t number) {
    return reinterpret_cast<zon_flow_t*>((uintptr_t{number} + 1) * 320);
}

class full_index {
public:
    explicit full_index(uint32_t flows) {
        require(index.create(flows, 0), "no memory");
        for (uint32_t i = 0; i < flows; ++i)
            index.put(index.hash_of(connection_number(i)), flow_number(i));
    }
    connection_index index;
};

void hash_ipv4(benchmark::State& state) {
    connection_index index;
    require(index.create(1000, 0), "no memory");
    uint32_t last = 1;
    for (auto _ : state)
        last = static_cast<uint32_t>(index.hash_of(connection_number(last & 0xFFFFFF)));
    benchmark::DoNotOptimize(last);
}

void hash_ipv6(benchmark::State& state) {
    connection_index index;
    require(index.create(1000, 0), "no memory");
    uint32_t last = 1;
    for (auto _ : state) {
        const uint32_t source[4] = {0x20010DB8, 0, 0, last};
        const uint32_t destination[4] = {0x20010DB8, 1, 0, 7};
        last = static_cast<uint32_t>(index.hash_of(
            connection_of(source, destination, uint16_t{40000}, uint16_t{443}, uint8_t{6}, 0)));
    }
    benchmark::DoNotOptimize(last);
}

template <bool known>
void find(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    const full_index full(flows);
    random_order next(flows);
    uint64_t hits = 0;
    for (auto _ : state) {
        const uint32_t number = next() + (known ? 0 : flows);
        hits += full.index.find(full.index.hash_of(connection_number(number))).flow != nullptr;
    }
    // A full line leaves a flow out, and a strange tag is met now and then.
    const double share = static_cast<double>(hits) / static_cast<double>(state.iterations());
    if (known ? share < 0.9 : share > 0.1)
        state.SkipWithError("the index knows the wrong flows");
}

void put_and_remove(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    full_index full(flows / 2);
    random_order next(flows / 2);
    for (auto _ : state) {
        const uint32_t number = flows / 2 + next();
        const uint64_t hash = full.index.hash_of(connection_number(number));
        benchmark::DoNotOptimize(full.index.put(hash, flow_number(number)));
        full.index.remove(hash, flow_number(number));
    }
}

BENCHMARK(hash_ipv4);
BENCHMARK(hash_ipv6);
BENCHMARK(find<true>)->Name("find_known")->Arg(5'000)->Arg(1'000'000);
BENCHMARK(find<false>)->Name("find_unknown")->Arg(5'000)->Arg(1'000'000);
BENCHMARK(put_and_remove)->Arg(5'000)->Arg(1'000'000);

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    return zon_bench::run_benchmarks(argc, argv);
}

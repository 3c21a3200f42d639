// zon_key_hash_bench.cpp - the hash of a packet's key, and the bucket that it leads to.

#include "zon_key_hash.h"

#include <benchmark/benchmark.h>

#include "zon_fast_modulo.h"

namespace {

template <class family>
void hash_complete_key(benchmark::State& state) {
    typename family::half_flow half{};
    half.key.key_type = family::complete;
    half.key.src_port = 40000;
    half.key.dst_port = 443;
    for (auto _ : state) {
        // Each hash waits for the one before it, as a packet's lookup waits for its hash.
        half.key.src_port = hash_of_key(reinterpret_cast<const zon_half_flow_t*>(&half));
        benchmark::DoNotOptimize(half);
    }
}

void bucket_of_hash(benchmark::State& state) {
    const fast_modulo bucket(1280519);
    uint32_t hash = 1;
    for (auto _ : state) {
        hash = hash * 2654435761U + bucket(hash);
        benchmark::DoNotOptimize(hash);
    }
}

BENCHMARK(hash_complete_key<ipv4_family>);
BENCHMARK(hash_complete_key<ipv6_family>);
BENCHMARK(bucket_of_hash);

}  // namespace

// zon_lock_bench.cpp - the locks of flows and buckets, free when they are asked for.

#include "osal/zon_lock.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

#include "support/measure.h"

namespace {

class one_lock {
public:
    one_lock() { zon_lock_init(lock); }
    ~one_lock() {
        zon_lock_destroy(lock);
        std::free(lock);
    }
    one_lock(const one_lock&) = delete;
    one_lock& operator=(const one_lock&) = delete;

    zon_lock_t lock = zon_lock_allocate();
};

void take_and_release(benchmark::State& state) {
    one_lock free;
    for (auto _ : state) {
        zon_lock_internal(free.lock);
        zon_unlock_internal(free.lock);
    }
}

void take_again_and_release(benchmark::State& state) {
    one_lock held;
    zon_lock_internal(held.lock);
    for (auto _ : state) {
        zon_lock_internal(held.lock);
        zon_unlock_internal(held.lock);
    }
    zon_unlock_internal(held.lock);
}

BENCHMARK(take_and_release);
BENCHMARK(take_again_and_release);

}  // namespace

int main(int argc, char** argv) {
    return zon_bench::run_benchmarks(argc, argv);
}

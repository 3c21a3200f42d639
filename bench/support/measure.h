// measure.h - time and memory as the tables tell them.

#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>

#include "support/page_size.h"
#include "support/second_thread.h"

namespace zon_bench {

class stopwatch {
public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    double ns_per(double count) const { return seconds() * 1e9 / count; }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// What the program holds of the machine's memory.
inline double resident_bytes() {
    long size = 0;
    long resident = 0;
    if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(file, "%ld %ld", &size, &resident) != 2)
            resident = 0;
        std::fclose(file);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// Every program of the tables runs under the same conditions: pages of the usual size, whatever the
// machine's default for huge ones, and a second thread that sleeps.
inline int run_benchmarks(int argc, char** argv) {
    allow_huge_pages(false);
    const second_thread idle;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace zon_bench

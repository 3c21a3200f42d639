// packet_path_bench.cpp - what a packet of a known flow costs: N established flows, half TCP and
// half UDP, hit in random order in both directions, while a second thread exists.
//
//   packet_path_bench --benchmark_repetitions=9 --benchmark_report_aggregates_only=true
//
// Every row contains the writing of its packets; `write_packets` is that alone.

#include <memory>
#include <string>
#include <vector>

#include "support/bench_engine.h"
#include "support/measure.h"
#include "support/random_order.h"

namespace zon_bench {
namespace {

struct kept_engine {
    std::unique_ptr<bench_engine> engine;
    double bytes_per_flow = 0;
};

// Making a million flows takes longer than measuring them: one engine is kept from row to row.
kept_engine& engine_of(const engine_options& options) {
    static kept_engine kept;
    if (!kept.engine || !(kept.engine->options() == options)) {
        kept.engine.reset();
        const double before = resident_bytes();
        kept.engine = std::make_unique<bench_engine>(options);
        kept.engine->establish_all(options.max_flows);
        kept.bytes_per_flow = (resident_bytes() - before) / options.max_flows;
    }
    return kept;
}

void end_row(benchmark::State& state, double ns_per_packet, uint32_t lost) {
    state.counters["ns_per_packet"] = ns_per_packet;
    if (lost != 0)
        state.SkipWithError("packets without a flow");
}

using entry = zon_fid_t (packet_source::*)(uint8_t*);

void hit(benchmark::State& state, const engine_options& options, entry handle) {
    kept_engine& kept = engine_of(options);
    bench_engine& engine = *kept.engine;
    random_order next(2 * options.max_flows);
    uint32_t lost = 0;
    const stopwatch watch;
    for (auto _ : state) {
        const uint32_t which = next();
        lost += (engine.*handle)(engine.packets.established(which >> 1, (which & 1) != 0)) == 0;
    }
    end_row(state, watch.ns_per(static_cast<double>(state.iterations())), lost);
    state.counters["bytes_per_flow"] = kept.bytes_per_flow;
}

void hit_burst(benchmark::State& state, const engine_options& options) {
    bench_engine& engine = *engine_of(options).engine;
    random_order next(2 * options.max_flows);
    uint32_t lost = 0;
    const stopwatch watch;
    for (auto _ : state) {
        for (uint32_t slot = 0; slot < bench_engine::burst_size; ++slot) {
            const uint32_t which = next();
            engine.put_into_burst(slot, engine.packets.established(which >> 1, (which & 1) != 0));
        }
        lost += engine.send_burst();
    }
    end_row(state, watch.ns_per(static_cast<double>(state.iterations() * bench_engine::burst_size)),
            lost);
}

// The packets alone, into the same buffers and in the same order.
void write_packets(benchmark::State& state, families family) {
    packet_writer packets(family);
    random_order next(2'000'000);
    const stopwatch watch;
    for (auto _ : state) {
        const uint32_t which = next();
        benchmark::DoNotOptimize(packets.established(which >> 1, (which & 1) != 0));
        benchmark::ClobberMemory();
    }
    end_row(state, watch.ns_per(static_cast<double>(state.iterations())), 0);
}

std::string row_name(const char* what, const engine_options& options) {
    return std::string(what) + "/" + name_of(options.family) +
           "/checks:" + (options.tcp_checks ? "on" : "off") +
           "/clients:" + std::to_string(options.clients) +
           (options.huge_pages ? "/huge_pages" : "") +
           "/flows:" + std::to_string(options.max_flows);
}

void add_rows(const engine_options& options) {
    benchmark::RegisterBenchmark(row_name("one_at_a_time", options).c_str(), hit, options,
                                 &packet_source::send);
    benchmark::RegisterBenchmark(row_name("captured", options).c_str(), hit, options,
                                 &packet_source::send_captured);
    benchmark::RegisterBenchmark(row_name("burst", options).c_str(), hit_burst, options);
}

void add_all_rows() {
    constexpr families every_family[] = {families::ipv4, families::ipv6, families::mixed};
    for (const families family : every_family) {
        const std::string name = std::string("write_packets/") + name_of(family);
        benchmark::RegisterBenchmark(name.c_str(), write_packets, family);
        for (const uint32_t flows : {5'000U, 100'000U, 1'000'000U, 4'000'000U})
            add_rows({flows, family});
    }
    for (const uint32_t flows : {5'000U, 1'000'000U})
        add_rows({flows, families::ipv4, false});
    for (const uint32_t clients : {1U, 8U})
        for (const uint32_t flows : {5'000U, 100'000U})
            add_rows({flows, families::ipv4, true, clients});
    for (const uint32_t flows : {100'000U, 1'000'000U, 4'000'000U}) {
        engine_options options{flows};
        options.huge_pages = true;
        add_rows(options);
    }
}

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    zon_bench::add_all_rows();
    return zon_bench::run_benchmarks(argc, argv);
}

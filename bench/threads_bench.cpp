// threads_bench.cpp - how packets of one and of two threads get on with each other.
//
//   threads_bench        pin it to as many processors as threads are measured
//
// `apart`    each thread has connections of its own, as a network card deals them out;
// `anywhere` any thread meets packets of any connection.
// ns_per_packet is wall time divided by the packets of all threads: with perfect scaling two
// threads halve it.

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/bench_engine.h"
#include "support/measure.h"
#include "support/own_processor.h"
#include "support/random_order.h"

namespace zon_bench {
namespace {

// Runs body(thread) on so many threads and returns the seconds from the first one's start to the
// end of the last.
template <class function>
double run_together(uint32_t threads, function body) {
    using clock = std::chrono::steady_clock;
    struct span {
        clock::time_point start;
        clock::time_point end;
    };
    std::vector<span> spans(threads);
    std::barrier start(threads);
    std::vector<std::thread> running;
    for (uint32_t at = 0; at < threads; ++at)
        running.emplace_back([&, at] {
            take_own_processor(static_cast<int>(at));
            start.arrive_and_wait();
            const clock::time_point begin = clock::now();
            body(at);
            spans[at] = {begin, clock::now()};
        });
    for (auto& thread : running)
        thread.join();
    const auto first = std::min_element(
        spans.begin(), spans.end(), [](const span& a, const span& b) { return a.start < b.start; });
    const auto last = std::max_element(spans.begin(), spans.end(),
                                       [](const span& a, const span& b) { return a.end < b.end; });
    return std::chrono::duration<double>(last->end - first->start).count();
}

struct load {
    uint32_t flows;
    uint32_t threads;
    uint32_t max_threads;
};

bench_engine& established_engine(const load& of) {
    static std::unique_ptr<bench_engine> engine;
    engine_options wanted{of.flows};
    wanted.max_threads = of.max_threads;
    if (!engine || !(engine->options() == wanted)) {
        engine.reset();
        engine = std::make_unique<bench_engine>(wanted);
        engine->establish_all(of.flows);
    }
    return *engine;
}

enum class share { apart, anywhere };
constexpr uint32_t packets_per_thread = 1U << 20;

// Packets of a part of the connections, both directions.
uint32_t hit_part(packet_source& source, uint32_t first, uint32_t connections, uint64_t seed,
                  bool in_bursts) {
    random_order next(2 * connections, seed);
    const auto packet = [&] {
        const uint32_t which = next();
        return source.packets.established(first + (which >> 1), (which & 1) != 0);
    };
    uint32_t lost = 0;
    if (!in_bursts) {
        for (uint32_t i = 0; i < packets_per_thread; ++i)
            lost += source.send(packet()) == 0;
        return lost;
    }
    for (uint32_t i = 0; i < packets_per_thread; i += packet_source::burst_size) {
        for (uint32_t slot = 0; slot < packet_source::burst_size; ++slot)
            source.put_into_burst(slot, packet());
        lost += source.send_burst();
    }
    return lost;
}

void established(benchmark::State& state, const load& of, share shared, bool in_bursts) {
    established_engine(of);
    const uint32_t part = shared == share::apart ? of.flows / 2 : of.flows;
    std::atomic<uint32_t> lost = 0;
    double total = 0;
    for (auto _ : state) {
        const double seconds = run_together(of.threads, [&](uint32_t thread) {
            packet_source source(families::ipv4);
            const uint32_t first = shared == share::apart ? thread * part : 0;
            // One thread alone meets all connections in either way.
            lost += hit_part(source, of.threads == 1 ? 0 : first, of.threads == 1 ? of.flows : part,
                             0x9E3779B97F4A7C15 + thread, in_bursts);
        });
        state.SetIterationTime(seconds);
        total += seconds;
    }
    state.counters["ns_per_packet"] =
        total * 1e9 / (static_cast<double>(state.iterations()) * packets_per_thread * of.threads);
    if (lost != 0)
        state.SkipWithError("packets without a flow");
}

// Lets threads go on once all have come. They wait awake: who sleeps here starts late.
class meeting_point {
public:
    explicit meeting_point(uint32_t threads) : threads_(threads) {}
    void meet() {
        const uint32_t round = round_.load(std::memory_order_acquire);
        if (come_.fetch_add(1, std::memory_order_acq_rel) + 1 == threads_) {
            come_.store(0, std::memory_order_relaxed);
            round_.store(round + 1, std::memory_order_release);
        }
        while (round_.load(std::memory_order_acquire) == round) {
        }
    }

private:
    const uint32_t threads_;
    std::atomic<uint32_t> come_ = 0;
    std::atomic<uint32_t> round_ = 0;
};

// Makes flows until all are there, deletes them, and so on. Only the making is timed, from the
// first thread's start to the end of the last.
class flow_makers {
public:
    flow_makers(const load& of, uint32_t rounds)
        : of_(of),
          rounds_(rounds),
          order_(of.flows),
          fids_(of.flows),
          starts_(of.threads),
          ends_(of.threads),
          meeting_(of.threads) {}

    double seconds() {
        std::vector<std::thread> threads;
        for (uint32_t at = 0; at < of_.threads; ++at)
            threads.emplace_back([this, at] { work(at); });
        for (auto& thread : threads)
            thread.join();
        return seconds_;
    }

private:
    using clock = std::chrono::steady_clock;

    void work(uint32_t thread) {
        take_own_processor(static_cast<int>(thread));
        packet_source source(families::ipv4);
        for (uint32_t round = 0; round <= rounds_; ++round) {
            meeting_.meet();
            starts_[thread] = clock::now();
            make(thread, source);
            ends_[thread] = clock::now();
            meeting_.meet();
            // The first round fills chunks and caches.
            if (thread == 0 && round > 0)
                add_up();
            delete_flows_of((thread + 1) % of_.threads);
        }
    }
    uint32_t first_of(uint32_t thread) const { return thread * (of_.flows / of_.threads); }
    uint32_t end_of(uint32_t thread) const { return first_of(thread + 1); }

    void make(uint32_t thread, packet_source& source) {
        for (uint32_t at = first_of(thread); at < end_of(thread); ++at)
            fids_[at] = source.send(source.packets.first(order_[at]));
    }
    // Of a neighbour's, so that records change hands, as where a timer thread ends flows.
    void delete_flows_of(uint32_t thread) {
        for (uint32_t at = first_of(thread); at < end_of(thread); ++at) {
            require(fids_[at] != 0, "a packet without a flow");
            zon_delete_flow_tamonet(fids_[at], ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    }
    void add_up() {
        seconds_ += std::chrono::duration<double>(*std::max_element(ends_.begin(), ends_.end()) -
                                                  *std::min_element(starts_.begin(), starts_.end()))
                        .count();
    }

    const load of_;
    const uint32_t rounds_;
    const scattered order_;
    std::vector<zon_fid_t> fids_;
    std::vector<clock::time_point> starts_;
    std::vector<clock::time_point> ends_;
    meeting_point meeting_;
    double seconds_ = 0;
};

void new_flows(benchmark::State& state, const load& of) {
    engine_options options{of.flows};
    options.max_threads = of.max_threads;
    bench_engine engine(options);
    const uint32_t rounds = std::max(1U, 500'000 / of.flows);
    double total = 0;
    for (auto _ : state) {
        const double seconds = flow_makers(of, rounds).seconds();
        state.SetIterationTime(seconds);
        total += seconds;
    }
    state.counters["ns_per_flow"] =
        total * 1e9 / (static_cast<double>(state.iterations()) * rounds * of.flows);
}

// What it takes a word to reach the other thread: two of them hand it to and fro. The shortest time
// counts, since a thread that waits awake loses its processor now and then.
void line_transfer(benchmark::State& state) {
    constexpr int turns = 1'000;
    double least = 1;
    for (auto _ : state) {
        alignas(64) std::atomic<uint32_t> holder = 0;
        const double seconds = run_together(2, [&](uint32_t thread) {
            for (int turn = 0; turn < turns; ++turn) {
                while (holder.load(std::memory_order_acquire) != thread) {
                }
                holder.store(1 - thread, std::memory_order_release);
            }
        });
        state.SetIterationTime(seconds);
        least = std::min(least, seconds);
    }
    state.counters["ns_per_transfer"] = least * 1e9 / (2 * turns);
}

std::string name_of(const char* what, const load& of) {
    return std::string(what) + "/flows:" + std::to_string(of.flows) +
           "/max_threads:" + std::to_string(of.max_threads) +
           "/threads:" + std::to_string(of.threads);
}

template <class... arguments>
void add(const char* what, const load& of, arguments... body) {
    benchmark::RegisterBenchmark(name_of(what, of).c_str(), body...)->UseManualTime();
}

void add_all_rows() {
    // Threads that share a processor would wait for the end of its time slice.
    if (std::thread::hardware_concurrency() > 1)
        benchmark::RegisterBenchmark("line_transfer", line_transfer)->UseManualTime();
    // The last number gives every flow a lock of its own.
    for (const uint32_t flows : {5'000U, 1'000'000U})
        for (const uint32_t max_threads : {10U, 1024U, flows}) {
            for (const uint32_t threads : {1U, 2U}) {
                const load of{flows, threads, max_threads};
                add("established/apart", of, established, of, share::apart, false);
                add("established/anywhere", of, established, of, share::anywhere, false);
                add("established_burst/apart", of, established, of, share::apart, true);
                add("established_burst/anywhere", of, established, of, share::anywhere, true);
            }
            for (const uint32_t threads : {1U, 2U}) {
                const load of{flows, threads, max_threads};
                add("new_flows", of, new_flows, of);
            }
        }
}

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    zon_bench::add_all_rows();
    return zon_bench::run_benchmarks(argc, argv);
}

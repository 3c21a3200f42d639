// skeleton_bench.cpp - what memory allows: the lines that no packet can do without, under one lock
// of a pool, and nothing else. No packet is written, parsed, hashed, tracked or told of.
//
//   one_at_a_time  a packet's place depends on nothing that the packet before it read: the
//                  processor works on as many at once as the lock lets it
//   alone          a packet begins when the one before it is done, as where a host does so much
//                  between two that nothing of them overlaps
//   burst          in batches of 32, what the packets will touch is asked for first
//
// Each with the cheapest lock there is, and with the C library's recursive one.

#include <pthread.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/bench_engine.h"
#include "support/measure.h"
#include "support/random_order.h"

namespace zon_bench {
namespace {

// The size and place of the engine's records: five lines, of which a packet touches the last four.
struct alignas(64) skeleton_flow {
    uint64_t words[40];
};
static_assert(sizeof(skeleton_flow) == 320);

// The cheapest lock there is: one atomic instruction to take it, a plain store to let it go.
struct alignas(64) atomic_lock {
    std::atomic<uint32_t> taken{0};

    void take() {
        while (taken.exchange(1, std::memory_order_acquire) != 0) {
        }
    }
    void let_go() { taken.store(0, std::memory_order_release); }
};

struct alignas(64) library_lock {
    library_lock() {
        pthread_mutexattr_t recursive;
        pthread_mutexattr_init(&recursive);
        pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex, &recursive);
    }
    ~library_lock() { pthread_mutex_destroy(&mutex); }
    library_lock(const library_lock&) = delete;
    library_lock& operator=(const library_lock&) = delete;

    void take() { pthread_mutex_lock(&mutex); }
    void let_go() { pthread_mutex_unlock(&mutex); }

    pthread_mutex_t mutex;
};

template <class lock_type>
class skeleton_table {
public:
    // The index has the size of the engine's: two entries to a flow, or up to four.
    explicit skeleton_table(uint32_t flows)
        : flows_(flows), entries_(std::bit_ceil(flows / 4) * entries_per_line) {
        for (uint32_t i = 0; i < flows; ++i)
            entries_[place_of(i)] = &flows_[i];
    }

    struct place {
        skeleton_flow* const* entry;
        lock_type* lock;
    };
    place find(uint32_t connection) {
        return {&entries_[place_of(connection)], &locks_[connection % locks_.size()]};
    }
    static void fetch_entry(const place& at) { __builtin_prefetch(at.entry); }
    static void fetch_flow(const place& at) {
        for (size_t line = 1; line < 5; ++line)
            __builtin_prefetch(&(*at.entry)->words[8 * line], 1);
        __builtin_prefetch(at.lock, 1);
    }
    // Returns 0, which is known once the flow's last line has arrived.
    static uint32_t touch(const place& at) {
        skeleton_flow& flow = **at.entry;
        at.lock->take();
        for (size_t line = 1; line < 5; ++line)
            ++flow.words[8 * line];
        const auto zero = static_cast<uint32_t>(flow.words[39]);
        at.lock->let_go();
        return zero;
    }

private:
    static constexpr size_t entries_per_line = 8;

    // No two connections meet: the factor is odd and the size a power of two.
    size_t place_of(uint32_t connection) const {
        return (connection * uint64_t{0x9E3779B97F4A7C15}) & (entries_.size() - 1);
    }

    std::vector<skeleton_flow> flows_;
    std::vector<skeleton_flow*> entries_;
    std::array<lock_type, 10> locks_;
};

// Kept from row to row: only memory that was in use before tells what memory costs.
template <class lock_type>
skeleton_table<lock_type>& table_of(uint32_t flows) {
    static std::unique_ptr<skeleton_table<lock_type>> table;
    static uint32_t size = 0;
    if (size != flows) {
        table.reset();
        table = std::make_unique<skeleton_table<lock_type>>(flows);
        size = flows;
    }
    return *table;
}

enum class order { independent, each_waits };

template <class lock_type, order packets>
void one_at_a_time(benchmark::State& state, uint32_t flows) {
    using table_type = skeleton_table<lock_type>;
    table_type& table = table_of<lock_type>(flows);
    random_order next(2 * flows);
    uint32_t zero = 0;
    const stopwatch watch;
    for (auto _ : state) {
        const uint32_t connection = (next() >> 1) + (packets == order::each_waits ? zero : 0);
        zero = table_type::touch(table.find(connection));
        benchmark::DoNotOptimize(zero);
    }
    state.counters["ns_per_packet"] = watch.ns_per(static_cast<double>(state.iterations()));
}

template <class lock_type>
void batches(benchmark::State& state, uint32_t flows) {
    using table_type = skeleton_table<lock_type>;
    constexpr uint32_t size = packet_source::burst_size;
    table_type& table = table_of<lock_type>(flows);
    random_order next(2 * flows);
    std::array<typename table_type::place, size> places;
    const stopwatch watch;
    for (auto _ : state) {
        for (auto& place : places) {
            place = table.find(next() >> 1);
            table_type::fetch_entry(place);
        }
        for (const auto& place : places)
            table_type::fetch_flow(place);
        for (const auto& place : places)
            benchmark::DoNotOptimize(table_type::touch(place));
    }
    state.counters["ns_per_packet"] = watch.ns_per(static_cast<double>(state.iterations()) * size);
}

template <class lock_type>
void add_rows(const std::string& prefix, uint32_t flows) {
    const std::string size = "/flows:" + std::to_string(flows);
    const auto add = [&](const char* what, auto body) {
        benchmark::RegisterBenchmark((prefix + what + size).c_str(), body, flows);
    };
    add("/one_at_a_time", one_at_a_time<lock_type, order::independent>);
    add("/alone", one_at_a_time<lock_type, order::each_waits>);
    add("/burst", batches<lock_type>);
}

void add_all_rows() {
    for (const uint32_t flows : {5'000U, 100'000U, 1'000'000U, 4'000'000U}) {
        add_rows<atomic_lock>("skeleton", flows);
        add_rows<library_lock>("skeleton_library_lock", flows);
    }
}

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    zon_bench::add_all_rows();
    return zon_bench::run_benchmarks(argc, argv);
}

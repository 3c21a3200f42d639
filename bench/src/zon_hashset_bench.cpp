// zon_hashset_bench.cpp - the hash set of half flows alone: search, and insertion with removal of a
// pair.

#include "zon_hashset.h"

#include <benchmark/benchmark.h>

#include <vector>

#include "support/second_thread.h"
#include "zon_flow_table.h"

namespace {

const zon_bench::second_thread idle;

// Flows with both their half flows, outside any engine.
class half_flow_set {
public:
    explicit half_flow_set(uint32_t flows) : flows_(flows), halves_(2 * flows) {
        zon_hash_attr attributes{};
        zon_hash_attr_init(&attributes);
        zon_hash_attr_sethashtable(&attributes, false, static_cast<int>(flows), 10, 0);
        zon_hashset_create(&set, &attributes, 0, zon_hash_calc, zon_matcher, nullptr);
        lock_ = zon_lock_allocate();
        zon_lock_init(lock_);
        for (uint32_t at = 0; at < 2 * flows; ++at) {
            zon_ipv4_half_flow_t& half = halves_[at];
            half = {};
            half.flow = &flows_[at / 2];
            half.flow->flow_lock = lock_;
            const bool back = at % 2 != 0;
            half.key.src_ip = back ? 7 : at / 2;
            half.key.dst_ip = back ? at / 2 : 7;
        }
    }
    ~half_flow_set() {
        zon_hashset_free(&set);
        zon_lock_destroy(lock_);
        std::free(lock_);
    }
    half_flow_set(const half_flow_set&) = delete;
    half_flow_set& operator=(const half_flow_set&) = delete;

    zon_half_flow_t* half(uint32_t at) { return reinterpret_cast<zon_half_flow_t*>(&halves_[at]); }
    void insert(uint32_t flow) {
        zon_hashset_insert(set, half(2 * flow));
        zon_unlock_internal(lock_);
        zon_hashset_insert(set, half(2 * flow + 1));
        zon_unlock_internal(lock_);
    }
    void remove(uint32_t flow) { zon_hashset_remove_full(set, half(2 * flow), half(2 * flow + 1)); }
    void unlock() { zon_unlock_internal(lock_); }

    zon_hashset set = nullptr;

private:
    zon_lock_t lock_;
    std::vector<zon_flow_t> flows_;
    std::vector<zon_ipv4_half_flow_t> halves_;
};

void search(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    half_flow_set items(flows);
    for (uint32_t flow = 0; flow < flows; ++flow)
        items.insert(flow);
    uint64_t random = 1;
    for (auto _ : state) {
        random = random * 6364136223846793005U + 1442695040888963407U;
        zon_ipv4_half_flow_t wanted{};
        wanted.key.src_ip = static_cast<uint32_t>(random >> 33) % flows;
        wanted.key.dst_ip = 7;
        if (zon_hashset_get(items.set, &wanted, nullptr) == nullptr) {
            state.SkipWithError("an item is not found");
            break;
        }
        items.unlock();
    }
}

void insert_and_remove(benchmark::State& state) {
    const auto flows = static_cast<uint32_t>(state.range(0));
    half_flow_set items(flows);
    uint32_t at = 0;
    for (auto _ : state) {
        items.insert(at);
        items.remove(at);
        at = (at + 7919) % flows;
    }
}

BENCHMARK(search)->Arg(5'000)->Arg(1'000'000);
BENCHMARK(insert_and_remove)->Arg(5'000)->Arg(1'000'000);

}  // namespace

// rte_hash_peer.cpp - DPDK's cuckoo hash with its look-up of 32 keys at once, and one at a time.
// Nothing is locked, neither table nor record.

#include <rte_config.h>
#include <rte_eal.h>
#include <rte_hash.h>
#include <rte_hash_crc.h>
#include <rte_malloc.h>
#include <sched.h>

#include "peers/peer_table.h"

namespace zon_bench {
namespace {

class rte_table {
public:
    ~rte_table() { rte_hash_free(hash_); }

    void create(uint32_t flows) {
        rte_hash_parameters parameters{};
        parameters.name = "flows";
        // A cuckoo table that is full to the brim refuses keys.
        parameters.entries = flows + flows / 8;
        parameters.key_len = sizeof(peer_key);
        parameters.hash_func = rte_hash_crc;
        hash_ = rte_hash_create(&parameters);
        require(hash_ != nullptr, "no table");
    }
    void put(const peer_key& key, peer_record* record) {
        require(rte_hash_add_key_data(hash_, &key, record) == 0, "no room for a key");
    }
    peer_record* find(const peer_key& key) const {
        void* record = nullptr;
        return rte_hash_lookup_data(hash_, &key, &record) < 0 ? nullptr
                                                              : static_cast<peer_record*>(record);
    }
    template <size_t count>
    uint32_t find_all(const std::array<peer_key, count>& keys,
                      std::array<peer_record*, count>& records) const {
        const void* wanted[count];
        void* found[count];
        for (size_t i = 0; i < count; ++i)
            wanted[i] = &keys[i];
        uint64_t hits = 0;
        const int known = rte_hash_lookup_bulk_data(hash_, wanted, count, &hits, found);
        for (size_t i = 0; i < count; ++i)
            records[i] = static_cast<peer_record*>(found[i]);
        return static_cast<uint32_t>(known);
    }

private:
    rte_hash* hash_ = nullptr;
};

// DPDK's own memory is not on the heap: it is asked for instead.
double rte_bytes() {
    rte_malloc_socket_stats stats{};
    rte_malloc_get_socket_stats(0, &stats);
    return static_cast<double>(stats.heap_allocsz_bytes);
}

void start_dpdk(char* program) {
    std::vector<std::string> arguments{program, "--no-huge", "--no-pci",    "--no-telemetry",
                                       "-m",    "2048",      "--log-level", "error"};
    // Where the program is pinned to.
    arguments.push_back("--lcores=0@" + std::to_string(sched_getcpu()));
    std::vector<char*> all;
    for (std::string& argument : arguments)
        all.push_back(argument.data());
    require(rte_eal_init(static_cast<int>(all.size()), all.data()) >= 0, "no DPDK");
}

void find_in_bulk_with_size(benchmark::State& state, uint32_t flows) {
    const double before = rte_bytes();
    find_in_bulk<rte_table>(state, flows);
    if (rte_bytes() > before)
        state.counters["bytes_per_flow"] = (rte_bytes() - before) / flows + sizeof(peer_record);
}

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    using namespace zon_bench;
    allow_huge_pages(false);
    start_dpdk(argv[0]);
    add_peer_rows("peer/rte_hash_bulk", find_in_bulk_with_size);
    add_peer_rows("peer/rte_hash", find_one_at_a_time<rte_table>);
    return run_benchmarks(argc, argv);
}

// peer_table.h - the same question to hash tables that others wrote: the record of a connection, of
// which two lines are touched. None of them follows TCP, counts packets, ages or tells a host
// anything; they stand in the tables as what finding a record costs elsewhere.
//
// A table has create(flows), put(key, record) and find(key), or find_all(keys, records).

#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/bench_engine.h"
#include "support/measure.h"
#include "support/random_order.h"

namespace zon_bench {

// The ends of a connection, the client's first: packets of both directions ask for one key, so that
// no table needs two of them for a flow.
struct peer_key {
    uint32_t client;
    uint32_t server;
    uint16_t client_port;
    uint16_t server_port;
    uint32_t protocol;
    bool operator==(const peer_key&) const = default;
};
static_assert(sizeof(peer_key) == 16);

// The connections of packet_writer.
inline peer_key key_of(uint32_t connection) {
    return {0x0A000000 + connection, 0xC0000200 + connection % 16,
            static_cast<uint16_t>(1024 + connection * 7 % 60000), 443,
            packet_writer::is_tcp(connection) ? 6U : 17U};
}

// Two multiplications, as the engine's own index has it.
struct peer_hash {
    size_t operator()(const peer_key& key) const {
        uint64_t words[2];
        std::memcpy(words, &key, sizeof words);
        __extension__ using wide = unsigned __int128;
        const wide product =
            static_cast<wide>(words[0] ^ 0x9E3779B97F4A7C15) * (words[1] ^ 0xD6E8FEB86659FD93);
        return static_cast<size_t>(product) ^ static_cast<size_t>(product >> 64);
    }
};

struct alignas(64) peer_record {
    std::array<uint64_t, 16> words;  // two lines
    void touch() {
        ++words[0];
        ++words[8];
    }
};

template <class table_type>
class filled_table {
public:
    explicit filled_table(uint32_t flows) : records_(flows) {
        const double before = resident_bytes();
        table.create(flows);
        for (uint32_t connection = 0; connection < flows; ++connection)
            table.put(key_of(connection), &records_[connection]);
        bytes_per_flow = (resident_bytes() - before) / flows + sizeof(peer_record);
    }

    table_type table;
    double bytes_per_flow = 0;

private:
    std::vector<peer_record> records_;
};

// Kept from row to row, as the engine is.
template <class table_type>
filled_table<table_type>& filled_with(uint32_t flows) {
    static std::unique_ptr<filled_table<table_type>> kept;
    static uint32_t size = 0;
    if (size != flows) {
        kept.reset();
        kept = std::make_unique<filled_table<table_type>>(flows);
        size = flows;
    }
    return *kept;
}

template <class table_type>
void find_one_at_a_time(benchmark::State& state, uint32_t flows) {
    filled_table<table_type>& filled = filled_with<table_type>(flows);
    random_order next(2 * flows);
    uint32_t lost = 0;
    const stopwatch watch;
    for (auto _ : state) {
        peer_record* record = filled.table.find(key_of(next() >> 1));
        if (record != nullptr)
            record->touch();
        lost += record == nullptr;
    }
    state.counters["ns_per_packet"] = watch.ns_per(static_cast<double>(state.iterations()));
    state.counters["bytes_per_flow"] = filled.bytes_per_flow;
    if (lost != 0)
        state.SkipWithError("keys without a record");
}

template <class table_type>
void find_in_bulk(benchmark::State& state, uint32_t flows) {
    constexpr uint32_t size = packet_source::burst_size;
    filled_table<table_type>& filled = filled_with<table_type>(flows);
    random_order next(2 * flows);
    std::array<peer_key, size> keys;
    std::array<peer_record*, size> records;
    uint32_t lost = 0;
    const stopwatch watch;
    for (auto _ : state) {
        for (peer_key& key : keys)
            key = key_of(next() >> 1);
        lost += filled.table.find_all(keys, records) != size;
        for (peer_record* record : records) {
            __builtin_prefetch(&record->words[0], 1);
            __builtin_prefetch(&record->words[8], 1);
        }
        for (peer_record* record : records)
            record->touch();
    }
    state.counters["ns_per_packet"] = watch.ns_per(static_cast<double>(state.iterations()) * size);
    state.counters["bytes_per_flow"] = filled.bytes_per_flow;
    if (lost != 0)
        state.SkipWithError("keys without a record");
}

using peer_body = void (*)(benchmark::State&, uint32_t);

inline void add_peer_rows(const std::string& name, peer_body body) {
    for (const uint32_t flows : {5'000U, 100'000U, 1'000'000U, 4'000'000U})
        benchmark::RegisterBenchmark((name + "/flows:" + std::to_string(flows)).c_str(), body,
                                     flows);
}

}  // namespace zon_bench

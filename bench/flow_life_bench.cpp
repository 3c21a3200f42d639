// flow_life_bench.cpp - what the first packet of a connection costs, its timer's start included,
// and what becomes of a flow later: its deletion, its end by time, and the flow that was announced.
//
//   flow_life_bench --benchmark_repetitions=9 --benchmark_report_aggregates_only=true
//
// An iteration is a whole table of flows; the counter tells the time for one of them.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/bench_engine.h"
#include "support/measure.h"
#include "support/random_order.h"

namespace zon_bench {
namespace {

// The timed part of each iteration is a part of it only.
class row {
public:
    row(benchmark::State& state, uint32_t flows) : state_(state), flows_(flows) {}
    ~row() {
        state_.counters["ns_per_flow"] =
            total_ * 1e9 / (static_cast<double>(state_.iterations()) * flows_);
    }
    row(const row&) = delete;
    row& operator=(const row&) = delete;

    void took(double seconds) {
        state_.SetIterationTime(seconds);
        total_ += seconds;
    }

private:
    benchmark::State& state_;
    uint32_t flows_;
    double total_ = 0;
};

void create_all(bench_engine& engine, uint32_t flows, std::vector<zon_fid_t>& fids) {
    const scattered order(flows);
    for (uint32_t at = 0; at < flows; ++at)
        fids[at] = engine.send(engine.packets.first(order[at]));
}

// The same in bursts; a table that no burst divides has a shorter last one.
void create_all_in_bursts(bench_engine& engine, uint32_t flows, std::vector<zon_fid_t>& fids) {
    const scattered order(flows);
    constexpr uint32_t size = packet_source::burst_size;
    for (uint32_t first = 0; first < flows; first += size) {
        for (uint32_t slot = 0; slot < size; ++slot)
            engine.put_into_burst(slot, engine.packets.first(order[(first + slot) % flows]));
        engine.send_burst();
        for (uint32_t slot = 0; slot < std::min(size, flows - first); ++slot)
            fids[first + slot] = engine.flow_of_burst(slot);
    }
}

void delete_all(const std::vector<zon_fid_t>& fids) {
    for (const zon_fid_t fid : fids)
        zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
}

using creator = void (*)(bench_engine&, uint32_t, std::vector<zon_fid_t>&);

enum class phase { creation, deletion };

// The records are there already, as in an engine that has run for a while.
void create_and_delete(benchmark::State& state, families family, uint32_t flows, creator create,
                       phase timed) {
    std::vector<zon_fid_t> fids(flows);
    bench_engine engine({flows, family});
    create(engine, flows, fids);
    delete_all(fids);
    row result(state, flows);
    for (auto _ : state) {
        const stopwatch creation_watch;
        create(engine, flows, fids);
        const double creating = creation_watch.seconds();
        require(std::find(fids.begin(), fids.end(), 0) == fids.end(), "a packet without a flow");
        const uint32_t before = engine.ended_flows();
        const stopwatch deletion_watch;
        delete_all(fids);
        result.took(timed == phase::creation ? creating : deletion_watch.seconds());
        require(engine.ended_flows() - before == flows, "flows that stayed");
    }
}

// A full engine from nothing, and back to nothing.
void make_or_destroy(benchmark::State& state, families family, uint32_t flows, phase timed) {
    std::vector<zon_fid_t> fids(flows);
    row result(state, flows);
    for (auto _ : state) {
        const stopwatch making;
        auto engine = std::make_unique<bench_engine>(engine_options{flows, family});
        create_all(*engine, flows, fids);
        const double seconds = making.seconds();
        const stopwatch destroying;
        engine.reset();
        result.took(timed == phase::creation ? seconds : destroying.seconds());
    }
}

// The clock is turned by hand, and what is due runs inside the turn.
void expire(benchmark::State& state, families family, uint32_t flows) {
    std::vector<zon_fid_t> fids(flows);
    require(zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE) == zon_error_none, "no clock by hand");
    {
        bench_engine engine({flows, family});
        bench_engine::set_idle_time_ms(30'000);
        row result(state, flows);
        for (auto _ : state) {
            create_all(engine, flows, fids);
            const uint32_t before = engine.ended_flows();
            const stopwatch watch;
            zon_clock_advance_us(70'000'000);
            result.took(watch.seconds());
            require(engine.ended_flows() - before == flows, "flows that did not end");
        }
    }
    zon_clock_set_mode(ZON_CLOCK_SYSTEM);
}

zon_flow_tuple_t announcement_of(const uint8_t* packet) {
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    tuple.src_ip.u.v4_addr = zon_be32_at(packet + 12);
    tuple.dst_ip.u.v4_addr = zon_be32_at(packet + 16);
    tuple.src_port = zon_be16_at(packet + 20);
    tuple.dst_port = zon_be16_at(packet + 22);
    tuple.l4_protocol = packet[9];
    return tuple;
}

// The first packets of announced flows; how much was known of them decides where they are found.
void promote(benchmark::State& state, zon_flow_tuple_type_t known, uint32_t flows) {
    bench_engine engine(flows);
    std::vector<zon_fid_t> fids(flows);
    row result(state, flows);
    for (auto _ : state) {
        for (uint32_t at = 0; at < flows; ++at) {
            const zon_flow_tuple_t tuple = announcement_of(engine.packets.first(at));
            require(zon_pre_flow_add(known, &tuple, 0, &fids[at], nullptr) == zon_error_none,
                    "no announcement");
        }
        const stopwatch watch;
        create_all(engine, flows, fids);
        result.took(watch.seconds());
        require(engine.seen.was_promoted == 1, "a flow that was not announced");
        delete_all(fids);
    }
}

void add_rows(families family, uint32_t flows) {
    const auto add = [&](const char* what, auto... body) {
        const std::string name =
            std::string(what) + "/" + name_of(family) + "/flows:" + std::to_string(flows);
        benchmark::RegisterBenchmark(name.c_str(), body...)->UseManualTime();
    };
    add("create", create_and_delete, family, flows, create_all, phase::creation);
    add("create_in_bursts", create_and_delete, family, flows, create_all_in_bursts,
        phase::creation);
    add("delete", create_and_delete, family, flows, create_all, phase::deletion);
    add("expire", expire, family, flows);
    add("make_engine", make_or_destroy, family, flows, phase::creation);
    add("destroy_engine", make_or_destroy, family, flows, phase::deletion);
}

void add_all_rows() {
    for (const families family : {families::ipv4, families::ipv6})
        for (const uint32_t flows : {5'000U, 100'000U, 1'000'000U})
            add_rows(family, flows);
    for (const uint32_t flows : {5'000U, 100'000U}) {
        const std::string size = "/flows:" + std::to_string(flows);
        benchmark::RegisterBenchmark(("promote/complete" + size).c_str(), promote,
                                     ZON_FLOW_TUPLE_TYPE_COMPLETE, flows)
            ->UseManualTime();
        benchmark::RegisterBenchmark(("promote/source_known" + size).c_str(), promote,
                                     ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, flows)
            ->UseManualTime();
    }
}

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    zon_bench::add_all_rows();
    return zon_bench::run_benchmarks(argc, argv);
}

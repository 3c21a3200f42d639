// packet_kinds_bench.cpp - what packets cost that are not plain: options, extension headers,
// tunnels, fragments. Each row sends one packet of a known flow over and over, so that no memory is
// waited for.

#include <string>

#include "support/bench_engine.h"
#include "support/measure.h"
#include "support/sample_packets.h"

namespace zon_bench {
namespace {

using zon_test::bytes;
using zon_test::ipv4;
using zon_test::ipv6;
using zon_test::packet_builder;

enum class entry { trusted, captured };

void send(benchmark::State& state, bytes packet, entry by) {
    engine_options options{1000};
    options.tunnels = true;
    bench_engine engine(options);
    const auto size = static_cast<uint32_t>(packet.size());
    zon_pkt_indications_t seen{};
    zon_error_t error;
    const auto handle = [&] {
        return by == entry::trusted
                   ? zon_handle_packet(packet.data(), 0, nullptr, &seen, &error)
                   : zon_handle_captured_packet(packet.data(), size, 0, nullptr, &seen, &error);
    };
    const zon_fid_t fid = handle();
    uint32_t lost = fid == 0;
    const stopwatch watch;
    for (auto _ : state)
        lost += handle() != fid;
    state.counters["ns_per_packet"] = watch.ns_per(static_cast<double>(state.iterations()));
    if (lost != 0)
        state.SkipWithError("a packet without its flow");
}

void add_rows(const char* what, const bytes& packet) {
    benchmark::RegisterBenchmark((std::string("trusted/") + what).c_str(), send, packet,
                                 entry::trusted);
    benchmark::RegisterBenchmark((std::string("captured/") + what).c_str(), send, packet,
                                 entry::captured);
}

void add_all_rows() {
    add_rows("ipv4", ipv4().udp(4000, 53).payload(64).build());
    add_rows("ipv4_options", ipv4().ip_options(bytes(12, 1)).udp(4000, 53).build());
    add_rows("ipv4_first_fragment", ipv4().fragment(0, true).udp(4000, 53).payload(64).build());
    add_rows("ipv6", ipv6().udp(4000, 53).payload(64).build());
    add_rows("ipv6_one_extension", ipv6().hop_by_hop().udp(4000, 53).build());
    add_rows("ipv6_four_extensions", ipv6()
                                         .hop_by_hop()
                                         .destination_options()
                                         .routing(2)
                                         .authentication()
                                         .udp(4000, 53)
                                         .build());
    add_rows("ipv6_in_ipv4", zon_test::six_in_four(ipv6().udp(4000, 53)));
    const packet_builder inner = packet_builder::ipv6("2001::1", "2001:db8::2").udp(4000, 53);
    add_rows("teredo", zon_test::teredo(inner));
}

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    zon_bench::add_all_rows();
    return zon_bench::run_benchmarks(argc, argv);
}

// zon_fe_ondemand_bench.cpp - where the headers of a packet are: plain ones, options, extension
// headers, and the packet inside a tunnel.

#include "zon_fe_ondemand.h"

#include <benchmark/benchmark.h>

#include <string>

#include "support/sample_packets.h"
#include "zon_ipv6_tunnel_inline.h"
#include "zon_pkt_inline.h"

namespace {

using zon_test::bytes;
using zon_test::ipv4;
using zon_test::ipv6;
using zon_test::packet_builder;

void read(benchmark::State& state, const packet_builder& builder, bool trusted) {
    bytes packet = builder.build();
    for (auto _ : state) {
        benchmark::DoNotOptimize(packet.data());
        zon_dp_fe_t fe{};
        if (trusted)
            zon_fe_extract_fields(packet.data(), &fe);
        else if (zon_fe_extract_fields_within(packet.data(), packet.size(), &fe) !=
                 fe_extent::complete)
            state.SkipWithError("a packet that cannot be read");
        benchmark::DoNotOptimize(fe);
    }
}

// The search for a packet in a UDP datagram, with as many indicators before it.
void search_teredo(benchmark::State& state, const bytes& indicators) {
    const bytes inner = packet_builder::ipv6("2001::1", "2001:db8::2").udp(1000, 53).build();
    bytes packet = zon_test::in_teredo("192.0.2.1", "192.0.2.2", inner, 51234, 3544, indicators);
    for (auto _ : state) {
        benchmark::DoNotOptimize(packet.data());
        if (zon_teredo_find_inner_packet(packet.data() + 20, packet.size() - 20) !=
            packet.data() + 28 + indicators.size())
            state.SkipWithError("the inner packet is not found");
    }
}

void search_teredo_in_vain(benchmark::State& state) {
    bytes packet = ipv4().udp(1000, 53).payload(64).build();
    for (auto _ : state) {
        benchmark::DoNotOptimize(packet.data());
        if (zon_teredo_find_inner_packet(packet.data() + 20, packet.size() - 20) != nullptr)
            state.SkipWithError("an inner packet where there is none");
    }
}

void add_rows(const char* what, const packet_builder& builder) {
    for (const bool trusted : {true, false})
        benchmark::RegisterBenchmark(
            (std::string(trusted ? "trusted/" : "captured/") + what).c_str(), read, builder,
            trusted);
}

void add_all_rows() {
    add_rows("ipv4", ipv4().tcp(40000, 443));
    add_rows("ipv4_options", ipv4().ip_options(bytes(12, 1)).tcp(40000, 443));
    add_rows("ipv6", ipv6().tcp(40000, 443));
    add_rows("ipv6_one_extension", ipv6().hop_by_hop().tcp(40000, 443));
    add_rows("ipv6_four_extensions",
             ipv6().hop_by_hop().destination_options().routing(2).authentication().tcp(40000, 443));
    const bytes origin_indication{0, 0, 0x27, 0x10, 0x3F, 0xFF, 0xFD, 0xFE};
    benchmark::RegisterBenchmark("teredo", search_teredo, bytes{});
    benchmark::RegisterBenchmark("teredo_with_origin", search_teredo, origin_indication);
    benchmark::RegisterBenchmark("no_teredo", search_teredo_in_vain);
}

}  // namespace

int main(int argc, char** argv) {
    add_all_rows();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
}

// hit_path.cpp - a fixed script of packets of established flows, for a tool that counts their
// instructions (count_instructions). What is counted is hit_packets and all that it calls: nothing
// there depends on time, on chance or on the machine.
//
//   zon_hit_path single|captured|burst ipv4|ipv6    prints how many packets hit_packets sends

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <vector>

#include "support/bench_engine.h"
#include "support/random_order.h"

namespace {

using namespace zon_bench;

constexpr uint32_t flows = 512;
constexpr uint32_t packet_count = 8192;

using buffer = std::array<uint8_t, packet_size>;

struct script {
    std::string_view entry;
    std::vector<buffer> packets;  // of each connection and direction
    std::vector<zon_burst_packet_t> order;
    std::vector<zon_pkt_indications_t> seen;
};

script written_by(packet_writer& writer, std::string_view entry) {
    script made{entry, {}, {}, std::vector<zon_pkt_indications_t>(packet_source::burst_size)};
    for (uint32_t which = 0; which < 2 * flows; ++which) {
        const uint8_t* packet = writer.established(which >> 1, (which & 1) != 0);
        std::copy_n(packet, packet_size, made.packets.emplace_back().begin());
    }
    random_order next(2 * flows);
    for (uint32_t i = 0; i < packet_count; ++i) {
        zon_burst_packet_t& packet = made.order.emplace_back();
        packet = {};
        packet.iphdr = made.packets[next()].data();
        packet.captured_length = packet_size;
        packet.pkt_indications = &made.seen[i % packet_source::burst_size];
    }
    return made;
}

}  // namespace

// How many packets have a flow.
extern "C" [[gnu::noinline]] uint32_t hit_packets(script& of) {
    uint32_t with_flow = 0;
    if (of.entry == "burst") {
        for (uint32_t first = 0; first < packet_count; first += packet_source::burst_size)
            with_flow += zon_handle_packet_burst(&of.order[first], packet_source::burst_size);
    } else if (of.entry == "captured") {
        for (zon_burst_packet_t& packet : of.order)
            with_flow +=
                zon_handle_captured_packet(packet.iphdr, packet.captured_length, 0, nullptr,
                                           packet.pkt_indications, &packet.error) != 0;
    } else {
        for (zon_burst_packet_t& packet : of.order)
            with_flow += zon_handle_packet(packet.iphdr, 0, nullptr, packet.pkt_indications,
                                           &packet.error) != 0;
    }
    return with_flow;
}

int main(int argc, char** argv) {
    require(argc == 3, "usage: zon_hit_path single|captured|burst ipv4|ipv6");
    const std::string_view entry = argv[1];
    const std::string_view family = argv[2];
    require(entry == "single" || entry == "captured" || entry == "burst", "no such entry");
    require(family == "ipv4" || family == "ipv6", "no such family");
    bench_engine engine({flows, family == "ipv4" ? families::ipv4 : families::ipv6});
    engine.establish_all(flows);
    script packets = written_by(engine.packets, entry);
    require(hit_packets(packets) == packet_count, "packets without a flow");
    std::printf("%u\n", packet_count);
}

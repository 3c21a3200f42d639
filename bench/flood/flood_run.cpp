// flood_run.cpp - runs one flood and takes its figures.
//
// Packets are written before the stretch that is measured. Each packet of an established flow is
// timed on its own, each burst of the attack as a whole.

#include "flood_run.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "established.h"

namespace zon_bench {
namespace {

constexpr uint32_t longest_burst = 8;
// Packets of established flows from one to the next.
constexpr uint32_t newcomers_every = 256;
constexpr uint32_t fragments_every = 256;
constexpr uint32_t victim_every = 16;

// After the flood: so many packets, then so much of the engine's time.
constexpr uint32_t calm_window = 2'000;
constexpr uint64_t calm_window_ns = 50'000'000;
constexpr double longest_calm_s = 40;
// Quiet again: a window whose 99th percentile is within a quarter of the quiet engine's.
constexpr double quiet_enough = 1.25;

// Newcomers wait for others before they are answered: fewer in a smaller table, where half-open
// flows are replaced the sooner.
constexpr uint32_t most_others = 32;
constexpr uint32_t flows_for_another = 3'125;

uint64_t packets_of(const flood& which, uint64_t scale) {
    return std::min(scale / which.one_in, which.most);
}

// A flood that fills the table has at least twice the packets that there is room for, and this room
// is at least half of the table.
engine_setup setup_for(const flood& which, uint64_t scale) {
    engine_setup setup = which.engine;
    uint64_t max_flows = setup.max_flows;
    if (which.aims_at_a_flow)
        max_flows = packets_of(which, scale) + 2 * established_count;
    else if (which.fills_the_table)
        max_flows = std::min(max_flows, established_count + scale / 2);
    setup.max_flows = static_cast<uint32_t>(max_flows);
    return setup;
}

class flood_run {
public:
    flood_run(const flood& which, uint64_t scale, const run_style& style)
        : which_(which),
          packets_(packets_of(which, scale)),
          style_(style),
          setup_(setup_for(which, scale)),
          attack_(which.packets(packets_, setup_.max_flows)),
          engine_(setup_, style.clock),
          flows_(line_, established_count),
          newcomers_(line_, std::min(most_others, setup_.max_flows / flows_for_another)) {}

    flood_report run() {
        quiet(std::clamp<uint64_t>(packets_ / 4, 20'000, 1'000'000));
        report_.memory_before = memory_now();
        report_.others_in_victims_bucket = established_in_victims_bucket();
        take_the_flood();
        report_.memory_flooded = memory_now();
        report_.in_victims_bucket = flows_in_victims_bucket();
        calm();
        report_.memory_after = memory_now();
        report_.kept = flows_.kept();
        count_flows();
        return report_;
    }

private:
    struct sample {
        latencies all, of_victim;
        share fragments{};
    };

    void quiet(uint64_t packets) {
        for (uint64_t sent = 0; sent < packets; ++sent)  // warms up
            one_established(nullptr);
        sample taken;
        for (uint64_t sent = 0; sent < packets; ++sent)
            one_established(&taken);
        report_.quiet = taken.all.summary();
        report_.victim_quiet = taken.of_victim.summary();
        report_.fragments_quiet = taken.fragments;
        report_.newcomers_quiet = newcomers_.take_served();
    }

    void take_the_flood() {
        require(which_.burst <= longest_burst, "a burst too long");
        sample taken;
        const uint64_t ns = style_.has_own_thread ? attack_beside(taken) : attack_by_turns(taken);
        report_.packets = packets_;
        report_.packets_a_second = static_cast<double>(packets_) * 1e9 / static_cast<double>(ns);
        report_.expected_broken = attack_->broken_of(packets_);
        report_.flooded = taken.all.summary();
        report_.victim_flooded = taken.of_victim.summary();
        report_.fragments_flooded = taken.fragments;
        report_.newcomers_flooded = newcomers_.take_served();
        report_.replaced = flood_engine::replacements();
        report_.flows_flooded = flows_in_table();
        report_.datagrams = datagrams_now();
    }

    // Both return how long the attack's packets took.
    uint64_t attack_by_turns(sample& taken) {
        uint64_t ns = 0;
        for (uint64_t sent = 0; sent < packets_; sent += which_.burst) {
            ns += one_burst(sent);
            one_established(&taken);
        }
        return ns;
    }
    uint64_t attack_beside(sample& taken) {
        uint64_t ns = 0;
        std::atomic<bool> is_over = false;
        std::thread attacker([&] {
            for (uint64_t sent = 0; sent < packets_; sent += which_.burst)
                ns += one_burst(sent);
            is_over.store(true);
        });
        while (!is_over.load())
            one_established(&taken);
        attacker.join();
        return ns;
    }

    // Whether there is a flow of this tuple in the bucket.
    static bool is_in_bucket(zon_flow_tuple_t tuple, int bucket) {
        int own_bucket = 0;
        return zon_flow_lookup_tamonet(&tuple, &own_bucket) == 1 && own_bucket == bucket;
    }
    int victims_bucket() {
        zon_flow_tuple_t aimed_at = tuple_of(flows_.of(victim, false).bytes);
        int bucket = 0;
        zon_flow_lookup_tamonet(&aimed_at, &bucket);
        return bucket;
    }
    uint32_t flows_in_victims_bucket() {
        const int bucket = victims_bucket();
        uint32_t count = 0;
        for (zon_flow_tuple_t tuple : attack_->tuples())
            for (const zon_l4_protocol_enum protocol : {ZON_TCP_PROT, ZON_UDP_PROT}) {
                tuple.l4_protocol = static_cast<uint8_t>(protocol);
                count += is_in_bucket(tuple, bucket);
            }
        return count;
    }
    uint32_t established_in_victims_bucket() {
        const int bucket = victims_bucket();
        uint32_t count = 0;
        for (uint32_t connection = 0; connection < established_count; ++connection)
            for (const bool back : {false, true})
                count += is_in_bucket(tuple_of(flows_.of(connection, back).bytes), bucket);
        return count;
    }

    // Established flows go on alone until nothing is left of the flood.
    void calm() {
        are_coming_ = false;
        const uint64_t start_us = zon_clock_now_us();
        report_.flows_gone_s = report_.quiet_again_ms = -1;
        uint64_t ns = 0;
        for (double s = 0; s < longest_calm_s && !is_as_before();
             s = static_cast<double>(zon_clock_now_us() - start_us) / 1e6) {
            const uint64_t start_ns = now_ns();
            const sample taken = one_calm_window();
            ns += now_ns() - start_ns;
            if (report_.quiet_again_ms < 0 && is_quiet(taken))
                report_.quiet_again_ms = static_cast<double>(ns) / 1e6;
            if (report_.flows_gone_s < 0 && flows_in_table() <= established_count)
                report_.flows_gone_s = s;
            report_.fragments_after = taken.fragments;
            engine_.let_pass_ns(calm_window_ns);
        }
    }
    sample one_calm_window() {
        sample taken;
        for (uint32_t sent = 0; sent < calm_window; ++sent)
            one_established(&taken);
        return taken;
    }
    bool is_quiet(const sample& taken) const {
        return static_cast<double>(taken.all.at(0.99)) <=
               quiet_enough * static_cast<double>(report_.quiet.of_100);
    }
    bool is_as_before() const {
        return report_.flows_gone_s >= 0 && report_.quiet_again_ms >= 0 &&
               report_.fragments_after.had == report_.fragments_after.of;
    }

    // Null: not measured.
    void one_established(sample* taken) {
        const bool for_victim = which_.aims_at_a_flow && turn_ % victim_every == 0;
        if (which_.with_fragments && turn_ % fragments_every == 0)
            one_fragmented_datagram(taken);
        if (turn_ % newcomers_every == 0 && are_coming_)
            newcomers_.go_on();
        ++turn_;
        const auto packet = for_victim ? flows_.of(victim, false) : flows_.next();
        const uint64_t start = now_ns();
        const packet_line::outcome got = line_.take(packet.bytes, packet_size);
        const uint64_t end = now_ns();
        report_.strayed += !flows_.is_own(packet, got);
        if (taken != nullptr)
            (for_victim ? taken->of_victim : taken->all).add(end - start);
    }

    // Its second half follows the first at once; not timed.
    void one_fragmented_datagram(sample* taken) {
        const auto packet = flows_.of(fragmenter, false);
        const auto set_fragment = [&](uint8_t high, uint8_t low) {
            packet.bytes[4] = static_cast<uint8_t>(turn_ >> 16);
            packet.bytes[5] = static_cast<uint8_t>(turn_ >> 8);
            packet.bytes[6] = high;
            packet.bytes[7] = low;
        };
        set_fragment(0x20, 0);  // more follow
        report_.strayed += !flows_.is_own(packet, line_.take(packet.bytes, packet_size));
        set_fragment(0, 3);  // the last, 24 bytes on
        const bool followed = flows_.is_own(packet, line_.take(packet.bytes, packet_size));
        set_fragment(0, 0);
        if (taken != nullptr) {
            ++taken->fragments.of;
            taken->fragments.had += followed;
        }
    }

    uint64_t one_burst(uint64_t first) {
        const auto burst =
            static_cast<uint32_t>(std::min<uint64_t>(which_.burst, packets_ - first));
        for (uint32_t at = 0; at < burst; ++at)
            attack_->write(first + at, ring_[at]);
        const uint64_t start = now_ns();
        for (uint32_t at = 0; at < burst; ++at)
            outcomes_[at] = take(ring_[at]);
        const uint64_t end = now_ns();
        for (uint32_t at = 0; at < burst; ++at)
            count(outcomes_[at]);
        engine_.let_pass_ns(burst * uint64_t{1'000'000'000} / which_.a_second);
        return end - start;
    }

    packet_line::outcome take(wire_packet& packet) {
        const auto got = line_of_attack_.take(packet.bytes.data(), packet.captured);
        line_of_attack_.clean_up();
        return got;
    }

    void count(const packet_line::outcome& got) {
        if (got.fid != 0)
            ++(got.first ? report_.made : report_.known);
        else if (got.error != zon_error_none)
            ++report_.refused[static_cast<size_t>(got.error)];
        else
            ++report_.without_flow;
    }

    uint64_t flows_made() const {
        return established_count + report_.made + newcomers_.flows_made();
    }
    uint64_t flows_in_table() const { return flows_made() - flood_engine::deletions(); }
    void count_flows() {
        report_.made_in_all = flows_made();
        report_.deleted_in_all = flood_engine::deletions();
        report_.flows_left = flows_now();
        report_.max_flows = setup_.max_flows;
        report_.clock_is_turned = style_.clock == clock_choice::turned;
        report_.has_own_thread = style_.has_own_thread;
    }

    const flood& which_;
    uint64_t packets_;
    run_style style_;
    engine_setup setup_;
    std::unique_ptr<attack> attack_;
    flood_engine engine_;
    packet_line line_;
    packet_line line_of_attack_;
    established_flows flows_;
    newcomers newcomers_;
    bool are_coming_ = true;
    std::array<wire_packet, longest_burst> ring_;
    std::array<packet_line::outcome, longest_burst> outcomes_{};
    uint64_t turn_ = 0;
    flood_report report_{};
};

}  // namespace

flood_report run_flood(const flood& which, uint64_t scale, const run_style& style) {
    return flood_run(which, scale, style).run();
}

}  // namespace zon_bench

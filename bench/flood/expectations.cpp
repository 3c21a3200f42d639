// expectations.cpp - what every flood leaves as it was, and what each of them shows.
//
// With the machine's clock flows age in a time that floods know nothing of; on a thread of its own
// the flood may be ahead of everybody else. What depends on either is expected without it only.

#include "expectations.h"

#include <numeric>

#include "flood_run.h"
#include "zon_frag.h"

namespace zon_bench {
namespace {

// What a flow takes of records: one and two halves, of IPv6 at the most.
constexpr uint64_t largest_flow = 248 + 2 * 96;

// Which no bucket gets to while tuples scatter.
constexpr uint32_t deeper_than_by_chance = 40;

uint64_t refused_in_all(const flood_report& report) {
    return std::accumulate(report.refused.begin(), report.refused.end(), uint64_t{0});
}
bool all_refusals_are(const flood_report& report, zon_error_t code) {
    return report.refused[static_cast<size_t>(code)] == refused_in_all(report);
}
bool has_all(const share& served) {
    return served.had == served.of;
}
bool has_most(const share& served) {
    return served.had * 4 >= served.of * 3;
}

// Newcomers that have finished stay until they have aged.
uint64_t answered(const flood_report& report) {
    return established_count + report.newcomers_quiet.of + report.newcomers_flooded.of;
}
// Each thread may be one ahead.
uint64_t most_half_open(const flood_report& report) {
    constexpr uint64_t threads = 2;
    return uint64_t{report.max_flows} * half_open_share / 100 + threads;
}

expectation no_packet_is_refused(const flood_report& report) {
    return {"no packet of the flood is refused", refused_in_all(report) == 0};
}
expectation no_flow_makes_room(const flood_report& report) {
    return {"no flow makes room for another", report.replaced == 0};
}
expectation newcomers_are_served(const flood_report& report) {
    return {"every newcomer is served", has_all(report.newcomers_flooded)};
}

expectations of_every_flood(const flood_report& report) {
    return {
        {"every established flow is kept", report.kept == established_count},
        {"none of their packets strays", report.strayed == 0},
        {"the quiet engine serves every newcomer", has_all(report.newcomers_quiet)},
        {"the quiet engine recognises every later fragment", has_all(report.fragments_quiet)},
        {"the flood over, every later fragment is recognised", has_all(report.fragments_after)},
        {"the flood over, only established flows are left", report.flows_left == established_count},
        {"every flow that was made was told deleted or is there",
         report.made_in_all == report.deleted_in_all + report.flows_left},
        {"flows have no more records than the table has places for",
         report.memory_flooded.records <= report.max_flows * largest_flow},
    };
}

}  // namespace

expectations expectations_of(const flood& which, const flood_report& report) {
    expectations all = of_every_flood(report);
    const expectations own = which.expects(report);
    all.insert(all.end(), own.begin(), own.end());
    return all;
}

expectations of_full_table(const flood_report& report) {
    return {
        {"the full table refuses some packets of the flood", report.refused[zon_error_memory] > 0},
        {"all of them with zon_error_memory", all_refusals_are(report, zon_error_memory)},
        no_flow_makes_room(report),
    };
}

expectations of_bounded_half_open_flows(const flood_report& report) {
    return {
        {"more flows are made than the table has places for", report.made > report.max_flows},
        {"half-open flows make room for others", report.replaced > 0},
        {"they keep to their share of the table",
         report.flows_flooded <= answered(report) + most_half_open(report)},
        {"packets are refused with zon_error_memory only",
         all_refusals_are(report, zon_error_memory)},
        {"three newcomers of four are served",
         report.has_own_thread || has_most(report.newcomers_flooded)},
    };
}

expectations of_fragments(const flood_report& report) {
    return {
        {"as many datagrams are tracked as the engine ever tracks, and no more",
         report.datagrams == zon_frag_capacity},
        no_packet_is_refused(report),
        no_flow_makes_room(report),
        newcomers_are_served(report),
    };
}

expectations of_one_bucket(const flood_report& report) {
    return {
        {"every packet makes a flow", report.made == report.packets},
        {"all these flows are in the attacked bucket",
         !report.clock_is_turned || report.in_victims_bucket == report.made},
        no_flow_makes_room(report),
    };
}

expectations of_scattered_buckets(const flood_report& report) {
    return {
        {"every packet makes a flow", report.made == report.packets},
        {"few of these flows are in the attacked bucket",
         report.in_victims_bucket <= deeper_than_by_chance},
        no_flow_makes_room(report),
        newcomers_are_served(report),
    };
}

template <unsigned depth>
expectations of_bounded_bucket(const flood_report& report) {
    return {
        {"flows are made for the places that were left in the attacked bucket, and no more",
         report.made + report.others_in_victims_bucket == depth},
        {"all other packets are refused with zon_error_memory",
         report.refused[zon_error_memory] == report.packets - report.made},
        no_flow_makes_room(report),
    };
}
template expectations of_bounded_bucket<8>(const flood_report&);
template expectations of_bounded_bucket<16>(const flood_report&);

expectations of_short_packets(const flood_report& report) {
    return {
        {"exactly those packets are refused whose headers are cut",
         report.refused[zon_error_parameter_invalid] == report.expected_broken},
        {"all of them with zon_error_parameter_invalid",
         all_refusals_are(report, zon_error_parameter_invalid)},
        {"there are such packets, and others", report.made > 0 && report.expected_broken > 0},
        no_flow_makes_room(report),
        newcomers_are_served(report),
    };
}

// Two packets a port.
expectations of_port_scan(const flood_report& report) {
    if (!report.clock_is_turned)
        return {no_flow_makes_room(report)};
    return {
        {"every port that is asked makes one flow", report.made == (report.packets + 1) / 2},
        no_packet_is_refused(report),
        no_flow_makes_room(report),
        newcomers_are_served(report),
    };
}

}  // namespace zon_bench

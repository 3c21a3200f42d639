// scenarios.cpp - the floods and the defences that a host has.

#include "scenarios.h"

#include "established.h"

namespace zon_bench {
namespace {

template <std::unique_ptr<attack> (*make)()>
std::unique_ptr<attack> any_number(uint64_t, uint32_t) {
    return make();
}

// Two flows a tuple.
std::unique_ptr<attack> at_the_victims_bucket(uint64_t count, uint32_t max_flows) {
    packet_writer packets;
    const zon_flow_tuple_t aimed_at = tuple_of(packets.established(victim, false));
    return first_packets_of(tuples_in_bucket_of(aimed_at, max_flows, count / 2));
}

// A host takes a random one; this one repeats.
void seed_the_hash() {
    zon_config_set_hash_seed(0x6B43A9B5);
}

// Room that a flood does not get, however long it goes on.
void bound_half_open_flows() {
    zon_config_set_half_open_share(50);
}

// Which no bucket gets to while tuples scatter.
constexpr uint32_t deeper_than_by_chance = 40;

flood one_bucket(const char* name, uint8_t depth, void (*defend)()) {
    return {.name = name,
            .engine = {.bucket_depth = depth, .defend = defend},
            .packets = at_the_victims_bucket,
            .one_in = 200,
            .most = 100'000,
            .burst = 1,
            .aims_at_a_flow = true,
            .most_in_bucket = depth == 0 && defend != nullptr ? deeper_than_by_chance : depth};
}

}  // namespace

const std::vector<flood>& all_floods() {
    static const std::vector<flood> floods{
        {.name = "syn", .packets = any_number<syn_flood>},
        {.name = "syn-half-open",
         .engine = {.defend = bound_half_open_flows},
         .packets = any_number<syn_flood>},
        {.name = "fragments", .packets = any_number<first_fragments>, .with_fragments = true},
        one_bucket("bucket", 0, nullptr),
        one_bucket("bucket-seeded", 0, seed_the_hash),
        one_bucket("bucket-depth-8", 8, nullptr),
        one_bucket("bucket-depth-16", 16, nullptr),
        {.name = "short", .packets = any_number<short_packets>},
        {.name = "scan", .packets = any_number<port_scan>, .a_second = 100'000},
    };
    return floods;
}

}  // namespace zon_bench

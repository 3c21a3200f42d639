// zon_key_hash_funcs_inline.h - Bob Jenkins's lookup3 hashword (2006, public domain algorithm) over
// 32-bit words.

#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

// The seed of every table of the engine. Written while zon_init makes them, then only read.
inline uint32_t zon_hash_seed_in_force = 0;

namespace lookup3 {

struct state {
    uint32_t a, b, c;

    constexpr void mix() {
        a -= c, a ^= std::rotl(c, 4), c += b;
        b -= a, b ^= std::rotl(a, 6), a += c;
        c -= b, c ^= std::rotl(b, 8), b += a;
        a -= c, a ^= std::rotl(c, 16), c += b;
        b -= a, b ^= std::rotl(a, 19), a += c;
        c -= b, c ^= std::rotl(b, 4), b += a;
    }

    constexpr void final_mix() {
        c ^= b, c -= std::rotl(b, 14);
        a ^= c, a -= std::rotl(c, 11);
        b ^= a, b -= std::rotl(a, 25);
        c ^= b, c -= std::rotl(b, 16);
        a ^= c, a -= std::rotl(c, 4);
        b ^= a, b -= std::rotl(a, 14);
        c ^= b, c -= std::rotl(b, 24);
    }
};

}  // namespace lookup3

// The hash of length words; the seed is lookup3's initial value.
[[gnu::always_inline]] inline constexpr uint32_t jenkins_hashword_2006(const uint32_t* k,
                                                                       size_t length,
                                                                       uint32_t seed = 0) {
    const uint32_t start = 0xdeadbeefU + (static_cast<uint32_t>(length) << 2) + seed;
    lookup3::state s{start, start, start};
    for (; length > 3; length -= 3, k += 3) {
        s.a += k[0];
        s.b += k[1];
        s.c += k[2];
        s.mix();
    }
    switch (length) {
    case 3:
        s.c += k[2];
        [[fallthrough]];
    case 2:
        s.b += k[1];
        [[fallthrough]];
    case 1:
        s.a += k[0];
        s.final_mix();
        break;
    default:
        break;
    }
    return s.c;
}

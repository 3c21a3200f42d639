// zon_bytes.h - big-endian words of packets, at any alignment.

#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

inline uint16_t load_be16(const uint8_t* at) {
    uint16_t word;
    std::memcpy(&word, at, sizeof word);
    return __builtin_bswap16(word);
}

inline uint32_t load_be32(const uint8_t* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return __builtin_bswap32(word);
}

inline void store_be16(uint8_t* at, uint16_t word) {
    word = __builtin_bswap16(word);
    std::memcpy(at, &word, sizeof word);
}

inline void store_be32(uint8_t* at, uint32_t word) {
    word = __builtin_bswap32(word);
    std::memcpy(at, &word, sizeof word);
}

static_assert(std::endian::native == std::endian::little);

// zon_connection_index.h - from a connection to its flow on one cache line and without a lock.
//
// The hash set of half flows is the truth; the index repeats those of its flows that a packet of
// either direction must find: both keys complete, each the other's reverse, hashed by the engine,
// and no newer flow under either of them. What a reader finds is a guess: it locks the flow and
// proves under that lock that the flow is still named and is the packet's.
//
// Written only by threads that hold the flow in question; a line that is full names no more flows,
// so that newcomers never push out connections that are at work.

#pragma once

#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "zon_connection.h"

class connection_index {
public:
    // A flow that may be the wanted one, and what names it; no flow where none may be.
    struct guess {
        zon_flow_t* flow = nullptr;
        const std::atomic<uint64_t>* entry = nullptr;
        uint64_t word = 0;

        // Under the flow's lock: nobody took the name away since.
        bool still_stands() const { return entry->load(std::memory_order_acquire) == word; }
    };

    connection_index() = default;
    ~connection_index();
    connection_index(const connection_index&) = delete;
    connection_index& operator=(const connection_index&) = delete;

    // Room for so many flows, with few lines that overflow. False without memory.
    bool create(uint32_t max_flows, uint32_t seed);

    uint64_t hash_of(const connection<ipv4_family>& of) const {
        return folded(of.words[0] ^ seeds_[0],
                      of.words[1] ^ seeds_[1] ^ std::rotl(of.words[2], 32));
    }
    uint64_t hash_of(const connection<ipv6_family>& of) const {
        const uint64_t addresses = folded(of.words[2] ^ seeds_[0], of.words[3] ^ seeds_[1]) ^
                                   folded(of.words[4] ^ seeds_[1], of.words[5] ^ seeds_[0]);
        return folded(of.words[0] ^ addresses, of.words[1] ^ seeds_[1]);
    }

    void touch_line(uint64_t hash) const { touch(&line_of(hash)); }

    [[gnu::always_inline]] guess find(uint64_t hash) const {
        const line& searched = line_of(hash);
        const unsigned hits = hits_in(searched, tag_of(hash));
        if (hits == 0)
            return {};
        const std::atomic<uint64_t>& entry = searched[static_cast<size_t>(std::countr_zero(hits))];
        const uint64_t word = entry.load(std::memory_order_acquire);
        // Between the two looks another flow may have taken the place, or none.
        return {flow_of(word), &entry, word};
    }

    bool has_room(uint64_t hash) const {
        const line& of_hash = line_of(hash);
        return std::ranges::any_of(of_hash, [](const std::atomic<uint64_t>& entry) {
            return entry.load(std::memory_order_relaxed) == 0;
        });
    }
    bool names(uint64_t hash, const zon_flow_t* flow) const {
        return std::ranges::any_of(
            line_of(hash), [word = word_of(hash, flow)](const std::atomic<uint64_t>& entry) {
                return entry.load(std::memory_order_relaxed) == word;
            });
    }
    // False when the line is full.
    bool put(uint64_t hash, zon_flow_t* flow);
    void remove(uint64_t hash, const zon_flow_t* flow);
    // Takes out whatever flow may be the connection's.
    void remove_all(uint64_t hash);

private:
    using line = std::array<std::atomic<uint64_t>, 8>;
    static_assert(sizeof(line) == 64);

    static constexpr int tag_shift = 48;  // user addresses have 47 bits
    static constexpr uint64_t address_mask = (uint64_t{1} << tag_shift) - 1;

    // Never 0, which is what stands in a free entry.
    static uint64_t tag_of(uint64_t hash) { return hash >> tag_shift | 1; }
    static zon_flow_t* flow_of(uint64_t word) {
        return reinterpret_cast<zon_flow_t*>(word & address_mask);
    }
    static uint64_t word_of(uint64_t hash, const zon_flow_t* flow) {
        return tag_of(hash) << tag_shift | reinterpret_cast<uintptr_t>(flow);
    }
    // Two entries as they are read by chance: what is found in them is looked at again.
    static __m128i peek_pair(const std::atomic<uint64_t>& first) {
        __m128i pair;
        asm volatile("movdqa %1, %0" : "=x"(pair) : "m"(*reinterpret_cast<const __m128i*>(&first)));
        return pair;
    }
    // The tags of four entries, each in 32 bits.
    static __m128i tags_from(const line& searched, size_t first) {
        const __m128i low = _mm_srli_epi64(peek_pair(searched[first]), tag_shift);
        const __m128i high = _mm_srli_epi64(peek_pair(searched[first + 2]), tag_shift);
        return _mm_castps_si128(
            _mm_shuffle_ps(_mm_castsi128_ps(low), _mm_castsi128_ps(high), _MM_SHUFFLE(2, 0, 2, 0)));
    }
    // A bit for each entry with the tag, all at once: which one it will be, nobody can predict.
    static unsigned hits_in(const line& searched, uint64_t tag) {
        const __m128i wanted = _mm_set1_epi32(static_cast<int>(tag));
        const __m128i low = _mm_cmpeq_epi32(tags_from(searched, 0), wanted);
        const __m128i high = _mm_cmpeq_epi32(tags_from(searched, 4), wanted);
        const __m128i bytes = _mm_packs_epi16(_mm_packs_epi32(low, high), _mm_setzero_si128());
        return static_cast<unsigned>(_mm_movemask_epi8(bytes));
    }

    static uint64_t folded(uint64_t a, uint64_t b) {
        __extension__ using wide = unsigned __int128;
        const wide product = static_cast<wide>(a) * b;
        return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
    }

    line& line_of(uint64_t hash) const { return lines_[hash & line_mask_]; }

    line* lines_ = nullptr;
    uint64_t line_mask_ = 0;
    std::array<uint64_t, 2> seeds_{};
    void* memory_ = nullptr;
};

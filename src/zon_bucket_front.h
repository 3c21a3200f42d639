// zon_bucket_front.h - the newest items of a bucket on one cache line, for lookups without the
// bucket's lock.
//
// The chain of a bucket is the truth; its front repeats items of the chain in their order, newest
// first. Fronts are written under the bucket's lock and read without any. What a reader finds is a
// guess: it locks the flow and proves under that lock that the item is still the flow's.
//
// Entries only ever move towards the end, and readers look from the start: an item that stays at
// the front is never overlooked, and an older one of the same hash never found in its place.

#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

#include "zon_engine_defs.h"

class bucket_front {
public:
    struct entry {
        zon_half_flow_t* half;
        zon_flow_t* flow;
        unsigned at;
    };

    // Tells the items of a bucket apart: their hashes differ by multiples of the number of buckets.
    static uint16_t tag_of(uint32_t hash) { return static_cast<uint16_t>(hash >> 16 | 1U); }

    // The newest entry of the tag, or one without a half flow. The two pointers of an entry that is
    // being replaced may belong to two items.
    entry find(uint16_t tag) const {
        // Without a branch for each slot: which one it will be, nobody can predict. One statement
        // for each, because they have to be read in this order.
        unsigned hits = 0;
        [&]<unsigned... i>(std::integer_sequence<unsigned, i...>) {
            ((hits |= static_cast<unsigned>(has_tag(slots_[i].word(), tag)) << i), ...);
        }(std::make_integer_sequence<unsigned, size>{});
        if (hits == 0)
            return {};
        const auto at = static_cast<unsigned>(std::countr_zero(hits));
        return {half_of(slots_[at].word()), slots_[at].flow.load(std::memory_order_acquire), at};
    }

    // The flow of an entry, or null; no more than a guess, as above.
    zon_flow_t* flow_at(unsigned at) const {
        return slots_[at].flow.load(std::memory_order_acquire);
    }

    // Whether the entry still stands where it was found. Under the lock of its flow that proves
    // that the half flow is in the chain.
    bool still_has(const entry& found) const {
        return half_of(slots_[found.at].word()) == found.half;
    }

    // The writers below hold the bucket's lock.
    void push(uint16_t tag, zon_half_flow_t* half, zon_flow_t* flow) {
        size_t room = 0;
        while (room < size - 1 && slots_[room].word() != 0)
            ++room;
        for (; room > 0; --room)
            slots_[room].copy(slots_[room - 1]);
        slots_[0].set(word_of(tag, half), flow);
    }
    void remove(const zon_half_flow_t* half) {
        for (slot& at : slots_)
            if (half_of(at.word()) == half)
                return at.set(0, nullptr);
    }
    size_t entries() const {
        return static_cast<size_t>(std::count_if(std::begin(slots_), std::end(slots_),
                                                 [](const slot& at) { return at.word() != 0; }));
    }
    // Behind the oldest entry there may be room for the items that follow it in the chain.
    bool has_room_at_end() const { return slots_[size - 1].word() == 0; }
    const zon_half_flow_t* oldest() const {
        return used() != 0 ? half_of(slots_[used() - 1].word()) : nullptr;
    }
    void append(uint16_t tag, zon_half_flow_t* half, zon_flow_t* flow) {
        slots_[used()].set(word_of(tag, half), flow);
    }

    static constexpr size_t size = 4;

private:
    static constexpr int tag_shift = 48;  // user addresses have 47 bits

    struct slot {
        std::atomic<uint64_t> tagged_half;
        std::atomic<zon_flow_t*> flow;

        uint64_t word() const { return tagged_half.load(std::memory_order_acquire); }
        void set(uint64_t word, zon_flow_t* of) {
            flow.store(of, std::memory_order_release);
            tagged_half.store(word, std::memory_order_release);
        }
        void copy(const slot& from) { set(from.word(), from.flow.load(std::memory_order_relaxed)); }
    };

    static uint64_t word_of(uint16_t tag, zon_half_flow_t* half) {
        return uint64_t{tag} << tag_shift | reinterpret_cast<uintptr_t>(half);
    }
    static bool has_tag(uint64_t word, uint16_t tag) { return word >> tag_shift == tag; }
    static zon_half_flow_t* half_of(uint64_t word) {
        return reinterpret_cast<zon_half_flow_t*>(word & ((uint64_t{1} << tag_shift) - 1));
    }

    // Up to and with the oldest entry.
    size_t used() const {
        size_t count = size;
        while (count > 0 && slots_[count - 1].word() == 0)
            --count;
        return count;
    }

    slot slots_[size];
};

static_assert(sizeof(bucket_front) == 64);

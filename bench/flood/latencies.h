// latencies.h - how long packets took, counted by size: a percentile needs no memory per packet.
//
// Units  nanoseconds; exact below 128, within one part in 64 above.

#pragma once

#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>

namespace zon_bench {

inline uint64_t now_ns() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

// What every figure contains: the time from one reading of the clock to the next.
struct percentiles {
    uint64_t median;
    uint64_t of_100;
    uint64_t of_1000;
};

class latencies {
public:
    void add(uint64_t ns) {
        ++counts_[slot_of(ns)];
        ++total_;
    }
    uint64_t count() const { return total_; }

    // The time that this share of the packets did not exceed; 0 without packets.
    uint64_t at(double share) const {
        const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(total_)));
        uint64_t seen = 0;
        for (size_t slot = 0; slot < slots; ++slot)
            if ((seen += counts_[slot]) >= wanted)
                return total_ == 0 ? 0 : start_of(slot);
        return 0;
    }
    percentiles summary() const { return {at(0.5), at(0.99), at(0.999)}; }

private:
    static constexpr int exact_bits = 7;
    static constexpr size_t half = size_t{1} << (exact_bits - 1);
    static constexpr size_t slots = half * (64 - exact_bits + 2);

    static size_t slot_of(uint64_t ns) {
        const int shift = static_cast<int>(std::bit_width(ns)) - exact_bits;
        return shift <= 0 ? ns : half * static_cast<size_t>(shift) + (ns >> shift);
    }
    static uint64_t start_of(size_t slot) {
        if (slot < 2 * half)
            return slot;
        const size_t shift = slot / half - 1;
        return uint64_t{slot - half * shift} << shift;
    }

    std::array<uint64_t, slots> counts_{};
    uint64_t total_ = 0;
};

}  // namespace zon_bench

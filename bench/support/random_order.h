// random_order.h - cheap numbers for the order of packets; the sequence is the same on every run,
// and no number waits for memory.

#pragma once

#include <cstdint>

namespace zon_bench {

class random_order {
public:
    explicit random_order(uint32_t below, uint64_t seed = 88172645463325252ULL)
        : state_(seed), below_(below) {}
    uint32_t operator()() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<uint32_t>(((state_ >> 32) * below_) >> 32);
    }

private:
    uint64_t state_;
    uint64_t below_;
};

// The numbers below a size in an order that follows no address: the step is a prime that divides no
// size.
class scattered {
public:
    explicit scattered(uint32_t size) : size_(size) {}
    uint32_t operator[](uint32_t at) const {
        return static_cast<uint32_t>(at * uint64_t{2'654'435'761U} % size_);
    }

private:
    uint32_t size_;
};

}  // namespace zon_bench

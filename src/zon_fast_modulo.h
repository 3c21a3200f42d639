// zon_fast_modulo.h - remainders by a divisor that is chosen once, as two multiplications.
//
// Exact for every 32-bit dividend and divisor (D. Lemire, O. Kaser, N. Kurz, "Faster remainder by
// direct computation", 2019).

#pragma once

#include <cstdint>

class fast_modulo {
public:
    constexpr fast_modulo() = default;
    constexpr explicit fast_modulo(uint32_t divisor)
        : inverse_(UINT64_MAX / divisor + 1), divisor_(divisor) {}

    constexpr uint32_t operator()(uint32_t dividend) const {
        const uint64_t fraction = inverse_ * dividend;
        __extension__ using wide = unsigned __int128;
        return static_cast<uint32_t>((static_cast<wide>(fraction) * divisor_) >> 64);
    }

private:
    // A divisor of 1 has the inverse 0, which yields the right remainder 0.
    uint64_t inverse_ = 0;
    uint32_t divisor_ = 1;
};

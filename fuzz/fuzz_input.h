// fuzz_input.h - takes the bytes of an input apart, and says what a fuzzer expected.
//
// An input that is used up gives zeros, so that every input means something.

#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>

namespace zon_fuzz {

// Ends the run with the input that led here; in every build.
inline void require(bool holds, const char* what) {
    if (holds)
        return;
    dprintf(STDERR_FILENO, "broken: %s\n", what);
    std::abort();
}

// What a fuzzer exits with that can go on in a new process only; scripts/fuzz starts one.
inline constexpr int used_up = 75;

class fuzz_input {
public:
    fuzz_input(const uint8_t* data, size_t size) : rest_(data, size) {}

    bool is_empty() const { return rest_.empty(); }
    size_t size() const { return rest_.size(); }
    uint8_t byte() {
        if (rest_.empty())
            return 0;
        const uint8_t value = rest_.front();
        rest_ = rest_.subspan(1);
        return value;
    }
    uint32_t below(uint32_t end) { return byte() % end; }
    uint32_t two_bytes() {
        const uint32_t high = byte();
        return high << 8 | byte();
    }
    uint32_t four_bytes() {
        const uint32_t high = two_bytes();
        return high << 16 | two_bytes();
    }
    uint64_t eight_bytes() {
        const uint64_t high = four_bytes();
        return high << 32 | four_bytes();
    }
    // At most that many.
    std::span<const uint8_t> take(size_t most) {
        const auto taken = rest_.first(std::min(most, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    std::span<const uint8_t> take_all() { return take(rest_.size()); }

private:
    std::span<const uint8_t> rest_;
};

// A block of exactly the size of its content: the address sanitizer sees every access outside it.
class exact_block {
public:
    explicit exact_block(std::span<const uint8_t> content)
        : size_(content.size()), bytes_(new uint8_t[content.size()]) {
        std::copy(content.begin(), content.end(), bytes_.get());
    }
    uint8_t* data() const { return bytes_.get(); }
    size_t size() const { return size_; }
    std::string_view text() const { return {reinterpret_cast<const char*>(data()), size_}; }

private:
    size_t size_;
    std::unique_ptr<uint8_t[]> bytes_;
};

}  // namespace zon_fuzz

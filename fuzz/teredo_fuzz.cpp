// teredo_fuzz.cpp - the search for an IPv6 packet in a UDP datagram.
//
// Holds  nothing behind the datagram's end is read, and what is found is what a plain walk that
//        remembers where it has been finds.

#include <set>
#include <utility>

#include "fuzz_input.h"
#include "zon_ipv6_tunnel_inline.h"

using namespace zon_fuzz;

namespace {

class plain_walk {
public:
    explicit plain_walk(std::span<const uint8_t> udp) : udp_(udp) {}

    // The offset of the inner packet; 0 without one.
    size_t find() {
        if (udp_.size() <= 8)
            return 0;
        if (udp_[8] >> 4 == 6) {
            const bool is_teredo_port = word(0) == 3544 || word(2) == 3544;
            return is_teredo_port || is_teredo_header(8) ? 8 : 0;
        }
        return behind_indicators(8, false);
    }

private:
    uint32_t word(size_t at) const { return udp_[at] * 256U + udp_[at + 1]; }

    bool is_teredo_address(size_t at) const {
        if (at + 4 > udp_.size())
            return false;
        return udp_[at] == 0xFE || (word(at) == 0x2001 && word(at + 2) == 0);
    }
    bool is_teredo_header(size_t at) const {
        return at < udp_.size() && udp_[at] >> 4 == 6 &&
               (is_teredo_address(at + 8) || is_teredo_address(at + 24));
    }
    size_t behind_indicators(size_t at, bool is_authenticated) {
        if (!visited_.insert({at, is_authenticated}).second || at + 2 > udp_.size())
            return 0;
        size_t next = 0;
        if (word(at) == 1) {
            if (is_authenticated || at + 4 > udp_.size())
                return 0;
            is_authenticated = true;
            next = (at + 13 + udp_[at + 2] + udp_[at + 3]) % 256;
        } else if (word(at) == 0) {
            next = (at + 8) % 256;
        } else {
            return 0;
        }
        return is_teredo_header(next) ? next + found_ : behind_indicators(next, is_authenticated);
    }

    // Tells an inner packet at the offset 0, where a walk may come round to, from none.
    static constexpr size_t found_ = 256;
    std::span<const uint8_t> udp_;
    std::set<std::pair<size_t, bool>> visited_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4)
        return 0;
    const exact_block block({data, size});
    const size_t expected = plain_walk({data, size}).find();
    const uint8_t* found = zon_teredo_find_inner_packet(block.data(), block.size());
    require((found != nullptr) == (expected != 0), "a tunnel is found where there is one");
    if (found != nullptr)
        require(found == block.data() + expected % 256, "the inner packet is where it should be");
    return 0;
}

// bypass_rule.h - when a TCP flow has carried so much that nobody needs to look at the rest.
//
// The engine asks with each TCP packet and shows neither the flow nor its totals: only the 32 bits
// that it keeps on the flow for this answer. So the payload seen is counted in those bits, marked
// as a count, until there is enough of it for the identifier itself to be put there.
#ifndef ZONFLOW_BYPASS_RULE_H
#define ZONFLOW_BYPASS_RULE_H

#include <cstdint>

namespace zonflow {

constexpr uint32_t bypassed_flow = 1;  // the identifier of a flow that is bypassed
constexpr uint32_t still_counting = 0x8000'0000;
constexpr uint32_t most_bypass_after_bytes = still_counting - 1;

// The flow's bits after a packet with so much payload. limit_bytes is from 1 to
// most_bypass_after_bytes.
constexpr uint32_t bypass_bits_after(uint32_t bits, uint32_t payload_bytes, uint32_t limit_bytes) {
    if (bits == bypassed_flow) {
        return bits;
    }
    const uint64_t seen = uint64_t{bits & ~still_counting} + payload_bytes;
    return seen >= limit_bytes ? bypassed_flow : still_counting | static_cast<uint32_t>(seen);
}

// What a flow's bits say: its bypass identifier, or 0.
constexpr uint32_t bypass_id_of(uint32_t bits) {
    return bits == bypassed_flow ? bypassed_flow : 0;
}

}  // namespace zonflow

#endif

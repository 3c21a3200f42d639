// zon_connection_index.cpp - the index of connections.
//
// Owns   its lines.
// Locks  none; entries change by compare and swap.

#include "zon_connection_index.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "osal/zon_mem.h"

namespace {

// Four flows to a line of eight entries: even a full table leaves one flow in some two hundred to
// the hash set.
constexpr uint32_t flows_per_line = 4;

constexpr uint64_t odd_constant = 0x9E3779B97F4A7C15;

}  // namespace

connection_index::~connection_index() {
    std::free(memory_);
}

// Lines that nobody writes cost no memory: the heap hands out untouched pages.
bool connection_index::create(uint32_t max_flows, uint32_t seed) {
    const size_t lines = std::bit_ceil(std::max<size_t>(1, max_flows / flows_per_line));
    size_t room = (lines + 1) * sizeof(line);
    memory_ = zon_heap_zalloc(lines + 1, sizeof(line));
    if (memory_ == nullptr)
        return false;
    void* aligned = memory_;
    lines_ = static_cast<line*>(std::align(sizeof(line), lines * sizeof(line), aligned, room));
    line_mask_ = lines - 1;
    const uint64_t spread = (uint64_t{seed} + 1) * odd_constant;
    seeds_ = {spread ^ 0x2545F4914F6CDD1D, std::rotl(spread, 31) ^ 0xD6E8FEB86659FD93};
    return true;
}

bool connection_index::put(uint64_t hash, zon_flow_t* flow) {
    for (std::atomic<uint64_t>& entry : line_of(hash)) {
        uint64_t free = 0;
        if (entry.load(std::memory_order_relaxed) == free &&
            entry.compare_exchange_strong(free, word_of(hash, flow), std::memory_order_release,
                                          std::memory_order_relaxed))
            return true;
    }
    return false;
}

void connection_index::remove(uint64_t hash, const zon_flow_t* flow) {
    for (std::atomic<uint64_t>& entry : line_of(hash)) {
        uint64_t word = word_of(hash, flow);
        if (entry.load(std::memory_order_relaxed) == word &&
            entry.compare_exchange_strong(word, 0, std::memory_order_release,
                                          std::memory_order_relaxed))
            return;
    }
}

void connection_index::remove_all(uint64_t hash) {
    for (std::atomic<uint64_t>& entry : line_of(hash)) {
        uint64_t word = entry.load(std::memory_order_relaxed);
        while (word >> tag_shift == tag_of(hash) &&
               !entry.compare_exchange_weak(word, 0, std::memory_order_release,
                                            std::memory_order_relaxed)) {
        }
    }
}

// vem_wheel_registry.cpp - the row of entries, and which thread starts timers in which shard.
//
// Owns   the registry of wheels.
// Locks  one shard's mutex at a time.
#include "vem_wheel_registry.h"

#include <algorithm>
#include <bit>
#include <memory>

namespace vem {

constinit std::array<wheel_entry, most_wheels> wheel_entries;

namespace {

// Numbers of shards have 15 bits in a timer.
static_assert(most_wheels * most_shards < 1U << 15);

constinit std::atomic<uint32_t> entries_in_use{0};
constinit std::atomic<uint32_t> homes_given{0};
constinit thread_local uint32_t home_of_thread = 0;

// The wheel's shape, read while its destruction cannot pass the shard.
bool wants_shard(wheel_entry& entry, uint64_t handle, uint32_t index, timing_wheel_shape& shape) {
    const std::lock_guard lock(entry.shards[index].mutex);
    if (entry.handle.load() != handle || entry.has_shard(index)) {
        return false;
    }
    shape = entry.shape;
    return true;
}

void add_shard(wheel_entry& entry, uint64_t handle, uint32_t index) {
    timing_wheel_shape shape;
    if (!wants_shard(entry, handle, index, shape)) {
        return;
    }
    const auto wheel_number = static_cast<uint32_t>(&entry - wheel_entries.data()) + 1;
    auto made = timing_wheel::create(number_of_shard(wheel_number, index), shape);
    wheel_shard& shard = entry.shards[index];
    const std::lock_guard lock(shard.mutex);
    if (made != nullptr && entry.handle.load() == handle && !entry.has_shard(index)) {
        shard.timers = made.release();
        entry.shards_made.fetch_or(1U << index);
    }
}

}  // namespace

uint64_t wheel_entry::earliest_due_us() const {
    uint64_t earliest = never;
    for (uint32_t left = shards_made.load(); left != 0; left &= left - 1) {
        const auto index = static_cast<uint32_t>(std::countr_zero(left));
        earliest = std::min(earliest, shards[index].next_due_us.load());
    }
    return earliest;
}

void wheel_entry::await_end_of_dispatch(std::unique_lock<wheel_mutex>& lock) {
    for (; use.in_dispatch; --use.waiting) {
        ++use.waiting;
        use.idle.wait(lock);
    }
}

void wheel_entry::end_dispatch() {
    use.in_dispatch = false;
    if (use.waiting != 0) {
        use.idle.notify_all();
    }
}

// A thread that looked at the manager under a shard's lock has started its callback by the time it
// gives the lock back; whoever takes the lock after us sees the new manager.
void wheel_entry::await_sections() {
    for (wheel_shard& shard : shards) {
        const std::lock_guard lock(shard.mutex);
    }
}

uint32_t wheels_in_use() {
    return entries_in_use.load(std::memory_order_acquire);
}

void note_wheel_in_use(uint32_t number) {
    entries_in_use.store(std::max(wheels_in_use(), number), std::memory_order_release);
}

uint32_t& home_shard() {
    return home_of_thread;
}

[[gnu::cold]] uint32_t settle_in_home_shard(wheel_entry& entry, uint64_t handle) {
    uint32_t& home = home_shard();
    if (home == 0) {
        home = homes_given.fetch_add(1, std::memory_order_relaxed) % (most_shards - 1) + 1;
    }
    if (!entry.has_shard(home)) {
        add_shard(entry, handle, home);
    }
    return entry.has_shard(home) ? home : 0;
}

}  // namespace vem

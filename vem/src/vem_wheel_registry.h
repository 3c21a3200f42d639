// vem_wheel_registry.h - where wheel handles lead: a fixed row of entries whose locks live as long
// as the process.
//
// A timer has no room for a pointer to its wheel; it keeps the number of a shard instead. Entries
// outlive their wheels, so that a stop, or a start with the handle of a destroyed wheel, finds a
// lock and then the truth.
//
// A wheel begins with one shard. A thread that finds it busy when it starts a timer has a shard of
// its own from then on, so that threads which start and stop timers do not hand one lock and one
// set of lists to and fro.
//
// Locks  a shard's mutex is innermost, and no thread holds two; the schedule's lock
//        (vem_schedule.h) may be held when it is taken.
#ifndef VEM_WHEEL_REGISTRY_H
#define VEM_WHEEL_REGISTRY_H

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "vem_condition.h"
#include "vem_mutex.h"
#include "vem_timing_wheel.h"

namespace vem {

constexpr uint32_t most_wheels = 128;
constexpr uint32_t most_shards = 8;

// Some of a wheel's timers. No two shards share a line, nor a pair of lines that is fetched as one.
struct alignas(128) wheel_shard {
    wheel_mutex mutex;
    std::atomic<uint32_t> in_line{0};  // threads that wait for the mutex to start or stop a timer

    // Written under the mutex.
    std::atomic<uint64_t> next_due_us{never};
    std::atomic<bool> cancelled{false};  // the expiry of `running` was cancelled
    timing_wheel* timers = nullptr;      // NULL until the shard is made
    vem_tw_timer* running = nullptr;     // its callback runs

    void publish_next_due() { next_due_us.store(timers->next_due_us()); }
};

struct wheel_entry {
    std::atomic<uint64_t> handle{0};       // of the wheel that lives here, 0 when none does
    std::atomic<uint64_t> attached_to{0};  // a manager's handle

    // One bit a shard, set under that shard's mutex. The first one is made with the wheel.
    std::atomic<uint32_t> shards_made{1};
    timing_wheel_shape shape;  // stays as it is while the handle does

    // Guarded by the first shard's mutex; away from what every start reads. No other wheel gets the
    // entry while it is dispatched or being ended.
    struct alignas(128) {
        bool in_dispatch = false;  // one thread runs the wheel's callbacks, or is about to
        bool ending = false;
        uint32_t waiting = 0;           // threads that wait for the end of the dispatch
        condition_of_brief_mutex idle;  // in_dispatch has become false
    } use;

    std::array<wheel_shard, most_shards> shards;

    wheel_mutex& mutex() { return shards[0].mutex; }
    bool has_shard(uint32_t index) const { return (shards_made.load() >> index & 1) != 0; }
    bool has_one_shard() const { return shards_made.load() == 1; }
    uint64_t next_due_us() const {
        return has_one_shard() ? shards[0].next_due_us.load() : earliest_due_us();
    }

    // With the first shard's lock, which is let go meanwhile.
    void await_end_of_dispatch(std::unique_lock<wheel_mutex>& lock);
    void end_dispatch();

    // Once attached_to was changed: from the return on no callback starts for the last manager. The
    // caller holds none of the shards' locks.
    void await_sections();

private:
    uint64_t earliest_due_us() const;
};

extern std::array<wheel_entry, most_wheels> wheel_entries;

// Entries 1 to wheels_in_use() have been used so far.
inline wheel_entry& wheel_at(uint32_t number) {
    return wheel_entries[number - 1];
}
uint32_t wheels_in_use();
void note_wheel_in_use(uint32_t number);

// Shards are numbered through, from 1, over all entries.
inline uint32_t number_of_shard(uint32_t wheel_number, uint32_t index) {
    return (wheel_number - 1) * most_shards + index + 1;
}

// Where this thread starts timers on wheels that have more than one shard; 0, the first one, until
// the thread has found that one busy.
uint32_t& home_shard();

// Gives the thread a home, unless it has one, and the wheel a shard there. The home's index; 0 when
// there is no memory for the shard, or the handle is not the entry's any more.
uint32_t settle_in_home_shard(wheel_entry& entry, uint64_t handle);

}  // namespace vem

#endif

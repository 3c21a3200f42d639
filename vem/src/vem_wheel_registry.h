// vem_wheel_registry.h - where wheel handles lead: a fixed row of entries whose locks live as long
// as the process.
//
// A timer has no room for a pointer to its wheel; it keeps the number of an entry instead. Entries
// outlive their wheels, so that a stop, or a start with the handle of a destroyed wheel, finds a
// lock and then the truth.
//
// Locks  entry.mutex is innermost; the schedule's lock (vem_schedule.h) may be held when it is
//        taken.
#ifndef VEM_WHEEL_REGISTRY_H
#define VEM_WHEEL_REGISTRY_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "vem_condition.h"
#include "vem_mutex.h"
#include "vem_timing_wheel.h"

namespace vem {

constexpr uint32_t most_wheels = 128;

struct alignas(64) wheel_entry {
    wheel_mutex mutex;
    std::atomic<uint32_t> in_line{0};  // threads that wait for the mutex to start or stop a timer

    // Written under the mutex.
    std::atomic<uint64_t> handle{0};       // of the wheel that lives here, 0 when none does
    std::atomic<uint64_t> attached_to{0};  // a manager's handle; under the schedule's lock too
    std::atomic<uint64_t> next_due_us{never};
    std::atomic<bool> cancelled{false};  // the expiry of `running` was cancelled
    timing_wheel* wheel = nullptr;
    vem_tw_timer* running = nullptr;  // its callback runs; no other wheel gets the entry meanwhile
    condition_of_brief_mutex idle;    // `running` has become NULL

    void publish_next_due() { next_due_us.store(wheel->next_due_us()); }
};

// Entries 1 to wheels_in_use() have been used so far.
wheel_entry& wheel_at(uint32_t number);
uint32_t wheels_in_use();

// Runs what is due on a wheel as long as it is attached to the manager. The caller has the
// manager's turn.
void run_due_timers(wheel_entry& entry, uint64_t manager);

// Does this thread run a callback? Does it run one for that manager?
bool inside_callback();
bool inside_callback_of(uint64_t manager);

}  // namespace vem

#endif

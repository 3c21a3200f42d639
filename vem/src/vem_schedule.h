// vem_schedule.h - who sleeps until when, and whose turn it is to dispatch.
//
// One lock guards the managers, the attachments of wheels to them, and the turning of the clock by
// hand. It is taken rarely: to sleep, to dispatch, and when a start makes a wheel's next due time
// earlier.
//
// Locks  schedule.mutex, then a shard's.
#ifndef VEM_SCHEDULE_H
#define VEM_SCHEDULE_H

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "vem/vem_dm.h"
#include "vem_condition.h"
#include "vem_mutex.h"

namespace vem {

constexpr uint32_t most_managers = 64;

// All fields are guarded by the schedule's lock.
struct manager_entry {
    uint64_t handle = 0;          // 0: free, or destroyed
    uint32_t visitors = 0;        // threads inside wait or dispatch; the entry stays theirs
    bool dispatching = false;     // somebody has the turn
    uint32_t sleepers = 0;        // threads inside wait that sleep
    uint64_t sleeping_until = 0;  // latest reading until which one of them sleeps; 0 when none does
    uint64_t wake_ups = 0;        // how often a waiting thread left its sleep
    std::array<char, 32> name{};
    condition wake;
};

struct schedule {
    schedule_mutex mutex;
    condition progress;    // a turn ended, or a wheel was detached
    bool turning = false;  // the clock is on its way through due times
    std::array<manager_entry, most_managers> managers;

    static constexpr uint64_t never_due = UINT64_MAX;

    // May the clock be turned to this reading without a look at the wheels? Takes no lock.
    bool nothing_due_by(uint64_t reading_us) const {
        const uint64_t horizon = horizon_us.load();
        return horizon > closed_and_missed && reading_us < horizon;
    }

    // A wheel's next due time became earlier. The wheel's lock is held, so that whoever starts a
    // timer on it afterwards relies on the horizon.
    void lower_horizon(uint64_t due_us);

    // The lock is held by the caller of each of these.
    manager_entry* find(uint64_t handle);
    uint64_t earliest_due_us(uint64_t manager) const;  // of the wheels attached to it
    uint64_t earliest_due_us() const;                  // of all attached wheels
    bool anyone_dispatching() const;
    void publish_horizon();
    void wake_all();

private:
    // No due time of an attached wheel is before the horizon. While it is closed, each turn looks.
    // The second value tells who is about to open it that he may have missed a due time.
    static constexpr uint64_t closed = 0;
    static constexpr uint64_t closed_and_missed = 1;
    std::atomic<uint64_t> horizon_us{never_due};
};

extern schedule the_schedule;

inline uint64_t value_of(vem_dm_handle handle) {
    return reinterpret_cast<uintptr_t>(handle);
}

// A start made this wheel's next due time earlier: wakes the thread that would sleep past it.
void due_came_earlier(uint64_t manager, uint64_t due_us);

// Runs everything that is due on the manager's wheels; waits for its turn first. 0 or an errno
// value.
int dispatch_manager(uint64_t handle);

// How often waiting threads of this manager have left their sleep so far.
uint64_t wake_ups_of(vem_dm_handle handle);

}  // namespace vem

#endif

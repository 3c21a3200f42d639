// vem_clock.cpp - the clock of the process, and how it is turned by hand.
//
// Owns   the mode and, when turned by hand, the time.
// Locks  one turn at a time takes turn_mutex, then the schedule's lock; the latter is not held
//        while callbacks run.
#include "vem/vem_clock.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>

#include "vem_clock_state.h"
#include "vem_expiry.h"
#include "vem_schedule.h"

namespace vem {

namespace {

constexpr uint64_t last_reading = uint64_t{1} << 62;

// untouched and resumed are both the system's mode; the latter, after a time by hand, is shifted
// against it.
enum class clock_source { untouched, by_hand_wait, by_hand_inline, resumed };

constinit std::atomic<clock_source> source{clock_source::untouched};
constinit std::atomic<uint64_t> by_hand_us{0};
constinit std::atomic<int64_t> shift_us{0};  // of `resumed` against CLOCK_MONOTONIC
constinit clock_mutex turn_mutex;

uint64_t monotonic_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<uint64_t>(now.tv_nsec) / 1000;
}

[[gnu::cold, gnu::noinline]] uint64_t adjusted_now_us() {
    if (source.load(std::memory_order_acquire) == clock_source::resumed) {
        return monotonic_us() + static_cast<uint64_t>(shift_us.load(std::memory_order_relaxed));
    }
    return by_hand_us.load();
}

clock_source source_of(int mode) {
    switch (mode) {
    case VEM_CLOCK_MANUAL_WAIT:
        return clock_source::by_hand_wait;
    case VEM_CLOCK_MANUAL_INLINE:
        return clock_source::by_hand_inline;
    default:
        return clock_source::resumed;
    }
}

// Never turns back, also when several threads turn at once. In one order with the horizon: a start
// sees the reading, or the turn sees what is started.
void turn_to(uint64_t reading_us) {
    uint64_t present = by_hand_us.load();
    while (present < reading_us && !by_hand_us.compare_exchange_weak(present, reading_us)) {
    }
}

// The dispatching threads run what is due; waits until they have.
void hand_over(std::unique_lock<schedule_mutex>& lock) {
    the_schedule.wake_all();
    while (the_schedule.earliest_due_us() <= by_hand_us.load() ||
           the_schedule.anyone_dispatching()) {
        the_schedule.progress.wait(lock);
    }
}

// This thread runs what is due.
void dispatch_here(std::unique_lock<schedule_mutex>& lock) {
    for (const manager_entry& manager : the_schedule.managers) {
        const uint64_t handle = manager.handle;
        if (handle != 0 && the_schedule.earliest_due_us(handle) <= by_hand_us.load()) {
            lock.unlock();
            dispatch_manager(handle);
            lock.lock();
        }
    }
}

// Runs what is due on the way, each timer at its own time.
void run_what_is_due_by(uint64_t target_us, std::unique_lock<schedule_mutex>& lock) {
    const bool here = source.load() == clock_source::by_hand_inline;
    for (;;) {
        const uint64_t due_us = the_schedule.earliest_due_us();
        if (due_us > target_us) {
            return;
        }
        turn_to(due_us);
        here ? dispatch_here(lock) : hand_over(lock);
    }
}

// Turns the clock from due time to due time. The caller has the turn.
void turn_through_due_times(uint64_t target_us) {
    std::unique_lock lock(the_schedule.mutex);
    the_schedule.turning = true;
    the_schedule.publish_horizon();
    while (the_schedule.anyone_dispatching()) {
        the_schedule.progress.wait(lock);
    }
    do {
        run_what_is_due_by(target_us, lock);
        turn_to(target_us);
    } while (the_schedule.earliest_due_us() <= target_us);  // started during the last step
    the_schedule.turning = false;
    the_schedule.publish_horizon();
}

}  // namespace

int clock_mode() {
    switch (source.load(std::memory_order_acquire)) {
    case clock_source::by_hand_wait:
        return VEM_CLOCK_MANUAL_WAIT;
    case clock_source::by_hand_inline:
        return VEM_CLOCK_MANUAL_INLINE;
    default:
        return VEM_CLOCK_SYSTEM;
    }
}

uint64_t monotonic_at(uint64_t clock_us) {
    const int64_t monotonic = static_cast<int64_t>(clock_us) - shift_us.load();
    return static_cast<uint64_t>(std::max<int64_t>(monotonic, 0));
}

}  // namespace vem

using namespace vem;

uint64_t vem_clock_now_us(void) {
    if (source.load(std::memory_order_relaxed) == clock_source::untouched) [[likely]] {
        return monotonic_us();
    }
    return adjusted_now_us();
}

int vem_clock_set_mode(int mode) {
    if (mode < VEM_CLOCK_SYSTEM || mode > VEM_CLOCK_MANUAL_INLINE) {
        return EINVAL;
    }
    if (callback_frame::any()) {
        return EDEADLK;
    }
    const std::lock_guard turn_lock(turn_mutex);
    const std::lock_guard lock(the_schedule.mutex);
    if (mode == clock_mode()) {
        return 0;
    }
    const uint64_t now_us = vem_clock_now_us();
    if (mode == VEM_CLOCK_SYSTEM) {
        shift_us.store(static_cast<int64_t>(now_us - monotonic_us()));
    } else {
        by_hand_us.store(now_us);
    }
    source.store(source_of(mode), std::memory_order_release);
    the_schedule.wake_all();
    return 0;
}

int vem_clock_advance_us(uint64_t by_us) {
    const uint64_t now_us = vem_clock_now_us();
    return vem_clock_advance_to_us(by_us > UINT64_MAX - now_us ? UINT64_MAX : now_us + by_us);
}

int vem_clock_advance_to_us(uint64_t target_us) {
    const clock_source present = source.load(std::memory_order_relaxed);
    if (present == clock_source::by_hand_inline && target_us <= last_reading &&
        the_schedule.nothing_due_by(target_us)) {
        turn_to(target_us);  // nothing becomes due: the usual turn, and a cheap one
        if (the_schedule.nothing_due_by(target_us)) {
            return 0;  // still: no start came in between
        }
    }
    if (clock_mode() == VEM_CLOCK_SYSTEM) {
        return EPERM;
    }
    if (target_us > last_reading) {
        return EOVERFLOW;
    }
    if (callback_frame::any()) {
        return EDEADLK;
    }
    const std::lock_guard turn_lock(turn_mutex);
    if (clock_mode() == VEM_CLOCK_SYSTEM) {
        return EPERM;
    }
    turn_through_due_times(target_us);
    return 0;
}

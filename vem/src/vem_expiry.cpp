// vem_expiry.cpp - runs the callbacks of timers that are due, over all shards of a wheel.
//
// Owns   nothing.
// Locks  a shard's mutex, one at a time; none while a callback runs.
#include "vem_expiry.h"

#include <sched.h>

#include <algorithm>
#include <array>
#include <bit>

#include "vem/vem_clock.h"

namespace vem {

namespace {

// How many timers the dispatching thread moves between levels before it lets others have the lock.
constexpr uint32_t cascade_batch = 256;
constexpr int most_yields = 64;

constinit thread_local callback_frame* innermost = nullptr;

// Calls do_it(index) for each bit that is set, the lowest first.
template <class function>
void for_each_bit(uint32_t bits, function do_it) {
    for (; bits != 0; bits &= bits - 1) {
        do_it(static_cast<uint32_t>(std::countr_zero(bits)));
    }
}

// The shards that hold expired timers.
struct expired_shards {
    uint32_t left = 0;                              // one bit a shard
    std::array<uint64_t, most_shards> first_ticks;  // when its first one was due, or earlier

    void set(uint32_t index, uint64_t first_tick) {
        first_ticks[index] = first_tick;
        const uint32_t bit = 1U << index;
        left = first_tick == never ? left & ~bit : left | bit;
    }
    // Of one tick, those of the lower shard come first.
    uint32_t earliest() const {
        auto found = static_cast<uint32_t>(std::countr_zero(left));
        for_each_bit(left & (left - 1), [&](uint32_t index) {
            found = first_ticks[index] < first_ticks[found] ? index : found;
        });
        return found;
    }
    // The last tick up to which the earliest one's timers come before all of the others.
    uint64_t last_tick_in_turn(uint32_t earliest) const {
        uint64_t last = never - 1;
        for_each_bit(left & ~(1U << earliest), [&](uint32_t index) {
            last = std::min(last, first_ticks[index] - (index < earliest ? 1 : 0));
        });
        return last;
    }
};

using held_shard = std::unique_lock<wheel_mutex>;

// Goes on with another shard's lock.
void hold(held_shard& lock, wheel_shard& shard) {
    if (lock.mutex() != &shard.mutex) {
        lock.unlock();
        lock = held_shard(shard.mutex);
    }
}

// The right to run a wheel's callbacks. A wheel that changed managers may still run one for the
// last of them: the next callback comes after it. The first shard's lock is held at both ends.
class wheel_dispatch {
public:
    wheel_dispatch(wheel_entry& entry, held_shard& lock) : entry_(entry), lock_(lock) {
        entry.await_end_of_dispatch(lock);
        entry.use.in_dispatch = true;
    }
    // Also runs when a callback ends its thread.
    ~wheel_dispatch() {
        hold(lock_, entry_.shards[0]);
        entry_.end_dispatch();
    }
    wheel_dispatch(const wheel_dispatch&) = delete;
    wheel_dispatch& operator=(const wheel_dispatch&) = delete;

private:
    wheel_entry& entry_;
    held_shard& lock_;
};

// Lets those in line have the lock between two batches.
void give_way(wheel_shard& shard, held_shard& lock) {
    lock.unlock();
    for (int yields = 0; yields < most_yields && shard.in_line.load(std::memory_order_relaxed) != 0;
         ++yields) {
        sched_yield();
    }
    lock.lock();
}

// Moves what is due in a shard to its expired queue, and tells when the first of these was due.
uint64_t collect_due(wheel_entry& entry, wheel_shard& shard, uint64_t manager, uint64_t now_us,
                     held_shard& lock) {
    hold(lock, shard);
    while (entry.attached_to.load() == manager) {
        if (shard.timers->expire(now_us, cascade_batch)) {
            const uint64_t first = shard.timers->first_expired_tick();
            if (first == never) {
                shard.publish_next_due();
            }
            return first;
        }
        shard.publish_next_due();
        give_way(shard, lock);
    }
    return never;
}

expired_shards collect_due(wheel_entry& entry, uint64_t manager, held_shard& lock) {
    expired_shards expired;
    const uint64_t now_us = vem_clock_now_us();
    for_each_bit(entry.shards_made.load(), [&](uint32_t index) {
        wheel_shard& shard = entry.shards[index];
        if (shard.next_due_us.load() <= now_us) {
            expired.set(index, collect_due(entry, shard, manager, now_us, lock));
        }
    });
    return expired;
}

void run_first_expired(wheel_entry& entry, wheel_shard& shard, uint64_t manager, held_shard& lock) {
    vem_tw_timer* timer = shard.timers->take_expired();
    const vem_tw_timer_handler callback = timer->callback;
    void* context = timer->context;
    auto* wheel = reinterpret_cast<vem_tw_wheel>(entry.handle.load());
    const callback_frame frame(entry, shard, manager, timer, lock);
    callback(wheel, timer, context);
}

// Runs a shard's expired timers that were due by a tick, and tells when the first of those left was
// due. Whoever detaches the wheel relies on it that no callback starts from then on.
uint64_t run_expired(wheel_entry& entry, wheel_shard& shard, uint64_t manager, uint64_t last_tick,
                     held_shard& lock) {
    hold(lock, shard);
    uint64_t next = never;
    while (entry.attached_to.load() == manager) {
        next = shard.timers->first_expired_tick();
        if (next > last_tick) {
            break;
        }
        run_first_expired(entry, shard, manager, lock);
        next = never;
    }
    if (shard.timers != nullptr) {
        shard.publish_next_due();
    }
    return next;
}

}  // namespace

callback_frame::callback_frame(wheel_entry& entry, wheel_shard& shard, uint64_t manager,
                               vem_tw_timer* timer, std::unique_lock<wheel_mutex>& lock)
    : entry_(entry),
      shard_(shard),
      manager_(manager),
      timer_(timer),
      lock_(lock),
      outer_(innermost) {
    shard.running = timer;
    shard.cancelled.store(false, std::memory_order_relaxed);
    lock.unlock();
    innermost = this;
}

callback_frame::~callback_frame() {
    innermost = outer_;
    lock_.lock();
    shard_.running = nullptr;
}

template <class accept>
const callback_frame* callback_frame::find(accept accepts) {
    const callback_frame* frame = innermost;
    while (frame != nullptr && !accepts(*frame)) {
        frame = frame->outer_;
    }
    return frame;
}

const callback_frame* callback_frame::of_timer(const vem_tw_timer* timer) {
    return find([timer](const callback_frame& frame) { return frame.timer_ == timer; });
}
bool callback_frame::any() {
    return innermost != nullptr;
}
bool callback_frame::any_of(const wheel_entry& entry) {
    return find([&](const callback_frame& frame) { return &frame.entry_ == &entry; }) != nullptr;
}
bool callback_frame::any_of(uint64_t manager) {
    return find([=](const callback_frame& frame) { return frame.manager_ == manager; }) != nullptr;
}

void run_due_timers(wheel_entry& entry, uint64_t manager) {
    // A callback of this wheel that is further out on this thread: it would wait for itself.
    if (callback_frame::any_of(entry)) {
        return;
    }
    held_shard lock(entry.mutex());
    const wheel_dispatch mine(entry, lock);
    expired_shards expired = collect_due(entry, manager, lock);
    while (expired.left != 0) {
        const uint32_t index = expired.earliest();
        const uint64_t last_tick = expired.last_tick_in_turn(index);
        expired.set(index, run_expired(entry, entry.shards[index], manager, last_tick, lock));
    }
}

}  // namespace vem

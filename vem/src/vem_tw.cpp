// vem_tw.cpp - wheels behind handles: starts and stops from any thread while timers run.
//
// Owns   nothing.
// Locks  a shard's mutex, one at a time, innermost; the schedule's before it where a wheel is made,
//        attached or found free.
#include "vem/vem_tw.h"

#include <cerrno>

#include "vem/vem_clock.h"
#include "vem_expiry.h"
#include "vem_schedule.h"
#include "vem_wheel_registry.h"

namespace vem {

namespace {

constexpr uint32_t most_slots = 65536;

// A handle is the entry's number in the low 16 bits and, above them, how many wheels were made
// before.
constexpr uint32_t number_bits = 16;
constexpr uint64_t number_mask = (uint64_t{1} << number_bits) - 1;

constinit uint64_t wheels_made = 0;  // guarded by the schedule's lock

uint64_t value_of_wheel(vem_tw_wheel wheel) {
    return reinterpret_cast<uintptr_t>(wheel);
}
vem_tw_wheel wheel_of_value(uint64_t value) {
    return reinterpret_cast<vem_tw_wheel>(value);
}

// The entry that a handle's number names, whether the wheel lives or not; NULL for what never was a
// handle.
wheel_entry* entry_of(uint64_t handle) {
    const auto number = static_cast<uint32_t>(handle & number_mask);
    return number - 1 < most_wheels ? &wheel_at(number) : nullptr;
}

// NULL when the timer is on no wheel.
wheel_entry* entry_of(timer_word word) {
    const uint32_t index = word.wheel_number() - 1;
    return index < most_wheels * most_shards ? &wheel_at(index / most_shards + 1) : nullptr;
}
wheel_shard& shard_of(wheel_entry& entry, timer_word word) {
    return entry.shards[(word.wheel_number() - 1) % most_shards];
}

// Waits for a shard's lock, which the dispatching thread sees.
[[gnu::cold, gnu::noinline]] void wait_in_line(wheel_shard& shard) {
    shard.in_line.fetch_add(1, std::memory_order_relaxed);
    shard.mutex.lock();
    shard.in_line.fetch_sub(1, std::memory_order_relaxed);
}

wheel_shard& lock(wheel_shard& shard) {
    if (!shard.mutex.try_lock()) {
        wait_in_line(shard);
    }
    note_possible_wait(shard.mutex);
    return shard;
}

// The wheel's first shard is busy.
[[gnu::cold, gnu::noinline]] wheel_shard& lock_elsewhere(wheel_entry& entry, uint64_t handle) {
    return lock(entry.shards[settle_in_home_shard(entry, handle)]);
}

// Locks the shard for a timer that is on none.
wheel_shard& lock_for_thread(wheel_entry& entry, uint64_t handle) {
    const uint32_t home = entry.has_one_shard() ? 0 : home_shard();
    if (home != 0 && entry.has_shard(home)) {
        return lock(entry.shards[home]);
    }
    wheel_shard& first = entry.shards[0];
    if (!first.mutex.try_lock()) {
        return lock_elsewhere(entry, handle);
    }
    note_possible_wait(first.mutex);
    return first;
}

// A timer that is on a wheel stays in its shard, whoever starts it: its expiry may be on its way
// there.
wheel_shard& lock_for_start(wheel_entry& entry, uint64_t handle, timer_word last) {
    if (last.wheel_number() != 0) {
        wheel_shard& shard = shard_of(entry, last);
        if (entry.has_shard(static_cast<uint32_t>(&shard - entry.shards.data()))) {
            return lock(shard);
        }
    }
    return lock_for_thread(entry, handle);
}

// A shard's lock as starts and stops hold it.
class locked_shard {
public:
    explicit locked_shard(wheel_shard& locked) : shard_(locked) {}
    ~locked_shard() { shard_.mutex.unlock(); }
    locked_shard(const locked_shard&) = delete;
    locked_shard& operator=(const locked_shard&) = delete;

    wheel_shard& operator*() const { return shard_; }
    wheel_shard* operator->() const { return &shard_; }

private:
    wheel_shard& shard_;
};

void cancel_if_running(wheel_shard& shard, const vem_tw_timer* timer) {
    if (shard.running == timer) {
        shard.cancelled.store(true);
    }
}

// Whom to wake once the shard's lock is given back; no manager when nobody sleeps too long.
struct wake_up {
    uint64_t manager = 0;
    uint64_t due_us = never;
};

// The shard's next due time became earlier.
[[gnu::noinline]] wake_up note_earlier_due(const wheel_entry& entry, wheel_shard& shard,
                                           vem_tw_timer& timer, uint64_t now_us, uint32_t ms) {
    shard.publish_next_due();
    const uint64_t due_us = shard.next_due_us.load(std::memory_order_relaxed);
    const uint64_t manager = entry.attached_to.load();
    if (manager == 0) {
        return {};
    }
    // Either a turn of the clock sees the horizon or its new reading is seen here (the partner is
    // vem_clock_advance_to_us); the timer then counts from after the turn, which has missed it.
    the_schedule.lower_horizon(due_us);
    const uint64_t later_us = vem_clock_now_us();
    if (later_us >= now_us + uint64_t{ms} * 1000) {
        shard.timers->start(timer, later_us, ms);
    }
    return {manager, due_us};
}

// Arms a timer whose handler is set. The caller holds the shard's lock and read the clock before it
// had it.
wake_up arm_locked(const wheel_entry& entry, wheel_shard& shard, vem_tw_timer& timer,
                   uint64_t now_us, uint32_t ms) {
    if (!shard.timers->start(timer, now_us, ms)) {
        return {};
    }
    return note_earlier_due(entry, shard, timer, now_us, ms);
}

void wake_sleepers(const wake_up& whom) {
    if (whom.manager != 0) {
        due_came_earlier(whom.manager, whom.due_us);
    }
}

// The caller holds the schedule's lock. NULL when all entries are taken.
wheel_entry* find_free_entry(uint32_t& number) {
    for (number = 1; number <= most_wheels; ++number) {
        wheel_entry& entry = wheel_at(number);
        const std::lock_guard lock(entry.mutex());
        if (entry.handle.load() == 0 && !entry.use.in_dispatch && !entry.use.ending) {
            return &entry;
        }
    }
    return nullptr;
}

// The caller holds the schedule's lock. False when the wheel is destroyed.
bool set_manager(wheel_entry& entry, uint64_t wheel, uint64_t manager) {
    {
        const std::lock_guard lock(entry.mutex());
        if (entry.handle.load() != wheel) {
            return false;
        }
        entry.attached_to.store(manager);
    }
    entry.await_sections();
    return true;
}

void end_shard(wheel_shard& shard) {
    const std::lock_guard lock(shard.mutex);
    shard.next_due_us.store(never);
    shard.cancelled.store(true);
    if (shard.timers != nullptr) {
        shard.timers->disarm_all();
        delete shard.timers;
        shard.timers = nullptr;
    }
}

// False when somebody else has ended it.
bool end_wheel(wheel_entry& entry, uint64_t handle) {
    {
        const std::lock_guard lock(entry.mutex());
        if (entry.handle.load() != handle) {
            return false;
        }
        entry.handle.store(0);
        entry.attached_to.store(0);
        entry.use.ending = true;
    }
    for (wheel_shard& shard : entry.shards) {
        end_shard(shard);
    }
    const std::lock_guard lock(entry.mutex());
    entry.use.ending = false;
    return true;
}

}  // namespace

}  // namespace vem

using namespace vem;

int vem_tw_init_wheel(vem_tw_wheel* wheel, uint32_t slots, uint32_t tick_us, uint32_t levels,
                      uint32_t, uint32_t, uint32_t) {
    if (wheel == nullptr || slots == 0 || slots > most_slots || tick_us == 0 || levels == 0) {
        return EINVAL;
    }
    const std::lock_guard schedule_lock(the_schedule.mutex);
    uint32_t number = 0;
    wheel_entry* entry = find_free_entry(number);
    if (entry == nullptr) {
        return EAGAIN;
    }
    const timing_wheel_shape shape{slots, tick_us, levels, vem_clock_now_us()};
    auto made = timing_wheel::create(number_of_shard(number, 0), shape);
    if (made == nullptr) {
        return ENOMEM;
    }
    const uint64_t handle = ++wheels_made << number_bits | number;
    {
        const std::lock_guard lock(entry->mutex());
        entry->shards[0].timers = made.release();
        entry->shards_made.store(1);
        entry->shape = shape;
        entry->handle.store(handle);
    }
    note_wheel_in_use(number);
    // Whoever loads the handle finds its entry in use.
    std::atomic_ref(*wheel).store(wheel_of_value(handle), std::memory_order_release);
    return 0;
}

int vem_tw_attach_vdm(vem_tw_wheel wheel, vem_dm_handle manager) {
    wheel_entry* entry = entry_of(value_of_wheel(wheel));
    if (entry == nullptr) {
        return EINVAL;
    }
    const std::lock_guard schedule_lock(the_schedule.mutex);
    manager_entry* waiting = the_schedule.find(value_of(manager));
    if (manager != nullptr && waiting == nullptr) {
        return EINVAL;
    }
    if (!set_manager(*entry, value_of_wheel(wheel), value_of(manager))) {
        return EINVAL;
    }
    the_schedule.publish_horizon();
    the_schedule.progress.notify_all();
    if (waiting != nullptr) {
        waiting->wake.notify_all();
    }
    return 0;
}

int vem_tw_destroy_wheel(vem_tw_wheel* wheel) {
    if (wheel == nullptr) {
        return EINVAL;
    }
    const uint64_t handle = value_of_wheel(*wheel);
    const int result = vem_tw_attach_vdm(*wheel, nullptr);
    std::atomic_ref(*wheel).store(nullptr, std::memory_order_relaxed);
    if (result != 0) {
        return result;
    }
    return end_wheel(*entry_of(handle), handle) ? 0 : EINVAL;
}

int vem_tw_timer_start(vem_tw_wheel wheel, vem_tw_timer* timer, uint32_t ms,
                       vem_tw_timer_handler handler, void* context) {
    const uint64_t handle = value_of_wheel(wheel);
    wheel_entry* entry = entry_of(handle);
    if (entry == nullptr || timer == nullptr || handler == nullptr) {
        return EINVAL;
    }
    timer_word last = timer_word::load(*timer);
    if (last.wheel_number() != 0 && entry_of(last) != entry) {
        if (entry->handle.load(std::memory_order_relaxed) != handle) {
            return EINVAL;
        }
        vem_tw_timer_stop(timer);
        last = {};
    }
    wake_up whom;
    {
        const uint64_t now_us = vem_clock_now_us();
        const locked_shard shard(lock_for_start(*entry, handle, last));
        if (entry->handle.load(std::memory_order_relaxed) != handle) {
            return EINVAL;
        }
        cancel_if_running(*shard, timer);
        timer->callback = handler;
        timer->context = context;
        whom = arm_locked(*entry, *shard, *timer, now_us, ms);
    }
    wake_sleepers(whom);
    return 0;
}

int vem_tw_timer_stop(vem_tw_timer* timer) {
    if (timer == nullptr) {
        return EINVAL;
    }
    const timer_word last = timer_word::load(*timer);
    wheel_entry* entry = entry_of(last);
    if (entry == nullptr) {
        return 0;
    }
    const locked_shard shard(lock(shard_of(*entry, last)));
    cancel_if_running(*shard, timer);
    // The dispatching thread may have taken it off the wheel before the lock was had.
    if (timer_word::load(*timer).armed()) {
        shard->timers->stop(*timer);
    } else {
        timer_word{}.store(*timer);
    }
    return 0;
}

bool vem_tw_timer_running(const vem_tw_timer* timer) {
    return timer != nullptr && timer_word::load(*timer).armed();
}

void vem_tw_timer_copy(const vem_tw_timer* timer, vem_tw_timer* copy) {
    if (timer == nullptr || copy == nullptr) {
        return;
    }
    const timer_word last = timer_word::load(*timer);
    wheel_entry* entry = entry_of(last);
    if (entry == nullptr) {
        *copy = *timer;
        return;
    }
    const locked_shard shard(lock(shard_of(*entry, last)));
    *copy = *timer;
}

bool vem_tw_expiry_cancelled(const vem_tw_timer* timer) {
    const callback_frame* frame = timer == nullptr ? nullptr : callback_frame::of_timer(timer);
    return frame != nullptr && frame->cancelled();
}

int vem_tw_expiry_retry(vem_tw_timer* timer, uint32_t ms) {
    const callback_frame* frame = timer == nullptr ? nullptr : callback_frame::of_timer(timer);
    if (frame == nullptr) {
        return EINVAL;
    }
    wake_up whom;
    {
        const uint64_t now_us = vem_clock_now_us();
        const locked_shard shard(lock(frame->shard()));
        if (frame->cancelled() || shard->timers == nullptr) {
            return ECANCELED;
        }
        whom = arm_locked(frame->entry(), *shard, *timer, now_us, ms);
    }
    // Another thread may sleep for the wheel: it may have changed managers while this callback ran.
    wake_sleepers(whom);
    return 0;
}

int vem_tw_quiesce(vem_tw_wheel wheel) {
    const int result = vem_tw_attach_vdm(wheel, nullptr);
    if (result != 0 || callback_frame::any()) {
        return result;
    }
    wheel_entry& entry = *entry_of(value_of_wheel(wheel));
    std::unique_lock lock(entry.mutex());
    entry.await_end_of_dispatch(lock);
    return 0;
}

bool vem_tw_is_detached(vem_tw_wheel wheel) {
    if (wheel == nullptr) {
        return false;
    }
    const wheel_entry* entry = entry_of(value_of_wheel(wheel));
    // In this order: if the handle still matches, the attachment was this wheel's.
    const bool attached = entry != nullptr && entry->attached_to.load() != 0;
    return !attached || entry->handle.load() != value_of_wheel(wheel);
}

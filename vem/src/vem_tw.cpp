// vem_tw.cpp - wheels behind handles: starts and stops from any thread while timers run.
//
// Owns   the registry of wheels.
// Locks  an entry's mutex, innermost, never held while a callback runs.
#include "vem/vem_tw.h"

#include <sched.h>

#include <algorithm>
#include <cerrno>

#include "vem/vem_clock.h"
#include "vem_schedule.h"
#include "vem_wheel_registry.h"

namespace vem {

namespace {

constexpr uint32_t most_slots = 65536;

// A handle is the entry's number in the low 16 bits and, above them, how many wheels were made
// before.
constexpr uint32_t number_bits = 16;
constexpr uint64_t number_mask = (uint64_t{1} << number_bits) - 1;

// How many timers the dispatching thread moves between levels before it lets others have the lock.
constexpr uint32_t cascade_batch = 256;
constexpr int most_yields = 64;

constinit std::array<wheel_entry, most_wheels> entries;
constinit std::atomic<uint32_t> entries_in_use{0};
constinit uint64_t wheels_made = 0;  // guarded by the schedule's lock

// A callback on this thread's stack; they nest when a callback dispatches another manager.
class callback_frame {
public:
    callback_frame(wheel_entry& entry, uint64_t manager, vem_tw_timer* timer,
                   std::unique_lock<wheel_mutex>& lock)
        : entry_(entry), manager_(manager), timer_(timer), lock_(lock), outer_(innermost) {
        entry.running = timer;
        entry.cancelled.store(false);
        lock.unlock();
        innermost = this;
    }
    // Also runs when the callback ends its thread.
    ~callback_frame() {
        innermost = outer_;
        lock_.lock();
        entry_.running = nullptr;
        entry_.idle.notify_all();
    }
    callback_frame(const callback_frame&) = delete;
    callback_frame& operator=(const callback_frame&) = delete;

    static const callback_frame* of_timer(const vem_tw_timer* timer) {
        const callback_frame* frame = innermost;
        while (frame != nullptr && frame->timer_ != timer) {
            frame = frame->outer_;
        }
        return frame;
    }
    static bool any() { return innermost != nullptr; }
    static bool any_of(const wheel_entry& entry) {
        const callback_frame* frame = innermost;
        while (frame != nullptr && &frame->entry_ != &entry) {
            frame = frame->outer_;
        }
        return frame != nullptr;
    }
    static bool any_of(uint64_t manager) {
        const callback_frame* frame = innermost;
        while (frame != nullptr && frame->manager_ != manager) {
            frame = frame->outer_;
        }
        return frame != nullptr;
    }
    bool cancelled() const { return entry_.cancelled.load(); }
    wheel_entry& entry() const { return entry_; }

private:
    wheel_entry& entry_;
    uint64_t manager_;
    vem_tw_timer* timer_;
    std::unique_lock<wheel_mutex>& lock_;
    callback_frame* outer_;

    static constinit thread_local callback_frame* innermost;
};

constinit thread_local callback_frame* callback_frame::innermost = nullptr;

// The lock as starts and stops take it: one who has to wait is seen by the dispatching thread.
class timer_lock {
public:
    explicit timer_lock(wheel_entry& entry) : lock_(entry.mutex, std::try_to_lock) {
        if (!lock_.owns_lock()) {
            entry.in_line.fetch_add(1, std::memory_order_relaxed);
            lock_.lock();
            entry.in_line.fetch_sub(1, std::memory_order_relaxed);
        }
        note_possible_wait(entry.mutex);
    }

private:
    std::unique_lock<wheel_mutex> lock_;
};

uint64_t value_of_wheel(vem_tw_wheel wheel) {
    return reinterpret_cast<uintptr_t>(wheel);
}
vem_tw_wheel wheel_of_value(uint64_t value) {
    return reinterpret_cast<vem_tw_wheel>(value);
}

// The entry that a handle's number names, whether the wheel lives or not; NULL for what never was a
// handle.
wheel_entry* entry_of(uint64_t handle) {
    const uint64_t number = handle & number_mask;
    return number == 0 || number > wheels_in_use() ? nullptr
                                                   : &wheel_at(static_cast<uint32_t>(number));
}

wheel_entry* entry_of(timer_word word) {
    const uint32_t number = word.wheel_number();
    return number == 0 || number > wheels_in_use() ? nullptr : &wheel_at(number);
}

void cancel_if_running(wheel_entry& entry, const vem_tw_timer* timer) {
    if (entry.running == timer) {
        entry.cancelled.store(true);
    }
}

// Lets those in line have the lock between two batches.
void give_way(wheel_entry& entry, std::unique_lock<wheel_mutex>& lock) {
    lock.unlock();
    for (int yields = 0; yields < most_yields && entry.in_line.load(std::memory_order_relaxed) != 0;
         ++yields) {
        sched_yield();
    }
    lock.lock();
}

// Moves what is due to the expired queue; false when the wheel left the manager meanwhile.
bool collect_due(wheel_entry& entry, uint64_t manager, std::unique_lock<wheel_mutex>& lock) {
    const uint64_t now_us = vem_clock_now_us();
    while (entry.attached_to.load() == manager) {
        if (entry.wheel->expire(now_us, cascade_batch)) {
            return true;
        }
        entry.publish_next_due();
        give_way(entry, lock);
    }
    return false;
}

// A wheel that changed managers may still run a callback for the last one: the next callback comes
// after it. False when that callback is further out on this thread, which would wait for itself.
bool wait_until_idle(wheel_entry& entry, std::unique_lock<wheel_mutex>& lock) {
    if (callback_frame::any_of(entry)) {
        return false;
    }
    while (entry.running != nullptr) {
        entry.idle.wait(lock);
    }
    return true;
}

// Whom to wake once the entry's lock is given back; no manager when nobody sleeps too long.
struct wake_up {
    uint64_t manager = 0;
    uint64_t due_us = never;
};

// Arms a timer whose handler is set. The caller holds the entry's lock and read the clock before it
// had it.
wake_up arm_locked(wheel_entry& entry, vem_tw_timer& timer, uint64_t now_us, uint32_t ms) {
    if (!entry.wheel->start(timer, now_us, ms)) {
        return {};
    }
    entry.publish_next_due();
    const uint64_t due_us = entry.next_due_us.load(std::memory_order_relaxed);
    const uint64_t manager = entry.attached_to.load(std::memory_order_relaxed);
    if (manager == 0) {
        return {};
    }
    // Either a turn of the clock sees the horizon or its new reading is seen here (the partner is
    // vem_clock_advance_to_us); the timer then counts from after the turn, which has missed it.
    the_schedule.lower_horizon(due_us);
    const uint64_t later_us = vem_clock_now_us();
    if (later_us >= now_us + uint64_t{ms} * 1000) {
        entry.wheel->start(timer, later_us, ms);
    }
    return {manager, due_us};
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
        const std::lock_guard lock(entry.mutex);
        if (entry.handle.load() == 0 && entry.running == nullptr) {
            return &entry;
        }
    }
    return nullptr;
}

// The caller holds the schedule's lock. False when the wheel is destroyed.
bool set_manager(wheel_entry& entry, uint64_t wheel, uint64_t manager) {
    const std::lock_guard lock(entry.mutex);
    if (entry.handle.load() != wheel) {
        return false;
    }
    entry.attached_to.store(manager);
    return true;
}

}  // namespace

wheel_entry& wheel_at(uint32_t number) {
    return entries[number - 1];
}
uint32_t wheels_in_use() {
    return entries_in_use.load(std::memory_order_acquire);
}
bool inside_callback() {
    return callback_frame::any();
}
bool inside_callback_of(uint64_t manager) {
    return callback_frame::any_of(manager);
}

void run_due_timers(wheel_entry& entry, uint64_t manager) {
    std::unique_lock lock(entry.mutex);
    // Idle it stays: only who has the manager's turn starts callbacks of its wheels.
    if (!collect_due(entry, manager, lock) || !wait_until_idle(entry, lock)) {
        return;
    }
    // Whoever detaches the wheel relies on it that no callback starts from then on.
    while (entry.attached_to.load() == manager) {
        vem_tw_timer* timer = entry.wheel->take_expired();
        if (timer == nullptr) {
            break;
        }
        const vem_tw_timer_handler callback = timer->callback;
        void* context = timer->context;
        vem_tw_wheel wheel = wheel_of_value(entry.handle.load());
        const callback_frame frame(entry, manager, timer, lock);
        callback(wheel, timer, context);
    }
    if (entry.wheel != nullptr) {
        entry.publish_next_due();
    }
}

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
    auto made = timing_wheel::create(number, slots, tick_us, levels, vem_clock_now_us());
    if (made == nullptr) {
        return ENOMEM;
    }
    const uint64_t handle = ++wheels_made << number_bits | number;
    {
        const std::lock_guard lock(entry->mutex);
        entry->wheel = made.release();
        entry->next_due_us.store(never);
        entry->attached_to.store(0);
        entry->handle.store(handle);
    }
    entries_in_use.store(std::max(wheels_in_use(), number), std::memory_order_release);
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
    wheel_entry& entry = *entry_of(handle);
    const std::lock_guard lock(entry.mutex);
    if (entry.handle.load() != handle) {
        return EINVAL;
    }
    entry.handle.store(0);
    entry.attached_to.store(0);
    entry.next_due_us.store(never);
    entry.cancelled.store(true);
    entry.wheel->disarm_all();
    delete entry.wheel;
    entry.wheel = nullptr;
    return 0;
}

int vem_tw_timer_start(vem_tw_wheel wheel, vem_tw_timer* timer, uint32_t ms,
                       vem_tw_timer_handler handler, void* context) {
    const uint64_t handle = value_of_wheel(wheel);
    wheel_entry* entry = entry_of(handle);
    if (entry == nullptr || timer == nullptr || handler == nullptr) {
        return EINVAL;
    }
    const wheel_entry* last_entry = entry_of(timer_word::load(*timer));
    if (last_entry != nullptr && last_entry != entry) {
        vem_tw_timer_stop(timer);
    }
    wake_up whom;
    {
        const uint64_t now_us = vem_clock_now_us();
        const timer_lock lock(*entry);
        if (entry->handle.load(std::memory_order_relaxed) != handle) {
            return EINVAL;
        }
        cancel_if_running(*entry, timer);
        timer->callback = handler;
        timer->context = context;
        whom = arm_locked(*entry, *timer, now_us, ms);
    }
    wake_sleepers(whom);
    return 0;
}

int vem_tw_timer_stop(vem_tw_timer* timer) {
    if (timer == nullptr) {
        return EINVAL;
    }
    wheel_entry* entry = entry_of(timer_word::load(*timer));
    if (entry == nullptr) {
        return 0;
    }
    const timer_lock lock(*entry);
    cancel_if_running(*entry, timer);
    // The dispatching thread may have taken it off the wheel before the lock was had.
    if (timer_word::load(*timer).armed()) {
        entry->wheel->stop(*timer);
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
    wheel_entry* entry = entry_of(timer_word::load(*timer));
    if (entry == nullptr) {
        *copy = *timer;
        return;
    }
    const timer_lock lock(*entry);
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
    wheel_entry& entry = frame->entry();
    wake_up whom;
    {
        const uint64_t now_us = vem_clock_now_us();
        const timer_lock lock(entry);
        if (frame->cancelled() || entry.wheel == nullptr) {
            return ECANCELED;
        }
        whom = arm_locked(entry, *timer, now_us, ms);
    }
    // Another thread may sleep for the wheel: it may have changed managers while this callback ran.
    wake_sleepers(whom);
    return 0;
}

int vem_tw_quiesce(vem_tw_wheel wheel) {
    const int result = vem_tw_attach_vdm(wheel, nullptr);
    if (result != 0 || inside_callback()) {
        return result;
    }
    wheel_entry& entry = *entry_of(value_of_wheel(wheel));
    std::unique_lock lock(entry.mutex);
    while (entry.running != nullptr) {
        entry.idle.wait(lock);
    }
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

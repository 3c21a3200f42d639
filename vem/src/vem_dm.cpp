// vem_dm.cpp - threads that sleep until a timer is due, and their turns to dispatch.
//
// Owns   the registry of managers. An entry outlives its manager until the last thread has left it.
// Locks  the schedule's lock; not held while callbacks run.
#include "vem/vem_dm.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vem/vem_clock.h"
#include "vem_clock_state.h"
#include "vem_expiry.h"
#include "vem_schedule.h"
#include "vem_wheel_registry.h"

namespace vem {

constinit schedule the_schedule;

namespace {

// A handle is the entry's number in the low 16 bits and, above them, how many managers were made
// before.
constexpr uint32_t number_bits = 16;
constexpr uint64_t number_mask = (uint64_t{1} << number_bits) - 1;
constinit uint64_t managers_made = 0;  // guarded by the schedule's lock

// Keeps an entry from being given to another manager while a thread is inside.
class visit {
public:
    explicit visit(manager_entry& entry) : entry_(entry) { ++entry.visitors; }
    ~visit() { --entry_.visitors; }
    visit(const visit&) = delete;
    visit& operator=(const visit&) = delete;

private:
    manager_entry& entry_;
};

// The right to run a manager's callbacks; given back also when a callback ends its thread.
class turn {
public:
    turn(manager_entry& entry, std::unique_lock<schedule_mutex>& lock)
        : entry_(entry), lock_(lock) {
        entry.dispatching = true;
        the_schedule.publish_horizon();
        lock.unlock();
    }
    ~turn() {
        lock_.lock();
        entry_.dispatching = false;
        the_schedule.publish_horizon();
        the_schedule.progress.notify_all();
    }
    turn(const turn&) = delete;
    turn& operator=(const turn&) = delete;

private:
    manager_entry& entry_;
    std::unique_lock<schedule_mutex>& lock_;
};

template <class accept>
uint64_t earliest_due_where(accept accepts) {
    uint64_t earliest = never;
    for (uint32_t number = 1; number <= wheels_in_use(); ++number) {
        const wheel_entry& entry = wheel_at(number);
        if (accepts(entry.attached_to.load())) {
            earliest = std::min(earliest, entry.next_due_us());
        }
    }
    return earliest;
}

void detach_wheels(uint64_t manager) {
    for (uint32_t number = 1; number <= wheels_in_use(); ++number) {
        wheel_entry& entry = wheel_at(number);
        if (entry.attached_to.load() == manager) {
            entry.attached_to.store(0);
            entry.await_sections();
        }
    }
}

void sleep(manager_entry& manager, uint64_t due_us, std::unique_lock<schedule_mutex>& lock) {
    const bool by_itself = clock_mode() == VEM_CLOCK_SYSTEM && due_us != never;
    ++manager.sleepers;
    manager.sleeping_until = std::max(manager.sleeping_until, due_us);
    if (by_itself) {
        manager.wake.wait_until(lock, monotonic_at(due_us));
    } else {
        manager.wake.wait(lock);
    }
    if (--manager.sleepers == 0) {
        manager.sleeping_until = 0;
    }
    ++manager.wake_ups;
}

}  // namespace

manager_entry* schedule::find(uint64_t handle) {
    const uint64_t number = handle & number_mask;
    if (number == 0 || number > most_managers || managers[number - 1].handle != handle) {
        return nullptr;
    }
    return &managers[number - 1];
}

uint64_t schedule::earliest_due_us(uint64_t manager) const {
    return earliest_due_where([manager](uint64_t attached_to) { return attached_to == manager; });
}

uint64_t schedule::earliest_due_us() const {
    return earliest_due_where([](uint64_t attached_to) { return attached_to != 0; });
}

bool schedule::anyone_dispatching() const {
    return std::any_of(managers.begin(), managers.end(),
                       [](const manager_entry& manager) { return manager.dispatching; });
}

void schedule::publish_horizon() {
    horizon_us.store(closed);
    if (turning || anyone_dispatching()) {
        return;
    }
    for (uint64_t expected = closed;
         !horizon_us.compare_exchange_strong(expected, earliest_due_us()); expected = closed) {
        horizon_us.store(closed);
    }
}

void schedule::lower_horizon(uint64_t due_us) {
    uint64_t present = horizon_us.load();
    uint64_t lowered = 0;
    do {
        lowered = present == closed ? closed_and_missed
                                    : std::min(present, std::max(due_us, closed_and_missed));
    } while (lowered != present && !horizon_us.compare_exchange_weak(present, lowered));
}

void schedule::wake_all() {
    for (manager_entry& manager : managers) {
        manager.wake.notify_all();
    }
    progress.notify_all();
}

void due_came_earlier(uint64_t manager, uint64_t due_us) {
    const std::lock_guard lock(the_schedule.mutex);
    manager_entry* entry = the_schedule.find(manager);
    if (entry != nullptr && due_us < entry->sleeping_until) {
        entry->wake.notify_all();
    }
}

int dispatch_manager(uint64_t handle) {
    if (callback_frame::any_of(handle)) {
        return EDEADLK;
    }
    std::unique_lock lock(the_schedule.mutex);
    manager_entry* manager = the_schedule.find(handle);
    if (manager == nullptr) {
        return EINVAL;
    }
    const visit inside(*manager);
    while (manager->dispatching) {
        the_schedule.progress.wait(lock);
    }
    if (manager->handle != handle) {
        return EINVAL;
    }
    const turn mine(*manager, lock);
    for (uint32_t number = 1; number <= wheels_in_use(); ++number) {
        wheel_entry& wheel = wheel_at(number);
        if (wheel.attached_to.load() == handle) {
            run_due_timers(wheel, handle);
        }
    }
    return 0;
}

uint64_t wake_ups_of(vem_dm_handle handle) {
    const std::lock_guard lock(the_schedule.mutex);
    const manager_entry* manager = the_schedule.find(value_of(handle));
    return manager == nullptr ? 0 : manager->wake_ups;
}

}  // namespace vem

using namespace vem;

int vem_dm_create(vem_dm_handle* manager, const char* name, int) {
    if (manager == nullptr) {
        return EINVAL;
    }
    const std::lock_guard lock(the_schedule.mutex);
    auto& all = the_schedule.managers;
    auto* entry = std::find_if(all.begin(), all.end(), [](const manager_entry& candidate) {
        return candidate.handle == 0 && candidate.visitors == 0;
    });
    if (entry == all.end()) {
        return EAGAIN;
    }
    const auto number = static_cast<uint64_t>(entry - all.begin()) + 1;
    entry->handle = ++managers_made << number_bits | number;
    entry->wake_ups = 0;
    entry->name.fill('\0');
    std::strncpy(entry->name.data(), name == nullptr ? "" : name, entry->name.size() - 1);
    *manager = reinterpret_cast<vem_dm_handle>(entry->handle);
    return 0;
}

int vem_dm_wait(vem_dm_handle handle) {
    std::unique_lock lock(the_schedule.mutex);
    manager_entry* manager = the_schedule.find(value_of(handle));
    if (manager == nullptr) {
        return EINVAL;
    }
    const visit inside(*manager);
    while (manager->handle == value_of(handle)) {
        if (clock_mode() == VEM_CLOCK_MANUAL_INLINE) {
            sleep(*manager, 0, lock);
            continue;
        }
        const uint64_t due_us = the_schedule.earliest_due_us(value_of(handle));
        if (due_us <= vem_clock_now_us()) {
            return 0;
        }
        sleep(*manager, due_us, lock);
    }
    return EINVAL;
}

int vem_dm_dispatch(vem_dm_handle handle) {
    return dispatch_manager(value_of(handle));
}

int vem_dm_destroy(vem_dm_handle* manager) {
    if (manager == nullptr) {
        return EINVAL;
    }
    const std::lock_guard lock(the_schedule.mutex);
    manager_entry* entry = the_schedule.find(value_of(*manager));
    *manager = nullptr;
    if (entry == nullptr) {
        return EINVAL;
    }
    detach_wheels(entry->handle);
    entry->handle = 0;
    the_schedule.publish_horizon();
    the_schedule.progress.notify_all();
    entry->wake.notify_all();
    return 0;
}

// vem_expiry.h - the callbacks of a wheel's timers: which ones run on this thread, and running
// those that are due.
#ifndef VEM_EXPIRY_H
#define VEM_EXPIRY_H

#include <cstdint>
#include <mutex>

#include "vem_wheel_registry.h"

namespace vem {

// A callback on this thread's stack; they nest when a callback dispatches another manager.
class callback_frame {
public:
    // The shard's lock is held by the caller, and is held again once the frame is gone.
    callback_frame(wheel_entry& entry, wheel_shard& shard, uint64_t manager, vem_tw_timer* timer,
                   std::unique_lock<wheel_mutex>& lock);
    // Also runs when the callback ends its thread.
    ~callback_frame();
    callback_frame(const callback_frame&) = delete;
    callback_frame& operator=(const callback_frame&) = delete;

    // The innermost one of a timer, NULL when there is none.
    static const callback_frame* of_timer(const vem_tw_timer* timer);
    static bool any();
    static bool any_of(const wheel_entry& entry);
    static bool any_of(uint64_t manager);

    bool cancelled() const { return shard_.cancelled.load(); }
    wheel_entry& entry() const { return entry_; }
    wheel_shard& shard() const { return shard_; }

private:
    template <class accept>
    static const callback_frame* find(accept accepts);

    wheel_entry& entry_;
    wheel_shard& shard_;
    uint64_t manager_;
    vem_tw_timer* timer_;
    std::unique_lock<wheel_mutex>& lock_;
    callback_frame* outer_;
};

// Runs what is due on a wheel as long as it is attached to the manager. The caller has the
// manager's turn.
void run_due_timers(wheel_entry& entry, uint64_t manager);

}  // namespace vem

#endif

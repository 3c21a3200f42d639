// vem_mutex.h - the runtime's mutexes, each of a class of the lock order (vem_lock_order.h).
//
// Where the order is not checked they are the standard's, and nothing else.
#ifndef VEM_MUTEX_H
#define VEM_MUTEX_H

#include <mutex>

#include "vem/vem_lock_order.h"

namespace vem {

#ifdef VEM_CHECK_LOCK_ORDER

template <vem_lock_id of>
class mutex_of_class {
public:
    constexpr mutex_of_class() = default;

    void lock() {
        vem_lock_wanted(&vem_lock_classes[of], this, 0);
        mutex_.lock();
        vem_lock_taken(&vem_lock_classes[of], this, 0);
    }
    bool try_lock() {
        const bool taken = mutex_.try_lock();
        if (taken) {
            vem_lock_taken(&vem_lock_classes[of], this, 0);
        }
        return taken;
    }
    void unlock() {
        vem_lock_released(this);
        mutex_.unlock();
    }
    std::mutex::native_handle_type native_handle() { return mutex_.native_handle(); }

private:
    std::mutex mutex_;
};

// This one was tried for, and would have been awaited had it been busy.
template <vem_lock_id of>
void note_possible_wait(const mutex_of_class<of>& taken) {
    vem_lock_could_wait(&taken);
}

#else

template <vem_lock_id>
using mutex_of_class = std::mutex;

inline void note_possible_wait(const std::mutex&) {}

#endif

using clock_mutex = mutex_of_class<VEM_LOCK_TURN>;
using chunk_mutex = mutex_of_class<VEM_LOCK_CHUNK>;
using schedule_mutex = mutex_of_class<VEM_LOCK_SCHEDULE>;
using wheel_mutex = mutex_of_class<VEM_LOCK_WHEEL>;

}  // namespace vem

#endif

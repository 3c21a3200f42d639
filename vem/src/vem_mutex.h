// vem_mutex.h - the runtime's mutexes, each of a class of the lock order (vem_lock_order.h).
//
// Where the order is not checked they are plain mutexes, and nothing else: brief ones where every
// flow needs them, the standard's elsewhere.
#ifndef VEM_MUTEX_H
#define VEM_MUTEX_H

#include <mutex>

#include "vem/vem_lock_order.h"
#include "vem_brief_mutex.h"

namespace vem {

#ifdef VEM_CHECK_LOCK_ORDER

template <vem_lock_id of, class mutex>
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
    auto native_handle() { return mutex_.native_handle(); }

private:
    mutex mutex_;
};

// This one was tried for, and would have been awaited had it been busy.
template <vem_lock_id of, class mutex>
void note_possible_wait(const mutex_of_class<of, mutex>& taken) {
    vem_lock_could_wait(&taken);
}

#else

template <vem_lock_id, class mutex>
using mutex_of_class = mutex;

template <class mutex>
void note_possible_wait(const mutex&) {}

#endif

using clock_mutex = mutex_of_class<VEM_LOCK_TURN, std::mutex>;
using chunk_mutex = mutex_of_class<VEM_LOCK_CHUNK, brief_mutex>;
using schedule_mutex = mutex_of_class<VEM_LOCK_SCHEDULE, std::mutex>;
using wheel_mutex = mutex_of_class<VEM_LOCK_WHEEL, brief_mutex>;

}  // namespace vem

#endif

// obstructed_lock.h - keeps a lock of the engine from all other threads.
//
// The thread that does so goes on as if nothing were held: it can take the lock itself, and where
// the order of locks is checked it may wait for any.

#pragma once

#include <pthread.h>

#include "osal/zon_lock.h"

namespace zon_test {

inline void obstruct(zon_lock_t lock) {
    pthread_mutex_lock(static_cast<pthread_mutex_t*>(lock));
}
inline void clear_obstructed(zon_lock_t lock) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(lock));
}

}  // namespace zon_test

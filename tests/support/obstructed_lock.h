// obstructed_lock.h - keeps a lock of the engine from all other threads.
//
// The thread that does so goes on as if nothing were held: it can take the lock itself, and where
// the order of locks is checked it may wait for any.

#pragma once

#include "osal/zon_lock.h"

namespace zon_test {

inline void obstruct(zon_lock_t lock) {
    lock_detail::take(*lock_at(lock));
}
inline void clear_obstructed(zon_lock_t lock) {
    lock_detail::let_go(*lock_at(lock));
}

}  // namespace zon_test

// lock_level.h - asks how far the calling thread holds a recursive lock.

#pragma once

#include <thread>

#include "osal/zon_lock.h"

namespace zon_test {

inline bool is_free_for_others(zon_lock_t lock) {
    bool taken = false;
    std::thread other([lock, &taken] {
        taken = zon_try_lock_internal(lock);
        if (taken)
            zon_unlock_internal(lock);
    });
    other.join();
    return taken;
}

// Levels that the calling thread holds; no other thread may hold the lock.
inline int levels_held(zon_lock_t lock) {
    int levels = 0;
    for (; !is_free_for_others(lock); ++levels)
        zon_unlock_internal(lock);
    // Free, so trying is enough, and tells no race detector of an order of locks.
    for (int level = 0; level < levels; ++level)
        zon_try_lock_internal(lock);
    return levels;
}

}  // namespace zon_test

// lock_stumbles.h - lets other threads in where a thread has just let go of a lock.
//
// What must happen under one lock, and would happen under two, is told apart there.

#pragma once

#include <atomic>

namespace zon_test {

// While one of these lives, every thread of the program stumbles now and then behind an unlock. Not
// under a thread sanitizer, which finds its own way into locks.
class lock_stumbles {
public:
    lock_stumbles() { alive.fetch_add(1, std::memory_order_relaxed); }
    ~lock_stumbles() { alive.fetch_sub(1, std::memory_order_relaxed); }
    lock_stumbles(const lock_stumbles&) = delete;
    lock_stumbles& operator=(const lock_stumbles&) = delete;

    static bool wanted() { return alive.load(std::memory_order_relaxed) != 0; }

private:
    static inline constinit std::atomic<int> alive{0};
};

}  // namespace zon_test

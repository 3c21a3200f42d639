// lock_stumbles_test.cpp - the unlock function of this program, and what its tests rely on.
#include "support/lock_stumbles.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "osal/zon_lock.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZON_TEST_LOCKS_ARE_WATCHED
#endif
#elif defined(__SANITIZE_THREAD__)
#define ZON_TEST_LOCKS_ARE_WATCHED
#endif

#ifndef ZON_TEST_LOCKS_ARE_WATCHED

static constinit thread_local uint32_t unlocks = 0x9E3779B9;

static void stumble() {
    if (!zon_test::lock_stumbles::wanted())
        return;
    unlocks = unlocks * 1664525 + 1013904223;
    if (unlocks >> 26 == 0)
        sched_yield();
}

#ifdef ZON_CHECK_LOCK_ORDER
// The engine's locks.
static const bool engine_stumbles = [] {
    zon_after_unlock = stumble;
    return true;
}();
#endif

// Takes the place of the C library's: the runtime and the standard library call it.
extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    using function = int (*)(pthread_mutex_t*);
    static constinit std::atomic<function> unlock{nullptr};
    function next = unlock.load(std::memory_order_relaxed);
    if (next == nullptr) {
        next = reinterpret_cast<function>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
        unlock.store(next, std::memory_order_relaxed);
    }
    const int result = next(mutex);
    stumble();
    return result;
}

namespace zon_test {
namespace {

// Neither thread gives way otherwise, and a turn of the scheduler's own is much longer.
TEST(lock_stumbles, let_others_in_behind_an_unlock) {
    const lock_stumbles everywhere;
    std::mutex mutex;
    std::atomic<bool> seen{false};
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop) {
            const std::lock_guard hold(mutex);
            seen = true;
        }
    });
    uint32_t unlocked = 0;
    for (; !seen && unlocked < 100'000'000; ++unlocked) {
        const std::lock_guard hold(mutex);
    }
    stop = true;
    other.join();
    EXPECT_TRUE(seen) << "after " << unlocked << " unlocks";
}

}  // namespace
}  // namespace zon_test

#endif

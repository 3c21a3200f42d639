// vem_brief_mutex.cpp - how threads wait for a mutex that is mostly held for a few instructions.
//
// Locks  only itself.
#include "vem_brief_mutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace vem {

namespace {

// Who holds the mutex is done with it sooner than sleeping and waking take.
constexpr int looks_before_sleep = 200;

// Whoever gives the mutex back looks for sleepers without waiting until his store is seen
// everywhere: a thread that falls asleep in this very moment may be missed, and looks again after
// so long. Once that has passed it is seen by everybody who gives the mutex back.
constexpr timespec first_sleep{0, 200'000};
constexpr timespec later_sleep{0, 50'000'000};

}  // namespace

[[gnu::cold]] void brief_mutex::wait() {
    for (int look = 0; look < looks_before_sleep; ++look) {
        if (try_lock()) {
            return;
        }
        __builtin_ia32_pause();
    }
    sleepers_.fetch_add(1, std::memory_order_seq_cst);
    for (const timespec* longest = &first_sleep; !try_lock(); longest = &later_sleep) {
        syscall(SYS_futex, &holders_, FUTEX_WAIT_PRIVATE, 1, longest, nullptr, 0);
    }
    sleepers_.fetch_sub(1, std::memory_order_relaxed);
}

[[gnu::cold]] void brief_mutex::wake_one() {
    syscall(SYS_futex, &holders_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace vem

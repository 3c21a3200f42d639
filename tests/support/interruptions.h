// interruptions.h - lets other threads in at any instruction of a thread, many thousand times a
// second.
//
// Threads of a test meet where they call the scheduler, and elsewhere once in a few milliseconds:
// on one core hardly ever between two neighbouring instructions. While one of these lives, a timer
// signal comes to its thread again and again, and the handler gives the processor away.

#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace zon_test {

class interruptions {
public:
    explicit interruptions(uint32_t seed) : random_(seed | 1) {
        install_handler();
        struct sigevent event = {};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = signal_number;
        event._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
        // Without a timer the test runs as the scheduler likes.
        if (timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0)
            return;
        of_this_thread = this;
        arm();
    }
    // The last signal may come when the timer has gone.
    ~interruptions() {
        if (of_this_thread == this) {
            of_this_thread = nullptr;
            timer_delete(timer_);
        }
    }
    interruptions(const interruptions&) = delete;
    interruptions& operator=(const interruptions&) = delete;

private:
    static constexpr int signal_number = SIGURG;
    static constexpr uint32_t shortest_ns = 4'000;
    static constexpr uint32_t spread_ns = 60'000;

    // Armed only when the thread runs again, so that it gets somewhere in between.
    static void give_way(int) {
        const int saved_errno = errno;
        sched_yield();
        if (of_this_thread != nullptr)
            of_this_thread->arm();
        errno = saved_errno;
    }
    static void install_handler() {
        struct sigaction action = {};
        action.sa_handler = give_way;
        action.sa_flags = SA_RESTART;
        sigaction(signal_number, &action, nullptr);
    }
    void arm() {
        random_ = random_ * 1664525 + 1013904223;
        struct itimerspec next = {};
        next.it_value.tv_nsec = shortest_ns + random_ % spread_ns;
        timer_settime(timer_, 0, &next, nullptr);
    }

    static inline thread_local interruptions* of_this_thread = nullptr;
    uint32_t random_;
    timer_t timer_{};
};

}  // namespace zon_test

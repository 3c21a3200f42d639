// machine_clock.cpp - what stands between this program and the machine's clocks.

#include "endurance/machine_clock.h"

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>

extern "C" {
int __real_clock_gettime(clockid_t id, timespec* now);
int __real_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t id,
                                  const timespec* until);
int __real_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                  const timespec* until);
int __wrap_clock_gettime(clockid_t id, timespec* now);
int __wrap_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t id,
                                  const timespec* until);
int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                  const timespec* until);
}

namespace zon_test::machine_clock {
namespace {

constexpr uint64_t sec_us = 1'000'000;
constexpr uint64_t us_ns = 1000;
constexpr int64_t year_sec = 366 * 24 * 3600;

std::atomic<behaviour> present{behaviour::honest};
std::atomic<uint64_t> by_hand_us;
std::atomic<uint64_t> time_of_day_read;
std::atomic<uint64_t> monotonic_read;
std::atomic<uint64_t> time_of_day_waits;
std::atomic<uint64_t> sleepers_looks;

uint64_t us_of(const timespec& time) {
    return static_cast<uint64_t>(time.tv_sec) * sec_us +
           static_cast<uint64_t>(time.tv_nsec) / us_ns;
}
timespec timespec_of(uint64_t us) {
    return {static_cast<time_t>(us / sec_us), static_cast<long>(us % sec_us * us_ns)};
}

// Forwards, backwards, further each time, and never before the epoch.
void jump(timespec& now, uint64_t reading) {
    const auto years = static_cast<int64_t>(reading % 20);
    const int64_t jumped = now.tv_sec + (reading % 2 != 0 ? years : -years) * year_sec;
    now.tv_sec = jumped > 0 ? jumped : 0;
}

void real_monotonic(timespec* now) {
    __real_clock_gettime(CLOCK_MONOTONIC, now);
}

}  // namespace

void behave(behaviour how) {
    timespec now{};
    real_monotonic(&now);
    by_hand_us = us_of(now);
    time_of_day_read = 0;
    monotonic_read = 0;
    time_of_day_waits = 0;
    present = how;
}

void turn_by_us(uint64_t by_us) {
    by_hand_us += by_us;
}

uint64_t looks_of_sleepers() {
    return sleepers_looks;
}
uint64_t readings_of_time_of_day() {
    return time_of_day_read;
}
uint64_t readings_of_monotonic() {
    return monotonic_read;
}
uint64_t waits_by_time_of_day() {
    return time_of_day_waits;
}

namespace {

int read_monotonic(timespec* now) {
    const uint64_t reading = ++monotonic_read;
    if (present == behaviour::monotonic_by_hand) {
        *now = timespec_of(by_hand_us);
        return 0;
    }
    const int failed = __real_clock_gettime(CLOCK_MONOTONIC, now);
    if (present == behaviour::all_jump)
        jump(*now, reading);
    return failed;
}

int read_time_of_day(clockid_t id, timespec* now) {
    const uint64_t reading = ++time_of_day_read;
    const int failed = __real_clock_gettime(id, now);
    if (present != behaviour::honest)
        jump(*now, reading);
    return failed;
}

// Sleeps in short pieces until the turned clock is there or somebody wakes it.
int wait_by_hand(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* until) {
    constexpr uint64_t piece_us = 200;
    while (by_hand_us < us_of(*until)) {
        ++sleepers_looks;
        timespec now{};
        real_monotonic(&now);
        const timespec soon = timespec_of(us_of(now) + piece_us);
        const int woken = __real_pthread_cond_clockwait(cond, mutex, CLOCK_MONOTONIC, &soon);
        if (woken != ETIMEDOUT)
            return woken;
    }
    return ETIMEDOUT;
}

}  // namespace

static int timed_wait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t id,
                      const timespec* until) {
    if (id != CLOCK_MONOTONIC)
        ++time_of_day_waits;
    else if (present == behaviour::monotonic_by_hand)
        return wait_by_hand(cond, mutex, until);
    return __real_pthread_cond_clockwait(cond, mutex, id, until);
}

}  // namespace zon_test::machine_clock

using namespace zon_test::machine_clock;

int __wrap_clock_gettime(clockid_t id, timespec* now) {
    return id == CLOCK_MONOTONIC ? read_monotonic(now) : read_time_of_day(id, now);
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t id,
                                  const timespec* until) {
    return timed_wait(cond, mutex, id, until);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                  const timespec* until) {
    ++time_of_day_waits;
    return __real_pthread_cond_timedwait(cond, mutex, until);
}

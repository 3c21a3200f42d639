// vem_condition.h - a condition variable that lives in static storage and sleeps by
// CLOCK_MONOTONIC.
//
// It is never destroyed: a thread may still sleep on it while the process ends, and the destructor
// of a standard one would wait for that thread.
#ifndef VEM_CONDITION_H
#define VEM_CONDITION_H

#include <pthread.h>
#include <time.h>

#include <cstdint>
#include <mutex>

namespace vem {

class condition {
public:
    constexpr condition() = default;
    condition(const condition&) = delete;
    condition& operator=(const condition&) = delete;

    template <class mutex>
    void wait(std::unique_lock<mutex>& lock) {
        pthread_cond_wait(&cond_, lock.mutex()->native_handle());
    }

    template <class mutex>
    void wait_until(std::unique_lock<mutex>& lock, uint64_t monotonic_us) {
        timespec until{};
        until.tv_sec = static_cast<time_t>(monotonic_us / 1'000'000);
        until.tv_nsec = static_cast<long>(monotonic_us % 1'000'000) * 1000;
        pthread_cond_clockwait(&cond_, lock.mutex()->native_handle(), CLOCK_MONOTONIC, &until);
    }

    void notify_all() { pthread_cond_broadcast(&cond_); }

private:
    pthread_cond_t cond_ = PTHREAD_COND_INITIALIZER;
};

// The same for a mutex that the system knows nothing of. Who notifies holds that mutex, and takes
// the one of this condition, which nothing else is taken under.
class condition_of_brief_mutex {
public:
    constexpr condition_of_brief_mutex() = default;

    template <class mutex>
    void wait(std::unique_lock<mutex>& lock) {
        // Taken anew at the end, also when the thread is ended in its sleep.
        struct taking_anew {
            std::unique_lock<mutex>& lock;
            ~taking_anew() { lock.lock(); }
        } const at_end{lock};
        std::unique_lock sleeping(sleep_mutex_);
        lock.unlock();
        changed_.wait(sleeping);
    }
    void notify_all() {
        const std::lock_guard sleeping(sleep_mutex_);
        changed_.notify_all();
    }

private:
    std::mutex sleep_mutex_;
    condition changed_;
};

}  // namespace vem

#endif

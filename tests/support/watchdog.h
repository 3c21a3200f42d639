// watchdog.h - turns a test that hangs into one that fails and says where it hung.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

namespace zon_test {

// The thread sanitizer makes everything slower by so much.
#ifdef __SANITIZE_THREAD__
inline constexpr int slower_by = 5;
#else
inline constexpr int slower_by = 1;
#endif

// Unless it goes out of scope within the limit, it describes what hangs and stops the program.
class watchdog {
public:
    watchdog(std::chrono::seconds limit, std::function<void()> describe)
        : describe_(std::move(describe)), thread_([this, limit] { watch(limit * slower_by); }) {}
    ~watchdog() {
        {
            const std::lock_guard hold(mutex_);
            done_ = true;
        }
        changed_.notify_one();
        thread_.join();
    }
    watchdog(const watchdog&) = delete;
    watchdog& operator=(const watchdog&) = delete;

private:
    void watch(std::chrono::seconds limit) {
        const auto deadline = std::chrono::system_clock::now() + limit;
        std::unique_lock hold(mutex_);
        if (changed_.wait_until(hold, deadline, [this] { return done_; }))
            return;
        std::fprintf(stderr, "\nwatchdog: not done after %lld s\n",
                     static_cast<long long>(limit.count()));
        describe_();
        std::fflush(stderr);
        std::abort();
    }

    std::function<void()> describe_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
    std::thread thread_;
};

}  // namespace zon_test

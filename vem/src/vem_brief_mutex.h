// vem_brief_mutex.h - a mutex that is mostly held for a few instructions; longer only where a chunk
// grows or a wheel ends.
//
// Taking it costs one locked instruction and giving it back none, where a standard one costs one
// more and two calls. It is not recursive and keeps no order among those who wait.
#ifndef VEM_BRIEF_MUTEX_H
#define VEM_BRIEF_MUTEX_H

#include <atomic>
#include <cstdint>

namespace vem {

class brief_mutex {
public:
    constexpr brief_mutex() = default;
    brief_mutex(const brief_mutex&) = delete;
    brief_mutex& operator=(const brief_mutex&) = delete;

    bool try_lock() {
        uint32_t nobody = 0;
        return holders_.load(std::memory_order_relaxed) == nobody &&
               holders_.compare_exchange_strong(nobody, 1, std::memory_order_acquire,
                                                std::memory_order_relaxed);
    }
    void lock() {
        if (!try_lock()) [[unlikely]] {
            wait();
        }
    }
    void unlock() {
        holders_.store(0, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (sleepers_.load(std::memory_order_relaxed) != 0) [[unlikely]] {
            wake_one();
        }
    }

private:
    void wait();
    void wake_one();

    std::atomic<uint32_t> holders_{0};   // 0 or 1; what waiting threads sleep on
    std::atomic<uint32_t> sleepers_{0};  // threads that may have to be woken
};

}  // namespace vem

#endif

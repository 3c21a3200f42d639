// zon_lock.h - recursive locks and rows of them.
//
// A thread may take a lock that it holds and must release it as often. The engine tests no result
// of locking. Builds that check the order of locks are told what each is for, and whether the engine
// or a host holds a flow (zon_lock_order.h).

#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "osal/zon_lock_order.h"
#include "zon_engine_defs.h"

// A lock as it lies in memory, on a line of its own.
struct alignas(64) recursive_lock {
    std::atomic<uintptr_t> owner;    // the thread that holds it, 0 for none
    uint32_t depth;                  // the owner's alone
    std::atomic<uint32_t> sleepers;  // threads that may have to be woken
    std::atomic<uint32_t> wakings;   // what they sleep on
#ifdef ZON_CHECK_LOCK_ORDER
    const void* order_class;  // what the lock is for; null: not checked
    int order_entry;          // its place in a pool
#endif
};

inline recursive_lock* lock_at(zon_lock_t lock) {
    return static_cast<recursive_lock*>(lock);
}

// Memory for one lock, zero-filled; null without memory. zon_lock_init makes it a lock, free()
// releases it after zon_lock_destroy.
zon_lock_t zon_lock_allocate();
void zon_lock_init(zon_lock_t lock);
void zon_lock_destroy(zon_lock_t lock);

namespace lock_detail {

// Different for any two threads that run at one time.
inline uintptr_t this_thread() {
    uintptr_t thread;
    asm("mov %%fs:0, %0" : "=r"(thread));
    return thread;
}

// Sleeps until the lock can be had.
void wait_for(recursive_lock& lock);
void wake_one(recursive_lock& lock);

inline bool take_if_free(recursive_lock& lock, uintptr_t thread) {
    uintptr_t nobody = 0;
    if (lock.owner.load(std::memory_order_relaxed) != nobody ||
        !lock.owner.compare_exchange_strong(nobody, thread, std::memory_order_acquire,
                                            std::memory_order_relaxed))
        return false;
    lock.depth = 1;
    return true;
}

inline bool try_to_take(recursive_lock& lock) {
    const uintptr_t thread = this_thread();
    if (take_if_free(lock, thread)) [[likely]]
        return true;
    if (lock.owner.load(std::memory_order_relaxed) != thread)
        return false;
    ++lock.depth;
    return true;
}

inline void take(recursive_lock& lock) {
    if (!try_to_take(lock)) [[unlikely]]
        wait_for(lock);
}

inline int let_go(recursive_lock& lock) {
    if (lock.owner.load(std::memory_order_relaxed) != this_thread()) [[unlikely]]
        return EPERM;
    if (--lock.depth != 0)
        return 0;
    // A plain store: packets that follow need not wait until everybody has seen it.
    lock.owner.store(0, std::memory_order_release);
    if (lock.sleepers.load(std::memory_order_relaxed) != 0) [[unlikely]]
        wake_one(lock);
    return 0;
}

}  // namespace lock_detail

#ifdef ZON_CHECK_LOCK_ORDER

bool zon_try_lock_internal(zon_lock_t lock);
int zon_lock_internal(zon_lock_t lock);
int zon_unlock_internal(zon_lock_t lock);

// Called behind every release, for tests that let other threads in there; null: nothing is.
extern std::atomic<void (*)()> zon_after_unlock;

#else

// True when the lock was taken; never waits.
inline bool zon_try_lock_internal(zon_lock_t lock) {
    return lock_detail::try_to_take(*lock_at(lock));
}
// Returns 0.
inline int zon_lock_internal(zon_lock_t lock) {
    lock_detail::take(*lock_at(lock));
    return 0;
}
// 0, or EPERM for a thread that does not hold the lock: then nothing changes.
inline int zon_unlock_internal(zon_lock_t lock) {
    return lock_detail::let_go(*lock_at(lock));
}

#endif

// A row of size locks. Null without memory; the owner keeps the size.
zon_lock_pool_t zon_lock_create_pool(int size);
void zon_lock_destroy_pool(zon_lock_pool_t pool, int size);
inline zon_lock_t zon_lock_get_pool_lock(zon_lock_pool_t pool, int entry) {
    return static_cast<recursive_lock*>(pool) + entry;
}
inline int zon_lock_pool_internal(zon_lock_pool_t pool, int entry) {
    return zon_lock_internal(zon_lock_get_pool_lock(pool, entry));
}
inline int zon_unlock_pool_internal(zon_lock_pool_t pool, int entry) {
    return zon_unlock_internal(zon_lock_get_pool_lock(pool, entry));
}

// Holds one level of a lock for a scope; a null lock holds nothing.
class [[nodiscard]] held_lock {
public:
    explicit held_lock(zon_lock_t lock) : lock_(lock) {
        if (lock_ != nullptr)
            zon_lock_internal(lock_);
    }
    held_lock(held_lock&& other) noexcept : lock_(std::exchange(other.lock_, nullptr)) {}
    held_lock(const held_lock&) = delete;
    held_lock& operator=(const held_lock&) = delete;
    held_lock& operator=(held_lock&&) = delete;
    ~held_lock() { release(); }

    void release() {
        if (lock_ != nullptr)
            zon_unlock_internal(std::exchange(lock_, nullptr));
    }

private:
    zon_lock_t lock_;
};

// One flow, one level of its lock held.
class [[nodiscard]] locked_flow {
public:
    locked_flow() = default;
    // Takes over a level that is held already.
    static locked_flow adopt(zon_flow_t* flow) { return locked_flow(flow); }
    locked_flow(locked_flow&& other) noexcept : flow_(std::exchange(other.flow_, nullptr)) {}
    locked_flow& operator=(locked_flow&& other) noexcept {
        if (this != &other) {
            release();
            flow_ = std::exchange(other.flow_, nullptr);
        }
        return *this;
    }
    locked_flow(const locked_flow&) = delete;
    locked_flow& operator=(const locked_flow&) = delete;
    ~locked_flow() { release(); }

    explicit operator bool() const { return flow_ != nullptr; }
    zon_flow_t* get() const { return flow_; }
    zon_flow_t* operator->() const { return flow_; }
    zon_flow_t& operator*() const { return *flow_; }

    void release();
    // The level stays held: whoever receives the record releases it.
    zon_flow_t* hand_over() && {
        zon_flow_claim_ended(flow_);
        return std::exchange(flow_, nullptr);
    }

private:
    explicit locked_flow(zon_flow_t* flow) : flow_(flow) { zon_flow_claimed(flow); }
    zon_flow_t* flow_ = nullptr;
};

inline void locked_flow::release() {
    zon_flow_claim_ended(flow_);
    if (flow_ != nullptr)
        zon_unlock_internal(std::exchange(flow_, nullptr)->flow_lock);
}

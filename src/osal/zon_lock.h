// zon_lock.h - recursive locks and rows of them.
//
// A thread may take a lock that it holds and must release it as often. The engine tests no result
// of locking. Builds that check the order of locks are told what each is for, and whether the
// engine or a host holds a flow (zon_lock_order.h).

#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "osal/zon_lock_order.h"
#include "zon_engine_defs.h"

// A lock as it lies in memory.
struct recursive_lock {
    std::atomic<uint64_t> holder;   // who holds it and how often; 0: nobody
    std::atomic<uint32_t> waiting;  // how many may have to be woken; above: how often that was done
#ifdef ZON_CHECK_LOCK_ORDER
    int order_entry;          // its place in a pool
    const void* order_class;  // what the lock is for; null: not checked
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

// A thread is known by what its thread pointer holds above the lowest four bits, which are zero;
// the levels that it holds are counted above the pointer's 47.
constexpr int pointer_bits_dropped = 4;
constexpr uint64_t one_level = uint64_t{1} << (47 - pointer_bits_dropped);
constexpr uint64_t thread_mask = one_level - 1;

constexpr uint32_t one_sleeper = 1;
constexpr uint32_t sleepers_mask = 0xFFFF;
constexpr uint32_t one_waking = sleepers_mask + 1;

// Different for any two threads that run at one time.
inline uint64_t this_thread() {
    uint64_t pointer;
    asm("mov %%fs:0, %0" : "=r"(pointer));
    return pointer >> pointer_bits_dropped;
}

inline bool is_held_by(uint64_t holder, uint64_t thread) {
    return ((holder ^ thread) & thread_mask) == 0;
}

// Whether this thread, which holds the lock, holds it once.
inline bool is_held_once(const recursive_lock& lock) {
    return lock.holder.load(std::memory_order_relaxed) < 2 * one_level;
}

// Sleeps until the lock can be had.
void wait_for(recursive_lock& lock);
void wake_one(recursive_lock& lock);

inline bool take_if_free(recursive_lock& lock, uint64_t thread) {
    uint64_t nobody = 0;
    return lock.holder.load(std::memory_order_relaxed) == nobody &&
           lock.holder.compare_exchange_strong(
               nobody, thread + one_level, std::memory_order_acquire, std::memory_order_relaxed);
}

enum class taken { yes, no, too_often };

inline taken try_to_take(recursive_lock& lock) {
    const uint64_t thread = this_thread();
    if (take_if_free(lock, thread)) [[likely]]
        return taken::yes;
    const uint64_t holder = lock.holder.load(std::memory_order_relaxed);
    if (!is_held_by(holder, thread))
        return taken::no;
    if (holder + one_level < holder) [[unlikely]]
        return taken::too_often;
    lock.holder.store(holder + one_level, std::memory_order_relaxed);
    return taken::yes;
}

inline int take(recursive_lock& lock) {
    switch (try_to_take(lock)) {
    case taken::no:
        wait_for(lock);
        return 0;
    case taken::too_often:
        return EAGAIN;
    default:
        return 0;
    }
}

inline int let_go(recursive_lock& lock) {
    const uint64_t holder = lock.holder.load(std::memory_order_relaxed);
    if (!is_held_by(holder, this_thread())) [[unlikely]]
        return EPERM;
    const uint64_t rest = holder - one_level;
    if (rest >= one_level) {
        lock.holder.store(rest, std::memory_order_relaxed);
        return 0;
    }
    // A plain store: packets that follow need not wait until everybody has seen it.
    lock.holder.store(0, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if ((lock.waiting.load(std::memory_order_relaxed) & sleepers_mask) != 0) [[unlikely]]
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
    return lock_detail::try_to_take(*lock_at(lock)) == lock_detail::taken::yes;
}
// 0, or EAGAIN for a thread that holds the lock two million times: then nothing changes.
inline int zon_lock_internal(zon_lock_t lock) {
    return lock_detail::take(*lock_at(lock));
}
// 0, or EPERM for a thread that does not hold the lock: then nothing changes.
inline int zon_unlock_internal(zon_lock_t lock) {
    return lock_detail::let_go(*lock_at(lock));
}

#endif

// In front of a row of locks.
struct alignas(64) lock_pool_head {
    int stride_bits;  // the distance from one lock to the next
};

// A row of size locks. Null without memory; the owner keeps the size. Few locks have a line each,
// so that threads with different ones do not disturb each other; of many a thread seldom meets two,
// and four share a line.
zon_lock_pool_t zon_lock_create_pool(int size);
void zon_lock_destroy_pool(zon_lock_pool_t pool, int size);
inline zon_lock_t zon_lock_get_pool_lock(zon_lock_pool_t pool, int entry) {
    auto* head = static_cast<lock_pool_head*>(pool);
    return reinterpret_cast<char*>(head + 1) + (static_cast<size_t>(entry) << head->stride_bits);
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

// zon_lock.h - recursive locks and rows of them.
//
// A thread may take a lock that it holds and must release it as often. The engine tests no result
// of locking. Builds that check the order of locks are told what each is for, and whether the engine
// or a host holds a flow (zon_lock_order.h).

#pragma once

#include <utility>

#include "osal/zon_lock_order.h"
#include "zon_engine_defs.h"

// Memory for one lock, zero-filled; null without memory. zon_lock_init makes it a lock, free()
// releases it after zon_lock_destroy.
zon_lock_t zon_lock_allocate();
void zon_lock_init(zon_lock_t lock);
void zon_lock_destroy(zon_lock_t lock);

// Return the result of the platform, which is 0 for success.
int zon_lock_internal(zon_lock_t lock);
int zon_unlock_internal(zon_lock_t lock);
// True when the lock was taken; never waits.
bool zon_try_lock_internal(zon_lock_t lock);

// A row of size locks. Null without memory; the owner keeps the size.
zon_lock_pool_t zon_lock_create_pool(int size);
void zon_lock_destroy_pool(zon_lock_pool_t pool, int size);
zon_lock_t zon_lock_get_pool_lock(zon_lock_pool_t pool, int entry);
int zon_lock_pool_internal(zon_lock_pool_t pool, int entry);
int zon_unlock_pool_internal(zon_lock_pool_t pool, int entry);

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

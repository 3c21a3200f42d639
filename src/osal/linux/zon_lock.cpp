// zon_lock.cpp - recursive locks: how threads wait for one another.
//
// Owns   nothing: whoever asked for a lock or a row of locks keeps it and gives it back.
// Locks  all of the engine's are made here; their order is in docs/locking.md.
// Knows nothing of what a lock guards.

#include "osal/zon_lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "zon_lock_classes.h"

namespace {

// A thread that holds a flow is done with it sooner than sleeping and waking take.
constexpr int looks_before_sleep = 200;

// Whoever lets a lock go looks for sleepers without waiting until its store is seen everywhere: a
// thread that falls asleep in this very moment may be missed, and looks again after so long. Once
// that has passed it is seen by everybody who lets the lock go.
constexpr timespec first_sleep{0, 200'000};
constexpr timespec later_sleep{0, 50'000'000};

static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4);

void sleep_on(std::atomic<uint32_t>& word, uint32_t expected, const timespec& longest) {
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, expected, &longest, nullptr, 0);
}

// What is all zeros is a free lock.
void* allocate_zeros(size_t bytes) {
    void* memory = std::aligned_alloc(64, bytes);
    return memory == nullptr ? nullptr : std::memset(memory, 0, bytes);
}

constexpr int line_bits = 6;
constexpr int packed_bits = std::bit_width(sizeof(recursive_lock) - 1);
static_assert(packed_bits < line_bits);

// With so many locks two threads are rarely on one line at a time.
constexpr int fewest_packed = 4096;

}  // namespace

namespace lock_detail {

[[gnu::cold]] void wait_for(recursive_lock& lock) {
    const uint64_t thread = this_thread();
    for (int look = 0; look < looks_before_sleep; ++look) {
        if (take_if_free(lock, thread))
            return;
        __builtin_ia32_pause();
    }
    lock.waiting.fetch_add(one_sleeper, std::memory_order_seq_cst);
    for (const timespec* longest = &first_sleep;; longest = &later_sleep) {
        const uint32_t waiting = lock.waiting.load(std::memory_order_acquire);
        if (take_if_free(lock, thread))
            break;
        sleep_on(lock.waiting, waiting, *longest);
    }
    lock.waiting.fetch_sub(one_sleeper, std::memory_order_relaxed);
}

[[gnu::cold]] void wake_one(recursive_lock& lock) {
    lock.waiting.fetch_add(one_waking, std::memory_order_relaxed);
    syscall(SYS_futex, &lock.waiting, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace lock_detail

zon_lock_t zon_lock_allocate() {
    return allocate_zeros(size_t{1} << line_bits);
}

void zon_lock_init(zon_lock_t lock) {
    new (lock) recursive_lock{};
}

void zon_lock_destroy(zon_lock_t lock) {
#ifdef ZON_CHECK_LOCK_ORDER
    vem_lock_forgotten(lock);
#else
    (void)lock;
#endif
}

zon_lock_pool_t zon_lock_create_pool(int size) {
    const int stride_bits = size < fewest_packed ? line_bits : packed_bits;
    const size_t bytes = static_cast<size_t>(std::max(size, 1)) << stride_bits;
    constexpr size_t line = size_t{1} << line_bits;
    void* memory = allocate_zeros(sizeof(lock_pool_head) + (bytes + line - 1) / line * line);
    if (memory == nullptr)
        return nullptr;
    zon_lock_pool_t pool = new (memory) lock_pool_head{stride_bits};
    for (int entry = 0; entry < size; ++entry)
        zon_lock_init(zon_lock_get_pool_lock(pool, entry));
    return pool;
}

void zon_lock_destroy_pool(zon_lock_pool_t pool, int size) {
    for (int entry = 0; entry < size; ++entry)
        zon_lock_destroy(zon_lock_get_pool_lock(pool, entry));
    free(pool);
}

#ifdef ZON_CHECK_LOCK_ORDER

std::atomic<void (*)()> zon_after_unlock{nullptr};

static const vem_lock_class* class_of(const recursive_lock& lock) {
    return static_cast<const vem_lock_class*>(lock.order_class);
}

static void note_taken(const recursive_lock& lock) {
    if (lock.order_class != nullptr)
        vem_lock_taken(class_of(lock), &lock, lock.order_entry);
}

bool zon_try_lock_internal(zon_lock_t at) {
    recursive_lock& lock = *lock_at(at);
    if (lock_detail::try_to_take(lock) != lock_detail::taken::yes)
        return false;
    note_taken(lock);
    return true;
}

int zon_lock_internal(zon_lock_t at) {
    recursive_lock& lock = *lock_at(at);
    if (lock.order_class != nullptr)
        vem_lock_wanted(class_of(lock), at, lock.order_entry);
    const int result = lock_detail::take(lock);
    if (result == 0)
        note_taken(lock);
    return result;
}

int zon_unlock_internal(zon_lock_t at) {
    const int result = lock_detail::let_go(*lock_at(at));
    if (result != 0)
        return result;
    // The lock is no longer held: its memory may have gone already.
    vem_lock_released(at);
    if (const auto then = zon_after_unlock.load(std::memory_order_relaxed))
        then();
    return 0;
}

void zon_lock_set_class(zon_lock_t lock, lock_class of) {
    lock_at(lock)->order_class = zon_vem_lock_class(of);
    lock_at(lock)->order_entry = 0;
}

void zon_lock_set_class_of_pool(zon_lock_pool_t pool, int size, lock_class of) {
    for (int entry = 0; entry < size; ++entry) {
        recursive_lock* lock = lock_at(zon_lock_get_pool_lock(pool, entry));
        lock->order_class = zon_vem_lock_class(of);
        lock->order_entry = entry;
    }
}

#endif

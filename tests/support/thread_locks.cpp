// thread_locks.cpp - stands between the locks and the check of their order.

#include "support/thread_locks.h"

#ifdef ZON_CHECK_LOCK_ORDER

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>

#include "vem/vem_lock_order.h"

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

// Written by its own thread alone.
struct noted_lock {
    std::atomic<const void*> lock;  // null: none
    std::atomic<const vem_lock_class*> of;
    std::atomic<int> entry;
    std::atomic<uint32_t> levels;

    void note(const vem_lock_class* its_class, const void* which, int at) {
        of.store(its_class, relaxed);
        entry.store(at, relaxed);
        levels.store(1, relaxed);
        lock.store(which, relaxed);
    }
    void clear() { lock.store(nullptr, relaxed); }
    bool is(const void* which) const { return lock.load(relaxed) == which; }
    void add_level() { levels.store(levels.load(relaxed) + 1, relaxed); }
    // False when none is left.
    bool drop_level() {
        levels.store(levels.load(relaxed) - 1, relaxed);
        return levels.load(relaxed) != 0;
    }
};

// Of the locks beyond so many nothing is known.
struct locks_of_thread {
    std::atomic<uintptr_t> thread;  // its pthread_self(); 0: nobody's
    std::array<noted_lock, 64> held;
    noted_lock awaited;
    size_t used;  // so many of the first may be taken, for the thread itself

    noted_lock* find(const void* which) {
        noted_lock* end = held.data() + used;
        noted_lock* at = std::find_if(held.data(), end,
                                      [which](const noted_lock& each) { return each.is(which); });
        return at != end ? at : nullptr;
    }
    noted_lock* find_unused() {
        if (noted_lock* gap = find(nullptr))
            return gap;
        return used < held.size() ? &held[used++] : nullptr;
    }
    void clear(noted_lock* gone) {
        gone->clear();
        while (used != 0 && held[used - 1].is(nullptr))
            --used;
    }
};
// As many threads as the largest crew has, and some more.
constinit std::array<locks_of_thread, 300> threads{};

locks_of_thread* place_for(uintptr_t thread) {
    for (locks_of_thread& place : threads) {
        uintptr_t nobody = 0;
        if (place.thread.compare_exchange_strong(nobody, thread, std::memory_order_acquire,
                                                 relaxed))
            return &place;
    }
    return nullptr;
}

constinit thread_local locks_of_thread* own_place = nullptr;

class stay_of_thread {
public:
    stay_of_thread() { own_place = place_for(pthread_self()); }
    ~stay_of_thread() {
        locks_of_thread* place = own_place;
        own_place = nullptr;
        if (place == nullptr)
            return;
        for (noted_lock& each : place->held)
            each.clear();
        place->used = 0;
        place->awaited.clear();
        place->thread.store(0, std::memory_order_release);
    }
    stay_of_thread(const stay_of_thread&) = delete;
    stay_of_thread& operator=(const stay_of_thread&) = delete;
};

// Null where there was no place left, and for a thread on its way out.
locks_of_thread* mine() {
    static thread_local const stay_of_thread stay;
    return own_place;
}

void note_taken(const vem_lock_class* of, const void* lock, int entry) {
    locks_of_thread* own = mine();
    if (own == nullptr)
        return;
    own->awaited.clear();
    if (noted_lock* again = own->find(lock))
        again->add_level();
    else if (noted_lock* unused = own->find_unused())
        unused->note(of, lock, entry);
}

void print(const noted_lock& noted, const char* how) {
    if (noted.is(nullptr))
        return;
    const vem_lock_class* of = noted.of.load(relaxed);
    // Who waits for a signal gives the lock up meanwhile, and does not say so.
    const bool perhaps_asleep = of == &vem_lock_classes[VEM_LOCK_SCHEDULE];
    std::fprintf(stderr, "    %s %s %d at %p%s\n", how, of->name, noted.entry.load(relaxed),
                 noted.lock.load(relaxed), perhaps_asleep ? ", unless it is asleep" : "");
}

bool has_any(const locks_of_thread& of) {
    return !of.awaited.is(nullptr) ||
           std::any_of(of.held.begin(), of.held.end(),
                       [](const noted_lock& each) { return !each.is(nullptr); });
}

}  // namespace

extern "C" void __real_vem_lock_wanted(const vem_lock_class* of, const void* lock, int entry);
extern "C" void __real_vem_lock_taken(const vem_lock_class* of, const void* lock, int entry);
extern "C" void __real_vem_lock_released(const void* lock);
extern "C" void __wrap_vem_lock_wanted(const vem_lock_class* of, const void* lock, int entry);
extern "C" void __wrap_vem_lock_taken(const vem_lock_class* of, const void* lock, int entry);
extern "C" void __wrap_vem_lock_released(const void* lock);

extern "C" void __wrap_vem_lock_wanted(const vem_lock_class* of, const void* lock, int entry) {
    __real_vem_lock_wanted(of, lock, entry);
    if (locks_of_thread* own = mine(); own != nullptr && own->find(lock) == nullptr)
        own->awaited.note(of, lock, entry);
}

extern "C" void __wrap_vem_lock_taken(const vem_lock_class* of, const void* lock, int entry) {
    __real_vem_lock_taken(of, lock, entry);
    note_taken(of, lock, entry);
}

extern "C" void __wrap_vem_lock_released(const void* lock) {
    __real_vem_lock_released(lock);
    locks_of_thread* own = mine();
    if (noted_lock* noted = own != nullptr ? own->find(lock) : nullptr)
        if (!noted->drop_level())
            own->clear(noted);
}

void zon_test::print_locks_of_threads(const thread_namer& name_of) {
    for (const locks_of_thread& each : threads) {
        const uintptr_t thread = each.thread.load(relaxed);
        if (thread == 0 || !has_any(each))
            continue;
        std::fprintf(stderr, "  %s\n", name_of(thread).c_str());
        for (const noted_lock& noted : each.held)
            print(noted, "holds");
        print(each.awaited, "waits for");
    }
}

#else

void zon_test::print_locks_of_threads(const thread_namer&) {}

#endif

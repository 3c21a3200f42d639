// vem_lock_order.cpp - what each thread holds, and whether it may wait for more.
//
// Owns   one record per thread.
// Locks  none.
#include "vem/vem_lock_order.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace vem {

namespace {

struct held_lock {
    const vem_lock_class* of;
    const void* lock;
    int entry;
    uint32_t levels;
};

struct claim {
    const void* lock;
    uint32_t depth;  // how many user's functions the thread was in
};

// A row that grows at its end. A thread that needs more stops the program: nothing is forgotten.
template <class item, uint32_t capacity>
struct short_row {
    std::array<item, capacity> items;
    uint32_t count;

    item* begin() { return items.data(); }
    item* end() { return items.data() + count; }
    void push(const item& more, const char* what) {
        if (count == capacity) {
            std::fprintf(stderr, "lock order: a thread has more than %u %s\n", capacity, what);
            std::abort();
        }
        items[count++] = more;
    }
    void erase(item* gone) {
        std::copy(gone + 1, end(), gone);
        --count;
    }
    // The newest; null when none fits.
    template <class accept>
    item* find(accept accepts) {
        for (uint32_t at = count; at != 0; --at) {
            if (accepts(items[at - 1])) {
                return &items[at - 1];
            }
        }
        return nullptr;
    }
};

struct thread_record {
    short_row<held_lock, 512> held;
    short_row<claim, 256> claims;
    uint32_t depth;
};
constinit thread_local thread_record mine{};

held_lock* find_held(const void* lock) {
    return mine.held.find([lock](const held_lock& held) { return held.lock == lock; });
}

bool is_claimed(const void* lock) {
    return mine.claims.find([lock](const claim& made) {
        return made.lock == lock && made.depth == mine.depth;
    }) != nullptr;
}

bool may_wait_behind(const held_lock& held, const vem_lock_class* wanted, int entry) {
    return vem_lock_may_wait(held.of, held.entry, wanted, entry) &&
           !(held.of == wanted && wanted->siblings == VEM_LOCK_OF_USERS && is_claimed(held.lock));
}

[[gnu::cold, noreturn]] void stop(const vem_lock_class* of, const void* lock, int entry) {
    std::fprintf(stderr,
                 "lock order: a thread may not wait for\n  %s %d (step %d) at %p\nwhile it holds\n",
                 of->name, entry, of->step, lock);
    for (const held_lock& held : mine.held) {
        if (held.lock == lock) {
            continue;
        }
        std::fprintf(stderr, "  %s %d (step %d) at %p, %u deep%s%s\n", held.of->name, held.entry,
                     held.of->step, held.lock, held.levels,
                     is_claimed(held.lock) ? ", not for a user" : "",
                     may_wait_behind(held, of, entry) ? "" : "  <- in the way");
    }
    std::abort();
}

void check(const vem_lock_class* of, const void* lock, int entry) {
    for (const held_lock& held : mine.held) {
        if (held.lock != lock && !may_wait_behind(held, of, entry)) {
            stop(of, lock, entry);
        }
    }
}

}  // namespace

}  // namespace vem

using namespace vem;

const vem_lock_class vem_lock_classes[VEM_LOCK_CLASSES] = {
    {"turn of the clock", VEM_LOCK_FIRST_STEP_OF_USERS - 1, VEM_LOCK_ALONE},
    {"chunk", VEM_LOCK_LAST_STEP_OF_USERS + 1, VEM_LOCK_ALONE},
    {"schedule lock", VEM_LOCK_LAST_STEP_OF_USERS + 2, VEM_LOCK_ALONE},
    {"wheel lock", VEM_LOCK_LAST_STEP_OF_USERS + 3, VEM_LOCK_ALONE},
};

bool vem_lock_may_wait(const vem_lock_class* held, int held_entry, const vem_lock_class* wanted,
                       int wanted_entry) {
    if (held != wanted) {
        return held->step < wanted->step;
    }
    switch (wanted->siblings) {
    case VEM_LOCK_IN_ROW:
        return held_entry < wanted_entry;
    case VEM_LOCK_OF_USERS:
        return true;
    default:
        return false;
    }
}

void vem_lock_wanted(const vem_lock_class* of, const void* lock, int entry) {
    if (find_held(lock) == nullptr) {
        check(of, lock, entry);
    }
}

void vem_lock_taken(const vem_lock_class* of, const void* lock, int entry) {
    if (held_lock* held = find_held(lock)) {
        ++held->levels;
        return;
    }
    mine.held.push({of, lock, entry, 1}, "locks");
}

void vem_lock_could_wait(const void* lock) {
    const held_lock* held = find_held(lock);
    if (held != nullptr && held->levels == 1) {
        check(held->of, lock, held->entry);
    }
}

void vem_lock_released(const void* lock) {
    held_lock* held = find_held(lock);
    if (held != nullptr && --held->levels == 0) {
        mine.held.erase(held);
    }
}

void vem_lock_forgotten(const void* lock) {
    if (held_lock* held = find_held(lock)) {
        mine.held.erase(held);
    }
}

void vem_lock_claimed(const void* lock) {
    mine.claims.push({lock, mine.depth}, "claims");
}

void vem_lock_claim_ended(const void* lock) {
    claim* made = mine.claims.find([lock](const claim& candidate) {
        return candidate.lock == lock && candidate.depth == mine.depth;
    });
    if (made != nullptr) {
        mine.claims.erase(made);
    }
}

void vem_lock_user_begins(void) {
    ++mine.depth;
}

void vem_lock_user_ends(void) {
    --mine.depth;
}

// zon_lock.cpp - recursive locks on POSIX mutexes.
//
// Owns   nothing: whoever asked for a lock or a row of locks keeps it and gives it back.
// Locks  all of the engine's are made here; their order is in docs/locking.md.
// Knows nothing of what a lock guards.

#include "osal/zon_lock.h"

#include <pthread.h>

#include <cstdlib>
#include <type_traits>

#include "zon_lock_place.h"

namespace {

struct lock_memory {
    pthread_mutex_t mutex;  // first: a lock's address is its mutex's
    [[no_unique_address]] lock_place place;
};
static_assert(!std::is_empty_v<lock_place> || sizeof(lock_memory) == sizeof(pthread_mutex_t));

lock_memory* memory_of(zon_lock_t lock) {
    return static_cast<lock_memory*>(lock);
}
pthread_mutex_t* as_mutex(zon_lock_t lock) {
    return &memory_of(lock)->mutex;
}

}  // namespace

zon_lock_t zon_lock_allocate() {
    return calloc(1, sizeof(lock_memory));
}

void zon_lock_init(zon_lock_t lock) {
    pthread_mutexattr_t recursive;
    pthread_mutexattr_init(&recursive);
    pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
    // The attribute holds no resource, so that there is nothing to destroy.
    pthread_mutex_init(as_mutex(lock), &recursive);
}

void zon_lock_destroy(zon_lock_t lock) {
    lock_place::forgotten(lock);
    pthread_mutex_destroy(as_mutex(lock));
}

int zon_lock_internal(zon_lock_t lock) {
    memory_of(lock)->place.wanted(lock);
    const int result = pthread_mutex_lock(as_mutex(lock));
    if (result == 0)
        memory_of(lock)->place.taken(lock);
    return result;
}

int zon_unlock_internal(zon_lock_t lock) {
    const int result = pthread_mutex_unlock(as_mutex(lock));
    if (result == 0)
        lock_place::released(lock);
    return result;
}

bool zon_try_lock_internal(zon_lock_t lock) {
    const bool taken = pthread_mutex_trylock(as_mutex(lock)) == 0;
    if (taken)
        memory_of(lock)->place.taken(lock);
    return taken;
}

zon_lock_pool_t zon_lock_create_pool(int size) {
    const size_t count = size < 1 ? 0 : static_cast<size_t>(size);
    zon_lock_pool_t pool = calloc(count, sizeof(lock_memory));
    if (pool == nullptr)
        return nullptr;
    for (int entry = 0; entry < size; ++entry)
        zon_lock_init(zon_lock_get_pool_lock(pool, entry));
    return pool;
}

void zon_lock_destroy_pool(zon_lock_pool_t pool, int size) {
    for (int entry = 0; entry < size; ++entry)
        zon_lock_destroy(zon_lock_get_pool_lock(pool, entry));
    free(pool);
}

zon_lock_t zon_lock_get_pool_lock(zon_lock_pool_t pool, int entry) {
    return memory_of(pool) + entry;
}

int zon_lock_pool_internal(zon_lock_pool_t pool, int entry) {
    return zon_lock_internal(zon_lock_get_pool_lock(pool, entry));
}

int zon_unlock_pool_internal(zon_lock_pool_t pool, int entry) {
    return zon_unlock_internal(zon_lock_get_pool_lock(pool, entry));
}

#ifdef ZON_CHECK_LOCK_ORDER

void zon_lock_set_class(zon_lock_t lock, lock_class of) {
    memory_of(lock)->place = {zon_vem_lock_class(of), 0};
}

void zon_lock_set_class_of_pool(zon_lock_pool_t pool, int size, lock_class of) {
    for (int entry = 0; entry < size; ++entry)
        memory_of(pool)[entry].place = {zon_vem_lock_class(of), entry};
}

#endif

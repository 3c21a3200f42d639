// zon_lock.cpp - recursive locks on POSIX mutexes.
//
// Owns   nothing: whoever asked for a lock or a row of locks keeps it and gives it back.
// Locks  all of the engine's are made here; their order is in docs/locking.md.
// Knows nothing of what a lock guards.

#include "osal/zon_lock.h"

#include <pthread.h>

#include <cstdlib>

static pthread_mutex_t* as_mutex(zon_lock_t lock) {
    return static_cast<pthread_mutex_t*>(lock);
}

zon_lock_t zon_lock_allocate() {
    return calloc(1, sizeof(pthread_mutex_t));
}

void zon_lock_init(zon_lock_t lock) {
    pthread_mutexattr_t recursive;
    pthread_mutexattr_init(&recursive);
    pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
    // The attribute holds no resource, so that there is nothing to destroy.
    pthread_mutex_init(as_mutex(lock), &recursive);
}

void zon_lock_destroy(zon_lock_t lock) {
    pthread_mutex_destroy(as_mutex(lock));
}

int zon_lock_internal(zon_lock_t lock) {
    return pthread_mutex_lock(as_mutex(lock));
}

int zon_unlock_internal(zon_lock_t lock) {
    return pthread_mutex_unlock(as_mutex(lock));
}

bool zon_try_lock_internal(zon_lock_t lock) {
    return pthread_mutex_trylock(as_mutex(lock)) == 0;
}

zon_lock_pool_t zon_lock_create_pool(int size) {
    const size_t count = size < 1 ? 0 : static_cast<size_t>(size);
    zon_lock_pool_t pool = calloc(count, sizeof(pthread_mutex_t));
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
    return as_mutex(pool) + entry;
}

int zon_lock_pool_internal(zon_lock_pool_t pool, int entry) {
    return zon_lock_internal(zon_lock_get_pool_lock(pool, entry));
}

int zon_unlock_pool_internal(zon_lock_pool_t pool, int entry) {
    return zon_unlock_internal(zon_lock_get_pool_lock(pool, entry));
}

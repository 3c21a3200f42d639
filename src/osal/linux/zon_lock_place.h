// zon_lock_place.h - where a lock stands in the order of locks, kept beside its mutex; in builds that
// do not check the order it is nothing.

#pragma once

#include "osal/zon_lock_order.h"

#ifdef ZON_CHECK_LOCK_ORDER

#include "vem/vem_lock_order.h"

const vem_lock_class* zon_vem_lock_class(lock_class of);

struct lock_place {
    const vem_lock_class* of;  // null: not checked
    int entry;

    void wanted(const void* lock) const {
        if (of != nullptr)
            vem_lock_wanted(of, lock, entry);
    }
    void taken(const void* lock) const {
        if (of != nullptr)
            vem_lock_taken(of, lock, entry);
    }
    // The lock is no longer held: its memory may have gone already.
    static void released(const void* lock) { vem_lock_released(lock); }
    static void forgotten(const void* lock) { vem_lock_forgotten(lock); }
};

#else

struct lock_place {
    static void wanted(const void*) {}
    static void taken(const void*) {}
    static void released(const void*) {}
    static void forgotten(const void*) {}
};

#endif

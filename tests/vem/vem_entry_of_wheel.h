// vem_entry_of_wheel.h - where a wheel's shards are.
#ifndef VEM_ENTRY_OF_WHEEL_H
#define VEM_ENTRY_OF_WHEEL_H

#include <gtest/gtest.h>

#include <cstdint>

#include "vem/src/vem_wheel_registry.h"

inline vem::wheel_entry& entry_of(vem_tw_wheel wheel) {
    for (uint32_t number = 1; number <= vem::wheels_in_use(); ++number) {
        if (vem::wheel_at(number).handle.load() == reinterpret_cast<uintptr_t>(wheel)) {
            return vem::wheel_at(number);
        }
    }
    ADD_FAILURE() << "no entry has the handle";
    return vem::wheel_at(1);
}

// The calling thread starts timers as one that has found the wheel's first shard busy.
inline void leave_first_shard(vem_tw_wheel wheel) {
    EXPECT_NE(vem::settle_in_home_shard(entry_of(wheel), reinterpret_cast<uintptr_t>(wheel)), 0U);
}

#endif

// failing_requests.h - lets chosen requests of the engine for memory, records and threads fail.
//
// The program is linked so that every such request of the code in it comes here first
// (tests/CMakeLists.txt): the heap in all its forms, the records of the engine's chunks,
// threads, and places in the runtime's tables of managers and wheels. What the system's libraries
// ask for on their own is not touched.

#pragma once

#include <array>
#include <cstdint>

#include "osal/zon_mem.h"

namespace zon_faults {

// Which requests fail, counted from 0: one, or that one and all after it.
struct plan {
    int64_t first = -1;  // -1: none
    bool onwards = false;
};

// What has been asked for while a plan was in force.
struct account {
    int64_t requests = 0;
    int64_t refused = 0;
    // Records that the engine asked for and did not get, for whichever reason, by zon_memory_type.
    std::array<uint32_t, ZON_MEM_TYPE_MAX> records_refused{};
};

// A plan is in force while it lives. One at a time.
class plan_in_force {
public:
    explicit plan_in_force(plan chosen);
    ~plan_in_force();
    plan_in_force(const plan_in_force&) = delete;
    plan_in_force& operator=(const plan_in_force&) = delete;

    account so_far() const;
};

// While it lives, heap blocks that are asked for are remembered until they are freed, whenever that
// is. What a test asks for on its own account stays outside.
class remembered_blocks {
public:
    remembered_blocks();
    ~remembered_blocks();
    remembered_blocks(const remembered_blocks&) = delete;
    remembered_blocks& operator=(const remembered_blocks&) = delete;

    // Blocks that were remembered and have not been freed.
    static int64_t left();
    static void forget_all();
};

}  // namespace zon_faults

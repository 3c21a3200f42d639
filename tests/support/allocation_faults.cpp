// allocation_faults.cpp - stands between the engine's units and their table memory.

#include "allocation_faults.h"

#include <atomic>
#include <cstddef>

namespace {

constexpr int never = -1;
std::atomic<int> requests_left = never;
std::atomic<bool> failed = false;

}  // namespace

// The names that the linker gives to the replaced and to the original zon_heap_zalloc(size_t, size_t).
extern "C" void* __real__Z15zon_heap_zallocmm(size_t count, size_t size);
extern "C" void* __wrap__Z15zon_heap_zallocmm(size_t count, size_t size);

extern "C" void* __wrap__Z15zon_heap_zallocmm(size_t count, size_t size) {
    if (requests_left.load() != never && requests_left.fetch_sub(1) == 0) {
        requests_left = never;
        failed = true;
        return nullptr;
    }
    return __real__Z15zon_heap_zallocmm(count, size);
}

namespace zon_test {

failing_table_memory::failing_table_memory(int after_requests) {
    failed = false;
    requests_left = after_requests;
}
failing_table_memory::~failing_table_memory() { requests_left = never; }

bool failing_table_memory::has_failed() const { return failed; }

}  // namespace zon_test

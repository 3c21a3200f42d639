// allocation_faults.cpp - stands between the engine's units and their memory.

#include "allocation_faults.h"

#include <atomic>
#include <cstddef>
#include <new>

namespace {

constexpr int never = -1;
std::atomic<int> requests_left = never;
std::atomic<bool> failed = false;

constinit thread_local bool objects_fail = false;
constinit thread_local int objects_failed = 0;

}  // namespace

// The names that the linker gives to the replaced and to the original zon_heap_zalloc(size_t,
// size_t).
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

// The same of operator new(size_t): the original one stays that of the library, or of a sanitizer.
extern "C" void* __real__Znwm(size_t size);
extern "C" void* __wrap__Znwm(size_t size);

extern "C" void* __wrap__Znwm(size_t size) {
    if (objects_fail) {
        ++objects_failed;
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}

namespace zon_test {

failing_table_memory::failing_table_memory(int after_requests) {
    failed = false;
    requests_left = after_requests;
}
failing_table_memory::~failing_table_memory() {
    requests_left = never;
}

bool failing_table_memory::has_failed() const {
    return failed;
}

failing_operator_new::failing_operator_new() {
    objects_failed = 0;
    objects_fail = true;
}
failing_operator_new::~failing_operator_new() {
    objects_fail = false;
}

int failing_operator_new::times_failed() const {
    return objects_failed;
}

}  // namespace zon_test

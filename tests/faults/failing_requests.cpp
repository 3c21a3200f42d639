// failing_requests.cpp - stands between the program's code and the system's memory and threads.
//
// Locks  one mutex for the remembered blocks, innermost.

#include "failing_requests.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <new>

#include "vem/vem_dm.h"
#include "vem/vem_tw.h"

namespace {

std::atomic<bool> counting = false;
std::atomic<int64_t> first_refused = -1;
std::atomic<bool> refuses_onwards = false;
std::atomic<int64_t> requests = 0;
std::atomic<int64_t> refused = 0;
std::array<std::atomic<uint32_t>, ZON_MEM_TYPE_MAX> records_refused{};

bool is_refused() {
    if (!counting)
        return false;
    const int64_t number = requests.fetch_add(1);
    const int64_t first = first_refused;
    const bool refuse = first >= 0 && (number == first || (refuses_onwards && number > first));
    refused += refuse ? 1 : 0;
    return refuse;
}

constexpr size_t most_blocks = 4096;
std::atomic<bool> remembering = false;
std::mutex blocks_mutex;
std::array<void*, most_blocks> blocks;
std::atomic<size_t> block_count = 0;

void* remember(void* block) {
    if (!remembering || block == nullptr)
        return block;
    const std::lock_guard hold(blocks_mutex);
    if (block_count == most_blocks)
        abort();  // a scenario that is larger than the list checks nothing
    blocks.at(block_count++) = block;
    return block;
}

// The newest blocks tend to go first.
void forget(void* block) {
    if (block == nullptr || block_count == 0)
        return;
    const std::lock_guard hold(blocks_mutex);
    for (size_t place = block_count; place-- > 0;)
        if (blocks.at(place) == block) {
            blocks.at(place) = blocks.at(--block_count);
            return;
        }
}

}  // namespace

// ---- the names that the linker gives to what is replaced, and to the originals ----

#define ZON_REPLACED(result, name, ...)           \
    extern "C" result __real_##name(__VA_ARGS__); \
    extern "C" result __wrap_##name(__VA_ARGS__); \
    extern "C" result __wrap_##name(__VA_ARGS__)

ZON_REPLACED(void*, malloc, size_t size) {
    return is_refused() ? nullptr : remember(__real_malloc(size));
}

ZON_REPLACED(void*, calloc, size_t count, size_t size) {
    return is_refused() ? nullptr : remember(__real_calloc(count, size));
}

ZON_REPLACED(void*, realloc, void* old_block, size_t size) {
    if (is_refused())
        return nullptr;
    forget(old_block);
    return remember(__real_realloc(old_block, size));
}

ZON_REPLACED(void*, aligned_alloc, size_t alignment, size_t size) {
    return is_refused() ? nullptr : remember(__real_aligned_alloc(alignment, size));
}

ZON_REPLACED(void, free, void* block) {
    forget(block);
    __real_free(block);
}

// operator new(size_t) and its array form.
ZON_REPLACED(void*, _Znwm, size_t size) {
    if (is_refused())
        throw std::bad_alloc();
    return remember(__real__Znwm(size));
}

ZON_REPLACED(void*, _Znam, size_t size) {
    if (is_refused())
        throw std::bad_alloc();
    return remember(__real__Znam(size));
}

// operator new(size_t, nothrow), plain, array and aligned.
ZON_REPLACED(void*, _ZnwmRKSt9nothrow_t, size_t size, const std::nothrow_t& tag) {
    return is_refused() ? nullptr : remember(__real__ZnwmRKSt9nothrow_t(size, tag));
}

ZON_REPLACED(void*, _ZnamRKSt9nothrow_t, size_t size, const std::nothrow_t& tag) {
    return is_refused() ? nullptr : remember(__real__ZnamRKSt9nothrow_t(size, tag));
}

ZON_REPLACED(void*, _ZnwmSt11align_val_tRKSt9nothrow_t, size_t size, std::align_val_t alignment,
             const std::nothrow_t& tag) {
    return is_refused() ? nullptr
                        : remember(__real__ZnwmSt11align_val_tRKSt9nothrow_t(size, alignment, tag));
}

// operator delete: plain and array, with and without the size, aligned.
ZON_REPLACED(void, _ZdlPv, void* block) {
    forget(block);
    __real__ZdlPv(block);
}

ZON_REPLACED(void, _ZdlPvm, void* block, size_t size) {
    forget(block);
    __real__ZdlPvm(block, size);
}

ZON_REPLACED(void, _ZdaPv, void* block) {
    forget(block);
    __real__ZdaPv(block);
}

ZON_REPLACED(void, _ZdlPvmSt11align_val_t, void* block, size_t size, std::align_val_t alignment) {
    forget(block);
    __real__ZdlPvmSt11align_val_t(block, size, alignment);
}

ZON_REPLACED(int, pthread_create, pthread_t* id, const pthread_attr_t* attributes,
             void* (*entry)(void*), void* argument) {
    return is_refused() ? EAGAIN : __real_pthread_create(id, attributes, entry, argument);
}

// Managers and the wheels of a manager stand in tables that may be full.
ZON_REPLACED(int, vem_dm_create, vem_dm_handle* manager, const char* name, int flags) {
    return is_refused() ? EAGAIN : __real_vem_dm_create(manager, name, flags);
}

ZON_REPLACED(int, vem_tw_attach_vdm, vem_tw_wheel wheel, vem_dm_handle manager) {
    return is_refused() ? EAGAIN : __real_vem_tw_attach_vdm(wheel, manager);
}

// zon_private_chunk_malloc: every record of the engine, from a stack of ready ones or from a chunk.
ZON_REPLACED(void*, _Z24zon_private_chunk_malloc15zon_memory_typePv, zon_memory_type type,
             void* chunks) {
    void* record = is_refused()
                       ? nullptr
                       : __real__Z24zon_private_chunk_malloc15zon_memory_typePv(type, chunks);
    if (record == nullptr && counting)
        ++records_refused.at(static_cast<size_t>(type));
    return record;
}

// Several of them, each of which may be refused.
ZON_REPLACED(uint32_t, _Z29zon_private_chunk_malloc_many15zon_memory_typePPvjS0_,
             zon_memory_type type, void** records, uint32_t wanted, void* chunks) {
    uint32_t taken = 0;
    while (taken < wanted &&
           (records[taken] =
                __wrap__Z24zon_private_chunk_malloc15zon_memory_typePv(type, chunks)) != nullptr)
        ++taken;
    return taken;
}

#undef ZON_REPLACED

namespace zon_faults {

plan_in_force::plan_in_force(plan chosen) {
    first_refused = chosen.first;
    refuses_onwards = chosen.onwards;
    requests = 0;
    refused = 0;
    for (auto& count : records_refused)
        count = 0;
    counting = true;
}

plan_in_force::~plan_in_force() {
    counting = false;
}

account plan_in_force::so_far() const {
    account result{requests, refused, {}};
    std::copy(records_refused.begin(), records_refused.end(), result.records_refused.begin());
    return result;
}

remembered_blocks::remembered_blocks() {
    remembering = true;
}
remembered_blocks::~remembered_blocks() {
    remembering = false;
}
int64_t remembered_blocks::left() {
    return static_cast<int64_t>(block_count.load());
}
void remembered_blocks::forget_all() {
    block_count = 0;
}

}  // namespace zon_faults

// record_census.cpp - stands between the engine's units and their chunks.

#include "record_census.h"

#include <algorithm>
#include <array>
#include <atomic>

#include "osal/zon_mem.h"
#include "vem/vem_mem_chunk.h"

namespace {

// Relaxed counting: the chunks' own locks are the only order that threads see.
struct counted_chunk {
    std::atomic<vem_chunk_type> chunk = nullptr;
    std::atomic<int64_t> in_use = 0;
};
std::array<counted_chunk, 64> counted;

counted_chunk* entry_of(vem_chunk_type chunk) {
    for (counted_chunk& entry : counted)
        if (entry.chunk.load(std::memory_order_relaxed) == chunk)
            return &entry;
    return nullptr;
}

void count(vem_chunk_type chunk, int64_t by) {
    if (counted_chunk* entry = chunk != nullptr ? entry_of(chunk) : nullptr)
        entry->in_use.fetch_add(by, std::memory_order_relaxed);
}

int64_t ready_of(int32_t on_stack, zon_memory_type type) {
    return on_stack + int64_t{zon_mem_waiting_in_lanes(type)};
}

int64_t in_use_of(vem_chunk_type chunk, int64_t ready) {
    const counted_chunk* entry = chunk != nullptr ? entry_of(chunk) : nullptr;
    return entry != nullptr ? entry->in_use.load(std::memory_order_relaxed) - ready : 0;
}

constexpr int never = -1;
std::atomic<int> requests_left = never;
std::atomic<bool> failed = false;

bool is_to_fail() {
    if (requests_left.load(std::memory_order_relaxed) == never || requests_left.fetch_sub(1) != 0)
        return false;
    requests_left = never;
    failed = true;
    return true;
}

}  // namespace

extern "C" vem_chunk_type __real_vem_mem_chunk_create(size_t size, uint32_t step, int a, int b,
                                                      int c, const char* name);
extern "C" void* __real_vem_mem_chunk_malloc(vem_chunk_type chunk);
extern "C" bool __real_vem_mem_chunk_free(vem_chunk_type chunk, void* element);
extern "C" bool __real_vem_mem_chunk_destroy(vem_chunk_type chunk);
extern "C" vem_chunk_type __wrap_vem_mem_chunk_create(size_t size, uint32_t step, int a, int b,
                                                      int c, const char* name);
extern "C" void* __wrap_vem_mem_chunk_malloc(vem_chunk_type chunk);
extern "C" bool __wrap_vem_mem_chunk_free(vem_chunk_type chunk, void* element);
extern "C" bool __wrap_vem_mem_chunk_destroy(vem_chunk_type chunk);
extern "C" uint32_t __wrap_vem_mem_chunk_malloc_many(vem_chunk_type chunk, void** records,
                                                     uint32_t wanted);
extern "C" bool __wrap_vem_mem_chunk_free_many(vem_chunk_type chunk, void* const* elements,
                                               uint32_t number);

extern "C" vem_chunk_type __wrap_vem_mem_chunk_create(size_t size, uint32_t step, int a, int b,
                                                      int c, const char* name) {
    const vem_chunk_type chunk = __real_vem_mem_chunk_create(size, step, a, b, c, name);
    if (counted_chunk* entry = chunk != nullptr ? entry_of(nullptr) : nullptr) {
        entry->in_use = 0;
        entry->chunk = chunk;
    }
    return chunk;
}

extern "C" void* __wrap_vem_mem_chunk_malloc(vem_chunk_type chunk) {
    void* element = is_to_fail() ? nullptr : __real_vem_mem_chunk_malloc(chunk);
    count(chunk, element != nullptr ? 1 : 0);
    return element;
}

extern "C" bool __wrap_vem_mem_chunk_free(vem_chunk_type chunk, void* element) {
    const bool freed = __real_vem_mem_chunk_free(chunk, element);
    count(chunk, freed ? -1 : 0);
    return freed;
}

// Several are asked for one by one, so that each can fail.
extern "C" uint32_t __wrap_vem_mem_chunk_malloc_many(vem_chunk_type chunk, void** records,
                                                     uint32_t wanted) {
    uint32_t taken = 0;
    while (taken < wanted && (records[taken] = __wrap_vem_mem_chunk_malloc(chunk)) != nullptr)
        ++taken;
    return taken;
}

extern "C" bool __wrap_vem_mem_chunk_free_many(vem_chunk_type chunk, void* const* elements,
                                               uint32_t number) {
    return std::all_of(elements, elements + number, [chunk](void* element) {
        return __wrap_vem_mem_chunk_free(chunk, element);
    });
}

extern "C" bool __wrap_vem_mem_chunk_destroy(vem_chunk_type chunk) {
    if (counted_chunk* entry = chunk != nullptr ? entry_of(chunk) : nullptr)
        entry->chunk = nullptr;
    return __real_vem_mem_chunk_destroy(chunk);
}

namespace zon_test {

failing_record_memory::failing_record_memory(int after_requests) {
    failed = false;
    requests_left = after_requests;
}
failing_record_memory::~failing_record_memory() {
    requests_left = never;
}

bool failing_record_memory::has_failed() const {
    return failed;
}

records_in_use records_in_use::of(const zon_chunk_mem_t& chunks) {
    records_in_use in_use;
    in_use.ipv4_half_flows =
        in_use_of(chunks.zon_ipv4_half_flow_mem,
                  ready_of(zon_private_ipv4_flow_mem_buffer_count, ZON_IPV4_HALF_FLOW_MEM_TYPE));
    in_use.ipv6_half_flows =
        in_use_of(chunks.zon_ipv6_half_flow_mem,
                  ready_of(zon_private_ipv6_flow_mem_buffer_count, ZON_IPV6_HALF_FLOW_MEM_TYPE));
    in_use.feature_objects = in_use_of(chunks.zon_flow_fo_mem, 0);
    in_use.super_contexts = in_use_of(chunks.zon_super_ctx_mem, 0);
    in_use.list_elements = in_use_of(chunks.zon_flow_list_mem, 0);
    return in_use;
}

}  // namespace zon_test

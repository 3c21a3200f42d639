// zon_heap.cpp - memory for tables and arrays, from the general heap.
//
// Owns   whether huge pages are wanted; of memory nothing: who asked frees it.
// Locks  none.

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "osal/zon_mem.h"
#include "vem/vem_mem_chunk.h"

namespace {

constexpr size_t huge_page = size_t{2} << 20;

// Written while no engine is being made, by the thread that makes it next.
bool huge_pages_wanted = false;

// Without huge pages of the system's the memory is as good, only slower. Null when it cannot be had
// in this way.
void* in_huge_pages(size_t count, size_t size) {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes) || bytes < huge_page ||
        bytes > SIZE_MAX - huge_page)
        return nullptr;
    bytes = (bytes + huge_page - 1) / huge_page * huge_page;
    void* memory = std::aligned_alloc(huge_page, bytes);
    if (memory == nullptr)
        return nullptr;
    madvise(memory, bytes, MADV_HUGEPAGE);
    return std::memset(memory, 0, bytes);
}

}  // namespace

void* zon_heap_zalloc(size_t count, size_t size) {
    if (huge_pages_wanted)
        if (void* memory = in_huge_pages(count, size))
            return memory;
    return calloc(count, size);
}

void zon_mem_use_huge_pages(bool wanted) {
    huge_pages_wanted = wanted;
    vem_mem_use_huge_pages(wanted);
}

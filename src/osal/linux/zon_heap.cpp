// zon_heap.cpp - memory for tables and arrays, from the general heap.
//
// Owns   nothing: who asked frees it.
// Locks  none.

#include <cstdlib>

#include "osal/zon_mem.h"

void* zon_heap_zalloc(size_t count, size_t size) {
    return calloc(count, size);
}

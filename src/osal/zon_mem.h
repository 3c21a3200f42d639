// zon_mem.h - the six chunks that every per-flow record comes from, and the stacks of ready records
// before three of them.
//
// Threads    zon_private_chunk_malloc and zon_private_chunk_free may run on any thread, each kind
//            under a short lock of its own; creation and destruction run on one control thread.

#pragma once

#include "zon_engine_defs.h"

enum zon_memory_type : int32_t {
    ZON_IPV4_HALF_FLOW_MEM_TYPE = 1,
    ZON_IPV6_HALF_FLOW_MEM_TYPE = 2,
    ZON_FLOW_MEM_TYPE = 3,
    ZON_SUPER_CTX_MEM_TYPE = 4,
    ZON_FLOW_LIST_ELEMENT_MEM_TYPE = 5,
    ZON_FLOW_FO_MEM_TYPE = 6,
    ZON_MEM_TYPE_MAX = 7
};

// Sizes of the records that the platform has no declaration of.
#ifdef ZON_CHECK_LOCK_ORDER
inline constexpr size_t zon_flow_record_size = 384;  // its lock knows what it is for
#else
inline constexpr size_t zon_flow_record_size = 320;
#endif
inline constexpr size_t zon_super_context_size = 288;
inline constexpr size_t zon_flow_list_element_size = 16;

// Stacks of ready elements: the array, how many are on it now, and how many creation placed there.
extern void** zon_private_ipv4_flow_mem_buffer;
extern int32_t zon_private_ipv4_flow_mem_buffer_count;
extern int32_t zon_private_ipv4_flow_mem_buffer_count_init;
extern void** zon_private_ipv6_flow_mem_buffer;
extern int32_t zon_private_ipv6_flow_mem_buffer_count;
extern int32_t zon_private_ipv6_flow_mem_buffer_count_init;
extern void** zon_private_flow_mem_buffer;
extern int32_t zon_private_flow_mem_buffer_count;
extern int32_t zon_private_flow_mem_buffer_count_init;

bool zon_mem_chunk_create(uint32_t max_mem_buffer_init, zon_chunk_mem_t* chunk_ptr,
                          uint32_t create_chunk_elements);
bool zon_mem_chunk_destroy(zon_chunk_mem_t* chunk_ptr);

// Straight to and from the chunk of the type.
void* zon_mem_chunk_malloc(zon_memory_type mem_type, void* chunk_ptr);
bool zon_mem_chunk_free(void* data, zon_memory_type mem_type, void* chunk_ptr);

// The stack of the type first, where it has one.
void* zon_private_chunk_malloc(zon_memory_type mem_type, void* chunk_ptr);
bool zon_private_chunk_free(zon_memory_type mem_type, void* data, void* chunk_ptr);

// Several at once under one lock. The first tells how many there were; the second is false when the
// elements, none of which is null, or some of them were refused.
uint32_t zon_private_chunk_malloc_many(zon_memory_type mem_type, void** records, uint32_t wanted,
                                       void* chunk_ptr);
bool zon_private_chunk_free_many(zon_memory_type mem_type, void* const* records, uint32_t count,
                                 void* chunk_ptr);

// How many elements of the type threads keep ready for themselves (osal/zon_lanes.h). They are
// handed out when there is no other memory.
uint32_t zon_mem_waiting_in_lanes(zon_memory_type mem_type);
// Gives them back to where all threads find them.
void zon_mem_gather_lanes();

// Gives an element back and traces a refusal; the element is lost then.
void zon_private_chunk_free_or_trace(zon_memory_type mem_type, void* data, void* chunk_ptr,
                                     const char* file = __builtin_FILE(),
                                     int line = __builtin_LINE());

// Zero-filled memory from the general heap, for tables and arrays; released with free().
void* zon_heap_zalloc(size_t count, size_t size);

// Whether large tables and the chunks' memory are asked for in huge pages from now on.
void zon_mem_use_huge_pages(bool wanted);

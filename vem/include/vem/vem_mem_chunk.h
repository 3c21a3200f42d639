/* vem_mem_chunk.h - chunks: pools of records of one size.
 *
 * A chunk takes memory from the heap in pieces that grow up to some megabytes and gives none back
 * before it is destroyed, so that a record once handed out stays readable memory of that chunk.
 * Records of a piece lie side by side and are first handed out in the order of their addresses; the
 * record freed last is handed out next.
 *
 * Threads    any thread; a chunk locks itself. Nobody uses a chunk that is being destroyed.
 * Ownership  who gets a record owns it until it is freed; destruction frees the records that are
 *            still out.
 * Errors     NULL or false; a NULL chunk gives NULL or false.
 */
#ifndef VEM_MEM_CHUNK_H
#define VEM_MEM_CHUNK_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VEM_CHUNK_TYPE_DEFINED
#define VEM_CHUNK_TYPE_DEFINED
typedef struct vem_chunk_* vem_chunk_type;
#endif

/* Creates a chunk of records of element_size bytes (rounded up to a multiple of 8, at least 8),
 * aligned to 8. It grows by at least create_elements records at a time (0 counts as 1), not before
 * the first one is asked for. The name is for people who debug and may be NULL; the three integers
 * are ignored. NULL when the sizes overflow or there is no memory. */
vem_chunk_type vem_mem_chunk_create(size_t element_size, uint32_t create_elements, int unused1,
                                    int unused2, int unused3, const char* name);

/* A record with arbitrary content, or NULL when the heap is exhausted. */
void* vem_mem_chunk_malloc(vem_chunk_type chunk);

/* Several at once, the first in records[0]; tells how many there were, fewer than count when the
 * heap is exhausted. */
uint32_t vem_mem_chunk_malloc_many(vem_chunk_type chunk, void** records, uint32_t count);

/* Takes back a record of this chunk; false for NULL. */
bool vem_mem_chunk_free(vem_chunk_type chunk, void* element);

/* Takes back several, as if one after another; false, and none is taken, when one of them is
 * NULL. */
bool vem_mem_chunk_free_many(vem_chunk_type chunk, void* const* elements, uint32_t count);

/* Gives all memory back to the heap. */
bool vem_mem_chunk_destroy(vem_chunk_type chunk);

/* Asks the system for huge pages (2 MiB) for the memory that chunks take from now on; off at load.
 * The system may not give any. */
void vem_mem_use_huge_pages(bool wanted);

#ifdef __cplusplus
}
#endif

#endif

// zon_mem.cpp - the six memory chunks, and the stacks of ready records before three of them.
//
// Owns   the stacks: three arrays and the records that are on them.
// Locks  one mutex per memory type around its stack; taking a record off and putting one on call
//        nothing under it. Only creation and destruction call the runtime with it held. Chunks lock
//        themselves.
// Knows the sizes of the records, not their content.

#include "osal/zon_mem.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <mutex>
#include <utility>

#include "osal/zon_debug.h"
#include "osal/zon_lock_order.h"
#include "vem/vem_mem_chunk.h"
#include "zon_relaxed.h"

void** zon_private_ipv4_flow_mem_buffer;
int32_t zon_private_ipv4_flow_mem_buffer_count;
int32_t zon_private_ipv4_flow_mem_buffer_count_init;
void** zon_private_ipv6_flow_mem_buffer;
int32_t zon_private_ipv6_flow_mem_buffer_count;
int32_t zon_private_ipv6_flow_mem_buffer_count_init;
void** zon_private_flow_mem_buffer;
int32_t zon_private_flow_mem_buffer_count;
int32_t zon_private_flow_mem_buffer_count_init;

namespace {

// What the six chunks are made with, in the order of their memory types, which is also the order of
// their creation.
struct chunk_row {
    zon_memory_type type;
    vem_chunk_type zon_chunk_mem_t::*handle;
    size_t element_size;
    const char* name;
};

constexpr chunk_row chunk_rows[] = {
    {ZON_IPV4_HALF_FLOW_MEM_TYPE, &zon_chunk_mem_t::zon_ipv4_half_flow_mem,
     sizeof(zon_ipv4_half_flow_t), "ZON Data Path IPV4 Half Flow Memory Chunk"},
    {ZON_IPV6_HALF_FLOW_MEM_TYPE, &zon_chunk_mem_t::zon_ipv6_half_flow_mem,
     sizeof(zon_ipv6_half_flow_t), "ZON Data Path IPV6 Half Flow Memory Chunk"},
    {ZON_FLOW_MEM_TYPE, &zon_chunk_mem_t::zon_flow_mem, zon_flow_record_size,
     "ZON Data Path Flow Memory Chunk"},
    {ZON_SUPER_CTX_MEM_TYPE, &zon_chunk_mem_t::zon_super_ctx_mem, zon_super_context_size,
     "ZON Data Path Super Context Memory Chunk"},
    {ZON_FLOW_LIST_ELEMENT_MEM_TYPE, &zon_chunk_mem_t::zon_flow_list_mem,
     zon_flow_list_element_size, "ZON Data Path Flow List Element Memory Chunk"},
    {ZON_FLOW_FO_MEM_TYPE, &zon_chunk_mem_t::zon_flow_fo_mem, sizeof(zon_flow_fo_t),
     "ZON Data Path Flow FO Memory Chunk"},
};

constexpr bool rows_follow_types() {
    for (size_t row = 0; row < std::size(chunk_rows); ++row)
        if (static_cast<size_t>(chunk_rows[row].type) != row + 1)
            return false;
    return std::size(chunk_rows) + 1 == ZON_MEM_TYPE_MAX;
}
static_assert(rows_follow_types());

// Ready records of one type. The mutexes of two types share no cache line.
struct alignas(64) ready_stack {
    ordered_mutex<lock_class::memory> mutex;
    void**& slots;
    int32_t& count;
    int32_t& count_init;

    constexpr ready_stack(void**& s, int32_t& c, int32_t& i) : slots(s), count(c), count_init(i) {}
};

constinit ready_stack ipv4_stack{zon_private_ipv4_flow_mem_buffer,
                                 zon_private_ipv4_flow_mem_buffer_count,
                                 zon_private_ipv4_flow_mem_buffer_count_init};
constinit ready_stack ipv6_stack{zon_private_ipv6_flow_mem_buffer,
                                 zon_private_ipv6_flow_mem_buffer_count,
                                 zon_private_ipv6_flow_mem_buffer_count_init};
constinit ready_stack flow_stack{zon_private_flow_mem_buffer, zon_private_flow_mem_buffer_count,
                                 zon_private_flow_mem_buffer_count_init};

ready_stack* stack_of(zon_memory_type mem_type) {
    switch (mem_type) {
    case ZON_IPV4_HALF_FLOW_MEM_TYPE:
        return &ipv4_stack;
    case ZON_IPV6_HALF_FLOW_MEM_TYPE:
        return &ipv6_stack;
    case ZON_FLOW_MEM_TYPE:
        return &flow_stack;
    default:
        return nullptr;
    }
}

// How many of the wanted records were on the stack. A slot is cleared when its record leaves, so
// that destruction gives back only what is on the stack. One that was empty at a glance is left
// alone.
uint32_t pop(ready_stack& stack, void** records, uint32_t wanted) {
    if (relaxed_load(stack.count) < 1)
        return 0;
    const std::lock_guard hold(stack.mutex);
    uint32_t taken = 0;
    for (; taken < wanted && stack.count > 0; ++taken) {
        relaxed_store(stack.count, stack.count - 1);
        records[taken] = std::exchange(stack.slots[stack.count], nullptr);
    }
    return taken;
}

// How many of the records the stack had room for.
uint32_t push(ready_stack& stack, void* const* records, uint32_t count) {
    if (relaxed_load(stack.count) >= relaxed_load(stack.count_init))
        return 0;
    const std::lock_guard hold(stack.mutex);
    uint32_t put = 0;
    for (; put < count && stack.count < stack.count_init; ++put) {
        stack.slots[stack.count] = records[put];
        relaxed_store(stack.count, stack.count + 1);
    }
    return put;
}

// Null for a type without a chunk and without a chunk set.
vem_chunk_type chunk_of(zon_memory_type mem_type, const void* chunk_ptr) {
    if (chunk_ptr == nullptr || mem_type < ZON_IPV4_HALF_FLOW_MEM_TYPE ||
        mem_type >= ZON_MEM_TYPE_MAX)
        return nullptr;
    return static_cast<const zon_chunk_mem_t*>(chunk_ptr)->*chunk_rows[mem_type - 1].handle;
}

// Other threads glance at the counts without the mutex.
void set_counts(ready_stack& stack, int32_t records) {
    relaxed_store(stack.count, records);
    relaxed_store(stack.count_init, records);
}

// Arrays that an earlier, failed creation left behind are given back here.
bool make_array(ready_stack& stack, size_t slots) {
    const std::lock_guard hold(stack.mutex);
    free(stack.slots);
    stack.slots = static_cast<void**>(zon_heap_zalloc(slots, sizeof(void*)));
    set_counts(stack, 0);
    return stack.slots != nullptr;
}

// Takes up to `wanted` records from the chunk; fewer are no failure.
void fill(ready_stack& stack, vem_chunk_type chunk, size_t wanted) {
    const auto room =
        static_cast<int32_t>(std::min<size_t>(wanted, std::numeric_limits<int32_t>::max()));
    const std::lock_guard hold(stack.mutex);
    int32_t filled = 0;
    for (; filled < room; ++filled) {
        stack.slots[filled] = vem_mem_chunk_malloc(chunk);
        if (stack.slots[filled] == nullptr)
            break;
    }
    set_counts(stack, filled);
}

// The ready records of a chunk that is gone are gone with it.
void drain(ready_stack& stack, vem_chunk_type chunk) {
    const std::lock_guard hold(stack.mutex);
    for (int32_t slot = 0; slot < stack.count_init; ++slot)
        if (void* data = std::exchange(stack.slots[slot], nullptr); data != nullptr)
            vem_mem_chunk_free(chunk, data);
    set_counts(stack, 0);
    free(std::exchange(stack.slots, nullptr));
}

bool make_chunks(zon_chunk_mem_t& chunks, uint32_t create_chunk_elements) {
    bool complete = true;
    for (const chunk_row& row : chunk_rows) {
        chunks.*row.handle =
            vem_mem_chunk_create(row.element_size, create_chunk_elements, 257, 0, 4, row.name);
        complete = complete && chunks.*row.handle != nullptr;
    }
    return complete;
}

}  // namespace

// What a failed creation has made so far stays where it is, for the destruction.
bool zon_mem_chunk_create(uint32_t max_mem_buffer_init, zon_chunk_mem_t* chunk_ptr,
                          uint32_t create_chunk_elements) {
    if (chunk_ptr == nullptr)
        return false;
    const size_t ready_flows = max_mem_buffer_init;
    const size_t ready_half_flows = 2 * ready_flows;
    const bool ipv4_array = make_array(ipv4_stack, ready_half_flows);
    make_array(ipv6_stack, 0);
    const bool flow_array = make_array(flow_stack, ready_flows);
    if (!ipv4_array || !flow_array || !make_chunks(*chunk_ptr, create_chunk_elements))
        return false;
    fill(flow_stack, chunk_ptr->zon_flow_mem, ready_flows);
    fill(ipv4_stack, chunk_ptr->zon_ipv4_half_flow_mem, ready_half_flows);
    return true;
}

bool zon_mem_chunk_destroy(zon_chunk_mem_t* chunk_ptr) {
    if (chunk_ptr == nullptr)
        return false;
    drain(flow_stack, chunk_ptr->zon_flow_mem);
    drain(ipv4_stack, chunk_ptr->zon_ipv4_half_flow_mem);
    drain(ipv6_stack, chunk_ptr->zon_ipv6_half_flow_mem);
    bool complete = true;
    for (const chunk_row& row : chunk_rows) {
        const bool destroyed =
            vem_mem_chunk_destroy(std::exchange(chunk_ptr->*row.handle, nullptr));
        complete = complete && destroyed;
    }
    return complete;
}

void* zon_mem_chunk_malloc(zon_memory_type mem_type, void* chunk_ptr) {
    const vem_chunk_type chunk = chunk_of(mem_type, chunk_ptr);
    return chunk == nullptr ? nullptr : vem_mem_chunk_malloc(chunk);
}

bool zon_mem_chunk_free(void* data, zon_memory_type mem_type, void* chunk_ptr) {
    const vem_chunk_type chunk = chunk_of(mem_type, chunk_ptr);
    return chunk != nullptr && vem_mem_chunk_free(chunk, data);
}

void* zon_private_chunk_malloc(zon_memory_type mem_type, void* chunk_ptr) {
    void* data = nullptr;
    if (ready_stack* stack = stack_of(mem_type); stack != nullptr && pop(*stack, &data, 1) != 0)
        return data;
    return zon_mem_chunk_malloc(mem_type, chunk_ptr);
}

uint32_t zon_private_chunk_malloc_many(zon_memory_type mem_type, void** records, uint32_t wanted,
                                       void* chunk_ptr) {
    ready_stack* stack = stack_of(mem_type);
    const uint32_t ready = stack == nullptr ? 0 : pop(*stack, records, wanted);
    const vem_chunk_type chunk = chunk_of(mem_type, chunk_ptr);
    if (ready == wanted || chunk == nullptr)
        return ready;
    return ready + vem_mem_chunk_malloc_many(chunk, records + ready, wanted - ready);
}

bool zon_private_chunk_free(zon_memory_type mem_type, void* data, void* chunk_ptr) {
    ready_stack* stack = data == nullptr ? nullptr : stack_of(mem_type);
    return (stack != nullptr && push(*stack, &data, 1) != 0) ||
           zon_mem_chunk_free(data, mem_type, chunk_ptr);
}

bool zon_private_chunk_free_many(zon_memory_type mem_type, void* const* records, uint32_t count,
                                 void* chunk_ptr) {
    ready_stack* stack = stack_of(mem_type);
    const uint32_t kept = stack == nullptr ? 0 : push(*stack, records, count);
    return kept == count ||
           vem_mem_chunk_free_many(chunk_of(mem_type, chunk_ptr), records + kept, count - kept);
}

void zon_private_chunk_free_or_trace(zon_memory_type mem_type, void* data, void* chunk_ptr,
                                     const char* file, int line) {
    if (!zon_private_chunk_free(mem_type, data, chunk_ptr)) [[unlikely]]
        zon_buginf("Could not free memory %s: %d", file, line);
}

// zon_mem.cpp - the six memory chunks, and the stacks of ready records before three of them.
//
// Owns   the stacks: three arrays and the records that are on them; the half flows in lanes.
// Locks  one per memory type around its stack; taking a record off and putting one on call nothing
//        under it. Only creation and destruction call the runtime with it held. Chunks lock
//        themselves. Before both comes the lock of a lane (zon_lanes.h) for half flows of a type.
// Knows the sizes of the records, not their content.

#include "osal/zon_mem.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <utility>

#include "osal/zon_debug.h"
#include "osal/zon_lanes.h"
#include "osal/zon_lock.h"
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

constexpr uint32_t lane_batch = 16;

// Records of one type that wait for one thread.
struct alignas(64) memory_lane {
    recursive_lock lock{};
    uint32_t count = 0;
    void* records[2 * lane_batch]{};
};

struct memory_lanes {
    std::array<memory_lane, zon_lane_count> of_threads{};
    vem_chunk_type chunk = nullptr;  // the one that all of them come from
    // Lanes are closed while somebody who found no memory gathers what waits in them, and until so
    // many records have come back.
    std::atomic<int> gatherers{0};
    std::atomic<int> closed_for{0};

    bool are_open() const { return gatherers.load() == 0 && closed_for.load() <= 0; }
};

// Ready records of one type. The locks of two types share no cache line.
struct alignas(64) ready_stack {
    recursive_lock lock{};
    void**& slots;
    int32_t& count;
    int32_t& count_init;
    memory_lanes* lanes;  // null: no lane holds records of the type

    constexpr ready_stack(void**& s, int32_t& c, int32_t& i, memory_lanes* l)
        : slots(s), count(c), count_init(i), lanes(l) {}
};

// The stack's lock, held; that it was busy is remembered.
class [[nodiscard]] held_stack {
public:
    explicit held_stack(ready_stack& stack) : lock_(&stack.lock) { zon_lock_shared_list(lock_); }
    ~held_stack() { zon_unlock_internal(lock_); }
    held_stack(const held_stack&) = delete;
    held_stack& operator=(const held_stack&) = delete;

private:
    zon_lock_t lock_;
};

constinit memory_lanes ipv4_lanes;
constinit memory_lanes ipv6_lanes;

constinit ready_stack ipv4_stack{zon_private_ipv4_flow_mem_buffer,
                                 zon_private_ipv4_flow_mem_buffer_count,
                                 zon_private_ipv4_flow_mem_buffer_count_init, &ipv4_lanes};
constinit ready_stack ipv6_stack{zon_private_ipv6_flow_mem_buffer,
                                 zon_private_ipv6_flow_mem_buffer_count,
                                 zon_private_ipv6_flow_mem_buffer_count_init, &ipv6_lanes};
constinit ready_stack flow_stack{zon_private_flow_mem_buffer, zon_private_flow_mem_buffer_count,
                                 zon_private_flow_mem_buffer_count_init, nullptr};

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
    const held_stack hold(stack);
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
    const held_stack hold(stack);
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

// ---- the stack, then the chunk ----

inline uint32_t take_shared(ready_stack* stack, vem_chunk_type chunk, void** records,
                            uint32_t wanted) {
    const uint32_t ready = stack == nullptr ? 0 : pop(*stack, records, wanted);
    if (ready == wanted || chunk == nullptr)
        return ready;
    return ready + vem_mem_chunk_malloc_many(chunk, records + ready, wanted - ready);
}

bool give_shared(ready_stack* stack, vem_chunk_type chunk, void* const* records, uint32_t count) {
    if (stack != nullptr && stack->lanes != nullptr &&
        stack->lanes->closed_for.load(std::memory_order_relaxed) > 0) [[unlikely]]
        stack->lanes->closed_for.fetch_sub(static_cast<int>(count));
    const uint32_t kept = stack == nullptr ? 0 : push(*stack, records, count);
    return kept == count || vem_mem_chunk_free_many(chunk, records + kept, count - kept);
}

// ---- lanes ----

// Of this thread, for records of the chunk; null when it has none.
memory_lane* own_lane(const ready_stack* stack, vem_chunk_type chunk) {
    const int lane = zon_own_lane();
    if (lane < 0) [[likely]]
        return nullptr;
    if (stack == nullptr || stack->lanes == nullptr || chunk == nullptr ||
        stack->lanes->chunk != chunk)
        return nullptr;
    return &stack->lanes->of_threads[static_cast<size_t>(lane)];
}

uint32_t take_from_lane(ready_stack& stack, memory_lane& lane, void** records, uint32_t wanted) {
    const held_lock hold(&lane.lock);
    if (lane.count < wanted && wanted <= lane_batch && stack.lanes->are_open())
        lane.count +=
            take_shared(&stack, stack.lanes->chunk, lane.records + lane.count, lane_batch);
    uint32_t taken = 0;
    while (taken < wanted && lane.count != 0)
        records[taken++] = lane.records[--lane.count];
    return taken;
}

// False when the lane is closed.
bool give_to_lane(ready_stack& stack, memory_lane& lane, void* const* records, uint32_t count) {
    const held_lock hold(&lane.lock);
    if (count > lane_batch || !stack.lanes->are_open())
        return false;
    if (lane.count + count > std::size(lane.records)) {
        give_shared(&stack, stack.lanes->chunk, lane.records, lane_batch);
        lane.count -= lane_batch;
        std::copy_n(lane.records + lane_batch, lane.count, lane.records);
    }
    std::copy_n(records, count, lane.records + lane.count);
    lane.count += count;
    return true;
}

void empty_lanes(ready_stack& stack) {
    for (memory_lane& lane : stack.lanes->of_threads) {
        const held_lock hold(&lane.lock);
        if (const uint32_t count = std::exchange(lane.count, 0); count != 0)
            give_shared(&stack, stack.lanes->chunk, lane.records, count);
    }
}

// There is no memory: what waits in lanes is as good.
[[gnu::cold]] uint32_t take_gathered(ready_stack& stack, vem_chunk_type chunk, void** records,
                                     uint32_t wanted) {
    constexpr int plenty = 256;
    if (!zon_lanes_are_used())
        return 0;
    memory_lanes& lanes = *stack.lanes;
    lanes.gatherers.fetch_add(1);
    empty_lanes(stack);
    const uint32_t taken = take_shared(&stack, chunk, records, wanted);
    lanes.closed_for.store(plenty);
    lanes.gatherers.fetch_sub(1);
    return taken;
}

void open_lanes(ready_stack& stack, vem_chunk_type chunk) {
    stack.lanes->chunk = chunk;
    stack.lanes->closed_for.store(0);
}

void close_lanes(ready_stack& stack) {
    empty_lanes(stack);
    stack.lanes->chunk = nullptr;
}

void set_lock_classes(ready_stack& stack) {
    zon_lock_set_class(&stack.lock, lock_class::memory);
    if (stack.lanes == nullptr)
        return;
    for (memory_lane& lane : stack.lanes->of_threads)
        zon_lock_set_class(&lane.lock, lock_class::memory_lane);
}

// ---- creation and destruction ----

// Other threads glance at the counts without the mutex.
void set_counts(ready_stack& stack, int32_t records) {
    relaxed_store(stack.count, records);
    relaxed_store(stack.count_init, records);
}

// Arrays that an earlier, failed creation left behind are given back here.
bool make_array(ready_stack& stack, size_t slots) {
    const held_stack hold(stack);
    free(stack.slots);
    stack.slots = static_cast<void**>(zon_heap_zalloc(slots, sizeof(void*)));
    set_counts(stack, 0);
    return stack.slots != nullptr;
}

// Takes up to `wanted` records from the chunk; fewer are no failure.
void fill(ready_stack& stack, vem_chunk_type chunk, size_t wanted) {
    const auto room =
        static_cast<int32_t>(std::min<size_t>(wanted, std::numeric_limits<int32_t>::max()));
    const held_stack hold(stack);
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
    const held_stack hold(stack);
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

uint32_t take(zon_memory_type mem_type, void** records, uint32_t wanted, void* chunk_ptr) {
    ready_stack* stack = stack_of(mem_type);
    const vem_chunk_type chunk = chunk_of(mem_type, chunk_ptr);
    uint32_t taken = 0;
    if (memory_lane* lane = own_lane(stack, chunk))
        taken = take_from_lane(*stack, *lane, records, wanted);
    if (taken < wanted)
        taken += take_shared(stack, chunk, records + taken, wanted - taken);
    if (taken < wanted && stack != nullptr && stack->lanes != nullptr) [[unlikely]]
        taken += take_gathered(*stack, chunk, records + taken, wanted - taken);
    return taken;
}

}  // namespace

// What a failed creation has made so far stays where it is, for the destruction.
bool zon_mem_chunk_create(uint32_t max_mem_buffer_init, zon_chunk_mem_t* chunk_ptr,
                          uint32_t create_chunk_elements) {
    if (chunk_ptr == nullptr)
        return false;
    const size_t ready_flows = max_mem_buffer_init;
    const size_t ready_half_flows = 2 * ready_flows;
    for (ready_stack* stack : {&ipv4_stack, &ipv6_stack, &flow_stack})
        set_lock_classes(*stack);
    const bool ipv4_array = make_array(ipv4_stack, ready_half_flows);
    make_array(ipv6_stack, 0);
    const bool flow_array = make_array(flow_stack, ready_flows);
    if (!ipv4_array || !flow_array || !make_chunks(*chunk_ptr, create_chunk_elements))
        return false;
    fill(flow_stack, chunk_ptr->zon_flow_mem, ready_flows);
    fill(ipv4_stack, chunk_ptr->zon_ipv4_half_flow_mem, ready_half_flows);
    open_lanes(ipv4_stack, chunk_ptr->zon_ipv4_half_flow_mem);
    open_lanes(ipv6_stack, chunk_ptr->zon_ipv6_half_flow_mem);
    return true;
}

bool zon_mem_chunk_destroy(zon_chunk_mem_t* chunk_ptr) {
    if (chunk_ptr == nullptr)
        return false;
    close_lanes(ipv4_stack);
    close_lanes(ipv6_stack);
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
    return take(mem_type, &data, 1, chunk_ptr) == 0 ? nullptr : data;
}

uint32_t zon_private_chunk_malloc_many(zon_memory_type mem_type, void** records, uint32_t wanted,
                                       void* chunk_ptr) {
    return take(mem_type, records, wanted, chunk_ptr);
}

bool zon_private_chunk_free(zon_memory_type mem_type, void* data, void* chunk_ptr) {
    return data != nullptr && zon_private_chunk_free_many(mem_type, &data, 1, chunk_ptr);
}

bool zon_private_chunk_free_many(zon_memory_type mem_type, void* const* records, uint32_t count,
                                 void* chunk_ptr) {
    ready_stack* stack = stack_of(mem_type);
    const vem_chunk_type chunk = chunk_of(mem_type, chunk_ptr);
    if (memory_lane* lane = own_lane(stack, chunk))
        if (give_to_lane(*stack, *lane, records, count))
            return true;
    return give_shared(stack, chunk, records, count);
}

uint32_t zon_mem_waiting_in_lanes(zon_memory_type mem_type) {
    uint32_t waiting = 0;
    if (ready_stack* stack = stack_of(mem_type); stack != nullptr && stack->lanes != nullptr)
        for (memory_lane& lane : stack->lanes->of_threads) {
            const held_lock hold(&lane.lock);
            waiting += lane.count;
        }
    return waiting;
}

void zon_mem_gather_lanes() {
    empty_lanes(ipv4_stack);
    empty_lanes(ipv6_stack);
}

void zon_private_chunk_free_or_trace(zon_memory_type mem_type, void* data, void* chunk_ptr,
                                     const char* file, int line) {
    if (!zon_private_chunk_free(mem_type, data, chunk_ptr)) [[unlikely]]
        zon_buginf("Could not free memory %s: %d", file, line);
}

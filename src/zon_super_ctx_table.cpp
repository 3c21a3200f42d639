// zon_super_ctx_table.cpp - finds super contexts by value and type.
//
// Owns   the bucket array; the super contexts in it belong to their member flows.
// Locks  none of its own: every call runs under the private lock of the super contexts.
// Knows nothing of flows and clients.

#include "zon_super_ctx_table.h"

#include <algorithm>
#include <cstdlib>

#include "osal/zon_mem.h"
#include "zon_key_hash_funcs_inline.h"

static constexpr uint32_t least_buckets = 100;

zon_super_context_table_t* zon_super_context_table_create(uint32_t max_size) {
    auto* table = static_cast<zon_super_context_table_t*>(
        zon_heap_zalloc(1, sizeof(zon_super_context_table_t)));
    if (table == nullptr)
        return nullptr;
    table->max_size = std::max(max_size, least_buckets);
    table->table = static_cast<zon_super_context_t**>(
        zon_heap_zalloc(table->max_size, sizeof(zon_super_context_t*)));
    if (table->table == nullptr) {
        free(table);
        return nullptr;
    }
    return table;
}

void zon_super_context_table_destroy(zon_super_context_table_t* table) {
    if (table == nullptr)
        return;
    free(table->table);
    free(table);
}

// The type is left out: there are four of them, and the value spreads well enough.
uint32_t zon_super_context_hash(const zon_super_context_table_t* table,
                                const zon_super_context_t* super_ctx) {
    return jenkins_hashword_2006(&super_ctx->context, 1, zon_hash_seed_in_force) % table->max_size;
}

bool zon_super_context_table_insert(zon_super_context_table_t* table,
                                    zon_super_context_t* super_ctx) {
    if (table == nullptr || super_ctx == nullptr)
        return false;
    zon_super_context_t*& head = table->table[zon_super_context_hash(table, super_ctx)];
    super_ctx->next = head;
    head = super_ctx;
    ++table->allocated;
    return true;
}

bool zon_super_context_table_remove(zon_super_context_table_t* table,
                                    zon_super_context_t* super_ctx) {
    if (table == nullptr || super_ctx == nullptr)
        return false;
    zon_super_context_t** link = &table->table[zon_super_context_hash(table, super_ctx)];
    while (*link != nullptr && *link != super_ctx)
        link = &(*link)->next;
    if (*link == nullptr)
        return false;
    *link = super_ctx->next;
    --table->allocated;
    return true;
}

zon_super_context_t* zon_super_context_table_lookup(zon_super_context_table_t* table,
                                                    const zon_super_context_t* super_ctx) {
    if (table == nullptr || super_ctx == nullptr)
        return nullptr;
    zon_super_context_t* at = table->table[zon_super_context_hash(table, super_ctx)];
    while (at != nullptr && (at->context != super_ctx->context || at->type != super_ctx->type))
        at = at->next;
    return at;
}

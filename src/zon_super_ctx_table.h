// zon_super_ctx_table.h - the super contexts by value and type, and the engine's side of them.
//
// Locks      one private lock guards the table, the reference counts, the member lists and the
//            feature-object slots. It is taken after a flow's lock and never held across a client's
//            function.

#pragma once

#include <cstdint>

#include "osal/zon_mem.h"
#include "zon_engine_defs.h"
#include "zon_super_ctx.h"

struct zon_flow_list_ {
    zon_flow_ptr_t flow;
    zon_flow_list_* next;
};
using zon_flow_list_t = zon_flow_list_;

struct zon_super_context_ {
    uint32_t context;
    int refcount;
    zon_super_context_types_e type;
    uint32_t changed_at;  // the moment of its making or of its last departure
    void* fo[32];
    zon_super_context_t* next;
    zon_flow_list_t* flow_list_head;
};

struct zon_super_context_table_ {
    zon_super_context_t** table;
    uint32_t max_size;
    uint32_t allocated;
    zon_super_context_lookup_callback lookup_funcs[4];
    zon_super_context_fo_delete_cb_t delete_funcs[32];
};
using zon_super_context_table_t = zon_super_context_table_;

static_assert(sizeof(zon_flow_list_t) == zon_flow_list_element_size);
static_assert(sizeof(zon_super_context_t) == zon_super_context_size &&
              sizeof(zon_super_context_t) == 18 * sizeof(zon_flow_list_t));
static_assert(sizeof(zon_super_context_table_t) == 304);

// max_size buckets, at least 100; null without memory.
zon_super_context_table_t* zon_super_context_table_create(uint32_t max_size);
void zon_super_context_table_destroy(zon_super_context_table_t* table);
uint32_t zon_super_context_hash(const zon_super_context_table_t* table,
                                const zon_super_context_t* super_ctx);
bool zon_super_context_table_insert(zon_super_context_table_t* table,
                                    zon_super_context_t* super_ctx);
bool zon_super_context_table_remove(zon_super_context_table_t* table,
                                    zon_super_context_t* super_ctx);
// super_ctx is a key record with context and type set.
zon_super_context_t* zon_super_context_table_lookup(zon_super_context_table_t* table,
                                                    const zon_super_context_t* super_ctx);

// A flow was created: joins it to the super contexts of its packet. The flow is locked.
void zon_super_context_process_fif(zon_flow_t* flow, void* pkt_ctx);
// A flow is being deleted: leaves them. The flow is locked.
void zon_super_context_process_lif(zon_flow_t* flow);
void zon_super_context_free(zon_super_context_t* super_ctx);

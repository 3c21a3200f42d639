// engine_state.h - what an engine holds at a moment, so that a test can tell that a call has
// changed nothing.
//
// Each part is a checksum of the bytes of its records, links and all: whatever is written shows,
// but for what is as before once the call is back. A state means something beside another one of
// the same engine only. It is cheap enough to be taken around each packet of a small engine.
//
// Threads    no other one uses the engine, and none owns a lane.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "support/flow_reader.h"
#include "zon_api/zon_api_internal.h"
#include "zon_frag.h"
#include "zon_hashset.h"
#include "zon_super_ctx_table.h"

namespace zon_test {

class checksum {
public:
    // Records of the engine, which are there: checking each word would take longer than the sum.
    __attribute__((no_sanitize("address", "undefined"))) void add(const void* content,
                                                                  size_t size) {
        const auto* at = static_cast<const char*>(content);
        uint64_t sum = value_;
        while (size != 0) {
            uint64_t word = 0;
            const size_t taken = size < sizeof word ? size : sizeof word;
            if (taken == sizeof word)
                __builtin_memcpy(&word, at, sizeof word);
            else
                __builtin_memcpy(&word, at, taken);
            sum = (sum ^ word) * 0x9E3779B97F4A7C15U;
            sum ^= sum >> 32;
            at += taken;
            size -= taken;
        }
        value_ = sum;
    }
    template <class record>
    void add(const record& of) {
        add(&of, sizeof of);
    }
    uint64_t value() const { return value_; }

private:
    uint64_t value_ = 1;
};

class engine_state {
public:
    static engine_state now() {
        engine_state state;
        state.at(engine).add(*g_zon);
        state.add_tables();
        for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
             flow = flow->next_flow)
            state.at(flows).add(*flow);
        for (zon_fid_t fid = 1; fid <= g_zon->fid_table->capacity; ++fid)
            if (const zon_flow_t* flow = record_of(fid))
                state.add_what_belongs_to(flow);
        state.add_fragments();
        return state;
    }

    // The first part that is another one than before, or null.
    const char* changed_since(const engine_state& before) const {
        for (size_t i = 0; i < end; ++i)
            if (parts_[i].value() != before.parts_[i].value())
                return names[i];
        return nullptr;
    }

private:
    enum part : size_t {
        engine,
        tables,
        flows,
        half_flows,
        objects,
        super_contexts,
        fragments,
        end
    };
    static constexpr std::array<const char*, end> names{"the engine's figures and settings",
                                                        "the tables of flows",
                                                        "records of flows",
                                                        "half flows",
                                                        "feature objects",
                                                        "super contexts",
                                                        "fragment entries"};

    checksum& at(part of) { return parts_[of]; }

    void add_tables() {
        const zon_fid_table_t& fids = *g_zon->fid_table;
        const zon_hashset_& buckets = *g_zon->flow_tbl->table;
        const auto bucket_count = static_cast<size_t>(buckets.array_size);
        at(tables).add(*g_zon->flow_tbl);
        at(tables).add(buckets);
        at(tables).add(buckets.array, bucket_count * sizeof *buckets.array);
        at(tables).add(buckets.items_in_bucket, bucket_count * sizeof *buckets.items_in_bucket);
        at(tables).add(fids);
        at(tables).add(fids.table, fids.capacity * sizeof *fids.table);
    }
    void add_what_belongs_to(const zon_flow_t* flow) {
        add_objects(flow->fo_list);
        for (const zon_flow_direction_e side : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER})
            if (const zon_half_flow_t* half = zon_named_half_flow(flow, side))
                add_half_flow(half);
        for (const zon_super_context_t* joined : flow->super_ctx)
            if (joined != nullptr)
                at(super_contexts).add(*joined);
    }
    void add_half_flow(const zon_half_flow_t* half) {
        const bool is_ipv4 = zon_key_is_ipv4(half->key.key_type);
        at(half_flows)
            .add(half, is_ipv4 ? sizeof(zon_ipv4_half_flow_t) : sizeof(zon_ipv6_half_flow_t));
        add_objects(half->fo_list);
    }
    void add_objects(const zon_flow_fo_t* first) {
        for (const zon_flow_fo_t* object = first; object != nullptr; object = object->next)
            at(objects).add(*object);
    }
    void add_fragments() {
        at(fragments).add(*g_zon->frag_table);
        for (const zon_frag_item_t* entry = g_zon->frag_table->list_head; entry != nullptr;
             entry = entry->list_next)
            at(fragments).add(*entry);
    }

    std::array<checksum, end> parts_;
};

}  // namespace zon_test

// zon_flow_table_fixture.h - a small flow table, and flows by value to fill it with.

#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <list>

#include "support/key_record.h"
#include "support/lock_level.h"
#include "zon_connection.h"
#include "zon_flow_table.h"
#include "zon_flow_table_inline.h"

namespace zon_test {

// A flow by value, its two half flows and its lock, which is held as inserting code holds it.
class two_sided {
public:
    explicit two_sided(const key_fields& fields) : initiator_(fields), responder_(fields) {
        zon_swap_key(&responder_.key());
        flow_.flow_lock = zon_lock_allocate();
        zon_lock_init(flow_.flow_lock);
        zon_lock_internal(flow_.flow_lock);
        flow_.initiator_flow = initiator_.half();
        flow_.responder_flow = responder_.half();
        flow_.initiator_flow->flow = &flow_;
        flow_.responder_flow->flow = &flow_;
    }
    ~two_sided() {
        zon_unlock_internal(flow_.flow_lock);
        zon_lock_destroy(flow_.flow_lock);
        std::free(flow_.flow_lock);
    }
    two_sided(const two_sided&) = delete;
    two_sided& operator=(const two_sided&) = delete;

    zon_flow_t* flow() { return &flow_; }
    zon_half_flow_t* initiator() { return initiator_.half(); }
    zon_half_flow_t* responder() { return responder_.half(); }
    int lock_levels() const { return levels_held(flow_.flow_lock); }

private:
    key_record initiator_;
    key_record responder_;
    flow_record record_{};
    zon_flow_t& flow_ = record_.flow;
};

class flow_table : public ::testing::Test {
protected:
    void SetUp() override { create(0); }
    void TearDown() override { zon_flow_table_destroy(table); }
    void create(uint8_t depth) {
        if (table != nullptr)
            zon_flow_table_destroy(table);
        table = zon_flow_table_create(13, 3, depth);
        ASSERT_NE(table, nullptr);
    }
    two_sided& make(const key_fields& fields = {}) { return flows.emplace_back(fields); }
    two_sided& put(const key_fields& fields = {}) {
        two_sided& made = make(fields);
        EXPECT_TRUE(zon_flow_table_insert(table, made.initiator()));
        EXPECT_TRUE(zon_flow_table_insert(table, made.responder()));
        return made;
    }
    int bucket_of(zon_half_flow_t* half) {
        return static_cast<int>(zon_hash_calc(half, nullptr) % 13);
    }
    // The half flow found for a key, its flow unlocked again.
    zon_half_flow_t* find(const key_fields& fields, int* bucket = nullptr) {
        key_record wanted(fields);
        return find(wanted.half(), bucket);
    }
    zon_half_flow_t* find(zon_half_flow_t* wanted, int* bucket = nullptr) {
        zon_half_flow_t* found = zon_flow_table_lookup(table, wanted, bucket);
        if (found != nullptr)
            zon_unlock_internal(found->flow->flow_lock);
        return found;
    }
    // Fields like the given ones, whose forward key falls into a wanted bucket; the source port is
    // changed for it.
    key_fields with_forward_bucket(int bucket, key_fields fields, uint32_t from_port = 1) {
        for (fields.src_port = from_port;; ++fields.src_port) {
            key_record record(fields);
            if (bucket_of(record.half()) == bucket)
                return fields;
        }
    }

    zon_flow_table_t* table = nullptr;
    std::list<two_sided> flows;
};

}  // namespace zon_test

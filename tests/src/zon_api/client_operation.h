// client_operation.h - one operation of clients as a table row: its checks in their order, what a
// refusal writes, and what is locked when it returns.
//
// A scene starts with everything wrong that a call can be given, and without an engine. The walk
// mends one thing after the other. While a check is broken so is every later one, so that an answer
// that is the check's own shows that it comes before them all.

#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "api_fixture.h"
#include "support/flow_reader.h"
#include "support/lock_level.h"
#include "support/record_census.h"
#include "zon_api/zon_api_internal.h"

namespace zon_test {

// Everything that a call can write to.
struct call_outputs {
    zon_fid_t fid;
    zon_lock_t lock;
    void* fo;
    zon_l4_flow_state_e state;
    uint32_t number;
    uint16_t window;
    int bucket;
    zon_flow_tuple_t tuple;
    zon_flow_t snapshot;

    static call_outputs untouched() {
        call_outputs outputs;
        std::memset(static_cast<void*>(&outputs), 0x4D, sizeof outputs);
        return outputs;
    }
};

// What a refused call must leave as it is: every flow in use with its half flows and objects, the
// counts of the flow table, and the records taken from chunks.
class engine_content {
public:
    static engine_content now() {
        engine_content content;
        if (g_zon == nullptr)
            return content;
        for (zon_fid_t fid = 1; fid <= g_zon->fid_table->capacity; ++fid)
            if (const zon_flow_t* flow = record_of(fid))
                content.add_flow(flow);
        const zon_flow_table_t* table = g_zon->flow_tbl;
        content.add(&table->profile_insert, sizeof table->profile_insert);
        content.add(&table->profile_delete, sizeof table->profile_delete);
        content.add(table->active_preflow_count, sizeof table->active_preflow_count);
        content.add(&table->table->used, sizeof table->table->used);
        const records_in_use records = records_in_use::of(g_zon->zon_chunk_ptr);
        content.add(&records, sizeof records);
        return content;
    }
    bool operator==(const engine_content&) const = default;

private:
    void add(const void* at, size_t size) { bytes_.append(static_cast<const char*>(at), size); }
    void add_flow(const zon_flow_t* flow) {
        add(flow, sizeof *flow);
        add_objects(flow->fo_list);
        for (const zon_half_flow_t* half : {flow->initiator_flow, flow->responder_flow})
            if (half != nullptr) {
                add(half, zon_key_is_ipv4(half->key.key_type) ? sizeof(zon_ipv4_half_flow_t)
                                                              : sizeof(zon_ipv6_half_flow_t));
                add_objects(half->fo_list);
            }
    }
    void add_objects(const zon_flow_fo_t* record) {
        for (; record != nullptr; record = record->next)
            add(record, sizeof *record);
    }
    std::string bytes_;
};

class client_scene;

struct check {
    const char* name;  // what must hold
    int refusal;       // the answer when it does not
    std::vector<void (*)(client_scene&)> breaks;
    void (*mend)(client_scene&);
    // What a refusal writes; null for nothing.
    void (*writes)(const client_scene&, call_outputs& expected) = nullptr;
    // Is broken as soon as there is an engine; the others are from the start.
    bool with_engine = false;
    // Levels of the scene's flow that a refusal leaves locked.
    int levels = 0;
    // The refusal is known to change what the engine holds.
    bool changes_content = false;
};

struct operation {
    const char* name;
    int (*call)(client_scene&);
    std::vector<check> checks;
    int success;
    // Levels of the scene's flow that are held after a success.
    int levels;
    void (*then)(client_scene&);
};

class client_scene : public api_fixture {
public:  // for the rows
    client_scene() { out = call_outputs::untouched(); }

    // The engine comes with the mending of the first check.
    void SetUp() override {}

    void make_engine() {
        api_fixture::SetUp();
        ASSERT_NE(g_zon, nullptr);
        own = client;
        ASSERT_EQ(own, 31u) << "the last id that there is";
        ASSERT_EQ(zon_client_register_delete_cb(own, record_deletion), zon_error_none);
        silent = new_client(false);
        flow_tuple = connection(1000, 53);
        flow = handle(ipv6 ? udp6_packet(1000, 53) : udp_packet(1000, 53)).fid;
        ASSERT_NE(flow, 0u);
        record = record_of(flow);
        if (holds_the_lock) {
            own_level = record->flow_lock;
            zon_lock_internal(own_level);
        }
    }

    void walk(const operation& op) {
        for (auto at = op.checks.begin(); at != op.checks.end(); ++at) {
            SCOPED_TRACE(std::string(op.name) + " without " + at->name);
            for (const auto& break_it : at->breaks) {
                break_it(*this);
                refuse(op, *at);
            }
            const bool had_engine = g_zon != nullptr;
            at->mend(*this);
            if (!had_engine && g_zon != nullptr)
                for (auto later = at + 1; later != op.checks.end(); ++later)
                    if (later->with_engine)
                        later->breaks.front()(*this);
        }
        SCOPED_TRACE(op.name);
        out = call_outputs::untouched();
        EXPECT_EQ(op.call(*this), op.success);
        expect_levels(op.levels);
        op.then(*this);
        expect_no_other_lock();
        if (own_level != nullptr)
            zon_unlock_internal(std::exchange(own_level, nullptr));
    }

    // ---- what calls are given: all of it wrong ----
    bool ipv6 = false;
    // The caller has locked the flow before; locks are recursive.
    bool holds_the_lock = false;
    zon_fid_t fid = parameters.max_flows + 1;  // to look at it would stop the program
    zon_client_id_e cid = 0;
    zon_flow_direction_e dir = static_cast<zon_flow_direction_e>(3);
    zon_flow_tuple_type_t type = static_cast<zon_flow_tuple_type_t>(4);
    zon_flow_tuple_t tuple{};  // of no family
    zon_l4_flow_state_e state = ZON_L4_ENUM_END;
    zon_any_key_t key{};
    zon_lock_t lock = nullptr;
    bool tuple_given = false;
    bool pointer_given = false;
    void* fo = nullptr;
    call_outputs out;

    const zon_flow_tuple_t* tuple_or_null() const { return tuple_given ? &tuple : nullptr; }
    template <class output>
    output* or_null(output& at) const {
        return pointer_given ? &at : nullptr;
    }

    // ---- what the engine holds ----
    zon_client_id_e own = 0;     // has a delete callback
    zon_client_id_e silent = 0;  // has none
    zon_fid_t flow = 0;          // the one flow that calls mean
    zon_flow_t* record = nullptr;
    zon_flow_tuple_t flow_tuple{};

    zon_flow_tuple_t connection(uint16_t sport, uint16_t dport) const {
        return ipv6 ? tuple6("2001:db8::1", sport, "2001:db8::2", dport)
                    : tuple4(host_a, sport, host_b, dport);
    }
    zon_flow_tuple_t nobodys() const { return connection(9, 9); }
    static zon_fid_t hand_in(const bytes& packet) { return handle(packet).fid; }
    // From here on calls mean another flow.
    void mean(zon_fid_t of) {
        flow = fid = of;
        record = record_of(of);
    }

    // ---- memory and room ----
    void take_half_flow_memory(int32_t leave_ready) {
        usage_may_drift = true;
        give_half_flow_memory();
        leave_ready = std::min(leave_ready, zon_private_ipv4_flow_mem_buffer_count);
        kept_ipv4 = std::exchange(g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem, nullptr);
        kept_ipv6 = std::exchange(g_zon->zon_chunk_ptr.zon_ipv6_half_flow_mem, nullptr);
        kept_ready = std::exchange(zon_private_ipv4_flow_mem_buffer_count, leave_ready);
    }
    void give_half_flow_memory() {
        if (kept_ready < 0)
            return;
        g_zon->zon_chunk_ptr.zon_ipv4_half_flow_mem = kept_ipv4;
        g_zon->zon_chunk_ptr.zon_ipv6_half_flow_mem = kept_ipv6;
        zon_private_ipv4_flow_mem_buffer_count = std::exchange(kept_ready, -1);
    }
    void take_flow_records() {
        usage_may_drift = true;
        if (g_zon->fid_table->chunk_size == 0)
            return;
        kept_step = std::exchange(g_zon->fid_table->chunk_size, 0u);
        kept_records = std::exchange(g_zon->fid_table->free_head, nullptr);
    }
    void give_flow_records() const {
        g_zon->fid_table->chunk_size = kept_step;
        g_zon->fid_table->free_head = kept_records;
    }
    void take_object_memory() {
        if (g_zon->zon_chunk_ptr.zon_flow_fo_mem != nullptr)
            kept_objects = std::exchange(g_zon->zon_chunk_ptr.zon_flow_fo_mem, nullptr);
    }
    void give_object_memory() const { g_zon->zon_chunk_ptr.zon_flow_fo_mem = kept_objects; }
    // Every bucket counts as full.
    void take_room() {
        zon_hashset table = g_zon->flow_tbl->table;
        table->max_bucket_depth = 1;
        for (int bucket = 0; bucket < table->array_size; ++bucket)
            if (table->items_in_bucket[bucket] == 0) {
                table->items_in_bucket[bucket] = 1;
                made_full.push_back(bucket);
            }
    }
    void give_room() {
        zon_hashset table = g_zon->flow_tbl->table;
        table->max_bucket_depth = 0;
        for (const int bucket : made_full)
            --table->items_in_bucket[bucket];
        made_full.clear();
    }

private:
    void refuse(const operation& op, const check& broken) {
        const engine_content before = engine_content::now();
        out = call_outputs::untouched();
        EXPECT_EQ(op.call(*this), broken.refusal);
        call_outputs expected = call_outputs::untouched();
        if (broken.writes != nullptr)
            broken.writes(*this, expected);
        EXPECT_EQ(std::memcmp(&out, &expected, sizeof out), 0) << "the outputs are not as told";
        if (g_zon == nullptr)
            return;
        expect_levels(broken.levels);
        expect_no_other_lock();
        EXPECT_EQ(before == engine_content::now(), !broken.changes_content)
            << "what the engine holds";
    }

    // The lock of the flow is held so many times, those of the caller not counted, and let go.
    void expect_levels(int levels) const {
        const int kept = record->flow_lock == own_level ? 1 : 0;
        EXPECT_EQ(levels_held(record->flow_lock) - kept, levels);
        for (int level = levels_held(record->flow_lock); level > kept; --level)
            zon_unlock_internal(record->flow_lock);
    }

    void expect_no_other_lock() const {
        if (own_level != nullptr)
            zon_unlock_internal(own_level);
        EXPECT_TRUE(no_lock_is_held());
        if (own_level != nullptr)
            zon_lock_internal(own_level);
    }

    zon_lock_t own_level = nullptr;
    vem_chunk_type kept_ipv4 = nullptr;
    vem_chunk_type kept_ipv6 = nullptr;
    int32_t kept_ready = -1;
    uint32_t kept_step = 0;
    zon_flow_t* kept_records = nullptr;
    vem_chunk_type kept_objects = nullptr;
    std::vector<int> made_full;
};

// ---- the checks that many operations share ----

inline const check an_engine{
    "an engine", zon_error_engine_not_init, {[](client_scene&) {}}, [](client_scene& s) {
        s.make_engine();
    }};
inline const check a_client_id{
    "a client id of 1 to 31",
    zon_error_client_id_invalid,
    {[](client_scene& s) { s.cid = 0; }, [](client_scene& s) { s.cid = 32; }},
    [](client_scene& s) { s.cid = s.own; }};
inline const check a_direction{
    "a direction",
    zon_error_direction_parameter_is_invalid,
    {[](client_scene& s) { s.dir = static_cast<zon_flow_direction_e>(3); },
     [](client_scene& s) { s.dir = static_cast<zon_flow_direction_e>(-1); }},
    [](client_scene& s) { s.dir = ZON_DIR_RESPONDER; }};
inline const check a_tuple_type{
    "a tuple type",
    zon_error_invalid_tuple_type,
    {[](client_scene& s) { s.type = static_cast<zon_flow_tuple_type_t>(-1); },
     [](client_scene& s) { s.type = static_cast<zon_flow_tuple_type_t>(4); }},
    [](client_scene& s) { s.type = ZON_FLOW_TUPLE_TYPE_COMPLETE; }};
inline const check a_tuple{"a tuple",
                           zon_error_flow_tuple_is_null,
                           {[](client_scene& s) { s.tuple_given = false; }},
                           [](client_scene& s) { s.tuple_given = true; }};
inline const check a_pointer{"a pointer",
                             zon_error_parameter_is_null,
                             {[](client_scene& s) { s.pointer_given = false; }},
                             [](client_scene& s) { s.pointer_given = true; }};
inline const check an_object{"an object",
                             zon_error_parameter_is_null,
                             {[](client_scene& s) { s.fo = nullptr; }},
                             [](client_scene& s) { s.fo = &objects[1]; }};
inline const check a_flow{
    "a flow",
    zon_error_flow_not_found,
    {[](client_scene& s) { s.fid = 0; }, [](client_scene& s) { s.fid = s.flow + 3; }},
    [](client_scene& s) { s.fid = s.flow; }};
// The tuple of another family has all the rest of the flow's: taken for one of the two, it would
// find the flow.
template <int family>
void be_of_another_family(client_scene& s) {
    s.tuple = s.flow_tuple;
    s.tuple.src_ip.addr_type = static_cast<zon_ip_addr_e>(family);
}
inline const check a_family{
    "one of the two families",
    zon_error_flow_not_found,
    {be_of_another_family<0>, be_of_another_family<9>, be_of_another_family<12>},
    [](client_scene& s) { s.tuple = s.nobodys(); }};
inline const check a_connection_with_a_flow{"a flow of the connection",
                                            zon_error_flow_not_found,
                                            {[](client_scene& s) { s.tuple = s.nobodys(); }},
                                            [](client_scene& s) { s.tuple = s.flow_tuple; }};
inline const check memory_for_the_object{
    .name = "memory for the object",
    .refusal = zon_error_memory,
    .breaks = {[](client_scene& s) { s.take_object_memory(); }},
    .mend = [](client_scene& s) { s.give_object_memory(); },
    .with_engine = true};

// The same check with other outputs.
inline check writing(check of, void (*writes)(const client_scene&, call_outputs& expected)) {
    of.writes = writes;
    return of;
}
// The same check with another answer.
inline check answering(check of, int refusal) {
    of.refusal = refusal;
    return of;
}

class every_operation : public client_scene,
                        public ::testing::WithParamInterface<std::tuple<operation, bool, bool>> {
protected:
    every_operation() {
        ipv6 = std::get<1>(GetParam());
        holds_the_lock = std::get<2>(GetParam());
    }
    void walk_row() { walk(std::get<0>(GetParam())); }
};

inline std::string name_of_row(const auto& row) {
    return std::string(std::get<0>(row.param).name) + (std::get<1>(row.param) ? "_ipv6" : "_ipv4") +
           (std::get<2>(row.param) ? "_by_a_holder_of_the_lock" : "");
}

}  // namespace zon_test

// side_by_side.h - the engine and its model, led through the same operations and compared after
// each one.
//
// The engine is looked at through its public interface alone, save that its index of connections is
// compared with its chains. A difference is thrown as
// std::runtime_error; what is left of the engine goes with the object.

#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "properties/engine_model.h"
#include "properties/host_functions.h"
#include "properties/operation.h"
#include "support/client_tuple.h"
#include "support/packet_builder.h"
#include "zon.h"

namespace zon_test {

// What the scripts of one run have reached.
struct reached_so_far {
    size_t scripts = 0, steps = 0, packets = 0, flows = 0, promotions = 0, deletions = 0,
           refused = 0, vetoed = 0, aged = 0, family_walks = 0, tunnelled = 0, translated = 0,
           rekeyed_and_found = 0, indexed = 0;
    std::array<size_t, 5> promoted_from{};
    std::map<op, size_t> of_kind;
};

class side_by_side {
public:
    side_by_side();
    ~side_by_side();
    side_by_side(const side_by_side&) = delete;
    side_by_side& operator=(const side_by_side&) = delete;

    void run(const operation& step);
    // Deletes every flow: nothing may be left, no memory and no lock.
    void clear_all();

    static reached_so_far reached;

private:
    // ---- comparing ----
    template <class engine_value, class model_value>
    static void expect(const char* what, const engine_value& engine, const model_value& model) {
        if (engine == static_cast<engine_value>(model))
            return;
        std::ostringstream out;
        out << what << ": the engine says " << engine << ", the model "
            << static_cast<engine_value>(model);
        throw std::runtime_error(out.str());
    }
    static void expect_error(const char* what, zon_error_t engine, int model) {
        expect(what, static_cast<int>(engine), model);
    }
    void expect_told();
    void expect_flows();
    void expect_flow(const flow_of_model& of);
    void expect_report(const zon_flow_report_t& report, const flow_of_model& of);
    void expect_table();
    void expect_figures();
    static void expect_sound_index();
    void expect_no_lock_held();

    // ---- packets ----
    struct arrival {
        packet_context context;
        packet_of_model seen;
        bool is_classified = true;
    };
    arrival arrival_of(const operation& step);
    bytes content_of(const operation& step, arrival& in);
    void enter_tunnel(uint32_t tunnel, bytes& packet, arrival& in);
    void learn(arrival& in, uint32_t fid);
    void compare_packet(arrival& in, uint32_t fid, zon_error_t error,
                        const std::optional<reported_flow>& reported);
    void packet(const operation& step);
    void sync_packet(const operation& step);
    void kit_packet(const operation& step);
    void engine_packet(const operation& step);
    void clean_up();
    void wait(const operation& step);

    // ---- flows ----
    void run_flow_step(const operation& step);
    void announce(const operation& step);
    void withdraw(const operation& step);
    void find(const operation& step);
    void probe(const operation& step);
    void rekey(const operation& step);
    void rekey_side(uint32_t fid, size_t side, const connection_tuple& tuple);
    void move_vrf(const operation& step);
    void set_field(const operation& step);
    void set_defaults(const operation& step);
    void sequence_number(const operation& step);
    void children(const operation& step);
    void remove(uint32_t fid, uint8_t reason);

    // ---- clients ----
    void run_object_step(const operation& step);
    void attach(const operation& step);
    void get_or_detach(const operation& step);
    void get_by_key(const operation& step);
    void uni(const operation& step);
    void remove_client_objects(const operation& step);
    void run_client_step(const operation& step);
    void callback(const operation& step);
    void capability(const operation& step);
    void context_callback(const operation& step);
    void context_object(const operation& step);
    void context_walk(const operation& step);

    // ---- the host ----
    void report(const operation& step);
    void dump(const operation& step);
    void configure(const operation& step);
    void restart(uint8_t how);
    void begin_engine();
    void register_observer();

    zon_flow_t snapshot_of(uint32_t fid);
    static connection_tuple tuple_in_family_of(const flow_of_model& of, const operation& step);
    static zon_flow_tuple_type_t type_of(const operation& step);
    static known known_of(const operation& step);
    static uint32_t client_of(const operation& step);
    static void* object_of(uint64_t number) { return reinterpret_cast<void*>(number); }

    engine_model model_;
    zon_pkt_indications_t seen_{};  // of the last packet
    int32_t* announced_halves_ = nullptr;
    std::array<bool, engine_capacity + 1> was_rekeyed_{};
};

}  // namespace zon_test

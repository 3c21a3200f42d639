// burst_run.h - one life of an engine under random bursts, and all that can be seen of it.
//
// Two runs of one seed differ in nothing but how packets are handed in. Clients veto, bypass, count
// and, now and then, do something to the engine while a packet is on its way.

#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "burst/burst_traffic.h"
#include "zon.h"

namespace zon_test {

enum class handed_in { singly, in_bursts };

// One call of a client's function, or what an operation inside of it came back with.
struct told_event {
    const char* what = "";
    std::array<uint64_t, 6> numbers{};

    bool operator==(const told_event& other) const {
        return std::strcmp(what, other.what) == 0 && numbers == other.numbers;
    }
};

struct packet_outcome {
    zon_fid_t fid = 0;
    zon_error_t error = zon_error_none;
    zon_pkt_indications_t seen{};  // addresses as distances from the packet's first byte

    bool operator==(const packet_outcome& other) const;
};

// All that a step showed.
struct step_outcome {
    std::vector<told_event> told;
    std::vector<packet_outcome> packets;
    uint32_t with_flow = 0;
    std::string figures;  // of tables, memory and capabilities; now and then of every flow
};

// Empty, or the first difference.
std::string difference_of(const step_outcome& one_by_one, const step_outcome& in_bursts);

// What the runs reached, to know that they were worth comparing.
struct reached_by_bursts {
    size_t packets = 0, with_flow = 0, first = 0, first_met_again_in_burst = 0, refused = 0,
           promoted = 0, vetoed = 0, fragments = 0, tunnelled = 0, checked_sequences = 0,
           out_of_memory = 0, nested = 0, deletions = 0, acts = 0, dumps = 0;
};

class burst_run {
public:
    burst_run(uint32_t seed, handed_in how);
    ~burst_run();
    burst_run(const burst_run&) = delete;
    burst_run& operator=(const burst_run&) = delete;

    // A burst, then what a host does between bursts.
    step_outcome step();
    // Destroys the engine.
    step_outcome finish();

    reached_by_bursts reached;

private:
    friend struct burst_clients;

    void begin_engine();
    void enable_what_is_usual();
    void hand_in(burst& packets, step_outcome& outcome);
    void count(const step_outcome& outcome);
    std::string figures();
    std::string all_flows();
    std::string dump();
    uint32_t below(uint32_t end) { return static_cast<uint32_t>(random_()) % end; }
    bool one_in(uint32_t many) { return below(many) == 0; }

    // ---- what clients and host do ----
    void tell(const char* what, std::array<uint64_t, 6> numbers = {});
    void maybe_act();
    void act();
    void toggle_capability();
    void change_keys();
    void announce();
    void hang_objects();
    void set_fields();
    void hand_in_from_inside();
    zon_client_id_e some_client() { return clients_[random_() % clients_.size()]; }
    zon_fid_t some_fid() { return 1 + below(max_flows_); }

    uint32_t seed_;
    handed_in how_;
    uint32_t max_flows_;
    bool is_traced_;
    burst_traffic traffic_;
    std::mt19937 random_;
    std::array<zon_client_id_e, 3> clients_{};
    int depth_ = 0;
    uint32_t steps_ = 0;
    step_outcome* current_ = nullptr;
};

}  // namespace zon_test

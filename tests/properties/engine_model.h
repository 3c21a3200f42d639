// engine_model.h - what the whole engine is expected to do with each operation, stated slowly and
// plainly: a list of flows, each with the keys of its two sides, searched from end to end.
//
// It knows nothing of hashes, locks, records or wheels. Operations that make clients' functions run
// append to told what those are expected to be told.

#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "properties/client_model.h"
#include "properties/context_model.h"
#include "properties/notice.h"
#include "properties/object_lists.h"
#include "support/deadline_model.h"
#include "support/flow_model.h"
#include "support/session_model.h"

namespace zon_test {

// How much of a key is known. With 5 added for IPv6 these are the key types that the engine
// reports.
enum class known : uint8_t { everything, destination, source, announced, any_vrf };

struct side_key {
    known part = known::everything;
    connection_tuple tuple;
    uint64_t linked_at = 0;  // the newest of several equal keys is found

    uint32_t type() const { return static_cast<uint32_t>(part) + (tuple.source.ipv6 ? 5 : 0); }
};

inline constexpr size_t initiator_side = 0, responder_side = 1;

struct flow_of_model {
    uint32_t fid = 0;
    std::array<side_key, 2> sides;
    object_lists objects;
    uint32_t packets = 0;
    uint64_t bytes = 0;
    uint32_t first_payload_on = 0;
    uint32_t application = 0;
    uint32_t bypass = 0;
    uint32_t age_ms = 0;
    session_model session;
    bool seen_since = false;
    deadline due;
    uint32_t tunnel = 0;
    context_model::membership contexts;
};

// A packet on its way in.
struct packet_of_model {
    connection_tuple tuple;
    uint8_t tcp_flags = 0;
    uint32_t payload = 0;
    uint32_t tunnel = 0;
    uint32_t vetoed_by = 0;
    packet_contexts contexts;
    std::optional<connection_tuple> translated;
    // What the session has become, where flags alone do not tell.
    std::optional<session_model> learned;
};

struct packet_answer {
    uint32_t fid = 0;
    int error = 0;
    bool first = false, last = false, from_initiator = false, first_payload = false;
    known promoted_from = known::everything;
    uint32_t packets = 0;
    uint64_t bytes = 0;
    uint32_t payload = 0;
    uint32_t bypass = 0;
    uint32_t tunnel = 0;

    bool promoted() const { return promoted_from != known::everything; }
};

// What a host reports of a flow that it knows.
struct reported_flow {
    uint32_t fid;
    uint8_t state;
    uint32_t number;
};

class engine_model {
public:
    struct idle_times {
        uint32_t tcp_opening = 5000, tcp_established = 30000, tcp_closing = 5000,
                 udp_opening = 5000, udp_established = 30000;
    };
    struct table_counts {
        uint32_t inserts = 0, deletes = 0, aged = 0, refused = 0;
    };
    struct half_of_flow {
        flow_of_model* flow = nullptr;
        size_t side = 0;
    };

    engine_model(uint64_t now, uint32_t capacity, uint32_t block, uint32_t announced_ms);

    client_model clients;
    context_model contexts;
    notices told;
    idle_times defaults;
    table_counts counts;
    uint8_t udp_threshold = 0;

    // ---- packets ----
    packet_answer packet(const packet_of_model& seen);
    packet_answer sync(const reported_flow& reported, const packet_of_model& seen);
    bool is_classified(uint8_t protocol) const;
    bool is_tunnel_open(uint32_t tunnel, zon_capability_e capability) const;

    // ---- flows by tuple and by identifier ----
    half_of_flow find(known part, const connection_tuple& tuple);
    // As clients look: whole tuples are also found where they were announced.
    half_of_flow find_by_tuple(known part, const connection_tuple& tuple);
    flow_of_model* flow(uint32_t fid);
    std::vector<uint32_t> fids() const;

    // ---- what clients do ----
    // 0 where there is no room.
    uint32_t announce(known part, const connection_tuple& tuple, uint32_t parent);
    bool remove(uint32_t fid, int reason);
    void remove_client_objects(uint32_t client);
    void set_idle_seconds(flow_of_model& of, uint32_t seconds);
    void rekey(flow_of_model& of, size_t side, const connection_tuple& tuple);
    void move_vrf(flow_of_model& of, uint32_t vrf_id);
    uint32_t parent_of(uint32_t fid) const { return links_[fid].parent; }
    std::vector<uint32_t> children_of(uint32_t fid) const;

    // ---- time ----
    uint64_t next_certain_moment(uint64_t moment) const;
    // The flows that must be deleted until then. They stay until they are aged out one by one, in
    // the order in which they were seen to leave.
    std::vector<uint32_t> advance_to(uint64_t now);
    void age_out(uint32_t fid);
    std::vector<uint32_t> vague() const;

    // ---- figures ----
    uint32_t made() const { return made_; }
    uint32_t sides_of_type(uint32_t type) const;
    uint32_t sides_of_family(bool ipv6) const;

private:
    // The three links of a record. They outlive its flow.
    struct bundle_links {
        uint32_t parent = 0, child = 0, sibling = 0;
    };

    flow_of_model* take_record();
    void make_block();
    void drop(uint32_t fid);
    void link(side_key& side) { side.linked_at = ++links_made_; }
    void set_sides(flow_of_model& of, known initiator, const connection_tuple& forth,
                   known responder, const connection_tuple& back);
    half_of_flow answering(const connection_tuple& tuple);
    void promote(half_of_flow found, const connection_tuple& tuple);
    bool ask_clients(uint32_t vetoed_by);
    flow_of_model* create(const packet_of_model& seen, packet_answer& answer);
    void finish(flow_of_model& of, const packet_of_model& seen, packet_answer& answer);
    uint32_t default_age(uint8_t protocol, uint8_t state) const;
    void arm(flow_of_model& of, uint32_t ms);
    void leave_family(uint32_t fid);

    uint64_t now_;
    uint32_t capacity_;
    uint32_t block_;
    uint32_t announced_ms_;
    uint32_t made_ = 0;
    uint64_t links_made_ = 0;
    std::deque<uint32_t> free_;
    std::map<uint32_t, flow_of_model> flows_;
    std::vector<bundle_links> links_;
};

}  // namespace zon_test

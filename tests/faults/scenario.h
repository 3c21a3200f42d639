// scenario.h - what a host does while a request for memory fails, and what it may be told.
//
// The step that runs while requests fail asks for no memory of its own, so that only requests of
// the engine are counted: packets and tuples are made beforehand.

#pragma once

#include <array>
#include <initializer_list>
#include <ostream>
#include <span>
#include <string>

#include "support/packet_builder.h"
#include "zon.h"

namespace zon_faults {

// A step that answers with true or false says it so.
inline constexpr zon_error_t answered_false = zon_error_end;
inline zon_error_t as_error(bool answer) {
    return answer ? zon_error_none : answered_false;
}
// Of steps that ran in this order, the first that failed.
inline zon_error_t first_of(std::initializer_list<zon_error_t> steps) {
    for (const zon_error_t step : steps)
        if (step != zon_error_none)
            return step;
    return zon_error_none;
}

enum class stage {
    empty,        // no engine
    engine,       // a small engine with a client, whose clock is turned by hand, without timers
    timers,       // the same with timers
    tight_table,  // the same without timers; a bucket holds one half flow
    half_open,    // the same with timers; half-open flows may hold four places
};

// Unused places are zon_error_none.
using refusals = std::array<zon_error_t, 8>;

struct scenario {
    const char* name;
    stage begins;
    void (*prepare)();      // null: nothing; runs before requests fail
    zon_error_t (*step)();  // zon_error_none when nothing fails
    refusals may;           // what it may answer when a request failed, 0 apart
    // Whether the engine is as the step says, looked at when no request fails any more. Null: the
    // answer tells all.
    bool (*is_so)(bool done) = nullptr;
};

inline std::ostream& operator<<(std::ostream& out, const scenario& row) {
    return out << row.name;
}

// What the steps of one run share; made anew for each run.
struct cast {
    zon_client_id_e client = 0;
    zon_fid_t flow = 0;
    zon_fid_t other = 0;
    uint32_t end_calls = 0;
    uint32_t count = 0;  // of what the step did, as far as it came
    int object = 0;
    zon_client_id_e neighbour = 0;  // a client that has its objects where the step attaches others
    int neighbours_object = 0;
    bool engine_was_made = false;  // by the step: flows that are made ahead are no refused flows
    bool record_is_asked_twice = false;  // a flow that went has left one: two refusals, one error
    bool key_was_refused = false;        // the packet kit's own, which no counter counts
};
inline cast run;

void tell_end(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e, zon_client_id_e);

// The engine that a stage begins with, made while nothing fails. False when it cannot be made.
bool make_stage(stage begins);
zon_error_t make_small_engine(uint8_t max_bucket_depth = 0);

// ---- packets and tuples, made once ----

struct packet_set {
    zon_test::bytes udp4, udp4_reply, udp6, syn4, syn6, icmp4, teredo, in_ip, first4, last4, first6,
        last6, announced4, announced6;
    packet_set();
};
packet_set& packets();

// The packet through the entry that knows how much was captured. Its error; none for a flow.
zon_error_t hand_in(zon_test::bytes& packet, zon_fid_t* fid = nullptr);
// 10.0.0.1 to 10.0.0.2 and 2001:db8::1 to 2001:db8::2, UDP.
zon_flow_tuple_t tuple4(uint16_t from_port, uint16_t to_port);
zon_flow_tuple_t tuple6(uint16_t from_port, uint16_t to_port);

inline constexpr auto complete = ZON_FLOW_TUPLE_TYPE_COMPLETE;

// ---- what a host finds when it looks ----

// Whether the packets of the step were given run.flow and run.other, and these are all flows there.
bool are_all_flows(bool done);
bool is_known(zon_flow_tuple_type_t type, zon_flow_tuple_t tuple);
// Whether this is the client's object there; null: whether it has none.
bool object_is(zon_fid_t flow, zon_client_id_e client, zon_flow_direction_e side,
               const void* wanted);

std::span<const scenario> life_scenarios();
std::span<const scenario> client_scenarios();
std::span<const scenario> packet_scenarios();
std::span<const scenario> flow_scenarios();
std::span<const scenario> group_scenarios();

}  // namespace zon_faults

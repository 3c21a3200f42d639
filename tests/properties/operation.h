// operation.h - one random call of the library's interface, small enough to be shrunk and read.
//
// Every argument is a small number: a place in the short list of connections, an identifier of the
// small engine, a place in the list of clients. Numbers shrink towards 0, which always is the
// plainest choice, and a number that a kind of operation does not use is 0.

#pragma once

#include <rapidcheck.h>

#include <array>
#include <cstdint>
#include <iosfwd>
#include <vector>

#include "support/flow_model.h"

namespace zon_test {

enum class op : uint8_t {
    packet,           // through either entry, maybe in a tunnel, maybe cut off
    sync_packet,      // of a flow that the host knows
    kit_packet,       // made of plain fields
    engine_packet,    // parsed and keyed by the host itself
    clean_up,         // the last packet is done with
    wait,             // the clock is turned
    announce,         // a pre-flow, maybe with a parent
    withdraw,         // a pre-flow by its tuple
    find,             // by tuple
    probe,            // the bare test for a flow
    attach,           // feature objects by identifier
    get,              //
    get_by_fid,       // with a snapshot
    get_by_key,       //
    detach,           //
    attach_uni,       // feature objects by tuple
    get_uni,          //
    detach_uni,       //
    remove,           // a flow
    remove_client,    // the client's objects on every flow
    set_aging,        // of one flow
    set_defaults,     // idle times of flows to come, and the UDP threshold
    set_state,        //
    set_application,  //
    set_bypass,       //
    sequence_number,  //
    rekey,            // one side of a flow
    rekey_mirrored,   // both sides
    move_vrf,         //
    parent,           //
    children,         //
    register_client,
    unregister_client,
    delete_callback,
    create_callback,
    bypass_callback,
    enable,
    disable,
    capability,
    context_lookup,  // super contexts
    context_delete_callback,
    context_attach,
    context_get,
    context_handle,
    context_walk,
    translate,    // the host's NAT goes on or off
    report,       // every flow, every figure
    dump,         // on standard output
    clear_stats,  //
    configure,    // defaults, texts, hooks
    restart,      // destroy and begin anew
};

// The numbers of an operation.
enum class field : uint8_t {
    tuple,  // a connection and a direction of it
    vrf,
    fid,     // 0 names no flow
    type,    // of a tuple: complete, source, destination, any VRF
    client,  // a place in client_ids
    dir,     // whole, initiator, responder, and one that is none
    value,   // whatever the kind needs: payload, milliseconds, a state
    extra,   // variations
};
inline constexpr size_t fields = 8;

struct operation {
    op kind = op::packet;
    std::array<uint8_t, fields> numbers{};

    uint8_t operator[](field of) const { return numbers[static_cast<size_t>(of)]; }
    bool operator==(const operation&) const = default;
};

inline constexpr uint32_t engine_capacity = 8;
inline constexpr uint32_t engine_block = 3;
inline constexpr uint32_t announced_ms = 3000;

// The host's own client, which is always there and is told of every deletion.
inline constexpr uint32_t observer = 31;
inline constexpr std::array<uint32_t, 7> client_ids = {30, 29, 28, 5, observer, 0, 32};

// Connections between a few hosts: two families, two protocols, and hosts that talk to themselves.
connection_tuple tuple_of(const operation& step);

// An operation made of any bytes: kinds come as often as they weigh, numbers are brought within
// their limits, and those that the kind does not use are 0.
operation operation_of(uint16_t kind, const std::array<uint8_t, fields>& numbers);

using script = std::vector<operation>;
rc::Gen<script> scripts();

const char* name_of(op kind);
std::ostream& operator<<(std::ostream& out, const operation& step);
// One line for each step.
void showValue(const script& steps, std::ostream& out);

}  // namespace zon_test

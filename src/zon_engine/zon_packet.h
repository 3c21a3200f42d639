// zon_packet.h - one packet on its way through the engine.

#pragma once

#include "zon_engine_defs.h"
#include "zon_engine_inline.h"
#include "zon_flow_table.h"

struct packet_in_engine {
    zon_half_flow_t* key;  // the packet's key in its own direction; scratch
    zon_dp_fe_t* fe;
    void* context;
    zon_pkt_indications_t* indications;
    zon_error_t* error;
    zon_tunnel_type_e tunnel;
    const zon_capability_counter_t* capabilities;
    bool is_in_no_index = false;   // the index of connections was asked, and led to no flow
    flow_buckets buckets{-1, -1};  // of the key and of its reverse; below 0: not known
};

// The packet's flow, found or made; empty when it gets none.
locked_flow zon_find_or_make_flow(packet_in_engine& packet);

// Finds or makes the packet's flow, brings it up to date and fills the indications; 0 when the
// packet gets no flow.
zon_fid_t zon_classify_packet(packet_in_engine& packet);

// The same for a packet whose flow, state and number the platform reports.
zon_fid_t zon_synchronise_packet(packet_in_engine& packet, zon_fid_t fid,
                                 zon_l4_flow_state_e reported_state, uint32_t reported_number);

// What became of an attempt to give a packet a flow.
enum class attempt {
    done,     // the flow is there, locked
    refused,  // no flow; the error is reported
    again,    // another thread was faster: look the packet up anew
    nothing   // there was nothing to do here
};

struct attempted_flow {
    attempt outcome;
    locked_flow flow;
};

// Tries the packet against announced flows and turns the first that matches into a real one.
attempted_flow zon_promote_announced_flow(packet_in_engine& packet);

// Makes a new flow; the bucket of the key is known. The reverse's is forgotten when a host
// translates addresses.
attempted_flow zon_create_flow(packet_in_engine& packet);

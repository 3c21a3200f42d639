// actor.h - one thread of the mixed stress: what it knows of the round, and the steps that it can
// take.
//
// A step is one thing that a host's thread does; it lets go of every lock that it took. Each file
// of roles implements the steps of one of them.

#pragma once

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "stress/mixed/ledger.h"
#include "stress/mixed/traffic.h"
#include "support/stress_threads.h"
#include "zon.h"

namespace zon_test {

// How a round differs from others.
struct round_settings {
    uint32_t number = 0;
    uint32_t seed = 0;
    uint32_t max_flows = 0;
    uint32_t max_locks = 0;
    uint32_t steps = 0;   // of each thread, between two comparisons
    uint32_t phases = 0;  // comparisons of each engine
    zon_clock_mode_e clock = ZON_CLOCK_MANUAL_WAIT;
    // Clients do what loses things on purpose. Flows that soon go become parents: their children
    // may be listed where a record was used again, and only the end of every walk is certain.
    // Several clients hang objects on one direction: earlier ones fall off its list.
    bool loose = false;
    bool destroyed_with_flows = false;
    bool restarted = false;  // halfway
    uint32_t half_open_percent = 0;
    bool interrupted = true;  // threads lose the processor anywhere; else they get further
};

// What the round's threads share.
struct round_cast {
    round_settings settings;
    ledger* book = nullptr;
    bool is_restarted = false;  // the engine
    std::array<zon_client_id_e, ledger::steady_clients> clients{};
    std::vector<zon_fid_t> parents;  // of the connections of that kind, in their order
    std::atomic<uint32_t>* packets_of_newest = nullptr;
};

// The packet context that travels with every packet.
struct packet_note {
    bool is_forbidden = false;
    uint32_t group = 0;
};

struct actor {
    stress_thread& self;
    const round_cast& cast;
    bool turns_clock = false;

    ledger& book() const { return *cast.book; }
    bool one_in(uint32_t many) const { return self.below(many) == 0; }
    connection any_of(kind what) const;
    // Several threads in a row get the same one, and then another one that was not used lately.
    connection newest() const;
};

inline constexpr uint32_t connections_of_a_kind = 16;
inline constexpr uint32_t parent_count = 4;
inline constexpr uint32_t group_count = 4;

uint32_t group_of(const connection& which);

// ---- what several roles do ----

struct answer {
    zon_fid_t fid = 0;
    zon_error_t error = zon_error_none;
    zon_pkt_indications_t seen{};
};
answer send_packet(const actor& by, const connection& which, bytes packet, uint32_t vrf_id = 0);

// Looks a connection up and calls use(fid) with the flow locked; false when there is none.
template <class action>
bool while_locked(const actor& by, const connection& which, bool back, action use) {
    const zon_flow_tuple_t tuple = tuple_of(which, back);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    by.self.doing("find and lock a flow");
    const zon_error_t error =
        zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock);
    if (error != zon_error_none) {
        EXPECT_EQ(error, zon_error_flow_not_found);
        EXPECT_EQ(lock, nullptr);
        by.book().did(feat::tuple_missed);
        return false;
    }
    EXPECT_NE(fid, 0U);
    EXPECT_NE(which.what, kind::forbidden) << "a flow of a connection that a client forbids";
    by.book().did(feat::tuple_found);
    use(fid);
    by.self.doing("unlock a flow");
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    return true;
}

// ---- roles ----

void send_forward(actor& by);
void send_back(actor& by);
void send_fragments_and_tunnels(actor& by);
void send_in_bursts(actor& by);
void query_and_set(actor& by);
void hang_objects(actor& by);
void announce_and_walk(actor& by);
void move_and_look(actor& by);
void delete_and_turn_clock(actor& by);

// ---- the round's own clients ----

void register_steady_clients(round_cast& cast);
void make_parents(round_cast& cast);

}  // namespace zon_test

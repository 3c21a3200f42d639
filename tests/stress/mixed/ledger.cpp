// ledger.cpp - compares what was done, what was told and what the engine counted.

#include "stress/mixed/ledger.h"

#include <gtest/gtest.h>

#include <map>
#include <utility>

#include "stress/mixed/traffic.h"
#include "support/flow_reader.h"
#include "support/index_oracle.h"
#include "support/lanes.h"
#include "support/table_census.h"
#include "zon_engine/zon_half_open.h"

namespace zon_test {
namespace {

constexpr std::array<const char*, static_cast<size_t>(feat::count)> feat_names = {
    "flow made",
    "flow met by both directions",
    "packet refused for want of room",
    "packet forbidden by a client",
    "packet of a locked flow",
    "packet of the kit",
    "packet in a burst",
    "packet synchronised",
    "last packet cleaned up",
    "later fragment followed",
    "tunnel followed",
    "tuple found",
    "tuple missed",
    "record copied",
    "state set",
    "idle time set",
    "object hung",
    "object taken off",
    "object taken off all flows",
    "object of one direction",
    "group object hung",
    "group object back",
    "group walked",
    "client came and went",
    "object of such a client back",
    "announced complete",
    "announced by source",
    "announced by destination",
    "announced without VRF",
    "announcement found",
    "announcement withdrawn",
    "promoted in place",
    "promoted by wildcard",
    "child walked",
    "side moved",
    "VRF moved",
    "deleted by client",
    "deleted under its lock",
    "deleted by ager",
    "half-open flow replaced",
    "clock turned",
    "dump printed",
    "flow reported",
    "statistics read",
    "restarted engine used",
};
static_assert(feat_names.back() != nullptr);

std::vector<zon_fid_t> fids_in_use() {
    std::vector<zon_fid_t> fids;
    for (zon_fid_t fid = 1; fid <= g_zon->fid_table->capacity; ++fid)
        if (record_of(fid) != nullptr)
            fids.push_back(fid);
    return fids;
}

void expect_tunnels_counted() {
    uint32_t in_ip = 0;
    uint32_t teredo = 0;
    for (const zon_fid_t fid : fids_in_use()) {
        in_ip += record_of(fid)->tunnel_type == ZON_TUNNEL_TYPE_IPV6INIP;
        teredo += record_of(fid)->tunnel_type == ZON_TUNNEL_TYPE_TEREDO;
    }
    const zon_active_tunnel_flows_t& counted = g_zon->flow_tbl->active_tunnel_flows_count;
    EXPECT_EQ(counted.active_ipv6inip_flows_count, in_ip);
    EXPECT_EQ(counted.active_teredo_flows_count, teredo);
}

// Threads that made flows at one moment may each have gone one beyond the bound.
void expect_half_open_counted(uint32_t threads) {
    uint32_t marked = 0;
    for (const zon_fid_t fid : fids_in_use())
        marked += record_of(fid)->private_half_open != 0 ? 1U : 0U;
    EXPECT_EQ(zon_half_open.count, marked);
    if (zon_half_open_is_bounded()) {
        EXPECT_LT(marked, zon_half_open.bound + threads);
    }
}

// Of moved connections a client may have made two flows stand for the same packets.
bool is_moved(const zon_flow_tuple_t& tuple) {
    const connection any{kind::moved, 0};
    const connection any6{kind::moved, 1};
    const zon_flow_tuple_t like = tuple_of(tuple.src_ip.addr_type == ZON_IP_ADDR_IPV4 ? any : any6);
    if (tuple.src_ip.addr_type == ZON_IP_ADDR_IPV4) {
        const auto same = [](uint32_t a, uint32_t b) { return a >> 12 == b >> 12; };
        return same(tuple.src_ip.u.v4_addr, like.src_ip.u.v4_addr) ||
               same(tuple.src_ip.u.v4_addr, like.dst_ip.u.v4_addr);
    }
    return std::memcmp(tuple.src_ip.u.v6_addr + 8, like.src_ip.u.v6_addr + 8, 4) == 0;
}

void expect_one_flow_a_connection() {
    std::map<std::pair<uint32_t, std::string>, zon_fid_t> flow_of;
    for (const zon_fid_t fid : fids_in_use())
        for (const zon_flow_direction_e side : {ZON_DIR_INITIATOR, ZON_DIR_RESPONDER}) {
            zon_flow_tuple_t tuple;
            std::memset(static_cast<void*>(&tuple), 0, sizeof tuple);
            ASSERT_EQ(zon_flow_get_tuple(fid, side, &tuple), zon_error_none);
            if (is_moved(tuple))
                continue;
            // What was announced with a whole tuple and what packets made stand for the same.
            uint32_t type = zon_named_half_flow(record_of(fid), side)->key.key_type;
            if (type == ZON_IPV4_KEY_PRE_FLOW_COMPLETE || type == ZON_IPV6_KEY_PRE_FLOW_COMPLETE)
                type -= 3;
            const std::string key(reinterpret_cast<const char*>(&tuple), sizeof tuple);
            const auto [at, fresh] = flow_of.emplace(std::pair(type, key), fid);
            if (type == ZON_IPV4_KEY_COMPLETE || type == ZON_IPV6_KEY_COMPLETE) {
                EXPECT_TRUE(fresh) << "flows " << at->second << " and " << fid
                                   << " stand for one connection, from port " << tuple.src_port;
            }
        }
}

}  // namespace

const char* name_of(feat what) {
    return feat_names.at(static_cast<size_t>(what));
}

// ---- objects ----

void hung_object::hang() {
    EXPECT_EQ(state_.exchange(state::hung, std::memory_order_relaxed), state::fresh);
}

void hung_object::come_back() {
    EXPECT_EQ(state_.exchange(state::back, std::memory_order_relaxed), state::hung)
        << "an object came back twice";
}

hung_object* ledger::new_object() {
    const std::lock_guard guard(guard_of_objects_);
    return &objects_.emplace_back();
}

// ---- notes ----

ledger::ledger(uint32_t capacity, uint32_t threads)
    : threads_(threads),
      made_(capacity + 1),
      announced_(capacity + 1),
      promoted_(capacity + 1),
      told_{std::vector<count32>(capacity + 1), std::vector<count32>(capacity + 1),
            std::vector<count32>(capacity + 1)} {}

void ledger::note_packet(zon_fid_t fid, zon_error_t error, const zon_pkt_indications_t& seen,
                         bool wildcard) {
    if (fid == 0) {
        EXPECT_EQ(seen.fif, 0) << "no flow, yet the first packet of one";
        if (error == zon_error_memory) {
            add(refusals_, 1);
            did(feat::packet_refused_for_room);
        }
        return;
    }
    EXPECT_EQ(seen.flow, fid);
    if (seen.l4_error == ZON_L4_NOERR_NON_FIRST_FRAG && seen.is_fragment != 0) {
        did(feat::later_fragment_followed);
        return;
    }
    add(packets_, 1);
    add(payload_bytes_, seen.l4_payload_size);
    if (seen.fif == 0)
        return;
    if (seen.was_promoted == 0) {
        add(made_.at(fid), 1);
        did(feat::flow_made);
        return;
    }
    add(promoted_.at(fid), 1);
    add(wildcard_promotions_, wildcard ? 1 : 0);
    did(wildcard ? feat::promoted_by_wildcard : feat::promoted_in_place);
}

void ledger::note_announced(zon_fid_t fid) {
    add(made_.at(fid), 1);
    add(announced_.at(fid), 1);
}

void ledger::note_told(size_t client, zon_fid_t fid, zon_flow_deletion_reason_e reason) {
    const uint32_t before = told_.at(client).at(fid).fetch_add(1, std::memory_order_relaxed);
    const bool is_first = client == steady_clients - 1;
    if (!is_first) {
        EXPECT_EQ(get(told_[client + 1][fid]), before + 1)
            << "client " << client << " heard more or less of flow " << fid
            << " than the one before";
    }
    if (client != 0)
        return;
    if (reason == ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT) {
        add(aged_, 1);
        did(feat::deleted_by_ager);
    }
    if (reason == ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE)
        did(feat::replaced_half_open);
    uint32_t count = 0;
    EXPECT_EQ(zon_flow_get_packet_count(fid, &count), zon_error_none);
    add(packets_of_deleted_, count);
    add(bytes_of_deleted_, record_of(fid)->num_l7_bytes);
}

// ---- comparisons ----

uint64_t ledger::all_made() const {
    uint64_t all = 0;
    for (const count32& count : made_)
        all += get(count);
    return all;
}

uint64_t ledger::all_told() const {
    uint64_t all = 0;
    for (const count32& count : told_[0])
        all += get(count);
    return all;
}

void ledger::expect_flows_and_packets() const {
    uint64_t packets = get(packets_of_deleted_);
    uint64_t payload = get(bytes_of_deleted_);
    for (zon_fid_t fid = 1; fid < made_.size(); ++fid) {
        const zon_flow_t* flow = record_of(fid);
        for (const auto& client : told_)
            EXPECT_EQ(get(made_[fid]), get(client[fid]) + (flow != nullptr ? 1 : 0))
                << "flow " << fid << (flow != nullptr ? ", in use" : ", gone");
        EXPECT_LE(get(promoted_[fid]), get(announced_[fid])) << "flow " << fid;
        packets += flow != nullptr ? flow->packet_number : 0;
        payload += flow != nullptr ? flow->num_l7_bytes : 0;
    }
    EXPECT_EQ(packets, get(packets_)) << "packets were lost, or counted to flows that were gone";
    EXPECT_EQ(payload, get(payload_bytes_));
}

// Every insertion, removal, expiry and refusal is one of ours.
void ledger::expect_statistics() const {
    const uint64_t relinked = get(moved_sides_) + 2 * get(wildcard_promotions_);
    bring_back_from_lanes();
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 2 * all_made() + relinked);
    EXPECT_EQ(g_zon->flow_tbl->profile_delete, all_told() + relinked);
    EXPECT_EQ(g_zon->flow_tbl->profile_passively_aged, get(aged_));
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, get(refusals_));
    EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors, 0U);
    EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 2 * (all_made() - all_told()));
}

void ledger::expect_engine_agrees() const {
    expect_sound_tables();
    expect_tunnels_counted();
    expect_half_open_counted(threads_);
    expect_one_flow_a_connection();
    expect_flows_and_packets();
    expect_statistics();
    EXPECT_EQ(look_at_index().difference, "");
    EXPECT_TRUE(no_lock_is_held());
    EXPECT_EQ(zon_flow_table_is_available(g_zon->flow_tbl), zon_error_none);
    EXPECT_EQ(zon_fid_table_is_available(g_zon->fid_table), zon_error_none);
}

void ledger::expect_all_told() const {
    for (zon_fid_t fid = 1; fid < made_.size(); ++fid)
        for (const auto& client : told_)
            EXPECT_EQ(get(made_[fid]), get(client[fid])) << "flow " << fid;
    EXPECT_EQ(get(packets_of_deleted_), get(packets_));
    EXPECT_EQ(get(bytes_of_deleted_), get(payload_bytes_));
}

void ledger::expect_all_objects_back() const {
    size_t out = 0;
    for (const hung_object& object : objects_)
        out += object.is_out() ? 1 : 0;
    EXPECT_EQ(out, 0U) << "objects never came back";
}

}  // namespace zon_test

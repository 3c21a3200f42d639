// engine_model.cpp - the expected behaviour, one operation after the other.

#include "properties/engine_model.h"

namespace zon_test {

namespace {

constexpr int aged_out = 1;
constexpr int client_unregistered = 3;

known mirrored(known part) {
    switch (part) {
    case known::destination:
        return known::source;
    case known::source:
        return known::destination;
    default:
        return part;
    }
}

// Whether a key that is looked for is this one: only what is known of it is compared, and an end
// alone meets any protocol and any VRF.
bool is_same(known part, const connection_tuple& wanted, const side_key& stored) {
    if (stored.part != part || stored.tuple.source.ipv6 != wanted.source.ipv6)
        return false;
    switch (part) {
    case known::destination:
        return stored.tuple.destination == wanted.destination;
    case known::source:
        return stored.tuple.source == wanted.source;
    case known::any_vrf:
        return stored.tuple.in_any_vrf() == wanted.in_any_vrf();
    default:
        return stored.tuple == wanted;
    }
}

}  // namespace

engine_model::engine_model(uint64_t now, uint32_t capacity, uint32_t block, uint32_t announced_ms)
    : now_(now),
      capacity_(capacity),
      block_(block),
      announced_ms_(announced_ms),
      links_(capacity + 1) {
    make_block();
}

// ---- packets ----

packet_answer engine_model::packet(const packet_of_model& seen) {
    packet_answer answer;
    flow_of_model* of = find(known::everything, seen.tuple).flow;
    if (of == nullptr) {
        if (!ask_clients(seen.vetoed_by)) {
            answer.error = zon_error_client_pre_create_prevented;
            return answer;
        }
        if (const half_of_flow announced = answering(seen.tuple); announced.flow != nullptr) {
            of = announced.flow;
            answer.promoted_from = of->sides[announced.side].part;
            promote(announced, seen.tuple);
        } else {
            of = create(seen, answer);
            if (of == nullptr)
                return answer;
        }
        answer.first = true;
    }
    answer.packets = ++of->packets;
    answer.from_initiator = seen.tuple.source.ip == of->sides[initiator_side].tuple.source.ip;
    if (seen.learned)
        of->session = *seen.learned;
    else
        of->session.track(seen.tuple.protocol, seen.tcp_flags, seen.payload, answer.from_initiator,
                          udp_threshold);
    of->bytes += seen.payload;
    if (seen.payload != 0 && of->first_payload_on == 0) {
        answer.first_payload = true;
        of->first_payload_on = of->packets;
    }
    finish(*of, seen, answer);
    return answer;
}

packet_answer engine_model::sync(const reported_flow& reported, const packet_of_model& seen) {
    packet_answer answer;
    flow_of_model* of = flow(reported.fid);
    if (of == nullptr)
        return answer;
    answer.first = reported.number == 1;
    answer.from_initiator = seen.tuple.source.ipv6 == of->sides[initiator_side].tuple.source.ipv6 &&
                            seen.tuple.source.ip == of->sides[initiator_side].tuple.source.ip;
    of->session.state = static_cast<session_model::session>(reported.state);
    if (seen.payload != 0) {
        if (reported.number != of->packets)
            of->bytes += seen.payload;
        answer.first_payload = of->first_payload_on == 0 || of->first_payload_on == reported.number;
    }
    of->packets = answer.packets = reported.number;
    finish(*of, seen, answer);
    return answer;
}

bool engine_model::ask_clients(uint32_t vetoed_by) {
    for (const client_model::client& one : clients.all()) {
        if (!one.has[client_model::asked_creation])
            continue;
        told.push_back({notice_of::creation, {one.id}});
        if (one.id == vetoed_by)
            return false;
    }
    return true;
}

flow_of_model* engine_model::create(const packet_of_model& seen, packet_answer& answer) {
    if ((seen.tunnel == 1 && !clients.in_force(ZON_CAPABILITY_ENABLE_IPV6INIP)) ||
        (seen.tunnel == 2 && !clients.in_force(ZON_CAPABILITY_ENABLE_TEREDO)) || seen.tunnel > 2)
        return nullptr;
    flow_of_model* of = take_record();
    if (of == nullptr) {
        answer.error = zon_error_memory;
        return nullptr;
    }
    of->tunnel = seen.tunnel;
    set_sides(*of, known::everything, seen.tuple, known::everything,
              seen.translated.value_or(seen.tuple).reversed());
    return of;
}

// What new packets and reported ones end with.
void engine_model::finish(flow_of_model& of, const packet_of_model& seen, packet_answer& answer) {
    if (seen.tuple.protocol == 6 && clients.in_force(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS))
        for (const client_model::client& one : clients.all()) {
            if (!one.has[client_model::rewrites_bypass])
                continue;
            told.push_back(
                {notice_of::bypass,
                 {seen.payload, answer.first, answer.promoted(), answer.first_payload, of.bypass}});
            of.bypass = next_bypass_id(of.bypass, seen.payload);
        }
    if (answer.first) {
        if (of.age_ms == 0)
            of.age_ms = default_age(seen.tuple.protocol, of.session.state);
        arm(of, of.age_ms);
    } else {
        of.seen_since = of.session.state != session_model::closed;
    }
    answer.fid = of.fid;
    answer.last = of.session.state == session_model::closed;
    answer.bytes = of.bytes;
    answer.payload = seen.payload;
    answer.bypass = of.bypass;
    answer.tunnel = seen.tunnel;
    if (answer.first)
        contexts.join(of.fid, seen.contexts, of.contexts);
}

bool engine_model::is_classified(uint8_t protocol) const {
    return (protocol == 6 && clients.in_force(ZON_CAPABILITY_ENABLE_TCP)) ||
           (protocol == 17 && clients.in_force(ZON_CAPABILITY_ENABLE_UDP));
}

// Tunnels are looked into as long as there are flows of theirs.
bool engine_model::is_tunnel_open(uint32_t tunnel, zon_capability_e capability) const {
    if (clients.in_force(capability))
        return true;
    for (const auto& [fid, of] : flows_)
        if (of.tunnel == tunnel)
            return true;
    return false;
}

uint32_t engine_model::default_age(uint8_t protocol, uint8_t state) const {
    if (protocol == 6)
        return state < session_model::uni       ? defaults.tcp_opening
               : state < session_model::closing ? defaults.tcp_established
                                                : defaults.tcp_closing;
    if (protocol == 17)
        return state < session_model::uni ? defaults.udp_opening : defaults.udp_established;
    return 30000;
}

// ---- announcements ----

// The most specific announcement first.
engine_model::half_of_flow engine_model::answering(const connection_tuple& tuple) {
    for (const known part : {known::announced, known::any_vrf, known::destination, known::source})
        if (const half_of_flow found = find(part, tuple); found.flow != nullptr)
            return found;
    return {};
}

void engine_model::promote(half_of_flow found, const connection_tuple& tuple) {
    flow_of_model& of = *found.flow;
    const known part = of.sides[found.side].part;
    if (found.side != initiator_side) {
        std::swap(of.sides[initiator_side], of.sides[responder_side]);
        of.objects.exchange_sides();
    }
    if (part == known::announced) {
        for (side_key& side : of.sides)
            side.part = known::everything;
    } else {
        set_sides(of, known::everything, tuple, known::everything, tuple.reversed());
        counts.deletes += 2;
    }
    if (const uint32_t parent = links_[of.fid].parent; parent != 0) {
        links_[of.fid].sibling = links_[parent].child;
        links_[parent].child = of.fid;
    }
}

uint32_t engine_model::announce(known part, const connection_tuple& tuple, uint32_t parent) {
    if (const half_of_flow found = find_by_tuple(part, tuple); found.flow != nullptr)
        return found.flow->fid;
    const uint32_t parent_in_use = flow(parent) != nullptr ? parent : 0;
    flow_of_model* of = take_record();
    if (of == nullptr)
        return 0;
    links_[of->fid].parent = parent_in_use;
    if (part == known::everything)
        part = known::announced;
    set_sides(*of, part, tuple, mirrored(part), tuple.reversed());
    arm(*of, announced_ms_);
    return of->fid;
}

// ---- the table ----

engine_model::half_of_flow engine_model::find(known part, const connection_tuple& tuple) {
    half_of_flow newest;
    for (auto& [fid, of] : flows_)
        for (const size_t side : {initiator_side, responder_side})
            if (is_same(part, tuple, of.sides[side]) &&
                (newest.flow == nullptr ||
                 of.sides[side].linked_at > newest.flow->sides[newest.side].linked_at))
                newest = {&of, side};
    return newest;
}

engine_model::half_of_flow engine_model::find_by_tuple(known part, const connection_tuple& tuple) {
    const half_of_flow found = find(part, tuple);
    return found.flow == nullptr && part == known::everything ? find(known::announced, tuple)
                                                              : found;
}

flow_of_model* engine_model::flow(uint32_t fid) {
    const auto found = flows_.find(fid);
    return found != flows_.end() ? &found->second : nullptr;
}

std::vector<uint32_t> engine_model::fids() const {
    std::vector<uint32_t> all;
    for (const auto& [fid, of] : flows_)
        all.push_back(fid);
    return all;
}

void engine_model::set_sides(flow_of_model& of, known initiator, const connection_tuple& forth,
                             known responder, const connection_tuple& back) {
    of.sides[initiator_side].part = initiator;
    of.sides[initiator_side].tuple = forth;
    of.sides[responder_side].part = responder;
    of.sides[responder_side].tuple = back;
    link(of.sides[initiator_side]);
    link(of.sides[responder_side]);
    counts.inserts += 2;
}

void engine_model::rekey(flow_of_model& of, size_t side, const connection_tuple& tuple) {
    of.sides[side].tuple = tuple;
    link(of.sides[side]);
    ++counts.deletes;
    ++counts.inserts;
}

void engine_model::move_vrf(flow_of_model& of, uint32_t vrf_id) {
    for (side_key& side : of.sides)
        side.tuple.vrf_id = vrf_id;
}

// Identifiers are used again in the order in which they became free.
flow_of_model* engine_model::take_record() {
    if (free_.empty())
        make_block();
    if (free_.empty()) {
        ++counts.refused;
        return nullptr;
    }
    const uint32_t fid = free_.front();
    free_.pop_front();
    links_[fid] = {};
    flow_of_model& of = flows_[fid];
    of.fid = fid;
    return &of;
}

void engine_model::make_block() {
    for (uint32_t i = 0; i < block_ && made_ < capacity_; ++i)
        free_.push_back(++made_);
}

// ---- the end of flows ----

bool engine_model::remove(uint32_t fid, int reason) {
    flow_of_model* of = flow(fid);
    if (of == nullptr)
        return false;
    for (const client_model::client& one : clients.all()) {
        const auto [whole, initiator, responder] = of->objects.take_all_of(one.id);
        if (one.has[client_model::told_deletions])
            told.push_back(
                {notice_of::deletion,
                 {one.id, fid, static_cast<uint64_t>(reason), initiator, responder, whole}});
    }
    drop(fid);
    return true;
}

void engine_model::drop(uint32_t fid) {
    flow_of_model& of = flows_.at(fid);
    leave_family(fid);
    contexts.leave(fid, of.contexts, told);
    flows_.erase(fid);
    free_.push_back(fid);
    ++counts.deletes;
}

void engine_model::remove_client_objects(uint32_t client) {
    for (auto& [fid, of] : flows_) {
        const auto [whole, initiator, responder] = of.objects.take_all_of(client);
        if (whole != 0 || initiator != 0 || responder != 0)
            told.push_back({notice_of::deletion,
                            {client, fid, client_unregistered, initiator, responder, whole}});
    }
}

// ---- families ----

// A parent orphans its children and stays on its own parent's list. A child leaves its parent's
// list; the first one takes its siblings off with it.
void engine_model::leave_family(uint32_t fid) {
    bundle_links& own = links_[fid];
    if (own.child != 0) {
        uint32_t child = own.child;
        own.child = 0;
        for (uint32_t step = 0; child != 0 && step < made_; ++step) {
            const uint32_t next = links_[child].sibling;
            links_[child].sibling = links_[child].parent = 0;
            child = next;
        }
        return;
    }
    if (own.parent == 0)
        return;
    bundle_links& parent = links_[own.parent];
    own.parent = 0;
    if (parent.child == fid) {
        parent.child = own.sibling = 0;
        return;
    }
    uint32_t before = parent.child;
    for (uint32_t step = 0; before != 0 && step < made_; ++step) {
        if (links_[before].sibling == fid) {
            links_[before].sibling = own.sibling;
            own.sibling = 0;
            return;
        }
        before = links_[before].sibling;
    }
}

// Free records that are still listed are passed over. A list that runs in a circle is followed for
// as many steps as there are records.
std::vector<uint32_t> engine_model::children_of(uint32_t fid) const {
    std::vector<uint32_t> visited;
    uint32_t child = links_[fid].child;
    for (uint32_t step = 0; child != 0 && step < made_; ++step) {
        if (flows_.count(child) != 0)
            visited.push_back(child);
        child = links_[child].sibling;
    }
    return visited;
}

// ---- time ----

void engine_model::arm(flow_of_model& of, uint32_t ms) {
    of.due = deadline::after(now_, ms);
    of.seen_since = false;
}

void engine_model::set_idle_seconds(flow_of_model& of, uint32_t seconds) {
    of.age_ms = seconds * 1000;
    arm(of, of.age_ms);
}

uint64_t engine_model::next_certain_moment(uint64_t moment) const {
    for (bool moved = true; moved;) {
        moved = false;
        for (const auto& [fid, of] : flows_) {
            moved = of.due.step_out(moment) || moved;
            if (of.seen_since)
                moved = of.due.later_by(of.age_ms).step_out(moment) || moved;
        }
    }
    return moment;
}

std::vector<uint32_t> engine_model::advance_to(uint64_t now) {
    now_ = now;
    std::vector<uint32_t> expired;
    for (auto& [fid, of] : flows_)
        while (of.due.to < now) {
            if (!of.seen_since) {
                expired.push_back(fid);
                break;
            }
            of.seen_since = false;
            of.due = of.due.later_by(of.age_ms);
        }
    return expired;
}

void engine_model::age_out(uint32_t fid) {
    remove(fid, aged_out);
    ++counts.aged;
}

std::vector<uint32_t> engine_model::vague() const {
    std::vector<uint32_t> found;
    for (const auto& [fid, of] : flows_)
        if (of.due.is_vague())
            found.push_back(fid);
    return found;
}

// ---- figures ----

uint32_t engine_model::sides_of_type(uint32_t type) const {
    uint32_t all = 0;
    for (const auto& [fid, of] : flows_)
        for (const side_key& side : of.sides)
            all += side.type() == type ? 1 : 0;
    return all;
}

uint32_t engine_model::sides_of_family(bool ipv6) const {
    uint32_t all = 0;
    for (const auto& [fid, of] : flows_)
        for (const side_key& side : of.sides)
            all += side.tuple.source.ipv6 == ipv6 ? 1 : 0;
    return all;
}

}  // namespace zon_test

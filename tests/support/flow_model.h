// flow_model.h - what the engine is expected to do with a script of packets, stated slowly and
// plainly.
//
// A map of tuples to flows, and a list of deadlines. It knows nothing of hashes, locks, half flows
// or wheels. TCP is followed without checks of numbers, flags only.
//
// Time   a timer fires between its deadline and two ticks later, so that a deadline is an interval.
//        Scripts never let a packet come inside of one.

#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "support/deadline_model.h"
#include "support/session_model.h"

namespace zon_test {

using address = std::array<uint32_t, 4>;  // host-order words; IPv4 uses the first

struct endpoint {
    bool ipv6 = false;
    address ip{};
    uint16_t port = 0;
    auto operator<=>(const endpoint&) const = default;
};

struct connection_tuple {
    endpoint source;
    endpoint destination;
    uint8_t protocol = 0;
    uint32_t vrf_id = 0;
    auto operator<=>(const connection_tuple&) const = default;

    connection_tuple reversed() const { return {destination, source, protocol, vrf_id}; }
    connection_tuple in_any_vrf() const { return {source, destination, protocol, 0}; }
};

enum class announced_as { nothing, source_only, destination_only, any_vrf, complete };

struct model_packet {
    connection_tuple tuple;
    uint8_t tcp_flags = 0;
    uint32_t payload = 0;
};

// What comes back with a packet.
struct packet_verdict {
    uint32_t fid = 0;
    bool first = false, last = false, from_initiator = false, promoted = false,
         first_payload = false;
    uint32_t packets = 0;
    uint64_t bytes = 0;
    bool out_of_memory = false;
    bool operator==(const packet_verdict&) const = default;
};

struct deletion {
    uint32_t fid = 0;
    int reason = 0;
    uint64_t object = 0;
    auto operator<=>(const deletion&) const = default;
};

class flow_model {
public:
    static constexpr int timed_out = 1;

    struct settings {
        uint32_t max_flows, block, tcp_opening_ms, udp_opening_ms, announced_ms;
    };
    explicit flow_model(const settings& chosen) : settings_(chosen) {}

    // The model's clock starts where the engine's stands; the first block of records is there from
    // the start.
    void start(uint64_t now) {
        now_ = now;
        make_block();
    }

    // ---- packets ----

    packet_verdict packet(const model_packet& seen) {
        packet_verdict verdict;
        flow* f = nullptr;
        if (const auto known = by_tuple_.find(seen.tuple); known != by_tuple_.end()) {
            f = &flows_.at(known->second);
        } else if (flow* announced = answering(seen.tuple)) {
            f = announced;
            withdraw(*f);
            f->tuple = seen.tuple;
            verdict.promoted = verdict.first = true;
            enter(*f);
        } else {
            f = make();
            if (f == nullptr) {
                verdict.out_of_memory = true;
                return verdict;
            }
            f->tuple = seen.tuple;
            verdict.first = true;
            enter(*f);
        }
        ++f->packets;
        verdict.fid = f->fid;
        verdict.packets = f->packets;
        verdict.from_initiator = seen.tuple.source.ip == f->tuple.source.ip;
        f->session.track(seen.tuple.protocol, seen.tcp_flags, seen.payload, verdict.from_initiator);
        f->bytes += seen.payload;
        verdict.bytes = f->bytes;
        verdict.first_payload = seen.payload != 0 && !f->has_payload;
        f->has_payload = f->has_payload || seen.payload != 0;
        verdict.last = f->session.state == session_model::closed;
        if (verdict.first) {
            if (f->age_ms == 0)
                f->age_ms =
                    seen.tuple.protocol == 6 ? settings_.tcp_opening_ms : settings_.udp_opening_ms;
            arm(*f, f->age_ms);
        } else {
            f->seen_since = f->session.state != session_model::closed;
        }
        return verdict;
    }

    // ---- what clients do ----

    // The flow of an announcement, made or found; empty when there is no room.
    std::optional<uint32_t> announce(announced_as how, const connection_tuple& tuple) {
        if (how == announced_as::complete)
            if (const auto known = by_tuple_.find(tuple); known != by_tuple_.end())
                return known->second;
        for (const auto& [fid, f] : flows_)
            if (f.how != announced_as::nothing && stands_for(f, how, tuple))
                return fid;
        flow* f = make();
        if (f == nullptr)
            return std::nullopt;
        f->tuple = tuple;
        f->how = how;
        ++announced_;
        arm(*f, settings_.announced_ms);
        return f->fid;
    }
    bool is_announced(uint32_t fid) const {
        const auto found = flows_.find(fid);
        return found != flows_.end() && found->second.how != announced_as::nothing;
    }
    void set_idle_seconds(uint32_t fid, uint32_t seconds) {
        flow& f = flows_.at(fid);
        f.age_ms = seconds * 1000;
        arm(f, f.age_ms);
    }
    void attach(uint32_t fid, uint64_t object) { flows_.at(fid).object = object; }
    std::optional<deletion> remove(uint32_t fid, int reason) {
        const auto found = flows_.find(fid);
        if (found == flows_.end())
            return std::nullopt;
        const deletion told{fid, reason, found->second.object};
        drop(fid);
        return told;
    }
    bool has(uint32_t fid) const { return flows_.count(fid) != 0; }
    size_t flows() const { return flows_.size(); }
    size_t announced() const { return announced_; }
    uint32_t refused() const { return refused_; }
    std::vector<uint32_t> fids() const {
        std::vector<uint32_t> all;
        for (const auto& [fid, f] : flows_)
            all.push_back(fid);
        return all;
    }

    // ---- time ----

    // The first moment from a given one on that lies in no deadline's interval.
    uint64_t next_certain_moment(uint64_t moment) const {
        for (bool moved = true; moved;) {
            moved = false;
            for (const auto& [fid, f] : flows_) {
                // Nothing is seen of a flow meanwhile: it is renewed once at most.
                moved = moved || f.due.step_out(moment);
                if (f.seen_since)
                    moved = moved || f.due.later_by(f.age_ms).step_out(moment);
            }
        }
        return moment;
    }

    // Lets time pass. The flows that must be told deleted meanwhile, with the intervals in which
    // they are.
    struct expiry {
        deletion told;
        uint64_t from, to;
    };
    std::vector<expiry> advance_to(uint64_t now) {
        now_ = now;
        std::vector<expiry> expired;
        for (auto& [fid, f] : flows_)
            while (f.due.to < now) {
                if (!f.seen_since) {
                    expired.push_back({{fid, timed_out, f.object}, f.due.from, f.due.to});
                    break;
                }
                f.seen_since = false;
                f.due = f.due.later_by(f.age_ms);
            }
        return expired;
    }
    // Takes out what has expired, in the order in which it was seen to leave.
    void leave(const std::vector<deletion>& in_order) {
        for (const deletion& told : in_order)
            drop(told.fid);
    }
    // Flows whose deadline has become vague by five renewals.
    std::vector<uint32_t> vague() const {
        std::vector<uint32_t> found;
        for (const auto& [fid, f] : flows_)
            if (f.due.is_vague())
                found.push_back(fid);
        return found;
    }

private:
    struct flow {
        uint32_t fid = 0;
        connection_tuple tuple;  // as the initiator sends
        announced_as how = announced_as::nothing;
        uint32_t packets = 0;
        uint64_t bytes = 0;
        bool has_payload = false;
        session_model session;
        uint32_t age_ms = 0;
        bool seen_since = false;
        deadline due{};
        uint64_t object = 0;
    };

    void arm(flow& f, uint32_t ms) {
        f.due = deadline::after(now_, ms);
        f.seen_since = false;
    }

    void make_block() {
        for (uint32_t i = 0; i < settings_.block && made_ < settings_.max_flows; ++i)
            free_.push_back(++made_);
    }
    flow* make() {
        if (free_.empty())
            make_block();
        if (free_.empty()) {
            ++refused_;
            return nullptr;
        }
        const uint32_t fid = free_.front();
        free_.pop_front();
        flow& f = flows_[fid];
        f = flow{};
        f.fid = fid;
        return &f;
    }
    void enter(const flow& f) {
        by_tuple_[f.tuple] = f.fid;
        by_tuple_[f.tuple.reversed()] = f.fid;
    }
    void withdraw(flow& f) {
        f.how = announced_as::nothing;
        --announced_;
    }
    void drop(uint32_t fid) {
        flow& f = flows_.at(fid);
        if (f.how == announced_as::nothing) {
            by_tuple_.erase(f.tuple);
            by_tuple_.erase(f.tuple.reversed());
        } else {
            withdraw(f);
        }
        flows_.erase(fid);
        free_.push_back(fid);
    }

    // Both ends of an announcement by one end: whichever side the known end is on.
    static const endpoint& known_end(const flow& f) {
        return f.how == announced_as::source_only ? f.tuple.source : f.tuple.destination;
    }
    static bool is_by_one_end(announced_as how) {
        return how == announced_as::source_only || how == announced_as::destination_only;
    }
    static bool same_either_way(const connection_tuple& a, const connection_tuple& b) {
        return a == b || a.reversed() == b;
    }
    static bool stands_for(const flow& f, announced_as how, const connection_tuple& tuple) {
        if (is_by_one_end(how))
            return is_by_one_end(f.how) &&
                   known_end(f) ==
                       (how == announced_as::source_only ? tuple.source : tuple.destination);
        if (f.how != how)
            return false;
        return how == announced_as::complete
                   ? same_either_way(f.tuple, tuple)
                   : same_either_way(f.tuple.in_any_vrf(), tuple.in_any_vrf());
    }
    // The announced flow that a packet answers to, the most specific first.
    flow* answering(const connection_tuple& tuple) {
        for (const announced_as how : {announced_as::complete, announced_as::any_vrf,
                                       announced_as::destination_only, announced_as::source_only})
            for (auto& [fid, f] : flows_)
                if (f.how != announced_as::nothing && stands_for(f, how, tuple))
                    return &f;
        return nullptr;
    }

    settings settings_;
    uint64_t now_ = 0;
    uint32_t made_ = 0;
    std::deque<uint32_t> free_;
    std::map<uint32_t, flow> flows_;
    std::map<connection_tuple, uint32_t> by_tuple_;
    size_t announced_ = 0;
    uint32_t refused_ = 0;
};

}  // namespace zon_test

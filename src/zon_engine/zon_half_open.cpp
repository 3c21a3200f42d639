// zon_half_open.cpp - counts the flows whose other side has not answered, and replaces the oldest
// of a neighbourhood.
//
// Owns   the count of half-open flows and the numbers of their packets.
// Locks  a search takes one bucket's lock at a time and no flow's; the flow that it decides for is
//        tried for with nothing else held, and proved under its lock. Deletion consumes that.

#include "zon_engine/zon_half_open.h"

#include <algorithm>
#include <array>
#include <span>

#include "zon_engine_inline.h"
#include "zon_hashset_internal.h"

half_open_flows zon_half_open{};

namespace {

// So many buckets hold four half-open flows on average, that is eight half flows: as a rule there
// is one to replace, and it is among the oldest of all.
constexpr uint64_t flows_nearby = 4;
constexpr uint64_t fewest_buckets = 8;
constexpr uint64_t most_buckets = 256;

uint32_t neighbourhood(zon_hashset set) {
    const auto buckets = static_cast<uint64_t>(set->array_size);
    const uint64_t count = std::max(1U, relaxed_load(zon_half_open.count));
    const uint64_t wanted =
        std::clamp(flows_nearby * buckets / count, fewest_buckets, most_buckets);
    return static_cast<uint32_t>(std::min(wanted, buckets));
}

// Numbers wrap: the older of two is the one behind the other by less than half of their range.
bool is_older(uint32_t number, uint32_t than) {
    return static_cast<int32_t>(number - than) < 0;
}

struct half_open_flow {
    zon_flow_t* flow;
    uint32_t number;
};

// The oldest flows that a search has come across, oldest first. More than one, because other
// threads may work on some.
class oldest_flows {
public:
    void consider(zon_flow_t* flow) {
        const uint32_t number = relaxed_load(flow->private_half_open);
        if (number == 0 || knows(flow))
            return;
        half_open_flow seen{flow, number};
        for (half_open_flow& known : std::span(kept_.data(), count_))
            if (is_older(seen.number, known.number))
                std::swap(seen, known);
        if (count_ < kept_.size())
            kept_[count_++] = seen;
    }
    std::span<const half_open_flow> all() const { return {kept_.data(), count_}; }

private:
    // A search comes across both halves of some flows.
    bool knows(const zon_flow_t* flow) const {
        return std::ranges::any_of(all(), [flow](const auto& known) { return known.flow == flow; });
    }

    std::array<half_open_flow, 8> kept_{};
    size_t count_ = 0;
};

void look_through(zon_hashset set, uint32_t bucket, oldest_flows& oldest) {
    held_bucket held(set, bucket);
    for (zon_hashset_hdr* header = set->array[bucket]; header != nullptr; header = header->next)
        oldest.consider(flow_of(item_of(set, header)));
}

oldest_flows search_from(zon_hashset set, int first) {
    oldest_flows oldest;
    const auto end = static_cast<uint32_t>(set->array_size);
    auto bucket = static_cast<uint32_t>(first);
    for (uint32_t left = neighbourhood(set); left > 0; --left) {
        look_through(set, bucket, oldest);
        bucket = bucket + 1 == end ? 0 : bucket + 1;
    }
    return oldest;
}

// False when the flow has had a packet, has gone, is going, or is in use: records and locks outlive
// flows, and a number is given once. In use it also is when this very thread holds it, since a
// client's function may hand in packets while the flow's own packet is on its way.
bool replace(const half_open_flow& found) {
    if (try_flow(found.flow) != flow_lock_state::held)
        return false;
    locked_flow flow = locked_flow::adopt(found.flow);
    if (!lock_detail::is_held_once(*lock_at(flow->flow_lock)) ||
        flow->private_half_open != found.number || flow->marked_for_delete)
        return false;
    return zon_private_delete_locked_flow(std::move(flow).hand_over(),
                                          ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE);
}

// Delete callbacks may hand in packets. Those replace nothing, or there would be no end to it.
thread_local bool is_replacing = false;

class replacing {
public:
    replacing() { is_replacing = true; }
    ~replacing() { is_replacing = false; }
    replacing(const replacing&) = delete;
    replacing& operator=(const replacing&) = delete;
};

// 0 stands for no mark.
uint32_t next_number() {
    const uint32_t number = relaxed_add(zon_half_open.newest, 1);
    return number != 0 ? number : relaxed_add(zon_half_open.newest, 1);
}

// Flags in byte 13 of a TCP header (RFC 9293 3.1).
constexpr size_t tcp_flags_at = 13;
constexpr uint8_t tcp_syn = 0x02;
constexpr uint8_t tcp_rst = 0x04;
constexpr uint8_t tcp_ack = 0x10;

constexpr uint8_t initiator_acknowledged_fin = 8;  // of term_flags

// An answer in the middle of a connection: where the tracker has seen no SYN of the responder's, a
// server has no reason for such a segment but a connection that it knows.
bool is_answer_in_the_middle(const zon_l4_state_t& l4, const zon_dp_fe_t* fe) {
    return l4.tcp_state == ZON_TCP_SYNSENT && fe->i2r_flag == 0 &&
           (fe->l4_start[tcp_flags_at] & (tcp_syn | tcp_rst | tcp_ack)) == tcp_ack;
}

// A handshake that ended in a reset never was complete: its flow stays half-open until it goes. One
// whose responder closed first is complete once the initiator acknowledges that.
bool is_answered(const zon_flow_t* flow, const zon_dp_fe_t* fe) {
    if (fe->protocol != ZON_TCP_PROT)
        return fe->i2r_flag == 0;
    const zon_l4_state_t& l4 = flow->l4state;
    return l4.sess_state == ZON_L4_BI_ESTABLISHED || l4.sess_state == ZON_L4_CLOSING ||
           (l4.term_flags & initiator_acknowledged_fin) != 0 || is_answer_in_the_middle(l4, fe);
}

}  // namespace

void zon_half_open_bound(uint32_t max_flows, uint32_t percent) {
    const uint64_t share = uint64_t{max_flows} * percent / 100;
    zon_half_open = {};
    if (percent != 0)
        zon_half_open.bound = std::max(1U, static_cast<uint32_t>(share));
}

bool zon_half_open_replace_oldest(int bucket) {
    if (is_replacing)
        return false;
    const replacing guard;
    const oldest_flows oldest = search_from(g_zon->flow_tbl->table, bucket);
    return std::ranges::any_of(oldest.all(), replace);
}

// The packet that made the flow gives it its number once it has been tracked, under the same lock.
void zon_half_open_mark(zon_flow_t* flow) {
    constexpr uint32_t not_numbered_yet = 1;
    relaxed_store(flow->private_half_open, not_numbered_yet);
    relaxed_add(zon_half_open.count, 1);
}

void zon_half_open_go_on(zon_flow_t* flow, const zon_dp_fe_t* fe) {
    if (is_answered(flow, fe))
        zon_half_open_unmark(flow);
    else
        relaxed_store(flow->private_half_open, next_number());
}

void zon_half_open_unmark(zon_flow_t* flow) {
    relaxed_store(flow->private_half_open, 0);
    relaxed_add(zon_half_open.count, -1);
}

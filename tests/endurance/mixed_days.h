// mixed_days.h - mixed traffic on an engine whose clock is turned by hand, each flow's end awaited
// to the tick.

#pragma once

#include <cmath>
#include <deque>
#include <random>

#include "endurance/day_packets.h"
#include "endurance/flow_deadlines.h"
#include "support/engine_fixture.h"
#include "zon_frag.h"

namespace zon_test {

inline constexpr uint64_t sec_us = 1'000'000;
inline constexpr uint64_t day_us = 24 * 3600 * sec_us;

// One at a time: the engine tells its clients through a plain function.
class mixed_days {
public:
    static constexpr uint32_t capacity = 4000;

    // The wheel was made at this reading.
    mixed_days(uint64_t wheel_made_at_us, zon_client_id_e client, uint32_t seed)
        : grid_(wheel_made_at_us), flows_(grid_, capacity), random_(seed) {
        present = this;
        EXPECT_EQ(zon_client_register_delete_cb(client, told_deleted), zon_error_none);
    }
    ~mixed_days() { present = nullptr; }
    mixed_days(const mixed_days&) = delete;
    mixed_days& operator=(const mixed_days&) = delete;

    // As many flows at once as there will ever be, so that memory has grown as far as it may.
    void fill() {
        while (flows_.size() < most_flows && !::testing::Test::HasFailure())
            begin_one();
    }

    // Between bursts of traffic the clock moves by a millisecond to the longest gap.
    void run_until(uint64_t end_us, uint64_t longest_gap_us) {
        while (zon_clock_now_us() < end_us && !::testing::Test::HasFailure()) {
            const uint64_t gap_us = spread(ms_us, chance(10) ? longest_gap_us : 3 * sec_us);
            turn_to(std::min(zon_clock_now_us() + gap_us, end_us));
            for (uint32_t i = below(8); i > 0; --i)
                act();
            if (chance(50))
                set_default_idle_time();
        }
    }

    // Nobody sends any more: each flow ends by itself.
    void run_out() {
        const uint64_t longest_us = uint64_t{UINT32_MAX} * ms_us;
        turn_to(zon_clock_now_us() + 2 * longest_us + 4 * endurance_tick_us);
        EXPECT_EQ(flows_.size(), 0U) << "flows outlived everything";
        EXPECT_EQ(flows_in_use(), 0U);
    }

    const flow_deadlines::margins& margins() const { return flows_.seen(); }
    uint64_t packets() const { return packets_; }
    uint64_t begun() const { return begun_; }
    size_t most_at_once() const { return most_at_once_; }
    // Of what happened and when: equal for equal histories.
    uint64_t history() const { return history_; }

private:
    static constexpr size_t most_flows = 3000;
    static constexpr uint32_t most_fragments = 400;
    static inline mixed_days* present = nullptr;

    static void told_deleted(zon_flow_ptr_t fid, void*, void*, void*,
                             zon_flow_deletion_reason_e reason, zon_client_id_e) {
        if (present != nullptr && reason == ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT)
            present->ended(fid);
    }
    void ended(uint32_t fid) {
        note(fid);
        note(zon_clock_now_us() - started_us_);
        flows_.idled_out(fid, zon_clock_now_us());
    }

    void turn_to(uint64_t target_us) {
        ASSERT_EQ(zon_clock_advance_to_us(target_us), zon_error_none);
        while (!fragments_due_us_.empty() && fragments_due_us_.front() <= target_us)
            fragments_due_us_.pop_front();
        ASSERT_EQ(zon_frag_entry_count(g_zon->frag_table), fragments_due_us_.size());
        if (target_us / (600 * sec_us) != swept_) {
            swept_ = target_us / (600 * sec_us);
            flows_.expect_none_overdue(target_us);
            ASSERT_EQ(flows_in_use(), flows_.size());
        }
    }

    void act() {
        const bool may_begin = flows_.size() < most_flows;
        switch (below(may_begin ? 12 : 6)) {
        case 0:
            return set_idle_time();
        case 1:
            return end_one();
        case 2:
        case 3:
        case 4:
        case 5:
            return send_again();
        default:
            return begin_one();
        }
    }

    modelled_flow* some_flow() {
        if (flows_.size() == 0)
            return nullptr;
        // Mostly one of the last: the others live long.
        const auto count = static_cast<uint32_t>(flows_.size());
        const uint32_t back = chance(2) ? below(std::min(count, 20U)) : below(count);
        modelled_flow& flow = flows_.at(count - 1 - back);
        // Where a flow may wait for days it mostly does.
        const bool is_left_alone = flow.idle_ms > day_us / ms_us && count < most_flows;
        return is_left_alone && !chance(50) ? nullptr : &flow;
    }

    void begin_one() {
        const auto kind = static_cast<traffic>(below(traffic_kinds));
        const uint32_t connection = next_connection_++ % 0xFFFFFF;
        if (kind == traffic::announced)
            return announce(connection);
        if (kind == traffic::fragmented && fragments_due_us_.size() >= most_fragments)
            return;
        const bytes packet = kind == traffic::fragmented
                                 ? day_packet::first_fragment(connection, next_ident_++)
                                 : day_packet::of(kind, connection);
        zon_pkt_indications_t seen{};
        const zon_fid_t fid = send(packet, seen);
        ASSERT_NE(fid, 0U) << "kind " << static_cast<int>(kind);
        ASSERT_TRUE(seen.fif);
        if (kind == traffic::fragmented)
            fragments_due_us_.push_back(grid_.fires_at(zon_clock_now_us(), zon_frag_idle_ms));
        model(fid, kind, connection, day_packet::is_udp(kind) ? udp_opening_ms_ : opening_ms);
    }

    void announce(uint32_t connection) {
        const zon_flow_tuple_t tuple = day_packet::tuple(connection);
        zon_fid_t fid = 0;
        ASSERT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, nullptr),
                  zon_error_none);
        model(fid, traffic::announced, connection, announced_ms);
    }

    void model(zon_fid_t fid, traffic kind, uint32_t connection, uint32_t idle_ms) {
        modelled_flow& flow = flows_.begin(fid, zon_clock_now_us(), idle_ms);
        flow.kind = static_cast<uint32_t>(kind);
        flow.connection = connection;
        ++begun_;
        most_at_once_ = std::max(most_at_once_, flows_.size());
        note(fid);
    }

    void send_again() {
        modelled_flow* flow = some_flow();
        if (flow == nullptr)
            return;
        const auto kind = static_cast<traffic>(flow->kind);
        const bool resets = day_packet::is_tcp(kind) && chance(4);
        const bytes packet = resets ? day_packet::reset(kind, flow->connection)
                                    : day_packet::of(kind, flow->connection, chance(2));
        zon_pkt_indications_t seen{};
        ASSERT_EQ(send(packet, seen), flow->fid) << "kind " << flow->kind;
        if (seen.fif) {
            // The announced flow is a real one from here on, with a time of its own.
            ASSERT_EQ(kind, traffic::announced);
            ASSERT_TRUE(seen.was_promoted);
            flow->kind = static_cast<uint32_t>(traffic::udp);
            flows_.arm(*flow, zon_clock_now_us(), udp_opening_ms_);
            return;
        }
        flows_.packet(*flow, zon_clock_now_us(), seen.lif);
    }

    void set_idle_time() {
        modelled_flow* flow = some_flow();
        // An announced flow's time is chosen at its first packet.
        if (flow == nullptr || static_cast<traffic>(flow->kind) == traffic::announced)
            return;
        constexpr uint32_t longest_sec = UINT32_MAX / 1000;
        const uint64_t most_sec = chance(5) ? longest_sec : 24 * 3600;
        const auto sec = chance(50) ? 0 : static_cast<uint32_t>(spread(1, most_sec));
        ASSERT_EQ(zon_flow_set_aging(flow->fid, sec), zon_error_none);
        flows_.arm(*flow, zon_clock_now_us(), sec * 1000);
    }

    // In milliseconds, other than a flow's own: no multiple of a tick, mostly short, none at all at
    // times, and as long as can be at others.
    void set_default_idle_time() {
        udp_opening_ms_ = chance(20)   ? 0
                          : chance(20) ? UINT32_MAX - below(100)
                                       : static_cast<uint32_t>(spread(1, 100'000));
        ASSERT_TRUE(zon_set_default_aging(17, ZON_L4_OPENING, udp_opening_ms_));
    }

    void end_one() {
        modelled_flow* flow = some_flow();
        if (flow == nullptr)
            return;
        const zon_fid_t fid = flow->fid;
        flows_.forget(*flow);
        ASSERT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    }

    zon_fid_t send(bytes packet, zon_pkt_indications_t& seen) {
        zon_error_t error = zon_error_none;
        ++packets_;
        return zon_handle_packet(packet.data(), 0, nullptr, &seen, &error);
    }

    uint32_t below(size_t end) { return static_cast<uint32_t>(random_() % end); }
    bool chance(uint32_t one_in) { return below(one_in) == 0; }
    // Values whose logarithms are spread evenly.
    uint64_t spread(uint64_t least, uint64_t most) {
        const double exponent = std::uniform_real_distribution<>(
            std::log(static_cast<double>(least)), std::log(static_cast<double>(most)))(random_);
        return std::clamp(static_cast<uint64_t>(std::exp(exponent)), least, most);
    }
    void note(uint64_t what) { history_ = (history_ ^ what) * 0x100000001B3; }

    const tick_grid grid_;
    flow_deadlines flows_;
    std::mt19937_64 random_;
    std::deque<uint64_t> fragments_due_us_;
    const uint64_t started_us_ = zon_clock_now_us();
    uint64_t swept_ = 0;
    uint64_t packets_ = 0;
    uint64_t begun_ = 0;
    uint64_t history_ = 0xCBF29CE484222325;
    size_t most_at_once_ = 0;
    uint32_t udp_opening_ms_ = opening_ms;
    uint32_t next_connection_ = 0;
    uint16_t next_ident_ = 0;
};

}  // namespace zon_test

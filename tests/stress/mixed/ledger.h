// ledger.h - what the threads of a round did and what the clients were told, so that both can be
// compared with each other and with the engine's own counts.
//
// Threads    any; counts are relaxed atomics, which order nothing that the engine should order.
//            The comparisons run while all threads of the round rest.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "zon.h"

namespace zon_test {

// A client's object on a flow: hung there once, and given back once.
class hung_object {
public:
    void hang();
    void come_back();
    bool is_out() const { return state_.load(std::memory_order_relaxed) == state::hung; }

private:
    enum class state : uint8_t { fresh, hung, back };
    std::atomic<state> state_{state::fresh};
};

enum class feat : uint8_t {
    flow_made,
    flow_met_by_both_directions,
    packet_refused_for_room,
    packet_forbidden,
    packet_of_locked_flow,
    packet_of_the_kit,
    packet_in_burst,
    packet_synchronised,
    last_packet_cleaned_up,
    later_fragment_followed,
    tunnel_followed,
    tuple_found,
    tuple_missed,
    record_copied,
    state_set,
    idle_time_set,
    object_hung,
    object_taken_off,
    object_taken_off_all_flows,
    object_of_one_direction,
    group_object_hung,
    group_object_back,
    group_walked,
    client_came_and_went,
    object_of_guest_back,
    announced_complete,
    announced_by_source,
    announced_by_destination,
    announced_without_vrf,
    announcement_found,
    announcement_withdrawn,
    promoted_in_place,
    promoted_by_wildcard,
    child_walked,
    side_moved,
    vrf_moved,
    deleted_by_client,
    deleted_under_lock,
    deleted_by_ager,
    replaced_half_open,
    clock_turned,
    dump_printed,
    flow_reported,
    statistics_read,
    restarted_engine_used,
    count
};
const char* name_of(feat what);

class ledger {
    using count32 = std::atomic<uint32_t>;
    using count64 = std::atomic<uint64_t>;
    template <class count, class by>
    static void add(count& to, by amount) {
        to.fetch_add(static_cast<typename count::value_type>(amount), std::memory_order_relaxed);
    }
    template <class count>
    static typename count::value_type get(const count& from) {
        return from.load(std::memory_order_relaxed);
    }

public:
    static constexpr size_t steady_clients = 3;

    ledger(uint32_t capacity, uint32_t threads);

    void did(feat what) { add(feats_[static_cast<size_t>(what)], 1); }
    uint64_t times(feat what) const { return get(feats_[static_cast<size_t>(what)]); }

    // What one packet came back with. wildcard: its flow can only have been announced with
    // unknown parts.
    void note_packet(zon_fid_t fid, zon_error_t error, const zon_pkt_indications_t& seen,
                     bool wildcard);
    void note_announced(zon_fid_t fid);
    void note_refused_announcement() { add(refusals_, 1); }
    void note_moved_side() { add(moved_sides_, 1); }

    // Told under the flow's lock; the steady client 0 is told last.
    void note_told(size_t client, zon_fid_t fid, zon_flow_deletion_reason_e reason);

    // Never given back to memory before the round ends.
    hung_object* new_object();

    // While no thread of the round works and the clock stands still.
    void expect_engine_agrees() const;
    // Once every flow has been deleted.
    void expect_all_told() const;
    void expect_all_objects_back() const;

private:
    void expect_flows_and_packets() const;
    void expect_statistics() const;
    uint64_t all_made() const;
    uint64_t all_told() const;

    uint32_t threads_;
    std::vector<count32> made_;  // by fid: flows of packets and announcements
    std::vector<count32> announced_;
    std::vector<count32> promoted_;
    std::array<std::vector<count32>, steady_clients> told_;
    count64 packets_{0}, payload_bytes_{0};
    count64 packets_of_deleted_{0}, bytes_of_deleted_{0};
    count64 wildcard_promotions_{0}, moved_sides_{0}, refusals_{0}, aged_{0};
    std::array<count64, static_cast<size_t>(feat::count)> feats_{};
    std::mutex guard_of_objects_;
    std::deque<hung_object> objects_;
};

}  // namespace zon_test

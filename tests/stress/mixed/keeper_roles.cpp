// keeper_roles.cpp - threads that move flows, delete them, turn the clock and look at the tables.

#include <algorithm>
#include <cstdlib>

#include "stress/mixed/actor.h"

namespace zon_test {
namespace {

// ---- moving ----

void move_sides(const actor& by) {
    const connection which = by.any_of(kind::moved);
    while_locked(by, which, false, [&](zon_fid_t fid) {
        by.self.doing("move the responder");
        const zon_flow_tuple_t responder = moved_responder_of(which);
        EXPECT_EQ(zon_flow_update_responder(fid, &responder), zon_error_none);
        by.book().note_moved_side();
        by.self.doing("move the initiator");
        const zon_flow_tuple_t initiator = tuple_of(which);
        EXPECT_EQ(zon_flow_update_initiator(fid, &initiator), zon_error_none);
        by.book().note_moved_side();
        zon_flow_tuple_t now{};
        EXPECT_EQ(zon_flow_get_tuple(fid, ZON_DIR_RESPONDER, &now), zon_error_none);
        EXPECT_EQ(now.dst_port, which.moved_port());
        by.book().did(feat::side_moved);
    });
}

// Leaves one level of the lock, which is given back like the other one.
void move_to_other_vrf(const actor& by) {
    const connection which = by.any_of(kind::moved);
    const zon_flow_tuple_t tuple = tuple_of(which);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    by.self.doing("move a flow to another VRF");
    if (zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock) != zon_error_none)
        return;
    const uint32_t vrf_id = 1 + by.self.below(2);
    EXPECT_EQ(zon_flow_update_vrf(fid, vrf_id), 0);
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    EXPECT_NE(send_packet(by, which, packet_of(which, false), vrf_id).fid, 0U);
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    by.book().did(feat::vrf_moved);
}

// ---- looking at the tables ----

thread_local const actor* looking;

void look_at_report(zon_flow_report_t* report, void*) {
    EXPECT_NE(report->fid, 0U);
    EXPECT_LE(report->fid, looking->cast.settings.max_flows);
    EXPECT_LT(report->l4_sess_state, ZON_L4_ENUM_END);
    EXPECT_EQ(report->marked_for_delete, 0) << "a report of a flow on its way out";
    looking->book().did(feat::flow_reported);
}

void read_statistics(const actor& by) {
    int32_t size, used, empty, occupied, average, most;
    int32_t* depths = nullptr;
    int32_t* announced = nullptr;
    by.self.doing("read the statistics");
    zon_debug_flow_table_stats(&size, &used, &empty, &occupied, &average, &most, &depths,
                               &announced);
    EXPECT_EQ(empty + occupied, size);
    std::free(depths);
    zon_flow_memory_usage_t usage{};
    EXPECT_EQ(zon_config_calc_crnt_memory_usage(&usage), zon_error_none);
    EXPECT_LE(usage.active_flow_count, by.cast.settings.max_flows);
    by.book().did(feat::statistics_read);
}

void look_at_tables(const actor& by) {
    switch (by.self.below(3)) {
    case 0: {
        zon_dump_output all{true, true, true, true, 0, nullptr, 0};
        by.self.doing("print a dump");
        zon_debug_flow_table_dump(&all);
        by.book().did(feat::dump_printed);
        break;
    }
    case 1:
        looking = &by;
        by.self.doing("ask for reports");
        zon_test_fid_table_iterate_flow(look_at_report, nullptr);
        break;
    default:
        read_statistics(by);
    }
}

// ---- deletion and time ----

void delete_by_identifier(const actor& by) {
    const zon_fid_t fid = by.self.below(by.cast.settings.max_flows + 1);
    const std::vector<zon_fid_t>& parents = by.cast.parents;
    if (std::find(parents.begin(), parents.end(), fid) != parents.end())
        return;
    by.self.doing("delete");
    if (zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST))
        by.book().did(feat::deleted_by_client);
}

// The record stays this thread's until it lets go of the lock: no new flow takes it.
void delete_locked(const actor& by) {
    constexpr kind kinds[] = {kind::plain, kind::cut_up, kind::expected, kind::moved};
    const connection which = by.any_of(kinds[by.self.below(4)]);
    while_locked(by, which, by.one_in(2), [&](zon_fid_t fid) {
        by.self.doing("delete a locked flow");
        EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        uint32_t count = 0;
        EXPECT_EQ(zon_flow_get_packet_count(fid, &count), zon_error_flow_not_found);
        by.book().did(feat::deleted_under_lock);
    });
}

void turn_clock(const actor& by) {
    by.self.doing("turn the clock");
    const uint64_t step_ms = 5 + by.self.below(200);
    EXPECT_EQ(zon_clock_advance_us(step_ms * 1000), zon_error_none);
    by.book().did(feat::clock_turned);
}

}  // namespace

void move_and_look(actor& by) {
    const uint32_t chosen = by.self.below(64);
    if (chosen < 1)
        look_at_tables(by);
    else if (chosen < 40)
        move_sides(by);
    else
        move_to_other_vrf(by);
}

void delete_and_turn_clock(actor& by) {
    if (by.turns_clock && by.one_in(6))
        turn_clock(by);
    else if (by.one_in(3))
        delete_locked(by);
    else
        delete_by_identifier(by);
}

}  // namespace zon_test

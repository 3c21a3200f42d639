// zon_super_ctx_walk_test.cpp - a walk of a super context's members notices each departure that
// concerns it, and a client's delete callback that meets the engine half way through a deletion.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "src/zon_super_ctx_fixture.h"
#include "support/allocation_faults.h"
#include "support/flow_reader.h"

using namespace zon_test;
using namespace zon_test::super_ctx;

namespace {

std::vector<zon_fid_t> fids;
super_contexts* test;

class member_walk : public super_contexts {
protected:
    void SetUp() override {
        super_contexts::SetUp();
        test = this;
        fids.clear();
        group_by(type_0);
        for (int i = 0; i < 6; ++i)
            fids.push_back(new_flow_in(77));
    }
    static std::vector<zon_fid_t> walk(super_context_flow_traverser_callback visit) {
        walked.clear();
        EXPECT_EQ(zon_super_context_traverse_flows(type_0, 77, visit), zon_error_none);
        return walked;
    }
};

TEST_F(member_walk, notices_every_departure_and_not_the_first_alone) {
    const auto visit = [](zon_flow_ptr_t flow) {
        walked.push_back(flow);
        if (flow == fids[5])
            remove_flow(fids[4]);
        else if (flow == fids[3])
            remove_flow(fids[2]);
        else if (flow == fids[1])
            remove_flow(fids[0]);
        return true;
    };
    EXPECT_EQ(walk(visit), (std::vector<zon_fid_t>{fids[5], fids[3], fids[1]}));
}

TEST_F(member_walk, notices_departures_on_another_thread) {
    const auto visit = [](zon_flow_ptr_t flow) {
        walked.push_back(flow);
        if (flow == fids[5])
            std::thread([] { remove_flow(fids[0]); }).join();
        return true;
    };
    EXPECT_EQ(walk(visit), (std::vector<zon_fid_t>{fids[5], fids[4], fids[3], fids[2], fids[1]}));
}

TEST_F(member_walk, is_not_disturbed_by_departures_from_another_super_context) {
    fids.push_back(new_flow_in(78));
    fids.push_back(new_flow_in(78));
    const uint32_t before = super_ctx_of(fids[0])->changed_at;
    const auto visit = [](zon_flow_ptr_t flow) {
        walked.push_back(flow);
        if (flow == fids[5] || flow == fids[3])
            remove_flow(flow == fids[5] ? fids[6] : fids[7]);
        return true;
    };
    EXPECT_EQ(walk(visit),
              (std::vector<zon_fid_t>{fids[5], fids[4], fids[3], fids[2], fids[1], fids[0]}));
    EXPECT_EQ(super_ctx_of(fids[0])->changed_at, before) << "the walk would search for nothing";
    remove_flow(fids[0]);
    EXPECT_NE(super_ctx_of(fids[1])->changed_at, before);
}

// The same value leads to another super context, which may even lie in the same memory.
TEST_F(member_walk, ends_when_all_members_left_and_the_super_context_was_made_anew) {
    const auto visit = [](zon_flow_ptr_t flow) {
        walked.push_back(flow);
        for (const zon_fid_t member : fids)
            remove_flow(member);
        test->new_flow_in(77);
        return true;
    };
    EXPECT_EQ(walk(visit), std::vector<zon_fid_t>{fids[5]});
    EXPECT_EQ(members(77).size(), 1U);
}

TEST_F(member_walk, ends_when_the_super_context_has_gone) {
    const auto visit = [](zon_flow_ptr_t flow) {
        walked.push_back(flow);
        for (const zon_fid_t member : fids)
            remove_flow(member);
        return true;
    };
    EXPECT_EQ(walk(visit), std::vector<zon_fid_t>{fids[5]});
}

TEST_F(member_walk, without_memory_for_its_copy_says_so_and_calls_nobody) {
    walked.clear();
    {
        failing_table_memory fault(0);
        EXPECT_EQ(zon_super_context_traverse_flows(type_0, 77, note_member), zon_error_memory);
        EXPECT_TRUE(fault.has_failed());
    }
    EXPECT_TRUE(walked.empty());
    EXPECT_TRUE(no_lock_is_held());
    EXPECT_EQ(members(77).size(), 6U) << "the next walk finds all";
}

// ---- a packet from a delete callback ----

struct reported {
    zon_fid_t fid;
    zon_error_t error;
    zon_pkt_indications_t seen;
};
std::vector<reported> reports;
zon_fid_t dying_flow;

// Reports a packet of the flow that is being deleted.
void report_a_packet(uint32_t, zon_super_context_types_e, void**) {
    bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1001, 53).payload(5).build();
    for (const uint32_t number : {1U, 7U}) {
        reported report{99, zon_error_none, {}};
        report.fid = zon_sync_packet(packet.data(), 0, nullptr, &report.seen, &report.error,
                                     dying_flow, ZON_L4_BI_ESTABLISHED, number);
        reports.push_back(report);
    }
}

TEST_F(super_contexts, whose_delete_callback_reports_a_packet_of_the_dying_flow_get_no_answer) {
    group_by(type_0);
    reports.clear();
    ASSERT_EQ(zon_super_context_register_delete_cb(3, report_a_packet), zon_error_none);
    int object = 0;
    dying_flow = new_flow_in(77);
    ASSERT_EQ(zon_super_context_attach_fo(dying_flow, type_0, 3, &object), zon_error_none);
    remove_flow(dying_flow);
    ASSERT_EQ(reports.size(), 2U);
    for (const reported& report : reports) {
        EXPECT_EQ(report.fid, 0U);
        EXPECT_EQ(report.error, zon_error_none);
        EXPECT_EQ(report.seen.flow, 0U);
        EXPECT_EQ(report.seen.fif, 0);
        EXPECT_EQ(report.seen.lif, 0);
    }
    EXPECT_EQ(super_ctx_count(), 0U) << "a dying flow joins nothing";
    EXPECT_EQ(element_count(), 0U);
    EXPECT_EQ(flows_in_use(), 0U);
    EXPECT_EQ(g_zon->flow_tbl->table->used, 0);
    EXPECT_TRUE(no_lock_is_held());
}

// A packet in the ordinary mode gets a flow of its own, which joins a super context made anew.
TEST_F(super_contexts, whose_delete_callback_hands_a_packet_in_get_a_new_flow) {
    group_by(type_0);
    static zon_fid_t made;
    made = 0;
    ASSERT_EQ(zon_super_context_register_delete_cb(
                  3,
                  [](uint32_t, zon_super_context_types_e, void**) {
                      made = handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1001, 53)).fid;
                  }),
              zon_error_none);
    int object = 0;
    const zon_fid_t first = new_flow_in(77);
    ASSERT_EQ(zon_super_context_attach_fo(first, type_0, 3, &object), zon_error_none);
    remove_flow(first);
    EXPECT_NE(made, 0U);
    EXPECT_NE(made, first);
    EXPECT_EQ(members(77), std::vector<zon_fid_t>{made});
    EXPECT_EQ(super_ctx_count(), 1U);
    void* fo = &object;
    EXPECT_EQ(zon_super_context_get_fo(made, type_0, 3, &fo), zon_error_none);
    EXPECT_EQ(fo, nullptr) << "the object went with the old super context";
}

}  // namespace

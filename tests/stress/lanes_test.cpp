// lanes_test.cpp - threads with lanes share a table that has room for all of their flows and for no
// other one.
#include <atomic>
#include <memory>
#include <set>
#include <vector>

#include "support/lanes.h"
#include "support/stress_engine.h"

namespace zon_test {
namespace {

struct crowd_row {
    const char* name;
    uint32_t max_flows;
    uint32_t locks;
    uint32_t rounds;
};

class table_with_lanes : public contended_engine,
                         public ::testing::WithParamInterface<std::tuple<crowd_row, schedule>> {
protected:
    static constexpr uint32_t threads = 3;

    table_with_lanes() {
        parameters.max_flows = row().max_flows;
        parameters.min_init_flows = 7;
        parameters.max_threads = row().locks;
    }
    void SetUp() override {
        contended_engine::SetUp();
        give_lanes_to_the_table();
    }
    static const crowd_row& row() { return std::get<0>(GetParam()); }
    static void delete_flows(std::vector<zon_fid_t>& fids) {
        for (const zon_fid_t fid : fids)
            EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        fids.clear();
    }
};

// A record that waits in another thread's lane is as good as any.
TEST_P(table_with_lanes, refuses_no_flow_while_a_record_is_free) {
    const uint32_t rounds = row().rounds;
    const uint32_t share = row().max_flows / threads;
    stress_crew crew;
    for (uint32_t thread = 0; thread < threads; ++thread)
        crew.add("thread " + std::to_string(thread), [thread, share, rounds](stress_thread& self) {
            if (!self.is_alone())
                own_a_lane();
            std::vector<zon_fid_t> fids;
            for (uint32_t round = 0; round < rounds; ++round) {
                const uint32_t wanted = 1 + self.below(share);
                for (uint32_t i = 0; i < wanted; ++i) {
                    self.doing("send");
                    const sent_packet sent = send(connection_packet::udp(1'000 * thread + i));
                    ASSERT_NE(sent.fid, 0U) << "round " << round << " flow " << i;
                    EXPECT_TRUE(sent.seen.fif);
                    fids.push_back(sent.fid);
                }
                self.doing("delete");
                delete_flows(fids);
            }
        });
    crew.run(std::get<1>(GetParam()));
    EXPECT_EQ(half_flows(), 0U);
    EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, 0U);
    EXPECT_EQ(g_zon->flow_tbl->profile_insert, 2 * g_zon->flow_tbl->profile_delete);
    // Every record is back, once.
    std::set<const zon_flow_t*> free;
    for (const zon_flow_t* flow = g_zon->fid_table->free_head; flow != nullptr;
         flow = flow->next_free)
        EXPECT_TRUE(free.insert(flow).second) << "flow record " << flow->fid << " is free twice";
    EXPECT_EQ(free.size(), g_zon->fid_table->allocated);
}

INSTANTIATE_TEST_SUITE_P(stress, table_with_lanes,
                         ::testing::Combine(::testing::Values(crowd_row{"small", 99, 2, 80},
                                                              crowd_row{"many_locks", 99, 128, 80},
                                                              crowd_row{"large", 3'000, 64, 6}),
                                            both_schedules),
                         [](const auto& row) {
                             return std::string(std::get<0>(row.param).name) + "_" +
                                    name_of(std::get<1>(row.param));
                         });

// ---- figures ----

class figures_of_lanes : public contended_engine {
protected:
    figures_of_lanes() {
        parameters.max_flows = 64;
        parameters.max_threads = 64;
    }
};

// One thread makes flows and another one, whose lane is far behind in the row, ends them, so that a
// reader on its way along the lanes is overtaken.
TEST_F(figures_of_lanes, never_tell_of_more_ends_than_beginnings) {
    constexpr uint32_t flows = 30'000;
    std::atomic<zon_fid_t> made{0};
    std::atomic<bool> ended{false};
    std::vector<std::unique_ptr<laned_thread>> between;
    stress_crew crew;
    crew.leave_uninterrupted();
    crew.add("maker", [&made](stress_thread& self) {
        own_a_lane();
        self.meet();
        self.meet();
        for (uint32_t i = 0; i < flows; ++i) {
            self.doing("send");
            const zon_fid_t fid = send(connection_packet::udp(i)).fid;
            ASSERT_NE(fid, 0U);
            made = fid;
            wait_until([&made] { return made == 0; });
        }
    });
    crew.add("deleter", [&](stress_thread& self) {
        self.meet();
        while (between.size() + 2 < zon_lane_count)
            between.emplace_back(std::make_unique<laned_thread>())->run([] {});
        own_a_lane();
        EXPECT_EQ(zon_own_lane(), static_cast<int>(zon_lane_count) - 1);
        self.meet();
        for (uint32_t i = 0; i < flows; ++i) {
            wait_until([&made] { return made != 0; });
            self.doing("delete");
            EXPECT_TRUE(zon_delete_flow_tamonet(made, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
            made = 0;
        }
        ended = true;
    });
    crew.add("reader", [&ended](stress_thread& self) {
        self.meet();
        self.meet();
        while (!ended) {
            self.doing("count");
            const auto halves = static_cast<int32_t>(half_flows());
            ASSERT_GE(halves, 0);
        }
    });
    crew.run(schedule::together);
    EXPECT_EQ(half_flows(), 0U);
}

}  // namespace
}  // namespace zon_test

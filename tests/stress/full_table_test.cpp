// full_table_test.cpp - threads race for the flow of one connection, for which there is just room.
#include <array>
#include <atomic>

#include "support/flow_reader.h"
#include "support/stress_engine.h"

namespace zon_test {
namespace {

struct room_row {
    const char* name;
    uint32_t max_flows;
    uint8_t max_bucket_depth;
};

class last_place : public contended_engine,
                   public ::testing::WithParamInterface<std::tuple<room_row, schedule>> {
protected:
    last_place() {
        parameters.max_flows = std::get<0>(GetParam()).max_flows;
        parameters.min_init_flows = 1;
        parameters.max_bucket_depth = std::get<0>(GetParam()).max_bucket_depth;
    }
};

// Whoever comes second gets the flow of the first, never a refusal.
TEST_P(last_place, is_shared_by_all_packets_of_its_connection) {
    constexpr uint32_t rounds = 4000;
    constexpr size_t racers = 2;
    constexpr uint32_t connection = 1;
    std::array<zon_fid_t, racers> got{};
    std::atomic<uint32_t> firsts{0};
    stress_crew crew;
    for (size_t racer = 0; racer < racers; ++racer)
        crew.add("racer " + std::to_string(racer), [&, racer](stress_thread& self) {
            for (uint32_t round = 0; round < rounds; ++round) {
                self.meet();
                self.doing("send");
                const sent_packet sent =
                    send(connection_packet::udp(connection, self.below(2) != 0));
                got[racer] = sent.fid;
                EXPECT_EQ(sent.error, zon_error_none) << "round " << round;
                firsts += sent.seen.fif;
                self.meet();
                if (racer == 0 || self.is_alone()) {
                    const zon_fid_t fid = sent.fid;
                    if (!self.is_alone()) {
                        EXPECT_EQ(got[1], fid) << "round " << round;
                    }
                    EXPECT_EQ(flows_in_use(), 1U);
                    EXPECT_EQ(half_flows(), 2U);
                    self.doing("delete");
                    EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
                }
                if (HasFatalFailure() || HasNonfatalFailure())
                    break;
            }
        });
    const schedule how = std::get<1>(GetParam());
    crew.run(how);
    EXPECT_EQ(firsts, how == schedule::together ? rounds : racers * rounds);
    EXPECT_EQ(half_flows(), 0U);
}

INSTANTIATE_TEST_SUITE_P(stress, last_place,
                         ::testing::Combine(::testing::Values(room_row{"depth_one", 107, 1},
                                                              room_row{"depth_one_small", 13, 1}),
                                            both_schedules),
                         [](const auto& row) {
                             return std::string(std::get<0>(row.param).name) + "_" +
                                    name_of(std::get<1>(row.param));
                         });

}  // namespace
}  // namespace zon_test

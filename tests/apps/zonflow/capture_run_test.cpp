// capture_run_test.cpp - the packet loop over sources that a test has written down: what lets flows
// leave, what ends the reading, what is told of it.
#include "capture_run.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/apps/zonflow/support/scripted_source.h"

namespace {

std::vector<uint32_t> seeds_set;

}  // namespace

// Every call of the hosts in this program comes here (--wrap); the engine gets it all the same.
extern "C" zon_error_t __real_zon_config_set_hash_seed(uint32_t seed);
extern "C" zon_error_t __wrap_zon_config_set_hash_seed(uint32_t seed);
extern "C" zon_error_t __wrap_zon_config_set_hash_seed(uint32_t seed) {
    seeds_set.push_back(seed);
    return __real_zon_config_set_hash_seed(seed);
}

namespace {

using namespace zonflow;
using namespace zonflow_tests;

constexpr uint64_t second = 1'000'000;
constexpr uint64_t hour = 3600 * second;
constexpr uint64_t date = 1'700'000'000 * second;

struct finished_run {
    exit_code code = exit_code::done;
    collected_output output;
    std::string errors;
};

finished_run run(scripted_source& source, const options& chosen = {}) {
    finished_run result;
    testing::internal::CaptureStderr();
    result.code = run_source(source, "wire0", chosen, result.output);
    result.errors = testing::internal::GetCapturedStderr();
    return result;
}

finished_run run(source_kind kind, std::vector<answer> answers, const options& chosen = {}) {
    scripted_source source(kind, std::move(answers));
    return run(source, chosen);
}

// ---- the seed of the hash -----------------------------------------------------------------------

uint32_t seed_of_a_run(source_kind kind) {
    seeds_set.clear();
    run(kind, {});
    EXPECT_EQ(seeds_set.size(), 1u);
    return seeds_set.empty() ? 0 : seeds_set.back();
}

TEST(zonflow_hash, is_seeded_anew_for_live_traffic) {
    const uint32_t first = seed_of_a_run(source_kind::live);
    const uint32_t second_one = seed_of_a_run(source_kind::live);
    EXPECT_NE(first, 0u);
    EXPECT_NE(second_one, 0u);
    EXPECT_NE(first, second_one) << "one in four thousand million runs draws the same twice";
}

TEST(zonflow_hash, is_plain_for_captures_after_live_traffic_too) {
    seed_of_a_run(source_kind::live);
    EXPECT_EQ(seed_of_a_run(source_kind::capture), 0u);
}

std::map<uint32_t, uint32_t> depths_with_seed(uint32_t seed) {
    engine_settings settings;
    settings.hash_seed = seed;
    settings.max_flows = 500;
    engine_host engine(settings);
    for (uint16_t port = 1; port <= 400; ++port) {
        engine.handle(udp_from_port(port), 0, date);
    }
    return flow_table_depths().buckets_of_depth;
}

// Were it set behind zon_init, the flows would lie as with the seed before.
TEST(zonflow_hash, has_its_seed_in_force_with_the_first_packet) {
    const auto plain = depths_with_seed(0);
    EXPECT_NE(depths_with_seed(0x5eed), plain);
    EXPECT_EQ(depths_with_seed(0), plain);
}

// ---- ageing -------------------------------------------------------------------------------------

TEST(live_traffic, lets_flows_leave_while_no_packet_comes) {
    std::vector<std::string> log;
    scripted_source source(
        source_kind::live,
        {packet_at(0, date, udp_from_port(1)), quiet_at(1 * second), quiet_at(11 * second)}, &log);
    collected_output output(&log);
    EXPECT_EQ(run_source(source, "wire0", {}, output), exit_code::done);
    // It is written and goes out before the source is asked again.
    const std::vector<std::string> expected{"flush", "next",  "next", "next",
                                            "idle",  "flush", "next"};
    EXPECT_EQ(log, expected);
}

TEST(live_traffic, lets_flows_leave_while_only_other_packets_come) {
    const bytes no_ip_version{0x00, 0x01};
    const auto result =
        run(source_kind::live, {packet_at(0, date, udp_from_port(1)),
                                packet_at(11 * second, date + 11 * second, no_ip_version)});
    ASSERT_EQ(result.output.flows.size(), 1u);
    EXPECT_STREQ(end_name(result.output.flows[0]), "idle");
}

TEST(live_traffic, ages_by_no_date) {
    const auto result = run(
        source_kind::live,
        {packet_at(0, date, udp_from_port(1)), packet_at(1 * second, date + hour, udp_from_port(1)),
         packet_at(2 * second, date - hour, udp_from_port(1)), quiet_at(3 * second)});
    ASSERT_EQ(result.output.flows.size(), 1u);
    EXPECT_EQ(result.output.flows[0].packets(), 3u);
    EXPECT_STREQ(end_name(result.output.flows[0]), "open");
    EXPECT_EQ(result.output.sums->out_of_time, 0u);
    EXPECT_EQ(result.errors, "");
}

// ---- limits -------------------------------------------------------------------------------------

std::vector<answer> a_packet_a_second(uint16_t count) {
    std::vector<answer> answers;
    for (uint16_t i = 0; i < count; ++i) {
        answers.push_back(packet_at(i * second, date + i * second, udp_from_port(1)));
    }
    return answers;
}

TEST(packet_limit, ends_the_reading_without_waiting_for_another_packet) {
    for (const source_kind kind : {source_kind::capture, source_kind::live}) {
        options chosen;
        chosen.packet_limit = 3;
        scripted_source source(kind, a_packet_a_second(5));
        const auto result = run(source, chosen);
        EXPECT_EQ(result.code, exit_code::done);
        EXPECT_EQ(result.errors, "");
        EXPECT_EQ(source.asked(), 3u);
        EXPECT_EQ(result.output.sums->packets, 3u);
        ASSERT_EQ(result.output.flows.size(), 1u);
        EXPECT_EQ(result.output.flows[0].packets(), 3u);
    }
}

TEST(packet_limit, counts_no_silence) {
    options chosen;
    chosen.packet_limit = 1;
    const auto result =
        run(source_kind::live, {quiet_at(0), quiet_at(1), packet_at(2, date, udp_from_port(1))},
            chosen);
    EXPECT_EQ(result.output.sums->packets, 1u);
}

TEST(time_limit, ends_the_reading_when_the_time_is_over) {
    for (const source_kind kind : {source_kind::capture, source_kind::live}) {
        options chosen;
        chosen.time_limit_sec = 3;
        const auto result = run(kind, a_packet_a_second(5), chosen);
        EXPECT_EQ(result.code, exit_code::done);
        EXPECT_EQ(result.errors, "");
        EXPECT_EQ(result.output.sums->packets, 3u);
    }
}

TEST(time_limit, passes_in_silence_too) {
    options chosen;
    chosen.time_limit_sec = 3;
    scripted_source source(source_kind::live, {quiet_at(5 * second), quiet_at(8 * second - 1),
                                               quiet_at(8 * second), quiet_at(9 * second)});
    EXPECT_EQ(run(source, chosen).code, exit_code::done);
    EXPECT_EQ(source.asked(), 3u);
}

// ---- what is told -------------------------------------------------------------------------------

TEST(live_traffic, tells_of_packets_that_were_lost) {
    scripted_source source(source_kind::live, {});
    source.lost_packets = 12;
    const auto result = run(source);
    EXPECT_EQ(result.code, exit_code::done);
    EXPECT_EQ(result.output.sums->lost, 12u);
    EXPECT_EQ(result.errors,
              "zonflow: wire0: 12 packets lost in the kernel or the interface, so flows may count "
              "too little\n");
}

TEST(live_traffic, tells_of_no_loss_where_there_is_none) {
    const auto live = run(source_kind::live, {});
    EXPECT_EQ(live.output.sums->lost, 0u);
    EXPECT_EQ(live.errors, "");
    EXPECT_EQ(run(source_kind::capture, {}).output.sums->lost, std::nullopt);
}

TEST(live_traffic, that_breaks_off_is_reported_up_to_there) {
    const auto result = run(source_kind::live, {packet_at(0, date, udp_from_port(1)),
                                                {read_result::damaged, 0, 0, {}}});
    EXPECT_EQ(result.code, exit_code::damaged_input);
    EXPECT_EQ(result.output.name, "wire0");
    EXPECT_EQ(result.output.flows.size(), 1u);
    EXPECT_EQ(result.output.sums->packets, 1u);
    EXPECT_EQ(result.errors, "zonflow: wire0: broken off after 1 packet: as written down\n");
}

}  // namespace

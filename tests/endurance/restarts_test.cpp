// restarts_test.cpp - an engine that is set up, used and destroyed over and over leaves nothing
// behind: no memory, no thread, no handle.
#include <cstdio>
#include <sstream>

#include "endurance/day_packets.h"
#include "endurance/footprint.h"
#include "support/engine_fixture.h"

namespace zon_test {
namespace {

uint32_t told;  // flows whose end a client has heard of

void count_told(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e, zon_client_id_e) {
    ++told;
}

// What a thread keeps of memory that others freed counts as handed out.
constexpr uint64_t most_kept_by_threads_bytes = 12 * 1024;

constexpr zon_clock_mode_e clocks[] = {ZON_CLOCK_MANUAL_WAIT, ZON_CLOCK_MANUAL_INLINE,
                                       ZON_CLOCK_SYSTEM};

void set_up(uint32_t cycle) {
    ASSERT_EQ(zon_clock_set_mode(clocks[cycle % 3]), zon_error_none);
    ASSERT_EQ(zon_init(200, announced_ms, 20, 4, 0, 16, 10), zon_error_none);
    ASSERT_TRUE(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                  &g_zon->zon_timer_process_create));
    zon_client_id_e client = 0;
    ASSERT_EQ(zon_client_feature_register(&client), zon_error_none);
    ASSERT_EQ(zon_client_register_delete_cb(client, count_told), zon_error_none);
    const engine_parameters usual;
    ASSERT_EQ(zon_client_enable_engine_capability(
                  client, static_cast<zon_capability_e>(usual.capabilities)),
              zon_error_none);
}

// Returns the number of flows that were made.
uint32_t use(uint32_t cycle) {
    uint32_t made = 0;
    for (uint32_t number = 0; number < 40; ++number) {
        const auto kind = static_cast<traffic>((number + cycle) % traffic_kinds);
        const uint32_t connection = cycle * 40 + number;
        zon_fid_t fid = 0;
        if (kind == traffic::announced) {
            const zon_flow_tuple_t tuple = day_packet::tuple(connection);
            EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, nullptr),
                      zon_error_none);
        } else {
            bytes packet =
                kind == traffic::fragmented
                    ? day_packet::first_fragment(connection, static_cast<uint16_t>(number))
                    : day_packet::of(kind, connection);
            zon_pkt_indications_t seen{};
            zon_error_t error = zon_error_none;
            fid = zon_handle_packet(packet.data(), 0, nullptr, &seen, &error);
        }
        EXPECT_NE(fid, 0U);
        made += fid != 0 ? 1U : 0U;
    }
    // Some of the flows and fragments age, on whichever thread; others go with the engine.
    if (clocks[cycle % 3] != ZON_CLOCK_SYSTEM && cycle % 2 != 0) {
        EXPECT_EQ(zon_clock_advance_us(7 * 1'000'000), zon_error_none);
    }
    return made;
}

void take_down(uint32_t cycle) {
    if (cycle % 5 == 0)
        zon_timer_tw_destroy(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                             &g_zon->zon_timer_process_create);
    if (cycle % 7 == 0) {
        EXPECT_TRUE(zon_restart());
    }
    ASSERT_EQ(zon_destroy(), zon_error_none);
    ASSERT_EQ(g_zon, nullptr);
}

void live_through(uint32_t first, uint32_t end) {
    for (uint32_t cycle = first; cycle < end && !::testing::Test::HasFailure(); ++cycle) {
        told = 0;
        set_up(cycle);
        const uint32_t made = use(cycle);
        take_down(cycle);
        ASSERT_EQ(told, made) << "clients did not hear of each flow's end once, cycle " << cycle;
    }
}

TEST(restarts, leave_no_memory_threads_or_handles_behind) {
    const uint32_t warm_up = 50;
    // So many that 16 bytes left behind by every cycle are far beyond what comes and goes.
    const uint32_t short_form = memory_is_measurable ? 2000 : 400;
    const uint32_t cycles = is_long_form() ? 10'000 : short_form;
    const uint64_t threads = footprint::of_this_process().threads;
    live_through(0, warm_up);
    const footprint before = footprint::once_threads_are_gone(threads);
    live_through(warm_up, cycles);
    const footprint after = footprint::once_threads_are_gone(threads);
    EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);

    EXPECT_LE(growth(before.heap_bytes, after.heap_bytes),
              heap_slack_bytes + most_kept_by_threads_bytes)
        << after;
    EXPECT_LE(growth(before.resident_bytes, after.resident_bytes), page_slack_bytes) << after;
    EXPECT_LE(growth(before.mapped_bytes, after.mapped_bytes), page_slack_bytes) << after;
    EXPECT_EQ(after.threads, threads);
    EXPECT_EQ(after.handles, before.handles);
    std::ostringstream held;
    held << "  after cycle " << warm_up << ":  " << before << "\n  after cycle " << cycles << ": "
         << after;
    std::printf("%u cycles\n%s\n", cycles, held.str().c_str());
}

}  // namespace
}  // namespace zon_test

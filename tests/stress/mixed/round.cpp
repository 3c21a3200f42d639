// round.cpp - sets an engine up, lets threads of every role loose on it, and compares.

#include "stress/mixed/round.h"

#include <iterator>

#include "support/flow_reader.h"
#include "support/lanes.h"
#include "support/lock_owners.h"
#include "zon_engine/zon_half_open.h"

namespace zon_test {
namespace {

struct role {
    const char* name;
    void (*step)(actor&);
};
// The first threads of a crew meet most: both directions of the same connections.
constexpr role roles[] = {
    {"forward", send_forward},
    {"back", send_back},
    {"deleter and clock", delete_and_turn_clock},
    {"bursts", send_in_bursts},
    {"announcer", announce_and_walk},
    {"objects", hang_objects},
    {"mover and onlooker", move_and_look},
    {"fragments and tunnels", send_fragments_and_tunnels},
    {"queries", query_and_set},
};
constexpr auto role_count = static_cast<uint32_t>(std::size(roles));
constexpr uint32_t clock_turner = 2;

// ---- the engine ----

void shorten_idle_times(const round_settings& settings) {
    const uint32_t idle_ms = settings.clock == ZON_CLOCK_SYSTEM ? 20 : 1500;
    for (const uint8_t protocol : {uint8_t{6}, uint8_t{17}})
        for (int state = ZON_L4_ENUM_START; state < ZON_L4_ENUM_END; ++state)
            ASSERT_TRUE(
                zon_set_default_aging(protocol, static_cast<zon_l4_flow_state_e>(state), idle_ms));
}

void set_engine_up(const round_settings& settings) {
    const uint32_t announced_ms = settings.clock == ZON_CLOCK_SYSTEM ? 30 : 2000;
    ASSERT_EQ(zon_clock_set_mode(settings.clock), zon_error_none);
    ASSERT_EQ(zon_config_set_half_open_share(settings.half_open_percent), zon_error_none);
    ASSERT_EQ(zon_init(settings.max_flows, announced_ms, 8, settings.max_locks, 0, 16, 10),
              zon_error_none);
    // As in the large tables that there is no time to fill here.
    give_lanes_to_the_table();
    ASSERT_TRUE(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                  &g_zon->zon_timer_process_create));
    shorten_idle_times(settings);
}

void stop_timers() {
    zon_timer_tw_destroy(&g_zon->zon_tw, &g_zon->zon_timer_vdm, &g_zon->zon_timer_process_create);
}

void expect_nothing_in_use() {
    bring_back_from_lanes();
    const memory_usage_stats_t& usage = g_zon->memory_usage_stats;
    EXPECT_EQ(usage.ipv4_half_flow_alloc_count, 0U);
    EXPECT_EQ(usage.ipv6_half_flow_alloc_count, 0U);
    EXPECT_EQ(usage.super_context_alloc_count, 0U);
    EXPECT_EQ(usage.list_element_alloc_count, 0U);
    EXPECT_EQ(flows_in_use(), 0U);
}

void delete_every_flow(const round_settings& settings) {
    for (zon_fid_t fid = 1; fid <= settings.max_flows; ++fid)
        zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
}

void take_engine_down(const round_settings& settings, const ledger& book) {
    if (settings.clock == ZON_CLOCK_SYSTEM) {
        stop_timers();
        book.expect_engine_agrees();
    }
    if (!settings.destroyed_with_flows) {
        delete_every_flow(settings);
        book.expect_engine_agrees();
        expect_nothing_in_use();
    }
    if (settings.number % 4 == 3) {
        EXPECT_TRUE(zon_restart());
    }
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(g_zon, nullptr);
    EXPECT_EQ(zon_half_open.count, 0U) << "half-open flows stay counted after their end";
    book.expect_all_told();
    if (!settings.loose)
        book.expect_all_objects_back();
    EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
}

// ---- the threads ----

// Three steps of four in its own role; the other roles but the turning of the clock are everyone's.
void act(actor& by, uint32_t own_role) {
    const round_settings& settings = by.cast.settings;
    for (uint32_t phase = 0; phase < settings.phases; ++phase) {
        for (uint32_t step = 0; step < settings.steps && !::testing::Test::HasFailure(); ++step) {
            const uint32_t chosen = by.one_in(4) ? by.self.below(role_count) : own_role;
            roles[chosen].step(by);
            if (!by.self.is_alone())
                by.self.stumble();
        }
        by.self.meet();
        const bool compares = own_role == 0 || by.self.is_alone();
        // The timer thread rests only where the clock is turned by hand.
        if (compares && settings.clock != ZON_CLOCK_SYSTEM) {
            by.self.doing("compare");
            by.book().expect_engine_agrees();
        }
        by.self.meet();
    }
}

void let_loose(const round_cast& cast, uint32_t threads, schedule how) {
    stress_crew crew(cast.settings.seed);
    for (uint32_t thread = 0; thread < threads; ++thread) {
        const uint32_t own_role = thread % role_count;
        crew.add(std::string(roles[own_role].name) + " " + std::to_string(thread),
                 [&cast, own_role, thread](stress_thread& self) {
                     const bool by_hand = cast.settings.clock != ZON_CLOCK_SYSTEM;
                     actor by{self, cast, by_hand && thread == clock_turner};
                     act(by, own_role);
                 });
    }
    crew.when_stuck(print_held_locks);
    if (!cast.settings.interrupted)
        crew.leave_uninterrupted();
    crew.run(how);
}

}  // namespace

connection actor::any_of(kind what) const {
    return {what, self.below(what == kind::parent ? parent_count : connections_of_a_kind)};
}

connection actor::newest() const {
    constexpr uint32_t packets_each = 6;
    constexpr uint32_t numbers = 64;
    const uint32_t packet = cast.packets_of_newest->fetch_add(1, std::memory_order_relaxed);
    return {kind::plain, connections_of_a_kind + packet / packets_each % numbers};
}

round_settings settings_of_round(uint32_t number, uint32_t seed) {
    std::minstd_rand random(seed + number);
    constexpr zon_clock_mode_e clocks[] = {ZON_CLOCK_MANUAL_WAIT, ZON_CLOCK_MANUAL_INLINE,
                                           ZON_CLOCK_MANUAL_WAIT, ZON_CLOCK_SYSTEM};
    constexpr uint32_t lock_counts[] = {3, 1, 64, 7};
    round_settings settings;
    settings.number = number;
    settings.seed = static_cast<uint32_t>(random());
    settings.max_flows = (number + number / 4) % 2 == 0 ? 160 : 60;  // roomy, or often full
    settings.max_locks = lock_counts[random() % std::size(lock_counts)];
    settings.interrupted = number % 4 < 2;
    settings.steps = settings.interrupted ? 120 : 300;
    settings.phases = 6;
    settings.clock = clocks[number % std::size(clocks)];
    settings.loose = number % 3 == 2;
    settings.destroyed_with_flows = number % 5 >= 3;
    settings.half_open_percent = number % 3 == 1 ? 15 : 0;
    return settings;
}

void play_round(const round_settings& settings, uint32_t threads, schedule how,
                round_totals& totals) {
    ledger book(settings.max_flows, threads);
    std::atomic<uint32_t> packets_of_newest{0};
    round_cast cast{settings, &book, {}, {}, &packets_of_newest};
    set_engine_up(settings);
    register_steady_clients(cast);
    make_parents(cast);
    if (::testing::Test::HasFailure())
        return;
    let_loose(cast, threads, how);
    take_engine_down(settings, book);
    ++totals.rounds;
    for (size_t what = 0; what < totals.feats.size(); ++what)
        totals.feats[what] += book.times(static_cast<feat>(what));
}

}  // namespace zon_test

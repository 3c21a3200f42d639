// round.cpp - sets an engine up, lets threads of every role loose on it, and compares.

#include "stress/mixed/round.h"

#include <iterator>

#include "stress/mixed/round_progress.h"
#include "support/flow_reader.h"
#include "support/lanes.h"
#include "support/record_census.h"
#include "support/watchdog.h"
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

void start_timers() {
    ASSERT_TRUE(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                  &g_zon->zon_timer_process_create));
}

void stop_timers() {
    zon_timer_tw_destroy(&g_zon->zon_tw, &g_zon->zon_timer_vdm, &g_zon->zon_timer_process_create);
}

// What a host does to each new engine.
void make_ready(const round_settings& settings) {
    // As in the large tables that there is no time to fill here.
    give_lanes_to_the_table();
    start_timers();
    shorten_idle_times(settings);
}

void set_engine_up(const round_settings& settings) {
    const uint32_t announced_ms = settings.clock == ZON_CLOCK_SYSTEM ? 30 : 2000;
    ASSERT_EQ(zon_clock_set_mode(settings.clock), zon_error_none);
    ASSERT_EQ(zon_config_set_half_open_share(settings.half_open_percent), zon_error_none);
    ASSERT_EQ(zon_init(settings.max_flows, announced_ms, 8, settings.max_locks, 0, 16, 10),
              zon_error_none);
}

void expect_nothing_in_use() {
    bring_back_from_lanes();
    const memory_usage_stats_t& usage = g_zon->memory_usage_stats;
    EXPECT_EQ(usage.ipv4_half_flow_alloc_count, 0U);
    EXPECT_EQ(usage.ipv6_half_flow_alloc_count, 0U);
    EXPECT_EQ(usage.super_context_alloc_count, 0U);
    EXPECT_EQ(usage.list_element_alloc_count, 0U);
    EXPECT_EQ(flows_in_use(), 0U);
    EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr), records_in_use{}) << "records leaked";
}

void delete_every_flow(const round_settings& settings) {
    for (zon_fid_t fid = 1; fid <= settings.max_flows; ++fid)
        zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
}

void restart_engine() {
    ASSERT_TRUE(zon_restart());
    ASSERT_NE(g_zon, nullptr);
    expect_nothing_in_use();
}

void destroy_engine() {
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(g_zon, nullptr);
}

// Timers that the system's clock moves can be compared once they stand still. Some restarts find
// them at work instead.
void compare_at_end(const round_settings& settings, const ledger& book, bool will_restart) {
    if (settings.clock == ZON_CLOCK_SYSTEM && !(will_restart && settings.destroyed_with_flows)) {
        stop_timers();
        book.expect_engine_agrees();
    }
    if (!settings.destroyed_with_flows) {
        delete_every_flow(settings);
        book.expect_engine_agrees();
        expect_nothing_in_use();
    }
}

void compare_after_end(const round_settings& settings, const ledger& book) {
    EXPECT_EQ(zon_half_open.count, 0U) << "half-open flows stay counted after their end";
    book.expect_all_told();
    if (!settings.loose)
        book.expect_all_objects_back();
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

void let_loose(const round_cast& cast, uint32_t threads, schedule how, round_progress& progress) {
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
    if (!cast.settings.interrupted)
        crew.leave_uninterrupted();
    progress.run(crew, how);
}

// ---- a round ----

bool is_sound() {
    return !::testing::Test::HasFailure();
}

// How one is played, and what came of it.
struct play {
    const round_settings& settings;
    uint32_t threads;
    schedule how;
    round_totals& totals;
    round_progress progress{settings.number};

    // A sound round takes a second or two; a large crew has more to do.
    std::chrono::seconds longest() const { return std::chrono::seconds(40 + threads); }
};

// What an engine lives through from its start until end() takes it down or replaces it.
void live(play& round, bool is_restarted, void (*end)()) {
    const round_settings& settings = round.settings;
    ledger book(settings.max_flows, round.threads);
    std::atomic<uint32_t> packets_of_newest{0};
    round_cast cast{settings, &book, is_restarted, {}, {}, &packets_of_newest};
    round.progress.at("make the engine ready");
    make_ready(settings);
    register_steady_clients(cast);
    make_parents(cast);
    if (!is_sound())
        return;
    round.progress.at("threads work");
    let_loose(cast, round.threads, round.how, round.progress);
    round.progress.at("compare at the end");
    const bool will_restart = end == restart_engine;
    compare_at_end(settings, book, will_restart);
    round.progress.at(will_restart ? "restart" : "destroy");
    end();
    compare_after_end(settings, book);
    if (is_restarted)
        book.did(feat::restarted_engine_used);
    for (size_t what = 0; what < round.totals.feats.size(); ++what)
        round.totals.feats[what] += book.times(static_cast<feat>(what));
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
    settings.restarted = number % 7 % 2 == 1;
    settings.phases = settings.restarted ? 3 : 6;
    settings.clock = clocks[number % std::size(clocks)];
    settings.loose = number % 3 == 2;
    settings.destroyed_with_flows = number % 5 >= 3;
    settings.half_open_percent = number % 3 == 1 ? 15 : 0;
    return settings;
}

void play_round(const round_settings& settings, uint32_t threads, schedule how,
                round_totals& totals) {
    play round{settings, threads, how, totals};
    const watchdog watched(round.longest(), [&round] { round.progress.describe(); });
    round.progress.at("set the engine up");
    set_engine_up(settings);
    if (is_sound() && settings.restarted)
        live(round, false, restart_engine);
    if (is_sound())
        live(round, settings.restarted, destroy_engine);
    EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
    ++totals.rounds;
}

}  // namespace zon_test

// burst_run.cpp - the engine's life, and what is written down of it.

#include "burst/burst_run.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "burst/burst_clients.h"
#include "support/captured_output.h"
#include "support/fixed_time_stamp.h"
#include "support/index_oracle.h"
#include "support/same_indications.h"
#include "zon_flow_table.h"

namespace zon_test {
namespace {

constexpr uint32_t steps_between_looks = 40;
constexpr uint64_t hour_us = 3'600'000'000;

void set_trace(bool on, bool of_parser) {
    zon_set_debug(on);
    zon_debug_flag_l4 = zon_debug_flag_engine = zon_debug_flag_ager = on;
    zon_debug_flag_fe = of_parser;
}

// Indications that were never written show.
zon_pkt_indications_t untouched(const arriving_packet_of_burst& packet) {
    zon_pkt_indications_t seen;
    std::memset(&seen, 0xEE, sizeof seen);
    seen.hash_valid = packet.hash_valid;
    seen.hash_value = packet.hash_value;
    return seen;
}

void forget_addresses(zon_pkt_indications_t& seen, const uint8_t* start) {
    for (uint8_t** at : {&seen.l3_start, &seen.l4_start, &seen.l7_start})
        if (*at != nullptr && reinterpret_cast<uintptr_t>(*at) != 0xEEEEEEEEEEEEEEEE)
            *at = reinterpret_cast<uint8_t*>(*at - start + 1);
}

std::string text_of(const told_event& event) {
    std::ostringstream out;
    out << event.what;
    for (const uint64_t number : event.numbers)
        out << " " << number;
    return out.str();
}

std::string text_of(const packet_outcome& packet) {
    std::ostringstream out;
    const zon_pkt_indications_t& seen = packet.seen;
    out << "flow " << packet.fid << " error " << packet.error << " packet " << seen.flow_pkt_count
        << " bytes " << seen.l7_flow_bytes << " first " << int{seen.fif} << " last "
        << int{seen.lif} << " promoted " << int{seen.was_promoted} << " verdict " << seen.l4_error
        << " bypass " << seen.bypass_id << " fragment " << int{seen.is_fragment} << " tunnel "
        << seen.tunnel_type << " forth " << int{seen.is_initiator};
    return out.str();
}

std::string difference_of_lines(const std::string& one, const std::string& other) {
    std::istringstream one_lines(one);
    std::istringstream other_lines(other);
    for (std::string a, b; one_lines || other_lines;) {
        if (!std::getline(one_lines, a))
            a = "nothing";
        if (!std::getline(other_lines, b))
            b = "nothing";
        if (a != b)
            return "figures, alone: " + a + "\nin bursts:      " + b;
    }
    return {};
}

}  // namespace

bool packet_outcome::operator==(const packet_outcome& other) const {
    return fid == other.fid && error == other.error && same_indications(seen, other.seen);
}

std::string difference_of(const step_outcome& one_by_one, const step_outcome& in_bursts) {
    std::ostringstream out;
    for (size_t i = 0; i < std::min(one_by_one.packets.size(), in_bursts.packets.size()); ++i)
        if (!(one_by_one.packets[i] == in_bursts.packets[i])) {
            out << "packet " << i << " of " << one_by_one.packets.size() << ": alone "
                << text_of(one_by_one.packets[i]) << "; in a burst "
                << text_of(in_bursts.packets[i]);
            return out.str();
        }
    for (size_t i = 0; i < std::max(one_by_one.told.size(), in_bursts.told.size()); ++i) {
        const told_event nothing{"nothing"};
        const told_event& one = i < one_by_one.told.size() ? one_by_one.told[i] : nothing;
        const told_event& other = i < in_bursts.told.size() ? in_bursts.told[i] : nothing;
        if (!(one == other)) {
            out << "told " << i << ": alone " << text_of(one) << "; in a burst " << text_of(other);
            return out.str();
        }
    }
    if (one_by_one.with_flow != in_bursts.with_flow)
        out << "packets with a flow: " << one_by_one.with_flow << " and " << in_bursts.with_flow;
    else
        out << difference_of_lines(one_by_one.figures, in_bursts.figures);
    return out.str();
}

burst_run::burst_run(uint32_t seed, handed_in how)
    : seed_(seed),
      how_(how),
      max_flows_(std::array<uint32_t, 4>{1000, 60, 3000, 400}[seed / 4 % 4]),
      is_traced_(seed % 16 == 7),
      traffic_(seed),
      random_(seed + 1) {
    begin_engine();
}

burst_run::~burst_run() {
    zon_destroy();
    burst_clients::leave();
    zon_config_set_half_open_share(0);
    zon_config_set_hash_seed(0);
    zon_set_open_flow_after_pkts(0);
    zon_clock_set_mode(ZON_CLOCK_SYSTEM);
}

// Timers depend on the clock's reading: every life begins at a full hour of it.
void burst_run::begin_engine() {
    zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE);
    zon_clock_advance_to_us((zon_clock_now_us() / hour_us + 1) * hour_us);
    zon_config_set_hash_seed(seed_ * 77);
    zon_config_set_half_open_share(seed_ % 5 == 3 ? 40 : 0);
    zon_set_open_flow_after_pkts(seed_ % 3);
    const auto depth = static_cast<uint8_t>(seed_ % 6 == 5 ? 3 : 0);
    zon_init(max_flows_, 3000, 8, 1 + seed_ % 7, depth, 16, 10);
    zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                      &g_zon->zon_timer_process_create);
    burst_clients::enter(*this);
    for (zon_client_id_e& client : clients_) {
        zon_client_feature_register(&client);
        burst_clients::register_functions(client);
    }
    enable_what_is_usual();
}

void burst_run::enable_what_is_usual() {
    int32_t usual = ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP |
                    ZON_CAPABILITY_ENABLE_IPV6INIP | ZON_CAPABILITY_ENABLE_TEREDO;
    if (seed_ % 2 == 0)
        usual |= ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS;
    if (seed_ % 3 == 0)
        usual |= ZON_CAPABILITY_ENABLE_CLIENT_BYPASS;
    zon_client_enable_engine_capability(clients_[0], static_cast<zon_capability_e>(usual));
}

void burst_run::hand_in(burst& packets, step_outcome& outcome) {
    std::vector<zon_burst_packet_t> row(packets.size());
    outcome.packets.resize(packets.size());
    for (size_t i = 0; i < packets.size(); ++i) {
        arriving_packet_of_burst& packet = packets[i];
        outcome.packets[i].seen = untouched(packet);
        row[i] = {packet.has_header ? packet.content.get() : nullptr,
                  packet.captured,
                  packet.vrf_id,
                  packet.has_note ? &packet.note : nullptr,
                  packet.has_indications ? &outcome.packets[i].seen : nullptr,
                  zon_error_end,
                  ~zon_fid_t{0}};
    }
    if (how_ == handed_in::in_bursts) {
        outcome.with_flow = zon_handle_packet_burst(row.data(), static_cast<uint32_t>(row.size()));
    } else {
        for (zon_burst_packet_t& packet : row) {
            packet.fid =
                zon_handle_captured_packet(packet.iphdr, packet.captured_length, packet.vrf_id,
                                           packet.pkt_ctx, packet.pkt_indications, &packet.error);
            outcome.with_flow += packet.fid != 0;
        }
    }
    for (size_t i = 0; i < packets.size(); ++i) {
        outcome.packets[i].fid = row[i].fid;
        outcome.packets[i].error = row[i].error;
        forget_addresses(outcome.packets[i].seen, packets[i].content.get());
    }
}

step_outcome burst_run::step() {
    step_outcome outcome;
    current_ = &outcome;
    std::optional<captured_output> trace;
    std::optional<captured_output> parser_trace;
    const fixed_time_stamp stamp(fixed_time_stamp::none);
    if (is_traced_ && steps_ % 8 == 0) {
        trace.emplace(stderr);
        parser_trace.emplace(stdout);
        set_trace(true, steps_ % 16 == 0);
    }
    burst packets = traffic_.next();
    hand_in(packets, outcome);
    if (trace) {
        outcome.figures = trace->text() + parser_trace->text();
        trace.reset();
        parser_trace.reset();
        set_trace(false, false);
    }
    count(outcome);
    if (one_in(3))
        act();
    if (!one_in(3))
        enable_what_is_usual();
    zon_clock_advance_us(one_in(10) ? below(4'000'000) : below(20'000));
    outcome.figures += figures();
    if (++steps_ % steps_between_looks == 0)
        outcome.figures += all_flows();
    current_ = nullptr;
    return outcome;
}

step_outcome burst_run::finish() {
    step_outcome outcome;
    current_ = &outcome;
    outcome.figures = all_flows();
    if (max_flows_ < 100)
        outcome.figures += dump();
    zon_destroy();
    current_ = nullptr;
    return outcome;
}

void burst_run::count(const step_outcome& outcome) {
    std::vector<zon_fid_t> new_ones;
    for (const packet_outcome& packet : outcome.packets) {
        const zon_pkt_indications_t& seen = packet.seen;
        ++reached.packets;
        reached.with_flow += packet.fid != 0;
        reached.refused += packet.error == zon_error_parameter_invalid;
        reached.vetoed += packet.error == zon_error_client_pre_create_prevented;
        reached.out_of_memory += packet.error == zon_error_memory;
        if (packet.fid == 0)
            continue;
        reached.fragments += seen.is_fragment;
        reached.promoted += seen.was_promoted;
        reached.tunnelled += seen.tunnel_type != ZON_TUNNEL_TYPE_NONE;
        reached.checked_sequences +=
            seen.l4_error >= ZON_L4_INVALID_ACK && seen.l4_error <= ZON_L4_RST_IN_WIND;
        reached.first += seen.fif;
        if (seen.fif != 0)
            new_ones.push_back(packet.fid);
        else
            reached.first_met_again_in_burst +=
                std::find(new_ones.begin(), new_ones.end(), packet.fid) != new_ones.end();
    }
}

void burst_run::tell(const char* what, std::array<uint64_t, 6> numbers) {
    // What the engine's end says is told to finish().
    if (current_ != nullptr)
        current_->told.push_back({what, numbers});
}

// ---- figures ----

std::string burst_run::figures() {
    std::ostringstream out;
    const zon_flow_table_t& table = *g_zon->flow_tbl;
    out << "half flows " << table.table->used << "\ncounts " << table.profile_insert << " "
        << table.profile_delete << " " << table.profile_passively_aged << " "
        << table.has_incomplete_inserts;
    for (const uint32_t count : table.active_preflow_count)
        out << " " << count;
    const auto words = [&out](const char* what, const auto& record) {
        out << "\n" << what;
        const auto* word = reinterpret_cast<const uint32_t*>(&record);
        for (size_t i = 0; i < sizeof record / sizeof *word; ++i)
            out << " " << word[i];
    };
    words("tunnels", table.active_tunnel_flows_count);
    words("errors", g_zon->error_stats);
    words("memory", g_zon->memory_usage_stats);
    words("capabilities", g_zon->params.capability_counter);
    zon_flow_memory_usage_t usage{};
    zon_config_calc_crnt_memory_usage(&usage);
    words("usage", usage);
    return out.str();
}

namespace {

void describe(std::ostringstream& out, const zon_flow_t& flow) {
    out << "\nflow " << flow.fid << (flow.marked_for_delete ? " deleted" : "") << " used "
        << flow.should_reset_timer << " half open " << flow.private_half_open << " bypass "
        << flow.bypass_id << " application " << flow.app_id << " tunnel " << flow.tunnel_type
        << " age " << flow.age_ms << " packets " << flow.packet_number << " bytes "
        << flow.num_l7_bytes << " payload on " << flow.first_payload_seen_on_pkt_num << " indexed "
        << int{flow.private_indexed} << " state";
    uint32_t words[sizeof flow.l4state / sizeof(uint32_t)];
    std::memcpy(words, &flow.l4state, sizeof words);
    for (const uint32_t word : words)
        out << " " << word;
}

}  // namespace

std::string burst_run::all_flows() {
    std::ostringstream out;
    for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
         flow = flow->next_flow)
        describe(out, *flow);
    const zon_hashset_& set = *g_zon->flow_tbl->table;
    out << "\ndepths of buckets";
    for (int bucket = 0; bucket < set.array_size; ++bucket)
        out << " " << int{set.items_in_bucket[bucket]};
    out << "\n" << look_at_index().difference;
    return out.str();
}

// A dump lets other threads in at each bucket and flow, which takes long on a busy machine.
std::string burst_run::dump() {
    ++reached.dumps;
    captured_output printed(stdout);
    zon_dump_output everything{true, true, true, true, 0, nullptr, 0};
    zon_debug_flow_table_dump(&everything);
    return printed.text();
}

}  // namespace zon_test

// engine_host.cpp - a client of the engine: its life, its clock, its record on every flow, its idle
// times.
#include "flows/engine_host.h"

#include <algorithm>
#include <utility>

#include "flows/bypass_rule.h"
#include "flows/packet_context.h"

namespace zonflow {

namespace {

constexpr uint32_t lock_stripes = 4;
constexpr uint32_t flows_made_per_step = 1024;
constexpr uint32_t chunk_elements = 1024;
constexpr uint64_t out_of_time_by_us = 1'000'000;

// Callbacks carry no pointer of the host's, and there is one engine in a process.
engine_host* current_host = nullptr;

void check(zon_error_t error, const char* what) {
    if (error != zon_error_none) {
        throw engine_error(std::string(what) + ": " + zon_error_str(error));
    }
}

// The engine's text as a word: "out of memory" becomes "out_of_memory".
std::string as_word(const char* text) {
    std::string word = text;
    std::replace(word.begin(), word.end(), ' ', '_');
    return word;
}

uint8_t tcp_flags_of(const zon_pkt_indications_t& indications, std::span<const uint8_t> packet) {
    constexpr std::ptrdiff_t flags_at = 13;
    if (indications.l4_protocol != ZON_TCP_PROT || indications.l4_start == nullptr) {
        return 0;
    }
    const std::ptrdiff_t at = indications.l4_start - packet.data() + flags_at;
    const bool inside = at >= 0 && at < static_cast<std::ptrdiff_t>(packet.size());
    return inside ? packet[static_cast<size_t>(at)] : uint8_t{0};
}

}  // namespace

engine_host::engine_host(const engine_settings& settings)
    : settings_(settings), vetoes_(settings.vetoes) {
    current_host = this;
    try {
        start_engine();
        become_client();
        enable_options();
        start_helpers();
    } catch (const announcer_error& error) {
        finish();
        throw engine_error(error.what());
    } catch (...) {
        finish();
        throw;
    }
    set_default_idle_times();
}

engine_host::~engine_host() {
    finish();
    while (take_ended_flow()) {
    }
}

void engine_host::start_engine() {
    check(zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE), "cannot set the clock");
    check(zon_config_set_hash_seed(settings_.hash_seed), "cannot seed the hash");
    running_ = true;  // an engine that was built in part is to be destroyed as well
    check(zon_init(settings_.max_flows, settings_.idle_announced_sec * 1000,
                   std::min(flows_made_per_step, settings_.max_flows), lock_stripes, 0,
                   chunk_elements, chunk_elements),
          "cannot start the engine");
    if (!zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                           &g_zon->zon_timer_process_create)) {
        throw engine_error("cannot start the engine's timers");
    }
}

void engine_host::become_client() {
    check(zon_client_feature_register(&client_), "cannot register as a client");
    check(zon_client_register_delete_cb(client_, flow_goes_away),
          "cannot register for ended flows");
    enable(ZON_CAPABILITY_ENABLE_TCP);
    enable(ZON_CAPABILITY_ENABLE_UDP);
    enable(ZON_CAPABILITY_ENABLE_ICMP);
    if (settings_.tcp_checks) {
        enable(ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS);
    }
    if (settings_.tunnels) {
        enable(ZON_CAPABILITY_ENABLE_IPV6INIP);
        enable(ZON_CAPABILITY_ENABLE_TEREDO);
    }
}

void engine_host::enable(zon_capability_e capability) {
    check(zon_client_enable_engine_capability(client_, capability), "cannot enable a capability");
}

// Each of these is one more thing that the same client asks of the engine.
void engine_host::enable_options() {
    if (!settings_.vetoes.empty()) {
        check(vetoes_.register_with(client_), "cannot register for new flows");
    }
    if (settings_.by_source) {
        check(groups_.register_with(client_), "cannot register for the groups of flows");
    }
    if (settings_.bypass_after_bytes != 0) {
        check(zon_client_register_bypass_cb(client_, choose_bypass),
              "cannot register for the bypass");
        enable(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS);
    }
}

// Clients of their own.
void engine_host::start_helpers() {
    if (settings_.helpers) {
        ftp_.emplace();
        sip_.emplace();
    }
}

// The engine picks a flow's first idle time from these, by the session state after its first
// packet.
void engine_host::set_default_idle_times() const {
    zon_set_default_aging(ZON_TCP_PROT, ZON_L4_OPENING, settings_.idle_opening_sec * 1000);
    zon_set_default_aging(ZON_TCP_PROT, ZON_L4_BI_ESTABLISHED, settings_.idle_tcp_sec * 1000);
    zon_set_default_aging(ZON_TCP_PROT, ZON_L4_CLOSING, settings_.idle_closing_sec * 1000);
    zon_set_default_aging(ZON_UDP_PROT, ZON_L4_OPENING, settings_.idle_opening_sec * 1000);
    zon_set_default_aging(ZON_UDP_PROT, ZON_L4_UNI_ESTABLISHED, settings_.idle_udp_sec * 1000);
}

void engine_host::turn_clock(uint64_t clock_us) {
    if (!clock_started_) {
        clock_started_ = true;
        clock_base_us_ = zon_clock_now_us();
        first_time_us_ = clock_us;
    }
    if (clock_us + out_of_time_by_us < latest_time_us_) {
        ++out_of_time_;
    }
    latest_time_us_ = std::max(latest_time_us_, clock_us);
    if (clock_us > first_time_us_) {
        zon_clock_advance_to_us(clock_base_us_ + (clock_us - first_time_us_));
    }
}

packet_outcome engine_host::handle(std::span<const uint8_t> ip_packet, uint32_t vrf,
                                   uint64_t time_us) {
    if (settings_.helpers) {
        ftp_->before_packet();
        sip_->before_packet();
    }
    const ip_header header = read_ip_header(ip_packet);
    if (header.later_fragment && !settings_.fragments) {
        return {packet_fate::refused, "fragments_off"};
    }
    zon_pkt_ctx_t seen{};
    zon_pkt_indications_t& indications = seen.pkt_indications;
    packet_context context{ip_packet, &indications, &vetoes_, &groups_};
    zon_error_t error = zon_error_none;
    // The entry takes a pointer to bytes that may be written and writes none of them.
    const zon_fid_t fid = zon_handle_captured_packet(const_cast<uint8_t*>(ip_packet.data()),
                                                     static_cast<uint32_t>(ip_packet.size()), vrf,
                                                     &context, &indications, &error);
    if (fid == ZON_NULL_FID) {
        return why_refused(indications, error, header.later_fragment);
    }
    account(fid, indications, ip_packet, header, time_us);
    show_to_helpers(fid, indications, ip_packet);
    zon_cleanup_packet(&seen);  // a flow whose last packet this was leaves within about a second
    return {packet_fate::classified, {}};
}

void engine_host::show_to_helpers(zon_fid_t fid, const zon_pkt_indications_t& indications,
                                  std::span<const uint8_t> ip_packet) {
    if (!settings_.helpers) {
        return;
    }
    const seen_packet packet{fid, indications, captured_payload(indications, ip_packet)};
    ftp_->after_packet(packet);
    sip_->after_packet(packet);
}

std::string engine_host::reason_of_no_room() {
    return as_word(zon_error_str(zon_error_memory));
}

packet_outcome engine_host::why_refused(const zon_pkt_indications_t& indications, zon_error_t error,
                                        bool later_fragment) const {
    if (error == zon_error_parameter_invalid) {
        return {packet_fate::malformed, {}};
    }
    if (error == zon_error_client_pre_create_prevented) {
        return {packet_fate::refused, "vetoed"};
    }
    if (error != zon_error_none) {
        return {packet_fate::refused, as_word(zon_error_str(error))};
    }
    if (indications.l3_protocol != ZON_L3_IPV4 && indications.l3_protocol != ZON_L3_IPV6) {
        return {packet_fate::refused, "unknown_ip_version"};
    }
    if (later_fragment) {
        return {packet_fate::refused, "untied_fragment"};
    }
    if (indications.tunnel_type != ZON_TUNNEL_TYPE_NONE) {
        return {packet_fate::refused, "tunnelled_protocol_not_tracked"};
    }
    return {packet_fate::refused, "protocol_not_tracked"};
}

void engine_host::account(zon_fid_t fid, const zon_pkt_indications_t& indications,
                          std::span<const uint8_t> ip_packet, const ip_header& header,
                          uint64_t time_us) {
    zon_flow_t snapshot{};
    if (indications.fif != 0) {
        attach_new_record(fid, indications);
    }
    flow_record* record = locked_record(fid, snapshot);
    const bool first_packet = record->packets() == 0;
    const uint8_t state_before = record->session_state;
    const bool later_fragment = indications.l4_error == ZON_L4_NOERR_NON_FIRST_FRAG;

    packet_facts packet;
    packet.time_us = time_us;
    packet.ip_bytes = header.total_length;
    packet.later_fragment = later_fragment;
    if (later_fragment) {
        packet.from_initiator = header.source == record->initiator_outer_source;
    } else {
        packet.from_initiator = indications.is_initiator != 0;
        packet.payload_bytes = indications.l4_payload_size;
        packet.tcp_flags = tcp_flags_of(indications, ip_packet);
        record->payload_bytes = indications.l7_flow_bytes;
        record->promoted = record->promoted || indications.was_promoted != 0;
        if (packet.from_initiator) {
            record->initiator_outer_source = header.source;
        }
    }
    add_packet(*record, packet);
    note_states(*record, snapshot.l4state.sess_state, snapshot.l4state.tcp_state, packet);
    record->tunnel = snapshot.tunnel_type;
    if (settings_.bypass_after_bytes != 0) {
        record->bypass_id = bypass_id_of(snapshot.bypass_id);
    }
    const uint8_t state_now = record->session_state;
    const uint8_t protocol = record->tuple.l4_protocol;
    zon_unlock_flow_tamonet(&snapshot);

    if (settings_.by_source) {
        check(groups_.add_packet(fid, packet.ip_bytes, packet.payload_bytes),
              "cannot find the group of a flow");
    }
    // The engine chose the idle time after the first packet and keeps it, whatever becomes of the
    // session.
    if (!first_packet && state_now != state_before) {
        if (const std::optional<uint32_t> idle_sec = idle_time_sec(protocol, state_now)) {
            zon_flow_set_aging(fid, *idle_sec);
        }
    }
}

// The flow is locked until the snapshot is given back.
flow_record* engine_host::locked_record(zon_fid_t fid, zon_flow_t& snapshot) {
    void* record = nullptr;
    check(zon_flow_get_fo_by_fid(fid, client_, ZON_DIR_BI, &record, &snapshot),
          "cannot find the record of a flow");
    return static_cast<flow_record*>(record);
}

void engine_host::attach_new_record(zon_fid_t fid, const zon_pkt_indications_t& indications) {
    auto record = std::make_unique<flow_record>();
    record->fid = fid;
    check(zon_flow_get_tuple(fid, ZON_DIR_INITIATOR, &record->tuple), "cannot read a flow's tuple");
    // Others have no parent, and a parent that has gone is none.
    if (indications.was_promoted != 0 &&
        zon_flow_get_parent(fid, &record->parent) != zon_error_none) {
        record->parent = ZON_NULL_FID;
    }
    check(zon_flow_attach_fo(fid, client_, ZON_DIR_BI, record.get()), "cannot attach a record");
    record.release();  // comes back through flow_goes_away
    ++flows_seen_;
    if (settings_.by_source) {
        check(groups_.add_flow(fid), "cannot find the group of a flow");
    }
}

// Nothing for a closed session: zon_cleanup_packet sees it off.
std::optional<uint32_t> engine_host::idle_time_sec(uint8_t protocol, uint8_t session_state) const {
    switch (session_state) {
    case ZON_L4_CLOSED:
        return std::nullopt;
    case ZON_L4_OPENING:
        return settings_.idle_opening_sec;
    case ZON_L4_CLOSING:
        return settings_.idle_closing_sec;
    default:
        return protocol == ZON_TCP_PROT ? settings_.idle_tcp_sec : settings_.idle_udp_sec;
    }
}

// Runs for every TCP packet, with its flow locked.
void engine_host::choose_bypass(uint32_t payload_size, bool, bool, bool, uint32_t* bypass_bits) {
    if (current_host != nullptr) {
        *bypass_bits = bypass_bits_after(*bypass_bits, payload_size,
                                         current_host->settings_.bypass_after_bytes);
    }
}

void engine_host::flow_goes_away(zon_flow_ptr_t, void*, void*, void* flow_fo,
                                 zon_flow_deletion_reason_e reason, zon_client_id_e) {
    if (flow_fo != nullptr && current_host != nullptr) {
        current_host->queue_ended_flow(static_cast<flow_record*>(flow_fo), reason);
    }
}

// Runs with the flow locked: links the record and leaves the writing to the packet loop.
void engine_host::queue_ended_flow(flow_record* record,
                                   zon_flow_deletion_reason_e reason) noexcept {
    record->end_reason = reason;
    record->next = nullptr;
    if (ended_tail_ != nullptr) {
        ended_tail_->next = record;
    } else {
        ended_head_ = record;
    }
    ended_tail_ = record;
}

std::unique_ptr<flow_record> engine_host::take_ended_flow() {
    std::unique_ptr<flow_record> record(ended_head_);
    if (record) {
        ended_head_ = std::exchange(record->next, nullptr);
        if (ended_head_ == nullptr) {
            ended_tail_ = nullptr;
        }
    }
    return record;
}

void engine_host::finish() {
    if (std::exchange(running_, false)) {
        zon_destroy();
    }
    if (current_host == this) {
        current_host = nullptr;
    }
}

}  // namespace zonflow

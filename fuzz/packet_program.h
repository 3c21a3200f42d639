// packet_program.h - inputs that are a row of packets for a real engine.
//
// An input begins with the capabilities of two clients and a byte of what else an engine is made
// with: the depth of a bucket, a bound on half-open flows, traces. Each packet has two bytes of
// length, one of VRF and time, and its bytes; a bit of the length's first byte makes it one of a
// flow that the host reports, another one gives it a hash of the host's.

#pragma once

#include <cstdio>
#include <optional>
#include <set>

#include "fuzz_input.h"
#include "support/engine_state.h"
#include "zon.h"

namespace zon_fuzz {

inline constexpr uint32_t engine_capacity = 64;

// The flows that the engine has told of and not yet told the end of.
inline std::multiset<zon_fid_t>& living_flows() {
    static std::multiset<zon_fid_t> flows;
    return flows;
}

// Flows that have ended in a burst whose packets are not told of yet; null outside of bursts.
inline std::multiset<zon_fid_t>* ends_in_burst = nullptr;

inline void strike_out(zon_fid_t fid) {
    require(living_flows().erase(fid) == 1, "a flow that ends was told of, once");
}

inline void note_end(zon_flow_ptr_t fid, void*, void*, void*, zon_flow_deletion_reason_e,
                     zon_client_id_e) {
    if (ends_in_burst != nullptr)
        ends_in_burst->insert(fid);
    else
        strike_out(fid);
}

// From before a burst until the last of its answers is noted.
class ends_of_burst {
public:
    ends_of_burst() { ends_in_burst = &ends_; }
    ~ends_of_burst() {
        ends_in_burst = nullptr;
        for (const zon_fid_t fid : ends_)
            strike_out(fid);
    }
    ends_of_burst(const ends_of_burst&) = delete;
    ends_of_burst& operator=(const ends_of_burst&) = delete;

private:
    std::multiset<zon_fid_t> ends_;
};

// The flow that had the identifier before has ended in the same burst.
inline bool is_used_again(zon_fid_t fid) {
    if (ends_in_burst == nullptr || ends_in_burst->count(fid) == 0)
        return false;
    ends_in_burst->erase(ends_in_burst->find(fid));
    strike_out(fid);
    return true;
}

// All traces, written to nowhere, for as long as it lives.
class unread_traces {
public:
    unread_traces() {
        static std::FILE* const nowhere = std::fopen("/dev/null", "w");
        require(nowhere != nullptr, "there is nowhere to write to");
        stdout = stderr = nowhere;
        zon_debug_flag_engine = zon_debug_flag_fe = zon_debug_flag_l4 = zon_debug_flag_ager = true;
    }
    ~unread_traces() {
        zon_debug_flag_engine = zon_debug_flag_fe = zon_debug_flag_l4 = zon_debug_flag_ager = false;
        stdout = output_;
        stderr = errors_;
    }
    unread_traces(const unread_traces&) = delete;
    unread_traces& operator=(const unread_traces&) = delete;

private:
    std::FILE* const output_ = stdout;
    std::FILE* const errors_ = stderr;
};

// An engine with its clock turned by hand, for as long as it lives.
class fuzzed_engine {
public:
    explicit fuzzed_engine(fuzz_input& input) {
        living_flows().clear();
        zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE);
        const uint32_t first = input.byte(), second = input.byte();
        const uint32_t shape = input.byte();
        const auto depth = static_cast<uint8_t>(shape % 8);
        zon_config_set_half_open_share((shape & 8) != 0 ? 25 : 0);
        if (shape >= 0xF0)
            traces_.emplace();
        require(zon_init(engine_capacity, 2000, 8, 4, depth, 16, 10) == zon_error_none,
                "the engine starts");
        require(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                  &g_zon->zon_timer_process_create),
                "its timers start");
        zon_client_id_e client = 0;
        zon_client_feature_register(&client);
        zon_client_register_delete_cb(client, note_end);
        enable(client, first);
        zon_client_feature_register(&client);
        enable(client, second);
    }
    ~fuzzed_engine() {
        zon_destroy();
        zon_config_set_half_open_share(0);
        require(living_flows().empty(), "every flow has ended with its engine");
    }
    fuzzed_engine(const fuzzed_engine&) = delete;
    fuzzed_engine& operator=(const fuzzed_engine&) = delete;

private:
    static void enable(zon_client_id_e client, uint32_t bits) {
        zon_client_enable_engine_capability(client, static_cast<zon_capability_e>(bits & 127));
    }

    std::optional<unread_traces> traces_;
};

struct packet_of_program {
    std::span<const uint8_t> content;
    uint32_t vrf_id = 0;
    uint64_t wait_us = 0;        // after it
    zon_fid_t reported_fid = 0;  // 0: the host knows nothing of it
    zon_l4_flow_state_e reported_state = ZON_L4_CLOSED;
    std::optional<uint32_t> hash_of_host;

    static packet_of_program from(fuzz_input& input) {
        packet_of_program packet;
        const uint32_t length = input.two_bytes();
        const uint32_t choice = input.byte();
        packet.vrf_id = choice & 3;
        packet.wait_us = (choice >> 2 & 7) * 700'000;
        if ((length & 0x8000) != 0) {
            packet.reported_fid = choice >> 5;
            packet.reported_state = static_cast<zon_l4_flow_state_e>(input.below(7));
        }
        if ((length & 0x4000) != 0)
            packet.hash_of_host = length >> 11 & 7;
        packet.content = input.take(length & 0x7FF);
        return packet;
    }
    // What the host tells of it.
    zon_pkt_indications_t indications() const {
        zon_pkt_indications_t told{};
        told.hash_valid = hash_of_host.has_value() ? 1 : 0;
        told.hash_value = hash_of_host.value_or(0);
        return told;
    }
};

// Makes an engine of the input's configuration and hands each packet to the function; time passes
// behind it.
template <class function>
void run_program(fuzz_input input, function hand_in) {
    const fuzzed_engine engine(input);
    while (!input.is_empty()) {
        const auto packet = packet_of_program::from(input);
        hand_in(packet);
        zon_clock_advance_us(packet.wait_us);
    }
}

struct packet_answer {
    zon_fid_t fid = 0;
    zon_error_t error = zon_error_none;
    zon_pkt_indications_t seen{};
};

// What the engine tells of a packet must lie within the packet, and agree with itself.
inline void check_answer(const packet_answer& answer, const uint8_t* packet, size_t size) {
    const zon_pkt_indications_t& seen = answer.seen;
    require(seen.flow == answer.fid, "both places name the same flow");
    require(answer.error == zon_error_none || answer.fid == 0, "no flow comes with an error");
    require(answer.fid <= engine_capacity, "the flow is one of the engine's");
    const auto lies_within = [&](const uint8_t* at) { return at >= packet && at <= packet + size; };
    require(seen.l3_start == nullptr || lies_within(seen.l3_start), "the IP header is there");
    if (answer.fid == 0)
        return;
    require(lies_within(seen.l4_start), "the transport header is there");
    const bool has_ports = seen.l4_protocol == ZON_TCP_PROT || seen.l4_protocol == ZON_UDP_PROT;
    if (has_ports && seen.is_fragment == 0)
        require(lies_within(seen.l7_start), "the payload begins in the packet");
}

// Every flow is told of once when it begins; one that the host reports may have begun before.
inline void note_answer(const packet_answer& answer, bool is_reported) {
    if (answer.fid == 0)
        return;
    bool is_known = living_flows().count(answer.fid) != 0;
    if (is_known && answer.seen.fif == 1 && is_used_again(answer.fid))
        is_known = false;
    require(is_known || is_reported || answer.seen.fif == 1, "a flow begins with its first packet");
    require(!is_known || is_reported || answer.seen.fif == 0, "a flow begins once");
    if (!is_known)
        living_flows().insert(answer.fid);
}

inline bool is_refused(const packet_answer& answer) {
    return answer.error == zon_error_parameter_invalid;
}

inline void require_unchanged(const zon_test::engine_state& before) {
    const char* changed = zon_test::engine_state::now().changed_since(before);
    if (changed != nullptr)
        dprintf(STDERR_FILENO, "changed: %s\n", changed);
    require(changed == nullptr, "a refused packet changes nothing");
}

inline packet_answer hand_in_captured(const packet_of_program& packet, uint8_t* at) {
    packet_answer answer;
    answer.seen = packet.indications();
    const auto before = zon_test::engine_state::now();
    answer.fid = zon_sync_captured_packet(at, static_cast<uint32_t>(packet.content.size()),
                                          packet.vrf_id, nullptr, &answer.seen, &answer.error,
                                          packet.reported_fid, packet.reported_state, 1);
    if (is_refused(answer))
        require_unchanged(before);
    check_answer(answer, at, packet.content.size());
    note_answer(answer, packet.reported_fid != 0);
    return answer;
}

}  // namespace zon_fuzz

// engine_host.h - runs the engine over the packets of one source, on the source's own time.
//
// Registers as a client of the engine and keeps a flow_record on every flow. A flow that goes away
// puts its record into a queue, from which the caller takes it when no lock of the engine is held.
//
// Owns     the one engine of the process, from construction to finish(), and the records.
// Threads  one: the engine's timers run on the thread that hands in packets.
#ifndef ZONFLOW_ENGINE_HOST_H
#define ZONFLOW_ENGINE_HOST_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "flows/flow_record.h"
#include "flows/source_groups.h"
#include "flows/veto_list.h"
#include "helpers/ftp/ftp_helper.h"
#include "helpers/sip/sip_helper.h"
#include "zon.h"

namespace zonflow {

struct engine_settings {
    uint32_t max_flows = 100'000;
    uint32_t idle_opening_sec = 5;
    uint32_t idle_tcp_sec = 300;
    uint32_t idle_udp_sec = 60;
    uint32_t idle_closing_sec = 5;
    uint32_t idle_announced_sec = 180;  // 0 would be the engine's own choice
    bool tcp_checks = false;
    bool tunnels = true;
    bool fragments = true;
    bool helpers = true;
    bool by_source = false;
    std::vector<network> vetoes;
    uint32_t bypass_after_bytes = 0;  // 0: no flow is bypassed
    uint32_t hash_seed = 0;           // 0: the plain hash, the same on every run
};

struct engine_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class packet_fate { classified, refused, malformed };

struct packet_outcome {
    packet_fate fate = packet_fate::refused;
    std::string reason;  // why it was refused
};

class engine_host {
public:
    // Starts the engine. Throws engine_error.
    explicit engine_host(const engine_settings& settings);
    ~engine_host();
    engine_host(const engine_host&) = delete;
    engine_host& operator=(const engine_host&) = delete;

    // Lets flows age up to this time, from an arbitrary start. It only ever goes forward, so a time
    // that has passed turns nothing back.
    void turn_clock(uint64_t clock_us);

    // Hands a packet in, stamped with its time. Throws engine_error.
    packet_outcome handle(std::span<const uint8_t> ip_packet, uint32_t vrf, uint64_t time_us);

    // The next flow that has gone away, in the order of their going; null when there is none.
    std::unique_ptr<flow_record> take_ended_flow();

    // Ends the engine: every flow that is left goes away.
    void finish();

    uint64_t flows_seen() const { return flows_seen_; }

    // How often the clock was to be turned back by more than a second. Time stands still meanwhile.
    uint64_t out_of_time() const { return out_of_time_; }

    // The reason for which packets are refused once there are as many flows as allowed.
    static std::string reason_of_no_room();

    // Empty unless flows are added up by source.
    std::vector<source_group> groups() const { return groups_.ranked(); }

private:
    void start_engine();
    void become_client();
    void enable(zon_capability_e capability);
    void enable_options();
    void start_helpers();
    void set_default_idle_times() const;
    void show_to_helpers(zon_fid_t fid, const zon_pkt_indications_t& indications,
                         std::span<const uint8_t> ip_packet);
    packet_outcome why_refused(const zon_pkt_indications_t& indications, zon_error_t error,
                               bool later_fragment) const;
    void account(zon_fid_t fid, const zon_pkt_indications_t& indications,
                 std::span<const uint8_t> ip_packet, const ip_header& header, uint64_t time_us);
    flow_record* locked_record(zon_fid_t fid, zon_flow_t& snapshot);
    void attach_new_record(zon_fid_t fid, const zon_pkt_indications_t& indications);
    std::optional<uint32_t> idle_time_sec(uint8_t protocol, uint8_t session_state) const;
    void queue_ended_flow(flow_record* record, zon_flow_deletion_reason_e reason) noexcept;
    static void flow_goes_away(zon_flow_ptr_t flow, void* initiator_fo, void* responder_fo,
                               void* flow_fo, zon_flow_deletion_reason_e reason,
                               zon_client_id_e client);
    static void choose_bypass(uint32_t payload_size, bool fif, bool was_promoted,
                              bool first_payload, uint32_t* bypass_bits);

    engine_settings settings_;
    veto_list vetoes_;
    source_groups groups_;
    std::optional<ftp_helper> ftp_;
    std::optional<sip_helper> sip_;
    bool running_ = false;
    zon_client_id_e client_ = 0;
    bool clock_started_ = false;
    uint64_t clock_base_us_ = 0;  // the engine's clock at the first time
    uint64_t first_time_us_ = 0;
    uint64_t latest_time_us_ = 0;
    uint64_t out_of_time_ = 0;
    uint64_t flows_seen_ = 0;
    flow_record* ended_head_ = nullptr;
    flow_record* ended_tail_ = nullptr;
};

}  // namespace zonflow

#endif

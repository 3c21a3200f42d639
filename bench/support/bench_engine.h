// bench_engine.h - an engine of a given size, and whoever sends it packets.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "support/packet_writer.h"
#include "support/page_size.h"
#include "zon.h"

namespace zon_bench {

inline void require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::exit(1);
}

struct engine_options {
    uint32_t max_flows = 0;
    families family = families::ipv4;
    bool tcp_checks = true;
    // Each is told of every TCP packet, and hangs an object on every flow.
    uint32_t clients = 0;
    uint32_t max_threads = 10;  // the ZON_DEFAULT_MAX_CONCURRENCY of the library
    bool tunnels = false;       // looks into them
    bool huge_pages = false;
    bool operator==(const engine_options&) const = default;
};

// One thread's packets.
class packet_source {
public:
    explicit packet_source(families family) : packets(family) {}

    zon_fid_t send(uint8_t* packet) {
        zon_error_t error;
        return zon_handle_packet(packet, 0, nullptr, &seen, &error);
    }
    zon_fid_t send_captured(uint8_t* packet) {
        zon_error_t error;
        return zon_handle_captured_packet(packet, packet_size, 0, nullptr, &seen, &error);
    }

    static constexpr uint32_t burst_size = 32;
    void put_into_burst(uint32_t slot, uint8_t* packet) {
        burst_[slot].iphdr = packet;
        burst_[slot].captured_length = packet_size;
        burst_[slot].pkt_indications = &burst_seen_[slot];
    }
    // How many packets have no flow.
    uint32_t send_burst() {
        return burst_size - zon_handle_packet_burst(burst_.data(), burst_size);
    }
    zon_fid_t flow_of_burst(uint32_t slot) const { return burst_[slot].fid; }

    // Both sides have sent, so that the packets of packet_writer::established fit.
    zon_fid_t establish(uint32_t connection) {
        const zon_fid_t fid = send(packets.first(connection));
        if (packet_writer::is_tcp(connection))
            send(packets.tcp(connection, true, packet_writer::syn_ack));
        for (const bool back : {false, true}) {
            require(send(packets.established(connection, back)) == fid && fid != 0,
                    "a packet without its flow");
            require(seen.l4_error == ZON_L4_NOERR, "a packet that the tracker complains of");
        }
        return fid;
    }

    packet_writer packets;
    zon_pkt_indications_t seen{};

private:
    std::array<zon_burst_packet_t, burst_size> burst_{};
    std::array<zon_pkt_indications_t, burst_size> burst_seen_{};
};

class bench_engine : public packet_source {
public:
    explicit bench_engine(const engine_options& options)
        : packet_source(options.family), options_(options) {
        allow_huge_pages(options.huge_pages);
        zon_config_set_huge_pages(options.huge_pages);
        require(
            zon_init(options.max_flows, an_hour_ms, ZON_DEFAULT_MIN_INIT_FLOWS, options.max_threads,
                     ZON_DEFAULT_MAX_COLLISION_SIZE, ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS,
                     ZON_DEFAULT_MAX_MEM_BUFFER_INIT) == zon_error_none,
            "no engine");
        require(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                  &g_zon->zon_timer_process_create),
                "no timers");
        const int checks = options.tcp_checks ? ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS : 0;
        const int tunnels =
            options.tunnels ? ZON_CAPABILITY_ENABLE_IPV6INIP | ZON_CAPABILITY_ENABLE_TEREDO : 0;
        add_client(ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP | checks | tunnels,
                   count_end);
        for (uint32_t client = 0; client < options.clients; ++client) {
            watching_[client] = add_client(ZON_CAPABILITY_ENABLE_CLIENT_BYPASS, forget_object);
            zon_client_register_bypass_cb(watching_[client], look_at_packet);
        }
        set_idle_time_ms(an_hour_ms);  // nothing ages while it is measured
    }
    explicit bench_engine(uint32_t max_flows) : bench_engine(engine_options{max_flows}) {}
    ~bench_engine() {
        zon_destroy();
        allow_huge_pages(false);
    }
    bench_engine(const bench_engine&) = delete;
    bench_engine& operator=(const bench_engine&) = delete;

    const engine_options& options() const { return options_; }
    // Since the program began, modulo 2^32.
    static uint32_t ended_flows() { return ended_flows_.load(std::memory_order_relaxed); }

    static void set_idle_time_ms(uint32_t ms) {
        for (const uint8_t protocol : {uint8_t{6}, uint8_t{17}})
            for (int state = ZON_L4_ENUM_START; state < ZON_L4_ENUM_END; ++state)
                zon_set_default_aging(protocol, static_cast<zon_l4_flow_state_e>(state), ms);
    }

    void establish_all(uint32_t flows) {
        for (uint32_t connection = 0; connection < flows; ++connection) {
            const zon_fid_t fid = establish(connection);
            for (uint32_t client = 0; client < options_.clients; ++client)
                require(zon_flow_attach_fo(fid, watching_[client], ZON_DIR_BI, &object_) ==
                            zon_error_none,
                        "no object on a flow");
        }
    }

private:
    static constexpr uint32_t an_hour_ms = 3'600'000;

    static void look_at_packet(uint32_t, bool, bool, bool, uint32_t*) {}
    static void forget_object(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                              zon_client_id_e) {}
    static void count_end(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                          zon_client_id_e) {
        ended_flows_.fetch_add(1, std::memory_order_relaxed);
    }

    static zon_client_id_e add_client(int capabilities, zon_client_fo_delete_cb_t at_the_end) {
        zon_client_id_e client = 0;
        require(zon_client_feature_register(&client) == zon_error_none, "no client");
        zon_client_register_delete_cb(client, at_the_end);
        require(zon_client_enable_engine_capability(
                    client, static_cast<zon_capability_e>(capabilities)) == zon_error_none,
                "no capabilities");
        return client;
    }

    static inline std::atomic<uint32_t> ended_flows_{0};

    engine_options options_;
    std::array<zon_client_id_e, 31> watching_{};
    int object_ = 0;
};

}  // namespace zon_bench

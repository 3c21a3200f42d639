// bench_engine.h - an engine under measurement, and the packets that it is given.

#pragma once

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "zon.h"

namespace zon_bench {

// A second thread that exists and waits: a process with one thread alone gets cheaper locks than any host has.
class idle_thread {
public:
    idle_thread() : thread_([this] {
        std::unique_lock held(mutex_);
        wake_.wait(held, [this] { return done_; });
    }) {}
    ~idle_thread() {
        {
            const std::lock_guard held(mutex_);
            done_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    idle_thread(const idle_thread&) = delete;
    idle_thread& operator=(const idle_thread&) = delete;

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool done_ = false;
    std::thread thread_;
};

// An engine with its timer thread, one client and TCP, UDP and the TCP checks enabled.
class engine {
public:
    explicit engine(uint32_t flows) {
        if (zon_init(flows, 0, 1024, 64, 0, 4096, 0) != zon_error_none ||
            !zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm, &g_zon->zon_timer_process_create))
            std::abort();
        zon_client_id_e client;
        zon_client_feature_register(&client);
        zon_client_enable_engine_capability(
            client, static_cast<zon_capability_e>(ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP |
                                                  ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS));
        // No flow of a measurement goes idle.
        for (const uint8_t protocol : {ZON_TCP_PROT, ZON_UDP_PROT})
            for (int state = ZON_L4_CLOSED; state < ZON_L4_ENUM_END; ++state)
                zon_set_default_aging(protocol, static_cast<zon_l4_flow_state_e>(state), 3600000);
    }
    ~engine() { zon_destroy(); }
    engine(const engine&) = delete;
    engine& operator=(const engine&) = delete;

private:
    idle_thread other_;
};

inline void put16(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}
inline void put32(uint8_t* at, uint32_t value) {
    put16(at, value >> 16);
    put16(at + 2, value & 0xFFFF);
}

// One IPv4 packet in a buffer of its own cache line, rewritten for each connection: what a driver has just brought into
// the cache.
struct alignas(64) packet {
    uint8_t bytes[64] = {0x45, 0, 0, 0, 0, 1, 0, 0, 64, 0};

    // Connection i: even ones are TCP, odd ones UDP.
    void of_connection(uint32_t i, bool from_initiator) {
        const uint32_t client = 0x0A000000U + i / 32;
        const uint32_t server = 0xC6336400U + i % 251;
        const uint32_t client_port = 1024 + i % 32 * 977;
        const uint32_t server_port = 443;
        put32(bytes + 12, from_initiator ? client : server);
        put32(bytes + 16, from_initiator ? server : client);
        put16(bytes + 20, from_initiator ? client_port : server_port);
        put16(bytes + 22, from_initiator ? server_port : client_port);
        if (i % 2 == 0) {
            bytes[9] = ZON_TCP_PROT;
            put16(bytes + 2, 40);
        } else {
            bytes[9] = ZON_UDP_PROT;
            put16(bytes + 2, 28);
            put16(bytes + 24, 8);
        }
    }
    void tcp(uint32_t seq, uint32_t ack, uint8_t flags) {
        put32(bytes + 24, seq);
        put32(bytes + 28, ack);
        bytes[32] = 0x50;
        bytes[33] = flags;
        put16(bytes + 34, 65535);
    }
    bool is_tcp() const { return bytes[9] == ZON_TCP_PROT; }
};

inline zon_fid_t hand_in(packet& p) {
    zon_pkt_indications_t seen;
    zon_error_t error;
    seen.hash_valid = 0;
    return zon_handle_captured_packet(p.bytes, sizeof p.bytes, 0, nullptr, &seen, &error);
}

// Opens connection i as far as both sides have been heard.
inline void establish(uint32_t i) {
    packet p;
    p.of_connection(i, true);
    if (!p.is_tcp()) {
        hand_in(p);
        p.of_connection(i, false);
        hand_in(p);
        return;
    }
    p.tcp(1000, 0, 0x02);
    hand_in(p);
    p.of_connection(i, false);
    p.tcp(5000, 1001, 0x12);
    hand_in(p);
    p.of_connection(i, true);
    p.tcp(1001, 5001, 0x10);
    hand_in(p);
}

// A repeatable random order, cheap enough not to be measured.
class random_order {
public:
    uint32_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<uint32_t>(state_ >> 32);
    }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(uint64_t{next()} * limit >> 32); }

private:
    uint64_t state_ = 88172645463325252ULL;
};

}  // namespace zon_bench

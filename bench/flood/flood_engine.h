// flood_engine.h - the engine that is flooded, with its clock and what a host counts of it.
//
// Threads  one or two hand in packets, one turns the clock. With the system's clock the engine's
//          timer thread runs beside it.

#pragma once

#include <cstdint>

#include "attack.h"
#include "support/bench_engine.h"

namespace zon_bench {

enum class clock_choice {
    // Turned by hand at a rate that the flood states: what is counted is the same on any machine,
    // and expiries run between packets.
    turned,
    // The machine's: packets come as fast as they are taken, and the engine's thread runs expiries
    // beside them.
    system
};

struct engine_setup {
    uint32_t max_flows = 100'000;
    uint8_t bucket_depth = 0;    // without bound
    void (*defend)() = nullptr;  // run before zon_init
};

class flood_engine {
public:
    flood_engine(const engine_setup& setup, clock_choice clock);
    ~flood_engine() { zon_destroy(); }
    flood_engine(const flood_engine&) = delete;
    flood_engine& operator=(const flood_engine&) = delete;

    // So much of the engine's time goes by; nothing with the system's clock, whose time does so by
    // itself.
    void let_pass_ns(uint64_t ns) {
        due_ns_ += ns;
        if (due_ns_ >= 1'000'000 && clock_ == clock_choice::turned) {
            zon_clock_advance_us(due_ns_ / 1000);
            due_ns_ %= 1000;
        }
    }

    static uint64_t deletions();
    // Of them those that made room for others.
    static uint64_t replacements();

private:
    clock_choice clock_;
    uint64_t due_ns_ = 0;
};

// Where one thread hands in packets, as hosts do it with packets from outside.
class packet_line {
public:
    struct outcome {
        zon_fid_t fid;
        zon_error_t error;
        bool first;
    };
    outcome take(uint8_t* bytes, uint32_t captured) {
        zon_error_t error = zon_error_none;
        const zon_fid_t fid = zon_handle_captured_packet(bytes, captured, 0, &context_,
                                                         &context_.pkt_indications, &error);
        return {fid, error, context_.pkt_indications.fif != 0};
    }
    // Lets a connection go that the last packet finished.
    void clean_up() { zon_cleanup_packet(&context_); }

private:
    zon_pkt_ctx_t context_{};
};

uint32_t flows_now();
// Datagrams whose later fragments the engine would recognise.
uint32_t datagrams_now();

struct memory_figures {
    uint64_t resident;  // pages of the process
    uint64_t records;   // of the engine's flows, as it accounts for them
};
memory_figures memory_now();

}  // namespace zon_bench

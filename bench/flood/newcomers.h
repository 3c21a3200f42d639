// newcomers.h - honest connections that begin while an engine is flooded.
//
// One sends its SYN; by the time of the next, its answer has come, it goes on and breaks off.

#pragma once

#include <cstdint>
#include <utility>

#include "flood_engine.h"

namespace zon_bench {

struct share {
    uint64_t had;
    uint64_t of;
};

class newcomers {
public:
    explicit newcomers(packet_line& line) : line_(line) {}

    void go_on() {
        finish();
        connection_ += 2;
        fid_ = 0;
        if (const auto got = send(false, packet_writer::syn); got.first)
            fid_ = got.fid;
        ++served_.of;
    }
    // Of those that began, how many had one flow all the way.
    share take_served() {
        finish();
        return std::exchange(served_, {});
    }
    uint64_t flows_made() const { return flows_made_; }

private:
    void finish() {
        if (fid_ == 0)
            return;
        constexpr packet_writer::tcp_fields reset{1001, 2001, 0x14};
        const bool answered = is_own(send(true, packet_writer::syn_ack));
        const bool acknowledged = is_own(send(false, packet_writer::ack_of_initiator));
        const bool broken_off = is_own(send(false, reset));
        served_.had += answered && acknowledged && broken_off;
        fid_ = 0;
    }
    packet_line::outcome send(bool back, const packet_writer::tcp_fields& fields) {
        const auto got = line_.take(packets_.tcp(connection_, back, fields), packet_size);
        line_.clean_up();
        flows_made_ += got.fid != 0 && got.first;
        return got;
    }
    bool is_own(const packet_line::outcome& got) const { return got.fid == fid_ && !got.first; }

    packet_line& line_;
    packet_writer packets_;
    uint32_t connection_ = 1'000'000;  // even numbers are TCP
    zon_fid_t fid_ = 0;
    share served_{};
    uint64_t flows_made_ = 0;
};

}  // namespace zon_bench

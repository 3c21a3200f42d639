// newcomers.h - honest connections that begin while an engine is flooded.
//
// Each sends its SYN; when some others have done so, its answer comes, it goes on and breaks off.

#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "flood_engine.h"

namespace zon_bench {

struct share {
    uint64_t had;
    uint64_t of;
};

class newcomers {
public:
    newcomers(packet_line& line, uint32_t others) : line_(line), pending_(others) {}

    void go_on() {
        pending& next = pending_[served_.of++ % pending_.size()];
        finish(next);
        connection_ += 2;
        if (const auto got = send(connection_, false, packet_writer::syn); got.first)
            next = {connection_, got.fid};
    }
    // Of those that began, how many had one flow all the way.
    share take_served() {
        for (pending& each : pending_)
            finish(each);
        return std::exchange(served_, {});
    }
    uint64_t flows_made() const { return flows_made_; }

private:
    struct pending {
        uint32_t connection;
        zon_fid_t fid;  // 0: none
    };

    void finish(pending& which) {
        const pending it = std::exchange(which, {});
        if (it.fid == 0)
            return;
        constexpr packet_writer::tcp_fields reset{1001, 2001, 0x14};
        const auto is_own = [&](const packet_line::outcome& got) {
            return got.fid == it.fid && !got.first;
        };
        const bool answered = is_own(send(it.connection, true, packet_writer::syn_ack));
        const bool acknowledged =
            is_own(send(it.connection, false, packet_writer::ack_of_initiator));
        const bool broken_off = is_own(send(it.connection, false, reset));
        served_.had += answered && acknowledged && broken_off;
    }
    packet_line::outcome send(uint32_t connection, bool back,
                              const packet_writer::tcp_fields& fields) {
        const auto got = line_.take(packets_.tcp(connection, back, fields), packet_size);
        line_.clean_up();
        flows_made_ += got.fid != 0 && got.first;
        return got;
    }

    packet_line& line_;
    packet_writer packets_;
    uint32_t connection_ = 1'000'000;  // even numbers are TCP
    std::vector<pending> pending_;
    share served_{};
    uint64_t flows_made_ = 0;
};

}  // namespace zon_bench

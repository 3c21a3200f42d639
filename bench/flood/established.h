// established.h - the connections that a flood must not harm.

#pragma once

#include <cstdint>
#include <vector>

#include "flood_engine.h"
#include "support/random_order.h"

namespace zon_bench {

class established_flows {
public:
    // As a host does that reads the states of sessions: a flow that is established may pause for
    // five minutes.
    established_flows(packet_line& line, uint32_t count)
        : line_(line), fids_(count), order_(2 * count) {
        for (uint32_t connection = 0; connection < count; ++connection) {
            if (packet_writer::is_tcp(connection)) {
                send(packets_.tcp(connection, false, packet_writer::syn));
                send(packets_.tcp(connection, true, packet_writer::syn_ack));
            }
            fids_[connection] = send(packets_.established(connection, false));
            require(fids_[connection] != 0, "no flow for a connection");
            require(send(packets_.established(connection, true)) == fids_[connection],
                    "another flow for the way back");
            require(zon_flow_set_aging(fids_[connection], 300) == zon_error_none, "no idle time");
        }
    }

    uint32_t count() const { return static_cast<uint32_t>(fids_.size()); }

    struct packet {
        uint8_t* bytes;
        uint32_t connection;
    };
    // Of any connection, in either direction.
    packet next() {
        const uint32_t which = order_();
        return of(which >> 1, (which & 1) != 0);
    }
    packet of(uint32_t connection, bool back) {
        return {packets_.established(connection, back), connection};
    }
    bool is_own(const packet& sent, const packet_line::outcome& got) const {
        return got.fid == fids_[sent.connection] && !got.first;
    }

    // Connections whose packets of both directions are still given the flow that they began with.
    uint32_t kept() {
        uint32_t kept = 0;
        for (uint32_t connection = 0; connection < count(); ++connection)
            kept += send(of(connection, false).bytes) == fids_[connection] &&
                    send(of(connection, true).bytes) == fids_[connection];
        return kept;
    }

private:
    zon_fid_t send(uint8_t* bytes) { return line_.take(bytes, packet_size).fid; }

    packet_line& line_;
    packet_writer packets_;
    std::vector<zon_fid_t> fids_;
    random_order order_;
};

}  // namespace zon_bench

// session_model.h - how the session of a flow is expected to go on with each packet, stated plainly.
//
// TCP is followed by its flags alone, without checks of numbers. The values of the states are those
// that the engine reports.

#pragma once

#include <array>
#include <cstdint>

namespace zon_test {

struct session_model {
    enum session : uint8_t { closed, opening, uni, uni_incorrect, bi, bi_incorrect, closing };
    enum tcp_state : uint8_t {
        listen = 1,
        syn_sent,
        syn_received,
        established,
        close_wait,
        last_ack,
        time_wait
    };

    session state = closed;
    tcp_state tcp = listen;
    std::array<bool, 2> fin_by{};    // the initiator, the responder
    std::array<bool, 2> acked_by{};  // that side has acknowledged the other's FIN
    uint8_t udp_packets = 0;

    // A UDP session opens with a reply, and not before so many packets.
    void track(uint8_t protocol, uint8_t tcp_flags, uint32_t payload, bool from_initiator,
               uint8_t udp_threshold = 0) {
        if (protocol == 17)
            track_udp(from_initiator, udp_threshold);
        else if (protocol == 6)
            track_tcp(tcp_flags, payload, from_initiator);
    }

private:
    void close() {
        tcp = time_wait;
        state = closed;
    }
    void track_udp(bool from_initiator, uint8_t threshold) {
        ++udp_packets;
        if (state == closed && from_initiator)
            state = opening;
        else if (state == opening && !from_initiator && udp_packets >= threshold)
            state = uni;
    }
    void track_tcp(uint8_t flags, uint32_t payload, bool from_initiator) {
        const bool fin = (flags & 1) != 0, syn = (flags & 2) != 0, rst = (flags & 4) != 0,
                   psh = (flags & 8) != 0, ack = (flags & 16) != 0, urg = (flags & 32) != 0;
        const size_t own = from_initiator ? 0 : 1;
        const size_t peer = 1 - own;
        switch (tcp) {
        case listen:
            if (from_initiator) {
                tcp = syn_sent;
                state = opening;
            } else {
                state = uni_incorrect;
            }
            return;
        case syn_sent:
            if (from_initiator) {
                if (!syn || ack || psh || urg || fin || rst || payload != 0)
                    state = uni_incorrect;
            } else if (!syn && !ack) {
                state = uni_incorrect;
            } else if (rst) {
                close();
            } else if (syn && payload == 0 && !psh && !urg && !fin) {
                tcp = syn_received;
                state = uni;
            }
            return;
        case syn_received:
            if (rst) {
                close();
            } else if (!from_initiator && syn) {
                return;
            } else if (!ack) {
                state = bi_incorrect;
            } else if (from_initiator) {
                tcp = fin ? close_wait : established;
                state = bi;
                fin_by[own] = fin;
            } else if (fin) {
                tcp = close_wait;
                fin_by[own] = true;
            }
            return;
        case established:
            if (rst) {
                close();
            } else if (fin) {
                tcp = close_wait;
                fin_by[own] = true;
            }
            return;
        case close_wait:
            if (rst) {
                close();
                return;
            }
            fin_by[own] = fin_by[own] || fin;
            if (!fin_by[peer])
                return;
            acked_by[own] = true;
            if (fin_by[own]) {
                tcp = last_ack;
                state = closing;
            }
            return;
        case last_ack:
            if (rst || acked_by[peer])
                close();
            return;
        case time_wait:
            return;
        }
    }
};

}  // namespace zon_test

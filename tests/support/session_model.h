// session_model.h - how the session of a flow is expected to go on with each packet, stated
// plainly.
//
// TCP is followed by its flags alone, without checks of numbers. The values of the states are those
// that the engine reports.

#pragma once

#include <array>
#include <cstddef>
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
    struct segment {
        bool fin, syn, rst, psh, ack, urg;
        uint32_t payload;
        bool from_initiator;

        size_t own() const { return from_initiator ? 0 : 1; }
        size_t peer() const { return 1 - own(); }
        bool is_bare_of_data() const { return payload == 0 && !psh && !urg && !fin; }
    };
    void track_tcp(uint8_t flags, uint32_t payload, bool from_initiator) {
        const segment seg{.fin = (flags & 1) != 0,
                          .syn = (flags & 2) != 0,
                          .rst = (flags & 4) != 0,
                          .psh = (flags & 8) != 0,
                          .ack = (flags & 16) != 0,
                          .urg = (flags & 32) != 0,
                          .payload = payload,
                          .from_initiator = from_initiator};
        switch (tcp) {
        case listen:
            return in_listen(seg);
        case syn_sent:
            return in_syn_sent(seg);
        case syn_received:
            return in_syn_received(seg);
        case established:
            return in_established(seg);
        case close_wait:
            return in_close_wait(seg);
        case last_ack:
            return in_last_ack(seg);
        case time_wait:
            return;
        }
    }
    void in_listen(const segment& seg) {
        if (seg.from_initiator) {
            tcp = syn_sent;
            state = opening;
        } else {
            state = uni_incorrect;
        }
    }
    void in_syn_sent(const segment& seg) {
        if (seg.from_initiator) {
            const bool repeats_syn = seg.syn && !seg.ack && !seg.rst && seg.is_bare_of_data();
            if (!repeats_syn)
                state = uni_incorrect;
        } else if (!seg.syn && !seg.ack) {
            state = uni_incorrect;
        } else if (seg.rst) {
            close();
        } else if (seg.syn && seg.is_bare_of_data()) {
            tcp = syn_received;
            state = uni;
        }
    }
    void in_syn_received(const segment& seg) {
        if (seg.rst) {
            close();
        } else if (!seg.from_initiator && seg.syn) {
            return;
        } else if (!seg.ack) {
            state = bi_incorrect;
        } else if (seg.from_initiator) {
            tcp = seg.fin ? close_wait : established;
            state = bi;
            fin_by[seg.own()] = seg.fin;
        } else if (seg.fin) {
            tcp = close_wait;
            fin_by[seg.own()] = true;
        }
    }
    void in_established(const segment& seg) {
        if (seg.rst) {
            close();
        } else if (seg.fin) {
            tcp = close_wait;
            fin_by[seg.own()] = true;
        }
    }
    void in_close_wait(const segment& seg) {
        if (seg.rst) {
            close();
            return;
        }
        fin_by[seg.own()] = fin_by[seg.own()] || seg.fin;
        if (!fin_by[seg.peer()])
            return;
        acked_by[seg.own()] = true;
        if (fin_by[seg.own()]) {
            tcp = last_ack;
            state = closing;
        }
    }
    void in_last_ack(const segment& seg) {
        if (seg.rst || acked_by[seg.peer()])
            close();
    }
};

}  // namespace zon_test

// zon_test_packets_fixture.h - the four handlers of the packet kit behind one signature.

#pragma once

#include <cstring>
#include <string>

#include "src/zon_api/api_fixture.h"
#include "zon_test_packets.h"

namespace zon_test {

inline constexpr auto untouched = static_cast<zon_error_t>(99);

struct tcp_flag_set {
    bool syn = false;
    bool ack = false;
    bool rst = false;
    bool fin = false;
};

// What one handler call came back with.
struct handled {
    zon_fid_t fid = 0;
    zon_error_t error = untouched;
    zon_pkt_indications_t seen{};
};

inline uint32_t address_a[4] = {0x20010DB8, 0, 0, 1};
inline uint32_t address_b[4] = {0x20010DB8, 0, 0, 2};

// A packet from host a, port 1000 to host b, port 2000, or back.
struct kit_packet {
    uint8_t proto = tcp;
    bool back = false;
    uint32_t vrf_id = 0;
    uint32_t seq = 0;
    uint32_t ack_number = 0;
    tcp_flag_set flags;
    uint32_t payload_size = 0;
    void* context = nullptr;

    uint16_t sport() const { return back ? 2000 : 1000; }
    uint16_t dport() const { return back ? 1000 : 2000; }
};

// The four handlers behind one signature.
enum class handler { ipv4_tcp, ipv4, ipv6_tcp, ipv6 };

inline zon_fid_t call(handler which, const kit_packet& p, zon_pkt_indications_t* seen,
                      zon_error_t* error) {
    const uint32_t from = p.back ? host_b : host_a;
    const uint32_t to = p.back ? host_a : host_b;
    uint32_t* from6 = p.back ? address_b : address_a;
    uint32_t* to6 = p.back ? address_a : address_b;
    switch (which) {
    case handler::ipv4_tcp:
        return zon_test_handle_tcp_packet_fields(
            from, to, p.sport(), p.dport(), p.vrf_id, p.seq, p.ack_number, p.flags.syn, p.flags.ack,
            p.flags.rst, p.flags.fin, p.payload_size, p.context, seen, error);
    case handler::ipv4:
        return zon_test_handle_packet_fields(from, to, p.sport(), p.dport(), p.proto, p.vrf_id,
                                             p.payload_size, p.context, seen, error);
    case handler::ipv6_tcp:
        return zon_test_handle_ipv6_tcp_packet_fields(
            from6, to6, p.sport(), p.dport(), p.vrf_id, p.seq, p.ack_number, p.flags.syn,
            p.flags.ack, p.flags.rst, p.flags.fin, p.payload_size, p.context, seen, error);
    default:
        return zon_test_handle_ipv6_packet_fields(from6, to6, p.sport(), p.dport(), p.proto,
                                                  p.vrf_id, p.payload_size, p.context, seen, error);
    }
}

inline handled hand_in(handler which, const kit_packet& packet) {
    handled result;
    // Whatever the host had in there before.
    std::memset(static_cast<void*>(&result.seen), 0xEE, sizeof result.seen);
    result.fid = call(which, packet, &result.seen, &result.error);
    return result;
}

inline bool is_ipv4(handler which) {
    return which == handler::ipv4_tcp || which == handler::ipv4;
}

class packet_kit : public api_fixture {
protected:
    // The kit asks for no capability.
    packet_kit() { parameters.capabilities = 0; }
};

class every_handler : public packet_kit, public ::testing::WithParamInterface<handler> {
protected:
    static handled packet(const kit_packet& what) { return hand_in(GetParam(), what); }
    static kit_packet syn() {
        kit_packet packet;
        packet.flags.syn = true;
        return packet;
    }
};

inline std::string handler_name(const ::testing::TestParamInfo<handler>& info) {
    constexpr const char* names[] = {"ipv4_tcp", "ipv4", "ipv6_tcp", "ipv6"};
    return names[static_cast<size_t>(info.param)];
}
inline const auto all_handlers =
    ::testing::Values(handler::ipv4_tcp, handler::ipv4, handler::ipv6_tcp, handler::ipv6);
}  // namespace zon_test

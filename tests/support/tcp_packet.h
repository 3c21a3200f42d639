// tcp_packet.h - a TCP packet in memory and the parse handle that belongs to it.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "zon_engine_defs.h"

namespace tcp_test {

constexpr uint8_t fin = 0x01;
constexpr uint8_t syn = 0x02;
constexpr uint8_t rst = 0x04;
constexpr uint8_t psh = 0x08;
constexpr uint8_t ack = 0x10;
constexpr uint8_t urg = 0x20;

enum class family { ipv4, ipv6 };

struct tcp_fields {
    bool from_initiator = true;
    uint8_t flags = 0;
    uint32_t seq = 0;
    uint32_t ack = 0;
    uint16_t window = 0;
    uint16_t payload = 0;
};

// Header sizes in bytes, so that the length arithmetic is seen at work.
struct tcp_shape {
    family ip = family::ipv4;
    uint16_t ip_options = 0;
    uint16_t tcp_options = 0;
};

// Holds the headers only, at an odd address: nothing may read the payload or load whole words by a
// cast.
class tcp_packet {
public:
    tcp_packet(const tcp_fields& fields, const tcp_shape& shape) : fields_(fields), shape_(shape) {
        const size_t ip_size = (shape.ip == family::ipv4 ? 20u : 40u) + shape.ip_options;
        const uint16_t tcp_size = static_cast<uint16_t>(20 + shape.tcp_options);
        fe_.network_start = bytes_.data() + 1;
        fe_.l4_start = fe_.network_start + ip_size;
        fe_.protocol = ZON_TCP_PROT;
        fe_.i2r_flag = fields.from_initiator ? 1 : 0;
        if (shape.ip == family::ipv4) {
            fe_.l3_proto = ZON_L3_IPV4;
            fe_.network_start[0] = static_cast<uint8_t>(0x40 | ip_size / 4);
            put(fe_.network_start + 2, ip_size + tcp_size + fields.payload, 2);
        } else {
            fe_.l3_proto = ZON_L3_IPV6;
            fe_.ipv6_options_len = shape.ip_options;
            fe_.network_start[0] = 0x60;
            put(fe_.network_start + 4, size_t{shape.ip_options} + tcp_size + fields.payload, 2);
        }
        put(fe_.l4_start + 4, fields.seq, 4);
        put(fe_.l4_start + 8, fields.ack, 4);
        fe_.l4_start[12] = static_cast<uint8_t>(tcp_size / 4 << 4);
        fe_.l4_start[13] = fields.flags;
        put(fe_.l4_start + 14, fields.window, 2);
    }
    tcp_packet(const tcp_packet&) = delete;
    tcp_packet& operator=(const tcp_packet&) = delete;

    zon_dp_fe_t* fe() { return &fe_; }
    const tcp_fields& fields() const { return fields_; }
    const tcp_shape& shape() const { return shape_; }

private:
    static void put(uint8_t* at, size_t value, int width) {
        for (int i = width - 1; i >= 0; --i, value >>= 8)
            at[i] = static_cast<uint8_t>(value);
    }

    tcp_fields fields_;
    tcp_shape shape_;
    std::array<uint8_t, 160> bytes_{};
    zon_dp_fe_t fe_{};
};

}  // namespace tcp_test

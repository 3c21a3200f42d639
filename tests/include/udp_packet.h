/* udp_packet.h - a packet that hosts hand in. */
#ifndef HOST_UDP_PACKET_H
#define HOST_UDP_PACKET_H

#include <stdint.h>

/* 38 bytes: an IPv4 header, a UDP header, 10 bytes of payload. */
typedef struct udp_packet_ {
    uint8_t bytes[38];
} udp_packet;

static inline void put16(uint8_t* at, uint32_t value) {
    at[0] = (uint8_t)(value >> 8);
    at[1] = (uint8_t)value;
}

static inline void put32(uint8_t* at, uint32_t value) {
    put16(at, value >> 16);
    put16(at + 2, value);
}

static inline udp_packet udp_of(uint32_t from, uint16_t from_port, uint32_t to, uint16_t to_port) {
    udp_packet packet = {{0x45, 0, 0, sizeof packet.bytes, 0, 0, 0, 0, 64, 17}};
    put32(packet.bytes + 12, from);
    put32(packet.bytes + 16, to);
    put16(packet.bytes + 20, from_port);
    put16(packet.bytes + 22, to_port);
    put16(packet.bytes + 24, sizeof packet.bytes - 20);
    return packet;
}

#endif

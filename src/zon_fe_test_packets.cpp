// zon_fe_test_packets.cpp - builds minimal packets from plain fields, each with its parse handle.
//
// Owns   nothing: a packet is its caller's until zon_fe_test_cleanup.
// Locks  none.

#include <algorithm>
#include <cstdlib>

#include "osal/zon_mem.h"
#include "zon_bytes.h"
#include "zon_test_packets.h"

namespace {

// Where the transport header stands; the IPv4 header ends four bytes earlier, on purpose: readers
// go by the handle.
constexpr size_t ipv4_packet_size = 52;
constexpr size_t ipv4_transport = 24;
constexpr size_t ipv6_packet_size = 68;
constexpr size_t ipv6_transport = 40;

constexpr uint32_t ip_header_size = 20;
constexpr uint32_t tcp_header_size = 20;
constexpr uint32_t udp_header_size = 8;
constexpr uint16_t window = 1024;

struct port_pair {
    uint16_t source;
    uint16_t destination;
};

struct tcp_fields {
    uint32_t seq;
    uint32_t ack;
    uint8_t data_offset;  // the byte as it stands in the header
    uint8_t flags;
};

constexpr uint8_t five_words = 0x50;

// RFC 9293 3.1.
uint8_t tcp_flags(bool syn, bool ack, bool rst, bool fin) {
    return static_cast<uint8_t>((fin ? 0x01 : 0) | (syn ? 0x02 : 0) | (rst ? 0x04 : 0) |
                                (ack ? 0x10 : 0));
}

void store_length(uint8_t* at, uint32_t length) {
    store_be16(at, static_cast<uint16_t>(length));
}

void write_ports(uint8_t* transport, port_pair ports) {
    store_be16(transport, ports.source);
    store_be16(transport + 2, ports.destination);
}

void write_tcp(uint8_t* tcp, port_pair ports, const tcp_fields& fields) {
    write_ports(tcp, ports);
    store_be32(tcp + 4, fields.seq);
    store_be32(tcp + 8, fields.ack);
    tcp[12] = fields.data_offset;
    tcp[13] = fields.flags;
    store_be16(tcp + 14, window);
}

// The little that a packet has without the fields of a TCP segment.
void write_outline(uint8_t* transport, uint8_t proto, port_pair ports, uint32_t payload_size) {
    if (proto == ZON_TCP_PROT) {
        write_ports(transport, ports);
        transport[12] = five_words;
    } else if (proto == ZON_UDP_PROT) {
        write_ports(transport, ports);
        store_length(transport + 4, payload_size);
    }
}

uint8_t* fresh_packet(size_t size) {
    return static_cast<uint8_t*>(zon_heap_zalloc(1, size));
}

// Null, with the handle untouched, without memory.
uint8_t* start_ipv4_packet(uint32_t saddr, uint32_t daddr, uint8_t proto, zon_dp_fe_t* fe) {
    uint8_t* ip = fresh_packet(ipv4_packet_size);
    if (ip == nullptr)
        return nullptr;
    ip[0] = 0x45;
    store_be32(ip + 12, saddr);
    store_be32(ip + 16, daddr);
    fe->network_start = ip;
    fe->l4_start = ip + ipv4_transport;
    fe->l3_proto = ZON_L3_IPV4;
    fe->protocol = proto;
    return ip;
}

uint8_t* start_ipv6_packet(const uint32_t* saddr, const uint32_t* daddr, uint8_t proto,
                           uint32_t payload_length, zon_dp_fe_t* fe) {
    uint8_t* ip = fresh_packet(ipv6_packet_size);
    if (ip == nullptr)
        return nullptr;
    ip[0] = 0x60;
    store_length(ip + 4, payload_length);
    ip[6] = proto;
    std::copy_n(saddr, 4, fe->ipv6_srcaddr);
    std::copy_n(daddr, 4, fe->ipv6_dstaddr);
    fe->network_start = ip;
    fe->l4_start = ip + ipv6_transport;
    fe->l3_proto = ZON_L3_IPV6;
    fe->protocol = proto;
    return ip;
}

}  // namespace

void zon_fe_test_fill_tcp_packet_fields(uint32_t saddr, uint32_t daddr, uint16_t sport,
                                        uint16_t dport, uint32_t seq_num, uint32_t ack_num,
                                        bool syn, bool ack, bool rst, bool fin,
                                        uint32_t payload_size, zon_fe_handle fe_hdl) {
    auto* fe = static_cast<zon_dp_fe_t*>(fe_hdl);
    uint8_t* ip = start_ipv4_packet(saddr, daddr, ZON_TCP_PROT, fe);
    if (ip == nullptr)
        return;
    store_length(ip + 2, payload_size + ip_header_size);
    ip[9] = ZON_TCP_PROT;
    // A header of no words makes up for the one that the total length leaves out.
    write_tcp(fe->l4_start, {sport, dport}, {seq_num, ack_num, 0, tcp_flags(syn, ack, rst, fin)});
}

void zon_fe_test_fill_packet_fields(uint32_t saddr, uint32_t daddr, uint16_t sport, uint16_t dport,
                                    uint8_t proto, uint32_t payload_size, zon_fe_handle fe_hdl) {
    auto* fe = static_cast<zon_dp_fe_t*>(fe_hdl);
    uint8_t* ip = start_ipv4_packet(saddr, daddr, proto, fe);
    if (ip == nullptr)
        return;
    // The header's protocol byte stays 0: readers ask the handle.
    if (proto == ZON_TCP_PROT)
        store_length(ip + 2, payload_size + ip_header_size + tcp_header_size);
    else if (proto == ZON_UDP_PROT)
        store_length(ip + 2, payload_size + ip_header_size + udp_header_size);
    write_outline(fe->l4_start, proto, {sport, dport}, payload_size);
}

void zon_fe_test_fill_ipv6_tcp_packet_fields(uint32_t* saddr, uint32_t* daddr, uint16_t sport,
                                             uint16_t dport, uint32_t seq_num, uint32_t ack_num,
                                             bool syn, bool ack, bool rst, bool fin,
                                             uint32_t payload_size, zon_fe_handle fe_hdl) {
    auto* fe = static_cast<zon_dp_fe_t*>(fe_hdl);
    if (start_ipv6_packet(saddr, daddr, ZON_TCP_PROT, payload_size + tcp_header_size, fe) ==
        nullptr)
        return;
    fe->ipv6_options_len = 0;
    write_tcp(fe->l4_start, {sport, dport},
              {seq_num, ack_num, five_words, tcp_flags(syn, ack, rst, fin)});
}

void zon_fe_test_fill_ipv6_packet_fields(uint32_t* saddr, uint32_t* daddr, uint16_t sport,
                                         uint16_t dport, uint8_t proto, uint32_t payload_size,
                                         zon_fe_handle fe_hdl) {
    auto* fe = static_cast<zon_dp_fe_t*>(fe_hdl);
    if (start_ipv6_packet(saddr, daddr, proto, payload_size, fe) != nullptr)
        write_outline(fe->l4_start, proto, {sport, dport}, payload_size);
}

void zon_fe_test_cleanup(zon_fe_handle fe) {
    std::free(static_cast<zon_dp_fe_t*>(fe)->network_start);
}

// packet_builder.h - builds IP packets for tests, header by header, with every length field right.
//
//   packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80).flags(tcp_syn).build()
//   packet_builder::ipv6("2001:db8::1", "2001:db8::2").hop_by_hop().udp(1000,
//   53).payload(20).build() in_ipv4("192.0.2.1", "192.0.2.2", inner), in_teredo("192.0.2.1",
//   "192.0.2.2", inner)
//
// A builder is a value: keep one per connection and vary copies of it. A test that wants a wrong
// length builds a right packet and damages its bytes with put8, put16 and put32.
//
// Byte order addresses and ports are given in host order, or addresses as text; packets are in
// network order.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zon_test {

using bytes = std::vector<uint8_t>;

// Addresses as keys hold them. An address that cannot be read fails the program.
struct ipv4_address {
    uint32_t value = 0;
    constexpr ipv4_address(uint32_t host_order) : value(host_order) {}
    ipv4_address(const char* text);
};
struct ipv6_address {
    std::array<uint32_t, 4> words{};
    constexpr ipv6_address(const std::array<uint32_t, 4>& host_order) : words(host_order) {}
    ipv6_address(const char* text);
};

inline constexpr uint8_t tcp_fin = 0x01;
inline constexpr uint8_t tcp_syn = 0x02;
inline constexpr uint8_t tcp_rst = 0x04;
inline constexpr uint8_t tcp_psh = 0x08;
inline constexpr uint8_t tcp_ack = 0x10;
inline constexpr uint8_t tcp_urg = 0x20;

// Big-endian access to a packet's bytes.
uint16_t get16(const bytes& packet, size_t offset);
uint32_t get32(const bytes& packet, size_t offset);
void put8(bytes& packet, size_t offset, uint8_t value);
void put16(bytes& packet, size_t offset, uint16_t value);
void put32(bytes& packet, size_t offset, uint32_t value);

class packet_builder {
public:
    // ---- network layer ----
    static packet_builder ipv4(ipv4_address source, ipv4_address destination);
    static packet_builder ipv6(ipv6_address source, ipv6_address destination);

    // IPv4 options, padded with zeros to a multiple of four; at most 40 bytes.
    packet_builder& ip_options(bytes options);
    // IPv4: the identification of the datagram. IPv6 takes it with fragment().
    packet_builder& ident(uint16_t identification);
    // Makes the packet a fragment; offset in bytes, a multiple of 8. IPv6: adds a fragment header
    // at this place of the chain. What the builder carries then is the fragment's own data: see
    // also fragments_of.
    packet_builder& fragment(uint16_t offset_bytes, bool more, uint32_t identification = 0x1234);

    // IPv6 extension headers, in the order of the calls. extra_units: further 8-byte units behind
    // the first 8 bytes.
    packet_builder& hop_by_hop(uint8_t extra_units = 0);           // 0
    packet_builder& routing(uint8_t extra_units = 0);              // 43
    packet_builder& destination_options(uint8_t extra_units = 0);  // 60
    packet_builder& authentication(uint8_t length_byte = 4);       // 51, length_byte * 4 + 8 bytes
    packet_builder& esp();  // 50, eight bytes of it; nothing readable follows

    // ---- transport layer ----
    packet_builder& tcp(uint16_t source_port, uint16_t destination_port);
    packet_builder& flags(uint8_t tcp_flags);
    packet_builder& seq(uint32_t number);
    packet_builder& ack(uint32_t number);  // sets the number and the ACK flag
    packet_builder& window(uint16_t size);
    packet_builder& tcp_options(
        bytes options);  // padded with zeros to a multiple of four; at most 40 bytes
    packet_builder& udp(uint16_t source_port, uint16_t destination_port);
    packet_builder& icmp();  // ICMP or ICMPv6 echo request
    // Any other protocol, whose whole content is the payload.
    packet_builder& protocol(uint8_t number);

    // ---- payload ----
    packet_builder& payload(size_t length);  // that many bytes 0xA5
    packet_builder& payload(bytes content);

    // The other direction: addresses and ports exchanged.
    packet_builder reversed() const;

    bytes build() const;

private:
    struct extension {
        uint8_t type;
        bytes content;  // its first byte, the next header, is set by build()
    };
    packet_builder& extend(uint8_t type, bytes content);
    bytes transport() const;
    bytes build_ipv4() const;
    bytes build_ipv6() const;

    bool is_ipv6_ = false;
    ipv4_address source4_ = 0u;
    ipv4_address destination4_ = 0u;
    ipv6_address source6_ = std::array<uint32_t, 4>{};
    ipv6_address destination6_ = std::array<uint32_t, 4>{};
    bytes ip_options_;
    uint16_t ident_ = 0;
    uint16_t fragment_word_ = 0;
    std::vector<extension> extensions_;

    enum class layer4 { tcp, udp, icmp, other } layer4_ = layer4::other;
    uint8_t protocol_ = 59;
    uint16_t source_port_ = 0;
    uint16_t destination_port_ = 0;
    uint8_t flags_ = 0;
    uint32_t seq_ = 0;
    uint32_t ack_ = 0;
    uint16_t window_ = 65535;
    bytes tcp_options_;
    bytes payload_;
};

// The fragments of a whole datagram, each but the last with `data_size` bytes of it (a multiple of
// 8). IPv6: extension headers of the datagram are not split; the fragment header goes right behind
// the fixed header.
std::vector<bytes> fragments_of(const bytes& datagram, size_t data_size,
                                uint32_t identification = 0x1234);

// Puts a packet into a tunnel: IP protocol 41 (RFC 4213), or a UDP datagram (RFC 4380) with the
// given bytes of indicators before the inner packet.
bytes in_ipv4(ipv4_address source, ipv4_address destination, const bytes& inner);
bytes in_teredo(ipv4_address source, ipv4_address destination, const bytes& inner,
                uint16_t source_port = 51234, uint16_t destination_port = 3544,
                const bytes& indicators = {});
bytes teredo_authentication(uint8_t client_id_length = 0, uint8_t value_length = 0);
bytes teredo_origin(uint16_t port = 0, ipv4_address address = 0u);

// The bytes as hexadecimal digits, for the message of a failure.
std::string to_hex(const bytes& packet);

}  // namespace zon_test

// traffic.cpp - the connections of the mixed stress and their packets.

#include "stress/mixed/traffic.h"

#include <cstring>

namespace zon_test {
namespace {

constexpr uint32_t teredo_prefix = 0x20010000;
constexpr uint32_t plain_prefix = 0x20010DB8;
constexpr size_t fragment_size = 16;

bool is_teredo(const connection& which) {
    return which.what == kind::tunnelled && (which.number & 1) != 0;
}

packet_builder between(const connection& which, bool back) {
    if (which.is_ipv6())
        return back ? packet_builder::ipv6(which.server6(), which.client6())
                    : packet_builder::ipv6(which.client6(), which.server6());
    return back ? packet_builder::ipv4(which.server4(), which.client4())
                : packet_builder::ipv4(which.client4(), which.server4());
}

packet_builder with_ports(packet_builder packet, uint8_t protocol, uint16_t from, uint16_t to,
                          uint8_t flags) {
    if (protocol == 6)
        return packet.tcp(from, to).flags(flags).payload(3);
    return packet.udp(from, to).payload(5);
}

void set_address(zon_ip_addr_t& address, const connection& which, bool client) {
    if (!which.is_ipv6()) {
        address.addr_type = ZON_IP_ADDR_IPV4;
        address.u.v4_addr = client ? which.client4() : which.server4();
        return;
    }
    address.addr_type = ZON_IP_ADDR_IPV6;
    const ipv6_address words = client ? which.client6() : which.server6();
    std::memcpy(address.u.v6_addr, words.words.data(), sizeof address.u.v6_addr);
}

}  // namespace

ipv6_address connection::client6() const {
    const uint32_t prefix = is_teredo(*this) ? teredo_prefix : plain_prefix;
    return std::array<uint32_t, 4>{prefix, 0, static_cast<uint32_t>(what), number};
}

ipv6_address connection::server6() const {
    return std::array<uint32_t, 4>{plain_prefix, 1, static_cast<uint32_t>(what), number};
}

bytes packet_of(const connection& which, bool back, uint8_t flags) {
    const uint16_t from = back ? mixed_server_port : mixed_client_port;
    const uint16_t to = back ? mixed_client_port : mixed_server_port;
    bytes packet = with_ports(between(which, back), which.protocol(), from, to, flags).build();
    if (which.what != kind::tunnelled)
        return packet;
    const uint32_t source = back ? which.server4() : which.client4();
    const uint32_t destination = back ? which.client4() : which.server4();
    return is_teredo(which) ? in_teredo(source, destination, packet)
                            : in_ipv4(source, destination, packet);
}

bytes reply_to_moved(const connection& which) {
    return with_ports(between(which, true), which.protocol(), mixed_server_port, which.moved_port(),
                      tcp_ack)
        .build();
}

bytes fragment_of(const connection& which, uint32_t part, uint32_t ident) {
    const bytes datagram = between(which, false)
                               .udp(mixed_client_port, mixed_server_port)
                               .payload(2 * fragment_size)
                               .build();
    return fragments_of(datagram, fragment_size, ident).at(part);
}

zon_flow_tuple_t tuple_of(const connection& which, bool back) {
    zon_flow_tuple_t tuple{};
    set_address(back ? tuple.dst_ip : tuple.src_ip, which, true);
    set_address(back ? tuple.src_ip : tuple.dst_ip, which, false);
    tuple.src_port = back ? mixed_server_port : mixed_client_port;
    tuple.dst_port = back ? mixed_client_port : mixed_server_port;
    tuple.l4_protocol = which.protocol();
    return tuple;
}

zon_flow_tuple_t moved_responder_of(const connection& which) {
    zon_flow_tuple_t tuple = tuple_of(which, true);
    tuple.dst_port = which.moved_port();
    return tuple;
}

}  // namespace zon_test

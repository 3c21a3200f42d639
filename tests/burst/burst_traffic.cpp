// burst_traffic.cpp - random bursts.

#include "burst/burst_traffic.h"

#include <algorithm>
#include <cstring>

namespace zon_test {
namespace {

constexpr uint32_t largest_burst = 100;
constexpr uint32_t largest_payload = 300;

ipv6_address as_ipv6(uint32_t host) {
    return std::array<uint32_t, 4>{0x20010db8, 0, host, host};
}

packet_builder between(bool is_ipv6, uint32_t from, uint32_t to) {
    return is_ipv6 ? packet_builder::ipv6(as_ipv6(from), as_ipv6(to))
                   : packet_builder::ipv4(from, to);
}

}  // namespace

burst_traffic::burst_traffic(uint32_t seed)
    : random_(seed), rubbish_(seed), is_hashed_(seed % 4 == 2) {
    const uint32_t talks = 20 + below(300);
    for (uint32_t i = 0; i < talks; ++i)
        talks_.push_back(new_talk());
}

burst_traffic::talk burst_traffic::new_talk() {
    talk made;
    made.is_ipv6 = one_in(3);
    made.is_tcp = one_in(2);
    made.vrf_id = one_in(4) ? 1 + below(2) : 0;
    for (size_t side : {0U, 1U}) {
        made.hosts[side] = 0x0A000001 + below(6);
        made.ports[side] = static_cast<uint16_t>(one_in(20) ? 3544 : 1 + below(40));
        made.sequence[side] = static_cast<uint32_t>(random_());
    }
    for (size_t side : {0U, 1U}) {
        packet_builder built = between(made.is_ipv6, made.hosts[side], made.hosts[1 - side]);
        if (made.is_tcp)
            built.tcp(made.ports[side], made.ports[1 - side]);
        else
            built.udp(made.ports[side], made.ports[1 - side]);
        made.packets[side] = built.payload(largest_payload).build();
    }
    return made;
}

// Neighbours get most of the packets for a while; some connections give way to new ones.
burst_traffic::talk& burst_traffic::some_talk() {
    if (one_in(200))
        favourite_ = below(static_cast<uint32_t>(talks_.size()));
    const uint32_t reach = !is_calm_ && one_in(3) ? static_cast<uint32_t>(talks_.size()) : 8;
    talk& chosen = talks_[(favourite_ + below(reach)) % talks_.size()];
    if (one_in(400))
        chosen = new_talk();
    return chosen;
}

void burst_traffic::vary_tcp(talk& of, size_t side, bytes& packet, size_t header,
                             uint32_t payload) {
    constexpr uint8_t rare[] = {tcp_syn, tcp_syn | tcp_ack, tcp_fin | tcp_ack, tcp_rst, tcp_psh};
    const uint8_t flags =
        one_in(12) ? (one_in(4) ? static_cast<uint8_t>(below(256)) : rare[below(std::size(rare))])
                   : tcp_ack;
    uint32_t sequence = of.sequence[side];
    if (one_in(6))
        sequence += below(4000) - 2000;
    put32(packet, header + 4, sequence);
    put32(packet, header + 8, of.sequence[1 - side]);
    put8(packet, header + 13, flags);
    if (!one_in(10))
        of.sequence[side] += payload + ((flags & (tcp_syn | tcp_fin)) != 0 ? 1 : 0);
}

bytes burst_traffic::packet_of(talk& of, size_t side) {
    bytes packet = of.packets[side];
    const uint32_t payload = one_in(3) ? 0 : below(largest_payload);
    const size_t header = of.is_ipv6 ? 40 : 20;
    const size_t size = (of.is_tcp ? 20 : 8) + payload;
    put16(packet, of.is_ipv6 ? 4 : 2, static_cast<uint16_t>(of.is_ipv6 ? size : header + size));
    if (of.is_tcp)
        vary_tcp(of, side, packet, header, payload);
    else
        put16(packet, header + 4, static_cast<uint16_t>(size));
    packet.resize(header + size);
    return packet;
}

bytes burst_traffic::fragment_of(talk& of, size_t side) {
    const std::vector<bytes> all = fragments_of(of.packets[side], 104, below(3));
    return all[below(static_cast<uint32_t>(all.size()))];
}

bytes burst_traffic::in_tunnel(talk& of, size_t side) {
    const bytes inner = one_in(4) ? fragment_of(of, side) : packet_of(of, side);
    if (one_in(2))
        return in_ipv4(0xC0000201 + below(2), 0xC0000210, inner);
    return in_teredo(0xC0000201, 0xC0000210 + below(2), inner, 5, one_in(2) ? 3544 : 5,
                     one_in(4) ? teredo_origin() : bytes{});
}

scripted_packet burst_traffic::next_content(talk& of) {
    const size_t side = below(2);
    const uint32_t dice = is_calm_ ? 0 : below(100);
    if (dice >= 86)
        return rubbish_.next();
    bytes content = dice < 72   ? packet_of(of, side)
                    : dice < 80 ? fragment_of(of, side)
                                : in_tunnel(of, side);
    const size_t whole = content.size();
    if (!is_calm_ && one_in(40))
        return {std::move(content), below(static_cast<uint32_t>(whole) + 1)};
    return {std::move(content), whole};
}

arriving_packet_of_burst burst_traffic::next_packet() {
    arriving_packet_of_burst packet;
    talk& of = some_talk();
    const scripted_packet made = next_content(of);
    packet.captured = static_cast<uint32_t>(made.captured);
    packet.content = std::make_unique<uint8_t[]>(made.captured);
    std::copy_n(made.content.begin(), made.captured, packet.content.get());
    packet.has_header = is_calm_ || !one_in(150);
    packet.has_indications = is_calm_ || !one_in(150);
    packet.has_note = !one_in(10);
    packet.vrf_id = !is_calm_ && one_in(50) ? below(4) : of.vrf_id;
    packet.note = {++number_, one_in(30), one_in(40)};
    if (is_hashed_ && one_in(8))
        packet.hash_valid = one_in(6) ? 2 : 1;
    packet.hash_value = below(50);
    return packet;
}

burst burst_traffic::next() {
    is_calm_ = one_in(2);
    burst packets(one_in(4) ? below(5) : below(largest_burst + 1));
    std::generate(packets.begin(), packets.end(), [this] { return next_packet(); });
    return packets;
}

zon_flow_tuple_t burst_traffic::some_tuple(std::mt19937& random) const {
    const talk& of = talks_[random() % talks_.size()];
    const size_t side = random() % 2;
    zon_flow_tuple_t tuple{};
    const auto fill = [&of](uint32_t host, zon_ip_addr_t& to) {
        to.addr_type = of.is_ipv6 ? ZON_IP_ADDR_IPV6 : ZON_IP_ADDR_IPV4;
        if (of.is_ipv6)
            std::memcpy(to.u.v6_addr, as_ipv6(host).words.data(), sizeof to.u.v6_addr);
        else
            to.u.v4_addr = host;
    };
    fill(of.hosts[side], tuple.src_ip);
    fill(of.hosts[1 - side], tuple.dst_ip);
    tuple.src_port = of.ports[side];
    tuple.dst_port = of.ports[1 - side];
    tuple.vrf_id = of.vrf_id;
    tuple.l4_protocol = of.is_tcp ? ZON_TCP_PROT : ZON_UDP_PROT;
    return tuple;
}

}  // namespace zon_test

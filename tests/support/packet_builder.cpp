// packet_builder.cpp - lays out the packets of the tests.

#include "packet_builder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace zon_test {

namespace {

[[noreturn]] void give_up(const char* why, const char* what) {
    std::fprintf(stderr, "packet builder: %s: %s\n", why, what);
    std::abort();
}

void append16(bytes& to, uint16_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

void append32(bytes& to, uint32_t value) {
    append16(to, static_cast<uint16_t>(value >> 16));
    append16(to, static_cast<uint16_t>(value));
}

void append(bytes& to, const bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

bytes padded_to_four(bytes content) {
    content.resize((content.size() + 3) / 4 * 4);
    if (content.size() > 40)
        give_up("options", "more than 40 bytes");
    return content;
}

uint16_t as_length(size_t length) {
    if (length > 65535)
        give_up("length", "more than 65535 bytes");
    return static_cast<uint16_t>(length);
}

void set_ipv4_checksum(bytes& packet, size_t header_length) {
    put16(packet, 10, 0);
    uint32_t sum = 0;
    for (size_t at = 0; at < header_length; at += 2)
        sum += get16(packet, at);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    put16(packet, 10, static_cast<uint16_t>(~sum));
}

}  // namespace

ipv4_address::ipv4_address(const char* text) {
    in_addr address{};
    if (inet_pton(AF_INET, text, &address) != 1)
        give_up("not an IPv4 address", text);
    value = ntohl(address.s_addr);
}

ipv6_address::ipv6_address(const char* text) {
    in6_addr address{};
    if (inet_pton(AF_INET6, text, &address) != 1)
        give_up("not an IPv6 address", text);
    std::memcpy(words.data(), &address, sizeof address);
    for (uint32_t& word : words)
        word = ntohl(word);
}

uint16_t get16(const bytes& packet, size_t offset) {
    return static_cast<uint16_t>(packet.at(offset) << 8 | packet.at(offset + 1));
}
uint32_t get32(const bytes& packet, size_t offset) {
    return static_cast<uint32_t>(get16(packet, offset)) << 16 | get16(packet, offset + 2);
}
void put8(bytes& packet, size_t offset, uint8_t value) {
    packet.at(offset) = value;
}
void put16(bytes& packet, size_t offset, uint16_t value) {
    packet.at(offset) = static_cast<uint8_t>(value >> 8);
    packet.at(offset + 1) = static_cast<uint8_t>(value);
}
void put32(bytes& packet, size_t offset, uint32_t value) {
    put16(packet, offset, static_cast<uint16_t>(value >> 16));
    put16(packet, offset + 2, static_cast<uint16_t>(value));
}

packet_builder packet_builder::ipv4(ipv4_address source, ipv4_address destination) {
    packet_builder built;
    built.source4_ = source;
    built.destination4_ = destination;
    return built;
}

packet_builder packet_builder::ipv6(ipv6_address source, ipv6_address destination) {
    packet_builder built;
    built.is_ipv6_ = true;
    built.source6_ = source;
    built.destination6_ = destination;
    return built;
}

packet_builder& packet_builder::ip_options(bytes options) {
    ip_options_ = padded_to_four(std::move(options));
    return *this;
}

packet_builder& packet_builder::ident(uint16_t identification) {
    ident_ = identification;
    return *this;
}

packet_builder& packet_builder::fragment(uint16_t offset_bytes, bool more,
                                         uint32_t identification) {
    if (offset_bytes % 8 != 0)
        give_up("fragment", "the offset is not a multiple of 8");
    if (is_ipv6_) {
        bytes header{0, 0};
        append16(header, static_cast<uint16_t>(offset_bytes | (more ? 1 : 0)));
        append32(header, identification);
        return extend(44, std::move(header));
    }
    fragment_word_ = static_cast<uint16_t>(offset_bytes / 8 | (more ? 0x2000 : 0));
    return ident(static_cast<uint16_t>(identification));
}

packet_builder& packet_builder::extend(uint8_t type, bytes content) {
    if (!is_ipv6_)
        give_up("extension header", "only IPv6 has them");
    extensions_.push_back({type, std::move(content)});
    return *this;
}

namespace {
bytes options_header(uint8_t extra_units) {
    bytes header(8 + static_cast<size_t>(extra_units) * 8);
    header[1] = extra_units;
    return header;
}
}  // namespace

packet_builder& packet_builder::hop_by_hop(uint8_t extra_units) {
    return extend(0, options_header(extra_units));
}
packet_builder& packet_builder::routing(uint8_t extra_units) {
    return extend(43, options_header(extra_units));
}
packet_builder& packet_builder::destination_options(uint8_t extra_units) {
    return extend(60, options_header(extra_units));
}
packet_builder& packet_builder::authentication(uint8_t length_byte) {
    bytes header(static_cast<size_t>(length_byte) * 4 + 8);
    header[1] = length_byte;
    return extend(51, std::move(header));
}
packet_builder& packet_builder::esp() {
    return extend(50, bytes{0, 0, 0, 1, 0, 0, 0, 1});
}

packet_builder& packet_builder::tcp(uint16_t source_port, uint16_t destination_port) {
    layer4_ = layer4::tcp;
    protocol_ = 6;
    source_port_ = source_port;
    destination_port_ = destination_port;
    return *this;
}

packet_builder& packet_builder::flags(uint8_t tcp_flags) {
    flags_ = tcp_flags;
    return *this;
}
packet_builder& packet_builder::seq(uint32_t number) {
    seq_ = number;
    return *this;
}
packet_builder& packet_builder::ack(uint32_t number) {
    ack_ = number;
    flags_ |= tcp_ack;
    return *this;
}
packet_builder& packet_builder::window(uint16_t size) {
    window_ = size;
    return *this;
}
packet_builder& packet_builder::tcp_options(bytes options) {
    tcp_options_ = padded_to_four(std::move(options));
    return *this;
}

packet_builder& packet_builder::udp(uint16_t source_port, uint16_t destination_port) {
    layer4_ = layer4::udp;
    protocol_ = 17;
    source_port_ = source_port;
    destination_port_ = destination_port;
    return *this;
}

packet_builder& packet_builder::icmp() {
    layer4_ = layer4::icmp;
    protocol_ = is_ipv6_ ? 58 : 1;
    return *this;
}

packet_builder& packet_builder::protocol(uint8_t number) {
    layer4_ = layer4::other;
    protocol_ = number;
    return *this;
}

packet_builder& packet_builder::payload(size_t length) {
    payload_.assign(length, 0xA5);
    return *this;
}
packet_builder& packet_builder::payload(bytes content) {
    payload_ = std::move(content);
    return *this;
}

packet_builder packet_builder::reversed() const {
    packet_builder other = *this;
    std::swap(other.source4_, other.destination4_);
    std::swap(other.source6_, other.destination6_);
    std::swap(other.source_port_, other.destination_port_);
    return other;
}

bytes packet_builder::transport() const {
    bytes segment;
    if (layer4_ == layer4::tcp) {
        append16(segment, source_port_);
        append16(segment, destination_port_);
        append32(segment, seq_);
        append32(segment, ack_);
        segment.push_back(static_cast<uint8_t>((20 + tcp_options_.size()) / 4 << 4));
        segment.push_back(flags_);
        append16(segment, window_);
        append32(segment, 0);  // checksum and urgent pointer
        append(segment, tcp_options_);
    } else if (layer4_ == layer4::udp) {
        append16(segment, source_port_);
        append16(segment, destination_port_);
        append16(segment, as_length(8 + payload_.size()));
        append16(segment, 0);
    } else if (layer4_ == layer4::icmp) {
        segment = {static_cast<uint8_t>(is_ipv6_ ? 128 : 8), 0, 0, 0, 0, 1, 0, 1};
    }
    append(segment, payload_);
    return segment;
}

bytes packet_builder::build_ipv4() const {
    const bytes segment = transport();
    const size_t header_length = 20 + ip_options_.size();
    bytes packet;
    packet.push_back(static_cast<uint8_t>(0x40 | header_length / 4));
    packet.push_back(0);
    append16(packet, as_length(header_length + segment.size()));
    append16(packet, ident_);
    append16(packet, fragment_word_);
    packet.push_back(64);
    packet.push_back(protocol_);
    append16(packet, 0);
    append32(packet, source4_.value);
    append32(packet, destination4_.value);
    append(packet, ip_options_);
    set_ipv4_checksum(packet, header_length);
    append(packet, segment);
    return packet;
}

bytes packet_builder::build_ipv6() const {
    bytes chain;
    for (size_t at = 0; at < extensions_.size(); ++at) {
        const extension& header = extensions_[at];
        const size_t start = chain.size();
        append(chain, header.content);
        if (header.type !=
            50)  // what follows ESP is encrypted: it has no next-header byte in front
            chain[start] = at + 1 < extensions_.size() ? extensions_[at + 1].type : protocol_;
    }
    const bytes segment = transport();
    bytes packet{0x60, 0, 0, 0};
    append16(packet, as_length(chain.size() + segment.size()));
    packet.push_back(extensions_.empty() ? protocol_ : extensions_.front().type);
    packet.push_back(64);
    for (const uint32_t word : source6_.words)
        append32(packet, word);
    for (const uint32_t word : destination6_.words)
        append32(packet, word);
    append(packet, chain);
    append(packet, segment);
    return packet;
}

bytes packet_builder::build() const {
    return is_ipv6_ ? build_ipv6() : build_ipv4();
}

std::vector<bytes> fragments_of(const bytes& datagram, size_t data_size, uint32_t identification) {
    if (data_size == 0 || data_size % 8 != 0)
        give_up("fragments", "the size is not a multiple of 8");
    const bool is_ipv6 = datagram.at(0) >> 4 == 6;
    const size_t header_length = is_ipv6 ? 40 : static_cast<size_t>(datagram[0] & 15) * 4;
    const bytes header(datagram.begin(),
                       datagram.begin() + static_cast<std::ptrdiff_t>(header_length));
    std::vector<bytes> fragments;
    for (size_t offset = 0; header_length + offset < datagram.size(); offset += data_size) {
        const size_t start = header_length + offset;
        const size_t end = std::min(start + data_size, datagram.size());
        const bool more = end < datagram.size();
        bytes fragment = header;
        if (is_ipv6) {
            fragment[6] = 44;
            fragment.push_back(datagram[6]);
            fragment.push_back(0);
            append16(fragment, static_cast<uint16_t>(offset | (more ? 1 : 0)));
            append32(fragment, identification);
        }
        fragment.insert(fragment.end(), datagram.begin() + static_cast<std::ptrdiff_t>(start),
                        datagram.begin() + static_cast<std::ptrdiff_t>(end));
        if (is_ipv6) {
            put16(fragment, 4, as_length(fragment.size() - 40));
        } else {
            put16(fragment, 2, as_length(fragment.size()));
            put16(fragment, 4, static_cast<uint16_t>(identification));
            put16(fragment, 6, static_cast<uint16_t>(offset / 8 | (more ? 0x2000 : 0)));
            set_ipv4_checksum(fragment, header_length);
        }
        fragments.push_back(std::move(fragment));
    }
    return fragments;
}

bytes in_ipv4(ipv4_address source, ipv4_address destination, const bytes& inner) {
    return packet_builder::ipv4(source, destination).protocol(41).payload(inner).build();
}

bytes in_teredo(ipv4_address source, ipv4_address destination, const bytes& inner,
                uint16_t source_port, uint16_t destination_port, const bytes& indicators) {
    bytes content = indicators;
    append(content, inner);
    return packet_builder::ipv4(source, destination)
        .udp(source_port, destination_port)
        .payload(content)
        .build();
}

bytes teredo_authentication(uint8_t client_id_length, uint8_t value_length) {
    bytes indicator(13 + static_cast<size_t>(client_id_length) + value_length);
    indicator[1] = 1;
    indicator[2] = client_id_length;
    indicator[3] = value_length;
    return indicator;
}

bytes teredo_origin(uint16_t port, ipv4_address address) {
    bytes indicator;
    append16(indicator, 0);
    append16(indicator, port);
    append32(indicator, address.value);
    return indicator;
}

std::string to_hex(const bytes& packet) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : packet) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

}  // namespace zon_test

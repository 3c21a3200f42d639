// veto_list.cpp - the pre-create callback: the engine asks it about every packet that is of no flow
// yet.
#include "flows/veto_list.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <string>

#include "flows/packet_context.h"

namespace zonflow {

namespace {

std::optional<unsigned> prefix_bits_of(std::string_view text, unsigned most) {
    if (text.size() > 1 && text.front() == '0') {
        return std::nullopt;  // "/08" might be meant as octal
    }
    unsigned bits = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), bits);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && bits <= most ? std::optional(bits) : std::nullopt;
}

// The header of the packet that the flow would be of: behind a tunnel it stands further in.
ip_header header_of_flow(const packet_context& context) {
    const uint8_t* start = context.indications->l3_start;
    const auto inside = static_cast<size_t>(reinterpret_cast<uintptr_t>(start) -
                                            reinterpret_cast<uintptr_t>(context.ip_packet.data()));
    if (start == nullptr || inside >= context.ip_packet.size()) {
        return {};
    }
    return read_ip_header(context.ip_packet.subspan(inside));
}

}  // namespace

std::optional<network> network_of_text(std::string_view text) {
    const size_t slash = std::min(text.find('/'), text.size());
    const std::string address(text.substr(0, slash));
    network result;
    if (address.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    if (inet_pton(AF_INET, address.c_str(), result.address.data()) != 1) {
        if (inet_pton(AF_INET6, address.c_str(), result.address.data()) != 1) {
            return std::nullopt;
        }
        result.version = 6;
    }
    const unsigned most = result.version == 6 ? 128 : 32;
    const std::optional<unsigned> bits =
        slash == text.size() ? most : prefix_bits_of(text.substr(slash + 1), most);
    if (!bits) {
        return std::nullopt;
    }
    result.prefix_bits = *bits;
    return result;
}

network without_bits_behind_prefix(network network) {
    size_t at = network.prefix_bits / 8;
    if (network.prefix_bits % 8 != 0) {
        network.address[at] &= static_cast<uint8_t>(0xff00 >> network.prefix_bits % 8);
        ++at;
    }
    std::fill(network.address.begin() + static_cast<std::ptrdiff_t>(at), network.address.end(),
              uint8_t{0});
    return network;
}

bool has_bits_behind_prefix(const network& network) {
    return without_bits_behind_prefix(network).address != network.address;
}

std::string text_of(const network& network) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(network.version == 6 ? AF_INET6 : AF_INET, network.address.data(), text,
              sizeof(text));
    return std::string(text) + "/" + std::to_string(network.prefix_bits);
}

bool contains(const network& network, int version, const ip_address& address) {
    if (version != network.version) {
        return false;
    }
    const size_t whole_bytes = network.prefix_bits / 8;
    const unsigned bits_left = network.prefix_bits % 8;
    if (!std::equal(address.begin(), address.begin() + static_cast<std::ptrdiff_t>(whole_bytes),
                    network.address.begin())) {
        return false;
    }
    return bits_left == 0 ||
           (address[whole_bytes] ^ network.address[whole_bytes]) >> (8 - bits_left) == 0;
}

zon_error_t veto_list::register_with(zon_client_id_e client) const {
    return zon_client_register_pre_flow_create_cb(client, may_create);
}

bool veto_list::holds_an_end_of(const ip_header& header) const {
    return std::any_of(networks_.begin(), networks_.end(), [&](const network& network) {
        return contains(network, header.version, header.source) ||
               contains(network, header.version, header.destination);
    });
}

bool veto_list::may_create(void* pkt_ctx, zon_client_id_e) {
    const auto& context = *static_cast<const packet_context*>(pkt_ctx);
    return !context.vetoes->holds_an_end_of(read_ip_header(context.ip_packet)) &&
           !context.vetoes->holds_an_end_of(header_of_flow(context));
}

}  // namespace zonflow

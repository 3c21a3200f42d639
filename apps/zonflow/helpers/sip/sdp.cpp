// sdp.cpp - the start line and two header fields of SIP; the c=, m= and a=rtcp lines of SDP.
#include "helpers/sip/sdp.h"

#include <algorithm>

#include "helpers/text_lines.h"

namespace zonflow {

namespace {

constexpr uint16_t first_user_port = 1024;
// A call has one or a few streams; a message that lists more is not believed any further.
constexpr size_t most_streams = 8;

// ---- SIP ----

bool is_start_line(std::string_view line) {
    return line.starts_with("SIP/2.0 ") || line.ends_with(" SIP/2.0");
}

// Takes "Name:", or its one-letter form, off the start of a header line.
bool take_field_name(std::string_view& line, std::string_view name, std::string_view short_name) {
    std::string_view value = line;
    const std::string_view found = without_blanks_around(take_until(value, ':'));
    for (const std::string_view wanted : {name, short_name}) {
        std::string_view rest = found;
        if (take_word(rest, wanted) && rest.empty()) {
            line = without_blanks_around(value);
            return true;
        }
    }
    return false;
}

bool is_session_type(std::string_view type) {
    std::string_view media = without_blanks_around(take_until(type, ';'));
    return take_word(media, "application/sdp") && media.empty();
}

// ---- SDP ----

// "IN IP4 192.0.2.1" or "IN IP6 2001:db8::1". A multicast address has a "/ttl" or a "/count"
// behind it and is no address any more.
std::optional<zon_ip_addr_t> connection_address(std::string_view text) {
    if (text.starts_with("IN IP4 ")) {
        return ipv4_address(without_blanks_around(text.substr(7)));
    }
    if (text.starts_with("IN IP6 ")) {
        return ipv6_address(without_blanks_around(text.substr(7)));
    }
    return std::nullopt;
}

// Not the address that means "on hold", nor one that stands for several hosts.
bool is_one_host(const zon_ip_addr_t& address) {
    if (address.addr_type == ZON_IP_ADDR_IPV4) {
        return address.u.v4_addr >> 24 != 0 && address.u.v4_addr >> 28 < 14;
    }
    // Each group of four bytes is reversed: byte 3 is the first of the address.
    const bool unspecified = std::all_of(std::begin(address.u.v6_addr), std::end(address.u.v6_addr),
                                         [](uint8_t byte) { return byte == 0; });
    return !unspecified && address.u.v6_addr[3] != 0xff;
}

// RTP over UDP under any of its profiles.
bool is_rtp(std::string_view transport) {
    return transport.starts_with("RTP/") || transport.starts_with("UDP/TLS/RTP/");
}

struct stream {
    uint16_t port = 0;                     // 0: no RTP stream, or one that nobody listens for
    std::optional<zon_ip_addr_t> address;  // of the stream or else of the session
    bool rtcp_is_named = false;
    uint16_t rtcp_port = 0;  // 0 where the named one cannot be
    std::optional<zon_ip_addr_t> rtcp_address;
};

// "audio 49170 RTP/AVP 0 8". Several streams in one line ("49170/2") are not followed.
uint16_t rtp_port(std::string_view text) {
    take_until(text, ' ');
    const std::optional<uint16_t> port = port_number(take_until(text, ' '));
    return port && is_rtp(take_until(text, ' ')) ? *port : uint16_t{0};
}

// "49171" or "49171 IN IP4 192.0.2.1". A stream's c= line stands before this one.
void read_rtcp(std::string_view text, stream& of) {
    of.rtcp_is_named = true;
    of.rtcp_port = port_number(take_until(text, ' ')).value_or(0);
    of.rtcp_address = text.empty() ? of.address : connection_address(text);
}

void add_endpoint(std::vector<media_endpoint>& endpoints,
                  const std::optional<zon_ip_addr_t>& address, uint16_t port) {
    if (address && is_one_host(*address) && port >= first_user_port) {
        endpoints.push_back({*address, port});
    }
}

// RTCP takes the next port unless another was named. Both sides may agree to send it to the same
// port as RTP; whether they did is not known from one message, and an endpoint too many does no
// harm.
void add_endpoints(std::vector<media_endpoint>& endpoints, const stream& of) {
    if (of.port < first_user_port) {
        return;
    }
    add_endpoint(endpoints, of.address, of.port);
    if (of.rtcp_is_named) {
        add_endpoint(endpoints, of.rtcp_address, of.rtcp_port);
    } else {
        const auto next_port = static_cast<uint16_t>(of.port + 1);  // 0 behind the last one
        add_endpoint(endpoints, of.address, next_port);
    }
}

}  // namespace

std::optional<std::string_view> session_description(std::string_view message) {
    const std::optional<std::string_view> start = take_line(message);
    if (!start || !is_start_line(*start)) {
        return std::nullopt;
    }
    bool session = false;
    uint32_t length = UINT32_MAX;
    while (std::optional<std::string_view> line = take_line(message)) {
        if (line->empty()) {
            return session ? std::optional(message.substr(0, length)) : std::nullopt;
        }
        if (take_field_name(*line, "Content-Type", "c")) {
            session = is_session_type(*line);
        } else if (take_field_name(*line, "Content-Length", "l")) {
            length = whole_number(*line, UINT32_MAX).value_or(0);
        }
    }
    return std::nullopt;
}

std::vector<media_endpoint> media_endpoints(std::string_view description) {
    std::vector<media_endpoint> endpoints;
    std::optional<zon_ip_addr_t> session_address;
    std::optional<stream> current;
    size_t streams = 0;
    const auto end_stream = [&] {
        if (current) {
            add_endpoints(endpoints, *current);
        }
    };
    while (std::optional<std::string_view> line = take_line(description)) {
        if (take_word(*line, "c=")) {
            (current ? current->address : session_address) = connection_address(*line);
        } else if (take_word(*line, "a=rtcp:") && current) {
            read_rtcp(*line, *current);
        } else if (take_word(*line, "m=")) {
            end_stream();
            current.reset();
            if (++streams > most_streams) {
                break;
            }
            current.emplace();
            current->port = rtp_port(*line);
            current->address = session_address;
        }
    }
    end_stream();
    return endpoints;
}

}  // namespace zonflow

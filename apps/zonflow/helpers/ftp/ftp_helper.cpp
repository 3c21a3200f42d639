// ftp_helper.cpp - which lines are read, and which announcements are believed.
#include "helpers/ftp/ftp_helper.h"

#include "helpers/text_lines.h"

namespace zonflow {

namespace {

constexpr uint16_t control_port = 21;
constexpr uint16_t first_user_port = 1024;
// A new announcement takes the place of the one before (RFC 959 3.2).
constexpr size_t awaited_per_connection = 1;

// Empty for a flow that has just gone away.
std::optional<zon_ip_addr_t> sender_of(const seen_packet& packet) {
    zon_flow_tuple_t tuple{};
    if (zon_flow_get_tuple(packet.flow, ZON_DIR_INITIATOR, &tuple) != zon_error_none) {
        return std::nullopt;
    }
    return packet.indications.is_initiator != 0 ? tuple.src_ip : tuple.dst_ip;
}

}  // namespace

ftp_helper::ftp_helper() : announcer_(awaited_per_connection) {}

void ftp_helper::after_packet(const seen_packet& packet) {
    const zon_l4_port_t& ports = packet.indications.l4_port;
    const bool from_client = ports.dst_port == control_port;
    const bool from_server = ports.src_port == control_port;
    if (packet.indications.l4_protocol != ZON_TCP_PROT || from_client == from_server) {
        return;
    }
    std::string_view rest = packet.payload;
    while (const std::optional<std::string_view> line = take_line(rest)) {
        const auto announcement =
            from_client ? announcement_in_command(*line) : announcement_in_reply(*line);
        if (!announcement) {
            continue;
        }
        // A client that names a well-known port means somebody else's service (RFC 2577 3).
        if (from_client && announcement->port < first_user_port) {
            continue;
        }
        announce(packet, *announcement);
    }
}

// Each side speaks for itself: an address that is not the sender's own would tie connections of
// other hosts to this flow (RFC 2577 4).
void ftp_helper::announce(const seen_packet& packet, const ftp_announcement& announcement) {
    const std::optional<zon_ip_addr_t> sender = sender_of(packet);
    if (!sender || !same_address(announcement.address.value_or(*sender), *sender)) {
        return;
    }
    announcer_.announce(packet.flow, ZON_TCP_PROT, *sender, announcement.port);
}

}  // namespace zonflow

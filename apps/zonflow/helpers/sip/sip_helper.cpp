// sip_helper.cpp - which packets are read; where the media go is not for the helper to doubt, since
// they often go to another host than the signalling.
#include "helpers/sip/sip_helper.h"

#include "helpers/sip/sdp.h"

namespace zonflow {

namespace {

constexpr uint16_t signalling_port = 5060;
// Proxies carry many calls in one flow. Of more endpoints the oldest are given up.
constexpr size_t awaited_per_flow = 1024;

}  // namespace

sip_helper::sip_helper() : announcer_(awaited_per_flow) {}

void sip_helper::after_packet(const seen_packet& packet) {
    const zon_l4_port_t& ports = packet.indications.l4_port;
    if (packet.payload.empty() ||
        (ports.src_port != signalling_port && ports.dst_port != signalling_port)) {
        return;
    }
    if (const auto description = session_description(packet.payload)) {
        for (const media_endpoint& endpoint : media_endpoints(*description)) {
            announcer_.announce(packet.flow, ZON_UDP_PROT, endpoint.address, endpoint.port);
        }
    }
}

}  // namespace zonflow

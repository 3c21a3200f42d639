// sdp.h - finds in a SIP message (RFC 3261) where its sender wants to receive RTP and RTCP (RFC
// 8866, RFC 3605).
#ifndef ZONFLOW_SDP_H
#define ZONFLOW_SDP_H

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "zon_flow_tuple.h"

namespace zonflow {

struct media_endpoint {
    zon_ip_addr_t address{};
    uint16_t port = 0;
};

// The session description that a SIP message carries, as far as it is there. Nothing for anything
// else than a SIP message, and for one with another body or none.
std::optional<std::string_view> session_description(std::string_view message);

// For each RTP stream of the description its RTP endpoint and its RTCP endpoint, in the
// description's order. Streams that are turned off, on hold, multicast or at a host's name have
// none; neither have those with numbers out of range. Only whole lines are read.
std::vector<media_endpoint> media_endpoints(std::string_view description);

}  // namespace zonflow

#endif

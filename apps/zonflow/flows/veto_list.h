// veto_list.h - networks with which no flow may be made.
#ifndef ZONFLOW_VETO_LIST_H
#define ZONFLOW_VETO_LIST_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "capture/ip_header.h"
#include "zon.h"

namespace zonflow {

struct network {
    int version = 4;
    ip_address address{};      // in network order; bits behind the prefix do not count
    unsigned prefix_bits = 0;  // up to 32 or 128
};

// "192.0.2.0/24", "2001:db8::/32"; an address alone is a network of one host. Nothing for any other
// text.
std::optional<network> network_of_text(std::string_view text);

// 10.1.2.3/8: most likely not what was meant.
bool has_bits_behind_prefix(const network& network);
network without_bits_behind_prefix(network network);
// "10.0.0.0/8".
std::string text_of(const network& network);

bool contains(const network& network, int version, const ip_address& address);

class veto_list {
public:
    explicit veto_list(std::vector<network> networks) : networks_(std::move(networks)) {}

    // Asks the client to be asked about new flows. Returns what the engine says.
    zon_error_t register_with(zon_client_id_e client) const;

private:
    bool holds_an_end_of(const ip_header& header) const;
    static bool may_create(void* pkt_ctx, zon_client_id_e client);

    std::vector<network> networks_;
};

}  // namespace zonflow

#endif

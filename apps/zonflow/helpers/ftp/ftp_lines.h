// ftp_lines.h - the four lines of an FTP control connection that tell where a data connection will
// go.
#ifndef ZONFLOW_FTP_LINES_H
#define ZONFLOW_FTP_LINES_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "zon_flow_tuple.h"

namespace zonflow {

struct ftp_announcement {
    std::optional<zon_ip_addr_t> address;  // none in 229: it is that of the control connection
    uint16_t port = 0;                     // never 0
};

// PORT (RFC 959 4.1.2) and EPRT (RFC 2428 2): the client will be connected to. The line is whole
// and without its end. Nothing for any other command, and for one whose numbers are out of range
// or are followed by something else.
std::optional<ftp_announcement> announcement_in_command(std::string_view line);

// The replies 227 (RFC 959 4.2, RFC 1123 4.1.2.6) and 229 (RFC 2428 3): the server will be.
std::optional<ftp_announcement> announcement_in_reply(std::string_view line);

}  // namespace zonflow

#endif

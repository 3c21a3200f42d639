// ftp_lines_fuzz.cpp - the readers of FTP control connections, on any text.
//
// Holds  nothing outside the text is read; what a line announces can be written as a line that
//        announces the same; a text that is read line by line comes to its end.

#include <arpa/inet.h>

#include <array>
#include <string>

#include "fuzz_input.h"
#include "helpers/ftp/ftp_lines.h"
#include "helpers/text_lines.h"

using namespace zon_fuzz;
using namespace zonflow;

namespace {

std::string text_of(const zon_ip_addr_t& address) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address.addr_type == ZON_IP_ADDR_IPV4) {
        const in_addr network{htonl(address.u.v4_addr)};
        inet_ntop(AF_INET, &network, text, sizeof text);
        return text;
    }
    // Tuples hold four words in host order.
    std::array<uint32_t, 4> network{};
    std::memcpy(network.data(), address.u.v6_addr, sizeof network);
    for (uint32_t& word : network)
        word = htonl(word);
    inet_ntop(AF_INET6, network.data(), text, sizeof text);
    return text;
}

void check_announcement(const std::optional<ftp_announcement>& told) {
    if (!told)
        return;
    require(told->port != 0, "a connection goes to a port");
    const std::string port = std::to_string(told->port);
    if (!told->address) {
        const auto again =
            announcement_in_reply("229 Entering Extended Passive Mode (|||" + port + "|)");
        require(again && !again->address && again->port == told->port, "a port is read again");
        return;
    }
    const bool is_ipv6 = told->address->addr_type == ZON_IP_ADDR_IPV6;
    const auto again = announcement_in_command(std::string("EPRT |") + (is_ipv6 ? "2" : "1") + "|" +
                                               text_of(*told->address) + "|" + port + "|");
    require(again && again->address && same_address(*again->address, *told->address) &&
                again->port == told->port,
            "an address is read again");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const exact_block block({data, size});
    std::string_view rest = block.text();
    while (const auto line = take_line(rest)) {
        require(line->find('\n') == std::string_view::npos, "a line is one line");
        check_announcement(announcement_in_command(*line));
        check_announcement(announcement_in_reply(*line));
    }
    require(rest.find('\n') == std::string_view::npos, "every whole line is taken");
    check_announcement(announcement_in_command(block.text()));
    check_announcement(announcement_in_reply(block.text()));
    return 0;
}

// ftp_lines.cpp - reads h1,h2,h3,h4,p1,p2 and |family|address|port|.
#include "helpers/ftp/ftp_lines.h"

#include <algorithm>
#include <array>

#include "helpers/text_lines.h"

namespace zonflow {

namespace {

constexpr std::string_view digits = "0123456789";

// Six numbers of a byte each, with commas between them and nothing around them.
std::optional<ftp_announcement> host_and_port(std::string_view text) {
    std::array<uint32_t, 6> bytes{};
    for (uint32_t& byte : bytes) {
        const bool last = &byte == &bytes.back();
        const std::string_view number = last ? text : take_until(text, ',');
        const std::optional<uint32_t> value =
            number.size() <= 3 ? whole_number(number, UINT8_MAX) : std::nullopt;
        if (!value) {
            return std::nullopt;
        }
        byte = *value;
    }
    ftp_announcement found;
    found.address.emplace();
    found.address->addr_type = ZON_IP_ADDR_IPV4;
    found.address->u.v4_addr = bytes[0] << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
    found.port = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
    return found.port != 0 ? std::optional(found) : std::nullopt;
}

// Any printable character may stand between the fields, if only it can be told from them.
bool can_delimit(char byte) {
    return byte >= 33 && byte <= 126 && digits.find(byte) == std::string_view::npos;
}

// |family|address|port| as its three fields, which the caller judges.
std::optional<std::array<std::string_view, 3>> delimited_fields(std::string_view text) {
    if (text.size() < 2 || !can_delimit(text.front()) || text.back() != text.front()) {
        return std::nullopt;
    }
    const char delimiter = text.front();
    if (std::count(text.begin(), text.end(), delimiter) != 4) {
        return std::nullopt;
    }
    text.remove_prefix(1);
    std::array<std::string_view, 3> fields;
    for (std::string_view& field : fields) {
        field = take_until(text, delimiter);
    }
    return fields;
}

std::optional<zon_ip_addr_t> address_of_family(std::string_view family, std::string_view text) {
    if (family == "1") {
        return ipv4_address(text);
    }
    return family == "2" ? ipv6_address(text) : std::nullopt;
}

std::optional<ftp_announcement> extended_host_and_port(std::string_view text) {
    const auto fields = delimited_fields(text);
    if (!fields) {
        return std::nullopt;
    }
    const auto [family, address_text, port_text] = *fields;
    const std::optional<zon_ip_addr_t> address = address_of_family(family, address_text);
    const std::optional<uint16_t> port = port_number(port_text);
    return address && port ? std::optional(ftp_announcement{address, *port}) : std::nullopt;
}

// The numbers may stand in parentheses or not; what is around them is free text without digits.
std::optional<ftp_announcement> passive_reply(std::string_view text) {
    const size_t begin = text.find_first_of(digits);
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(begin);
    const size_t end = std::min(text.find_first_not_of("0123456789,"), text.size());
    return host_and_port(text.substr(0, end));
}

// (|||port|) with nothing where EPRT has family and address.
std::optional<ftp_announcement> extended_passive_reply(std::string_view text) {
    const size_t open = text.find('(');
    const size_t close = text.find(')', std::min(open, text.size()));
    if (close == std::string_view::npos) {
        return std::nullopt;
    }
    const auto fields = delimited_fields(text.substr(open + 1, close - open - 1));
    if (!fields || !(*fields)[0].empty() || !(*fields)[1].empty()) {
        return std::nullopt;
    }
    const std::optional<uint16_t> port = port_number((*fields)[2]);
    return port ? std::optional(ftp_announcement{std::nullopt, *port}) : std::nullopt;
}

}  // namespace

std::optional<ftp_announcement> announcement_in_command(std::string_view line) {
    if (take_word(line, "PORT ")) {
        return host_and_port(without_blanks_around(line));
    }
    if (take_word(line, "EPRT ")) {
        return extended_host_and_port(without_blanks_around(line));
    }
    return std::nullopt;
}

std::optional<ftp_announcement> announcement_in_reply(std::string_view line) {
    if (take_word(line, "227 ")) {
        return passive_reply(line);
    }
    if (take_word(line, "229 ")) {
        return extended_passive_reply(line);
    }
    return std::nullopt;
}

}  // namespace zonflow

// text_lines.cpp - lines, words, numbers and addresses out of bytes that nobody vouches for.
#include "helpers/text_lines.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace zonflow {

namespace {

constexpr size_t most_digits = 10;  // of 32 bits

bool is_digit(char byte) {
    return byte >= '0' && byte <= '9';
}

char lower(char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

// The network-order bytes of an address; false for anything that inet_pton does not take.
template <size_t size>
bool read_address(int family, std::string_view text, std::array<uint32_t, size>& words) {
    std::array<char, INET6_ADDRSTRLEN> terminated{};
    if (text.size() >= terminated.size()) {
        return false;
    }
    std::copy(text.begin(), text.end(), terminated.begin());
    // A zero byte in the text would end it before its end.
    return text.find('\0') == std::string_view::npos &&
           inet_pton(family, terminated.data(), words.data()) == 1;
}

}  // namespace

std::optional<std::string_view> take_line(std::string_view& text) {
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

std::string_view take_until(std::string_view& text, char separator) {
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view before = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return before;
}

std::optional<uint32_t> whole_number(std::string_view text, uint32_t limit) {
    if (text.empty() || text.size() > most_digits ||
        !std::all_of(text.begin(), text.end(), is_digit)) {
        return std::nullopt;
    }
    uint64_t number = 0;  // ten digits fit
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number <= limit ? std::optional(static_cast<uint32_t>(number)) : std::nullopt;
}

std::optional<uint16_t> port_number(std::string_view text) {
    const std::optional<uint32_t> number = whole_number(text, UINT16_MAX);
    return number.value_or(0) != 0 ? std::optional(static_cast<uint16_t>(*number)) : std::nullopt;
}

bool take_word(std::string_view& text, std::string_view word) {
    const bool found = text.size() >= word.size() &&
                       std::equal(word.begin(), word.end(), text.begin(),
                                  [](char one, char other) { return lower(one) == lower(other); });
    if (found) {
        text.remove_prefix(word.size());
    }
    return found;
}

std::string_view without_blanks_around(std::string_view text) {
    constexpr std::string_view blanks = " \t";
    const size_t begin = std::min(text.find_first_not_of(blanks), text.size());
    text.remove_prefix(begin);
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

std::optional<zon_ip_addr_t> ipv4_address(std::string_view text) {
    std::array<uint32_t, 1> word{};
    if (!read_address(AF_INET, text, word)) {
        return std::nullopt;
    }
    zon_ip_addr_t address{};
    address.addr_type = ZON_IP_ADDR_IPV4;
    address.u.v4_addr = ntohl(word[0]);
    return address;
}

std::optional<zon_ip_addr_t> ipv6_address(std::string_view text) {
    std::array<uint32_t, 4> words{};
    if (!read_address(AF_INET6, text, words)) {
        return std::nullopt;
    }
    // Tuples hold IPv6 addresses as four words in host order.
    for (uint32_t& word : words) {
        word = ntohl(word);
    }
    zon_ip_addr_t address{};
    address.addr_type = ZON_IP_ADDR_IPV6;
    std::memcpy(address.u.v6_addr, words.data(), sizeof(address.u.v6_addr));
    return address;
}

bool same_address(const zon_ip_addr_t& one, const zon_ip_addr_t& other) {
    if (one.addr_type != other.addr_type) {
        return false;
    }
    return one.addr_type == ZON_IP_ADDR_IPV6
               ? std::memcmp(one.u.v6_addr, other.u.v6_addr, sizeof(one.u.v6_addr)) == 0
               : one.u.v4_addr == other.u.v4_addr;
}

}  // namespace zonflow

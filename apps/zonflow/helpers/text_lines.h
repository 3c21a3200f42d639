// text_lines.h - the few steps that reading a line protocol takes. Nothing here reads past the end
// of the text that it is given.
#ifndef ZONFLOW_TEXT_LINES_H
#define ZONFLOW_TEXT_LINES_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "zon_flow_tuple.h"

namespace zonflow {

// Takes the next line off the text, without its LF or CR LF. Nothing for a line whose end is not
// there: what it says might be cut off in the middle of a number.
std::optional<std::string_view> take_line(std::string_view& text);

// Takes what stands before the separator off the text, and the separator; all of the text where
// there is none.
std::string_view take_until(std::string_view& text, char separator);

// A number of nothing but decimal digits, 1 to 10 of them, that is not above the limit.
std::optional<uint32_t> whole_number(std::string_view text, uint32_t limit);

// A port that a connection can have.
std::optional<uint16_t> port_number(std::string_view text);

// Takes the word off the start of the text, in whatever case it is written.
bool take_word(std::string_view& text, std::string_view word);

std::string_view without_blanks_around(std::string_view text);

// The address as tuples hold it. Nothing for names, prefixes and anything else but an address.
std::optional<zon_ip_addr_t> ipv4_address(std::string_view text);
std::optional<zon_ip_addr_t> ipv6_address(std::string_view text);
bool same_address(const zon_ip_addr_t& one, const zon_ip_addr_t& other);

}  // namespace zonflow

#endif

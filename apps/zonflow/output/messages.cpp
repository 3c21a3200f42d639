// messages.cpp - writes at once: standard error has no buffer.
#include "output/messages.h"

#include <zon.h>

#include <cstdio>

namespace zonflow {

namespace {

bool is_control(char letter) {
    constexpr char del = 0x7f;
    return (letter >= 0 && letter < ' ') || letter == del;
}

bool traces() {
    return zon_debug_flag_engine || zon_debug_flag_fe || zon_debug_flag_l4 || zon_debug_flag_ager ||
           zon_debug_flag_all;
}

}  // namespace

std::string printable(std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    std::string shown;
    for (const char letter : text) {
        if (is_control(letter)) {
            const auto value = static_cast<unsigned>(letter);
            shown += {'\\', 'x', digits[value >> 4], digits[value & 15]};
        } else {
            shown += letter;
        }
    }
    return shown;
}

void say(std::string_view text) {
    std::fprintf(stderr, "%szonflow: %s\n", traces() ? "\n" : "", printable(text).c_str());
}

}  // namespace zonflow

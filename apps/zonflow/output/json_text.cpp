// json_text.cpp - escapes what RFC 8259 7 wants escaped and nothing else.
#include "output/json_text.h"

#include <cstdio>

namespace zonflow {

namespace {

void append_escaped(std::string& out, char byte) {
    switch (byte) {
    case '"':
        out += "\\\"";
        return;
    case '\\':
        out += "\\\\";
        return;
    case '\n':
        out += "\\n";
        return;
    case '\r':
        out += "\\r";
        return;
    case '\t':
        out += "\\t";
        return;
    default:
        break;
    }
    const auto value = static_cast<unsigned char>(byte);
    if (value < 0x20) {
        char escape[8];
        std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(value));
        out += escape;
    } else {
        out += byte;
    }
}

// The lead bytes of sequences of more than one byte, and what the second byte may be (RFC 3629 4).
struct utf8_row {
    uint8_t first_lead, last_lead;
    uint8_t first_second, last_second;
    size_t length;
};
constexpr utf8_row utf8_rows[] = {
    {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3}, {0xe1, 0xec, 0x80, 0xbf, 3},
    {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3}, {0xf0, 0xf0, 0x90, 0xbf, 4},
    {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
};

bool is_within(uint8_t byte, uint8_t first, uint8_t last) {
    return byte >= first && byte <= last;
}

// Bytes of the character that the text begins with; 0 where it begins with none.
size_t utf8_length(std::string_view text) {
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(text[at]); };
    if (byte(0) < 0x80) {
        return 1;
    }
    for (const utf8_row& row : utf8_rows) {
        if (!is_within(byte(0), row.first_lead, row.last_lead)) {
            continue;
        }
        bool valid =
            text.size() >= row.length && is_within(byte(1), row.first_second, row.last_second);
        for (size_t at = 2; valid && at < row.length; ++at) {
            valid = is_within(byte(at), 0x80, 0xbf);
        }
        return valid ? row.length : 0;
    }
    return 0;
}

}  // namespace

std::string json_string(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length == 1) {
            append_escaped(out, text.front());
        } else {
            out += length == 0 ? "\\ufffd" : text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out + "\"";
}

void json_object::name(std::string_view name) {
    if (!fields_.empty()) {
        fields_ += ",";
    }
    fields_ += json_string(name) + ":";
}

json_object& json_object::text(std::string_view field, std::string_view value) {
    name(field);
    fields_ += json_string(value);
    return *this;
}

json_object& json_object::number(std::string_view field, uint64_t value) {
    name(field);
    fields_ += std::to_string(value);
    return *this;
}

json_object& json_object::null(std::string_view field) {
    name(field);
    fields_ += "null";
    return *this;
}

json_object& json_object::boolean(std::string_view field, bool value) {
    name(field);
    fields_ += value ? "true" : "false";
    return *this;
}

json_object& json_object::object(std::string_view field, const json_object& value) {
    name(field);
    fields_ += value.str();
    return *this;
}

json_object& json_object::seconds(std::string_view field, uint64_t time_us) {
    constexpr uint64_t us_per_sec = 1'000'000;
    char text[32];
    std::snprintf(text, sizeof(text), "%llu.%06llu",
                  static_cast<unsigned long long>(time_us / us_per_sec),
                  static_cast<unsigned long long>(time_us % us_per_sec));
    name(field);
    fields_ += text;
    return *this;
}

}  // namespace zonflow

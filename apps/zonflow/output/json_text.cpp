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

}  // namespace

std::string json_string(std::string_view text) {
    std::string out = "\"";
    for (const char byte : text) {
        append_escaped(out, byte);
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

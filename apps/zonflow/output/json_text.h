// json_text.h - one JSON object on one line (RFC 8259), written field by field in the order given.
#ifndef ZONFLOW_JSON_TEXT_H
#define ZONFLOW_JSON_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

namespace zonflow {

// A JSON string with its quotes. A byte that is not part of valid UTF-8, as the name of a file may
// hold, becomes U+FFFD.
std::string json_string(std::string_view text);

class json_object {
public:
    json_object& text(std::string_view name, std::string_view value);
    json_object& number(std::string_view name, uint64_t value);
    json_object& null(std::string_view name);
    json_object& boolean(std::string_view name, bool value);
    json_object& object(std::string_view name, const json_object& value);
    // Microseconds as seconds with six decimals.
    json_object& seconds(std::string_view name, uint64_t time_us);

    // The object so far, closed.
    std::string str() const { return "{" + fields_ + "}"; }

private:
    void name(std::string_view name);
    std::string fields_;
};

}  // namespace zonflow

#endif

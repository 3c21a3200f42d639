// environment.h - numbers that whoever runs the tests sets.

#pragma once

#include <cstdint>
#include <cstdlib>

namespace zon_test {

inline uint32_t from_environment(const char* name, uint32_t otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 10)) : otherwise;
}

}  // namespace zon_test

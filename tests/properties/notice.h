// notice.h - what the functions of clients are told, in order.

#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <vector>

namespace zon_test {

enum class notice_of : uint8_t { deletion, creation, bypass, context_gone };

struct notice {
    notice_of what;
    // deletion      client, flow, reason, objects of initiator, responder and whole flow
    // creation      client
    // bypass        payload, first, promoted, first payload, bypass id before
    // context_gone  context, type, object
    std::array<uint64_t, 6> values{};
    bool operator==(const notice&) const = default;

    uint32_t deleted_flow() const { return static_cast<uint32_t>(values[1]); }
    bool is_deletion_told_to(uint32_t client) const {
        return what == notice_of::deletion && values[0] == client;
    }
};

using notices = std::vector<notice>;

inline std::ostream& operator<<(std::ostream& out, const notice& one) {
    constexpr const char* names[] = {"deletion", "creation", "bypass", "context-gone"};
    out << names[static_cast<size_t>(one.what)] << '(';
    for (const uint64_t value : one.values)
        out << value << ' ';
    return out << ')';
}

inline std::ostream& operator<<(std::ostream& out, const notices& all) {
    for (const notice& one : all)
        out << ' ' << one;
    return all.empty() ? out << " nothing" : out;
}

// What a client's bypass function makes of the identifier, in the test and in the model.
inline uint32_t next_bypass_id(uint32_t before, uint32_t payload) {
    return before * 5 + payload + 1;
}

}  // namespace zon_test

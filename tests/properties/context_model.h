// context_model.h - super contexts: who is a member of which, and what clients hung on them.

#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "properties/notice.h"

namespace zon_test {

// What the lookup functions find in a packet, by type.
using packet_contexts = std::array<std::optional<uint32_t>, 4>;

class context_model {
public:
    struct context {
        std::vector<uint32_t> members;  // the newest first
        std::array<uint64_t, 32> objects{};
    };
    using membership = std::array<std::optional<uint32_t>, 4>;

    std::array<bool, 4> has_lookup{};
    std::array<bool, 32> tells_client{};

    // A flow that joins a second time, because its host reports a first packet again, is counted
    // and listed twice and known by its latest context alone.
    void join(uint32_t fid, const packet_contexts& found, membership& of) {
        for (uint32_t type = 0; type < 4; ++type) {
            of[type] = has_lookup[type] ? found[type] : std::nullopt;
            if (!of[type])
                continue;
            context& joined = contexts_[{type, *of[type]}];
            joined.members.insert(joined.members.begin(), fid);
        }
    }
    void leave(uint32_t fid, membership& of, notices& told) {
        for (uint32_t type = 0; type < 4; ++type) {
            const std::optional<uint32_t> value = std::exchange(of[type], std::nullopt);
            if (!value)
                continue;
            context& left = contexts_.at({type, *value});
            left.members.erase(std::find(left.members.begin(), left.members.end(), fid));
            if (!left.members.empty())
                continue;
            for (uint32_t client = 0; client < 32; ++client)
                if (tells_client[client] && left.objects[client] != 0)
                    told.push_back({notice_of::context_gone, {*value, type, left.objects[client]}});
            contexts_.erase({type, *value});
        }
    }
    context* find(uint32_t type, uint32_t value) {
        const auto found = contexts_.find({type, value});
        return found != contexts_.end() ? &found->second : nullptr;
    }
    size_t size() const { return contexts_.size(); }
    size_t listed() const {
        size_t all = 0;
        for (const auto& [key, one] : contexts_)
            all += one.members.size();
        return all;
    }

private:
    std::map<std::pair<uint32_t, uint32_t>, context> contexts_;
};

}  // namespace zon_test

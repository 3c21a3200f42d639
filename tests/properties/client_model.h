// client_model.h - clients, the identifiers that are free, and what they have enabled.

#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "zon_api_enum.h"
#include "zon_error.h"

namespace zon_test {

class client_model {
public:
    enum callback { told_deletions, asked_creation, rewrites_bypass };

    struct client {
        uint32_t id;
        std::array<bool, 3> has{};
        uint32_t enabled = 0;
    };

    client_model() {
        for (uint32_t id = 1; id <= 31; ++id)
            free_ids_.push_back(id);
    }

    // The newest first, as they are called.
    const std::deque<client>& all() const { return clients_; }

    std::optional<uint32_t> add() {
        if (free_ids_.empty())
            return std::nullopt;
        clients_.push_front({free_ids_.back()});
        free_ids_.pop_back();
        return clients_.front().id;
    }
    // The identifier is free again whether or not somebody had it.
    void drop(uint32_t id) {
        free_ids_.push_back(id);
        const auto found = std::find_if(clients_.begin(), clients_.end(),
                                        [id](const client& one) { return one.id == id; });
        if (found != clients_.end())
            clients_.erase(found);
    }

    zon_error_t set(callback which, uint32_t id) {
        if (id < 1 || id > 31)
            return zon_error_client_id_invalid;
        client* known = find(id);
        if (known == nullptr && which == told_deletions) {
            clients_.push_front({id});
            known = &clients_.front();
        }
        if (known == nullptr)
            return zon_error_client_id_invalid;
        known->has[which] = true;
        return zon_error_none;
    }
    zon_error_t clear(callback which, uint32_t id) {
        if (id < 1 || id > 31)
            return zon_error_client_id_invalid;
        if (client* known = find(id))
            known->has[which] = false;
        return zon_error_none;
    }
    bool has(callback which, uint32_t id) {
        const client* known = find(id);
        return known != nullptr && known->has[which];
    }

    zon_error_t enable(uint32_t id, uint32_t bits) {
        if (const zon_error_t refused = check(id, bits); refused != zon_error_none)
            return refused;
        client& known = *find(id);
        if ((known.enabled & bits) != 0)
            return zon_error_engine_capability_invalid;
        known.enabled |= bits;
        for (uint32_t bit = 0; bit < in_force_.size(); ++bit)
            in_force_[bit] += bits >> bit & 1;
        return zon_error_none;
    }
    zon_error_t disable(uint32_t id, uint32_t bits) {
        if (const zon_error_t refused = check(id, bits); refused != zon_error_none)
            return refused;
        client& known = *find(id);
        if (bits == ZON_CAPABILITY_ENABLE_ALL)
            bits = known.enabled;
        if ((bits & ~known.enabled) != 0)
            return zon_error_engine_capability_invalid;
        known.enabled &= ~bits;
        for (uint32_t bit = 0; bit < in_force_.size(); ++bit)
            in_force_[bit] -= std::min(in_force_[bit], bits >> bit & 1);
        return zon_error_none;
    }
    bool in_force(zon_capability_e capability) const {
        for (uint32_t bit = 0; bit < in_force_.size(); ++bit)
            if (capability == 1 << bit)
                return in_force_[bit] != 0;
        return false;
    }
    // A restart forgets the clients, not what they had enabled.
    void forget_clients() {
        const auto kept = in_force_;
        *this = client_model();
        in_force_ = kept;
    }

private:
    client* find(uint32_t id) {
        for (client& one : clients_)
            if (one.id == id)
                return &one;
        return nullptr;
    }
    zon_error_t check(uint32_t id, uint32_t bits) {
        if (id > 31)
            return zon_error_client_id_invalid;
        if (bits > ZON_CAPABILITY_ENABLE_ALL)
            return zon_error_engine_capability_invalid;
        return find(id) == nullptr ? zon_error_client_id_invalid : zon_error_none;
    }

    std::deque<client> clients_;
    std::vector<uint32_t> free_ids_;  // the next one last
    std::array<uint32_t, 7> in_force_{};
};

}  // namespace zon_test

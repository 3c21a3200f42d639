// object_lists.h - the feature objects of one flow.
//
// Three lists: of the whole flow and of its two sides. A record that is attached to a side is
// followed by the list of the whole flow as it is then, and what stood there before is lost. Which
// client finds which object follows from that alone.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

namespace zon_test {

class object_lists {
public:
    static constexpr size_t whole = 0, initiator = 1, responder = 2;

    object_lists() = default;
    object_lists(const object_lists&) = delete;
    object_lists& operator=(const object_lists&) = delete;

    void attach(size_t list, uint32_t client, uint64_t object) { put(list, client, object, whole); }
    // By tuple: in front of the side's own list.
    void attach_to_side(size_t side, uint32_t client, uint64_t object) {
        put(side, client, object, side);
    }
    // 0 where the client has none.
    uint64_t find(size_t list, uint32_t client) const {
        const record* found = record_of(list, client);
        return found != nullptr ? found->object : 0;
    }
    uint64_t detach(size_t list, uint32_t client) {
        record* found = record_of(list, client);
        if (found == nullptr)
            return 0;
        const uint64_t object = found->object;
        unlink(found);
        return object;
    }
    // All of one client's: the object of the whole flow, the initiator's, the responder's. The
    // whole flow's is off its list before the sides are looked at.
    std::array<uint64_t, 3> take_all_of(uint32_t client) {
        std::array<record*, 3> found{};
        for (const size_t list : {whole, initiator, responder}) {
            found[list] = record_of(list, client);
            if (found[list] != nullptr)
                unlink_from(list, found[list]);
        }
        std::array<uint64_t, 3> objects{};
        for (const size_t list : {whole, initiator, responder})
            if (found[list] != nullptr) {
                objects[list] = found[list]->object;
                unlink(found[list]);
            }
        return objects;
    }
    bool any() const {
        return heads_[whole] != nullptr || heads_[initiator] != nullptr ||
               heads_[responder] != nullptr;
    }
    void exchange_sides() { std::swap(heads_[initiator], heads_[responder]); }

private:
    struct record {
        uint32_t client;
        uint64_t object;
        record* next;
    };

    void put(size_t list, uint32_t client, uint64_t object, size_t followed_by) {
        if (record* known = record_of(list, client)) {
            known->object = object;
            return;
        }
        heads_[list] = &records_.emplace_back(record{client, object, heads_[followed_by]});
    }
    record* record_of(size_t list, uint32_t client) const {
        record* at = heads_[list];
        while (at != nullptr && at->client != client)
            at = at->next;
        return at;
    }
    void unlink_from(size_t list, const record* gone) {
        record** link = &heads_[list];
        while (*link != nullptr && *link != gone)
            link = &(*link)->next;
        if (*link != nullptr)
            *link = gone->next;
    }
    void unlink(const record* gone) {
        for (const size_t list : {whole, initiator, responder})
            unlink_from(list, gone);
    }

    std::deque<record> records_;
    std::array<record*, 3> heads_{};
};

}  // namespace zon_test

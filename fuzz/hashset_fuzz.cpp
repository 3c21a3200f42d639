// hashset_fuzz.cpp - the hash set of half flows beside a list.
//
// Holds  the newest match is found and its flow locked; a bucket takes no more than its depth; a
//        pair goes in, moves and goes out as one; the count, the chains and their links back agree.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <deque>

#include "fuzz_input.h"
#include "zon_hashset.h"

using namespace zon_fuzz;

namespace {

constexpr uint32_t flow_count = 24;

// Identity is the number; equal numbers need not have equal hashes.
struct named_key {
    uint32_t hash = 0;
    uint32_t number = 0;
    bool operator==(const named_key&) const = default;
};

named_key key_of(const void* half) {
    const zon_key_t& key = static_cast<const zon_half_flow_t*>(half)->key;
    return {key.hash_value, key.vrf_id};
}
void set_key(void* half, const named_key& key) {
    static_cast<zon_half_flow_t*>(half)->key.hash_value = key.hash;
    static_cast<zon_half_flow_t*>(half)->key.vrf_id = key.number;
}
unsigned int hash_of(void* item, void*) {
    return key_of(item).hash;
}
bool matches(void* key, void* item, void*) {
    return key_of(key).number == key_of(item).number;
}
bool is_same(const void* fresh, const void* item, void*) {
    return key_of(fresh).number == key_of(item).number;
}
void rewrite(void* item, const void* wanted) {
    set_key(item, key_of(wanted));
}

// Two half flows on a flow.
struct pair_of_halves {
    zon_flow_t flow{};
    std::array<zon_half_flow_t, 2> halves{};
    bool is_in = false;
    bool told_linked = false;

    pair_of_halves() {
        flow.flow_lock = zon_lock_allocate();
        zon_lock_init(flow.flow_lock);
        for (zon_half_flow_t& half : halves)
            half.flow = &flow;
    }
    ~pair_of_halves() {
        zon_lock_destroy(flow.flow_lock);
        std::free(flow.flow_lock);
    }
    pair_of_halves(const pair_of_halves&) = delete;
    pair_of_halves& operator=(const pair_of_halves&) = delete;
};

class set_and_list {
public:
    explicit set_and_list(fuzz_input& input) : input_(input), depth_(input.below(4)) {
        zon_hash_attr attrs{};
        zon_hash_attr_init(&attrs);
        zon_hash_attr_sethashtable(&attrs, false, 13, 1 + static_cast<int>(input.below(5)),
                                   static_cast<uint8_t>(depth_));
        require(zon_hashset_create(&set_, &attrs, 0, hash_of, matches, nullptr) == zon_error_none,
                "the set is made");
    }
    ~set_and_list() { zon_hashset_free(&set_); }
    set_and_list(const set_and_list&) = delete;
    set_and_list& operator=(const set_and_list&) = delete;

    void run() {
        while (!input_.is_empty()) {
            pair_of_halves& one = flows_[input_.below(flow_count)];
            switch (input_.below(3)) {
            case 0:
                find();
                break;
            case 1:
                one.is_in ? remove(one) : insert(one);
                break;
            default:
                if (one.is_in)
                    move(one);
                else
                    insert(one);
            }
            check_chains();
        }
    }

private:
    named_key some_key() { return {input_.below(40), input_.below(16)}; }
    uint32_t bucket_of(const named_key& key) const {
        return key.hash % static_cast<uint32_t>(set_->array_size);
    }
    // The newest first.
    std::deque<zon_half_flow_t*>& chain_of(const named_key& key) { return list_[bucket_of(key)]; }
    bool is_full(const named_key& key) { return depth_ != 0 && chain_of(key).size() >= depth_; }
    bool holds(const named_key& key) {
        const auto& chain = chain_of(key);
        return std::any_of(chain.begin(), chain.end(), [&](const zon_half_flow_t* half) {
            return key_of(half).number == key.number;
        });
    }
    void take_out(zon_half_flow_t& half) { std::erase(chain_of(key_of(&half)), &half); }

    // Where both keys can go; the second is not compared.
    pair_insert_result put(pair_of_halves& one, const named_key& first, const named_key& second) {
        if (holds(first))
            return pair_insert_result::already_present;
        if (is_full(first))
            return pair_insert_result::first_refused;
        chain_of(first).push_front(&one.halves[0]);
        if (is_full(second)) {
            chain_of(first).pop_front();
            return pair_insert_result::second_refused;
        }
        chain_of(second).push_front(&one.halves[1]);
        return pair_insert_result::linked;
    }

    void find() {
        const named_key wanted = some_key();
        zon_half_flow_t key{};
        set_key(&key, wanted);
        int bucket = -1;
        auto* found = static_cast<zon_half_flow_t*>(zon_hashset_get(set_, &key, &bucket));
        if (found != nullptr)
            zon_unlock_internal(found->flow->flow_lock);
        require(bucket == static_cast<int>(bucket_of(wanted)), "the bucket is the key's");
        const auto& chain = chain_of(wanted);
        const auto expected = std::find_if(chain.begin(), chain.end(), [&](zon_half_flow_t* half) {
            return matches(&key, half, nullptr);
        });
        require(found == (expected == chain.end() ? nullptr : *expected), "the newest is found");
    }
    static void note_linked(zon_hashset_item, zon_hashset_item, void* told) {
        *static_cast<bool*>(told) = true;
    }
    void insert(pair_of_halves& one) {
        const named_key first = some_key(), second = some_key();
        set_key(&one.halves[0], first);
        set_key(&one.halves[1], second);
        const held_lock held(one.flow.flow_lock);
        const auto result = zon_hashset_insert_pair(
            set_, &one.halves[0], static_cast<int>(bucket_of(first)), &one.halves[1],
            static_cast<int>(bucket_of(second)), is_same, note_linked, &one.told_linked);
        require(one.told_linked == (result == pair_insert_result::linked), "told when linked");
        one.told_linked = false;
        require(result == put(one, first, second), "a pair goes in where there is room");
        one.is_in = result == pair_insert_result::linked;
    }
    void remove(pair_of_halves& one) {
        const held_lock held(one.flow.flow_lock);
        zon_hashset_remove_full(set_, &one.halves[0], &one.halves[1]);
        take_out(one.halves[0]);
        take_out(one.halves[1]);
        one.is_in = false;
    }
    void move(pair_of_halves& one) {
        const named_key first = some_key(), second = some_key();
        zon_half_flow_t wanted[2] = {};
        set_key(&wanted[0], first);
        set_key(&wanted[1], second);
        const held_lock held(one.flow.flow_lock);
        auto expected = pair_insert_result::already_present;
        // The pair's own halves count, too.
        if (!holds(first)) {
            take_out(one.halves[0]);
            take_out(one.halves[1]);
            expected = put(one, first, second);
        }
        const auto result = zon_hashset_relink_pair(
            set_, {&one.halves[0], &wanted[0], &one.halves[1], &wanted[1]}, is_same, rewrite);
        require(result == expected, "a pair moves where there is room");
        one.is_in =
            result == pair_insert_result::linked || result == pair_insert_result::already_present;
    }

    void check_chains() {
        int all = 0;
        for (uint32_t bucket = 0; bucket < list_.size(); ++bucket) {
            zon_hashset_hdr** slot = &set_->array[bucket];
            for (const zon_half_flow_t* half : list_[bucket]) {
                require(*slot == &half->hdr, "the chain holds what the list holds, in its order");
                require(half->hdr.pointer_to_us == slot, "each item links back");
                slot = &(*slot)->next;
                ++all;
            }
            require(*slot == nullptr, "the chain ends where the list ends");
        }
        require(zon_hashset_size(set_) == all, "the set counts what it holds");
    }

    fuzz_input& input_;
    size_t depth_;
    zon_hashset set_ = nullptr;
    std::array<pair_of_halves, flow_count> flows_;
    std::array<std::deque<zon_half_flow_t*>, 13> list_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    set_and_list(input).run();
    return 0;
}

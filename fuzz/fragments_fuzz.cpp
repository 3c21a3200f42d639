// fragments_fuzz.cpp - fragments of both families in any order, beside a map of datagrams.
//
// First, middle and last fragments of many datagrams, bursts of first ones that fill the table,
// flows that are deleted in between, and time that passes.
//
// Holds  a later fragment gets the flow of its datagram's first one, as long as that flow lives and
//        30 seconds at most; the table counts what the map holds, and never more than it has room
//        for.

#include <map>
#include <set>
#include <tuple>

#include "fuzz_input.h"
#include "support/packet_builder.h"
#include "zon.h"
#include "zon_frag.h"

using namespace zon_fuzz;
using zon_test::packet_builder;

namespace {

constexpr uint64_t idle_us = uint64_t{zon_frag_idle_ms} * 1000;
constexpr uint64_t two_ticks_us = 30'000;

std::set<zon_fid_t>& living() {
    static std::set<zon_fid_t> flows;
    return flows;
}
void note_end(zon_flow_ptr_t fid, void*, void*, void*, zon_flow_deletion_reason_e,
              zon_client_id_e) {
    living().erase(fid);
}

struct datagram {
    bool is_ipv6;
    bool is_tcp;
    uint32_t vrf_id;
    uint16_t ident;

    static datagram from(fuzz_input& input) {
        const uint32_t bits = input.byte();
        return {(bits & 1) != 0, (bits & 2) != 0, bits >> 2 & 1,
                static_cast<uint16_t>(input.byte())};
    }
    auto key() const { return std::tuple(is_ipv6, is_tcp, vrf_id, ident); }
    packet_builder fragment(uint16_t offset, bool more) const {
        packet_builder ip = is_ipv6 ? packet_builder::ipv6("2001:db8::1", "2001:db8::2")
                                    : packet_builder::ipv4("10.0.0.1", "10.0.0.2");
        return ip.fragment(offset, more, ident).payload(24);
    }
    zon_test::bytes first(uint16_t port) const {
        packet_builder packet = fragment(0, true);
        return (is_tcp ? packet.tcp(port, 80).flags(zon_test::tcp_syn) : packet.udp(port, 80))
            .build();
    }
    zon_test::bytes later(bool is_last) const {
        return fragment(48, !is_last).protocol(is_tcp ? 6 : 17).build();
    }
};

struct entry {
    zon_fid_t fid;
    uint64_t since_us;
};

class engine_and_map {
public:
    engine_and_map() {
        living().clear();
        zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE);
        require(zon_init(64, 1000, 8, 4, 0, 16, 10) == zon_error_none, "the engine starts");
        require(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                  &g_zon->zon_timer_process_create),
                "its timers start");
        zon_client_id_e client = 0;
        zon_client_feature_register(&client);
        zon_client_register_delete_cb(client, note_end);
        zon_client_enable_engine_capability(
            client,
            static_cast<zon_capability_e>(ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP));
    }
    ~engine_and_map() { zon_destroy(); }
    engine_and_map(const engine_and_map&) = delete;
    engine_and_map& operator=(const engine_and_map&) = delete;

    void step(fuzz_input& input) {
        switch (input.below(8)) {
        case 0:
        case 1:
            first(datagram::from(input), static_cast<uint16_t>(1 + input.below(8)));
            break;
        case 2:
        case 3:
            later(datagram::from(input), false);
            break;
        case 4:
            later(datagram::from(input), true);
            break;
        case 5:
            burst(datagram::from(input), input.byte());
            break;
        case 6:
            zon_clock_advance_us(input.below(32) * uint64_t{1'000'000} + 40'000);
            break;
        default:
            remove_flow(1 + input.below(64));
        }
        settle();
        compare_counts();
    }

private:
    zon_fid_t hand_in(zon_test::bytes packet, uint32_t vrf_id) {
        zon_pkt_indications_t seen{};
        zon_error_t error = zon_error_none;
        const zon_fid_t fid = zon_handle_captured_packet(
            packet.data(), static_cast<uint32_t>(packet.size()), vrf_id, nullptr, &seen, &error);
        require(error == zon_error_none, "a fragment that is whole is taken");
        require(seen.is_fragment == 1, "a fragment is told to be one");
        return fid;
    }
    // The entry's end is certain outside of the two ticks by which its timer may be late.
    bool is_vague(const entry& of) const {
        const uint64_t age_us = zon_clock_now_us() - of.since_us;
        return age_us >= idle_us && age_us <= idle_us + two_ticks_us;
    }
    bool any_vague() const {
        for (const auto& [key, one] : entries_)
            if (is_vague(one))
                return true;
        return false;
    }
    void drop_old() {
        std::erase_if(entries_, [](const auto& one) {
            return zon_clock_now_us() - one.second.since_us > idle_us + two_ticks_us;
        });
    }
    // Turns the clock on to a moment at which all is certain, for the step to come.
    void settle() {
        while (any_vague())
            zon_clock_advance_us(two_ticks_us + 1000);
        drop_old();
    }

    void first(const datagram& of, uint16_t port) {
        const zon_fid_t fid = hand_in(of.first(port), of.vrf_id);
        if (fid == 0)
            return;
        living().insert(fid);
        const auto known = entries_.find(of.key());
        if (known != entries_.end())
            known->second.fid = fid;
        else if (entries_.size() < zon_frag_capacity)
            entries_[of.key()] = {fid, zon_clock_now_us()};
    }
    void later(const datagram& of, bool is_last) {
        zon_fid_t expected = 0;
        const auto known = entries_.find(of.key());
        if (known != entries_.end()) {
            const bool lives = living().count(known->second.fid) != 0;
            expected = lives ? known->second.fid : 0;
            if (is_last || !lives)
                entries_.erase(known);
        }
        require(hand_in(of.later(is_last), of.vrf_id) == expected,
                "a later fragment follows its first one");
    }
    void burst(datagram of, uint32_t count) {
        for (; count > 0; --count, of.ident = static_cast<uint16_t>(of.ident + 256))
            first(of, 9);
    }
    static void remove_flow(zon_fid_t fid) {
        const bool lived = living().count(fid) != 0;
        const bool done = zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_END_OF_FLOW);
        require(done == lived, "a flow that lives can be deleted");
    }
    void compare_counts() {
        require(zon_frag_entry_count(g_zon->frag_table) == entries_.size(),
                "the table holds the datagrams that the map holds");
    }

    std::map<std::tuple<bool, bool, uint32_t, uint16_t>, entry> entries_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    engine_and_map both;
    while (!input.is_empty())
        both.step(input);
    return 0;
}

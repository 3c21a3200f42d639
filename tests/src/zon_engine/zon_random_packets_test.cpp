// zon_random_packets_test.cpp - random and damaged packets: none is read outside its bytes, and the
// straight way, the detour and the trusting entry say the same of them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "support/engine_fixture.h"
#include "support/guarded_memory.h"
#include "zon_engine/zon_packet_entry.h"

using namespace zon_test;

namespace {

// One packet of a script, and the bytes of it that were captured. Behind them stand what the other
// bytes would have been.
struct scripted_packet {
    bytes content;
    size_t captured;
};

class packet_script {
public:
    explicit packet_script(unsigned seed) : random_(seed) {}

    scripted_packet next() {
        bytes packet = some_packet();
        for (uint32_t flips = below(4); flips > 0; --flips)
            damage(packet);
        size_t captured = packet.size();
        if (below(4) == 0)
            captured = below(static_cast<uint32_t>(packet.size()) + 1);
        else if (below(8) == 0)
            captured += below(20);  // padding
        packet.resize(packet.size() + 20, static_cast<uint8_t>(random_()));
        return {std::move(packet), captured};
    }

private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_()) % limit; }

    packet_builder transport(packet_builder packet) {
        const auto port = static_cast<uint16_t>(1 + below(3));
        switch (below(8)) {
        case 0:
            return packet.icmp();
        case 1:
            return packet.protocol(static_cast<uint8_t>(below(256))).payload(below(30));
        case 2:
        case 3:
        case 4:
            return packet.udp(port, below(4) == 0 ? 3544 : 2)
                .payload(bytes(below(60), static_cast<uint8_t>(below(3))));
        default:
            return packet.tcp(port, 2)
                .flags(static_cast<uint8_t>(below(64)))
                .seq(below(100))
                .payload(below(30));
        }
    }
    packet_builder some_ipv4() {
        packet_builder packet = packet_builder::ipv4(0x0A000001 + below(2), 0x0A000001 + below(2));
        if (below(8) == 0)
            packet.ip_options(bytes(below(41), 1));
        if (below(6) == 0)
            packet.fragment(static_cast<uint16_t>(below(3) * 8), below(2) == 0, below(2));
        return transport(packet);
    }
    packet_builder some_ipv6() {
        packet_builder packet =
            packet_builder::ipv6({{0x20010000, 0, 0, below(2)}}, {{0x20010db8, 0, 0, below(2)}});
        for (uint32_t headers = below(3) == 0 ? below(6) : 0; headers > 0; --headers)
            switch (below(6)) {
            case 0:
                packet.hop_by_hop(static_cast<uint8_t>(below(3)));
                break;
            case 1:
                packet.authentication(static_cast<uint8_t>(below(5)));
                break;
            case 2:
                packet.routing();
                break;
            case 3:
                packet.fragment(static_cast<uint16_t>(below(3) * 8), below(2) == 0, below(2));
                break;
            case 4:
                packet.esp();
                break;
            default:
                packet.destination_options();
                break;
            }
        return transport(packet);
    }
    bytes some_packet() {
        switch (below(6)) {
        case 0:
            return in_ipv4(0xC0000201, 0xC0000202, some_ipv6().build());
        case 1: {
            bytes indicators =
                below(2) == 0 ? bytes{} : teredo_authentication(static_cast<uint8_t>(below(9)));
            if (below(2) == 0) {
                const bytes origin = teredo_origin();
                indicators.insert(indicators.end(), origin.begin(), origin.end());
            }
            return in_teredo(0xC0000201, 0xC0000202, some_ipv6().build(), 5,
                             below(2) == 0 ? 3544 : 5, indicators);
        }
        case 2:
        case 3:
            return some_ipv6().build();
        default:
            return some_ipv4().build();
        }
    }
    void damage(bytes& packet) {
        // Mostly in the headers, often to a number near the old one.
        const auto reach =
            static_cast<uint32_t>(std::min<size_t>(packet.size(), below(4) == 0 ? 200 : 50));
        uint8_t& byte = packet[below(reach)];
        byte = static_cast<uint8_t>(below(2) == 0 ? random_() : byte + below(5) - 2);
    }

    std::mt19937 random_;
};

// What the engine says of a packet, without addresses of memory.
struct verdict {
    zon_fid_t fid = 0;
    zon_error_t error = zon_error_none;
    zon_pkt_indications_t seen{};

    bool operator==(const verdict& other) const {
        return fid == other.fid && error == other.error &&
               std::memcmp(&seen, &other.seen, sizeof seen) == 0;
    }
};

uint8_t* as_offset(uint8_t* at, const uint8_t* start) {
    return at == nullptr ? nullptr : reinterpret_cast<uint8_t*>(at - start + 1);
}

void forget_addresses(verdict& result, const uint8_t* start) {
    result.seen.l3_start = as_offset(result.seen.l3_start, start);
    result.seen.l4_start = as_offset(result.seen.l4_start, start);
    result.seen.l7_start = as_offset(result.seen.l7_start, start);
}

bool is_ipv4(const scripted_packet& packet) {
    return packet.captured >= 20 && packet.content[0] >> 4 == 4;
}

// Packets that the trusting entry must treat alike: accepted, and not of those of which the
// captured entry reads less on purpose (later fragments that might be tunnels or hide headers;
// Teredo in a cut-off capture).
bool is_comparable(const scripted_packet& packet, const verdict& captured) {
    if (captured.error == zon_error_parameter_invalid)
        return false;
    if (captured.seen.is_fragment != 0 && captured.fid == 0 && captured.seen.l7_start == nullptr)
        return false;
    if (!is_ipv4(packet))
        return true;
    const uint8_t protocol = packet.content[9];
    const bool is_later = (get16(packet.content, 6) & 0x1FFF) != 0;
    if (is_later && captured.fid == 0 && captured.seen.is_fragment == 0 &&
        (protocol == 41 || protocol == 17))
        return false;
    return protocol != 17 || get16(packet.content, 2) <= packet.captured;
}

class noise_packets : public engine_fixture {};

class random_packets : public engine_fixture, public ::testing::WithParamInterface<unsigned> {
protected:
    static constexpr int script_length = 6000;

    verdict through_captured(const scripted_packet& packet) {
        verdict result;
        uint8_t* at = guarded.place(packet.content, packet.captured);
        result.fid = zon_handle_captured_packet(at, static_cast<uint32_t>(packet.captured), 0,
                                                nullptr, &result.seen, &result.error);
        forget_addresses(result, at);
        return result;
    }
    verdict through_detour(const scripted_packet& packet) {
        verdict result;
        uint8_t* at = guarded.place(packet.content, packet.captured);
        result.fid = zon_take_detour({g_zon, at, packet.captured, 0, nullptr, &result.seen,
                                      &result.error, 0, ZON_L4_CLOSED, 0});
        forget_addresses(result, at);
        return result;
    }
    static verdict through_trusting(const scripted_packet& packet) {
        verdict result;
        bytes content = packet.content;
        content.resize(content.size() + 70000);  // lengths beyond the capture lead somewhere
        result.fid = zon_handle_packet(content.data(), 0, nullptr, &result.seen, &result.error);
        forget_addresses(result, content.data());
        return result;
    }
    struct flow_record {
        zon_fid_t fid;
        uint32_t packets;
        uint64_t payload;
        zon_tunnel_type_e tunnel;
        zon_l4_state_t state;
        bool operator==(const flow_record& other) const {
            return fid == other.fid && packets == other.packets && payload == other.payload &&
                   tunnel == other.tunnel && std::memcmp(&state, &other.state, sizeof state) == 0;
        }
    };
    static std::vector<flow_record> flows() {
        std::vector<flow_record> all;
        for (const zon_flow_t* flow = g_zon->flow_tbl->flow_head; flow != nullptr;
             flow = flow->next_flow)
            if (!flow->marked_for_delete)
                all.push_back({flow->fid, flow->packet_number, flow->num_l7_bytes,
                               flow->tunnel_type, flow->l4state});
        return all;
    }
    void restart_engine() {
        destroy_engine();
        SetUp();
    }

    guarded_memory guarded{1 << 12};
};

}  // namespace

TEST_P(random_packets, are_never_read_outside_their_bytes_and_agree_on_every_way) {
    packet_script script(GetParam());
    std::vector<scripted_packet> packets;
    std::vector<verdict> verdicts;
    int refused = 0;
    int classified = 0;
    for (int i = 0; i < script_length; ++i) {
        packets.push_back(script.next());
        verdicts.push_back(through_captured(packets.back()));
        refused += verdicts.back().error == zon_error_parameter_invalid;
        classified += verdicts.back().fid != 0;
    }
    EXPECT_GT(refused, script_length / 10);
    EXPECT_GT(classified, script_length / 10);
    const std::vector<flow_record> flows_by_capture = flows();

    restart_engine();
    for (size_t i = 0; i < packets.size(); ++i)
        ASSERT_EQ(through_detour(packets[i]), verdicts[i])
            << "the straight way and the detour differ, packet " << i << ", " << packets[i].captured
            << " bytes of " << to_hex(packets[i].content);
    EXPECT_EQ(flows(), flows_by_capture);

    restart_engine();
    for (size_t i = 0; i < packets.size(); ++i) {
        const verdict expected = verdicts[i];
        // Packets that only the captured entry judges keep their part in the story of the flows.
        const verdict got = is_comparable(packets[i], expected) ? through_trusting(packets[i])
                                                                : through_captured(packets[i]);
        ASSERT_EQ(got, expected) << "the entries differ, packet " << i << ", "
                                 << packets[i].captured << " bytes of "
                                 << to_hex(packets[i].content);
    }
    EXPECT_EQ(flows(), flows_by_capture);
}

INSTANTIATE_TEST_SUITE_P(seeds, random_packets, ::testing::Range(1u, 6u));

TEST_F(noise_packets, are_never_read_outside_their_bytes) {
    guarded_memory guarded(1 << 12);
    std::mt19937 random(99);
    for (int i = 0; i < 30000; ++i) {
        bytes noise(1 + random() % 120);
        for (uint8_t& byte : noise)
            byte = static_cast<uint8_t>(random() % 3 == 0 ? random() % 4 : random());
        noise[0] = static_cast<uint8_t>((random() % 2 == 0 ? 0x40 : 0x60) | (random() % 16));
        zon_pkt_indications_t seen{};
        zon_error_t error{};
        zon_handle_captured_packet(guarded.place(noise, noise.size()),
                                   static_cast<uint32_t>(noise.size()), 0, nullptr, &seen, &error);
        ASSERT_EQ(seen.packet_seen, 1);
    }
}

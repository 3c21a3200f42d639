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
#include "support/packet_script.h"
#include "zon_engine/zon_packet_entry.h"

using namespace zon_test;

namespace {

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

// zon_captured_packet_fixture.h - hands packets in as captured ones, with memory behind them that
// must not be read, and says what a refusal is.

#pragma once

#include <gtest/gtest.h>

#include <cstring>

#include "support/engine_fixture.h"
#include "support/guarded_memory.h"
#include "support/sample_packets.h"
#include "zon_frag.h"

namespace zon_test {

inline bytes damaged16(bytes packet, size_t at, uint16_t value) {
    put16(packet, at, value);
    return packet;
}
inline bytes damaged8(bytes packet, size_t at, uint8_t value) {
    put8(packet, at, value);
    return packet;
}

inline bytes with_padding(bytes packet, size_t padding) {
    packet.resize(packet.size() + padding, 0x11);
    return packet;
}
inline packet_builder chain_of(unsigned headers) {
    packet_builder chain = ipv6();
    for (unsigned i = 0; i < headers; ++i)
        chain.destination_options();
    return chain.tcp(1, 2).flags(tcp_syn);
}

class captured_packets : public engine_fixture {
protected:
    // The first `length` bytes of the packet, with a fault behind them.
    packet_result hand_in(const bytes& packet, size_t length) {
        packet_result result;
        std::memset(&result.indications, 0xEE, sizeof result.indications);
        result.indications.hash_valid = 0;
        start = guarded.place(packet, length);
        result.fid = zon_handle_captured_packet(start, static_cast<uint32_t>(length), 0, nullptr,
                                                &result.indications, &result.error);
        return result;
    }
    packet_result hand_in(const bytes& packet) { return hand_in(packet, packet.size()); }

    static void expect_refused(const packet_result& result) {
        EXPECT_EQ(result.error, zon_error_parameter_invalid);
        EXPECT_EQ(result.fid, 0u);
        const zon_pkt_indications_t& seen = result.indications;
        EXPECT_EQ(seen.flow, 0u);
        EXPECT_EQ(seen.packet_seen, 1);
        EXPECT_EQ(seen.fif, 0);
        EXPECT_EQ(seen.is_fragment, 0);
        EXPECT_EQ(seen.l4_payload_size, 0u);
        EXPECT_EQ(seen.l4_start, nullptr);
        EXPECT_EQ(seen.l7_start, nullptr);
        EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0u)
            << "a refused packet made a flow";
        EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 0u);
    }

    // A legal later fragment of which too little is there to be read.
    static void expect_unreadable(const packet_result& result) {
        EXPECT_EQ(result.error, zon_error_none);
        EXPECT_EQ(result.fid, 0u);
        EXPECT_EQ(result.indications.is_fragment, 1);
        EXPECT_EQ(result.indications.l4_error, ZON_L4_NOERR_NON_FIRST_FRAG);
    }

    guarded_memory guarded{1 << 16};
    uint8_t* start = nullptr;
};

}  // namespace zon_test

// stress_engine.h - an engine with few locks that several threads use at once, and packets that are
// cheap to vary.

#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <thread>

#include "support/engine_fixture.h"
#include "support/packet_builder.h"
#include "support/stress_threads.h"
#include "zon_hashset.h"

namespace zon_test {

inline constexpr uint32_t server_address = 0xC0000201;  // 192.0.2.1
inline constexpr uint16_t server_port = 5000;
inline constexpr uint16_t client_port = 40000;

// A packet of connection number n: from 10.0.0.0 + n to the server, or back.
class connection_packet {
public:
    static connection_packet udp(uint32_t connection, bool back = false) {
        static const bytes pattern = packet_builder::ipv4(0u, 0u).udp(1, 1).payload(1).build();
        return {pattern, connection, back};
    }
    static connection_packet tcp(uint32_t connection, bool back = false) {
        static const bytes pattern =
            packet_builder::ipv4(0u, 0u).tcp(1, 1).flags(tcp_ack).payload(1).build();
        return {pattern, connection, back};
    }
    // The first packet of a fragmented datagram, one in the middle, or the last.
    static connection_packet first_fragment(uint32_t connection, uint16_t ident) {
        static const bytes pattern =
            packet_builder::ipv4(0u, 0u).udp(1, 1).payload(8).fragment(0, true, 0).build();
        return {pattern, connection, ident};
    }
    static connection_packet middle_fragment(uint32_t connection, uint16_t ident) {
        static const bytes pattern =
            packet_builder::ipv4(0u, 0u).protocol(17).payload(8).fragment(16, true, 0).build();
        return {pattern, connection, ident};
    }
    static connection_packet last_fragment(uint32_t connection, uint16_t ident) {
        static const bytes pattern =
            packet_builder::ipv4(0u, 0u).protocol(17).payload(16).fragment(16, false, 0).build();
        return {pattern, connection, ident};
    }

    bytes content;

private:
    connection_packet(const bytes& pattern, uint32_t connection, bool back) : content(pattern) {
        const uint32_t client_address = 0x0A000000 + connection;
        put32(content, 12, back ? server_address : client_address);
        put32(content, 16, back ? client_address : server_address);
        put16(content, 20, back ? server_port : client_port);
        put16(content, 22, back ? client_port : server_port);
    }
    connection_packet(const bytes& pattern, uint32_t connection, uint16_t ident)
        : connection_packet(pattern, connection, false) {
        put16(content, 4, ident);
    }
};

struct sent_packet {
    zon_fid_t fid = 0;
    zon_error_t error = zon_error_none;
    zon_pkt_indications_t seen{};
};

inline sent_packet send(connection_packet packet, void* context = nullptr) {
    sent_packet sent;
    sent.fid = zon_handle_packet(packet.content.data(), 0, context, &sent.seen, &sent.error);
    return sent;
}

inline zon_flow_tuple_t tuple_of(uint32_t connection, uint8_t protocol = 17) {
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    tuple.src_ip.u.v4_addr = 0x0A000000 + connection;
    tuple.dst_ip.u.v4_addr = server_address;
    tuple.src_port = client_port;
    tuple.dst_port = server_port;
    tuple.l4_protocol = protocol;
    return tuple;
}

template <class condition>
void wait_until(condition holds) {
    while (!holds())
        std::this_thread::yield();
}

class contended_engine : public engine_fixture {
protected:
    contended_engine() {
        parameters.max_threads = 2;
        parameters.capabilities = ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP;
        parameters.timers = false;
    }
    void SetUp() override {
        std::printf("seed %u\n", stress_seed);
        engine_fixture::SetUp();
    }

    static uint32_t half_flows() { return zon_flow_table_num_elements(g_zon->flow_tbl); }

    // An announcement whose second half is refused keeps the place of its first half until the
    // engine goes.
    static void destroy_after_refused_announcements() {
        delete_all_flows();
        EXPECT_EQ(g_zon->memory_usage_stats.ipv4_half_flow_alloc_count, 0u) << "half flows leaked";
        expect_no_pre_flows();
        EXPECT_EQ(zon_destroy(), zon_error_none);
    }

    // Nothing that was counted in on several threads is counted in still.
    static void expect_no_pre_flows() {
        for (const uint32_t count : g_zon->flow_tbl->active_preflow_count)
            EXPECT_EQ(count, 0u) << "an announced flow is counted that is not there";
        EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
    }
};

// The clock is turned by hand and the timer thread runs what is due.
class engine_with_timer_thread : public contended_engine {
protected:
    void SetUp() override {
        contended_engine::SetUp();
        ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_MANUAL_WAIT), zon_error_none);
        ASSERT_TRUE(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                                      &g_zon->zon_timer_process_create));
    }
};

// Each test runs twice: its bodies one after the other, then together.
template <class engine>
class on_both_schedules : public engine, public ::testing::WithParamInterface<schedule> {
protected:
    void run(stress_crew& crew) { crew.run(GetParam()); }
};
using stress_engine = on_both_schedules<contended_engine>;
using stress_engine_with_timer_thread = on_both_schedules<engine_with_timer_thread>;

inline std::string schedule_name(const ::testing::TestParamInfo<schedule>& info) {
    return name_of(info.param);
}
inline const auto both_schedules = ::testing::Values(schedule::one_thread, schedule::together);

}  // namespace zon_test

// half_open_host.h - an engine with a share for half-open flows, two clients that note what they
// are told, and connections by number.
//
// A fixture sets share (percent, 0 for none) and the parameters in its constructor.

#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "support/engine_fixture.h"
#include "zon_engine/zon_half_open.h"

namespace zon_test {

class half_open_host : public engine_fixture {
protected:
    static constexpr size_t clients = 2;

    struct told_deletion {
        zon_fid_t fid;
        zon_flow_deletion_reason_e reason;
        zon_client_id_e client;
    };
    static inline std::vector<told_deletion> told;
    // What the next delete callback does before it notes anything, once.
    static inline std::function<void(zon_fid_t)> in_delete_callback;

    half_open_host() { parameters.max_flows = 200; }

    void SetUp() override {
        told.clear();
        in_delete_callback = nullptr;
        ASSERT_EQ(zon_config_set_half_open_share(share), zon_error_none);
        engine_fixture::SetUp();
        zon_client_id_e other = 0;
        ASSERT_EQ(zon_client_feature_register(&other), zon_error_none);
        both = {client, other};
        for (const zon_client_id_e each : both)
            ASSERT_EQ(zon_client_register_delete_cb(each, note_deletion), zon_error_none);
    }
    void TearDown() override {
        if (g_zon != nullptr) {
            EXPECT_TRUE(no_lock_is_held());
        }
        engine_fixture::TearDown();
        EXPECT_EQ(zon_half_open.count, 0U) << "half-open flows stay counted after their end";
        EXPECT_EQ(zon_config_set_half_open_share(0), zon_error_none);
        zon_half_open_bound(0, 0);
    }

    static void note_deletion(zon_flow_ptr_t fid, void*, void*, void*,
                              zon_flow_deletion_reason_e reason, zon_client_id_e client) {
        if (const auto action = std::exchange(in_delete_callback, nullptr))
            action(fid);
        told.push_back({fid, reason, client});
    }

    // Connections differ in their clients' addresses.
    static packet_builder network(uint32_t number, bool is_ipv6) {
        return is_ipv6
                   ? packet_builder::ipv6(std::array{0x20010db8U, 0U, 0U, number}, "2001:db8:1::2")
                   : packet_builder::ipv4(0x0A000000 + number, "192.0.2.2");
    }
    static packet_builder connection(uint32_t number, bool is_ipv6 = false) {
        return network(number, is_ipv6).tcp(4000, 80).flags(tcp_syn);
    }
    static packet_result syn(uint32_t number, bool is_ipv6 = false) {
        return handle(connection(number, is_ipv6));
    }
    static packet_result datagram(uint32_t number, bool is_ipv6 = false) {
        return handle(network(number, is_ipv6).udp(4000, 53));
    }
    // The flow of a connection whose handshake is complete.
    static zon_fid_t shake_hands(uint32_t number, bool is_ipv6 = false) {
        packet_builder first = connection(number, is_ipv6);
        const zon_fid_t fid = handle(first).fid;
        EXPECT_NE(fid, 0U);
        EXPECT_EQ(handle(first.reversed().flags(tcp_syn | tcp_ack)).fid, fid);
        EXPECT_EQ(handle(first.flags(tcp_ack)).fid, fid);
        return fid;
    }
    static zon_fid_t announce(ipv4_address server, uint16_t port) {
        zon_flow_tuple_t tuple{};
        tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
        tuple.dst_ip.u.v4_addr = server.value;
        tuple.dst_port = port;
        tuple.l4_protocol = ZON_TCP_PROT;
        zon_fid_t fid = 0;
        EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, &tuple, 0, &fid, nullptr),
                  zon_error_none);
        EXPECT_NE(fid, 0U);
        return fid;
    }

    // How often the fixture's first client was told that a flow of this identifier gave way.
    size_t times_told(zon_fid_t fid) const {
        return static_cast<size_t>(std::ranges::count_if(told, [&](const told_deletion& one) {
            return one.fid == fid && one.client == both[0] &&
                   one.reason == ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE;
        }));
    }

    uint32_t share = 0;
    std::array<zon_client_id_e, clients> both{};
};

}  // namespace zon_test

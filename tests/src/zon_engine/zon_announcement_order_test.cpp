// zon_announcement_order_test.cpp - which of several announcements a packet takes: the whole
// connection, then any VRF, then the destination alone, then the source alone.

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "support/engine_fixture.h"
#include "support/table_census.h"

using namespace zon_test;

namespace {

struct over_ipv4 {
    static constexpr zon_ip_addr_e family = ZON_IP_ADDR_IPV4;
    static packet_builder packet(int from, int to) {
        return packet_builder::ipv4(address(from), address(to));
    }
    static void set(zon_ip_addr_t& ip, int host) {
        ip.addr_type = family;
        ip.u.v4_addr = address(host).value;
    }

private:
    static ipv4_address address(int host) { return 0x0A000000u + static_cast<uint32_t>(host); }
};

struct over_ipv6 {
    static constexpr zon_ip_addr_e family = ZON_IP_ADDR_IPV6;
    static packet_builder packet(int from, int to) {
        return packet_builder::ipv6(address(from), address(to));
    }
    static void set(zon_ip_addr_t& ip, int host) {
        ip.addr_type = family;
        std::memcpy(ip.u.v6_addr, address(host).words.data(), 16);
    }

private:
    static ipv6_address address(int host) {
        return std::array<uint32_t, 4>{0x20010DB8, 0, 0, static_cast<uint32_t>(host)};
    }
};

// In the order in which a packet of the connection itself takes them.
constexpr std::array kinds{ZON_FLOW_TUPLE_TYPE_COMPLETE, ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN,
                           ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN,
                           ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN};
constexpr size_t whole = 0;
constexpr size_t any_vrf = 1;
constexpr size_t destination_alone = 2;
constexpr size_t source_alone = 3;

template <class family>
class announcements : public engine_fixture {
protected:
    static constexpr int host = 1;
    static constexpr int peer = 2;
    static constexpr int stranger = 3;

    static packet_builder connection(int from = host, int to = peer) {
        return family::packet(from, to).udp(40000, 80);
    }
    void announce(size_t kind) {
        zon_flow_tuple_t tuple{};
        family::set(tuple.src_ip, host);
        family::set(tuple.dst_ip, peer);
        tuple.src_port = 40000;
        tuple.dst_port = 80;
        tuple.l4_protocol = 17;
        ASSERT_EQ(zon_pre_flow_add(kinds[kind], &tuple, 0, &announced[kind], nullptr),
                  zon_error_none);
        ASSERT_NE(announced[kind], 0u);
    }
    void announce_all() {
        for (size_t kind = 0; kind < kinds.size(); ++kind)
            announce(kind);
        ASSERT_EQ(flows_in_use(), 4u) << "each announcement is a flow of its own";
    }
    // The packet takes this announcement and no other.
    void expect_taken(size_t kind, const packet_builder& packet, uint32_t vrf_id = 0) {
        const packet_result result = handle(packet, vrf_id);
        EXPECT_EQ(result.fid, announced[kind]) << "announcement " << kind;
        EXPECT_EQ(result.indications.was_promoted, 1);
        EXPECT_EQ(result.indications.fif, 1);
        EXPECT_EQ(result.indications.is_initiator, 1);
        expect_sound_tables();
    }
    void expect_taken_and_gone(size_t kind, const packet_builder& packet) {
        expect_taken(kind, packet);
        EXPECT_TRUE(zon_delete_flow_tamonet(announced[kind], ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    }
    static void expect_an_ordinary_flow(const packet_builder& packet, uint32_t vrf_id = 0) {
        const packet_result result = handle(packet, vrf_id);
        EXPECT_NE(result.fid, 0u);
        EXPECT_EQ(result.indications.fif, 1);
        EXPECT_EQ(result.indications.was_promoted, 0);
    }

    std::array<zon_fid_t, 4> announced{};
};

using families = ::testing::Types<over_ipv4, over_ipv6>;
class family_names {
public:
    template <class family>
    static std::string GetName(int) {
        return family::family == ZON_IP_ADDR_IPV4 ? "ipv4" : "ipv6";
    }
};
TYPED_TEST_SUITE(announcements, families, family_names);

TYPED_TEST(announcements, are_taken_from_the_most_specific_on_in_whatever_order_they_were_made) {
    std::array<size_t, 4> order{0, 1, 2, 3};
    do {
        for (const size_t kind : order)
            this->announce(kind);
        for (size_t kind = 0; kind < kinds.size(); ++kind)
            this->expect_taken_and_gone(kind, this->connection());
        EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
        EXPECT_EQ(flows_in_use(), 0u);
    } while (std::next_permutation(order.begin(), order.end()));
}

// Seen from the other side the known source is the destination.
TYPED_TEST(announcements, are_taken_by_an_answer_with_source_and_destination_exchanged) {
    this->announce_all();
    for (const size_t kind : {whole, any_vrf, source_alone, destination_alone})
        this->expect_taken_and_gone(kind, this->connection().reversed());
    EXPECT_EQ(flows_in_use(), 0u);
}

TYPED_TEST(announcements, that_are_missing_leave_the_packet_to_the_next_specific) {
    for (unsigned present = 1; present < 16; ++present) {
        std::vector<size_t> there;
        for (size_t kind = 0; kind < kinds.size(); ++kind)
            if ((present >> kind & 1) != 0)
                there.push_back(kind);
        for (const size_t kind : there)
            this->announce(kind);
        for (const size_t kind : there)
            this->expect_taken_and_gone(kind, this->connection());
        EXPECT_EQ(flows_in_use(), 0u);
    }
}

// Four packets that answer to fewer and fewer of the announcements, all flows staying.
TYPED_TEST(announcements, go_to_the_packets_that_they_alone_describe) {
    this->announce_all();
    this->expect_taken(whole, this->connection());
    this->expect_taken(any_vrf, this->connection(), 5);
    this->expect_taken(destination_alone, this->connection(this->stranger, this->peer));
    this->expect_taken(source_alone, this->connection(this->host, this->stranger));
    EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
    this->expect_an_ordinary_flow(this->connection(), 6);
    this->expect_an_ordinary_flow(this->connection(this->stranger + 1, this->peer));
    this->expect_an_ordinary_flow(this->connection(this->host, this->stranger + 1));
    EXPECT_EQ(flows_in_use(), 7u);
}

// The packets of the connection go to the whole announcement; the others wait for theirs.
TYPED_TEST(announcements, wait_while_a_more_specific_one_has_become_the_flow) {
    this->announce_all();
    this->expect_taken(whole, this->connection());
    for (const packet_builder& packet : {this->connection(), this->connection().reversed()}) {
        const packet_result result = this->handle(packet);
        EXPECT_EQ(result.fid, this->announced[whole]);
        EXPECT_EQ(result.indications.was_promoted, 0);
    }
    EXPECT_TRUE(g_zon->flow_tbl->has_incomplete_inserts);
    EXPECT_EQ(flows_in_use(), 4u);
}

}  // namespace

// zon_fe_ondemand_test.cpp - where the headers of a packet are, and what the accessors read there.

#include "zon_fe_ondemand.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "support/packet_builder.h"
#include "zon_pkt_inline.h"

using namespace zon_test;

namespace {

const ipv6_address alice = "2001:db8:1:2:3:4:5:6";
const ipv6_address bob = "2001:db8::2";

packet_builder from_alice() {
    return packet_builder::ipv6(alice, bob);
}
packet_builder from_ten() {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2");
}

struct parsed {
    bytes packet;
    zon_dp_fe_t fe;

    explicit parsed(bytes content) : packet(std::move(content)) {
        std::memset(&fe, 0xEE, sizeof fe);
        zon_fe_extract_fields(packet.data(), &fe);
    }
    explicit parsed(const packet_builder& builder) : parsed(builder.build()) {}

    std::ptrdiff_t l4_offset() const { return fe.l4_start - packet.data(); }
};

// The bounded extraction, on memory that holds no byte more than the limit.
fe_extent extract_within(const bytes& packet, size_t limit, zon_dp_fe_t& fe) {
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[limit]);
    std::memcpy(exact.get(), packet.data(), std::min(limit, packet.size()));
    return zon_fe_extract_fields_within(exact.get(), limit, &fe);
}

}  // namespace

TEST(field_extraction, finds_the_transport_header_behind_ipv4) {
    const parsed seen(from_ten().tcp(1, 2));
    EXPECT_EQ(seen.fe.l3_proto, ZON_L3_IPV4);
    EXPECT_EQ(seen.fe.network_start, seen.packet.data());
    EXPECT_EQ(seen.l4_offset(), 20);
    EXPECT_EQ(seen.fe.protocol, ZON_TCP_PROT);
    EXPECT_EQ(seen.fe.tunneled_flow_type, ZON_TUNNEL_TYPE_NONE);
}

TEST(field_extraction, places_l4_start_24_bytes_in_behind_a_header_of_six_words) {
    EXPECT_EQ(parsed(from_ten().ip_options({1, 1, 1, 0}).udp(1, 2)).l4_offset(), 24);
}

TEST(field_extraction, writes_no_field_of_ipv6_for_an_ipv4_packet) {
    const parsed seen(from_ten().tcp(1, 2));
    EXPECT_EQ(seen.fe.ipv6_srcaddr[0], 0xEEEEEEEE);
    EXPECT_EQ(seen.fe.ipv6_dstaddr[3], 0xEEEEEEEE);
    EXPECT_EQ(seen.fe.ipv6_options_len, 0xEEEE);
    EXPECT_EQ(seen.fe.i2r_flag, 0xEE);
}

TEST(field_extraction, converts_ipv6_addresses_to_host_order_words) {
    const parsed seen(from_alice().tcp(1, 2));
    EXPECT_EQ(seen.fe.l3_proto, ZON_L3_IPV6);
    EXPECT_EQ(seen.l4_offset(), 40);
    EXPECT_EQ(seen.fe.ipv6_options_len, 0);
    EXPECT_EQ(seen.fe.ipv6_frag_hdr, nullptr);
    EXPECT_EQ(seen.fe.i2r_flag, 0xEE) << "the direction is the engine's to set";
    for (size_t word = 0; word < 4; ++word) {
        EXPECT_EQ(seen.fe.ipv6_srcaddr[word], alice.words[word]);
        EXPECT_EQ(seen.fe.ipv6_dstaddr[word], bob.words[word]);
    }
    EXPECT_EQ(seen.fe.ipv6_srcaddr[0], 0x20010db8u);
}

TEST(field_extraction, walks_hop_by_hop_options_of_length_byte_0) {
    const parsed seen(from_alice().hop_by_hop().tcp(1, 2));
    EXPECT_EQ(seen.fe.protocol, ZON_TCP_PROT);
    EXPECT_EQ(seen.fe.ipv6_options_len, 8);
    EXPECT_EQ(seen.l4_offset(), 48);
}

TEST(field_extraction, notes_a_fragment_header_and_continues_behind_it) {
    const parsed seen(from_alice().fragment(1280, true, 77).destination_options(1).udp(1, 2));
    EXPECT_EQ(seen.fe.ipv6_frag_hdr, seen.packet.data() + 40);
    EXPECT_EQ(seen.fe.ipv6_options_len, 8 + 16);
    EXPECT_EQ(seen.fe.protocol, ZON_UDP_PROT);
    EXPECT_EQ(zon_ipv6_frag_id(const_cast<zon_dp_fe_t*>(&seen.fe)), 77u);
    EXPECT_EQ(zon_ipv6_frag_type(const_cast<zon_dp_fe_t*>(&seen.fe)), zon_ip_frag_middle);
}

TEST(field_extraction, counts_an_authentication_header_in_words) {
    const parsed seen(from_alice().authentication(4).tcp(1, 2));
    EXPECT_EQ(seen.fe.ipv6_options_len, 24);
    EXPECT_EQ(seen.l4_offset(), 64);
}

TEST(field_extraction, walks_a_long_chain_of_all_kinds) {
    const parsed seen(from_alice()
                          .hop_by_hop(255)
                          .routing(3)
                          .fragment(0, false)
                          .authentication(1)
                          .destination_options(2)
                          .tcp(1, 2));
    EXPECT_EQ(seen.fe.ipv6_options_len, 2048 + 32 + 8 + 12 + 24);
    EXPECT_EQ(seen.fe.protocol, ZON_TCP_PROT);
}

TEST(field_extraction, stops_at_an_encrypted_payload) {
    const parsed seen(from_alice().hop_by_hop().esp().tcp(1, 2));
    EXPECT_EQ(seen.fe.protocol, 59);
    EXPECT_EQ(seen.fe.l4_start, nullptr);
}

TEST(field_extraction, takes_any_number_of_headers_of_a_trusted_packet) {
    packet_builder chain = from_alice();
    for (int i = 0; i < 40; ++i)
        chain.destination_options();
    EXPECT_EQ(parsed(chain.fragment(8, true).fragment(16, false).tcp(1, 2)).fe.ipv6_options_len,
              42 * 8);
}

TEST(field_extraction, gives_version_5_no_protocol_and_writes_nothing_else) {
    bytes packet = from_ten().tcp(1, 2).build();
    put8(packet, 0, 0x55);
    const parsed seen(packet);
    EXPECT_EQ(seen.fe.l3_proto, ZON_L3_OTHER);
    EXPECT_EQ(seen.fe.tunneled_flow_type, ZON_TUNNEL_TYPE_NONE);
    EXPECT_EQ(seen.fe.protocol, 0xEE);
}

TEST(field_extraction, says_how_much_storage_a_handle_needs) {
    EXPECT_EQ(zon_fe_size(), sizeof(zon_dp_fe_t));
}

// ---- the trace ----

namespace {
class fe_trace : public ::testing::Test {
protected:
    void TearDown() override {
        zon_debug_flag_fe = false;
        zon_debug_flag_all = false;
    }
    // Standard output and standard error of one extraction.
    static std::pair<std::string, std::string> trace(const packet_builder& builder) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const parsed seen(builder);
        std::fflush(stdout);
        return {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
    }
};
}  // namespace

TEST_F(fe_trace, is_silent_by_default) {
    const auto [out, err] = trace(from_alice().hop_by_hop().tcp(1, 2));
    EXPECT_EQ(out + err, "");
}

TEST_F(fe_trace, dumps_an_ipv6_header_and_each_step_under_its_own_switch) {
    zon_debug_flag_fe = true;
    const auto [out, err] = trace(from_alice().hop_by_hop().tcp(1, 2));
    EXPECT_EQ(out, "ZON FE: src addr: 2001:db8:1:2:3:4:5:6: dst addr: 2001:db8:0:0:0:0:0:2:\n");
    EXPECT_NE(err.find("\nZON FE: ------- QAT IPv6 Packet Dump ----------\n"), std::string::npos)
        << err;
    EXPECT_NE(err.find("\nZON FE: next header: 0x0\n"), std::string::npos) << err;
    EXPECT_NE(err.find("\nZON FE: zon_ipv6_get_next_header: Get next header, new proto 6 (0x6), "
                       "header len = 8\n"),
              std::string::npos)
        << err;
}

TEST_F(fe_trace, tells_the_steps_but_no_dump_under_the_common_switch) {
    zon_debug_flag_all = true;
    const auto [out, err] = trace(from_alice().authentication(4).tcp(1, 2));
    EXPECT_EQ(out, "");
    EXPECT_EQ(err.find("Packet Dump"), std::string::npos);
    EXPECT_NE(err.find("new proto 6 (0x6), header len = 24\n"), std::string::npos) << err;
}

TEST_F(fe_trace, says_nothing_of_ipv4_and_of_an_encrypted_payload) {
    zon_debug_flag_all = true;
    const auto [ipv4_out, ipv4_err] = trace(from_ten().tcp(1, 2));
    EXPECT_EQ(ipv4_out + ipv4_err, "");
    const auto [esp_out, esp_err] = trace(from_alice().esp());
    EXPECT_EQ(esp_out + esp_err, "");
}

// ---- captured packets ----

TEST(bounded_extraction, accepts_exactly_the_headers) {
    const bytes packet = from_alice().hop_by_hop(2).authentication(3).routing().tcp(1, 2).build();
    const size_t needed = 40 + 24 + 20 + 8;
    for (size_t limit = 0; limit < packet.size(); ++limit) {
        zon_dp_fe_t fe{};
        EXPECT_EQ(extract_within(packet, limit, fe),
                  limit < needed ? fe_extent::broken : fe_extent::complete)
            << "limit " << limit;
        if (limit >= 40 && limit < needed) {
            EXPECT_EQ(fe.l4_start, nullptr) << "limit " << limit;
        }
    }
}

TEST(bounded_extraction, wants_the_whole_ipv4_header) {
    const bytes packet = from_ten().ip_options(bytes(40, 1)).tcp(1, 2).build();
    zon_dp_fe_t fe{};
    EXPECT_EQ(extract_within(packet, 0, fe), fe_extent::broken);
    EXPECT_EQ(extract_within(packet, 19, fe), fe_extent::broken);
    EXPECT_EQ(extract_within(packet, 59, fe), fe_extent::broken);
    EXPECT_EQ(extract_within(packet, 60, fe), fe_extent::complete);
}

TEST(bounded_extraction, reads_one_byte_of_an_unknown_version) {
    zon_dp_fe_t fe{};
    EXPECT_EQ(extract_within({0x5F}, 1, fe), fe_extent::complete);
    EXPECT_EQ(fe.l3_proto, ZON_L3_OTHER);
}

TEST(bounded_extraction, does_not_follow_a_length_byte_out_of_the_packet) {
    bytes packet = from_alice().destination_options().tcp(1, 2).build();
    put8(packet, 41, 255);
    zon_dp_fe_t fe{};
    EXPECT_EQ(extract_within(packet, packet.size(), fe), fe_extent::broken);
}

TEST(bounded_extraction, refuses_a_second_fragment_header) {
    const bytes packet = from_alice().fragment(0, true).fragment(0, false).udp(1, 2).build();
    zon_dp_fe_t fe{};
    EXPECT_EQ(extract_within(packet, packet.size(), fe), fe_extent::broken);
}

TEST(bounded_extraction, does_not_read_headers_in_the_data_of_a_later_fragment) {
    const bytes packet = from_alice().fragment(8, true).destination_options().udp(1, 2).build();
    zon_dp_fe_t fe{};
    EXPECT_EQ(extract_within(packet, packet.size(), fe), fe_extent::hidden);
    EXPECT_EQ(fe.l4_start - fe.network_start, 48);
    EXPECT_EQ(fe.ipv6_options_len, 8);
}

TEST(bounded_extraction, takes_sixteen_headers_and_not_one_more) {
    packet_builder chain = from_alice();
    for (int i = 0; i < 16; ++i)
        chain.destination_options();
    zon_dp_fe_t fe{};
    const bytes sixteen = packet_builder(chain).tcp(1, 2).build();
    EXPECT_EQ(extract_within(sixteen, sixteen.size(), fe), fe_extent::complete);
    const bytes seventeen = packet_builder(chain).destination_options().tcp(1, 2).build();
    EXPECT_EQ(extract_within(seventeen, seventeen.size(), fe), fe_extent::broken);
}

TEST(bounded_extraction, ends_at_an_encrypted_payload_without_reading_it) {
    bytes packet = from_alice().esp().build();
    zon_dp_fe_t fe{};
    EXPECT_EQ(extract_within(packet, 40, fe), fe_extent::complete);
    EXPECT_EQ(fe.protocol, 59);
    EXPECT_EQ(fe.l4_start, nullptr);
}

// ---- the accessors ----

namespace {
struct fragment_case {
    const char* name;
    uint16_t offset;
    uint16_t more;
    zon_ip_frag_e type;
};
class fragment_type : public ::testing::TestWithParam<fragment_case> {};
}  // namespace

TEST_P(fragment_type, follows_from_offset_and_more_bit) {
    const fragment_case& row = GetParam();
    EXPECT_EQ(zon_ip_frag_logic(row.offset, row.more), row.type);

    const auto offset_bytes = static_cast<uint16_t>(row.offset * 8);
    parsed ipv4(from_ten().fragment(offset_bytes, row.more != 0, 0xABCD).udp(1, 2));
    EXPECT_EQ(zon_ipv4_frag_type(&ipv4.fe), row.type);
    EXPECT_EQ(zon_ipv4_frag_id(&ipv4.fe), 0xABCD);
    EXPECT_EQ(zon_ipv4_is_frag(&ipv4.fe), row.type != zon_ip_frag_none);
    EXPECT_EQ(zon_ipv4_is_first_frag(&ipv4.fe), row.type == zon_ip_frag_first);

    parsed ipv6(from_alice().fragment(offset_bytes, row.more != 0, 0xABCDEF01).udp(1, 2));
    EXPECT_EQ(zon_ipv6_frag_type(&ipv6.fe), row.type);
    EXPECT_EQ(zon_ipv6_frag_id(&ipv6.fe), 0xABCDEF01);
}

INSTANTIATE_TEST_SUITE_P(rows, fragment_type,
                         ::testing::Values(fragment_case{"none", 0, 0, zon_ip_frag_none},
                                           fragment_case{"first", 0, 1, zon_ip_frag_first},
                                           fragment_case{"middle", 1, 1, zon_ip_frag_middle},
                                           fragment_case{"last", 1, 0, zon_ip_frag_last},
                                           fragment_case{"far_last", 0x1FFF, 0, zon_ip_frag_last}),
                         [](const auto& row) { return row.param.name; });

TEST(accessors, ignore_the_other_flag_bits_of_ipv4) {
    bytes packet = from_ten().udp(1, 2).build();
    put16(packet, 6, 0xC000);  // don't fragment, and the reserved bit
    parsed seen(packet);
    EXPECT_FALSE(zon_ipv4_is_frag(&seen.fe));
}

TEST(accessors, know_no_fragment_without_a_fragment_header) {
    parsed seen(from_alice().udp(1, 2));
    EXPECT_EQ(zon_ipv6_frag_type(&seen.fe), zon_ip_frag_none);
}

TEST(accessors, read_big_endian_words_at_odd_addresses) {
    const uint8_t words[] = {0, 0x12, 0x34, 0x56, 0xF8};
    EXPECT_EQ(GETSHORT(words + 1), 0x1234);
    EXPECT_EQ(GETLONG(words + 1), 0x123456F8u);
}

TEST(accessors, read_addresses_ports_and_sizes) {
    parsed ipv4(from_ten().ip_options({1}).udp(1000, 53).payload(12));
    EXPECT_EQ(zon_ipv4_srcip(&ipv4.fe), 0x0A000001u);
    EXPECT_EQ(zon_ipv4_dstip(&ipv4.fe), 0x0A000002u);
    EXPECT_EQ(zon_srcport(&ipv4.fe), 1000);
    EXPECT_EQ(zon_dstport(&ipv4.fe), 53);
    EXPECT_EQ(zon_token_ip_l3_payload_size(&ipv4.fe), 20u);
    EXPECT_EQ(zon_token_udp_datalen(&ipv4.fe), 12u);
    EXPECT_EQ(zon_token_l4_payload_start(&ipv4.fe), ipv4.packet.data() + 32);

    parsed ipv6(from_alice().hop_by_hop().udp(1000, 53).payload(12));
    EXPECT_EQ(zon_token_ip_l3_payload_size(&ipv6.fe), 28u);
    EXPECT_EQ(zon_ipv6_srcip(&ipv6.fe), ipv6.fe.ipv6_srcaddr);
    EXPECT_EQ(zon_ipv6_dstip(&ipv6.fe), ipv6.fe.ipv6_dstaddr);
    ipv6.fe.i2r_flag = 1;
    EXPECT_EQ(zon_token_pack_dir_i2r(&ipv6.fe), 1);

    parsed icmp(from_ten().icmp());
    EXPECT_EQ(zon_token_l4_payload_start(&icmp.fe), nullptr);
}

TEST(accessors, read_the_tcp_header) {
    parsed seen(
        from_ten().tcp(1, 2).seq(0x80000001).ack(0xFFFFFFFE).window(0x8123).tcp_options({1, 1}));
    EXPECT_EQ(zon_token_tcp_seq(&seen.fe), 0x80000001);
    EXPECT_EQ(zon_token_tcp_acknum(&seen.fe), 0xFFFFFFFE);
    EXPECT_EQ(zon_token_tcp_window(&seen.fe), 0x8123);
    EXPECT_EQ(zon_token_l4_payload_start(&seen.fe), seen.packet.data() + 44);
}

TEST(accessors, read_each_tcp_flag_alone) {
    for (int bit = 0; bit < 8; ++bit) {
        const auto flags = static_cast<uint8_t>(1 << bit);
        parsed seen(from_ten().tcp(1, 2).flags(flags));
        EXPECT_EQ(zon_token_tcp_flags_fin(&seen.fe), flags == tcp_fin);
        EXPECT_EQ(zon_token_tcp_flags_syn(&seen.fe), flags == tcp_syn);
        EXPECT_EQ(zon_token_tcp_flags_rst(&seen.fe), flags == tcp_rst);
        EXPECT_EQ(zon_token_tcp_flags_psh(&seen.fe), flags == tcp_psh);
        EXPECT_EQ(zon_token_tcp_flags_ack(&seen.fe), flags == tcp_ack);
        EXPECT_EQ(zon_token_tcp_flags_urg(&seen.fe), flags == tcp_urg);
    }
}

// zon_refused_packet_test.cpp - a packet that is refused changes nothing in an engine that is full
// of what it could change.

#include <vector>

#include "src/zon_engine/zon_captured_packet_fixture.h"
#include "support/engine_state.h"

using namespace zon_test;

namespace {

void forget(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e, zon_client_id_e) {}

bool belongs_to_77(void*, uint32_t* context) {
    *context = 77;
    return true;
}

// Flows of both families with a group and with feature objects, tunnelled ones, an announced one,
// and datagrams whose later fragments are awaited.
class occupied_engine : public captured_packets {
protected:
    void SetUp() override {
        captured_packets::SetUp();
        ASSERT_EQ(zon_client_register_delete_cb(client, forget), zon_error_none);
        ASSERT_EQ(zon_super_context_client_register(ZON_SUPER_CONTEXT_IDENTITY, belongs_to_77),
                  zon_error_none);
        first = flow_of(tcp4().build());
        flow_of(tcp4().reversed().flags(tcp_syn | tcp_ack).build());
        const zon_fid_t second = flow_of(tcp6().build());
        flow_of(udp6().build());
        flow_of(six_in_four(udp6()));
        flow_of(teredo(tcp6()));
        flow_of(fragments_of(ipv4().udp(7, 8).payload(100).build(), 40).front());
        flow_of(fragments_of(ipv6().udp(7, 8).payload(100).build(), 40).front());
        for (const zon_fid_t fid : {first, second})
            for (const zon_flow_direction_e of : {ZON_DIR_BI, ZON_DIR_INITIATOR})
                ASSERT_EQ(zon_flow_attach_fo(fid, client, of, &object), zon_error_none);
        announce_udp4();
        ASSERT_EQ(zon_frag_entry_count(g_zon->frag_table), 2u);
        before = engine_state::now();
    }

    zon_fid_t flow_of(const bytes& packet) {
        const zon_fid_t fid = hand_in(packet).fid;
        EXPECT_NE(fid, 0u);
        return fid;
    }
    // The connection of udp4(), which a packet of it would promote.
    static void announce_udp4() {
        zon_flow_tuple_t tuple{};
        tuple.src_ip.u.v4_addr = 0x0A000001;
        tuple.dst_ip.u.v4_addr = 0x0A000002;
        tuple.src_port = 40000;
        tuple.dst_port = 53;
        tuple.l4_protocol = ZON_UDP_PROT;
        zon_fid_t fid = 0;
        ASSERT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, 0, &fid, nullptr),
                  zon_error_none);
    }
    void expect_refused_and_unchanged(zon_error_t error, const char* how) {
        EXPECT_EQ(error, zon_error_parameter_invalid) << how;
        EXPECT_STREQ(engine_state::now().changed_since(before), nullptr) << how;
    }

    zon_fid_t first = 0;
    int object = 0;
    engine_state before;
};

struct refusal {
    const char* name;
    bytes packet;
    size_t length = packet.size();
};
void PrintTo(const refusal& row, std::ostream* out) {
    *out << row.name;
}
class refused_packet : public occupied_engine, public ::testing::WithParamInterface<refusal> {
protected:
    void SetUp() override {
        occupied_engine::SetUp();
        start = guarded.place(GetParam().packet, GetParam().length);
        length = static_cast<uint32_t>(GetParam().length);
    }
    uint32_t length = 0;
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_end;
};

bytes later_fragment_beyond_65535() {
    return ipv4().protocol(17).fragment(65528, false).payload(8).build();
}

}  // namespace

TEST_P(refused_packet, changes_nothing_alone) {
    zon_handle_captured_packet(start, length, 0, nullptr, &seen, &error);
    expect_refused_and_unchanged(error, "alone");
}

TEST_P(refused_packet, changes_nothing_of_the_flow_that_the_host_reports) {
    zon_sync_captured_packet(start, length, 0, nullptr, &seen, &error, first, ZON_L4_CLOSING, 9);
    expect_refused_and_unchanged(error, "reported");
}

TEST_P(refused_packet, changes_nothing_in_a_burst) {
    constexpr size_t more_than_a_group = 40;
    std::vector<zon_pkt_indications_t> told(more_than_a_group);
    std::vector<zon_burst_packet_t> burst;
    for (zon_pkt_indications_t& of_packet : told)
        burst.push_back({start, length, 0, nullptr, &of_packet, zon_error_end, 0});
    EXPECT_EQ(zon_handle_packet_burst(burst.data(), more_than_a_group), 0u);
    for (const zon_burst_packet_t& packet : burst)
        expect_refused_and_unchanged(packet.error, "in a burst");
}

INSTANTIATE_TEST_SUITE_P(
    rows, refused_packet,
    ::testing::Values(
        refusal{"nothing_captured", tcp4().build(), 0},
        refusal{"ipv4_header_cut_off", tcp4().build(), 19},
        refusal{"ipv4_header_of_4_words", damaged8(tcp4().build(), 0, 0x44)},
        refusal{"ipv4_total_length_below_header", damaged16(udp4().build(), 2, 19)},
        refusal{"ipv4_tcp_cut_off", tcp4().build(), 39},
        refusal{"ipv4_tcp_offset_of_4_words", damaged8(tcp4().build(), 32, 0x40)},
        refusal{"ipv4_tcp_offset_beyond_the_end", damaged8(tcp4().build(), 32, 0x60)},
        refusal{"ipv4_udp_length_of_7", damaged16(udp4().build(), 24, 7)},
        refusal{"ipv4_udp_length_too_long", damaged16(udp4().build(), 24, 29)},
        refusal{"ipv4_last_fragment_beyond_65535", later_fragment_beyond_65535()},
        refusal{"ipv6_header_cut_off", tcp6().build(), 39},
        refusal{"ipv6_jumbogram", damaged16(tcp6().build(), 4, 0)},
        refusal{"ipv6_tcp_cut_off", tcp6().build(), 59},
        refusal{"ipv6_tcp_offset_of_4_words", damaged8(tcp6().build(), 52, 0x40)},
        refusal{"ipv6_udp_length_too_long", damaged16(udp6().build(), 44, 29)},
        refusal{"ipv6_extension_beyond_the_capture",
                damaged8(tcp6().hop_by_hop().build(), 41, 200)},
        refusal{"ipv6_seventeen_extensions", chain_of(17).build()},
        refusal{"ipv6_second_fragment_header", udp6().fragment(0, true).fragment(0, false).build()},
        refusal{"nothing_in_protocol_41", in_ipv4("192.0.2.1", "192.0.2.2", {})},
        refusal{"jumbogram_in_protocol_41", damaged16(six_in_four(tcp6()), 24, 0)},
        refusal{"udp_length_of_7_in_protocol_41", damaged16(six_in_four(udp6()), 64, 7)},
        refusal{"jumbogram_in_teredo", damaged16(teredo(tcp6()), 32, 0)},
        refusal{"tcp_cut_off_in_teredo", teredo(tcp6()), 87}),
    [](const auto& row) { return row.param.name; });

TEST_F(occupied_engine, is_as_it_was_when_a_call_lacks_the_packet) {
    zon_pkt_indications_t seen{};
    zon_error_t error = zon_error_end;
    zon_handle_captured_packet(nullptr, 40, 0, nullptr, &seen, &error);
    expect_refused_and_unchanged(error, "without a packet");
}

// What the tests above compare is not blind.
TEST_F(occupied_engine, is_another_one_after_a_packet_that_is_taken) {
    for (const bytes& packet : {tcp4().flags(tcp_ack).build(), udp4().build(), tcp6().build(),
                                six_in_four(udp6()), teredo(tcp6()), ipv4().udp(9, 9).build()}) {
        const engine_state untaken = engine_state::now();
        flow_of(packet);
        EXPECT_STRNE(engine_state::now().changed_since(untaken), nullptr);
    }
}

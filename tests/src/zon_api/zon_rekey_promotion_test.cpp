// zon_rekey_promotion_test.cpp - an announced flow whose sides were refused a new key, or made
// anew, meets its first packet from either side, and goes.

#include <random>
#include <tuple>

#include "api_fixture.h"
#include "support/table_census.h"
#include "support/watchdog.h"

using namespace zon_test;

namespace {

constexpr uint16_t port_a = 1000;
constexpr uint16_t port_b = 53;

struct announced_row {
    const char* name;
    zon_flow_tuple_type_t type;
    bool in_place;  // the first packet completes the keys where they are
};
struct refused_row {
    const char* name;
    bool initiator;
    bool responder;
};
enum class afterwards { left_out, made_anew };
struct arrival_row {
    const char* name;
    bool from_initiator;
};

class rekeyed_announcement : public api_fixture,
                             public ::testing::WithParamInterface<
                                 std::tuple<announced_row, refused_row, afterwards, arrival_row>> {
protected:
    rekeyed_announcement() {
        parameters.max_flows = 10;
        parameters.max_bucket_depth = 2;
    }
    const announced_row& announced() const { return std::get<0>(GetParam()); }
    const refused_row& refused() const { return std::get<1>(GetParam()); }
    bool made_anew() const { return std::get<2>(GetParam()) == afterwards::made_anew; }
    const arrival_row& arrival() const { return std::get<3>(GetParam()); }

    void SetUp() override {
        api_fixture::SetUp();
        fid = pre_flow(announced().type, connection);
        const std::vector<zon_fid_t> others = fill_buckets();
        if (refused().initiator)
            refuse(zon_flow_update_initiator);
        if (refused().responder)
            refuse(zon_flow_update_responder);
        expect_sound_tables();
        for (const zon_fid_t other : others)
            zon_delete_flow_tamonet(other, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        if (made_anew())
            make_anew();
        expect_sound_tables();
        ASSERT_EQ(elements(), sides_present());
    }
    void TearDown() override {
        EXPECT_TRUE(no_lock_is_held());
        api_fixture::TearDown();
    }

    static std::vector<zon_fid_t> fill_buckets() {
        std::vector<zon_fid_t> flows;
        for (uint16_t port = 2001; flows.size() < 4; ++port)
            if (const zon_fid_t made = handle(udp_packet(port, 99)).fid)
                flows.push_back(made);
        return flows;
    }
    void refuse(zon_error_t (*update)(zon_fid_t, const zon_flow_tuple_t*)) {
        for (uint16_t port = 7000; port < 7400; ++port) {
            const zon_flow_tuple_t to = tuple4(0x0A000063, port, 0x0A000064, port);
            if (update(fid, &to) == zon_error_flow_creation_prevented)
                return;
        }
        FAIL() << "no bucket was full";
    }
    void make_anew() {
        const zon_flow_tuple_t back = reversed(connection);
        if (refused().initiator) {
            ASSERT_EQ(zon_flow_update_initiator(fid, &connection), zon_error_none);
        }
        if (refused().responder) {
            ASSERT_EQ(zon_flow_update_responder(fid, &back), zon_error_none);
        }
    }
    uint32_t sides_present() const {
        return made_anew() ? 2U
                           : 2U - (refused().initiator ? 1U : 0U) - (refused().responder ? 1U : 0U);
    }

    packet_result first_packet() const {
        return handle(arrival().from_initiator
                          ? packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(port_a, port_b)
                          : packet_builder::ipv4("10.0.0.2", "10.0.0.1").udp(port_b, port_a));
    }
    // Whether the side that the packet comes from still has the key that was announced, or a whole
    // one that was made since.
    bool sender_is_known() const {
        return made_anew() ||
               !(arrival().from_initiator ? refused().initiator : refused().responder);
    }
    bool sender_has_a_whole_key() const {
        return made_anew() &&
               (arrival().from_initiator ? refused().initiator : refused().responder);
    }

    const watchdog watched{std::chrono::seconds(60), [] {}};
    const zon_flow_tuple_t connection = tuple4(host_a, port_a, host_b, port_b);
    zon_fid_t fid = 0;
};

TEST_P(rekeyed_announcement, takes_its_packet_and_goes_without_a_trace) {
    const packet_result first = first_packet();
    EXPECT_EQ(first.error, zon_error_none);
    ASSERT_NE(first.fid, 0U);
    EXPECT_EQ(first.fid == fid, sender_is_known()) << "the flow that the packet got";
    EXPECT_EQ(first.indications.was_promoted, sender_is_known() && !sender_has_a_whole_key());
    EXPECT_EQ(first.indications.is_initiator,
              first.fid != fid || first.indications.was_promoted || arrival().from_initiator);
    expect_sound_tables();
    if (first.fid != fid) {
        EXPECT_EQ(elements(), sides_present() + 2);
    } else if (first.indications.was_promoted && !announced().in_place) {
        EXPECT_EQ(elements(), 2U) << "a promotion to other buckets links both sides";
        EXPECT_EQ(find(connection), fid);
        EXPECT_EQ(find(reversed(connection)), fid);
    } else {
        EXPECT_EQ(elements(), sides_present());
    }
    EXPECT_EQ(first_packet().fid, first.fid);
    expect_sound_tables();

    EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    expect_sound_tables();
    if (first.fid != fid) {
        EXPECT_TRUE(zon_delete_flow_tamonet(first.fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    }
    expect_sound_tables();
    EXPECT_EQ(elements(), 0U);
    EXPECT_EQ(flows_in_use(), 0U);

    // What was given back can be used again.
    EXPECT_NE(first_packet().fid, 0U);
    expect_sound_tables();
    EXPECT_EQ(elements(), 2U);
}

TEST_P(rekeyed_announcement, goes_without_a_packet_too) {
    EXPECT_TRUE(zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    expect_sound_tables();
    EXPECT_EQ(elements(), 0U);
    EXPECT_EQ(flows_in_use(), 0U);
}

TEST_P(rekeyed_announcement, ages_out_when_no_packet_comes_any_more) {
    const packet_result first = first_packet();
    advance_sec(60);
    EXPECT_EQ(record_of(first.fid), nullptr);
    EXPECT_EQ(flows_in_use(), 0U);
    expect_sound_tables();
    EXPECT_EQ(elements(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    rows, rekeyed_announcement,
    ::testing::Combine(
        ::testing::Values(
            announced_row{"complete", ZON_FLOW_TUPLE_TYPE_COMPLETE, true},
            announced_row{"any_vrf", ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN, false},
            announced_row{"destination_only", ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, false},
            announced_row{"source_only", ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN, false}),
        ::testing::Values(refused_row{"initiator", true, false},
                          refused_row{"responder", false, true}, refused_row{"both", true, true}),
        ::testing::Values(afterwards::left_out, afterwards::made_anew),
        ::testing::Values(arrival_row{"from_initiator", true},
                          arrival_row{"from_responder", false})),
    [](const auto& row) {
        return std::string(std::get<0>(row.param).name) + "_" + std::get<1>(row.param).name +
               (std::get<2>(row.param) == afterwards::left_out ? "_left_out_" : "_made_anew_") +
               std::get<3>(row.param).name;
    });

// ---- any order ----

// Announces, re-keys, promotes and deletes at random, in a table in which about every third move
// finds its bucket full.
class any_order : public api_fixture, public ::testing::WithParamInterface<uint32_t> {
protected:
    any_order() {
        parameters.max_flows = 12;
        parameters.max_bucket_depth = 3;
    }
    // Announcements of which one half was refused leave places in the table taken, so that the
    // fixture's own end would find half flows.
    void TearDown() override {
        EXPECT_TRUE(no_lock_is_held());
        EXPECT_EQ(zon_destroy(), zon_error_none);
        api_fixture::TearDown();
    }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random() % limit); }
    uint16_t any_port() { return static_cast<uint16_t>(1000 + below(6)); }
    zon_flow_tuple_t any_tuple(bool ipv6) {
        return ipv6 ? tuple6("2001:db8::1", any_port(), "2001:db8::2", any_port())
                    : tuple4(host_a, any_port(), host_b, any_port());
    }
    zon_fid_t any_flow() { return 1 + below(parameters.max_flows); }

    void announce() {
        const zon_flow_tuple_t of = any_tuple(below(2) != 0);
        zon_fid_t made = 0;
        zon_pre_flow_add(static_cast<zon_flow_tuple_type_t>(below(4)), &of, 0, &made, nullptr);
    }
    void rekey() {
        const zon_fid_t fid = any_flow();
        const zon_flow_t* flow = record_of(fid);
        if (flow == nullptr)
            return;
        const bool of_initiator = below(2) != 0;
        const zon_half_flow_t* half = of_initiator ? flow->initiator_flow : flow->responder_flow;
        const zon_flow_tuple_t to = any_tuple(!zon_key_is_ipv4(half->key.key_type));
        of_initiator ? zon_flow_update_initiator(fid, &to) : zon_flow_update_responder(fid, &to);
    }
    void send() {
        packet_builder built =
            below(2) != 0 ? packet_builder::ipv6("2001:db8::1", "2001:db8::2")
                          : packet_builder::ipv4(ipv4_address(host_a), ipv4_address(host_b));
        built.udp(any_port(), any_port());
        promotions += handle(below(2) != 0 ? built.reversed() : built).indications.was_promoted;
    }
    void act() {
        switch (below(8)) {
        case 0:
        case 1:
            return announce();
        case 2:
        case 3:
        case 4:
            return rekey();
        case 5:
        case 6:
            return send();
        default:
            zon_delete_flow_tamonet(any_flow(), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    }

    std::minstd_rand random{GetParam()};
    uint32_t promotions = 0;
};

// No count ever falls below the half flows that are announced: it would wrap.
TEST_P(any_order, keeps_the_counts_of_announced_half_flows) {
    const watchdog watched(std::chrono::seconds(120), [] {});
    for (int step = 0; step < 300; ++step) {
        act();
        expect_counts_of_flows();
        if (HasFailure()) {
            FAIL() << "seed " << GetParam() << ", step " << step;
        }
    }
    EXPECT_GT(promotions, 0U) << "the script tests nothing";
    delete_all_flows();
    expect_counts_of_flows();
    EXPECT_FALSE(g_zon->flow_tbl->has_incomplete_inserts);
}

INSTANTIATE_TEST_SUITE_P(seeds, any_order, ::testing::Range(1U, 31U));

}  // namespace

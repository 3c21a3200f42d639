// zon_capabilities_test.cpp - capabilities: a set of bits per client, a counter per bit for all.

#include <gtest/gtest.h>

#include <string>

#include "support/bare_engine.h"
#include "support/captured_output.h"
#include "support/engine_fixture.h"
#include "support/fixed_time_stamp.h"
#include "zon_engine/zon_clients.h"

using zon_test::captured_output;
using zon_test::fixed_time_stamp;
using zon_test::packet_builder;

namespace {

struct capability_row {
    const char* name;
    zon_capability_e bit;
    int value;
    uint32_t zon_capability_counter_t::*counter;
    bool can_be_asked_for;
};

constexpr capability_row capability_rows[] = {
    {"tcp", ZON_CAPABILITY_ENABLE_TCP, 1, &zon_capability_counter_t::zon_engine_flow_tcp, true},
    {"udp", ZON_CAPABILITY_ENABLE_UDP, 2, &zon_capability_counter_t::zon_engine_flow_udp, true},
    {"icmp", ZON_CAPABILITY_ENABLE_ICMP, 4, &zon_capability_counter_t::zon_engine_flow_icmp, true},
    {"tcp_state_checks", ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS, 8,
     &zon_capability_counter_t::zon_engine_tcp_state_checks, true},
    {"ipv6inip", ZON_CAPABILITY_ENABLE_IPV6INIP, 16,
     &zon_capability_counter_t::zon_engine_tunnel_ipv6inip, true},
    {"teredo", ZON_CAPABILITY_ENABLE_TEREDO, 32,
     &zon_capability_counter_t::zon_engine_tunnel_teredo, true},
    {"client_bypass", ZON_CAPABILITY_ENABLE_CLIENT_BYPASS, 64,
     &zon_capability_counter_t::zon_engine_client_bypass, false},
};

constexpr zon_capability_e bits(int value) {
    return static_cast<zon_capability_e>(value);
}

const zon_capability_counter_t& counters() {
    return g_zon->params.capability_counter;
}

int enabled_by(zon_client_id_e id) {
    return g_zon->params.client_enabled_capability[id];
}

uint32_t sum_of_counters() {
    uint32_t sum = 0;
    for (const capability_row& row : capability_rows)
        sum += counters().*row.counter;
    return sum;
}

std::string logged(const std::string& complaint, const std::string& label, int value) {
    return "noon : ZON_MSG_INDEX: 6. " + complaint + "  " + label + ":" + std::to_string(value) +
           "\n";
}

// Two registered clients, the error log on.
class capabilities : public zon_test::bare_engine {
protected:
    void SetUp() override {
        bare_engine::SetUp();
        ASSERT_EQ(zon_client_feature_register(&first), zon_error_none);
        ASSERT_EQ(zon_client_feature_register(&second), zon_error_none);
        zon_errlog = true;
    }
    void TearDown() override {
        zon_errlog = false;
        bare_engine::TearDown();
    }

    const fixed_time_stamp stamp;
    zon_client_id_e first = 0;
    zon_client_id_e second = 0;
};

class capability : public capabilities, public ::testing::WithParamInterface<capability_row> {};

}  // namespace

// ---- each one ----

TEST_P(capability, has_its_value_and_its_counter) {
    EXPECT_EQ(static_cast<int>(GetParam().bit), GetParam().value);
    EXPECT_EQ(zon_client_enable_engine_capability(first, GetParam().bit), zon_error_none);
    EXPECT_EQ(counters().*GetParam().counter, 1u);
    EXPECT_EQ(sum_of_counters(), 1u);
    EXPECT_EQ(enabled_by(first), GetParam().value);
    EXPECT_EQ(enabled_by(second), 0);
}

TEST_P(capability, is_in_force_until_its_last_client_disables_it) {
    EXPECT_EQ(zon_client_enable_engine_capability(first, GetParam().bit), zon_error_none);
    EXPECT_EQ(zon_client_enable_engine_capability(second, GetParam().bit), zon_error_none);
    EXPECT_EQ(counters().*GetParam().counter, 2u);
    EXPECT_EQ(zon_client_disable_engine_capability(first, GetParam().bit), zon_error_none);
    EXPECT_EQ(counters().*GetParam().counter, 1u);
    EXPECT_EQ(zon_client_disable_engine_capability(second, GetParam().bit), zon_error_none);
    EXPECT_EQ(sum_of_counters(), 0u);
    EXPECT_EQ(enabled_by(first), 0);
}

TEST_P(capability, can_or_cannot_be_asked_for) {
    captured_output errors(stderr);
    bool value = true;
    if (!GetParam().can_be_asked_for) {
        EXPECT_EQ(zon_engine_get_capability(GetParam().bit, &value),
                  zon_error_engine_capability_invalid);
        EXPECT_TRUE(value) << "nothing is written";
    } else {
        EXPECT_EQ(zon_engine_get_capability(GetParam().bit, &value), zon_error_none);
        EXPECT_FALSE(value);
        ASSERT_EQ(zon_client_enable_engine_capability(first, GetParam().bit), zon_error_none);
        EXPECT_EQ(zon_engine_get_capability(GetParam().bit, &value), zon_error_none);
        EXPECT_TRUE(value);
    }
    EXPECT_EQ(errors.text(), "");
}

TEST_P(capability, is_not_enabled_twice_by_one_client) {
    ASSERT_EQ(zon_client_enable_engine_capability(first, GetParam().bit), zon_error_none);
    captured_output errors(stderr);
    EXPECT_EQ(zon_client_enable_engine_capability(first, ZON_CAPABILITY_ENABLE_ALL),
              zon_error_engine_capability_invalid);
    EXPECT_EQ(errors.text(),
              logged("Cannot enable the same engine capability twice",
                     "zon_client_enable_engine_capability, already_enabled_capability:",
                     GetParam().value));
    EXPECT_EQ(counters().*GetParam().counter, 1u);
    EXPECT_EQ(sum_of_counters(), 1u);
    EXPECT_EQ(enabled_by(first), GetParam().value);
}

TEST_P(capability, that_is_not_enabled_is_not_disabled) {
    ASSERT_EQ(zon_client_enable_engine_capability(second, GetParam().bit), zon_error_none);
    captured_output errors(stderr);
    EXPECT_EQ(zon_client_disable_engine_capability(first, GetParam().bit),
              zon_error_engine_capability_invalid);
    EXPECT_EQ(errors.text(), logged("Cannot disable the particular engine capability",
                                    "zon_client_disable_engine_capability, invalid capability:",
                                    GetParam().value));
    EXPECT_EQ(counters().*GetParam().counter, 1u);
}

INSTANTIATE_TEST_SUITE_P(, capability, ::testing::ValuesIn(capability_rows),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- sets of them ----

TEST_F(capabilities, enabled_all_at_once_are_counted_each) {
    EXPECT_EQ(zon_client_enable_engine_capability(first, ZON_CAPABILITY_ENABLE_ALL),
              zon_error_none);
    for (const capability_row& row : capability_rows)
        EXPECT_EQ(counters().*row.counter, 1u) << row.name;
    EXPECT_EQ(enabled_by(first), 127);
}

TEST_F(capabilities, disabled_all_at_once_are_those_that_the_client_has) {
    ASSERT_EQ(zon_client_enable_engine_capability(
                  first, bits(ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP)),
              zon_error_none);
    ASSERT_EQ(zon_client_enable_engine_capability(second, ZON_CAPABILITY_ENABLE_ALL),
              zon_error_none);
    EXPECT_EQ(zon_client_disable_engine_capability(first, ZON_CAPABILITY_ENABLE_ALL),
              zon_error_none);
    for (const capability_row& row : capability_rows)
        EXPECT_EQ(counters().*row.counter, 1u) << row.name;
    EXPECT_EQ(enabled_by(first), 0);
    EXPECT_EQ(zon_client_disable_engine_capability(first, ZON_CAPABILITY_ENABLE_ALL),
              zon_error_none);
    EXPECT_EQ(sum_of_counters(), 7u);
}

TEST_F(capabilities, disabled_in_part_stay_when_one_of_them_was_not_enabled) {
    ASSERT_EQ(zon_client_enable_engine_capability(first, ZON_CAPABILITY_ENABLE_TCP),
              zon_error_none);
    captured_output errors(stderr);
    EXPECT_EQ(zon_client_disable_engine_capability(first, bits(1 | 2 | 16)),
              zon_error_engine_capability_invalid);
    EXPECT_EQ(errors.text(),
              logged("Cannot disable the particular engine capability",
                     "zon_client_disable_engine_capability, invalid capability:", 18));
    EXPECT_EQ(counters().zon_engine_flow_tcp, 1u);
    EXPECT_EQ(enabled_by(first), 1);
}

TEST_F(capabilities, may_be_none) {
    EXPECT_EQ(zon_client_enable_engine_capability(first, bits(0)), zon_error_none);
    EXPECT_EQ(zon_client_disable_engine_capability(first, bits(0)), zon_error_none);
    EXPECT_EQ(sum_of_counters(), 0u);
}

TEST_F(capabilities, of_client_0_need_a_client_0) {
    EXPECT_EQ(zon_client_enable_engine_capability(0, ZON_CAPABILITY_ENABLE_TCP),
              zon_error_client_id_invalid);
    zon_private_set_delete_cb(0, nullptr);
    EXPECT_EQ(zon_client_enable_engine_capability(0, ZON_CAPABILITY_ENABLE_TCP), zon_error_none);
    EXPECT_EQ(enabled_by(0), 1);
    EXPECT_EQ(zon_client_disable_engine_capability(0, ZON_CAPABILITY_ENABLE_TCP), zon_error_none);
}

TEST_F(capabilities, that_are_counted_for_nobody_do_not_go_below_none) {
    zon_engine_flow_type_unregister(ZON_CAPABILITY_ENABLE_ALL);
    EXPECT_EQ(sum_of_counters(), 0u);
    zon_engine_flow_type_register(bits(2 | 64));
    zon_engine_flow_type_register(bits(2));
    EXPECT_EQ(counters().zon_engine_flow_udp, 2u);
    EXPECT_EQ(counters().zon_engine_client_bypass, 1u);
    zon_engine_flow_type_unregister(ZON_CAPABILITY_ENABLE_ALL);
    EXPECT_EQ(sum_of_counters(), 1u);
}

// ---- refusals ----

namespace {

struct change_row {
    const char* name;
    zon_error_t (*change)(zon_client_id_e id, zon_capability_e capability);
    const char* id_label;
    const char* capability_label;
};

constexpr change_row change_rows[] = {
    {"enable", zon_client_enable_engine_capability, "zon_client_enable_engine_capability, id:",
     "zon_client_enable_engine_capability, capability:"},
    {"disable", zon_client_disable_engine_capability, "zon_client_disable_engine_capability, id:",
     "zon_client_disable_engine_capability, capability:"},
};

class capability_change : public capabilities, public ::testing::WithParamInterface<change_row> {};

}  // namespace

TEST_P(capability_change, refuses_an_id_above_31_first_even_without_an_engine) {
    for (const bool with_engine : {true, false}) {
        if (!with_engine)
            bare_engine::destroy();
        captured_output errors(stderr);
        EXPECT_EQ(GetParam().change(32, bits(128)), zon_error_client_id_invalid);
        EXPECT_EQ(errors.text(),
                  logged("Client id exceeds max number of clients that ZON can support",
                         GetParam().id_label, 32));
    }
}

TEST_P(capability_change, refuses_a_capability_above_127_next_even_without_an_engine) {
    for (const bool with_engine : {true, false}) {
        if (!with_engine)
            bare_engine::destroy();
        for (const int unknown : {128, 1000, -1}) {
            captured_output errors(stderr);
            EXPECT_EQ(GetParam().change(31, bits(unknown)), zon_error_engine_capability_invalid);
            EXPECT_EQ(errors.text(), logged("Engine capability not supported",
                                            GetParam().capability_label, unknown));
        }
    }
}

TEST_P(capability_change, needs_an_engine_then) {
    bare_engine::destroy();
    captured_output errors(stderr);
    EXPECT_EQ(GetParam().change(31, ZON_CAPABILITY_ENABLE_TCP), zon_error_engine_not_init);
    EXPECT_EQ(errors.text(), "");
}

TEST_P(capability_change, needs_a_registered_client_then) {
    captured_output errors(stderr);
    EXPECT_EQ(GetParam().change(5, ZON_CAPABILITY_ENABLE_TCP), zon_error_client_id_invalid);
    EXPECT_EQ(errors.text(), "");
    EXPECT_EQ(sum_of_counters(), 0u);
}

INSTANTIATE_TEST_SUITE_P(, capability_change, ::testing::ValuesIn(change_rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(capabilities, are_not_told_to_a_null_value_even_without_an_engine) {
    for (const bool with_engine : {true, false}) {
        if (!with_engine)
            bare_engine::destroy();
        captured_output errors(stderr);
        EXPECT_EQ(zon_engine_get_capability(bits(200), nullptr), zon_error_parameter_is_null);
        EXPECT_EQ(errors.text(), logged("Engine capability value is NULL",
                                        "zon_get_capability_value, capability:", 200));
    }
}

TEST_F(capabilities, are_not_told_from_127_on_even_without_an_engine) {
    for (const bool with_engine : {true, false}) {
        if (!with_engine)
            bare_engine::destroy();
        for (const int unknown : {127, 128, -1}) {
            bool value = true;
            captured_output errors(stderr);
            EXPECT_EQ(zon_engine_get_capability(bits(unknown), &value),
                      zon_error_engine_capability_invalid);
            EXPECT_EQ(errors.text(), logged("Engine capability value not supported",
                                            "zon_get_capability_flag, capability:", unknown));
        }
    }
}

TEST_F(capabilities, are_not_told_without_an_engine) {
    bare_engine::destroy();
    bool value = true;
    captured_output errors(stderr);
    EXPECT_EQ(zon_engine_get_capability(ZON_CAPABILITY_ENABLE_TCP, &value),
              zon_error_engine_not_init);
    EXPECT_EQ(zon_engine_get_capability(bits(3), &value), zon_error_engine_not_init);
    EXPECT_EQ(errors.text(), "");
}

TEST_F(capabilities, are_told_one_at_a_time_without_a_log) {
    captured_output errors(stderr);
    bool value = true;
    for (int asked = 0; asked < 127; ++asked) {
        const bool single =
            asked == 1 || asked == 2 || asked == 4 || asked == 8 || asked == 16 || asked == 32;
        EXPECT_EQ(zon_engine_get_capability(bits(asked), &value),
                  single ? zon_error_none : zon_error_engine_capability_invalid)
            << asked;
    }
    EXPECT_EQ(errors.text(), "");
}

TEST(capability_counters, are_left_alone_without_an_engine) {
    ASSERT_EQ(g_zon, nullptr);
    zon_engine_flow_type_register(ZON_CAPABILITY_ENABLE_ALL);
    zon_engine_flow_type_unregister(ZON_CAPABILITY_ENABLE_ALL);
}

// ---- at work ----

class capabilities_at_work : public zon_test::engine_fixture {
protected:
    capabilities_at_work() { parameters.capabilities = 0; }
};

TEST_F(capabilities_at_work, classify_tcp_while_any_client_wants_it) {
    zon_client_id_e other = 0;
    ASSERT_EQ(zon_client_feature_register(&other), zon_error_none);
    const auto connection =
        packet_builder::ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80).flags(zon_test::tcp_syn);
    EXPECT_EQ(handle(connection).fid, ZON_NULL_FID);
    ASSERT_EQ(zon_client_enable_engine_capability(client, ZON_CAPABILITY_ENABLE_TCP),
              zon_error_none);
    ASSERT_EQ(zon_client_enable_engine_capability(other, ZON_CAPABILITY_ENABLE_TCP),
              zon_error_none);
    ASSERT_EQ(zon_client_disable_engine_capability(client, ZON_CAPABILITY_ENABLE_TCP),
              zon_error_none);
    EXPECT_NE(handle(connection).fid, ZON_NULL_FID);
    ASSERT_EQ(zon_client_disable_engine_capability(other, ZON_CAPABILITY_ENABLE_TCP),
              zon_error_none);
    EXPECT_EQ(handle(connection).fid, ZON_NULL_FID);
}

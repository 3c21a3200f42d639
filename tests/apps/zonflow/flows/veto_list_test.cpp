// veto_list_test.cpp - networks as text, and what lies in them.
#include "flows/veto_list.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

using namespace zonflow;

bool text_contains(const char* network_text, const std::string& address_text) {
    const auto network = network_of_text(network_text);
    EXPECT_TRUE(network) << network_text;
    const bool v6 = address_text.find(':') != std::string::npos;
    ip_address address{};
    EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, address_text.c_str(), address.data()), 1);
    return network && contains(*network, v6 ? 6 : 4, address);
}

struct containment {
    const char* network;
    const char* address;
    bool inside;
};

class networks : public testing::TestWithParam<containment> {};

TEST_P(networks, contain_the_addresses_that_share_their_prefix) {
    EXPECT_EQ(text_contains(GetParam().network, GetParam().address), GetParam().inside);
}

INSTANTIATE_TEST_SUITE_P(veto_list, networks,
                         testing::Values(containment{"10.0.0.0/8", "10.255.0.1", true},
                                         containment{"10.0.0.0/8", "11.0.0.1", false},
                                         containment{"10.1.2.3/8", "10.9.9.9", true},
                                         containment{"192.0.2.128/25", "192.0.2.127", false},
                                         containment{"192.0.2.128/25", "192.0.2.255", true},
                                         containment{"192.0.2.4/30", "192.0.2.8", false},
                                         containment{"192.0.2.4/30", "192.0.2.7", true},
                                         containment{"192.0.2.1", "192.0.2.1", true},
                                         containment{"192.0.2.1", "192.0.2.2", false},
                                         containment{"192.0.2.1/32", "192.0.2.1", true},
                                         containment{"0.0.0.0/0", "203.0.113.9", true},
                                         containment{"0.0.0.0/0", "2001:db8::1", false},
                                         containment{"::/0", "2001:db8::1", true},
                                         containment{"::/0", "10.0.0.1", false},
                                         containment{"2001:db8::/33", "2001:db8:7fff::1", true},
                                         containment{"2001:db8::/33", "2001:db8:8000::1", false},
                                         containment{"2001:db8::1/128", "2001:db8::1", true},
                                         containment{"2001:db8::1", "2001:db8::2", false}));

struct host_bits_case {
    const char* text;
    const char* network;
};

class networks_with_host_bits : public testing::TestWithParam<host_bits_case> {};

TEST_P(networks_with_host_bits, are_told_from_those_without) {
    const auto network = network_of_text(GetParam().text);
    ASSERT_TRUE(network);
    const std::string text = text_of(without_bits_behind_prefix(*network));
    EXPECT_EQ(text, GetParam().network);
    EXPECT_EQ(has_bits_behind_prefix(*network), text != GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(veto_list, networks_with_host_bits,
                         testing::Values(host_bits_case{"10.0.0.0/8", "10.0.0.0/8"},
                                         host_bits_case{"1.2.3.4/8", "1.0.0.0/8"},
                                         host_bits_case{"192.0.2.129/25", "192.0.2.128/25"},
                                         host_bits_case{"192.0.2.128/25", "192.0.2.128/25"},
                                         host_bits_case{"192.0.2.1/32", "192.0.2.1/32"},
                                         host_bits_case{"0.0.0.1/0", "0.0.0.0/0"},
                                         host_bits_case{"2001:db8::1/32", "2001:db8::/32"},
                                         host_bits_case{"2001:db8:8000::/33", "2001:db8:8000::/33"},
                                         host_bits_case{"2001:db8:c000::/33", "2001:db8:8000::/33"},
                                         host_bits_case{"2001:db8::1/128", "2001:db8::1/128"}));

class no_networks : public testing::TestWithParam<const char*> {};

TEST_P(no_networks, are_refused) {
    EXPECT_FALSE(network_of_text(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(veto_list, no_networks,
                         testing::Values("", "/", "/8", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1",
                                         "10.0.0.0/+8", "10.0.0.0/8/8", "10.0.0.0/08",
                                         "10.0.0.0/00", "10.0.0.0/8 ", " 10.0.0.0", "10.0.0",
                                         "10.0.0.256/8", "2001:db8::/129", "example.test",
                                         "10.0.0.0/99999999999999999999"));

}  // namespace

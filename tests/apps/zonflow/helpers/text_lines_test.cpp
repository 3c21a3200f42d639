// text_lines_test.cpp - lines, numbers and addresses out of hostile text.
#include <gtest/gtest.h>

#include "flows/flow_record.h"
#include "helpers/text_lines.h"
#include "tests/apps/zonflow/support/bounded_text.h"

namespace {

using namespace zonflow;
using zonflow_tests::bounded_text;

TEST(text_lines, end_with_lf_or_cr_lf_and_the_rest_is_left) {
    const bounded_text text("one\r\n\ntwo\nthree");
    std::string_view rest = text.view();
    EXPECT_EQ(take_line(rest), "one");
    EXPECT_EQ(take_line(rest), "");
    EXPECT_EQ(take_line(rest), "two");
    EXPECT_EQ(take_line(rest), std::nullopt);
    EXPECT_EQ(rest, "three");
}

TEST(text_lines, take_until_takes_all_where_the_separator_is_missing) {
    const bounded_text text("a,b");
    std::string_view rest = text.view();
    EXPECT_EQ(take_until(rest, ','), "a");
    EXPECT_EQ(take_until(rest, ','), "b");
    EXPECT_EQ(take_until(rest, ','), "");
    EXPECT_EQ(rest, "");
}

TEST(text_lines, words_are_taken_in_any_case_and_only_whole) {
    std::string_view text = "Port 1";
    EXPECT_TRUE(take_word(text, "PORT "));
    EXPECT_EQ(text, "1");
    EXPECT_FALSE(take_word(text, "11"));
    EXPECT_EQ(text, "1");
}

TEST(text_lines, blanks_are_taken_off_both_ends) {
    for (const char* text : {"x y", " \tx y\t ", "x y "}) {
        EXPECT_EQ(without_blanks_around(text), "x y");
    }
    EXPECT_EQ(without_blanks_around(" \t "), "");
    EXPECT_EQ(without_blanks_around(""), "");
}

struct number_case {
    const char* text;
    uint32_t limit;
    std::optional<uint32_t> number;
};

class whole_numbers : public testing::TestWithParam<number_case> {};

TEST_P(whole_numbers, are_digits_only_and_not_above_the_limit) {
    const bounded_text text(GetParam().text);
    EXPECT_EQ(whole_number(text.view(), GetParam().limit), GetParam().number);
}

INSTANTIATE_TEST_SUITE_P(
    text_lines, whole_numbers,
    testing::Values(number_case{"0", 255, 0}, number_case{"255", 255, 255},
                    number_case{"007", 255, 7}, number_case{"256", 255, std::nullopt},
                    number_case{"4294967295", UINT32_MAX, UINT32_MAX},
                    number_case{"4294967296", UINT32_MAX, std::nullopt},
                    number_case{"00000000001", 255, std::nullopt},
                    number_case{"99999999999999999999", UINT32_MAX, std::nullopt},
                    number_case{"", 255, std::nullopt}, number_case{"-1", 255, std::nullopt},
                    number_case{"+1", 255, std::nullopt}, number_case{" 1", 255, std::nullopt},
                    number_case{"1 ", 255, std::nullopt}, number_case{"0x1", 255, std::nullopt}));

TEST(text_lines, ports_are_1_to_65535) {
    EXPECT_EQ(port_number("1"), 1);
    EXPECT_EQ(port_number("65535"), 65535);
    EXPECT_EQ(port_number("0"), std::nullopt);
    EXPECT_EQ(port_number("65536"), std::nullopt);
    EXPECT_EQ(port_number("65557"), std::nullopt);  // 21 behind the 16th bit
}

TEST(text_lines, addresses_are_held_as_tuples_hold_them) {
    const auto v4 = ipv4_address(bounded_text("192.0.2.1").view());
    ASSERT_TRUE(v4);
    EXPECT_EQ(v4->u.v4_addr, 0xc0000201u);
    const auto v6 = ipv6_address(bounded_text("2001:db8::1").view());
    ASSERT_TRUE(v6);
    EXPECT_EQ(v6->u.v6_addr[3], 0x20);
    EXPECT_EQ(v6->u.v6_addr[12], 1);
    EXPECT_EQ(address_text(*v6), "2001:db8::1");
    EXPECT_FALSE(same_address(*v4, *v6));
    EXPECT_TRUE(same_address(*v6, *ipv6_address("2001:0db8:0:0::0:1")));
    EXPECT_FALSE(same_address(*v6, *ipv6_address("2001:db8::2")));
}

TEST(text_lines, what_is_not_exactly_an_address_is_none) {
    using namespace std::string_view_literals;
    for (const std::string_view text :
         {""sv, "192.0.2"sv, "192.0.2.256"sv, "192.0.2.1/24"sv, "192.0.2.1 "sv, "::1"sv,
          "host.example"sv, "192.0.2.1\0"sv, "1.1.1.1\0evil"sv}) {
        EXPECT_FALSE(ipv4_address(bounded_text(text).view())) << text;
    }
    for (const std::string_view text :
         {""sv, ":"sv, "2001:db8:::1"sv, "2001:db8::1%eth0"sv, "ff02::1/64"sv, "192.0.2.1"sv,
          "::1\0"sv, "1111:1111:1111:1111:1111:1111:1111:1111:1111:1111:1111:1111:1111"sv}) {
        EXPECT_FALSE(ipv6_address(bounded_text(text).view())) << text;
    }
}

}  // namespace

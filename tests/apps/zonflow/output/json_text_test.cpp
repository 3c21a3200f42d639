// json_text_test.cpp - escaping, order and numbers of the JSON lines.
#include "output/json_text.h"

#include <gtest/gtest.h>

namespace {

using namespace zonflow;

TEST(json_text, escapes_quotes_backslashes_and_control_characters) {
    EXPECT_EQ(json_string("a\"b\\c\n\r\t"), "\"a\\\"b\\\\c\\n\\r\\t\"");
    EXPECT_EQ(json_string(std::string_view("\0\x01\x1f\x7f", 4)), "\"\\u0000\\u0001\\u001f\x7f\"");
}

TEST(json_text, leaves_utf8_as_it_is) {
    for (const char* text : {"\xc3\xa9/", "\xe2\x82\xac", "\xed\x9f\xbf", "\xee\x80\x80",
                             "\xf0\x9f\x92\xa1", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(json_string(text), std::string("\"") + text + "\"");
    }
}

struct bytes_case {
    const char* name;
    const char* bytes;
    const char* text;
};

class bytes_that_are_no_utf8 : public testing::TestWithParam<bytes_case> {};

TEST_P(bytes_that_are_no_utf8, are_replaced_one_by_one) {
    EXPECT_EQ(json_string(GetParam().bytes), std::string("\"") + GetParam().text + "\"");
}

const bytes_case bytes_cases[] = {
    {"a_continuation_alone", "a\x80z", "a\\ufffdz"},
    {"a_lead_at_the_end", "a\xc3", "a\\ufffd"},
    {"a_lead_before_another_letter", "\xe2\x82z", "\\ufffd\\ufffdz"},
    {"an_overlong_slash", "\xc0\xaf", "\\ufffd\\ufffd"},
    {"an_overlong_sequence_of_three", "\xe0\x9f\xbf", "\\ufffd\\ufffd\\ufffd"},
    {"a_surrogate", "\xed\xa0\x80", "\\ufffd\\ufffd\\ufffd"},
    {"beyond_the_last_character", "\xf4\x90\x80\x80", "\\ufffd\\ufffd\\ufffd\\ufffd"},
    {"latin_1", "caf\xe9.pcap", "caf\\ufffd.pcap"},
};

INSTANTIATE_TEST_SUITE_P(json_text, bytes_that_are_no_utf8, testing::ValuesIn(bytes_cases),
                         [](const auto& row) { return row.param.name; });

TEST(json_text, keeps_fields_in_their_order) {
    json_object inner;
    inner.number("z", 1).number("a", 18446744073709551615u);
    json_object object;
    object.text("type", "x").object("inner", inner).boolean("yes", true).boolean("no", false);
    EXPECT_EQ(object.str(),
              R"({"type":"x","inner":{"z":1,"a":18446744073709551615},"yes":true,"no":false})");
}

TEST(json_text, writes_an_object_without_fields) {
    EXPECT_EQ(json_object().str(), "{}");
}

TEST(json_text, writes_what_is_not_known_as_null) {
    json_object object;
    object.null("a").number("b", 1);
    EXPECT_EQ(object.str(), R"({"a":null,"b":1})");
}

TEST(json_text, writes_times_with_six_decimals) {
    json_object object;
    object.seconds("a", 1'700'000'000'000'012).seconds("b", 999'999).seconds("c", 0);
    EXPECT_EQ(object.str(), R"({"a":1700000000.000012,"b":0.999999,"c":0.000000})");
}

}  // namespace

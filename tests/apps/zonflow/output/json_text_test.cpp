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
    EXPECT_EQ(json_string("\xc3\xa9/"), "\"\xc3\xa9/\"");
}

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

TEST(json_text, writes_times_with_six_decimals) {
    json_object object;
    object.seconds("a", 1'700'000'000'000'012).seconds("b", 999'999).seconds("c", 0);
    EXPECT_EQ(object.str(), R"({"a":1700000000.000012,"b":0.999999,"c":0.000000})");
}

}  // namespace

#include "platform/JSON.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

namespace kelvo::test {
namespace {

TEST(JSON, ReadsBackWhatItWrote) {
  const Value values[] = {std::numeric_limits<std::int64_t>::min(),
                          std::numeric_limits<std::int64_t>::max(),
                          std::numeric_limits<std::uint64_t>::max(),
                          0.1F,
                          -0.0,
                          1.0,
                          std::numeric_limits<double>::denorm_min(),
                          "quotes \" \\ / \t \x01 \u00e9 \U0001F600 end",
                          std::string("nul\0inside", 10),
                          std::string(5000, '"'),
                          Array{},
                          Dictionary{{"", nullptr}, {"z", Array{true, false}}, {"a\n", Dictionary{}}}};
  for (const Value& value : values) {
    const auto text = jsonText(value);
    ASSERT_TRUE(text);
    const auto back = parseJSON(*text);
    ASSERT_TRUE(back) << *text;
    EXPECT_EQ(*back, value) << *text;
    EXPECT_EQ(*jsonText(*back), *text);
    EXPECT_EQ(back->isInteger(), value.isInteger()) << *text;
  }
}

TEST(JSON, DoublesKeepTheirLastBit) {
  std::mt19937_64 random(288);
  for (int i = 0; i < 20000; ++i) {
    const auto number = std::bit_cast<double>(random());
    if (!std::isfinite(number)) continue;
    const auto back = parseJSON(*jsonText(number));
    ASSERT_TRUE(back);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(back->asDouble()), std::bit_cast<std::uint64_t>(number));
  }
}

TEST(JSON, WritesNothingItCannotHold) {
  Value deep = 1;
  for (int i = 0; i < 256; ++i) deep = Array{deep};
  EXPECT_TRUE(jsonText(deep));
  const struct {
    Value value;
    const char* error;
  } cases[] = {{Dictionary{{"a", Dictionary{{"token", Data{1}}}}}, "JSON cannot hold bytes (key: token)"},
               {Array{Date{}}, "JSON cannot hold a date"},
               {std::nan(""), "JSON cannot hold NaN"},
               {-std::numeric_limits<float>::infinity(), "JSON cannot hold an infinity"},
               {Array{deep}, "nested deeper than 256 levels"}};
  for (const auto& [value, reason] : cases) {
    std::string error;
    EXPECT_FALSE(jsonText(value, &error));
    EXPECT_EQ(error, reason);
  }
}

TEST(JSON, AcceptsTrailingCommasAndBareValues) {
  EXPECT_EQ(*jsonText(*parseJSON(" {\"a\" : [1, 2, ], } ")), R"({"a":[1,2]})");
  EXPECT_EQ(*jsonText(*parseJSON("\"\\u00e9\\ud83d\\ude00\"")), "\"\u00e9\U0001F600\"");
  EXPECT_EQ(*parseJSON("null"), Value());
  EXPECT_EQ(*jsonText(*parseJSON(R"({"a":1,"b":2,"a":3})")), R"({"a":3,"b":2})");
}

TEST(JSON, RefusesWithThePlaceOfTheFault) {
  const struct {
    std::string text;
    const char* error;
  } cases[] = {{"", "at offset 0"},        {"{\"a\":", "incomplete JSON at offset 5"},
               {"[1 2]", "at offset 3"},   {"[1]x", "extra data at offset 3"},
               {"// c\n1", "at offset 0"}, {"\"\xff\"", "at offset 1"},
               {"[1e999]", "exponent"},    {std::string(257, '[') + std::string(257, ']'), "too deep at offset 256"},
               {"{a:1}", "at offset 1"},   {"nan", "syntax"}};
  for (const auto& [text, reason] : cases) {
    std::string error;
    EXPECT_FALSE(parseJSON(text, &error)) << text;
    EXPECT_NE(error.find(reason), std::string::npos) << text << ": " << error;
  }
}

}  // namespace
}  // namespace kelvo::test

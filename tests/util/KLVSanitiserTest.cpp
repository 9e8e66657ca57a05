#include "util/KLVSanitiser.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/JSON.h"
#include "support/LogCapture.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo::test {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";  // U+FFFD

TEST(Sanitiser, ReplacesEachMaximalInvalidPartOfAText) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain \u00e9\u20ac\U0001F600\U0010FFFF", "plain \u00e9\u20ac\U0001F600\U0010FFFF"},
      {std::string("a\0b", 3), std::string("a\0b", 3)},
      {"a\xFF.", "a" + kReplacement + "."},
      {"\x80\x80", kReplacement + kReplacement},
      {"\xE2\x82", kReplacement},  // the start of a euro sign, at the end of the text
      {"\xE2\x82.", kReplacement + "."},
      {"\xF0\x9F\x98\u00e9", kReplacement + "\u00e9"},
      {"\xE0\x80\xAF", kReplacement + kReplacement + kReplacement},
      {"\xED\xA0\x80", kReplacement + kReplacement + kReplacement},                     // a surrogate
      {"\xF4\x90\x80\x80", kReplacement + kReplacement + kReplacement + kReplacement},  // above U+10FFFF
      {"........\xC3........\xE9", "........" + kReplacement + "........" + kReplacement}};
  for (const auto& [before, after] : cases) EXPECT_EQ(sanitised(std::optional<std::string>(before)), after);
  EXPECT_EQ(sanitised(std::optional<std::string>()), std::nullopt);
  EXPECT_EQ(sanitised(std::optional<Dictionary>()), std::nullopt);
}

TEST(Sanitiser, OneLineCannotControlATerminal) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain \\n ~", "plain \\n ~"},
      {"\r\n\t", R"(\r\n\t)"},
      {std::string("\0\x1b[31m\x7f", 7), R"(\x00\x1b[31m\x7f)"},
      {"\u0080\u009b\u009f\u00a0", "\\u0080\\u009b\\u009f\u00a0"},
      {"\u2027\u2028\u2029\u202a", "\u2027\\u2028\\u2029\u202a"},
      {"\u00e9\u20ac\U0001F600", "\u00e9\u20ac\U0001F600"},
      {"\x9b.\xE2\x82", R"(\x9b.\xe2\x82)"}};  // a C1 control character of other encodings; half a character
  for (const auto& [before, after] : cases) EXPECT_EQ(onOneLine(before), after);
}

TEST(Sanitiser, RepairsValuesAndWritesOneLinePerKindOfRepair) {
  const LogCapture log;
  const double infinity = std::numeric_limits<double>::infinity();
  const Dictionary clean{{"a", Array{1.5, "text", Dictionary{{"b", nullptr}}}}, {"d", Date{}}};
  EXPECT_EQ(sanitised(std::optional<Dictionary>(clean))->begin(), clean.begin())
      << "a clean argument shares its content";
  const auto before = log.lines().size();
  const Dictionary dirty{
      {"nan", std::nan("")},
      {"keep", Array{1, infinity, Dictionary{{"f", -std::numeric_limits<float>::infinity()}, {"g", 0.5F}}, "\xFF"}},
      {"k\xFF", 1},
      {"k\xFE", 2},
      {"bytes", Data{0xFF}}};
  const Dictionary expected{
      {"keep", Array{1, Dictionary{{"g", 0.5}}, kReplacement}}, {"k" + kReplacement, 2}, {"bytes", Data{0xFF}}};
  EXPECT_EQ(description(*sanitised(std::optional<Dictionary>(dirty))), description(expected));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size() - before, 2U);
  EXPECT_EQ(lines[before].find("<KLV WARN> NaN or infinity dropped"), 0U);
  EXPECT_EQ(lines[before + 1].find("<KLV WARN> Invalid UTF-8"), 0U);
}

/// A value that cleaning removes must not pass as clean, wherever it is.
TEST(Sanitiser, KnowsWhetherThereIsSomethingToClean) {
  const std::pair<Value, bool> cases[] = {{1, true},
                                          {-1.5, true},
                                          {2.5F, true},
                                          {true, true},
                                          {"text", true},
                                          {"", false},
                                          {"\xFF", true},
                                          {nullptr, false},
                                          {Data{1}, false},
                                          {Date{}, false},
                                          {Array{}, false},
                                          {Array{""}, true},
                                          {Dictionary{}, false},
                                          {Array{Array{}}, false},
                                          {Array{Dictionary{}}, false}};
  for (const auto& [value, isClean] : cases) {
    const Dictionary forms[] = {{{"a", value}}, {{"a", Array{value, 1}}}, {{"a", Array{1, Dictionary{{"b", value}}}}}};
    for (const Dictionary& form : forms) {
      const auto given = sanitisedAttributes(form);
      const auto* text = value.get<std::string>();
      const bool isElement = &form == &forms[1];  // an array keeps empty texts
      const bool isRepaired = text != nullptr && *text == "\xFF";
      EXPECT_EQ(given.isClean, !isRepaired && (isClean || (isElement && text != nullptr))) << description(form);
      if (given.isClean) {
        const auto cleaned = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(form);
        EXPECT_EQ(cleaned->begin(), form.begin()) << description(form);
      }
    }
  }
  EXPECT_FALSE(sanitisedAttributes(Dictionary()).isClean);
  EXPECT_TRUE(sanitisedAttributes(std::nullopt).isClean);
}

TEST(Sanitiser, KeepsSixtyFourLevelsAndNoMore) {
  const auto nested = [](int levels) {
    Value value = Array{"deepest"};
    for (int i = 2; i < levels; ++i) value = Array{std::move(value)};
    return Dictionary{{"a", std::move(value)}};
  };
  const LogCapture log;
  for (const int levels : {64, 65, 1'000'000}) {
    const std::string text = *jsonText(*sanitised(std::optional<Dictionary>(nested(levels))));
    EXPECT_EQ(std::count(text.begin(), text.end(), '['), 63) << "the dictionary is the first level";
    EXPECT_EQ(text.find("deepest") != std::string::npos, levels == 64);
  }
  EXPECT_EQ(log.count("<KLV WARN> Value dropped: it is nested deeper than 64 levels"), 2U);
}

}  // namespace
}  // namespace kelvo::test

#include "platform/JSON.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "platform/SlicedText.h"
#include "platform/WrittenJSON.h"

namespace kelvo::test {
namespace {

constexpr std::size_t kDeepest = 5;

bool isRead(const std::string& text) {
  return WrittenJSON().read(text, kDeepest);
}

TEST(WrittenJSON, TakesEveryTextOfTheWriterAndNoOther) {
  const std::string texts[] = {
      "{}", R"({"":0,"a":-1,"b":9223372036854775807,"c":18446744073709551615,"d":-9223372036854775808})",
      R"({"a":0.1,"b":-0.0,"c":12.5,"d":1e+20,"e":2.2250738585072014e-308,"f":1e-05,"g":0.0001,"h":1234567890123456.0})",
      R"({"a":[],"b":{},"c":[[{"x":[1]}]],"d":[true,false,null,"x"]})",
      "{\"\\b\\t\\n\\f\\r\\\"\\\\\\u0000\\u001f\":\"\x7F\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\"}"};
  for (const std::string& text : texts) {
    EXPECT_EQ(jsonText(parseJSON(text).value()), text);
    EXPECT_TRUE(isRead(text)) << text;
    // Only the writer's own texts are taken: what is taken must read and write back unchanged.
    for (std::size_t at = 0; at <= text.size(); ++at) {
      for (int byte = 0; byte < 256; ++byte) {
        const std::string one(1, static_cast<char>(byte));
        for (const std::size_t replaced : {0U, 1U}) {
          if (at + replaced > text.size()) continue;
          const std::string edited = std::string(text).replace(at, replaced, one);
          if (!isRead(edited)) continue;
          const auto value = parseJSON(edited);
          ASSERT_TRUE(value && jsonText(*value) == edited) << edited;
        }
      }
      ASSERT_EQ(isRead(text.substr(0, at)), at == text.size()) << text.substr(0, at);
    }
  }
  std::minstd_rand random(1);
  std::size_t plain = 0;
  for (int count = 0; count < 20000; ++count) {
    std::string number = std::to_string(random()).substr(0, random() % 9) + "." + std::to_string(random());
    number = number.substr(0, 1 + random() % 20);
    if (random() % 3 == 0) number.insert(number.find('.') + 1, random() % 6, '0');
    const auto value = parseJSON("{\"a\":" + number + "}");
    const bool isWritten = value && jsonText(*value) == "{\"a\":" + number + "}";
    ASSERT_EQ(isRead("{\"a\":" + number + "}"), isWritten) << number;
    plain += isWritten;
  }
  EXPECT_GT(plain, 1000U);
  for (const char* other : {"", "[]", "1", "{} ", R"({"a":1,"a":1})", R"({"a":{"b":1,"b":1}})", R"({"a":1,})",
                            R"({"a":[[[[[]]]]]})", "{\"a\":\"\xC0\x80\"}", "{\"a\":\"\xED\xA0\x80\"}"}) {
    EXPECT_FALSE(isRead(other)) << other;
  }
}

TEST(WrittenJSON, ReturnsTheMembersOfTheOutermostDictionary) {
  WrittenJSON json;
  ASSERT_TRUE(json.read(R"({"a":{"x":1},"b\n":[1,"]"]})", kDeepest));
  ASSERT_EQ(json.members().size(), 2U);
  EXPECT_EQ(json.members()[0].key, "a");
  EXPECT_EQ(json.members()[0].value, R"({"x":1})");
  EXPECT_EQ(json.members()[1].key, "b\\n");
  EXPECT_EQ(json.members()[1].value, R"([1,"]"])");
}

TEST(SlicedText, ReadsTheSameBytesFromEveryPlace) {
  std::string expected;
  for (int number = 0; number < 60000; ++number) expected += std::to_string(number);
  SlicedText text, end;
  text.append(std::string_view(expected).substr(0, 100000));
  end.append(std::string_view(expected).substr(100000, 150000));
  text.splice(std::move(end));
  text.append(std::string_view(expected).substr(250000));
  EXPECT_EQ(text.size(), expected.size());
  EXPECT_TRUE(text.inOnePiece() == expected);
  SlicedText::Reader reader(text);
  std::string part(70000, '\0');
  for (const std::size_t place :
       {0UL, 1UL, 65535UL, 65536UL, 100000UL, 249999UL, expected.size() - 1, expected.size()}) {
    ASSERT_TRUE(reader.seek(place));
    const std::size_t count = reader.read(part.data(), part.size());
    EXPECT_EQ(count, std::min(part.size(), expected.size() - place));
    EXPECT_TRUE(part.substr(0, count) == expected.substr(place, count)) << place;
  }
  EXPECT_EQ(reader.read(part.data(), part.size()), 0U);
  SlicedText shortText("a");
  shortText.splice("b");
  EXPECT_EQ(shortText.onlySlice(), "ab");
  EXPECT_FALSE(text.onlySlice());
  EXPECT_FALSE(reader.seek(expected.size() + 1));
}

}  // namespace
}  // namespace kelvo::test

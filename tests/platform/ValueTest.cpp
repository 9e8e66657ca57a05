#include "kelvo/Value.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <thread>

#include "platform/JSON.h"

namespace kelvo::test {
namespace {

constexpr std::int64_t kMinimum = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMaximum = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kLargestDouble = std::numeric_limits<double>::max();

TEST(Value, ConversionsClampToTheRangeOfTheResult) {
  const struct {
    Value value;
    std::int64_t asInt64;
    std::uint64_t asUInt64;
    double asDouble;
    bool asBool;
  } cases[] = {{nullptr, 0, 0, 0, false},
               {kLargest, kMaximum, kLargest, 18446744073709551616.0, true},
               {-2.9, -2, 0, -2.9, true},
               {9223372036854775808.0, kMaximum, std::uint64_t{1} << 63, 9223372036854775808.0, true},
               {-kInfinity, kMinimum, 0, -kInfinity, true},
               {"  +42 apples", 42, 42, 42, false},
               {"-99999999999999999999", kMinimum, 0, -1e20, false},
               {"1e999", 1, 1, kLargestDouble, true},
               {"+-3", 0, 0, 0, false},
               {"yes", 0, 0, 0, true},
               {Array{1}, 0, 0, 0, false}};
  for (const auto& [value, asInt64, asUInt64, asDouble, asBool] : cases) {
    SCOPED_TRACE(description(value));
    EXPECT_EQ(value.asInt64(), asInt64);
    EXPECT_EQ(value.asUInt64(), asUInt64);
    EXPECT_EQ(value.asDouble(), asDouble);
    EXPECT_EQ(value.asBool(), asBool);
  }
  EXPECT_EQ(Value(kNaN).asInt64(), 0);
  EXPECT_EQ(Value(kNaN).asUInt64(), 0U);
}

TEST(Value, HasADescription) {
  const std::pair<Value, const char*> cases[] = {
      {nullptr, "(null)"},
      {kLargest, "18446744073709551615"},
      {288.0, "288"},
      {0.1F, "0.1"},
      {-kNaN, "nan"},
      {Data{0x0A, 0xFF}, "0aff"},
      {Date{std::chrono::milliseconds(-1)}, "1969-12-31 23:59:59 +0000"},
      {Array{1, "a\n", nullptr, true, 1.0}, R"([1,"a\n",null,true,1.0])"},
      {Dictionary{{"z", 1}, {"a", Dictionary{{"n", kNaN}, {"d", Date{}}, {"b", Data{1}}}}},
       R"({"z":1,"a":{"n":"nan","d":"1970-01-01 00:00:00 +0000","b":"01"}})"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(description(value), text);
}

TEST(Value, ComparesNumbersExactlyAcrossTypes) {
  EXPECT_NE(Value(std::int64_t{-1}), Value(kLargest));
  EXPECT_NE(Value(9007199254740993), Value(9007199254740992.0)) << "equal only when rounded to a double";
  EXPECT_NE(Value(kMaximum), Value(9223372036854775808.0));
  EXPECT_NE(Value("1"), Value(1));
  EXPECT_EQ(Value(Array{1, Dictionary{{"a", 1}, {"b", true}}}), Value(Array{1.0, Dictionary{{"b", 1}, {"a", true}}}));
  EXPECT_NE(Value(Dictionary{{"a", nullptr}}), Value(Dictionary{{"b", nullptr}}));
}

/// Compares a dictionary with a plain list of pairs, at sizes with and without the hash table.
TEST(Dictionary, KeepsKeysAndOrderThroughManyChanges) {
  std::mt19937 random(288);
  Dictionary dictionary;
  std::vector<std::pair<std::string, int>> model;
  for (int step = 0; step < 4000; ++step) {
    const bool shrinks = (step / 500) % 2 == 1;
    const std::string key = "key" + std::to_string(random() % 60);
    const auto place = std::find_if(model.begin(), model.end(), [&](const auto& entry) { return entry.first == key; });
    if (random() % 4 == 0 || (shrinks && random() % 2 == 0)) {
      dictionary.remove(key);
      if (place != model.end()) model.erase(place);
    } else {
      dictionary.set(key, step);
      place == model.end() ? void(model.emplace_back(key, step)) : void(place->second = step);
    }
    ASSERT_EQ(dictionary.size(), model.size());
    const Dictionary::Entry* entry = dictionary.begin();
    for (const auto& [name, value] : model) {
      ASSERT_EQ(entry->first, name);
      ASSERT_EQ(entry++->second, Value(value));
      ASSERT_EQ(dictionary[name], Value(value));
    }
  }
}

TEST(Dictionary, StaysFastWithAHundredThousandKeys) {
  Dictionary dictionary;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100'000; ++i) dictionary.set(std::to_string(i), i);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "a linear lookup takes minutes";
}

TEST(CopyOnWrite, AChangeIsNeverVisibleInAnotherCopy) {
  Dictionary first{{"a", 0}, {"b", "text"}, {"a", Array{1, 2}}};
  Dictionary second = first;
  EXPECT_EQ(first.begin(), second.begin()) << "a copy shares the content";
  second.set("a", 3);
  second.remove("b");
  EXPECT_EQ(*jsonText(first), R"({"a":[1,2],"b":"text"})");
  EXPECT_EQ(*jsonText(second), R"({"a":3})");

  Array array = *first["a"].get<Array>();
  array.append(array);  // into itself
  EXPECT_EQ(*jsonText(array), "[1,2,[1,2]]");
  const Dictionary shared = first;
  first.set(first.begin()->first, first["b"]);  // key and value belong to the replaced content
  first.set(*first["b"].get<std::string>(), first["b"]);
  first.set("self", first);
  EXPECT_EQ(*jsonText(first), R"({"a":"text","b":"text","text":"text","self":{"a":"text","b":"text","text":"text"}})");
  first = *first["self"].get<Dictionary>();  // this assignment destroys its owner
  EXPECT_EQ(first.size(), 3U);
}

TEST(CopyOnWrite, CopiesMayBeUsedOnDifferentThreads) {
  Dictionary original{{"list", Array{1, "two"}}, {"text", std::string(100, 'x')}};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = original, t] {
      for (int i = 0; i < 500; ++i) {
        Dictionary own = copy;
        Array list = *own["list"].get<Array>();
        list.append(i);
        own.set("list", list);
        own.set("thread", t);
        ASSERT_EQ(copy.size(), 2U) << "a change is visible in the original";
      }
    });
  }
  original.set("text", "changed while others read the old content");
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(original["list"].get<Array>()->size(), 2U);
}

TEST(Nesting, OfAnyDepthIsDestroyedComparedAndDescribedWithoutAStackOverflow) {
  const auto chain = [](const Value& end) {
    Value value = end;
    for (int i = 0; i < 1'000'000; ++i) {
      value = i % 2 == 0 ? Value(Array{std::move(value)}) : Value(Dictionary{{"k", std::move(value)}});
    }
    return value;
  };
  const Value one = chain(1);
  EXPECT_EQ(one, chain(1));
  EXPECT_NE(one, chain(2));
  EXPECT_NE(description(one).find("\"...\""), std::string::npos);
}

// --- JSON

TEST(JSON, ParsesItsOwnOutput) {
  std::vector<Value> values{kMinimum, kMaximum, kLargest, 0.1F, -0.0, 1.0, std::numeric_limits<double>::denorm_min()};
  values.emplace_back(Array{"quotes \" \\ / \t \x01 \u00e9 \U0001F600 end", std::string("nul\0inside", 10)});
  values.emplace_back(Array{std::string(5000, '"'), Array{}, Dictionary{{"", nullptr}, {"a\n", Array{true, false}}}});
  std::mt19937_64 random(288);
  for (int i = 0; i < 20000; ++i) {
    if (const auto number = std::bit_cast<double>(random()); std::isfinite(number)) values.emplace_back(number);
  }
  for (const Value& value : values) {
    const std::string text = jsonText(value).value();
    const Value back = parseJSON(text).value();
    ASSERT_EQ(back, value) << text;
    ASSERT_EQ(jsonText(back), text);
    ASSERT_EQ(back.isInteger(), value.isInteger()) << text;
  }
}

TEST(JSON, RefusesValuesThatItCannotRepresent) {
  Value deep = 1;
  for (int i = 0; i < 256; ++i) deep = Array{deep};
  EXPECT_TRUE(jsonText(deep));
  const std::pair<Value, const char*> cases[] = {
      {Dictionary{{"a", Dictionary{{"token", Data{1}}}}}, "JSON cannot hold bytes (key: token)"},
      {std::nan(""), "JSON cannot hold NaN"},
      {-std::numeric_limits<float>::infinity(), "JSON cannot hold an infinity"},
      {Array{deep}, "nested deeper than 256 levels"}};
  for (const auto& [value, reason] : cases) {
    std::string error;
    EXPECT_FALSE(jsonText(value, &error));
    EXPECT_EQ(error, reason);
  }
}

TEST(JSON, AcceptsTrailingCommasAndReportsTheOffsetOfOtherFaults) {
  EXPECT_EQ(*jsonText(*parseJSON(R"( {"a" : [1, 2, ], "b":2,"a":3, } )")), R"({"a":3,"b":2})");
  const std::pair<std::string, const char*> cases[] = {
      {"", "at offset 0"},        {"{\"a\":", "incomplete JSON at offset 5"},
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

#include "core/AttributeFlattening.h"

#include <gtest/gtest.h>

#include "platform/JSON.h"

namespace kelvo::test {
namespace {

struct Case {
  const char* name;
  const char* input;
  const char* depth1;
  const char* depth2;
};

const Case kCases[] = {
    {"nestedDictionaries", R"({"a":1,"b":{"c":"x","d":{"e":2}},"f":[1,2]})",
     R"({"a":1,"b":"{\"c\":\"x\",\"d\":{\"e\":2}}","f":[1,2]})", R"({"a":1,"b_c":"x","b_d":"{\"e\":2}","f":[1,2]})"},
    {"emptyArray", R"({"f":[]})", "{}", "{}"},
    {"arrayOfDictionaries", R"({"g":[{"h":1},{"h":2}]})", R"({"g":"{\"h\":2}"})", R"({"g_h":["1","2"]})"},
    {"collisionsGather", R"({"a":[{"b":"x"},{"b":2},{"b":3}]})", R"({"a":"{\"b\":3}"})", R"({"a_b":["x","2",3]})"},
    {"arrayOfArrays", R"({"a":[[1,2],["x"]]})", R"({"a":["[1,2]","[\"x\"]"]})", R"({"a":["[1,2]","[\"x\"]"]})"},
    {"mixedFromText", R"({"a":["x",1]})", R"({"a":["x",1]})", R"({"a":["x",1]})"},
    {"mixedFromNumber", R"({"a":[1,{"b":2}]})", R"({"a":[1,{"b":2}]})", R"({"a":[1,{"b":2}]})"},
    {"mixedFromArray", R"({"a":[[1],"x"]})", R"({"a":["[1]","\"x\""]})", R"({"a":["[1]","\"x\""]})"},
    {"mixedFromDictionary", R"({"a":[{"b":1},"x"]})", R"({"a":"\"x\""})", R"({"a":"[{\"b\":1},\"x\"]","a_b":1})"},
    {"arrayInDictionary", R"({"a":{"b":[{"c":1}],"d":[1]}})", R"({"a":"{\"b\":[{\"c\":1}],\"d\":[1]}"})",
     R"({"a_b":"{\"c\":1}","a_d":[1]})"},
    {"nullsAndBools", R"({"a":null,"b":true,"c":[null,1]})", R"({"b":true})", R"({"b":true})"},
};

class Flattening : public testing::TestWithParam<Case> {};

TEST_P(Flattening, GivesOneLevelOfKeys) {
  const Dictionary input = *parseJSON(GetParam().input)->get<Dictionary>();
  EXPECT_EQ(jsonText(getFlatDictionary(input, 1)), GetParam().depth1);
  EXPECT_EQ(jsonText(getFlatDictionary(input, 2)), GetParam().depth2);
}

INSTANTIATE_TEST_SUITE_P(Table, Flattening, testing::ValuesIn(kCases),
                         [](const auto& test) { return test.param.name; });

TEST(Flattening, DropsDatesAndBytesAndKeepsUpWithManyCollisions) {
  Array many;
  for (int i = 0; i < 20000; ++i) many.append(Dictionary{{"n", i}});
  const Dictionary flat = getFlatDictionary({{"d", Date()}, {"b", Data{1}}, {"many", many}}, 2);
  EXPECT_EQ(flat.size(), 1u);
  EXPECT_EQ(flat["many_n"].get<Array>()->size(), 20000u);
}

}  // namespace
}  // namespace kelvo::test

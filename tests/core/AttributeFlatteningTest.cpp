#include "core/AttributeFlattening.h"

#include <gtest/gtest.h>

#include "platform/JSON.h"

namespace kelvo::test {
namespace {

TEST(Flattening, MakesOneLevelOfKeysFromNestedAttributes) {
  const struct {
    const char *input, *depth1, *depth2;
  } cases[] = {
      {R"({"a":1,"b":{"c":"x","d":{"e":2}},"f":["y",1]})", R"({"a":1,"b":"{\"c\":\"x\",\"d\":{\"e\":2}}","f":["y",1]})",
       R"({"a":1,"b_c":"x","b_d":"{\"e\":2}","f":["y",1]})"},
      {R"({"g":[{"h":1},{"h":2}],"f":[]})", R"({"g":["{\"h\":1}","{\"h\":2}"]})", R"({"g_h":["1","2"]})"},
      {R"({"a":[{"b":"x"},{"b":2},{"b":3}]})", R"({"a":["{\"b\":\"x\"}","{\"b\":2}","{\"b\":3}"]})",
       R"({"a_b":["x","2",3]})"},
      {R"({"a":[[1,2],["x"]]})", R"({"a":["[1,2]","[\"x\"]"]})", R"({"a":["[1,2]","[\"x\"]"]})"},
      {R"({"a":{"b":[{"c":1}],"d":[1]}})", R"({"a":"{\"b\":[{\"c\":1}],\"d\":[1]}"})",
       R"({"a_b":"{\"c\":1}","a_d":[1]})"},
      {R"({"a":{"b":[{"c":1},{"c":2}]},"a_b":[{"d":3}]})", R"({"a":"{\"b\":[{\"c\":1},{\"c\":2}]}","a_b":"{\"d\":3}"})",
       R"({"a_b":["{\"c\":1}","{\"c\":2}"],"a_b_d":3})"},
      // Mixed arrays: the first element decides.
      {R"({"a":[1,{"b":2}]})", R"({"a":[1,{"b":2}]})", R"({"a":[1,{"b":2}]})"},
      {R"({"a":[[1],"x"]})", R"({"a":["[1]","\"x\""]})", R"({"a":["[1]","\"x\""]})"},
      {R"({"a":[{"b":1},"x"]})", R"({"a":["{\"b\":1}","\"x\""]})", R"({"a":"[{\"b\":1},\"x\"]","a_b":1})"},
      {R"({"a":null,"b":true,"c":[null,1]})", R"({"b":true})", R"({"b":true})"}};
  for (const auto& [input, depth1, depth2] : cases) {
    const Dictionary attributes = parseJSON(input)->asDictionary().value();
    EXPECT_EQ(jsonText(getFlatDictionary(attributes, 1)), depth1) << input;
    EXPECT_EQ(jsonText(getFlatDictionary(attributes, 2)), depth2) << input;
  }
}

TEST(Flattening, DropsDatesAndBytesAndGathersManyValuesOfOneKeyFast) {
  Array many;
  for (int i = 0; i < 20000; ++i) many.append(Dictionary{{"n", i}});
  const Dictionary flat = getFlatDictionary({{"d", Date()}, {"b", Data{1}}, {"many", many}}, 2);
  EXPECT_EQ(flat.size(), 1u);
  EXPECT_EQ(flat["many_n"].get<Array>()->size(), 20000u);
}

}  // namespace
}  // namespace kelvo::test

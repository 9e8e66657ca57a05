#include "kelvo-collector/ChunkValidation.h"

#include <gtest/gtest.h>

#include "CollectorTest.h"

namespace kelvo::test {
namespace {

using collector::faultOfChunk;

TEST(ChunkValidation, AChunkWithEveryKindOfEventPassesAndSoDoesOneWithoutTheOptionalMembers) {
  EXPECT_EQ(faultOfChunk(*parseJSON(kSampleChunk)), std::nullopt);

  std::string bare = kSampleChunk;
  bare.replace(bare.find(",\n    \"user_events\""), std::string::npos, "}}");
  EXPECT_EQ(faultOfChunk(*parseJSON(bare)), std::nullopt);
  EXPECT_EQ(faultOfChunk(*parseJSON(sampleChunk(R"(, "additional_info": {"plan": "gold"})", ""))), std::nullopt);
  EXPECT_EQ(faultOfChunk(*parseJSON(sampleChunk("12.5", "0"))), std::nullopt);
  EXPECT_EQ(faultOfChunk(Value("chunk")), "the body is not an object");
}

TEST(ChunkValidation, OneWrongMemberIsNamed) {
  const struct {
    const char *from, *to, *fault;
  } cases[] = {
      {R"("sdk_info")", R"("sdk")", "sdk_info is missing"},
      {R"("chunk_meta": {"id": "1700000000123-D1_3", "number": 3, "reporting_times": [1700000030000]})",
       R"("chunk_meta": [])", "chunk_meta is not an object"},
      {R"("launch_time": 1700000000123)", R"("launch_time": 1700000000123.5)",
       "session_info.launch_time is not an integer"},
      {R"("is_first_session": true)", R"("is_first_session": 1)", "session_info.is_first_session is not a boolean"},
      {R"("app_name": "Shop", )", "", "app_info.app_name is missing"},
      {R"({"id": "D1")", R"({"id": 1)", "device_info.id is not a text"},
      {R"("height": 0.5)", R"("height": null)", "device_info.dimensions.height is not a number"},
      {R"("number": 3)", R"("number": 0)", "chunk_meta.number is not positive"},
      {R"(D1_3)", R"(D1_2)", R"(chunk_meta.id is not session_info.id, "_" and chunk_meta.number)"},
      {"[1700000030000]", "[1, 2]", "chunk_meta.reporting_times does not hold exactly one time"},
      {R"("count": 4)", R"("count": 4.0)", "chunk_details.agg_events[0].count is not an integer"},
      {R"([["up", 3], [null, 1]])", R"("up")", "chunk_details.agg_events[0].attributes.dir is not an array"},
      {"[null, 1]", R"(["down", "1"])", "chunk_details.agg_events[0].attributes.dir[1] is not a value and its count"},
      {R"([{"name": "FOREGROUND", "time": 0}])", "{}", "chunk_details.system_events is not an array"},
      {"3.25", "\"long\"", "chunk_details.navigation_events[0].duration is not a number"},
      {R"("time": 5)", R"("time": 5.5)", "chunk_details.app_events[1].time is not an integer"},
      {R"("type": "UserInteraction")", R"("type": 3)", "chunk_details.user_events[0].type is not a text"},
      {R"({"id": "Tap")", R"(null, {"id": "Tap")", "chunk_details.user_events[0] is not an object"}};
  for (const auto& c : cases) {
    const auto body = parseJSON(sampleChunk(c.from, c.to));
    ASSERT_TRUE(body) << c.fault;
    EXPECT_EQ(faultOfChunk(*body).value_or("none"), c.fault) << c.from << " -> " << c.to;
  }
}

TEST(UserInfoValidation, TheVersionIsATextThere) {
  Dictionary body = *parseJSON(kSampleChunk)->get<Dictionary>();
  Dictionary device = *body["device_info"].get<Dictionary>();
  device.set("device_registration_token", "t");
  body.set("device_info", device);
  body.set("user_attributes", Dictionary());
  body.set("sdk_version", 288);
  EXPECT_EQ(collector::faultOfUserInfo(body), "sdk_version is not a text");
  body.set("sdk_version", "288");
  EXPECT_EQ(collector::faultOfUserInfo(body), std::nullopt);
}

}  // namespace
}  // namespace kelvo::test

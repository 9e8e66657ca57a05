#include "kelvo-collector/ChunkValidation.h"

#include <gtest/gtest.h>

#include "CollectorTest.h"

namespace kelvo::test {
namespace {

using collector::faultOfChunk;

TEST(ChunkValidation, OneWrongMemberIsNamed) {
  EXPECT_EQ(faultOfChunk(Value("chunk")), "the body is not an object");
  const struct {
    const char *from, *to, *fault;
  } cases[] = {
      {R"("sdk_info")", R"("sdk")", "sdk_info is missing"},
      {R"("chunk_meta": {"id": "1700000000123-D1_3", "number": 3, "reporting_times": [1700000030000]})",
       R"("chunk_meta": [])", "chunk_meta is not an object"},
      {R"("launch_time": 1700000000123)", R"("launch_time": 1700000000123.5)",
       "session_info.launch_time is not an integer"},
      {R"("is_first_session": true)", R"("is_first_session": 1)", "session_info.is_first_session is not a boolean"},
      {R"({"id": "D1")", R"({"id": 1)", "device_info.id is not a text"},
      {R"("height": 0.5)", R"("height": null)", "device_info.dimensions.height is not a number"},
      {R"(D1_3)", R"(D1_2)", R"(chunk_meta.id is not session_info.id, "_" and chunk_meta.number)"},
      {"[1700000030000]", "[1, 2]", "chunk_meta.reporting_times does not hold exactly one time"},
      {R"([["up", 3], [null, 1]])", R"("up")", "chunk_details.agg_events[0].attributes.dir is not an array"},
      {"[null, 1]", R"(["down", "1"])", "chunk_details.agg_events[0].attributes.dir[1] is not a value and its count"},
      {R"([{"name": "FOREGROUND", "time": 0}])", "{}", "chunk_details.system_events is not an array"},
      {R"("time": 5)", R"("time": 5.5)", "chunk_details.app_events[1].time is not an integer"},
      {R"({"id": "Tap")", R"(null, {"id": "Tap")", "chunk_details.user_events[0] is not an object"}};
  for (const auto& c : cases) {
    const auto body = parseJSON(sampleChunk(c.from, c.to));
    ASSERT_TRUE(body) << c.fault;
    EXPECT_EQ(faultOfChunk(*body).value_or("none"), c.fault) << c.from << " -> " << c.to;
  }
}

}  // namespace
}  // namespace kelvo::test

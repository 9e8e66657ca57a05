#include "kelvo-collector/Server.h"

#include <gtest/gtest.h>

#include <future>

#include "CollectorTest.h"

namespace kelvo::test {
namespace {

using collector::Script;
using namespace std::chrono_literals;

using CollectorServer = ServingCollector;

TEST_F(CollectorServer, KeepsAcceptedChunksAndTellsRepeatsFromConflicts) {
  EXPECT_EQ(postChunk().status, 200);
  std::string again = sampleChunk("[1700000030000]", "[1700000099000]");
  const std::string event = R"({"name": "Open", "time": 1})";
  again.replace(again.find(event), event.size(), R"({"time": 1, "name": "Open"})");
  EXPECT_EQ(postChunk(again).status, 200);
  EXPECT_EQ(postChunk(sampleChunk("\"time\": 5", "\"time\": 6")).status, 200);
  EXPECT_EQ(send("POST", "/v2/api/other/chunks", sampleChunk("Buy", "Sell")).status, 200);
  ASSERT_TRUE(server.waitForChunks(4));
  EXPECT_EQ(server.chunks()[0], server.requests("/chunks")[0].json());

  const Dictionary listed = get("/debug/chunks").json();
  EXPECT_EQ(in(listed, {"chunks", "0", "session"}), Value("1700000000123-D1"));
  EXPECT_EQ(in(listed, {"chunks", "0", "number"}), Value(3));
  EXPECT_EQ(in(listed, {"chunks", "0", "events", "app_events"}), Value(2));
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(in(listed, {"chunks", std::to_string(i), "duplicate"}), Value(i == 1)) << i;
    EXPECT_EQ(in(listed, {"chunks", std::to_string(i), "conflict"}), Value(i == 2)) << i;
  }
  EXPECT_EQ(get("/debug/chunks?after=3").json()["chunks"].get<Array>()->size(), 1U);
}

TEST_F(CollectorServer, WhatIsWrongIsAnsweredWithAReasonAndListed) {
  const CurlResult refused = postChunk(sampleChunk("\"time\": 5", "\"time\": null"));
  EXPECT_EQ(refused.status, 400);
  EXPECT_EQ(refused.json()["error"], Value("chunk_details.app_events[1].time is not an integer"));
  for (const char* body : {"", "{", "\xff\xfe", "[1,", "{\"a\": 1}x"}) {
    EXPECT_EQ(postChunk(body).status, 400) << body;
  }
  EXPECT_EQ(postChunk(std::string(5000, '[') + std::string(5000, ']')).status, 400);
  EXPECT_EQ(send("POST", "/v2/api/user?appId=app7", "{}").json()["error"], Value("sdk_version is missing"));
  EXPECT_EQ(get("/v2/api/config/%ff/ios").status, 400);
  const CurlResult unknown = get("/v2/api/a/b/chunks");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_NE(unknown.body.find("\"POST /v2/api/<app-id>/chunks\""), std::string::npos);
  const CurlResult method = get("/v2/api/app7/chunks", "--include -X DELETE");
  EXPECT_EQ(method.status, 405);
  EXPECT_NE(method.body.find("Allow: POST"), std::string::npos);
  EXPECT_EQ(get("/v2/api/app7/chunks", "-X BREW").status, 400);

  EXPECT_TRUE(server.chunks().empty());
  const Dictionary listed = get("/debug/requests").json();
  EXPECT_EQ(listed["requests"].get<Array>()->size(), 11U);
  EXPECT_EQ(in(listed, {"requests", "0", "status"}), Value(400));
  EXPECT_NE(in(listed, {"requests", "0", "body"}).get<Dictionary>(), nullptr);
  EXPECT_EQ(in(listed, {"requests", "3", "body"}), Value("??"));
}

TEST_F(CollectorServer, EachScriptLooksToTheClientAsItSays) {
  const struct {
    const char* name;
    Script script;
    int exitCode, status;
    std::size_t accepted;
    int recorded;
  } cases[] = {
      {"refusal", {503, "busy"}, 0, 503, 0, 503},       {"empty success", 200, 0, 200, 0, 200},
      {"garbage", Script::garbage(), 0, 200, 0, 200},   {"cut", Script::cut(), 56, 0, 0, 0},
      {"cut short", Script::cutShort(), 18, 200, 0, 0}, {"answer lost", Script::losingTheAnswer(), 56, 0, 1, 0},
      {"late", Script::late(50ms), 0, 200, 1, 200},     {"too late", Script::late(1h), 28, 0, 1, 200},
      {"never", Script::never(), 28, 0, 0, 0}};
  std::size_t accepted = 0;
  for (const auto& c : cases) {
    server.answer("/chunks", c.script);
    const CurlResult result = postChunk(kSampleChunk, c.exitCode == 28 ? "--max-time 0.3" : "--max-time 20");
    EXPECT_EQ(result.exitCode, c.exitCode) << c.name;
    EXPECT_EQ(result.status, c.status) << c.name;
    EXPECT_EQ(server.chunks().size(), accepted += c.accepted) << c.name;
    EXPECT_EQ(server.requests("/chunks").back().status, c.recorded) << c.name;
    EXPECT_EQ(get("/v2/api/config/app7/ios").status, 200) << c.name;
  }
  server.answerNormally("/chunks");
  EXPECT_EQ(postChunk().status, 200);
}

TEST_F(CollectorServer, ScriptsTakeTurnsAndTheFragmentSetLastWins) {
  server.answerInTurn("/sync", {Script(500).times(2), 404, Script(503).times(1)});
  const auto statuses = [&](int count) {
    std::vector<int> seen;
    for (int i = 0; i < count; ++i) seen.push_back(get("/v2/sync/app7/client-events").status);
    return seen;
  };
  EXPECT_EQ(statuses(5), (std::vector<int>{500, 500, 404, 503, 200}));
  server.answer("/sync", 500);
  server.answer("client-events", Script(418).times(1));
  EXPECT_EQ(statuses(2), (std::vector<int>{418, 500}));
}

TEST_F(CollectorServer, HangingRequestsHoldUpNeitherOthersNorTheEnd) {
  server.answer("/rta", Script::never());
  auto hanging = std::async(std::launch::async, [this] {
    return get("/v2/sync/app7/rta?n=[1-40]", "--parallel --parallel-immediate --parallel-max 40");
  });
  ASSERT_TRUE(server.waitFor(40, "/rta"));
  EXPECT_EQ(get("/v2/api/config/app7/ios").status, 200);
  server.stop();
  EXPECT_NE(hanging.get().exitCode, 0);
  EXPECT_EQ(get("/debug/chunks").exitCode, 7);

  // The network is back: the same port, the same store.
  EXPECT_EQ(server.start(port), port);
  EXPECT_EQ(get("/debug/requests").json()["requests"].get<Array>()->size(), 41U);
}

}  // namespace
}  // namespace kelvo::test

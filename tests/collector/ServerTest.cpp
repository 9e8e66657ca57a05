#include "kelvo-collector/Server.h"

#include <gtest/gtest.h>

#include <future>

#include "CollectorTest.h"
#include "kelvo-collector/ServiceState.h"

namespace kelvo::test {
namespace {

using collector::Script;
using namespace std::chrono_literals;

class CollectorServer : public testing::Test {
 protected:
  CollectorServer() { port = server.start(); }

  [[nodiscard]] std::string url(const std::string& path) const { return server.baseURL() + path; }
  [[nodiscard]] CurlResult get(const std::string& path) const { return curl("'" + url(path) + "'"); }
  [[nodiscard]] CurlResult postChunk(const std::string& body = kSampleChunk, const std::string& more = {}) const {
    return post(url("/v2/api/app7/chunks"), body, more);
  }

  collector::Server server;
  int port = 0;
};

TEST_F(CollectorServer, AnswersTheSwitchAndTheConfigurationOfTheAskingApplication) {
  const Dictionary details = *get("/v2/api/config/a%20b/ios").json()["details"].get<Dictionary>();
  EXPECT_EQ((*details["service_paths"].get<Dictionary>())["chunk_paths"], Value("/v2/api/a b/chunks"));
  for (const bool enabled : {true, false}) {
    server.state().setEnabled(enabled);
    EXPECT_EQ(get("/v2/api/app7/sdk/enabled-status").json()["enabled"], Value(enabled));
  }
}

TEST_F(CollectorServer, AnnouncesActionsAndSendsThoseThatAreAskedFor) {
  server.state().setActions("rta", {{"P1", "M1", {{"text", "hi"}}}, {"P2", "M7", {{"_id", "own"}}}});
  EXPECT_EQ(get("/v2/sync/app7/validate?actionType=rta").json()["pid_mid"], Value("P1_M1,P2_M7"));

  const auto configs = [&](const std::string& path) { return *get(path).json()["configs"].get<Array>(); };
  EXPECT_EQ(configs("/v2/sync/app7/rta?actionType=rta").size(), 2U);
  const Array asked = configs("/v2/sync/app7/rta?actionType=rta&pids=P2&pids=P9");
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(asked[0], Value(Dictionary{{"_id", "own"}, {"pid", "P2"}}));
  EXPECT_TRUE(configs("/v2/sync/app7/surveys?actionType=survey").empty());
}

TEST_F(CollectorServer, KeepsAcceptedChunksAndTellsRepeatsFromConflicts) {
  EXPECT_EQ(postChunk().status, 200);
  std::string again = sampleChunk("[1700000030000]", "[1700000099000]");
  const std::string event = R"({"name": "Open", "time": 1})";
  again.replace(again.find(event), event.size(), R"({"time": 1, "name": "Open"})");
  EXPECT_EQ(postChunk(again).status, 200);
  EXPECT_EQ(postChunk(sampleChunk("\"time\": 5", "\"time\": 6")).status, 200);
  EXPECT_EQ(post(url("/v2/api/other/chunks"), sampleChunk("Buy", "Sell")).status, 200);
  ASSERT_TRUE(server.waitForChunks(4));
  EXPECT_EQ(server.chunks()[0], server.requests("/chunks")[0].json());

  const Array chunks = *get("/debug/chunks").json()["chunks"].get<Array>();
  ASSERT_EQ(chunks.size(), 4U);
  const auto at = [&](std::size_t i) { return *chunks[i].get<Dictionary>(); };
  EXPECT_EQ(at(0)["session"], Value("1700000000123-D1"));
  EXPECT_EQ(at(0)["number"], Value(3));
  EXPECT_EQ((*at(0)["events"].get<Dictionary>())["app_events"], Value(2));
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(at(i)["duplicate"], Value(i == 1)) << i;
    EXPECT_EQ(at(i)["conflict"], Value(i == 2)) << i;
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
  EXPECT_EQ(post(url("/v2/api/user?appId=app7"), "{}").json()["error"], Value("sdk_version is missing"));
  EXPECT_EQ(get("/v2/api/config/%ff/ios").status, 400);
  const CurlResult unknown = get("/v2/api/a/b/chunks");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_EQ(unknown.json()["paths"].get<Array>()->size(), 12U);
  const CurlResult method = curl("--include -X DELETE " + url("/v2/api/app7/chunks"));
  EXPECT_EQ(method.status, 405);
  EXPECT_NE(method.body.find("Allow: POST"), std::string::npos);
  EXPECT_EQ(curl("-X BREW " + url("/v2/api/app7/chunks")).status, 400);

  EXPECT_TRUE(server.chunks().empty());
  const Array listed = *get("/debug/requests").json()["requests"].get<Array>();
  ASSERT_EQ(listed.size(), 11U);
  const auto& first = *listed[0].get<Dictionary>();
  EXPECT_EQ(first["status"], Value(400));
  EXPECT_NE(first["body"].get<Dictionary>(), nullptr);
  EXPECT_EQ((*listed[3].get<Dictionary>())["body"], Value("??"));
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

TEST_F(CollectorServer, AnAnswerCanBeChangedFromTheShell) {
  const auto put = [this](const std::string& query) {
    return curl("-X PUT '" + url("/debug/answer?" + query) + "'").status;
  };
  EXPECT_EQ(put("path=/chunks&status=503&times=2"), 200);
  EXPECT_EQ(postChunk().status, 503);
  EXPECT_EQ(put("path=/chunks"), 200);
  EXPECT_EQ(postChunk().status, 200);
  for (const char* wrong : {"", "status=500", "path=/chunks&status=99", "path=/chunks&status=500&times=0"}) {
    EXPECT_EQ(put(wrong), 400) << wrong;
  }
  EXPECT_EQ(postChunk().status, 200);
}

TEST_F(CollectorServer, HangingRequestsHoldUpNeitherOthersNorTheEnd) {
  server.answer("/rta", Script::never());
  auto hanging = std::async(std::launch::async, [this] {
    return curl("--parallel --parallel-immediate --parallel-max 40 '" + url("/v2/sync/app7/rta?n=[1-40]") + "'");
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

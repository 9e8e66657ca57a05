#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "CollectorTest.h"
#include "kelvo-collector/Server.h"
#include "kelvo-collector/ServiceState.h"
#include "support/Program.h"

namespace kelvo::test {
namespace {

class CollectorDebug : public ServingCollector {
 protected:
  [[nodiscard]] std::unique_ptr<Program> reader(const std::string& path, std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {"/usr/bin/env", "curl", "-sN", "--noproxy", "*", server.baseURL() + path});
    return std::make_unique<Program>(more, Program::Environment{});
  }
  [[nodiscard]] std::unique_ptr<Program> stream(const std::string& header = "X: y") const {
    return reader("/debug/stream", {"-H", header});
  }
  void buyInChunk(int number) const {
    ASSERT_EQ(postChunk(ChunkOf{.number = number, .app = event("Buy")}.text()).status, 200);
  }
};

TEST_F(CollectorDebug, OnlyLoopbackNamesAndItsOwnPageAreAnswered) {
  const std::string own = server.baseURL();
  const struct {
    std::string header;
    const char* path;
    int status;
  } cases[] = {{"Host: 127.0.0.1:99", "/debug/counts", 200},
               {"Host: LocalHost:1", "/", 200},
               {"Host: [::1]:80", "/", 200},
               {"Host: 127.0.0.1.evil.example", "/", 403},
               {"Host: localhost:x", "/", 403},
               {"Host: evil.example", "/v2/api/a/sdk/enabled-status", 403},
               {"Host;", "/", 403},
               {"Origin: " + own, "/debug/counts", 200},
               {"Origin: null", "/debug/counts", 403},
               {"Origin: http://127.0.0.1", "/debug/counts", 403},
               {"Origin: https" + own.substr(4), "/debug/stream", 403},
               {"Origin: http://evil.example", "/v2/api/a/sdk/enabled-status", 200}};
  for (const auto& c : cases) {
    const CurlResult result = get(c.path, "--include -H '" + c.header + "'");
    EXPECT_EQ(result.status, c.status) << c.header << " " << c.path;
    EXPECT_NE(result.body.find("Content-Security-Policy: default-src 'none'; script-src 'self';"), std::string::npos);
    EXPECT_NE(result.body.find("X-Content-Type-Options: nosniff"), std::string::npos) << c.header;
  }
  EXPECT_NE(get("/", "--include").body.find("Content-Type: text/html"), std::string::npos);
  EXPECT_EQ(get("/assets/../index.html", "--path-as-is").status, 404);
  EXPECT_TRUE(server.requests("/debug").empty());
}

TEST_F(CollectorDebug, ADocumentIsCheckedBeforeItIsTaken) {
  const struct {
    const char *path, *body, *error;  // no error: it is taken
  } cases[] = {
      {"enabled", R"({"enabled": false})", nullptr},
      {"enabled", R"({"enabled": 1})", R"(the body is not {"enabled": true} or {"enabled": false})"},
      {"config", R"({"enable": true, "service_paths": {"chunk_paths": "/c"}, "own": [1]})", nullptr},
      {"config", R"({"enable": "yes", "service_paths": {}})", "enable is not true or false"},
      {"config", R"({"enable": true, "service_paths": {"chunk_paths": "c"}})",
       "service_paths.chunk_paths is not a path that begins with a slash"},
      {"config", R"({"enable": true, "service_paths": {}, "max_fg_chunk_send_time": -1})",
       "max_fg_chunk_send_time is not a number from 0"},
      {"config", R"({"enable": true, "service_paths": {}, "heartbeat": {"hour": 24}})",
       "heartbeat.hour is not an hour from 0 to 23"},
      {"client-events", R"({"action": ["Buy"], "agg": [], "stop": ["Tick"]})", nullptr},
      {"client-events", R"({"action": ["Buy", ""]})", "action[1] is not the name of an event"},
      {"client-events", R"({"actions": []})", "there is no list actions"},
      {"actions/rta", R"([{"pid": "P", "mid": "M", "config": {"_id": "x"}}])", nullptr},
      {"actions/rta", R"([{"pid": "P_1", "mid": "M", "config": {"_id": "x"}}])",
       R"(action 0: pid is not a text without "_" and ",")"},
      {"actions/survey", R"([{"pid": "P", "mid": "M", "config": {}}])", R"(action 0: config has no text "_id")"},
      {"actions/survey", R"([{"pid": "P", "mid": "M", "config": {"_id": "x"}}, 3])", "action 1 is not an object"},
      {"config", "{", nullptr}};
  for (const auto& c : cases) {
    const Dictionary before = get("/debug/service").json();
    const CurlResult result = send("PUT", std::string("/debug/") + c.path, c.body);
    const bool taken = c.error == nullptr && std::string(c.body) != "{";
    EXPECT_EQ(result.status, taken ? 200 : 400) << c.body;
    EXPECT_EQ(get("/debug/service").json() == before, !taken) << c.body;
    if (c.error != nullptr) {
      EXPECT_EQ(in(result.json(), {"errors", "0"}), Value(c.error)) << c.body;
    }
  }
  EXPECT_EQ(get("/v2/api/app7/sdk/enabled-status").json()["enabled"], Value(false));
  const Dictionary configuration = get("/v2/api/config/a%20b/ios").json();
  EXPECT_EQ(in(configuration, {"details", "own", "0"}), Value(1));
  EXPECT_EQ(in(configuration, {"details", "service_paths", "chunk_paths"}), Value("/c"));
  EXPECT_EQ(in(get("/v2/sync/app7/client-events").json(), {"events", "stop", "0"}), Value("Tick"));
  EXPECT_EQ(get("/v2/sync/app7/validate?actionType=rta").json()["pid_mid"], Value("P_M"));
}

TEST_F(CollectorDebug, AnswersAreListedUsedUpAndEnded) {
  const auto put = [this](const std::string& query) { return send("PUT", "/debug/answer?" + query).status; };
  EXPECT_EQ(put("path=/config&status=503&delay_ms=200&times=2"), 200);
  EXPECT_EQ(put("path=/rta&mode=hang"), 200);
  EXPECT_EQ(put("path=/surveys&mode=drop"), 200);
  EXPECT_EQ(put("path=/client-events&delay_ms=300"), 200);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(get("/v2/api/config/app7/ios").status, 503);
  EXPECT_EQ(get("/v2/sync/app7/client-events").status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
  EXPECT_EQ(get("/v2/sync/app7/rta", "--max-time 0.3").exitCode, 28);
  EXPECT_EQ(get("/v2/sync/app7/surveys").exitCode, 56);
  EXPECT_EQ(*jsonText(get("/debug/service").json()["answers"]),
            R"([{"path":"/client-events","status":null,"delay_ms":300,"mode":"answer","times":null},)"
            R"({"path":"/surveys","status":null,"delay_ms":0,"mode":"drop","times":null},)"
            R"({"path":"/rta","status":null,"delay_ms":0,"mode":"hang","times":null},)"
            R"({"path":"/config","status":503,"delay_ms":200,"mode":"answer","times":1}])");
  for (const char* wrong : {"", "status=500", "path=/x&status=99", "path=/x&status=500&times=0", "path=/x&delay_ms=-1",
                            "path=/x&mode=sleep", "path=/x&mode=hang&times=none"}) {
    EXPECT_EQ(put(wrong), 400) << wrong;
  }
  EXPECT_EQ(put("path=/surveys&mode=answer"), 200);
  EXPECT_EQ(get("/v2/sync/app7/surveys").status, 200);
  EXPECT_EQ(send("DELETE", "/debug/answer").status, 200);
  EXPECT_EQ(get("/debug/service").json()["answers"], Value(Array{}));
}

TEST_F(CollectorDebug, WaitAnswersWhenEnoughHaveComeOrTimeIsOver) {
  auto waiting =
      std::async(std::launch::async, [this] { return get("/debug/wait?count=2&name=Buy&kind=app&timeout=30"); });
  buyInChunk(1);
  EXPECT_EQ(get("/debug/wait?count=2&name=Buy&timeout=0").status, 408);
  buyInChunk(2);
  EXPECT_EQ(waiting.get().json(), (Dictionary{{"found", 2}, {"reached", true}}));
  for (const char* query : {"kind=system", "session=none", "name=Sell"}) {
    EXPECT_EQ(get(std::string("/debug/wait?timeout=0&") + query).json()["found"], Value(0)) << query;
  }
  EXPECT_EQ(get("/debug/wait?count=-1").status, 400);
  EXPECT_EQ(get("/debug/wait?timeout=soon").status, 400);
}

TEST_F(CollectorDebug, TwentyOpenPagesHearEverythingAndHoldUpNeitherOthersNorTheEnd) {
  std::vector<std::unique_ptr<Program>> pages;
  for (int i = 0; i < 20; ++i) pages.push_back(stream());
  for (const auto& page : pages) ASSERT_TRUE(page->waitForOutput(": here"));
  buyInChunk(1);
  for (const auto& page : pages) {
    EXPECT_TRUE(page->waitForOutput(
        "event: chunk\ndata: {\"session\":\"1700000000000-D1\",\"chunk\":1,\"events\":1,\"sequence\":1}\n\n"));
    EXPECT_TRUE(page->waitForOutput("event: session\ndata: {\"id\":\"1700000000000-D1\",\"application\":\"app7\""));
  }
  pages.resize(5);  // the others are gone
  EXPECT_EQ(send("PUT", "/debug/enabled", R"({"enabled": true})").status, 200);
  EXPECT_TRUE(pages[0]->waitForOutput("event: service\ndata: {}\n\n"));
  EXPECT_EQ(send("POST", "/debug/reset").status, 200);
  EXPECT_TRUE(pages[0]->waitForOutput("event: reset\ndata: {}\n\n"));
  EXPECT_EQ(get("/debug/counts").json()["events"], Value(0));

  buyInChunk(2);
  buyInChunk(3);
  const auto resumed = stream("Last-Event-ID: 2"), unknown = stream("Last-Event-ID: 99");
  EXPECT_TRUE(resumed->waitForOutput("id: 3\nevent: chunk"));
  EXPECT_EQ(resumed->output().find("id: 2\n"), std::string::npos);
  EXPECT_TRUE(unknown->waitForOutput("event: reset"));
  server.stop();
  for (const auto& page : pages) EXPECT_NE(page->wait(), -1);
}

TEST_F(CollectorDebug, AClientThatDoesNotReadHoldsUpNeitherOthersNorTheEnd) {
  ASSERT_EQ(post(server.baseURL() + "/v2/api/user", std::string(30U << 20U, 'x')).status, 400);
  const auto slow = reader("/debug/requests", {"--limit-rate", "1k"});
  ASSERT_TRUE(slow->waitForOutput("{"));  // the answer has begun
  EXPECT_EQ(get("/debug/counts").status, 200);
  const auto begin = std::chrono::steady_clock::now();
  server.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

}  // namespace
}  // namespace kelvo::test

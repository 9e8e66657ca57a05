#include "kelvo-collector/http/Server.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "CollectorTest.h"
#include "support/Program.h"

namespace kelvo::test {
namespace {

using collector::Script;
using namespace std::chrono_literals;

/// Returns the sample chunk with the first occurrence of `from` replaced.
inline std::string sampleChunk(const std::string& from, const std::string& to) {
  std::string text = kSampleChunk;
  return text.replace(text.find(from), from.size(), to);
}

class CollectorServer : public testing::Test {
 protected:
  [[nodiscard]] CurlResult get(const std::string& path, const std::string& more = {}) const {
    return curl(more + " '" + server.baseURL() + path + "'");
  }
  [[nodiscard]] CurlResult send(const std::string& method, const std::string& path,
                                const std::string& body = {}) const {
    return post(server.baseURL() + path, body, "-X " + method);
  }
  [[nodiscard]] CurlResult postChunk(const std::string& body = kSampleChunk, const std::string& more = {}) const {
    return post(server.baseURL() + "/v2/api/app7/chunks", body, more);
  }
  void buyInChunk(int number) const {
    ASSERT_EQ(postChunk(ChunkOf{.number = number, .app = event("Buy")}.text()).status, 200);
  }
  /// Starts a client that reads until the connection closes. Its output is the answer so far.
  [[nodiscard]] std::unique_ptr<Program> reader(const std::string& path, const std::vector<std::string>& more) const {
    std::vector<std::string> command{"/usr/bin/env", "curl", "-sN", "--noproxy", "*", server.baseURL() + path};
    command.insert(command.end(), more.begin(), more.end());
    return std::make_unique<Program>(command, Program::Environment{});
  }
  [[nodiscard]] std::unique_ptr<Program> stream(const std::string& header = "X: y") const {
    return reader("/debug/stream", {"-H", header});
  }

  collector::Server server;
  const int port = server.start();
};

TEST_F(CollectorServer, KeepsAcceptedChunksAndDistinguishesRepeatsFromConflicts) {
  std::string again = sampleChunk("[1700000030000]", "[1700000099000]");
  const std::string event = R"({"name": "Open", "time": 1})";
  again.replace(again.find(event), event.size(), R"({"time": 1, "name": "Open"})");
  for (const std::string& body : {kSampleChunk, again, sampleChunk("\"time\": 5", "\"time\": 6")}) {
    EXPECT_EQ(postChunk(body).status, 200);
  }
  EXPECT_EQ(send("POST", "/v2/api/other/chunks", sampleChunk("Buy", "Sell")).status, 200);
  EXPECT_EQ(server.chunks().at(0), server.requests("/chunks").at(0).json());

  const Dictionary page = get("/debug/chunks?after=1").json();
  std::string listed;
  for (const Value& chunk : *page["chunks"].get<Array>()) {
    for (const char* member : {"application", "session", "number", "duplicate", "conflict"}) {
      listed += description(in(chunk, {member})) + " ";
    }
  }
  EXPECT_EQ(listed, "app7 1700000000123-D1 3 1 0 app7 1700000000123-D1 3 0 1 other 1700000000123-D1 3 0 0 ");
  EXPECT_EQ(in(page, {"chunks", "0", "events", "app_events"}), Value(2));
}

TEST_F(CollectorServer, AnswersOnlyLoopbackHostsAndItsOwnPageAndListsItsPaths) {
  const std::string own = server.baseURL();
  const struct {
    std::string arguments;
    const char* path;
    int status;
    const char* text = "";  // in the answer
  } cases[] = {{"-H 'Host: 127.0.0.1:99'", "/debug/counts", 200},
               {"-H 'Host: LocalHost:1'", "/", 200, "Content-Type: text/html"},
               {"-H 'Host: [::1]'", "/", 200},
               {"-H 'Host: 127.0.0.1.evil.example'", "/", 403},
               {"-H 'Host: localhost:x'", "/", 403},
               {"-H 'Host: evil.example'", "/v2/api/a/sdk/enabled-status", 403},
               {"-H 'Host;'", "/", 403},
               {"-H 'Origin: " + own + "'", "/debug/counts", 200},
               {"-H 'Origin: http://127.0.0.1'", "/debug/counts", 403},
               {"-H 'Origin: https" + own.substr(4) + "'", "/debug/stream", 403},
               {"-H 'Origin: http://evil.example'", "/v2/api/a/sdk/enabled-status", 403},
               {"-H 'Origin: null' -X POST -d {}", "/v2/api/a/chunks", 403},
               {"-H 'Sec-Fetch-Site: cross-site'", "/v2/api/a/sdk/enabled-status", 403},
               {"-H 'Sec-Fetch-Site: same-site' -X POST -d {}", "/v2/api/a/chunks", 403},
               {"-H 'Sec-Fetch-Site: same-origin'", "/debug/counts", 200},
               {"-H 'Sec-Fetch-Site: none'", "/", 200},
               {"--path-as-is", "/assets/../index.html", 404},
               {"", "/v2/api/a/b/chunks", 404, "\"POST /v2/api/<app-id>/chunks\""},
               {"", "/v2/api/config/%ff/ios", 400},
               {"-X DELETE", "/v2/api/app7/chunks", 405, "Allow: POST"},
               {"-F a=b", "/v2/api/app7/chunks", 415},
               {"-X BREW", "/v2/api/app7/chunks", 400}};
  for (const auto& c : cases) {
    const CurlResult result = get(c.path, "--include " + c.arguments);
    EXPECT_EQ(result.status, c.status) << c.arguments << " " << c.path;
    for (const char* text : {"Content-Security-Policy: default-src 'none'; script-src 'self';",
                             "X-Content-Type-Options: nosniff", c.text}) {
      EXPECT_NE(result.body.find(text), std::string::npos) << c.arguments << " " << c.path << result.body;
    }
  }
  EXPECT_TRUE(server.requests("/debug").empty());
}

TEST_F(CollectorServer, RefusesAnInvalidBodyWithTheReasonAndListsTheRequest) {
  const struct {
    const char *from, *to, *fault;
  } cases[] = {
      {R"("sdk_info")", R"("sdk")", "sdk_info is missing"},
      {R"("is_first_session": true)", R"("is_first_session": 1)", "session_info.is_first_session is not a boolean"},
      {R"({"id": "D1")", R"({"id": 1)", "device_info.id is not a text"},
      {R"("height": 0.5)", R"("height": null)", "device_info.dimensions.height is not a number"},
      {R"(D1_3)", R"(D1_2)", R"(chunk_meta.id is not session_info.id, "_" and chunk_meta.number)"},
      {"[1700000030000]", "[1, 2]", "chunk_meta.reporting_times does not hold exactly one time"},
      {R"([["up", 3], [null, 1]])", R"("up")", "chunk_details.agg_events[0].attributes.dir is not an array"},
      {R"("chunk_attributes": {})", R"("chunk_attributes": {"evicted": 2})",
       "chunk_details.chunk_attributes.evicted is not an object"},
      {R"("chunk_attributes": {})", R"("chunk_attributes": {"evicted": {"events": 2}})",
       "chunk_details.chunk_attributes.evicted.chunks is missing"},
      {R"("chunk_attributes": {})", R"("chunk_attributes": {"evicted": {"events": -1, "chunks": 1}})",
       "chunk_details.chunk_attributes.evicted.events is not a count"},
      {R"("chunk_attributes": {})", R"("chunk_attributes": {"ledger": {"stored": 1, "lost": 0.5}})",
       "chunk_details.chunk_attributes.ledger.lost is not a count"},
      {"[null, 1]", R"(["down", "1"])", "chunk_details.agg_events[0].attributes.dir[1] is not a value and its count"},
      {R"([{"name": "FOREGROUND", "time": 0}])", "{}", "chunk_details.system_events is not an array"},
      {R"("time": 5)", R"("time": 5.5)", "chunk_details.app_events[1].time is not an integer"},
      {R"({"id": "Tap")", R"(null, {"id": "Tap")", "chunk_details.user_events[0] is not an object"},
      {kSampleChunk.c_str(), "3", "the body is not an object"}};
  for (const auto& c : cases) {
    const CurlResult refused = postChunk(sampleChunk(c.from, c.to));
    EXPECT_EQ(refused.status, 400) << c.fault;
    EXPECT_EQ(refused.json()["error"], Value(c.fault)) << c.from << " -> " << c.to;
  }
  for (const std::string& body : {std::string("\xff\xfe"), std::string(), std::string("{\"a\": 1}x"),
                                  std::string(5000, '[') + std::string(5000, ']')}) {
    EXPECT_EQ(postChunk(body).status, 400) << body;
  }
  EXPECT_EQ(send("POST", "/v2/api/user?appId=app7", "{}").json()["error"], Value("sdk_version is missing"));

  EXPECT_TRUE(server.chunks().empty());
  const Dictionary listed = get("/debug/requests").json();
  EXPECT_EQ(listed["requests"].get<Array>()->size(), std::size(cases) + 5);
  EXPECT_EQ(in(listed, {"requests", "0", "status"}), Value(400));
  EXPECT_NE(in(listed, {"requests", "0", "body"}).get<Dictionary>(), nullptr);
  EXPECT_EQ(in(listed, {"requests", std::to_string(std::size(cases)), "body"}), Value("??"));
}

TEST_F(CollectorServer, AClientSeesTheFaultThatEachScriptDescribes) {
  const struct {
    const char* name;
    Script script;
    int exitCode, status;
    std::size_t accepted;
    int recorded;
  } cases[] = {{"refusal", {503, "busy"}, 0, 503, 0, 503},
               {"garbage", Script::garbage(), 0, 200, 0, 200},
               {"cut", Script::cut(), 56, 0, 0, 0},
               {"cut short", Script::cutShort(), 18, 200, 0, 0},
               {"answer lost", Script::losingTheAnswer(), 56, 0, 1, 0},
               {"too late", Script::late(1h), 28, 0, 1, 200},
               {"never", Script::never(), 28, 0, 0, 0}};
  std::size_t accepted = 0;
  for (const auto& c : cases) {
    server.answer("/chunks", c.script);
    const CurlResult result = postChunk(kSampleChunk, c.exitCode == 28 ? "--max-time 0.3" : "--max-time 20");
    EXPECT_EQ(result.exitCode, c.exitCode) << c.name;
    EXPECT_EQ(result.status, c.status) << c.name;
    EXPECT_EQ(server.chunks().size(), accepted += c.accepted) << c.name;
    EXPECT_EQ(server.requests("/chunks").back().status, c.recorded) << c.name;
  }
  server.answerInTurn("/sync", {Script(500).times(2), 404, Script(503).times(1)});
  server.answer("client-events", Script(418).times(1));  // set last, so it wins while it lasts
  for (const int status : {418, 500, 500, 404, 503, 200}) {
    EXPECT_EQ(get("/v2/sync/app7/client-events").status, status);
  }
}

TEST_F(CollectorServer, HangingRequestsAndSlowReadersDelayNeitherOtherRequestsNorStop) {
  // Start the reader first: a later process would inherit the hanging connections and keep them open.
  ASSERT_EQ(send("POST", "/v2/api/user", std::string(30U << 20U, 'x')).status, 400);
  const auto slow = reader("/debug/requests", {"--limit-rate", "1k"});
  ASSERT_TRUE(slow->waitForOutput("{"));  // the answer has begun
  server.answer("/rta", Script::never());
  auto hanging = std::async(std::launch::async, [this] {
    return get("/v2/sync/app7/rta?n=[1-40]", "--parallel --parallel-immediate --parallel-max 40");
  });
  ASSERT_TRUE(server.waitFor(40, "/rta"));
  EXPECT_EQ(get("/v2/api/config/app7/ios").status, 200);
  const auto begin = std::chrono::steady_clock::now();
  server.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
  EXPECT_NE(hanging.get().exitCode, 0);
  EXPECT_EQ(get("/debug/chunks").exitCode, 7);

  // A restart on the same port keeps the store.
  EXPECT_EQ(server.start(port), port);
  EXPECT_EQ(get("/debug/requests?after=41").json()["requests"].get<Array>()->size(), 1U);
}

TEST_F(CollectorServer, ADocumentIsValidatedBeforeItTakesEffect) {
  const auto config = [](const std::string& more) { return R"({"enable": true, "service_paths": )" + more + "}"; };
  const auto action = [](const std::string& pid, const std::string& configuration) {
    return R"([{"pid": ")" + pid + R"(", "mid": "M", "config": )" + configuration + "}]";
  };
  const struct {
    const char* path;
    std::string body;
    const char* error = nullptr;  // null if the document is valid
  } cases[] = {
      {"enabled", R"({"enabled": false})"},
      {"enabled", R"({"enabled": 1})", R"(the body is not {"enabled": true} or {"enabled": false})"},
      {"config", config(R"({"chunk_paths": "/c"}, "log_level": "warn", "own": [1])")},
      {"config", config(R"({}, "log_level": 7)"), R"(log_level is not "debug", "warn" or "error")"},
      {"config", config(R"({}, "log_level": "Debug")"), R"(log_level is not "debug", "warn" or "error")"},
      {"config", R"({"enable": "yes", "service_paths": {}})", "enable is not true or false"},
      {"config", config(R"({"chunk_paths": "c"})"), "service_paths.chunk_paths is not a path that begins with a slash"},
      {"config", config(R"({}, "max_fg_chunk_send_time": -1)"), "max_fg_chunk_send_time is not a number from 0"},
      {"config", config(R"({}, "heartbeat": {"hour": 24})"), "heartbeat.hour is not an hour from 0 to 23"},
      {"client-events", R"({"action": ["Buy"], "agg": [], "stop": ["Tick"]})"},
      {"client-events", R"({"action": ["Buy", ""]})", "action[1] is not the name of an event"},
      {"client-events", R"({"actions": []})", "there is no list actions"},
      {"actions/rta", action("P", R"({"_id": "x"})")},
      {"actions/rta", action("P_1", R"({"_id": "x"})"), R"(action 0: pid is not a text without "_", "," and "+")"},
      {"actions/rta", R"([{"pid": "P", "mid": "1+1", "config": {"_id": "x"}}])",
       R"(action 0: mid is not a text without "_", "," and "+")"},
      {"client-events", R"({"stop": ["Tick", "BACKGROUND"]})",
       "stop[1] is BACKGROUND, which makes the library send its chunks"},
      {"client-events", R"({"agg": ["klv_app_opened"]})",
       "agg[0] is klv_app_opened, which makes the library send its chunks"},
      {"actions/survey", action("P", "{}"), R"(action 0: config has no text "_id")"},
      {"actions/survey", "[3]", "action 0 is not an object"}};
  for (const auto& c : cases) {
    const Dictionary before = get("/debug/service").json();
    const CurlResult result = send("PUT", std::string("/debug/") + c.path, c.body);
    const bool valid = c.error == nullptr;
    EXPECT_EQ(result.status, valid ? 200 : 400) << c.body;
    EXPECT_EQ(get("/debug/service").json() == before, !valid) << c.body;
    EXPECT_EQ(in(result.json(), {"errors", "0"}), valid ? Value() : Value(c.error)) << c.body;
  }
  EXPECT_EQ(send("PUT", "/debug/config", "{").status, 400);
  EXPECT_EQ(get("/v2/api/app7/sdk/enabled-status").json()["enabled"], Value(false));
  const Dictionary configuration = get("/v2/api/config/a%20b/ios").json();
  EXPECT_EQ(in(configuration, {"details", "own", "0"}), Value(1));
  EXPECT_EQ(in(configuration, {"details", "service_paths", "chunk_paths"}), Value("/c"));
  EXPECT_EQ(in(get("/v2/sync/app7/client-events").json(), {"events", "stop", "0"}), Value("Tick"));
  EXPECT_EQ(get("/v2/sync/app7/validate?actionType=rta").json()["pid_mid"], Value("P_M"));
}

TEST_F(CollectorServer, ScriptedAnswersAreListedUsedUpAndRemoved) {
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

TEST_F(CollectorServer, WaitAnswersOnceEnoughEventsHaveArrivedOrTheTimeoutPasses) {
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

TEST_F(CollectorServer, TwentyOpenPagesReceiveAllNewsAndDelayNeitherOtherRequestsNorStop) {
  std::vector<std::unique_ptr<Program>> pages;
  for (int i = 0; i < 20; ++i) pages.push_back(stream());
  for (const auto& page : pages) ASSERT_TRUE(page->waitForOutput(": here"));
  buyInChunk(1);
  for (const auto& page : pages) {
    EXPECT_TRUE(page->waitForOutput(
        "event: chunk\ndata: {\"session\":\"1700000000000-D1\",\"chunk\":1,\"events\":1,\"sequence\":1}\n\n"));
    EXPECT_TRUE(page->waitForOutput("event: session\ndata: {\"id\":\"1700000000000-D1\",\"application\":\"app7\""));
  }
  pages.resize(5);  // closes the others
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

}  // namespace
}  // namespace kelvo::test

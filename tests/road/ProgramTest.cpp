#include <chrono>
#include <filesystem>

#include "road/Road.h"

namespace kelvo::test {
namespace {

TEST_F(Road, KelvoLogReportsBadLinesAndPlaysTheOthers) {
  auto host = launch();
  host.untilReady().play("").play("# a comment").play("no JSON").play("[1]").call("nonsense");
  host.play(R"({"name": 7})").call("deviceToken", R"("hex": "0G")").log("Good");
  host.play(R"({"nam": "A"})")
      .play(R"({"name": "A", "infos": {}})")
      .play(R"({"name": null})")
      .call("getDeviceID", R"("a": 1)");
  host.call("listen", R"("type": "App")").log("Heard").call("willResignActive");
  EXPECT_EQ(host.quit(), 1);
  for (const char* line :
       {"line 4: not JSON", "line 5: not a JSON object", "line 6: no such call: nonsense",
        "line 7: \"name\" is not a text", "line 8: \"hex\" is not a text with two", "line 10: unknown member \"nam\"",
        "line 11: unknown member \"infos\"", "line 12: \"name\" is missing or null", "line 13: unknown member \"a\""}) {
    EXPECT_EQ(count(host.errors(), line), 1u) << line << host.errors();
  }
  EXPECT_EQ(arrivedEvents(), (Texts{"Good", "Heard"}));
  EXPECT_EQ(count(host.output(), "\n"), count(host.output(), R"({"name":")")) << "only events: " << host.output();
  EXPECT_EQ(count(host.output(), R"({"name":"Heard","type":"App",)"), 1u) << host.output();
  EXPECT_EQ(stored("select count(*) from chunkmeta"), Texts{"1"}) << "the script has left the foreground itself";
}

TEST_F(Road, KelvoLogRefusesWrongUsage) {
  for (const auto& wrong :
       {Texts{"--wait", "soon"}, Texts{"--delivery", "all"}, Texts{"--nonsense"}, Texts{"/no/such/file"}}) {
    EXPECT_EQ(launch(wrong).quit(), 2) << wrong[0];
  }
  const Program::Environment started{{"KELVO_BUNDLE", bundle("<key>Core</key><string>auto</string>")}};
  auto tooLate = launch({"--delivery", "complete"}, started);
  EXPECT_EQ(tooLate.quit(), 2) << "the bundle has started the library";
  auto neverStarted = launch({});
  EXPECT_EQ(neverStarted.log("Event").quit(), 2);
  EXPECT_EQ(count(neverStarted.errors(), "kelvo-log: the library was never started"), 1u);
}

TEST_F(Road, KelvoLogExplainsItselfWithoutLoadingAnything) {
  moveToFreshHome("untouched");
  const Program::Environment started{{"KELVO_BUNDLE", bundle("<key>Core</key><string>auto</string>")}};
  for (const auto& arguments : {Texts{"--help"}, Texts{"--app-id", "shop", "--nonsense", "--help"}}) {
    auto help = launch(arguments, started);
    EXPECT_EQ(help.quit(), 0);
    EXPECT_EQ(help.output().rfind("usage: kelvo-log", 0), 0u);
    EXPECT_EQ(help.errors() + (count(help.output(), "finalizer") > 0 ? "a farewell" : ""), "");
  }
  EXPECT_FALSE(std::filesystem::exists(homeOfLaunches()));
  EXPECT_TRUE(service.requests().empty());
}

TEST_F(Road, KelvoLogSaysWhyEventsWait) {
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"classic", service.baseURL(), "3 events and 1 chunk wait for the next launch: the service answered 503\n"},
      {"complete", "", "3 events and 1 chunk wait for the next launch: no service: No service endpoint"},
      {"classic", "http://127.0.0.1:1", "3 events and 1 chunk wait for the next launch: no service: "},
  };
  service.answer("/chunks", 503);
  for (const auto& [delivery, url, summary] : cases) {
    for (const bool isQuiet : {false, true}) {
      moveToFreshHome(delivery + std::to_string(url.size() + (isQuiet ? 1000 : 0)));
      Texts arguments{"--app-id", "shop", "--wait", "60", "--delivery", delivery};
      if (isQuiet) arguments.emplace_back("--quiet");
      const auto begin = std::chrono::steady_clock::now();
      auto host = launch(arguments, {{"KELVO_SERVER_BASE_URL", url}});
      host.untilReady().log("Event").call("willResignActive");
      EXPECT_EQ(host.quit(), 3);
      EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(40)) << "it knows at once";
      EXPECT_EQ(count(host.errors(), summary), isQuiet ? 0u : 1u) << summary << host.errors();
    }
  }
}

TEST_F(Road, KelvoLogHasAHomePerApplicationAndEmptiesTheFormerCommonOne) {
  const std::string data = home() + "/data";
  const Program::Environment own{{"KELVO_HOME", ""}, {"XDG_DATA_HOME", data}};
  service.answer("/chunks", 503);
  EXPECT_EQ(launch({"--app-id", "shop"}, {{"KELVO_HOME", data + "/kelvo-log"}}).log("Former").quit(), 3);
  service.answerNormally("/chunks");
  auto first = launch({"--app-id", "shop"}, own);
  first.untilReady().log("First");
  ASSERT_TRUE(first.waitForError("sent the events")) << first.errors();
  auto second = launch({"--app-id", "../a b"}, own);
  EXPECT_EQ(second.log("Second").quit(), 3) << "the service has no such application";
  EXPECT_EQ(first.quit(), 0) << first.errors();
  EXPECT_EQ(count(first.errors(), "kelvo-log: sent the events that an earlier version left in " + data), 1u);
  EXPECT_EQ(arrivedEvents(), (Texts{"Former", "First"}));
  for (const char* name : {"shop", "..%2Fa%20b"}) {
    EXPECT_TRUE(std::filesystem::exists(data + "/kelvo/kelvo-log/" + name + "/Documents")) << name;
  }
  const auto requests = service.requests().size();
  auto again = launch({"--app-id", "shop"}, own);
  EXPECT_EQ(again.quit(), 0);
  EXPECT_EQ(count(again.errors(), "earlier version"), 0u);
  EXPECT_EQ(arrivedEvents().size(), 2u);
  EXPECT_LT(service.requests().size() - requests, 8u) << "one launch only";
}

TEST_F(Road, KelvoLogDeliversSixtyMegabytes) {
  const int lines = kSanitizer.empty() ? 60000 : 4000;
  const std::string path = home() + "/records.jsonl";
  std::string text;
  for (int i = 0; i < lines; ++i)
    text += R"({"name": "Record", "info": {"text": ")" + std::string(1000, 'x') + "\"}}\n";
  writeFileForTest(path, text);
  auto host = launch({"--app-id", "shop", path});
  EXPECT_EQ(host.quit(), 0) << host.errors().substr(host.errors().size() - 300);
  EXPECT_EQ(arrivedEvents().size(), static_cast<std::size_t>(lines));
}

TEST_F(Road, EachInvalidArgumentLogsOneLineAndStoresNothing) {
  setLogLevel("debug");
  auto host = launch({"--app-id", ""});
  host.call("initializeKelvoWithID").call("initializeKelvoWithID", R"("id": "shop")").untilReady();
  host.play(R"({"name": "Faulty", "info": {"list": []}})").call("reportCustomError");
  host.call("setUserIdentifier").call("setUserCustomInfo", R"("info": {"a": null})");
  host.call("setSessionCustomInfo", R"("info": {"a": ""})").call("deviceToken", R"("text": "")");
  host.call("deviceToken").call("logScreenWithName", R"("name": "")").call("didShow", R"("title": "Nowhere")");
  EXPECT_EQ(host.quit(), 0);
  const std::pair<const char*, std::size_t> expected[] = {
      {"<KLV ERROR> KelvoiOSSDK failed to initialize - invalid appId: ", 2},
      {"<KLV ERROR> object cannot be nil (key: list)", 1},
      {"<KLV WARN> Improper observation reported", 1},
      {"<KLV ERROR> Identifier passed is nil", 1},
      {"<KLV ERROR> SDK not enabled - user attributes won't get logged", 1},
      {"<KLV ERROR> SDK not enabled - session attributes won't get logged", 1},
      {"<KLV WARN> Invalid token data!", 1},
      {"<KLV WARN> Invalid token object!", 1},
      {"<KLV WARN> Invalid title:  given", 1},
      {"<KLV WARN> Ignoring a screen without a class name, title: Nowhere", 1}};
  for (const auto& [line, times] : expected) EXPECT_EQ(count(host.errors(), line), times) << line;
  EXPECT_EQ(arrivedEvents(), Texts());
}

}  // namespace
}  // namespace kelvo::test

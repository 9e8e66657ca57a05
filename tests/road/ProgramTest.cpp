#include "road/Road.h"

namespace kelvo::test {
namespace {

TEST_F(Road, KelvoLogReportsBadLinesAndPlaysTheOthers) {
  auto host = launch();
  host.untilReady().play("").play("# a comment").play("no JSON").play("[1]").call("nonsense");
  host.play(R"({"name": 7})").call("deviceToken", R"("hex": "0G")").log("Good");
  EXPECT_EQ(host.quit(), 1);
  for (const char* line : {"line 4: not JSON", "line 5: not a JSON object", "line 6: no such call: nonsense",
                           "line 7: \"name\" is not a text", "line 8: \"hex\" is not a text with two"}) {
    EXPECT_EQ(count(host.errors(), line), 1u) << line << host.errors();
  }
  EXPECT_EQ(arrivedEvents(), Texts{"Good"});
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
  EXPECT_EQ(launch({"--help"}).quit(), 0);
}

TEST_F(Road, EachInvalidArgumentLogsOneLineAndStoresNothing) {
  setLogLevel("debug");
  auto host = launch({"--app-id", ""});
  host.call("initializeKelvoWithID").call("initializeKelvoWithID", R"("id": "shop")").untilReady();
  host.play(R"({"info": {"a": 1}})").call("logClientEventWithName");
  host.play(R"({"name": "Faulty", "info": {"list": []}})").call("reportCustomError");
  host.call("setUserIdentifier").call("setUserCustomInfo", R"("info": {"a": null})");
  host.call("setSessionCustomInfo", R"("info": {"a": ""})").call("deviceToken", R"("text": "")");
  host.call("deviceToken").call("logScreenWithName").call("didShow", R"("title": "Nowhere")");
  EXPECT_EQ(host.quit(), 0);
  const std::pair<const char*, std::size_t> expected[] = {
      {"<KLV ERROR> KelvoiOSSDK failed to initialize - invalid appId: ", 2},
      {"<KLV WARN> Improper app event logged", 2},
      {"<KLV ERROR> object cannot be nil (key: list)", 1},
      {"<KLV WARN> Improper observation reported", 1},
      {"<KLV ERROR> Identifier passed is nil", 1},
      {"<KLV ERROR> SDK not enabled - user attributes won't get logged", 1},
      {"<KLV ERROR> SDK not enabled - session attributes won't get logged", 1},
      {"<KLV WARN> Invalid token data!", 1},
      {"<KLV WARN> Invalid token object!", 1},
      {"<KLV WARN> Invalid title: (null) given", 1},
      {"<KLV WARN> Ignoring a screen without a class name, title: Nowhere", 1}};
  for (const auto& [line, times] : expected) EXPECT_EQ(count(host.errors(), line), times) << line;
  EXPECT_EQ(arrivedEvents(), Texts());
}

}  // namespace
}  // namespace kelvo::test

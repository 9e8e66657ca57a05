#include <filesystem>

#include "road/Road.h"

namespace kelvo::test {
namespace {

constexpr const char* kStatusFile = "com.kelvo.SDK.enable.status.json";
constexpr const char* kDefaultsFile = "Preferences/kelvo-log.plist";

struct Switch {
  Script answer;
  const char* savedSwitch;  ///< content of the status file, empty for no file
  bool collects;
  const char* line;  ///< a log line that occurs once
};

class EnableSwitch : public Road, public testing::WithParamInterface<Switch> {};

TEST_P(EnableSwitch, DecidesWhetherThisLaunchCollects) {
  const Switch& given = GetParam();
  service.answer("/enabled-status", given.answer);
  if (*given.savedSwitch != '\0') writeFileForTest(library(kStatusFile), given.savedSwitch);
  auto host = launch();
  host.untilReady().log("Event");
  EXPECT_EQ(host.quit(), given.collects ? 0 : 4) << host.errors();
  EXPECT_EQ(service.chunks().size(), given.collects ? 1u : 0u);
  EXPECT_EQ(count(host.errors(), given.line), 1u) << host.errors();
  EXPECT_EQ(contentOf(library(kStatusFile)), given.collects ? R"({"status":true})" : R"({"status":false})");
  if (!given.collects) {
    EXPECT_EQ(count(host.errors(), "Terminating Kelvo SDK"), 1u);
    EXPECT_GE(count(host.errors(), "<KLV ERROR> SDK Disabled - ignoring event"), 1u);
    EXPECT_FALSE(std::filesystem::exists(documents("kelvo-db"))) << "no session was started";
  }
}

constexpr const char* kInitialized = "<KLV INFO> KelvoiOSSDK (288) : initialized!";
constexpr const char* kSavedOff = R"({"status":false})";
INSTANTIATE_TEST_SUITE_P(
    Answers, EnableSwitch,
    testing::Values(Switch{Script(200, R"({"enabled": 0})"), "", false, "<KLV ERROR> SDK not enabled"},
                    Switch{Script(200, R"({"enabled": false})"), "", false, "<KLV ERROR> SDK not enabled"},
                    Switch{Script(200, "{}"), kSavedOff, true, kInitialized},
                    Switch{Script::garbage(), kSavedOff, true, "<KLV ERROR> Error while fetching SDK enable status: "},
                    Switch{Script(500), kSavedOff, true, kInitialized},
                    Switch{Script::cut(), kSavedOff, false, "<KLV ERROR> SDK enable network call failed : "},
                    Switch{Script::cut(), R"({"status":true})", true, kInitialized},
                    Switch{Script::cut(), "", true, kInitialized}));

TEST_F(Road, TheLegacySwitchAppliesToOneLaunch) {
  writeFileForTest(library(kDefaultsFile), "<plist><dict><key>klv_enable_sdk</key><false/></dict></plist>");
  service.answer("/enabled-status", Script::cut());
  EXPECT_EQ(launch().quit(), 4);
  EXPECT_EQ(count(contentOf(library(kDefaultsFile)), "klv_enable_sdk"), 0u);
  std::filesystem::remove(library(kStatusFile));
  EXPECT_EQ(launch().quit(), 0);
}

TEST_F(Road, TheConfigurationSetsTheLogLevel) {
  const std::tuple<const char*, std::size_t, std::size_t> cases[] = {
      {nullptr, 0, 0}, {"DEBUG", 0, 0}, {"warn", 0, 1}, {"debug", 1, 1}};
  for (const auto& [configured, debugLines, warnings] : cases) {
    SCOPED_TRACE(configured != nullptr ? configured : "none");
    if (configured != nullptr) setLogLevel(configured);
    auto host = run({KELVO_MANNERS_HOST}, kWithoutLeakCheck);
    host.writeLine("start");
    ASSERT_TRUE(host.waitForError("initialized!"));
    host.writeLine("token");
    host.closeInput();
    EXPECT_EQ(host.wait(), 0);
    EXPECT_EQ(count(host.errors(), "<KLV DEBUG> Sending user info: {"), debugLines);
    EXPECT_EQ(count(host.errors(), "<KLV WARN> Invalid token object!"), warnings);
  }
}

TEST_F(Road, TheEnvironmentSetsTheLogLevelOfEveryProgramAndHidesTheHostsData) {
  setLogLevel("debug");
  const struct {
    const char* value;
    const char* words;  ///< levels whose lines appear
    bool showsData;
  } cases[] = {{"off", "", false},
               {"error", "ERROR ", false},
               {"warn", "ERROR WARN ", false},
               {"info", "ERROR WARN INFO ", false},
               {"debug", "ERROR WARN INFO DEBUG ", true}};
  for (const auto& [value, words, showsData] : cases) {
    auto host = launch({"--app-id", "shop"}, {{"KELVO_LOG", value}});
    host.untilReady().play(R"({"name": "Purchase", "info": {"item": "secret"}})");
    host.call("setUserIdentifier", R"("identifier": "secret")").call("setUserIdentifier");
    host.call("setUserCustomInfo", R"("info": {"plan": "secret"})").call("deviceToken", R"("text": "secret")");
    host.call("setSessionCustomInfo", R"("info": {"plan": "secret"})");
    host.call("logClientEventWithName", R"("name": "Hint", "info": {"plan": "secret"})");
    host.call("reportCustomError", R"("error": "secret", "info": {"where": "secret"})");
    EXPECT_EQ(host.quit(), 0) << host.errors();
    std::string written;
    for (const std::string word : {"ERROR", "WARN", "INFO", "DEBUG"}) {
      if (count(host.errors(), "<KLV " + word + ">") > 0) written += word + " ";
    }
    EXPECT_EQ(written, words) << host.errors();
    EXPECT_EQ(count(host.errors(), "secret") > 0, showsData) << host.errors();
  }
  auto bare = run({KELVO_MANNERS_HOST}, {{"KELVO_LOG", "loud"}});
  for (const char* line : {"start", "attributes visible"}) bare.writeLine(line);
  bare.closeInput();
  EXPECT_EQ(bare.wait(), 0);
  EXPECT_EQ(bare.errors().find("<KLV ERROR> KELVO_LOG has an unknown value: use off, error, warn, info or debug "), 0u);
  EXPECT_EQ(count(bare.errors(), "<KLV ERROR> KELVO_LOG"), 1u);
  EXPECT_EQ(count(bare.errors(), R"(<KLV INFO> Setting custom user info: {"text":"visible"})"), 1u) << bare.errors();
}

TEST_F(Road, TheBundleStartsTheLibraryBeforeTheHostsFirstCall) {
  auto host = launch({}, {{"KELVO_BUNDLE", bundle("<key>Core</key><string>auto</string>",
                                                  "<key>CFBundleName</key><string>Shop</string>"
                                                  "<key>CFBundleShortVersionString</key><string>2.4</string>"
                                                  "<key>CFBundleVersion</key><string>118</string>")}});
  host.call("initializeKelvoWithID", R"("id": "manual")").log("Event");
  EXPECT_EQ(host.quit(), 0) << host.errors();
  EXPECT_EQ(host.errors().rfind("<KLV INFO> Initialising Kelvo SDK automatically with ID: auto", 0), 0u);
  EXPECT_EQ(count(host.errors(), "<KLV INFO> Kelvo SDK already initialized. Ignoring this call"), 1u);
  EXPECT_EQ(service.requests("/v2/api/auto/chunks").size(), 1u);
  EXPECT_EQ(at(service.chunks()[0], {"app_info", "app_name"}), Value("Shop"));
  EXPECT_EQ(at(service.chunks()[0], {"app_info", "app_version"}), Value("2.4(118)"));
  EXPECT_EQ(host.output(), "");
}

TEST_F(Road, ABundleWithoutAnIdLeavesTheStartToTheHost) {
  const auto firstLineWith = [this](const std::string& kelvo) {
    auto host = launch({"--app-id", "manual"}, {{"KELVO_BUNDLE", bundle(kelvo)}});
    EXPECT_EQ(host.quit(), 0) << host.errors();
    return host.errors().substr(0, host.errors().find(" KLVController"));
  };
  EXPECT_EQ(firstLineWith("<key>SomePlugin</key><false/>"), "<KLV INFO> Ignoring Kelvo SDK auto init");
  EXPECT_EQ(firstLineWith("<key>Core</key><string></string>"),
            "<KLV ERROR> KelvoiOSSDK failed to initialize - invalid appId");
}

TEST_F(Road, CallsDuringTheStartAreStoredFirstAndOverrideStoredAttributes) {
  EXPECT_EQ(launch().untilReady().call("setUserCustomInfo", R"("info": {"plan": "old", "since": 1})").quit(), 0);
  service.answer("/enabled-status", Script::late(std::chrono::milliseconds(300)));
  auto host = launch();
  host.call("setUserCustomInfo", R"("info": {"plan": "early"})")
      .call("setUserIdentifier", R"("identifier": "refused")");
  host.call("deviceToken", R"("hex": "0aFF")").log("Early").untilReady().log("Later");
  EXPECT_EQ(host.quit(), 0);
  EXPECT_EQ(arrivedEvents(), (Texts{"Early", "Later"}));
  EXPECT_EQ(stored("select count from lifetime_events where name = 'Early'"), Texts{"1"});
  const Value chunk = service.chunks().back();
  EXPECT_EQ(at(chunk, {"chunk_details", "user_attributes"}), Value(Dictionary{{"plan", "early"}, {"since", 1}}));
  EXPECT_EQ(at(chunk, {"device_info", "device_registration_token"}), Value("0AFF"));
  EXPECT_EQ(count(host.errors(), "<KLV ERROR> SDK not enabled - user identifier not set"), 1u);
}

TEST_F(Road, OneProcessAtATimeUsesAHome) {
  auto first = launch();
  first.untilReady();
  ASSERT_TRUE(first.waitForError("initialized!"));
  auto second = launch();
  EXPECT_EQ(second.log("Event").quit(), 4);
  EXPECT_EQ(count(second.errors(), "<KLV ERROR> Process "), 1u) << second.errors();
  EXPECT_EQ(first.log("Mine").quit(), 0);
  EXPECT_EQ(arrivedEvents(), Texts{"Mine"});
}

}  // namespace
}  // namespace kelvo::test

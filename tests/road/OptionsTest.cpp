#include <algorithm>
#include <filesystem>
#include <set>

#include "road/Road.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFarewell = "KelvoiOSSDK finalizer\n";
constexpr const char* kNobodyListens = "http://127.0.0.1:9";

/// Tests with the host of the shared library, which the test controls by lines (see its table of words).
class Options : public Road {
 protected:
  struct Words {
    std::string output, errors;
  };
  /// Starts the host, makes the calls of `lines`, lets it return from main at once, and returns what it wrote.
  Words played(const Texts& lines, Program::Environment environment = {}) {
    environment.insert(kWithoutLeakCheck.begin(), kWithoutLeakCheck.end());  // other threads may still initialise curl
    auto host = run({KELVO_MANNERS_HOST}, environment);
    for (const auto& line : lines) host.writeLine(line);
    host.closeInput();
    EXPECT_EQ(host.wait(), 0) << host.errors();
    return {host.output(), host.errors()};
  }

  /// Returns how often the event `name` arrived. A chunk that arrived again under its id counts once.
  [[nodiscard]] long arrived(const std::string& name) const {
    const auto all = arrivals();
    const std::set<std::pair<std::string, std::string>> distinct(all.begin(), all.end());
    return std::count_if(distinct.begin(), distinct.end(), [&](const auto& event) { return event.first == name; });
  }
};

TEST_F(Options, AStrangersFirstLaunchesPrintNothingAndDeliverEachEventOnce) {
  const std::string start = "options id=shop user=customer-17";
  for (const std::string pause : {"0", "2000", "5000", "10000", "15000", "20000", "40000"}) {  // microseconds
    moveToFreshHome("after-" + pause);
    writeFileForTest(homeOfLaunches() + "/Library/com.kelvo.SDK.config.json",
                     R"({"enable": true, "log_level": "debug"})");  // the service cannot raise the host's level
    const std::string first = "first" + pause, second = "second" + pause;
    const auto before = played({start, "foreground", first, "pause " + pause});
    auto after = run({KELVO_MANNERS_HOST});
    for (const auto& line : {start, std::string("foreground"), second, std::string("ready")}) after.writeLine(line);
    EXPECT_TRUE(after.waitForOutput("status 0 "));
    after.writeLine("background");
    EXPECT_TRUE(eventually([&] { return arrived(first) > 0 && arrived(second) > 0; })) << pause;
    after.closeInput();
    EXPECT_EQ(after.wait(), 0);
    EXPECT_EQ(arrived(first), 1) << pause;
    EXPECT_EQ(arrived(second), 1) << pause;
    EXPECT_EQ(stored("select count from lifetime_events where name = '" + first + "'"), Texts{"1"}) << pause;
    EXPECT_EQ(before.output + before.errors + after.errors(), "") << pause;
    EXPECT_EQ(after.output(), "status 0 Events are collected and sent\n");
  }
  EXPECT_EQ(at(service.chunks().back(), {"chunk_details", "user_attributes"}),
            Value(Dictionary{{"custom_user_id", "customer-17"}}));
}

TEST_F(Options, TheEnvironmentBeatsOptionsAndTheyBeatTheBundle) {
  const auto in = [](const std::string& url) { return "<key>KelvoServerBaseURL</key><string>" + url + "</string>"; };
  const std::string here = service.baseURL(), nowhere = kNobodyListens;
  struct Case {
    std::string environment, option, bundle;
  };
  for (const auto& given : {Case{here, nowhere, nowhere}, Case{"", here, nowhere}, Case{"", "", here}}) {
    const auto before = service.chunks().size();
    const std::string own = home() + "/chosen" + std::to_string(before);
    const std::string names = "<key>CFBundleName</key><string>Bundle</string>" + in(given.bundle);
    auto host =
        run({KELVO_MANNERS_HOST},
            {{"KELVO_SERVER_BASE_URL", given.environment}, {"KELVO_BUNDLE", bundle("", names)}, {"KELVO_HOME", ""}});
    host.writeLine("ready");
    host.writeLine("options id=shop delivery=classic user=u-1 name=Own version=2.1 home=" + own +
                   (given.option.empty() ? "" : " url=" + given.option));
    ASSERT_TRUE(host.waitForOutput("status 0 ")) << host.errors();
    host.writeLine("background");
    ASSERT_TRUE(service.waitForChunks(before + 1)) << host.errors();
    host.closeInput();
    EXPECT_EQ(host.wait(), 0);
    const Value chunk = service.chunks().back();
    EXPECT_EQ(at(chunk, {"app_info", "app_name"}), Value("Own"));
    EXPECT_EQ(at(chunk, {"app_info", "app_version"}), Value("2.1"));
    EXPECT_EQ(at(chunk, {"chunk_details", "user_attributes", "custom_user_id"}), Value("u-1")) << "also under classic";
    EXPECT_TRUE(fs::exists(own + "/Library"));
    EXPECT_EQ(host.errors(), "");
  }
}

TEST_F(Options, OneLineOfTheLoadAndOneFarewellAtMost) {
  const std::string noCore, emptyCore = "<key>Core</key><string></string>";
  const std::string silent = "<key>KelvoFarewell</key><false/>";
  const std::string missing = "invalid Kelvo Meta Info", ignored = "Ignoring Kelvo SDK auto init";
  const std::string invalid = "failed to initialize - invalid appId";
  struct Case {
    const char* name;
    const std::string* kelvo;  ///< of the bundle's dictionary "Kelvo"; nullptr for no bundle
    std::string more;          ///< of the bundle's Info.plist
    Texts lines;
    std::string line;  ///< empty if none of the three lines is written
    bool says;
  };
  const Texts classic{"start"}, options{"options id=shop"}, loud{"options id=shop farewell=yes"};
  for (const Case& given :
       {Case{"linked", nullptr, "", {}, missing, true}, Case{"classic", nullptr, "", classic, missing, true},
        Case{"options", nullptr, "", options, "", false}, Case{"loud", nullptr, "", loud, "", true},
        Case{"noId", nullptr, "", {"options user=u"}, invalid, false},
        Case{"linkedBundle", &noCore, silent, {}, ignored, false},
        Case{"classicBundle", &noCore, silent, classic, ignored, false},
        Case{"optionsBundle", &noCore, "", options, "", false}, Case{"loudBundle", &noCore, silent, loud, "", true},
        Case{"brokenBundle", &emptyCore, "", {}, invalid, true},
        Case{"classicBroken", &emptyCore, "", classic, invalid, true},
        Case{"optionsBroken", &emptyCore, "", options, "", false}}) {
    Program::Environment environment;
    if (given.kelvo != nullptr) environment["KELVO_BUNDLE"] = bundle(*given.kelvo, given.more);
    const auto host = played(given.lines, environment);
    EXPECT_EQ(host.output, given.says ? kFarewell : "") << given.name;
    for (const auto& line : {missing, ignored, invalid}) {
      EXPECT_EQ(count(host.errors, line), line == given.line ? 1U : 0U) << given.name << host.errors;
    }
  }
  const auto sunk = played({"options sink=yes"});
  EXPECT_EQ(count(sunk.output, "sink <KLV ERROR> KelvoiOSSDK failed to initialize - invalid appId: "), 1U);
  EXPECT_EQ(sunk.errors, "") << "the sink is installed first";
}

TEST_F(Options, OnlyTheFirstStartCounts) {
  const char* ignored = "<KLV INFO> Kelvo SDK already initialized. Ignoring this call";
  const auto twice = played({"options id=shop level=info", "options id=other level=off"});
  EXPECT_EQ(count(twice.errors, ignored), 1U) << twice.errors;
  const auto late = played({"options id=other"}, {{"KELVO_BUNDLE", bundle("<key>Core</key><string>auto</string>")}});
  EXPECT_EQ(count(late.errors, ignored), 1U);
  EXPECT_EQ(late.output, kFarewell) << "the bundle has started the library under its own rules";
}

struct Condition {
  const char* name;
  std::function<Program::Environment(collector::Server&)> strike;
  const char* status;  ///< number of the state, and the begin of the reason
};

class Ready : public Options, public testing::WithParamInterface<Condition> {};

TEST_P(Ready, TellsEveryCallbackTheStateInWords) {
  auto host = run({KELVO_MANNERS_HOST}, GetParam().strike(service));
  const std::string status = std::string("status ") + GetParam().status;
  for (const char* line : {"throw", "ready", "options id=shop"}) host.writeLine(line);
  EXPECT_TRUE(host.waitForOutput(status)) << host.output() << host.errors();
  host.writeLine("ready");
  EXPECT_TRUE(eventually([&] { return count(host.output(), status) == 2; })) << host.output();
  host.closeInput();
  EXPECT_EQ(host.wait(), 0);
  EXPECT_EQ(count(host.output(), "status "), 2U) << host.output();
  EXPECT_EQ(count(host.errors(), "<KLV ERROR> A callback of onReady has thrown: of the host"), 1U) << host.errors();
}

constexpr const char* kStatusFile = "com.kelvo.SDK.enable.status.json";
INSTANTIATE_TEST_SUITE_P(
    Conditions, Ready,
    testing::Values(Condition{"healthy", [](auto&) { return Program::Environment{}; }, "0 Events are collected"},
                    Condition{"disabled",
                              [](auto& service) {
                                service.answer("/enabled-status", Script(200, R"({"enabled": 0})"));
                                return Program::Environment{};
                              },
                              "3 The service has switched collection off"},
                    Condition{"savedSwitch",
                              [](auto& service) {
                                service.answer("/enabled-status", Script::cut());
                                writeFileForTest(library(kStatusFile), R"({"status":false})");
                                return Program::Environment{};
                              },
                              "3 The service does not answer, and its last"},
                    Condition{"configuration",
                              [](auto&) {
                                writeFileForTest(library("com.kelvo.SDK.config.json"), R"({"enable": false})");
                                return Program::Environment{};
                              },
                              "3 The service's configuration switches"},
                    Condition{"switchedOff",
                              [](auto&) {
                                return Program::Environment{{"DO_NOT_TRACK", "1"}};
                              },
                              "4 DO_NOT_TRACK"},
                    Condition{"unusableHome",
                              [](auto&) {
                                writeFileForTest(home() + "/file", "");
                                return Program::Environment{{"KELVO_HOME", home() + "/file/home"}};
                              },
                              "6 "}),
    [](const auto& test) { return test.param.name; });

TEST_F(Options, AHomeInUseIsReportedAndItsEventsWait) {
  auto first = launch();
  first.untilReady();
  ASSERT_TRUE(first.waitForError("initialized!"));
  auto second = run({KELVO_MANNERS_HOST});
  for (const char* line : {"ready", "options id=shop", "Beside"}) second.writeLine(line);
  const std::string holder = "status 5 Process " + std::to_string(first.id()) + " uses the home: events wait";
  EXPECT_TRUE(second.waitForOutput(holder)) << second.output();
  second.closeInput();
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(first.quit(), 0);
  EXPECT_EQ(launch().untilReady().quit(), 0);
  EXPECT_EQ(arrivedEvents(), Texts{"Beside"});
}

TEST_F(Options, SwitchedOffHereTheLibraryTouchesNothing) {
  const char* line = "<KLV INFO> Kelvo is switched off on this machine: DO_NOT_TRACK is set in the environment";
  const std::string named = bundle("<key>Core</key><string>auto</string>");
  for (const auto& [starts, bundled, lines] : {std::tuple{"options id=shop", false, 0U},
                                               {"options id=shop level=info", false, 1U},
                                               {"start", false, 1U},
                                               {"Event", true, 1U},
                                               {"Event", false, 0U}}) {
    moveToFreshHome("untouched");
    auto host = run({KELVO_MANNERS_HOST}, {{"DO_NOT_TRACK", "yes"}, {"KELVO_BUNDLE", bundled ? named : ""}});
    for (const char* call : {starts, "Event", "foreground", "attributes x", "background", "run echo done"}) {
      host.writeLine(call);
    }
    ASSERT_TRUE(host.waitForOutput("done"));
    const std::string process = "/proc/" + std::to_string(host.id());
    const auto threads = std::distance(fs::directory_iterator(process + "/task"), {});
    const int ofSanitizer = lines > 0 && kSanitizer == "thread" ? 1 : 0;  // it follows the first other thread
    EXPECT_LE(threads, (lines == 0 ? 1 : 2) + ofSanitizer) << starts << ": the log thread only";
    for (const auto& file : fs::directory_iterator(process + "/fd")) {
      EXPECT_EQ(fs::read_symlink(file).string().find("socket"), std::string::npos);
    }
    host.closeInput();
    EXPECT_EQ(host.wait(), 0);
    EXPECT_EQ(count(host.errors(), line), lines) << starts << host.errors();
    EXPECT_EQ(count(host.errors(), "\n"), lines) << host.errors();
    EXPECT_EQ(host.output(), "done\n");
    EXPECT_FALSE(fs::exists(homeOfLaunches()));
  }
  EXPECT_EQ(service.requests("/").size(), 0U);
  EXPECT_EQ(played({"start"}, {{"DO_NOT_TRACK", "0"}}).output, kFarewell) << "0 means no wish";
  const auto doctor = run({KELVO_INSPECT_PROGRAM, "--doctor"}, {{"DO_NOT_TRACK", "1"}});
  EXPECT_TRUE(doctor.waitForOutput("?   switch      DO_NOT_TRACK is set in the environment."));
}

}  // namespace
}  // namespace kelvo::test

#include "records/KLVInfo.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/Device.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "records/KLVAppInfo.h"
#include "records/KLVChunk.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVEvents.h"
#include "records/KLVSDKInfo.h"
#include "records/KLVSession.h"
#include "records/KLVUser.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVTimer.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

std::string json(const Value& value) {
  return jsonText(value).value_or("(not JSON)");
}

TEST(KLVInfo, TheStorageFormKeepsEveryNumberAndTheCustomAttributes) {
  KLVUser user("u1");
  user.setInfo(std::numeric_limits<std::uint64_t>::max(), "largest");
  user.setInfo(288.0, "floating");
  user.setInfo(Dictionary{{"width", 390.5F}}, "nested");
  user.setInfo("gone", "removed");
  user.setInfo(Dictionary{{"inner", nullptr}}, "empty");
  user.setInfo(nullptr, "removed");
  user.setUserAttribute("gold", "plan");
  user.setUserAttribute(nullptr, "nothing");
  EXPECT_EQ(json(user.jsonDict()),
            R"({"id":"u1","__additional_info__":"{\"largest\":18446744073709551615,\"floating\":288.0,)"
            R"(\"nested\":{\"width\":390.5},\"__custom_info__\":{\"plan\":\"gold\"}}"})");
  const auto rebuilt = objectFromJsonDict<KLVUser>(user.jsonDict());
  EXPECT_EQ(json(rebuilt->jsonDict()), json(user.jsonDict()));
  EXPECT_EQ(json(rebuilt->jsonDictModified()), R"({"additional_info":{"plan":"gold"},"id":"u1"})");
}

TEST(KLVInfo, AttributesThatDoNotParseAreLeftOut) {
  const LogCapture log;
  EXPECT_EQ(objectFromJsonDict<KLVUser>(std::nullopt), nullptr);
  for (const Value& broken : {Value("{\"a\":"), Value("[1]"), Value(), Value(7)}) {
    const auto rebuilt = objectFromJsonDict<KLVUser>(Dictionary{{"id", "u"}, {"__additional_info__", broken}});
    EXPECT_EQ(rebuilt->identifier(), "u");
    EXPECT_TRUE(rebuilt->additionalInfo().empty()) << description(broken);
  }
}

TEST(KLVUser, AttributesFromManyThreadsAllArriveAndAreSaved) {
  struct : KLVUserDelegate {
    void saveUserInfo() override { ++saves; }
    std::atomic<int> saves{0};
  } delegate;
  KLVUser user("u");
  user.setDelegate(&delegate);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&user, thread] {
      for (int i = 0; i < 100; ++i) {
        user.setUserAttribute(i, std::to_string(thread) + "." + std::to_string(i));
        static_cast<void>(user.jsonDictModified());
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(user.userAttributes().size(), 400U);
  EXPECT_EQ(delegate.saves, 400);
}

const std::regex kUUID("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");

TEST(KLVDeviceInfo, TheDeviceIdIsMadeOnceAndKept) {
  const LogCapture log;
  const std::string made = KLVDeviceInfo("").getDeviceID();
  EXPECT_TRUE(std::regex_match(made, kUUID)) << made;
  EXPECT_EQ(KLVDeviceInfo("").getDeviceID(), made);
  UserDefaults::standard().set("klv_device_id", "kiosk-7.east");
  EXPECT_EQ(KLVDeviceInfo("").getDeviceID(), "kiosk-7.east");
  UserDefaults::standard().remove("klv_device_id");
  EXPECT_NE(KLVDeviceInfo("").getDeviceID(), made) << "each installation has its own";
  EXPECT_EQ(log.count("<KLV ERROR>"), 0u);
}

TEST(KLVDeviceInfo, AnIdThatBreaksNamesIsReportedAndReplacedIfTheRulesSaySo) {
  const std::pair<std::string, std::string> idsAndNames[] = {{"x'; drop table t", "x---drop-table-t"},
                                                             {"../a_b\"\n", "..-a-b--"},
                                                             {"K\u00f6ln", "K--ln"},
                                                             {"", "-"},
                                                             {std::string(300, 'a'), std::string(64, 'a')}};
  for (const auto& [id, name] : idsAndNames) {
    const LogCapture log;
    EXPECT_EQ(KLVDeviceInfo::namePart(id), name);
    UserDefaults::standard().set("klv_device_id", id);
    KLVDeliveryRules::choose(KLVDeliveryRules::classic);
    for (unsigned starts = 1; starts <= 2; ++starts) {
      EXPECT_EQ(KLVDeviceInfo("").getDeviceID(), id);
      EXPECT_EQ(log.count("<KLV ERROR> The device id "), starts) << id;
    }
    KLVDeliveryRules::choose(KLVDeliveryRules::complete);
    const std::string fresh = KLVDeviceInfo("").getDeviceID();
    EXPECT_TRUE(std::regex_match(fresh, kUUID)) << fresh;
    EXPECT_EQ(KLVDeviceInfo("").getDeviceID(), fresh);
    EXPECT_EQ(log.count("<KLV ERROR> The device id "), 3u) << id;
  }
}

TEST(KLVInfo, RecordsUploadOnlyAttributesThatTheServiceKnows) {
  writeFileForTest(home() + "/bundle/Info.plist", R"(<plist version="1.0"><dict><key>CFBundleDisplayName</key>
      <string>Shop</string><key>CFBundleShortVersionString</key><string>2.4</string>
      <key>CFBundleIdentifier</key><string>com.example.shop</string></dict></plist>)");
  setenv("KELVO_BUNDLE", (home() + "/bundle").c_str(), 1);
  UserDefaults::standard().set("klv_device_id", "D1");
  Device::setScreenSize({390, 844.5F});
  KLVDeviceInfo device("__undefined-devicename__");
  device.logDeviceToken("0AFF");
  KLVAppInfo app("__undefined-appname__");
  KLVSDKInfo sdk("__undefined-sdkinfo__");
  const auto upload = [](KLVInfo& record, std::initializer_list<const char*> varying) {
    for (const char* key : {"id", "dpi", "sdk_first_run_time_web", "total_duration"}) record.setInfo(1, key);
    record.setCustomInfo(1, "custom");
    Dictionary form = record.jsonDictModified();
    for (const char* key : varying) {
      EXPECT_FALSE(form[key].isNull()) << key;
      form.remove(key);
    }
    return json(form);
  };
  EXPECT_EQ(upload(device, {"hardware_model", "os_version"}),
            R"({"platform":"ios","dimensions":{"width":390.0,"height":844.5},"device_registration_token":"0AFF",)"
            R"("id":"D1","dpi":1})");
  EXPECT_EQ(upload(app, {"app_version", "installation_time"}),
            R"({"app_mode":"Simulator","bundle_id":"com.example.shop","app_name":"Shop","sdk_first_run_time_web":1})");
  EXPECT_EQ(app.additionalInfo()["app_version"], "2.4()");
  EXPECT_EQ(upload(sdk, {"sdk_start_time"}),
            R"({"config_id":"undefined","tick_interval":1,"chunk_retry_window":1,"sdk_version":288.0})");
}

/// Records the calls of a session.
struct Calls final : KLVSessionDelegate {
  using Listener = std::shared_ptr<KLVEventListener>;
  void registerForEventWithType(KLVEventType type, const Listener&) override { add("+", stringFromType(type)); }
  void deregisterForEventWithType(KLVEventType type, const Listener&) override { add("-", stringFromType(type)); }
  void deRegisterIdentifer(const std::string& key, const Listener&) override { add("-", key); }
  void dispatchEvent(const std::shared_ptr<KLVEvent>& event) override { add("!", event->identifier()); }
  void saveSessionInfoWithIndentifier(const std::optional<std::string>& id) override { add("save ", id.value()); }
  void startSessionWithLaunchType(const std::optional<std::string>& type) override { add("start ", type.value()); }
  void add(std::string_view call, std::string_view what) { all.append(call).append(what).append(" "); }
  std::string all;
};

void goForeground(KLVSession& session) {
  session.onEvent(std::make_shared<KLVSystemEvent>(KLVEventType::system, KLVSystemEvent::SubType::foreground));
}

TEST(KLVSession, CountsEachStretchInTheForegroundOnce) {
  // "F7": FOREGROUND is reported 7 seconds after the start; "B9": BACKGROUND 9 seconds after it.
  const struct {
    const char *name, *before, *during;
    double duration;
  } cases[] = {{"the first stretch needs no report", "", "B10", 10},
               {"two stretches", "", "F0 B10 F610 B615", 15},
               {"a second BACKGROUND", "", "B10 B400", 10},
               {"a second BACKGROUND between two stretches", "", "B10 B400 F500 B503 B600", 13},
               {"FOREGROUND begins the stretch again", "", "F5 F7 B10", 3},
               {"a clock that was set back", "", "B10 F50 B40", 10},
               {"reports before the session", "F2 B5 F8", "B10", 5},
               {"a stretch that ended before the session", "B4 B7", "B20 F30 B31", 5}};
  for (const auto& [name, before, during, duration] : cases) {
    Calls calls;
    const Date start = Clock::now();
    KLVTimer::sharedTimer().setSDKStartTime(start);
    const auto each = [start](const char* script, auto enter, auto leave) {
      std::istringstream words(script);
      for (std::string word; words >> word;) {
        const Date when = start + std::chrono::seconds(std::stoi(word.substr(1)));
        word[0] == 'F' ? enter(when) : leave(when);
      }
    };
    KLVForegroundTime earlier(start);
    each(
        before, [&](Date when) { earlier.enter(when); }, [&](Date when) { earlier.leave(when); });
    const auto session = KLVSession::initWithLaunchType("normal", "D1", calls);
    session->continueFrom(earlier);
    each(
        during, [&](Date when) { session->updateStartTime(when); }, [&](Date when) { session->updateEndTime(when); });
    EXPECT_DOUBLE_EQ(session->additionalInfo()["duration"].asDouble(), duration) << name;
  }
}

TEST(KLVSession, RestartsAfterALongAbsenceWhateverFollowsAtOnce) {
  Calls calls;
  const Date start = Clock::now();
  const auto session = KLVSession::initWithLaunchType("normal", "D1", calls);
  const auto at = [start](std::chrono::milliseconds time) { return start + time; };
  calls.all.clear();
  EXPECT_FALSE(session->updateStartTime(at(9000s))) << "it was never in the background";
  session->updateEndTime(at(10000s));
  EXPECT_FALSE(session->updateStartTime(at(11800999ms))) << "1,800 whole seconds";
  EXPECT_FALSE(session->updateStartTime(at(20000s))) << "the absence has ended already";
  goForeground(*session);
  EXPECT_EQ(calls.all, "");
  session->updateEndTime(at(20000s));
  EXPECT_TRUE(session->updateStartTime(at(21801s)));
  session->updateEndTime(at(21801s));
  goForeground(*session);
  goForeground(*session);
  EXPECT_EQ(calls.all, "start restart ");
}

TEST(KLVSession, ARestartedSessionCountsFromTheStartOfTheSDKUnlessItIsWhole) {
  Calls calls;
  KLVTimer::sharedTimer().setSDKStartTime(Clock::now() - 5000s);
  for (const auto& [rules, seconds] : {std::pair(&KLVDeliveryRules::classic, 5000), {&KLVDeliveryRules::complete, 0}}) {
    KLVDeliveryRules::choose(*rules);
    const auto restarted = KLVSession::initWithLaunchType("restart", "it's", calls);
    EXPECT_NE(restarted->identifier().find("-it-s"), std::string::npos) << restarted->identifier();
    restarted->updateEndTime(Clock::now());
    EXPECT_NEAR(restarted->additionalInfo()["duration"].asDouble(), seconds, 60);
  }
}

TEST(KLVSession, IsSavedAtEveryCutUntilItStops) {
  Calls calls;
  const auto session = KLVSession::initWithLaunchType("normal", "D1", calls);
  EXPECT_EQ(std::exchange(calls.all, ""), "+System +Chunk !Session ");
  session->onEvent(std::make_shared<KLVChunkEvent>());
  session->onEvent(std::make_shared<KLVSurveyEvent>());
  EXPECT_EQ(std::exchange(calls.all, ""), "save " + session->identifier() + " ");
  session->stopSession();
  EXPECT_EQ(std::exchange(calls.all, ""), "-0___BACKGROUND -Chunk ");
  session->updateEndTime(Clock::now());
  session->updateStartTime(Clock::now() + 4000s);
  session->onEvent(std::make_shared<KLVChunkEvent>());
  goForeground(*session);
  session->stopSession();
  EXPECT_EQ(calls.all, "") << "a stopped session that is still on the bus";
}

}  // namespace
}  // namespace kelvo::test

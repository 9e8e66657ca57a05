#include "util/KLVUtilities.h"

#include <gtest/gtest.h>

#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <limits>
#include <map>
#include <mutex>

#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVException.h"
#include "util/KLVTimer.h"

namespace kelvo::test {
namespace {

Dictionary dictionaryOf(const std::string& json) {
  return *parseJSON(json)->get<Dictionary>();
}

TEST(Utilities, CountsFallIntoTheirBuckets) {
  const std::map<std::int64_t, std::string> buckets = {
      {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
      {-5, "-5"},
      {0, "0"},
      {9, "9"},
      {10, "01-10"},
      {11, "11-20"},
      {20, "11-20"},
      {99, "91-100"},
      {100, "001-100"},
      {101, "101-200"},
      {200, "101-200"},
      {999, "901-1000"},
      {1000, "901-1000"},
      {1001, "1000+"}};
  for (const auto& [count, label] : buckets) EXPECT_EQ(KLVUtilities::rangeForCount(count), label);
}

TEST(Utilities, DeviceTokensAreWrittenAsHexadecimal) {
  EXPECT_EQ(KLVUtilities::stringWithDeviceToken(Data{0x0A, 0xFF}), "0AFF");
  EXPECT_EQ(KLVUtilities::stringWithDeviceToken(Data{}), "");
  EXPECT_EQ(KLVUtilities::stringWithDeviceToken(std::nullopt), std::nullopt);
}

TEST(Utilities, JSONFailuresAreLoggedAndGiveNothing) {
  const LogCapture log;
  EXPECT_EQ(KLVUtilities::jsonStringFromNSDictionary(Dictionary{{"a", Data{1}}}), std::nullopt);
  EXPECT_EQ(KLVUtilities::jsonStringFromNSArray(std::nullopt), std::nullopt);
  EXPECT_FALSE(KLVUtilities::dictionaryFromJsonString("{"));
  EXPECT_FALSE(KLVUtilities::dictionaryFromNSData(std::nullopt));
  EXPECT_EQ(log.count("<KLV ERROR> JSON Error: "), 4U);
  EXPECT_EQ(log.count("JSON Error: JSON cannot hold bytes (key: a)"), 1U);
  EXPECT_EQ(*KLVUtilities::arrayFromJsonString("\"a bare text\""), Value("a bare text"));
}

TEST(Utilities, ConfigurationsAreSavedAndReadBack) {
  const LogCapture log;
  const std::string path = "com.kelvo.test.json";
  EXPECT_TRUE(KLVUtilities::saveConfig(R"({"a":[1,],})", path));
  EXPECT_EQ(log.count("<KLV DEBUG> Saving config at path: com.kelvo.test.json"), 1U);
  EXPECT_EQ(*jsonText(*KLVUtilities::readConfigAtRelativePath(path)), R"({"a":[1]})");
  EXPECT_EQ(log.count("<KLV INFO> Fetching config at path: " + path + " with actual path: " + library(path)), 1U);

  EXPECT_FALSE(KLVUtilities::saveConfig(std::nullopt, path));
  EXPECT_FALSE(KLVUtilities::saveConfig("{}", std::nullopt));
  EXPECT_FALSE(KLVUtilities::saveConfig("{}", "no/such/directory"));
  EXPECT_FALSE(KLVUtilities::readConfigAtRelativePath(std::nullopt));
  EXPECT_FALSE(KLVUtilities::readConfigAtRelativePath("missing"));
  EXPECT_EQ(log.count("<KLV ERROR> opening config file: No such file or directory"), 1U);
  writeFileForTest(library("bare"), "5");
  EXPECT_FALSE(KLVUtilities::readConfigAtRelativePath("bare")) << "a file holds an object or an array";
  EXPECT_EQ(log.count("<KLV ERROR> parsing json file neither an array nor an object at offset 0 "), 1U);
  writeFileForTest(library("cut"), "{\"a\"");
  EXPECT_FALSE(KLVUtilities::readConfig(library("cut")));
  EXPECT_EQ(log.count("<KLV ERROR> parsing json file incomplete JSON at offset 4) "), 1U);
}

TEST(Utilities, HashesAreKeptByModule) {
  const LogCapture log;
  KLVUtilities::saveHash("abc", "rta");
  EXPECT_EQ(KLVUtilities::getHashForModule("rta"), "abc");
  EXPECT_EQ(KLVUtilities::getHashForModule("survey"), std::nullopt);
  EXPECT_EQ(UserDefaults::standard().string("klv_rta_hash"), "abc");
  EXPECT_EQ(log.count("<KLV DEBUG> Saving hash: abc for module: rta"), 1U);
  EXPECT_EQ(log.count("<KLV DEBUG> Hash saved successfully"), 1U);
}

TEST(Utilities, DatesAreWrittenInTheLocalTimeZoneAndReadInAny) {
  ::setenv("TZ", "IST-5:30", 1);
  KLVUtilities::initializeDateFormatter();
  const Date date{std::chrono::milliseconds(1709627829123)};
  const std::string text = "2024-03-05T14:07:09.123+0530";
  EXPECT_EQ(KLVUtilities::dateKLVStringFromNSDate(date), text);
  EXPECT_EQ(KLVUtilities::dateFromKLVDateString(text), date);
  EXPECT_EQ(KLVUtilities::dateFromKLVDateString("2024-03-05T03:07:09.123-0530"), date);
  EXPECT_EQ(KLVUtilities::timeIntervalFromKLVDateString(text), 1709627829.123);
  EXPECT_EQ(KLVUtilities::dateKLVStringFromTimeInterval(1709627829), "2024-03-05T14:07:09.000+0530");
  EXPECT_EQ(KLVUtilities::dateKLVStringFromNSDate(Date{std::chrono::milliseconds(-1)}), "1970-01-01T05:29:59.999+0530");
  ::setenv("TZ", "XST3:15", 1);
  KLVUtilities::initializeDateFormatter();
  EXPECT_EQ(KLVUtilities::dateKLVStringFromTimeInterval(0), "1969-12-31T20:45:00.000-0315");
  EXPECT_EQ(KLVUtilities::dateKLVStringFromTimeInterval(std::numeric_limits<std::int64_t>::max()), "");
}

TEST(Utilities, OtherTextsAreNoDates) {
  for (const char* text :
       {"", "2024-03-05", "2024-03-05T14:07:09.123Z", "2024-03-05 14:07:09.123+0530", "2024-02-30T00:00:00.000+0000",
        "2024-13-01T00:00:00.000+0000", "2024-00-01T00:00:00.000+0000", "2024-01-01T24:00:00.000+0000",
        "2024-01-01T00:60:00.000+0000", "2024-01-01T00:00:00.000+0060", "2024-01-01T00:00:00.000 0000",
        "2024-01-01T00:00:00.000+00000", "-024-01-01T00:00:00.000+0000", "2024-01-01T00:00:+1.000+0000"}) {
    EXPECT_EQ(KLVUtilities::dateFromKLVDateString(text), std::nullopt) << text;
    EXPECT_EQ(KLVUtilities::timeIntervalFromKLVDateString(text), 0) << text;
  }
  const std::string distant = "9999-12-31T23:59:59.999+0000";
  EXPECT_EQ(KLVUtilities::dateFromKLVDateString(distant), std::nullopt) << "beyond what a date holds";
  EXPECT_EQ(KLVUtilities::timeIntervalFromKLVDateString(distant), 253402300799.999);
}

TEST(Utilities, OnlyTheFirstSessionAfterInstallationIsTheFirst) {
  EXPECT_TRUE(KLVUtilities::isFirstSession());
  EXPECT_FALSE(KLVUtilities::isFirstSession());
  const auto footprint = parseJSON(contentOf(library("com.kelvo.SDK.footprint")));
  ASSERT_TRUE(footprint);
  const auto* time = (*footprint->get<Dictionary>())["klv_footprint_time"].get<std::string>();
  ASSERT_NE(time, nullptr);
  EXPECT_EQ(time->substr(19), " +0000");

  ASSERT_TRUE(removeItem(library("com.kelvo.SDK.footprint")));
  UserDefaults::standard().set("klv_is_first_session", "no");
  EXPECT_FALSE(KLVUtilities::isFirstSession()) << "an earlier version was here";
  EXPECT_FALSE(UserDefaults::standard().contains("klv_is_first_session"));
}

TEST(Utilities, TheInstallationDateIsThatOfTheDocumentsDirectory) {
  const std::int64_t now = KLVTimer::sharedTimer().currentTimeInMillis();
  EXPECT_NEAR(static_cast<double>(KLVUtilities::installationDate()), static_cast<double>(now), 60'000);
  ASSERT_TRUE(removeItem(Directories::documents()));
  EXPECT_EQ(KLVUtilities::installationDate(), 0);
}

// --- Clean-up

TEST(Cleaning, RemovesWhatIsEmptyAtEveryLevel) {
  const std::map<std::string, std::string> cases = {
      {R"({"a":"","b":null,"c":{}})", "{}"},
      {R"({"z":1,"gone":null,"t":"x","f":false,"d":1.5})", R"({"z":1,"t":"x","f":false,"d":1.5})"},
      {R"({"a":{"b":{"c":""}},"k":{"l":{"m":1,"n":null}}})", R"({"k":{"l":{"m":1}}})"},
      {R"({"a":["",null,1,{"x":null},[null],{"y":"","z":2}]})", R"({"a":["",1,{},[],{"z":2}]})"},
      {R"({"a":[null]})", R"({"a":[]})"}};
  for (const auto& [before, after] : cases) {
    const auto clean = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(dictionaryOf(before));
    ASSERT_TRUE(clean) << before;
    EXPECT_EQ(*jsonText(*clean), after) << before;
  }
  const Dictionary others{{"bytes", Data{1}}, {"list", Array{Date{}, 1}}, {"date", Date{}}};
  EXPECT_EQ(*jsonText(*KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(others)), R"({"list":[1]})");
  EXPECT_EQ(KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(Dictionary()), std::nullopt);
  EXPECT_EQ(KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(std::nullopt), std::nullopt);
  EXPECT_EQ(*jsonText(KLVUtilities::dictionaryByRemovingNulls(dictionaryOf(R"({"a":null,"b":"","c":{"d":null}})"))),
            R"({"b":"","c":{"d":null}})");
}

TEST(Cleaning, SharesWhatHasNothingToRemove) {
  const Dictionary dirty = dictionaryOf(R"({"clean":{"b":["",{"c":true},[2.5]]},"empty":""})");
  const Dictionary* inner = dirty["clean"].get<Dictionary>();
  EXPECT_EQ(KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(*inner)->begin(), inner->begin());
  const auto clean = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(dirty);
  EXPECT_EQ((*clean)["clean"].get<Dictionary>()->begin(), inner->begin());
}

TEST(Cleaning, AnEmptyCollectionInAnArrayIsRefusedWithItsReason) {
  const std::map<std::string, std::string> cases = {{R"({"ok":1,"f":[]})", "object cannot be nil (key: f)"},
                                                    {R"({"o":{"f":[]}})", "object cannot be nil (key: f)"},
                                                    {R"({"f":[[]]})", "object cannot be nil"},
                                                    {R"({"f":[1,{}]})", "object cannot be nil"},
                                                    {R"({"f":[{"g":[]}]})", "object cannot be nil (key: g)"}};
  for (const auto& [json, reason] : cases) {
    try {
      static_cast<void>(KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(dictionaryOf(json)));
      ADD_FAILURE() << json;
    } catch (const KLVInvalidArgument& fault) {
      EXPECT_EQ(fault.what(), reason) << json;
    }
  }
}

// --- Time

TEST(Timer, CountsWholeSecondsSinceTheStart) {
  KLVTimer& timer = KLVTimer::sharedTimer();
  timer.setSDKStartTime(Clock::now());
  Clock::advance(std::chrono::milliseconds(1500));
  EXPECT_EQ(timer.currentTime(), 1);
  timer.setSDKStartTime(Clock::now() + std::chrono::milliseconds(900));
  EXPECT_EQ(timer.currentTime(), 0) << "truncated towards zero, also before the start";
}

TEST(Timer, CallsItsClosureAgainAndAgain) {
  std::mutex mutex;
  std::condition_variable called;
  int calls = 0;
  KLVTimer& timer = KLVTimer::sharedTimer();
  for (const double never : {0.0, -1.0, std::nan(""), std::numeric_limits<double>::infinity()}) {
    timer.registerForTimerNotificationWithInterval(never, [] { ADD_FAILURE(); });
  }
  timer.registerForTimerNotificationWithInterval(3600, [&] {
    const std::lock_guard lock(mutex);
    ++calls;
    called.notify_all();
  });
  int hours = 0;
  std::unique_lock lock(mutex);
  while (calls < 3 && hours < 200) {
    lock.unlock();
    Clock::advance(std::chrono::hours(1));
    ++hours;
    lock.lock();
    called.wait_for(lock, std::chrono::milliseconds(100), [&, before = calls] { return calls > before; });
  }
  EXPECT_EQ(calls, 3);
  EXPECT_LE(calls, hours);
}

}  // namespace
}  // namespace kelvo::test

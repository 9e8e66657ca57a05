#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Dates.h"
#include "util/KLVUtilities+Files.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "platform/JSON.h"
#include "platform/PropertyList.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVException.h"
#include "util/KLVMobileProvision.h"

namespace kelvo::test {
namespace {

namespace Utilities = KLVUtilities;

Dictionary dictionaryOf(const std::string& json) {
  return *parseJSON(json)->get<Dictionary>();
}

TEST(Utilities, CountsFallIntoTheirBuckets) {
  std::string labels;
  for (const std::int64_t count : {-5, 0, 9, 10, 11, 20, 99, 100, 101, 200, 999, 1000, 1001}) {
    labels += Utilities::rangeForCount(count) + " ";
  }
  EXPECT_EQ(labels, "-5 0 9 01-10 11-20 11-20 91-100 001-100 101-200 101-200 901-1000 901-1000 1000+ ");
}

TEST(Utilities, AConfigurationFileHoldsAnObjectOrAnArray) {
  const LogCapture log;
  writeFileForTest(library("bare"), "5");
  EXPECT_FALSE(Utilities::readConfigAtRelativePath("bare"));
  EXPECT_EQ(log.count("<KLV ERROR> parsing json file neither an array nor an object at offset 0 "), 1U);
}

TEST(Utilities, DatesAreWrittenInTheLocalTimeZoneAndReadInAny) {
  ::setenv("TZ", "IST-5:30", 1);
  Utilities::initializeDateFormatter();
  const Date date{std::chrono::milliseconds(1709627829123)};
  const std::string text = "2024-03-05T14:07:09.123+0530";
  EXPECT_EQ(Utilities::dateKLVStringFromNSDate(date), text);
  EXPECT_EQ(Utilities::dateFromKLVDateString(text), date);
  EXPECT_EQ(Utilities::dateFromKLVDateString("2024-03-05T03:07:09.123-0530"), date);
  EXPECT_EQ(Utilities::timeIntervalFromKLVDateString(text), 1709627829.123);
  EXPECT_EQ(Utilities::dateKLVStringFromTimeInterval(1709627829), "2024-03-05T14:07:09.000+0530");
  EXPECT_EQ(Utilities::dateKLVStringFromNSDate(Date{std::chrono::milliseconds(-1)}), "1970-01-01T05:29:59.999+0530");
  ::setenv("TZ", "XST3:15", 1);
  Utilities::initializeDateFormatter();
  EXPECT_EQ(Utilities::dateKLVStringFromTimeInterval(0), "1969-12-31T20:45:00.000-0315");
  EXPECT_EQ(Utilities::dateKLVStringFromTimeInterval(std::numeric_limits<std::int64_t>::max()), "");
}

TEST(Utilities, OtherTextsAreNoDates) {
  for (const char* text :
       {"", "2024-03-05", "2024-03-05T14:07:09.123Z", "2024-03-05 14:07:09.123+0530", "2024-02-30T00:00:00.000+0000",
        "2024-00-01T00:00:00.000+0000", "2024-01-01T24:00:00.000+0000", "2024-01-01T00:00:00.000+0060",
        "2024-01-01T00:00:00.000+00000", "-024-01-01T00:00:00.000+0000", "2024-01-01T00:00:+1.000+0000"}) {
    EXPECT_EQ(Utilities::dateFromKLVDateString(text), std::nullopt) << text;
    EXPECT_EQ(Utilities::timeIntervalFromKLVDateString(text), 0) << text;
  }
  EXPECT_EQ(Utilities::dateFromKLVDateString("9999-12-31T23:59:59.999+0000"), std::nullopt) << "no date holds it";
}

// --- Clean-up

TEST(Cleaning, RemovesWhatIsEmptyAtEveryLevel) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"a":"","b":null,"c":{}})", "{}"},
      {R"({"z":1,"gone":null,"t":"x","f":false,"d":1.5})", R"({"z":1,"t":"x","f":false,"d":1.5})"},
      {R"({"a":{"b":{"c":""}},"k":{"l":{"m":1,"n":null}}})", R"({"k":{"l":{"m":1}}})"},
      {R"({"a":["",null,1,{"x":null},[null],{"y":"","z":2}]})", R"({"a":["",1,{},[],{"z":2}]})"}};
  for (const auto& [before, after] : cases) {
    const auto clean = Utilities::dictionaryByRemovingNullsAndEmptyValues(dictionaryOf(before));
    ASSERT_TRUE(clean) << before;
    EXPECT_EQ(*jsonText(*clean), after) << before;
  }
  const Dictionary others{{"bytes", Data{1}}, {"list", Array{Date{}, 1}}};
  EXPECT_EQ(*jsonText(*Utilities::dictionaryByRemovingNullsAndEmptyValues(others)), R"({"list":[1]})");
  EXPECT_EQ(Utilities::dictionaryByRemovingNullsAndEmptyValues(Dictionary()), std::nullopt);
  EXPECT_EQ(*jsonText(Utilities::dictionaryByRemovingNulls(dictionaryOf(R"({"a":null,"b":"","c":{"d":null}})"))),
            R"({"b":"","c":{"d":null}})");
}

TEST(Cleaning, AnEmptyCollectionInAnArrayIsRefused) {
  for (const char* json :
       {R"({"ok":1,"f":[]})", R"({"o":{"f":[]}})", R"({"f":[[]]})", R"({"f":[1,{}]})", R"({"f":[{"g":[]}]})"}) {
    EXPECT_THROW(static_cast<void>(Utilities::dictionaryByRemovingNullsAndEmptyValues(dictionaryOf(json))),
                 KLVInvalidArgument)
        << json;
  }
}

// --- The provisioning profile

TEST(MobileProvision, TellsHowTheApplicationWasDistributed) {
  ::setenv("KELVO_BUNDLE", (home() + "/bundle").c_str(), 1);
  const Value debuggable = Dictionary{{"get-task-allow", true}};
  const Dictionary::Entry devices{"ProvisionedDevices", Array{"device"}}, none{"ProvisionedDevices", Array{}};
  const std::pair<Dictionary, const char*> cases[] = {
      {{{"ProvisionsAllDevices", true}, devices, {"Entitlements", debuggable}}, "Enterprise"},
      {{{"ProvisionsAllDevices", false}, devices, {"Entitlements", debuggable}}, "Developer"},
      {{devices, {"Entitlements", "of the wrong type"}}, "AdHoc"},
      {{none, {"Entitlements", debuggable}}, "AppStore"},
      {{}, "Simulator"}};
  for (const auto& [profile, mode] : cases) {
    const std::string before("\x30\x82\x00\xFF<pl\x00", 8), behind("\x00\xA0</plist\x00\x01", 11);  // the signature
    writeFileForTest(home() + "/bundle/Resources/embedded.mobileprovision",
                     before + serialisePropertyList(profile) + behind);
    const auto say = [] {
      std::cerr << "mode=" << KLVMobileProvision::releaseModeString() << ".\n";
      std::_Exit(0);
    };
    // The profile is kept for the process: each case has its own.
    EXPECT_EXIT(say(), testing::ExitedWithCode(0), std::string("mode=") + mode + "\\.");
  }
}

}  // namespace
}  // namespace kelvo::test

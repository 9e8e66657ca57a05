#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

#include "platform/Clock.h"
#include "platform/JSON.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVException.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Counts.h"
#include "util/KLVUtilities+Dates.h"
#include "util/KLVUtilities+Device.h"
#include "util/KLVUtilities+Files.h"

namespace kelvo::test {
namespace {

Dictionary dictionaryOf(const std::string& json) {
  return *parseJSON(json)->get<Dictionary>();
}

TEST(Utilities, CountsAreGroupedIntoRanges) {
  std::string labels;
  for (const std::int64_t count : {-5, 0, 9, 10, 11, 20, 99, 100, 101, 200, 999, 1000, 1001}) {
    labels += KLVUtilities::rangeForCount(count) + " ";
  }
  EXPECT_EQ(labels, "-5 0 9 01-10 11-20 11-20 91-100 001-100 101-200 101-200 901-1000 901-1000 1000+ ");
}

TEST(Utilities, AConfigurationFileHoldsAnObjectOrAnArray) {
  const LogCapture log;
  writeFileForTest(library("bare"), "5");
  EXPECT_FALSE(KLVUtilities::readConfigAtRelativePath("bare"));
  EXPECT_EQ(log.count("<KLV ERROR> parsing json file neither an array nor an object at offset 0 "), 1U);
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

TEST(Utilities, TextsInAnotherFormAreNotDates) {
  for (const char* text :
       {"", "2024-03-05", "2024-03-05T14:07:09.123Z", "2024-03-05 14:07:09.123+0530", "2024-02-30T00:00:00.000+0000",
        "2024-00-01T00:00:00.000+0000", "2024-01-01T24:00:00.000+0000", "2024-01-01T00:00:00.000+0060",
        "2024-01-01T00:00:00.000+00000", "-024-01-01T00:00:00.000+0000", "2024-01-01T00:00:+1.000+0000"}) {
    EXPECT_EQ(KLVUtilities::dateFromKLVDateString(text), std::nullopt) << text;
    EXPECT_EQ(KLVUtilities::timeIntervalFromKLVDateString(text), 0) << text;
  }
  EXPECT_EQ(KLVUtilities::dateFromKLVDateString("9999-12-31T23:59:59.999+0000"), std::nullopt)
      << "out of the range of Date";
}

TEST(Cleaning, RemovesEmptyValuesAtEveryLevel) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"a":"","b":null,"c":{}})", "{}"},
      {R"({"z":1,"gone":null,"t":"x","f":false,"d":1.5})", R"({"z":1,"t":"x","f":false,"d":1.5})"},
      {R"({"a":{"b":{"c":""}},"k":{"l":{"m":1,"n":null}}})", R"({"k":{"l":{"m":1}}})"},
      {R"({"a":["",null,1,{"x":null},[null],{"y":"","z":2}]})", R"({"a":["",1,{},[],{"z":2}]})"}};
  for (const auto& [before, after] : cases) {
    const auto clean = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(dictionaryOf(before));
    ASSERT_TRUE(clean) << before;
    EXPECT_EQ(*jsonText(*clean), after) << before;
  }
  const Dictionary others{{"bytes", Data{1}}, {"list", Array{Date{}, 1}}};
  EXPECT_EQ(*jsonText(*KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(others)), R"({"list":[1]})");
  EXPECT_EQ(KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(Dictionary()), std::nullopt);
  EXPECT_EQ(*jsonText(KLVUtilities::dictionaryByRemovingNulls(dictionaryOf(R"({"a":null,"b":"","c":{"d":null}})"))),
            R"({"b":"","c":{"d":null}})");
}

TEST(Cleaning, RefusesEmptyArraysAndEmptyContainersInArrays) {
  for (const char* json :
       {R"({"ok":1,"f":[]})", R"({"o":{"f":[]}})", R"({"f":[[]]})", R"({"f":[1,{}]})", R"({"f":[{"g":[]}]})"}) {
    EXPECT_THROW(static_cast<void>(KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(dictionaryOf(json))),
                 KLVInvalidArgument)
        << json;
  }
}

TEST(Cleaning, LeavesEmptyContainersOutIfTheRulesSaySo) {
  KLVDeliveryRules::choose(KLVDeliveryRules::complete);
  const struct {
    const char *before, *after;
    unsigned warnings;
  } cases[] = {{R"({"ok":1,"f":[],"g":[[],{},[null]]})", R"({"ok":1})", 1},
               {R"({"o":{"f":[],"t":"x"},"p":{"q":[]}})", R"({"o":{"t":"x"}})", 1},
               {R"({"f":[1,{},[2,[]],{"x":null}]})", R"({"f":[1,[2]]})", 1},
               {R"({"f":[]})", "{}", 1},
               {R"({"silently":{},"t":"","f":[{"g":1}]})", R"({"f":[{"g":1}]})", 0}};
  for (const auto& [before, after, warnings] : cases) {
    const LogCapture log;
    const auto clean = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(dictionaryOf(before));
    ASSERT_TRUE(clean) << before;
    EXPECT_EQ(*jsonText(*clean), after) << before;
    EXPECT_EQ(log.count("<KLV WARN> Leaving out "), warnings) << before;
    EXPECT_EQ(
        clean->empty() ? *jsonText(*clean) : *jsonText(*KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(*clean)),
        after)
        << "the storage form cleans again";
  }
}

TEST(Utilities, TheInstallationDateCountsMilliseconds) {
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
  EXPECT_NEAR(static_cast<double>(KLVUtilities::installationDate()), static_cast<double>(now), 600'000);
}

}  // namespace
}  // namespace kelvo::test

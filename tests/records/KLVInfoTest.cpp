#include "records/KLVInfo.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <regex>
#include <thread>
#include <vector>

#include "platform/ClassRegistry.h"
#include "platform/Device.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "records/KLVAppInfo.h"
#include "records/KLVChunk.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVSDKInfo.h"
#include "records/KLVUser.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVException.h"

namespace kelvo::test {
namespace {

std::string json(const Value& value) {
  return jsonText(value).value_or("(not JSON)");
}

/// The bundle is read once a process.
class BundleOfTheTests : public testing::Environment {
  void SetUp() override {
    writeFileForTest(
        home() + "/bundle/Info.plist",
        R"(<?xml version="1.0"?><plist version="1.0"><dict><key>CFBundleDisplayName</key><string>Shop</string>
                        <key>CFBundleShortVersionString</key><string>2.4</string>
                        <key>CFBundleIdentifier</key><string>com.example.shop</string></dict></plist>)");
    setenv("KELVO_BUNDLE", (home() + "/bundle").c_str(), 1);
  }
};
const auto* const bundle = testing::AddGlobalTestEnvironment(std::make_unique<BundleOfTheTests>().release());

TEST(KLVInfo, TheStorageFormKeepsEveryNumberAndTheCustomAttributes) {
  KLVUser user("u1");
  user.setInfo(std::numeric_limits<std::int64_t>::min(), "smallest");
  user.setInfo(std::numeric_limits<std::uint64_t>::max(), "largest");
  user.setInfo(288.0, "floating");
  user.setInfo(Dictionary{{"width", 390.5F}}, "nested");
  user.setInfo("gone", "removed");
  user.setInfo(nullptr, "removed");
  user.setUserAttribute("gold", "plan");
  user.setUserAttribute(nullptr, "nothing");
  const Dictionary stored = user.jsonDict();
  EXPECT_EQ(json(stored),
            R"({"id":"u1","__additional_info__":"{\"smallest\":-9223372036854775808,\"largest\":18446744073709551615,)"
            R"(\"floating\":288.0,\"nested\":{\"width\":390.5},\"__custom_info__\":{\"plan\":\"gold\"}}"})");
  const auto rebuilt = objectFromJsonDict<KLVUser>(stored);
  EXPECT_EQ(rebuilt->identifier(), "u1");
  EXPECT_EQ(rebuilt->additionalInfo(), user.additionalInfo());
  EXPECT_NE(rebuilt->additionalInfo()["smallest"].get<std::int64_t>(), nullptr);
  EXPECT_NE(rebuilt->additionalInfo()["largest"].get<std::uint64_t>(), nullptr);
  EXPECT_NE(rebuilt->additionalInfo()["floating"].get<double>(), nullptr);
  EXPECT_EQ(json(rebuilt->userAttributes()), R"({"plan":"gold"})");
  EXPECT_EQ(json(rebuilt->jsonDictModified()), R"({"additional_info":{"plan":"gold"},"id":"u1"})");
}

TEST(KLVInfo, WhatCannotBeKeptOrReadCostsNoMoreThanItself) {
  const LogCapture log;
  KLVInfo record("r");
  record.setInfo(Dictionary{{"inner", nullptr}}, "empty");
  record.setInfo("", "text");
  EXPECT_EQ(json(record.jsonDict()), R"({"id":"r","__additional_info__":"{}"})");
  record.setInfo(Array(), "list");
  EXPECT_THROW(static_cast<void>(record.jsonDict()), KLVInvalidArgument);

  EXPECT_EQ(objectFromJsonDict<KLVUser>(std::nullopt), nullptr);
  for (const Value& broken : {Value("{\"a\":"), Value("[1]"), Value(), Value(7)}) {
    const auto rebuilt = objectFromJsonDict<KLVUser>(Dictionary{{"id", "u"}, {"__additional_info__", broken}});
    EXPECT_EQ(rebuilt->identifier(), "u");
    EXPECT_TRUE(rebuilt->additionalInfo().empty()) << description(broken);
  }
}

TEST(KLVInfo, ARowBecomesARecord) {
  const KLVChunkMetaInfo meta("s1", 5, 1, 20, {1, 2});
  EXPECT_EQ(json(meta.jsonDictModified()),
            R"({"sid":"s1","cid":5,"start":1,"end":20,"reporting_times":[1,2],"status":false,"id":"s1_5"})");
  const auto read = objectFromDictionary<KLVChunkMetaInfo>(
      {{"id", "5___s1"}, {"cid", 5}, {"reporting_times", "[1,2]"}, {"status", nullptr}});
  EXPECT_EQ(read->identifier(), "5___s1");
  EXPECT_EQ(json(read->additionalInfo()), R"({"cid":5,"reporting_times":[1,2],"status":null})");
  EXPECT_EQ(objectFromDictionary<KLVChunkMetaInfo>({})->identifier(), "undefined");

  KLVChunk chunk(3, "S1");
  chunk.setChunkAttribute(1, "kept apart");
  EXPECT_EQ(json(chunk.jsonDictModified()), R"({"number":3,"reporting_times":[],"id":"S1_3"})");
  EXPECT_FALSE(chunk.isStorable());
}

TEST(KLVUser, AttributesFromManyThreadsAllArriveAndAreSaved) {
  struct : KLVUserDelegate {
    void saveUserInfo() override { ++saves; }
    std::atomic<int> saves{0};
  } delegate;
  KLVUser user("u");
  user.setUserAttribute(1, "before there was a delegate");
  const Dictionary before = user.userAttributes();
  user.setDelegate(&delegate);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&user, thread] {
      for (int i = 0; i < 100; ++i) {
        user.setUserAttribute(i, std::to_string(thread) + "." + std::to_string(i));
        user.setUserAttribute(nullptr, "nothing");
        static_cast<void>(user.jsonDictModified());
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(user.userAttributes().size(), 401U);
  EXPECT_EQ(delegate.saves, 400);
  EXPECT_EQ(before.size(), 1U) << "a form is a snapshot";
}

TEST(KLVDeviceInfo, TheDeviceIdIsMadeOnceAndNeverReplaced) {
  struct Manager : AdvertisingIdentifierManager {
    std::string advertisingIdentifier() override { return id.empty() ? throw std::runtime_error("no service") : id; }
    std::string id;
  };
  const LogCapture log;
  constexpr const char* kZeros = "00000000-0000-0000-0000-000000000000";
  const auto newInstallation = [] { UserDefaults::standard().remove("klv_device_id"); };
  const auto advertise = [](const std::string& id) {
    ClassRegistry::add("ASIdentifierManager", [id]() -> std::shared_ptr<AdvertisingIdentifierManager> {
      const auto manager = std::make_shared<Manager>();
      manager->id = id;
      return manager;
    });
  };
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");

  newInstallation();
  const std::string first = KLVDeviceInfo("").getDeviceID();
  EXPECT_TRUE(std::regex_match(first, uuid)) << first;
  advertise("ADVERTISED");
  EXPECT_EQ(KLVDeviceInfo("").getDeviceID(), first);
  EXPECT_EQ(UserDefaults(library("Preferences/com.example.shop.plist")).string("klv_device_id"), first);
  newInstallation();
  EXPECT_EQ(KLVDeviceInfo("").getDeviceID(), "ADVERTISED");
  for (const char* unusable : {kZeros, ""}) {
    newInstallation();
    advertise(unusable);
    const std::string made = KLVDeviceInfo("").getDeviceID();
    EXPECT_TRUE(std::regex_match(made, uuid) && made != first) << made;
  }
  UserDefaults::standard().set("klv_device_id", kZeros);
  EXPECT_EQ(KLVDeviceInfo("").getDeviceID(), kZeros);
}

TEST(KLVInfo, TheInformationRecordsUploadWhatTheServiceKnowsAndNothingElse) {
  UserDefaults::standard().set("klv_device_id", "D1");
  Device::setScreenSize({390, 844.5F});
  KLVDeviceInfo device("__undefined-devicename__");
  device.logDeviceToken("0AFF");
  KLVAppInfo app("__undefined-appname__");
  KLVSDKInfo sdk("__undefined-sdkinfo__");
  const auto upload = [](KLVInfo& record, const std::vector<const char*>& varying) {
    for (const char* key : {"id", "dpi", "dimensions_in_pixels", "sdk_first_run_time_web", "total_duration"}) {
      record.setInfo(1, key);
    }
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
            R"("id":"D1","dpi":1,"dimensions_in_pixels":1})");
  EXPECT_EQ(upload(app, {"app_version", "installation_time"}),
            R"({"app_mode":"Simulator","bundle_id":"com.example.shop","app_name":"Shop","sdk_first_run_time_web":1})");
  EXPECT_EQ(app.additionalInfo()["app_version"], "2.4()");
  EXPECT_EQ(upload(sdk, {"sdk_start_time"}),
            R"({"config_id":"undefined","tick_interval":1,"chunk_retry_window":1,"sdk_version":288.0})");
  EXPECT_EQ(sdk.identifier(), "288");
}

}  // namespace
}  // namespace kelvo::test

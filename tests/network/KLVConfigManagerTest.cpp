#include <filesystem>

#include "network/NetworkTest.h"

namespace kelvo::test {
namespace {

const std::string kFile = "com.kelvo.SDK.config.json";

using ConfigManager = NetworkTest;

TEST_F(ConfigManager, LoadsTheSavedConfigurationElseTheDefaultElseTurnsTheSDKOff) {
  const struct {
    const char* saved;  // empty for no file
    bool enabled, isDefault, hashCounts;
  } cases[] = {{"", true, true, false},
               {"{\"enable\":tru", true, true, false},
               {"[true]", true, true, false},
               {"{\"enable\":true,\"other\":1}", true, false, false},
               {"{\"enable\":false}", false, false, false},
               {"{\"enable\":false,\"service_paths\":1}", false, false, true},
               {"{\"other\":1}", false, false, false},
               {"{\"enable\":\"true\"}", false, false, false}};
  for (const auto& [saved, enabled, isDefault, hashCounts] : cases) {
    SCOPED_TRACE(saved);
    if (*saved != '\0') writeFileForTest(library(kFile), saved);
    Controller controller;
    const KLVConfigManager manager(controller);
    EXPECT_EQ(controller.enabled, enabled);
    EXPECT_EQ(manager.hasSavedConfiguration(), hashCounts);
    ASSERT_TRUE(manager.configDetails());
    EXPECT_EQ((*manager.configDetails())["max_chunk_event_count"] == Value(30), isDefault);
  }
  EXPECT_EQ(log.count("<KLV ERROR> parsing json file "), 1U);

  EXPECT_TRUE(KLVConfigManager::defaultConfig("A").ends_with(
      "\"max_bg_chunk_send_time\":5,\"max_fg_chunk_send_time\":30,\"service_paths\":{\"chunk_paths\":"
      "\"/v2/api/A/chunks\",\n\"gzip_chunk_path\":\"/v2/api/gzip-chunks?appId=A\",\n"
      "\"logs_paths\":\"/v1/api/appsA\",\n}}"));
  std::filesystem::remove(library(kFile));
  Controller unreadable;
  unreadable.identifier = "\"";  // makes the default invalid JSON
  EXPECT_FALSE(KLVConfigManager(unreadable).configDetails());
  EXPECT_EQ(unreadable.enabled, false);
  EXPECT_EQ(log.count("<KLV ERROR> Error getting configuration: "), 1U);
}

TEST_F(ConfigManager, SavesAValidDownloadForTheNextStartAndKeepsTheOldFileOtherwise) {
  const std::string before = R"({"enable":true,"service_paths":1,"old":true})";
  const struct {
    Script script;
    std::string after, message;
  } cases[] = {{{200, R"({"details":{"service_paths":{},"enable":false,"n":18446744073709551615},"more":1})"},
                R"({"service_paths":{},"enable":false,"n":18446744073709551615})",
                "Recieved Config: {\"details\":"},
               {{200, R"({"details":{"enable":true}})"}, before, "Fetch Config response: http://127.0.0.1"},
               {{200, "null"},
                before,
                "<KLV WARN> Invalid json result while fetching config: (null) with response: http://127.0.0.1"},
               {{200, "<html>"}, before, "<KLV ERROR> JSON Error: "},
               {{500, before}, before, "<KLV ERROR> Cound not get Configuration: (null)"},
               {Script::cut(), before, "<KLV ERROR> Cound not get Configuration: "}};
  Controller controller;
  KLVConfigManager manager(controller);
  const auto inForce = manager.configDetails();
  const auto download = [&] {  // returns whether the manager called back
    bool calledBack = false;
    manager.getAndSaveLatestConfigurationWithCompletionHandler([&] { calledBack = true; });
    waitForTheEnd();
    EXPECT_EQ(manager.configDetails(), inForce);
    return calledBack;
  };
  for (const auto& [script, after, message] : cases) {
    SCOPED_TRACE(script.body() + " " + message);
    writeFileForTest(library(kFile), before);
    server.answer("/v2/api/config/APP/ios", script);
    const auto earlier = log.count(message);
    EXPECT_EQ(download(), after != before);
    EXPECT_EQ(contentOf(library(kFile)), after);
    EXPECT_GT(log.count(message), earlier);
  }
  std::filesystem::remove(library(kFile));
  std::filesystem::create_directories(library(kFile) + "/in the way");
  server.answer("/ios", cases[0].script);
  EXPECT_FALSE(download());
  EXPECT_EQ(log.count("<KLV ERROR> Couldn't write sdk config to file"), 1U);
}

TEST_F(ConfigManager, AConfigurationBeyondItsLimitsIsNeitherSavedNorRead) {
  const std::string begin = "{\"enable\":false,\"service_paths\":1,\"x\":", small = begin + "1}";
  std::string many;
  for (int value = 0; value < 300'000; ++value) many += "0,";
  const std::string large = begin + "\"" + std::string(2 << 20, 'x') + "\"}", numerous = begin + "[" + many + "0]}";
  writeFileForTest(library(kFile), small);
  for (const std::string& hostile : {large, numerous}) {
    server.answer("/ios", {200, "{\"details\":" + hostile + "}"});
    Controller controller;
    KLVConfigManager manager(controller);
    EXPECT_EQ(controller.enabled, false);
    manager.getAndSaveLatestConfigurationWithCompletionHandler([] { ADD_FAILURE(); });
    waitForTheEnd();
    EXPECT_EQ(contentOf(library(kFile)), small);
  }
  EXPECT_EQ(log.count("Cound not get Configuration: The answer is larger than 2097152 bytes"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> JSON Error: too many values at offset "), 1U);

  for (const std::string& hostile : {large, numerous}) {
    writeFileForTest(library(kFile), hostile);
    Controller controller;
    const KLVConfigManager manager(controller);
    EXPECT_EQ(controller.enabled, true) << "the default";
    EXPECT_FALSE(manager.hasSavedConfiguration());
  }
  EXPECT_EQ(log.count("<KLV WARN> " + library(kFile) + " is larger than 2097152 bytes: it counts as missing"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> parsing json file too many values"), 1U);
}

}  // namespace
}  // namespace kelvo::test

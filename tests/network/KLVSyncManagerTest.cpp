#include <filesystem>
#include <regex>
#include <sstream>

#include "network/NetworkTest.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "util/KLVUtilities+Actions.h"
#include "util/KLVUtilities+Files.h"

namespace kelvo::test {
namespace {

const std::string kRTAFile = "com.kelvo.SDK.v2.rta.config.json";
const std::string kSurveyFile = "com.kelvo.SDK.v2.survey.config.json";

/// Returns the content of the saved file for "a1:P1 a2:P2": actions by id, each with its campaign.
Dictionary file(const std::string& actions) {
  Dictionary byId;
  std::istringstream all(actions);
  for (std::string action; all >> action;) {
    const auto colon = action.find(':');
    const std::string id = action.substr(0, colon);
    byId.set(id, Dictionary{{"_id", id}, {"pid", action.substr(colon + 1)}});
  }
  return byId;
}

std::string validation(const std::string& pidMID) {
  return *jsonText(Dictionary{{"hash", "new"}, {"pid_mid", pidMID}});
}

std::string fetched(const std::string& actions) {
  Array configs;
  for (const auto& [id, action] : file(actions)) configs.append(action);
  return *jsonText(Dictionary{{"configs", configs}});
}

/// Returns the columns of a table row, which " | " separates.
std::vector<std::string> columns(const std::string& row) {
  static const std::regex separator(R"( *\| +)");
  return {std::sregex_token_iterator(row.begin(), row.end(), separator, -1), {}};
}

/// Returns the answer that a column describes: "cut", or a whole body in JSON or HTML, or the input of `body`, after
/// "500 " for a failure.
Script answerOf(const std::string& column, std::string (*body)(const std::string&)) {
  const std::string refused = "500 ";
  if (column == "cut") return Script::cutShort();
  if (column.rfind(refused, 0) == 0) return {500, body(column.substr(refused.size()))};
  const bool isBody = column[0] == '{' || column[0] == '<';
  return {200, isBody ? column : body(column)};
}

class SyncManager : public NetworkTest {
 protected:
  void deviceHolds(const std::string& record, const std::string& actions, const std::string& hash) {
    controller.records["rta"] = KLVUtilities::getPIDMIDDictFromString(record);
    std::filesystem::remove(library(kRTAFile));
    if (!actions.empty()) {
      writeFileForTest(library(kRTAFile), actions == "corrupt" ? "[1," : *jsonText(file(actions)));
    }
    UserDefaults::standard().remove("klv_rta_hash");
    if (!hash.empty()) UserDefaults::standard().set("klv_rta_hash", hash);
  }

  void expectOnDevice(const std::string& record, const std::string& actions, const std::string& hash) {
    EXPECT_EQ(controller.records["rta"], KLVUtilities::getPIDMIDDictFromString(record));
    EXPECT_EQ(contentOf(library(kRTAFile)), actions.empty() ? "" : *jsonText(file(actions == "none" ? "" : actions)));
    EXPECT_EQ(KLVUtilities::getHashForModule("rta").value_or(""), hash);
  }

  /// Runs one synchronisation to its end. Returns how often it calls back.
  int callbacks(const std::string& type = "rta", const std::string& version = "3") {
    std::atomic<int> count = 0;
    manager.getSyncDataForActionType(type, version, [&] { ++count; });
    waitForTheEnd();
    return count;
  }

  /// Runs one synchronisation. Returns how often it calls back, followed by the campaigns that it fetches.
  std::string outcome() {
    const auto before = server.requests("/v2/sync").size();
    const std::string count = std::to_string(callbacks());
    const auto requests = server.requests("/v2/sync");
    EXPECT_EQ(requests.at(before).path, "/v2/sync/APP/validate");
    if (requests.size() == before + 1) return count;
    EXPECT_EQ(requests.size(), before + 2);
    const std::string query = requests.back().query;
    const std::string fixed = "userId=" + controller.device->identifier() + "&actionType=rta&version=3&platform=ios";
    EXPECT_EQ(requests.back().path, "/v2/sync/APP/rta");
    EXPECT_EQ(query.substr(0, fixed.size()), fixed);
    return count + " " + query.substr(fixed.size());
  }

  Controller controller;
  KLVSyncManager manager{controller};
};

// Columns: the announced campaigns | record, file and hash on the device before | the fetched actions |
// number of callbacks and the requested campaigns | record, file and hash after | a part of a log line
const std::string kReconciliation = R"(
P1_1,P2_1 |           |             |     | n1:P1 n2:P2 | 1 &pids=P1&pids=P2 | P1_1,P2_1 | n1:P1 n2:P2 | new | Empty config in disk for type: rta
P1_2      | P1_1,P2_1 | a1:P1 a2:P2 | new |             | 1                  | P1_1,P2_1 | a1:P1 a2:P2 | new | Existing hash: new, new hash: new
P1_1      | P1_1      |             | new | n1:P1       | 1 &pids=P1         | P1_1      | n1:P1       | new | Adjusting local PIDMIDs for PID: P1
P1_1      | P1_1      | corrupt     | new | n1:P1       | 1 &pids=P1         | P1_1      | n1:P1       | new | Empty config in disk for type: rta
P1_2,P2_1 | P1_1,P2_1 | a1:P1 a2:P2 | old | n1:P1       | 1 &pids=P1         | P1_2,P2_1 | a1:P1 a2:P2 n1:P1 | new | Appending new config: ["n1"]
P1_1,P2_1 | P1_1      | a1:P1       | old | a1:P2       | 1 &pids=P2         | P1_1,P2_1 | a1:P2       | new | URL to fetch action config: /v2/sync/APP/rta?
P2_1      | P1_1,P2_1 | a1:P1 a2:P2 | old |             | 1                  | P2_1      | a2:P2       | old | Dropping config for PID: P1
P1_1,P2_1 | P1_1,P2_1 | a1:P1 a2:P2 | old |             | 1                  | P1_1,P2_1 | a1:P1 a2:P2 | old | No changes in sync config, not making any calls
P1_1,P2_1 | P1_1,P2_1 | a2:P2       | old | n1:P1       | 1 &pids=P1         | P1_1,P2_1 | a2:P2 n1:P1 | new | Adjusting local PIDMIDs for PID: P1
P1_1      | P1_1,P2_1 | a1:P1       | old |             | 1                  | P1_1,P2_1 | a1:P1       | old | Adjusting local PIDMIDs for PID: P2
P1_1      | P1_1      | a1:P1 a2:P2 | old |             | 1                  | P1_1      | a1:P1       | old | Mismatch - action config count and local PIDs count
P2_1      | P1_1      | a1:P1       | old | 500 n1:P2   | 1 &pids=P2         | P1_1      | none        | old | Action config for type: rta modified. Attempting to save config ..
x,P1_1_y,,_9,P1_2,P2_ |  |          |     | n1:P1       | 1 &pids=P1&pids=&pids=P2 | P1_2,_9,P2_ | n1:P1 | new | Server PIDs: ["P1","","P2"]
P1_1      |           |             |     |             | 1 &pids=P1         | P1_1      | none        | new | Config to be saved is: {}
P+1_2_3   |           |             |     | n1:P+1      | 1 &pids=P%2B1      | P+1_2     | n1:P+1      | new | Server PIDs: ["P+1"]
P1_1      | P1_1      | corrupt     | old | n1:P1       | 1 &pids=P1         | P1_1      | n1:P1       | new | <KLV ERROR> parsing json file
)";

// Failures: record, file and hash stay unchanged.
const std::string kFailures = R"(
cut       | P1_1,P2_1 | a1:P1 a2:P2 | old |             | 1                  | P1_1,P2_1 | a1:P1 a2:P2 | old | <KLV ERROR> Cound not validate hash:
500 P1_2  | P1_1,P2_1 | a1:P1 a2:P2 | old |             | 1                  | P1_1,P2_1 | a1:P1 a2:P2 | old | Booting rta/survey plugin with saved configuration
<html>    | P1_1,P2_1 | a1:P1 a2:P2 | old |             | 0                  | P1_1,P2_1 | a1:P1 a2:P2 | old | <KLV ERROR> JSON Error:
{"pid_mid":"P1_2"} | P1_1,P2_1 | a1:P1 a2:P2 | old |    | 0                  | P1_1,P2_1 | a1:P1 a2:P2 | old | Received data: {"pid_mid":"P1_2"}
          | P1_1,P2_1 | a1:P1 a2:P2 | old |             | 0                  | P1_1,P2_1 | a1:P1 a2:P2 | old | <KLV WARN> Invalid pid_mid content inside action sync validate call for type: rta
{"hash":"old"} | P1_1 | a1:P1       | old |             | 1                  | P1_1      | a1:P1       | old | Existing hash: old, new hash: old
{"hash":"new","pid_mid":["P1_2"]} | P1_1,P2_1 | a1:P1 a2:P2 | old | | 0      | P1_1,P2_1 | a1:P1 a2:P2 | old | <KLV WARN> Invalid pid_mid content inside action sync validate call for type: rta
P1_2,P2_1 | P1_1,P2_1 | a1:P1 a2:P2 | old | cut         | 1 &pids=P1         | P1_1,P2_1 | a1:P1 a2:P2 | old | <KLV DEBUG> Booting with saved configuration
P1_2,P2_1 | P1_1,P2_1 | a1:P1 a2:P2 | old | 500 n1:P1   | 1 &pids=P1         | P1_1,P2_1 | a1:P1 a2:P2 | old | <KLV INFO> Sync config fetch failed
P1_2,P2_1 | P1_1,P2_1 | a1:P1 a2:P2 | old | <html>      | 1 &pids=P1         | P1_1,P2_1 | a1:P1 a2:P2 | old | <KLV WARN> Invalid json result received
P1_2,P2_1 | P1_1,P2_1 | a1:P1 a2:P2 | old | {"configs":{}} | 1 &pids=P1      | P1_1,P2_1 | a1:P1 a2:P2 | old | Will boot with saved configuration
)";

TEST_F(SyncManager, UpdatesFileRecordAndHashOrLeavesThemUnchanged) {
  std::istringstream rows(kReconciliation + kFailures);
  for (std::string row; std::getline(rows, row);) {
    if (row.empty()) continue;
    SCOPED_TRACE(row);
    const auto given = columns(row);
    deviceHolds(given.at(1), given.at(2), given.at(3));
    server.answer("/validate", answerOf(given[0], validation));
    server.answer("/rta", answerOf(given[4], fetched));
    const auto logged = log.count(given.at(9));
    EXPECT_EQ(outcome(), given[5]);
    expectOnDevice(given[6], given[7], given[8]);
    EXPECT_GT(log.count(given[9]), logged);
  }
}

TEST_F(SyncManager, AConfigurationThatCannotBeSavedIsFetchedAgain) {
  std::filesystem::create_directories(library(kRTAFile) + "/in the way");
  server.answer("/validate", {200, validation("P1_1")});
  server.answer("/rta", {200, fetched("n1:P1")});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(outcome(), "1 &pids=P1");
  EXPECT_EQ(log.count("<KLV WARN> Couldn't write action config to file"), 2u);
  EXPECT_TRUE(controller.records["rta"].empty());
}

TEST_F(SyncManager, AnEmptyHashNeverCountsAsTheSameOne) {
  server.answer("/validate", {200, R"({"hash":"","pid_mid":"P1_1"})"});
  server.answer("/rta", {200, fetched("n1:P1")});
  EXPECT_EQ(outcome(), "1 &pids=P1");
  server.answer("/validate", {200, R"({"hash":"","pid_mid":"P1_2"})"});
  EXPECT_EQ(outcome(), "1 &pids=P1");
}

TEST_F(SyncManager, EveryTypeButRTAFetchesSurveysAndSavesTheirActionsUnchanged) {
  const std::string action = R"({"_id":"n","pid":"P1","more":[1,{"x":null}],"part":0.5})";
  server.answer("/validate", {200, validation("P1_1")});
  server.answer("/surveys", {200, R"({"configs":[{"pid":"P1"},7,)" + action + "]}"});
  EXPECT_EQ(callbacks("poll", "v 1"), 1);
  const std::string user = "userId=" + controller.device->identifier();
  EXPECT_EQ(server.requests("/v2/sync/APP/surveys").at(0).query,
            user + "&actionType=survey&version=v%201&platform=ios&pids=P1");
  EXPECT_EQ(contentOf(library(kSurveyFile)), R"({"n":)" + action + "}");
}

TEST_F(SyncManager, ActionsMayBeLargeButTheirValidationMayNot) {
  const std::string large(3 << 20, 'x');
  server.answer("/validate", {200, validation("P1_1")});
  server.answer(
      "/rta", {200, *jsonText(Dictionary{{"configs", Array{Dictionary{{"_id", "n"}, {"pid", "P1"}, {"x", large}}}}})});
  EXPECT_EQ(outcome(), "1 &pids=P1");
  EXPECT_TRUE(KLVSyncManager::savedConfig("rta")["n"] == Value(Dictionary{{"_id", "n"}, {"pid", "P1"}, {"x", large}}));
  EXPECT_EQ(outcome(), "1") << "the saved actions count";
  server.answer("/validate", {200, *jsonText(Dictionary{{"hash", "next"}, {"pid_mid", large}})});
  EXPECT_EQ(outcome(), "1");
  EXPECT_EQ(log.count("Cound not validate hash: The answer is larger than 2097152 bytes"), 1U);
}

}  // namespace
}  // namespace kelvo::test

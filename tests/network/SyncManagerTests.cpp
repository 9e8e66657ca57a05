#include "network/KLVSyncManager.h"

#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "network/NetworkTest.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "support/TestHome.h"
#include "util/KLVUtilities.h"

namespace kelvo::test {
namespace {

const std::string kRTAFile = "com.kelvo.SDK.v2.rta.config.json";
const std::string kSurveyFile = "com.kelvo.SDK.v2.survey.config.json";

class Controller final : public KLVSyncManagerDelegate {
 public:
  std::string applicationIdentifier() override { return "APP"; }
  std::shared_ptr<KLVDeviceInfo> deviceInfo() override { return device; }
  std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) override {
    return records.count(type) > 0 ? std::optional(records[type]) : std::nullopt;
  }
  void persistPIDMIDDict(const std::optional<Dictionary>& record, const std::string& type) override {
    if (KLVUtilities::isValidDictionary(record)) records[type] = *record;
  }
  void getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) override {
    KLVPostman().getDataFromURLPath(*path, std::move(completion));
  }
  const std::shared_ptr<KLVDeviceInfo> device = std::make_shared<KLVDeviceInfo>("");
  std::map<std::string, Dictionary> records;
};

/// "a1:P1 a2:P2": actions by id and campaign, as the saved file holds them.
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

/// The columns of a line, which are set apart by " | ".
std::vector<std::string> columns(const std::string& line) {
  static const std::regex separator(R"( *\| +)");
  return {std::sregex_token_iterator(line.begin(), line.end(), separator, -1), {}};
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

  /// Waits for the end of the whole call, whether it calls back or not.
  int callbacks(const std::string& type = "rta", const std::string& version = "3") {
    std::atomic<int> count = 0;
    manager.getSyncDataForActionType(type, version, [&] { ++count; });
    while (KLVPostman::sharedSession().unfinished() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return count;
  }

  /// The pids that a call asks for; "-" when it fetches nothing.
  std::string asked() {
    const auto before = server.requests("/v2/sync").size();
    EXPECT_EQ(callbacks(), 1);
    const auto requests = server.requests("/v2/sync");
    EXPECT_EQ(requests.at(before).path, "/v2/sync/APP/validate");
    if (requests.size() == before + 1) return "-";
    EXPECT_EQ(requests.size(), before + 2);
    const std::string query = requests.back().query;
    const std::string fixed = "userId=" + controller.device->identifier() + "&actionType=rta&version=3&platform=ios";
    EXPECT_EQ(requests.back().path, "/v2/sync/APP/rta");
    EXPECT_EQ(query.substr(0, fixed.size()), fixed);
    return query.substr(fixed.size());
  }

  Controller controller;
  KLVSyncManager manager{controller};
};

// What the service announces | the device's record | its file | its hash | what a fetch brings
//   | what is asked for | the record after | the file after | the hash after | a line that is logged
const std::string kReconciliation = R"(
P1_1,P2_1 |           |             |     | n1:P1 n2:P2 | &pids=P1&pids=P2 | P1_1,P2_1 | n1:P1 n2:P2 | new | Empty config in disk for type: rta
P1_2      | P1_1,P2_1 | a1:P1 a2:P2 | new |             | -                | P1_1,P2_1 | a1:P1 a2:P2 | new | Existing hash: new, new hash: new
P1_2,P2_1 | P1_1,P2_1 | a1:P1 a2:P2 | old | n1:P1       | &pids=P1         | P1_2,P2_1 | a1:P1 a2:P2 n1:P1 | new | Appending new config: ["n1"]
P1_1,P2_1 | P1_1      | a1:P1       | old | a1:P2       | &pids=P2         | P1_1,P2_1 | a1:P2       | new | URL to fetch action config: /v2/sync/APP/rta?
P2_1      | P1_1,P2_1 | a1:P1 a2:P2 | old |             | -                | P2_1      | a2:P2       | old | Dropping config for PID: P1
P1_1,P2_1 | P1_1,P2_1 | a1:P1 a2:P2 | old |             | -                | P1_1,P2_1 | a1:P1 a2:P2 | old | No changes in sync config, not making any calls
P1_1,P2_1 | P1_1,P2_1 | a2:P2       | old | n1:P1       | &pids=P1         | P1_1,P2_1 | a2:P2 n1:P1 | new | Adjusting local PIDMIDs for PID: P1
P1_1      | P1_1,P2_1 | a1:P1       | old |             | -                | P1_1,P2_1 | a1:P1       | old | Adjusting local PIDMIDs for PID: P2
P1_1      | P1_1      | a1:P1 a2:P2 | old |             | -                | P1_1      | a1:P1       | old | Mismatch - action config count and local PIDs count
P2_1      | P1_1      | a1:P1       | old | fails       | &pids=P2         | P1_1      | none        | old | Action config for type: rta modified. Attempting to save config ..
x,P1_1_y,,_9,P1_2,P2_ |  |          |     | n1:P1       | &pids=P1&pids=&pids=P2 | P1_2,_9,P2_ | n1:P1 | new | Server PIDs: ["P1","","P2"]
P1_1      |           |             |     |             | &pids=P1         | P1_1      | none        | new | Config to be saved is: {}
P1_1      | P1_1      | corrupt     | old | n1:P1       | &pids=P1         | P1_1      | n1:P1       | new | <KLV ERROR> parsing json file
)";

TEST_F(SyncManager, BringsFileRecordAndHashInStepWithTheService) {
  std::istringstream lines(kReconciliation);
  int cases = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    ++cases;
    SCOPED_TRACE(line);
    const auto given = columns(line);
    deviceHolds(given.at(1), given.at(2), given.at(3));
    server.answer("/validate", {200, validation(given[0])});
    server.answer("/rta", given[4] == "fails" ? Script(500) : Script(200, fetched(given[4])));
    const auto logged = log.count(given.at(9));
    EXPECT_EQ(asked(), given[5]);
    expectOnDevice(given[6], given[7], given[8]);
    EXPECT_GT(log.count(given[9]), logged);
  }
  EXPECT_EQ(cases, 13);
}

TEST_F(SyncManager, AFailureLeavesAllAsItWasAndOnlySomeAreSilent) {
  const std::string refused = "<KLV WARN> Invalid pid_mid content inside action sync validate call for type: rta";
  const Script changed(200, validation("P1_2,P2_1"));
  const struct {
    Script validate;
    std::optional<Script> fetch;
    bool callsBack;
    std::string line;
  } cases[] = {
      {Script::cutShort(), {}, true, "<KLV ERROR> Cound not validate hash: "},
      {{404, validation("P1_2")}, {}, true, "Booting rta/survey plugin with saved configuration"},
      {{200, "<html>"}, {}, false, "<KLV ERROR> JSON Error: "},
      {{200, R"({"pid_mid":"P1_2"})"}, {}, false, "Received data: {\"pid_mid\":\"P1_2\"}"},
      {{200, validation("")}, {}, false, refused},
      {{200, R"({"hash":"new","pid_mid":["P1_2"]})"}, {}, false, refused},
      {changed, Script::cutShort(), true, "<KLV DEBUG> Booting with saved configuration"},
      {changed, Script(500, fetched("n1:P1")), true, "<KLV INFO> Sync config fetch failed"},
      {changed, Script::garbage(), true, "<KLV WARN> Invalid json result received"},
      {changed, Script(200, R"({"configs":{}})"), true, "Will boot with saved configuration"},
  };
  for (const auto& given : cases) {
    SCOPED_TRACE(given.line);
    deviceHolds("P1_1,P2_1", "a1:P1 a2:P2", "old");
    server.answer("/validate", given.validate);
    server.answer("/rta", given.fetch.value_or(Script(500)));
    const auto fetches = server.requests("/rta").size();
    const auto logged = log.count(given.line);
    EXPECT_EQ(callbacks(), given.callsBack ? 1 : 0);
    EXPECT_EQ(server.requests("/rta").size() - fetches, given.fetch ? 1u : 0u);
    expectOnDevice("P1_1,P2_1", "a1:P1 a2:P2", "old");
    EXPECT_GT(log.count(given.line), logged);
  }
  deviceHolds("", "", "");
  std::filesystem::create_directories(library(kRTAFile) + "/in the way");
  server.answer("/rta", {200, fetched("n1:P1")});
  EXPECT_EQ(callbacks(), 1);
  EXPECT_EQ(log.count("<KLV WARN> Couldn't write action config to file"), 1u);
  EXPECT_EQ(KLVUtilities::getHashForModule("rta"), std::nullopt);
  EXPECT_TRUE(controller.records["rta"].empty());
}

TEST_F(SyncManager, AnythingButRTAMeansTheSurveysAndActionsAreKeptAsTheyCame) {
  const std::string action = R"({"_id":"n","pid":"P1","more":[1,{"x":null}],"part":0.5})";
  server.answer("/validate", {200, validation("P1_1")});
  server.answer("/surveys", {200, R"({"configs":[{"pid":"P1"},7,)" + action + "]}"});
  EXPECT_EQ(callbacks("poll", "v 1"), 1);
  const std::string user = "userId=" + controller.device->identifier();
  EXPECT_EQ(server.requests("/v2/sync/APP/surveys").at(0).query,
            user + "&actionType=survey&version=v%201&platform=ios&pids=P1");
  EXPECT_EQ(contentOf(library(kSurveyFile)), R"({"n":)" + action + "}");
}

}  // namespace
}  // namespace kelvo::test

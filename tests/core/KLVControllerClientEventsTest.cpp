#include <filesystem>

#include "core/CoreTest.h"
#include "platform/UserDefaults.h"

namespace kelvo::test {
namespace {

using collector::Script;

constexpr const char* kFile = "com.kelvo.SDK.clientevents";
constexpr const char* kHash = "klv_client_events_hash";
const std::string kSaved = R"({"action":["saved"],"agg":[],"stop":[]})";
const std::string kNew = R"({"action":["new"],"agg":7,"other":null})";

struct Case {
  const char* name;
  Script validate;
  std::optional<Script> fetch;
  std::string saved;   ///< the content of the file before
  std::string loaded;  ///< the lists that are applied; empty if none are
  std::string line;
};

class ClientEvents : public CoreTest {
 protected:
  static void settled() {
    while (KLVPostman::sharedSession().unfinished() > 0) std::this_thread::sleep_for(1ms);
    settle();
  }
};

TEST_F(ClientEvents, AppliesNewListsAndElseTheSavedOnes) {
  start();
  settled();
  const std::string events = R"({"events":)" + kNew + "}",
                    huge = R"({"events":{}, "x":")" + std::string(2 << 20, 'x') + "\"}";
  const std::string invalidHash = "<KLV ERROR> Invalid hash for client event config!";
  const std::string invalidConfig = "<KLV ERROR> Invalid client event config!";
  const std::string existing = "<KLV INFO> Unable to get new client events config, using existing config";
  const Script same(200, R"({"hash":"h1"})"), changed(200, R"({"hash":"h2"})");
  const Case cases[] = {
      {"unreachable", Script::cutShort(), {}, kSaved, kSaved, "<KLV ERROR> Cound not validate hash: "},
      {"refused", {500, R"({"hash":"h2"})"}, {}, kSaved, kSaved, "Booting client events data saved configurat"},
      {"unreachable at first", {500}, {}, "", "(null)", "<KLV ERROR> Invalid client event config: (null)"},
      {"no JSON", {200, "<html>"}, {}, kSaved, "", invalidHash},
      {"no hash", {200, "{}"}, {}, kSaved, "", invalidHash},
      {"empty hash", {200, R"({"hash":""})"}, {}, kSaved, "", invalidHash},
      {"same", same, {}, kSaved, kSaved, "Client events are the same - no need to fetch"},
      {"same, but no file", same, Script(200, events), "", kNew, "with new client event config: " + kNew},
      {"same, but a bad file", same, Script(200, events), "[1]", kNew, "with new client event config: " + kNew},
      {"same, but a huge file", same, Script(200, events), huge, kNew, "Error: File too large"},
      {"changed and huge", changed, Script(200, huge), kSaved, kSaved, existing},
      {"same, but no file, refused", same, Script(500), "", "(null)", existing},
      {"changed", changed, Script(200, events), kSaved, kNew, "with new client event config: " + kNew},
      {"fetch unreachable", changed, Script::cutShort(), kSaved, kSaved, existing},
      {"fetch refused", changed, Script(404, events), kSaved, kSaved, existing},
      {"fetch no JSON", changed, Script::garbage(), kSaved, kSaved, invalidConfig},
      {"fetch no events", changed, Script(200, "{}"), kSaved, kSaved, invalidConfig},
      {"fetch no object", changed, Script(200, R"({"events":["new"]})"), kSaved, kSaved, invalidConfig},
  };
  for (const Case& given : cases) {
    SCOPED_TRACE(given.name);
    UserDefaults::standard().set(kHash, "h1");
    std::filesystem::remove(library(kFile));
    if (!given.saved.empty()) writeFileForTest(library(kFile), given.saved);
    service.answer("/client-events", given.fetch.value_or(Script(500)));
    service.answer("/client-events/validate", given.validate);
    const std::string loading = "Loading client, app, agg & ignore events: ";
    const LogCapture lines;
    const auto requests = service.requests("/client-events").size();

    controller().loadClientAndAggregateEvents();
    settled();
    const bool loads = !given.loaded.empty();
    EXPECT_EQ(lines.count(loading), loads ? 1u : 0u);
    EXPECT_EQ(lines.count(loading + given.loaded), loads ? 1u : 0u);
    EXPECT_EQ(lines.count(given.line), 1u);
    EXPECT_EQ(service.requests("/client-events").size() - requests, given.fetch ? 2u : 1u);
    const bool isNew = given.loaded == kNew;
    EXPECT_EQ(contentOf(library(kFile)), isNew ? kNew : given.saved);
    EXPECT_EQ(UserDefaults::standard().string(kHash), isNew && given.validate.body() == changed.body() ? "h2" : "h1");
  }
  const std::string query = "userId=" + *controller().getDeviceID() + "&version=288&platform=ios";
  for (const auto& request : service.requests("/client-events")) EXPECT_EQ(request.query, query);
  EXPECT_EQ(service.requests("/client-events").at(1).path, "/v2/sync/shop/client-events") << "the first start fetches";
}

TEST_F(ClientEvents, AreFetchedAgainUntilTheyCouldBeSaved) {
  start();
  settled();
  service.answer("/client-events", {200, R"({"events":)" + kNew + "}"});
  service.answer("/client-events/validate", {200, R"({"hash":"h2"})"});
  UserDefaults::standard().set(kHash, "h1");
  std::filesystem::remove(library(kFile));
  std::filesystem::create_directories(library(kFile) + "/in the way");
  const auto hashAfterwards = [] {
    controller().loadClientAndAggregateEvents();
    settled();
    return UserDefaults::standard().string(kHash);
  };
  EXPECT_EQ(hashAfterwards(), "h1");
  EXPECT_EQ(hashAfterwards(), "h1");
  std::filesystem::remove_all(library(kFile));
  EXPECT_EQ(hashAfterwards(), "h2");
  EXPECT_NE(contentOf(library("Preferences/test_core.plist")).find("<string>h2</string>"), std::string::npos);
  EXPECT_EQ(log.count("Loading client, app, agg & ignore events: " + kNew), 3u) << "new lists apply, saved or not";
  EXPECT_EQ(contentOf(library(kFile)), kNew);
}

}  // namespace
}  // namespace kelvo::test

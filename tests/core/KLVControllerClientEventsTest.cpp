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

using ClientEvents = CoreTest;

TEST_F(ClientEvents, AppliesNewListsAndElseTheSavedOnes) {
  start();
  const auto settled = [] {
    while (KLVPostman::sharedSession().unfinished() > 0) std::this_thread::sleep_for(1ms);
    settle();
  };
  settled();
  const std::string events = R"({"events":)" + kNew + "}";
  const std::string invalidHash = "<KLV ERROR> Invalid hash for client event config!";
  const std::string invalidConfig = "<KLV ERROR> Invalid client event config!";
  const std::string existing = "<KLV INFO> Unable to get new client events config, using existing config";
  const Script changed(200, R"({"hash":"h2"})");
  const Case cases[] = {
      {"unreachable", Script::cutShort(), {}, kSaved, kSaved, "<KLV ERROR> Cound not validate hash: "},
      {"refused", {500, R"({"hash":"h2"})"}, {}, kSaved, kSaved, "Booting client events data saved configurat"},
      {"unreachable at first", {500}, {}, "", "(null)", "<KLV ERROR> Invalid client event config: (null)"},
      {"no JSON", {200, "<html>"}, {}, kSaved, "", invalidHash},
      {"no hash", {200, "{}"}, {}, kSaved, "", invalidHash},
      {"same", {200, R"({"hash":"h1"})"}, {}, kSaved, kSaved, "Client events are the same - no need to fetch"},
      {"changed", changed, Script(200, events), kSaved, kNew, "with new client event config: " + kNew},
      {"fetch unreachable", changed, Script::cutShort(), kSaved, kSaved, existing},
      {"fetch refused", changed, Script(404, events), kSaved, kSaved, existing},
      {"fetch no JSON", changed, Script::garbage(), kSaved, "", invalidConfig},
      {"fetch no events", changed, Script(200, "{}"), kSaved, "", invalidConfig},
      {"fetch no object", changed, Script(200, R"({"events":["new"]})"), kSaved, "", invalidConfig},
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
    EXPECT_EQ(UserDefaults::standard().string(kHash), isNew ? "h2" : "h1");
  }
  const std::string query = "userId=" + *controller().getDeviceID() + "&version=288&platform=ios";
  for (const auto& request : service.requests("/client-events")) EXPECT_EQ(request.query, query);
  EXPECT_EQ(service.requests("/client-events").at(1).path, "/v2/sync/shop/client-events") << "the first start fetches";
}

}  // namespace
}  // namespace kelvo::test

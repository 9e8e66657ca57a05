#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "CollectorTest.h"
#include "kelvo-collector/debug/Aggregates.h"
#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/debug/Timeline.h"
#include "kelvo-collector/debug/Users.h"
#include "kelvo-collector/service/Documents.h"
#include "kelvo-collector/service/ServiceState.h"
#include "kelvo-collector/store/EventText.h"
#include "kelvo-collector/store/Store.h"

namespace kelvo::test {
namespace {

using namespace collector;

constexpr const char* kSession = "1700000000000-D1";

class Arrival : public testing::Test {
 protected:
  void add(const std::string& body) {
    ReceivedRequest request;
    request.time = ++now;
    request.method = "POST";
    request.path = "/chunks";
    request.body = body;
    request.status = 200;
    ASSERT_TRUE(store.add(request, "shop"));
  }
  void add(const ChunkOf& chunk) { add(chunk.text()); }

  /// Returns a text for each object of a list: the values of the given members, separated by spaces.
  static std::vector<std::string> rows(const Value& list, const std::vector<std::string>& members) {
    std::vector<std::string> found;
    for (const Value& object : *list.get<Array>()) {
      std::string& row = found.emplace_back();
      for (const auto& member : members) row += (row.empty() ? "" : " ") + description(in(object, {member}));
    }
    return found;
  }
  [[nodiscard]] Dictionary events(const Filter& filter = {}) const {
    return store.read([&](Database& d) { return listEvents(d, filter); });
  }
  [[nodiscard]] std::vector<std::string> names(const Filter& filter) const {
    return rows(events(filter)["events"], {"name"});
  }
  [[nodiscard]] std::vector<std::string> problems(const std::vector<std::string>& members = {"kind", "value"}) const {
    return rows(store.read([](Database& d) { return listProblems(d, {}); })["problems"], members);
  }
  [[nodiscard]] Dictionary allCounts() const {
    return store.read([](Database& d) { return counts(d); });
  }

  Store store;
  std::int64_t now = 0;
};

TEST_F(Arrival, AChunkIsStoredAsRowsOfEveryKindWithTheExactTextOfEachEvent) {
  add(kSampleChunk);
  const std::pair<std::string, const char*> expected[] = {
      {"system FOREGROUND 0 {}", R"({"name": "FOREGROUND", "time": 0})"},
      {R"(navigation Home 2 {"navigation_id":"Home","duration":3.25})",
       R"({"navigation_id": "Home", "name": "Home", "duration": 3.25, "transition_time": 2})"},
      {"app Open 1 {}", R"({"name": "Open", "time": 1})"},
      {R"(app Buy 5 {"price":3})", R"({"name": "Buy", "time": 5, "additional_info": {"price": 3}})"},
      {R"(user Tap 6 {"type":"UserInteraction","x":1})",
       R"({"id": "Tap", "time": 6, "type": "UserInteraction", "x": 1})"},
      {R"(observation I1 9 {"error_message":"no"})", nullptr},
      {R"(aggregate Scroll 9 {"dir":[["up",3],[null,1]]})",
       R"({"name": "Scroll", "count": 4, "attributes": {"dir": [["up", 3], [null, 1]]}})"}};
  const auto shown = rows(events()["events"], {"kind", "name", "time", "attributes"});
  ASSERT_EQ(shown.size(), std::size(expected));
  for (std::size_t i = 0; i < shown.size(); ++i) {
    EXPECT_EQ(shown[i], expected[i].first);
    const auto id = in(events(), {"events", std::to_string(i), "id"}).asInt64();
    const auto details = store.read([&](Database& d) { return eventDetails(d, id); });
    EXPECT_TRUE(expected[i].second == nullptr || (*details)["json"] == Value(expected[i].second)) << shown[i];
  }
  EXPECT_EQ(allCounts()["events"], Value(7));
}

TEST_F(Arrival, TheTextOfAnEventIsFoundBetweenAnyOtherJSON) {
  const std::string chunk = R"({ "a" : [ "chunk_details", {"app_events": [1]} ], "chunk\u005fdetails":{"x":-1e5 ,
    "app_events" :[ {"name":"}]\"\\", "l":[[],{}]},"two" , 3 ,{} ],"none":[ ], "no list": {"app_events":[9]}}, "z":[]})";
  const auto lists = elementsOfChunk(chunk);
  std::vector<std::string> found;
  for (const Span& span : lists.at("app_events")) found.push_back(chunk.substr(span.position, span.size));
  EXPECT_EQ(found, (std::vector<std::string>{R"({"name":"}]\"\\", "l":[[],{}]})", "\"two\"", "3", "{}"}));
  EXPECT_TRUE(lists.at("none").empty());
  EXPECT_TRUE(lists.at("no list").empty());
}

TEST_F(Arrival, ARepeatedChunkCountsOnceAndAggregateCountsCoverTheWholeSession) {
  const std::string open = event("Open");
  const auto scrolls = [](int up, int count) {
    return R"([{"name": "Scroll", "count": )" + std::to_string(count) + R"(, "attributes": {"dir": [["up", )" +
           std::to_string(up) + R"(], ["down", 1]]}}])";
  };
  add({.number = 1, .app = open, .aggregates = scrolls(1, 2)});
  add({.number = 1, .app = open, .aggregates = scrolls(2, 3)});  // repeated, with later counts
  add({.number = 2, .app = open, .aggregates = scrolls(5, 6)});
  add({.number = 1, .app = open, .session = "other", .aggregates = scrolls(1, 2)});

  EXPECT_EQ(in(allCounts(), {"byKind"}), Value(Dictionary{{"aggregate", 8}, {"app", 3}}));
  EXPECT_EQ(allCounts()["chunks"], Value(3));
  EXPECT_EQ(names({.session = kSession}), (std::vector<std::string>{"Open", "Scroll", "Open"}));
  const auto valuesOf = [this](const Filter& filter) {
    const Dictionary all = store.read([&](Database& d) { return aggregates(d, filter); });
    return *jsonText(in(all, {"events", "0", "attributes", "0", "values"}));
  };
  EXPECT_EQ(valuesOf({.name = "Scroll"}), R"([{"value":"up","count":6},{"value":"down","count":2}])");
  EXPECT_EQ(valuesOf({.session = kSession, .name = "Scroll"}),
            R"([{"value":"up","count":5},{"value":"down","count":1}])");
  EXPECT_EQ(problems(), std::vector<std::string>());
  add({.number = 1});
  EXPECT_EQ(problems(), std::vector<std::string>{
                            R"(conflicting-duplicate {"id":"1700000000000-D1_1","first_request":1,"request":5})"});
}

TEST_F(Arrival, EachFaultIsReportedOnceWithTheOffendingValue) {
  const auto buy = [](const std::string& price) { return event("Buy", R"({"price": )" + price + "}") + ","; };
  const auto screen = [](const std::string& name, int duration) {
    return R"([{"navigation_id": "H", "name": ")" + name + R"(", "transition_time": 1, "duration": )" +
           std::to_string(duration) + "}]";
  };
  const auto skus = [](int count) {
    std::string all;
    for (int i = 0; i < count; ++i) all += event("Buy", R"({"sku": "v)" + std::to_string(i) + "\"}") + ",";
    return all;
  };
  const struct {
    const char* name;
    std::vector<ChunkOf> chunks;
    std::vector<std::string> expected;
  } cases[] = {
      {"a gap", {{.number = 1}, {.number = 4}}, {"missing-chunk 2", "missing-chunk 3"}},
      {"a late one", {{.number = 1}, {.number = 3}, {.number = 2}}, {"chunk-order 2"}},
      {"no name", {{.app = event(" ")}}, {"event-without-name  "}},
      {"screen below zero", {{.navigation = screen("H", -3)}}, {"negative-duration -3"}},
      {"session below zero", {{.duration = -0.5}}, {"negative-duration -0.5"}},
      {"attribute below zero", {{.app = event("Play", R"({"duration": -7})")}}, {"negative-duration -7"}},
      {"number and real", {{.app = buy("3") + buy("3.5") + buy("null")}}, {}},
      {"types in one chunk", {{.app = buy("3") + buy("\"3\"") + buy("\"4\"")}}, {"attribute-type-changes 3"}},
      {"types in two chunks",
       {{.number = 1, .app = buy("3")}, {.number = 2, .app = buy("true") + buy("false")}},
       {"attribute-type-changes 1"}},
      {"names in another case",
       {{.number = 1, .app = event("Open")}, {.number = 2, .app = event("OPEN")}, {.number = 3, .app = event("OPEN")}},
       {R"(names-differ-in-case ["OPEN","Open"])"}},
      {"a screen called like an event", {{.app = event("Open"), .navigation = screen("open", 1)}}, {}},
      {"101 values and more",
       {{.number = 1, .app = skus(101)}, {.number = 2, .app = skus(150)}},
       {R"(too-many-values {"name":"Buy","attribute":"sku","values":101})"}},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(store.reset());
    for (const ChunkOf& chunk : c.chunks) add(chunk);
    EXPECT_EQ(problems(), c.expected) << c.name;
    EXPECT_EQ(allCounts()["problems"], Value(c.expected.size())) << c.name;
    const Dictionary row = store.read([](Database& d) { return listSessions(d, 0, 50); });
    EXPECT_EQ(in(row, {"sessions", "0", "problems"}), Value(c.expected.size())) << c.name;
  }
  ASSERT_TRUE(store.reset());
  add({.number = 1'000'000'000});
  const auto messages = problems({"message"});
  EXPECT_EQ(messages.size(), 100U);
  EXPECT_EQ(allCounts()["problems"], Value(100));
  EXPECT_EQ(messages.back(), "chunks 100 to 999999999 are missing");
}

TEST_F(Arrival, ListingsReturnEveryRowPageByPageAndCombineFilters) {
  for (const char* session : {"S0", "S1", "S2", "S3", "S4"}) {
    add({.app = event("Even") + "," + event("Odd", R"({"Note": "n7"})") + "," + event("Odd"),
         .session = session,
         .system = R"([{"name":"FOREGROUND","time":0}])"});
  }
  const auto idsOf = [&](bool newestFirst) {
    std::vector<std::string> ids;
    Filter filter{.session = "S3", .limit = 3, .newestFirst = newestFirst};
    for (Value next(0); !next.isNull(); filter.after = next.asInt64()) {
      const Dictionary page = events(filter);
      for (auto& id : rows(page["events"], {"id"})) ids.push_back(id);
      EXPECT_EQ(page["total"], Value(4));
      next = page["next"];
    }
    return ids;
  };
  auto ids = idsOf(false);
  EXPECT_EQ(ids.size(), 4U);
  std::reverse(ids.begin(), ids.end());
  EXPECT_EQ(idsOf(true), ids);
  EXPECT_EQ(names({.session = "S1", .kind = "app", .name = "Odd"}).size(), 2U);
  EXPECT_EQ(names({.name = "Odd"}).size(), 10U);
  EXPECT_EQ(names({.kind = "app", .text = "N7"}), (std::vector<std::string>(5, "Odd")));
  EXPECT_TRUE(names({.session = "none"}).empty());

  std::string order;
  for (Value before(0); !before.isNull();) {
    const Dictionary page = store.read([&](Database& d) { return listSessions(d, before.asInt64(), 2); });
    for (const auto& id : rows(page["sessions"], {"id"})) order += id;
    before = page["next"];
  }
  EXPECT_EQ(order, "S4S3S2S1S0");
}

TEST_F(Arrival, ThePlotOfALongSessionIsASampleOfTheWholeSession) {
  std::string many;
  for (int i = 0; i < 5000; ++i) many += R"({"name":"Tick","time":)" + std::to_string(i) + "},";
  add({.number = 1, .app = many});
  const Value plot = store.read([](Database& d) { return timeline(d, kSession); });
  const Array points = *in(plot, {"points"}).get<Array>();
  EXPECT_EQ(in(plot, {"sampled"}), Value(true));
  EXPECT_LE(points.size(), 2000U);
  EXPECT_GT(points.size(), 1000U);
  EXPECT_GT(in(points[points.size() - 1], {"time"}).asInt64(), 4900);
}

TEST_F(Arrival, TheHistoryKeepsEachChangeOfAUsersAttributes) {
  for (const char* user : {R"({"plan":"free","age":7})", R"({"plan":"free","age":7})", R"({"plan":"gold"})"}) {
    add({.number = int(now) + 1, .user = user});
  }
  const auto history = store.read([](Database& d) { return userHistory(d, "D1", 10); });
  EXPECT_EQ(*jsonText(in(*history, {"history"})),
            R"([{"received":3,"attributes":{"plan":"gold"},"changed":["plan","age"]},)"
            R"({"received":1,"attributes":{"plan":"free","age":7},"changed":["plan","age"]}])");
}

TEST(CollectorStore, TheFileIsPrivateAndExclusiveAndUnusableContentIsSkippedOrRefused) {
  const std::string path = home() + "/collector.db";
  Store store(path);
  struct stat file {};
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777U, 0600U);
  EXPECT_THROW(Store second(path), std::runtime_error);
  ASSERT_TRUE(store.keepDocument("config", "{}"));
  ServiceState state;
  loadDocuments(state, store);
  EXPECT_EQ(documentsOf(state)["config"], documentsOf(ServiceState())["config"]);

  writeFileForTest(home() + "/text", std::string(5000, 'x'));
  EXPECT_THROW(Store(home() + "/text"), std::runtime_error);
}

}  // namespace
}  // namespace kelvo::test

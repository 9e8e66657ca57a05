#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "CollectorTest.h"
#include "kelvo-collector/debug/Aggregates.h"
#include "kelvo-collector/debug/Events.h"
#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/debug/Problems.h"
#include "kelvo-collector/debug/Timeline.h"
#include "kelvo-collector/debug/Users.h"
#include "kelvo-collector/store/Store.h"
#include "kelvo-service/Documents.h"
#include "kelvo-service/EventText.h"
#include "kelvo-service/ServiceState.h"

namespace kelvo::test {
namespace {

using namespace collector;
using service::documentsOf;
using service::elementsOfChunk;
using service::ServiceState;
using service::Span;

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
  [[nodiscard]] std::vector<std::string> problems(const std::vector<std::string>& members = {"kind", "count", "value"},
                                                  const std::string& session = {}) const {
    return rows(store.read([&](Database& d) { return listProblems(d, {.session = session}); })["problems"], members);
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
  add({.number = 2, .app = event("Open", R"({"again": true})"), .aggregates = scrolls(5, 6)});
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
                            R"(conflicting-duplicate 1 {"id":"1700000000000-D1_1","first_request":1,"request":5})"});
}

TEST_F(Arrival, ProblemsOfOneKindAndNameShareARowWithACountAndAnOffendingValue) {
  const auto buy = [](const std::string& price) { return event("Buy", R"({"price": )" + price + "}") + ","; };
  const auto screen = [](const std::string& name, int duration) {
    return R"([{"navigation_id": "H", "name": ")" + name + R"(", "transition_time": 1, "duration": )" +
           std::to_string(duration) + "}]";
  };
  const auto many = [](const std::string& attribute, int count) {
    std::string all;
    for (int i = 0; i < count; ++i)
      all += event("Buy", "{\"" + attribute + "\": \"v" + std::to_string(i) + "\"}") + ",";
    return all;
  };
  const struct {
    const char* name;
    std::vector<ChunkOf> chunks;
    std::vector<std::string> expected;
  } cases[] = {
      {"a gap", {{.number = 1}, {.number = 27}, {.number = 29}}, {"missing-chunk 26 [[2,26],[28,28]]"}},
      {"part of a gap",
       {{.number = 1}, {.number = 27}, {.number = 5}},
       {"missing-chunk 24 [[2,4],[6,26]]", "chunk-order 1 5"}},
      {"a late one", {{.number = 1}, {.number = 3}, {.number = 2}}, {"chunk-order 1 2"}},
      {"a huge gap", {{.number = 1'000'000'000}}, {"missing-chunk 999999999 [[1,999999999]]"}},
      {"no name", {{.app = event(" ")}}, {"event-without-name 1  "}},
      {"screens below zero",
       {{.number = 1, .navigation = screen("H", -3)}, {.number = 2, .navigation = screen("H", -4)}},
       {"negative-duration 2 -3"}},
      {"session below zero", {{.duration = -0.5}}, {"negative-duration 1 -0.5"}},
      {"attribute below zero", {{.app = event("Play", R"({"duration": -7})")}}, {"negative-duration 1 -7"}},
      {"number and real", {{.app = buy("3") + buy("3.5") + buy("null")}}, {}},
      {"the rarer type came first",
       {{.number = 1, .app = buy("\"3\"")}, {.number = 2, .app = buy("4") + buy("5")}},
       {R"(attribute-type-changes 1 [{"type":"text","value":"3","event":1},{"type":"number","value":4,"event":2}])"}},
      {"the rarer type came last",
       {{.app = buy("4") + buy("5") + buy("\"3\"")}},
       {R"(attribute-type-changes 1 [{"type":"text","value":"3","event":3},{"type":"number","value":4,"event":1}])"}},
      {"the library's own attributes",
       {{.app = many("klv_lt_count", 101) + event("Buy", R"({"klv_lt_count_slot": 3})") + "," +
                event("Buy", R"({"klv_lt_count_slot": "5+"})")}},
       {"suspected-duplicate 102 {}"}},
      {"logged twice",
       {{.number = 1, .app = event("Buy", R"({"sku": 1, "klv_lt_count": 1})")},
        {.number = 2,
         .app = event("Buy", R"({"klv_lt_count": 2, "sku": 1})") + "," + event("Buy", R"({"sku": 2})") +
                R"(,{"name": "Buy", "time": 2, "additional_info": {"sku": 1}})"}},
       {R"(suspected-duplicate 1 {"sku":1})"}},
      {"names in another case",
       {{.number = 1, .app = event("Open")}, {.number = 2, .app = event("OPEN")}, {.number = 3, .app = event("OPEN")}},
       {R"(names-differ-in-case 1 ["OPEN","Open"])", "suspected-duplicate 1 {}"}},
      {"a screen called like an event", {{.app = event("Open"), .navigation = screen("open", 1)}}, {}},
      {"101 values and more",
       {{.number = 1, .app = many("sku", 101)}, {.number = 2, .app = many("sku2", 1)}},
       {R"(too-many-values 1 {"name":"Buy","attribute":"sku","values":101})"}},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(store.reset());
    for (const ChunkOf& chunk : c.chunks) add(chunk);
    auto found = problems();
    EXPECT_TRUE(std::is_permutation(found.begin(), found.end(), c.expected.begin(), c.expected.end()))
        << c.name << ": " << testing::PrintToString(found);
    EXPECT_EQ(problems({"count"}, kSession), problems({"count"})) << c.name;
    EXPECT_EQ(allCounts()["problems"], Value(c.expected.size())) << c.name;
    const Dictionary row = store.read([](Database& d) { return listSessions(d, 0, 50); });
    EXPECT_EQ(in(row, {"sessions", "0", "problems"}), Value(c.expected.size())) << c.name;
  }
}

TEST_F(Arrival, ATypeProblemBelongsToTheSessionsWithTheRarerType) {
  const auto buy = [](const std::string& price) { return event("Buy", R"({"price": )" + price + "}"); };
  const auto counts = [this] {
    std::string all;
    for (const char* session : {"", "S1", "S2", "S3"}) {
      const auto found = problems({"count"}, session);
      all += (found.empty() ? "-" : found.front()) + " ";
    }
    return all;
  };
  add({.app = buy("\"1\""), .session = "S1"});
  add({.app = buy("2"), .session = "S2"});
  EXPECT_EQ(counts(), "1 - 1 - ");
  add({.app = buy("3") + "," + buy("4"), .session = "S3"});
  EXPECT_EQ(counts(), "1 1 - - ");
  const auto id = in(store.read([](Database& d) { return listProblems(d, {}); }), {"problems", "0", "id"}).asInt64();
  const auto details = store.read([&](Database& d) { return problemDetails(d, id, 0, 10); });
  EXPECT_EQ(rows((*details)["types"], {"type", "count", "value", "event"}),
            (std::vector<std::string>{"text 1 1 1", "number 3 2 2"}));
  EXPECT_EQ(in(*details, {"problem", "session"}), Value("S1"));
}

TEST_F(Arrival, ACheckThatIsOffHidesItsProblemsUntilItIsOnAgain) {
  add({.number = 2, .app = event("Buy") + "," + event("Buy")});
  const auto choose = [this](bool isOn) {
    ASSERT_TRUE(store.change([&](Database& d) { switchChecks(d, {{"suspected-duplicate", isOn}}); }));
  };
  const auto seen = [this] {
    const Dictionary row = store.read([](Database& d) { return listSessions(d, 0, 1); });
    return std::pair(problems({"kind"}),
                     allCounts()["problems"].asInt64() + in(row, {"sessions", "0", "problems"}).asInt64());
  };
  choose(false);
  EXPECT_EQ(seen(), std::pair(std::vector<std::string>{"missing-chunk"}, std::int64_t{2}));
  choose(true);
  EXPECT_EQ(seen(), std::pair(std::vector<std::string>{"missing-chunk", "suspected-duplicate"}, std::int64_t{4}));
}

TEST_F(Arrival, AnEvictionExplainsMissingNumbersBelowItInItsSessionThenInEarlierOnesOfItsDevice) {
  const auto session = [](int launch, int number, const std::string& says = {}, const std::string& device = "D1") {
    std::string text = ChunkOf{.number = number, .session = "S" + std::to_string(launch)}.text();
    const auto put = [&](const std::string& from, const std::string& to) {
      text.replace(text.find(from), from.size(), to);
    };
    put(R"("launch_time":1700000000123)", R"("launch_time":)" + std::to_string(launch));
    put(R"("device_info":{"id":"D1")", R"("device_info":{"id":")" + device + "\"");
    if (!says.empty()) put(R"("chunk_attributes":{})", R"("chunk_attributes":)" + says);
    return text;
  };
  const auto evicted = [](int events, int chunks) {
    return R"({"evicted": {"events": )" + std::to_string(events) + R"(, "chunks": )" + std::to_string(chunks) + "}}";
  };
  const struct {
    const char* name;
    std::vector<std::string> chunks;
    std::vector<std::string> missing;  // session, count, numbers
    std::string said;                  // of the first session
  } cases[] = {{"the session's own",
                {session(1, 1), session(1, 4, evicted(9, 2))},
                {},
                R"({"events":9,"chunks":2,"explained":2})"},
               {"too few",
                {session(1, 1), session(1, 5, evicted(9, 2))},
                {"S1 1 [[2,4]] chunks 2 to 4 are missing, of which the device evicted 2"},
                R"({"events":9,"chunks":2,"explained":2})"},
               {"the rest arrives",
                {session(1, 1), session(1, 5, evicted(9, 2)), session(1, 3)},
                {},
                R"({"events":9,"chunks":2,"explained":2})"},
               {"a gap above it",
                {session(1, 1, evicted(9, 2)), session(1, 3)},
                {"S1 1 [[2,2]] chunk 2 is missing"},
                R"({"events":9,"chunks":2,"explained":0})"},
               {"the next session",
                {session(1, 3), session(2, 2, evicted(9, 3))},
                {},
                R"({"events":0,"chunks":0,"explained":2})"},
               {"the next session first",
                {session(2, 1, evicted(9, 2)), session(1, 3)},
                {},
                R"({"events":0,"chunks":0,"explained":2})"},
               {"an earlier session",
                {session(1, 1, evicted(9, 2)), session(2, 2)},
                {"S2 1 [[1,1]] chunk 1 is missing"},
                R"({"events":9,"chunks":2,"explained":0})"},
               {"another device",
                {session(1, 2), session(2, 1, evicted(9, 2), "D2")},
                {"S1 1 [[1,1]] chunk 1 is missing"},
                "null"},
               {"huge counts",
                {session(1, 1, R"({"evicted": {"events": 9223372036854775807, "chunks": 9223372036854775807}})"),
                 session(1, 3, evicted(1, 1))},
                {},
                R"({"events":1000000001,"chunks":1000000001,"explained":1})"}};
  for (const auto& c : cases) {
    ASSERT_TRUE(store.reset());
    for (const std::string& chunk : c.chunks) add(chunk);
    const auto shown = problems({"name", "count", "value", "message"});
    std::vector<std::string> missing;
    std::copy_if(shown.begin(), shown.end(), std::back_inserter(missing),
                 [](const std::string& row) { return row.find("missing") != std::string::npos; });
    EXPECT_EQ(missing, c.missing) << c.name;
    const auto details = store.read([](Database& d) { return sessionDetails(d, "S1"); });
    EXPECT_EQ(*jsonText((*details)["evicted"]), c.said) << c.name;
  }
}

TEST_F(Arrival, TheLedgerOfTheSessionsLastChunkIsShownWithWhatArrivedFromTheDevice) {
  const auto say = [this](int number, const std::string& session, int waiting) {
    std::string text = ChunkOf{.number = number,
                               .app = event("A") + "," + event("B"),
                               .session = session,
                               .aggregates = R"([{"name": "C", "count": 5, "attributes": {}}])"}
                           .text();
    const std::string none = R"("chunk_attributes":{})";
    add(text.replace(text.find(none), none.size(),
                     R"("chunk_attributes":{"ledger":{"waiting":)" + std::to_string(waiting) + "}}"));
  };
  const auto ledger = [this](const char* session) {
    return *jsonText((*store.read([&](Database& d) { return sessionDetails(d, session); }))["ledger"]);
  };
  say(2, "S1", 20);
  say(2, "S1", 21);  // sent again
  say(1, "S1", 10);  // came late
  EXPECT_EQ(ledger("S1"), R"({"chunk":2,"counts":{"waiting":21},"received":4})");
  say(1, "S2", 5);
  add({.number = 2, .session = "S2"});  // says nothing
  EXPECT_EQ(ledger("S2"), R"({"chunk":1,"counts":{"waiting":5},"received":6})");
}

TEST_F(Arrival, SessionsAndEventsAreFoundByTheUsersId) {
  const auto of = [](const std::string& id) { return R"({"custom_user_id": ")" + id + "\"}"; };
  add({.number = 1, .app = event("A"), .session = "S1", .user = of("Ann")});
  add({.number = 1, .app = event("B"), .session = "S2", .user = of("Bob")});
  add({.number = 2, .app = event("C"), .session = "S2"});  // without the attribute, the session keeps its user
  add({.number = 1, .app = event("D"), .session = "S3"});
  const auto found = [this](const std::string& text) {
    return rows(store.read([&](Database& d) { return listSessions(d, 0, 50, text); })["sessions"], {"id", "user"});
  };
  EXPECT_EQ(found("BO"), std::vector<std::string>{"S2 Bob"});
  EXPECT_EQ(found("shop").size(), 3U);
  EXPECT_EQ(found("s3"), std::vector<std::string>{"S3 "});
  EXPECT_EQ(names({.user = "bob"}), (std::vector<std::string>{"B", "C"}));
  EXPECT_EQ(names({.text = "c", .user = "b", .newestFirst = true}), std::vector<std::string>{"C"});
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

TEST_F(Arrival, ThePlotOfALongSessionGathersEveryPointAndShowsAPeriodInFull) {
  std::string many;
  for (int i = 0; i < 5000; ++i) many += R"({"name":"Tick","time":)" + std::to_string(i) + "},";
  add({.number = 1, .app = many});
  const auto pointsIn = [this](const Period& period, bool gathered) {
    const Value plot = store.read([&](Database& d) { return timeline(d, kSession, period); });
    EXPECT_EQ(in(plot, {"gathered"}), Value(gathered));
    return *in(plot, {"points"}).get<Array>();
  };
  const Array all = pointsIn({-1, 10'000}, true);
  std::int64_t sum = 0, end = 0;
  for (const Value& bar : all) {
    EXPECT_EQ(in(bar, {"time"}), Value(end));
    end += in(bar, {"span"}).asInt64();
    sum += in(bar, {"count"}).asInt64();
  }
  EXPECT_EQ(sum, 5000);
  EXPECT_GE(end, 5000);
  EXPECT_LT(all.size(), 300U);
  EXPECT_EQ(pointsIn({1000, 1010}, false).size(), 10U);
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
  service::loadDocuments(state, [&](const std::string& name) { return store.document(name); });
  EXPECT_EQ(documentsOf(state)["config"], documentsOf(ServiceState())["config"]);

  writeFileForTest(home() + "/text", std::string(5000, 'x'));
  EXPECT_THROW(Store(home() + "/text"), std::runtime_error);
}

}  // namespace
}  // namespace kelvo::test

#include <filesystem>

#include "road/Road.h"

namespace kelvo::test {
namespace {

/// Returns the names of the events in a list of a chunk, or the members called `key`.
Texts namesIn(const Value& chunk, std::string_view list, std::string_view key = "name") {
  Texts names;
  const Value events = at(chunk, {"chunk_details", list});
  for (const Value& event : *events.get<Array>()) names.push_back(description(at(event, {key})));
  return names;
}

TEST_F(Road, AllCallsOfALaunchArriveInOneChunkAndTheNextLaunchPurgesThem) {
  auto first = launch();
  first.call("getDeviceID").untilReady().call("getDeviceID").call("didBecomeActive");
  first.call("didShow", R"("screen": "Shop.Front")").call("logScreenWithName", R"("name": "Photos")");
  first.call("setUserIdentifier", R"("identifier": "u1")").call("setSessionCustomInfo", R"("info": {"plan": "gold"})");
  first.play(R"({"name": "Rate", "isAggregate": true})");
  first.play(R"({"name": "Rate", "info": {"stars": 5, "by": "Ann"}, "isAggregate": true})");
  first.play(R"({"name": "Rate", "info": {"stars": 5}, "isAggregate": true})");
  first.play(R"({"name": "Open", "isAggregate": true})");
  first.play(
      R"({"name": "Buy", "info": {"item": {"id": 7, "tags": ["a", "b"]}, "gone": null}, "shouldFlatten": true})");
  const std::string numbers =
      R"("min":-9223372036854775808,"max":9223372036854775807,"big":18446744073709551615,"one":1.0,"tenth":0.1,"yes":true)";
  first.play(R"({"name": "Numbers", "info": {)" + numbers + "}}");
  first.call("reportCustomError", R"("error": "No paper", "info": {"tray": 2})");
  EXPECT_EQ(first.quit(), 0) << first.errors();

  const auto chunks = service.chunks();
  ASSERT_EQ(chunks.size(), 1u);
  const Value details = at(chunks[0], {"chunk_details"});
  const auto events = *at(details, {"app_events"}).get<Array>();
  ASSERT_EQ(events.size(), 3u);
  const std::string counts = R"("klv_lt_count":0,"klv_lt_count_slot":"0"})";
  EXPECT_EQ(description(at(events[1], {"additional_info"})), R"({"item_id":7,"item_tags":["a","b"],)" + counts);
  EXPECT_EQ(description(at(events[2], {"additional_info"})), "{" + numbers + "," + counts);
  EXPECT_EQ(description(at(details, {"agg_events"})),
            R"([{"name":"Open","count":1,"attributes":{}},)"
            R"({"name":"Rate","count":3,"attributes":{"by":[["Ann",1]],"stars":[["5",2]]}}])");
  EXPECT_EQ(at(details, {"user_attributes", "custom_user_id"}), Value("u1"));
  EXPECT_EQ(at(details, {"session_attributes", "plan"}), Value("gold"));
  EXPECT_EQ(at((*at(details, {"incidents"}).get<Array>())[0], {"incident_specific_details", "tray"}), Value(2));
  EXPECT_EQ(namesIn(chunks[0], "navigation_events"), (Texts{"Front", "Photos"}));
  EXPECT_EQ(namesIn(chunks[0], "system_events"), (Texts{"FOREGROUND", "BACKGROUND"})) << "BACKGROUND cuts the chunk";
  EXPECT_EQ(at(chunks[0], {"session_info", "is_first_session"}), Value(true));
  EXPECT_GT(at(chunks[0], {"session_info", "duration"}).asDouble(), 0);
  for (const auto& request : service.requests()) EXPECT_EQ(request.status, 200) << request.path;

  const std::string session = description(at(chunks[0], {"session_info", "id"}));
  EXPECT_TRUE(std::filesystem::exists(library(session)));
  auto again = launch();
  EXPECT_EQ(again.untilReady().call("getDeviceID").quit(), 0);
  EXPECT_FALSE(std::filesystem::exists(library(session)));
  EXPECT_EQ(stored("select count(*) from sqlite_master where name = 'events_" + session + "'")[0], "0");
  EXPECT_EQ(stored("select count(*) from chunkmeta where sid = '" + session + "'")[0], "0");
  EXPECT_EQ(service.chunks().size(), 2u) << "the second launch sends only its own chunk";

  const std::string device = description(at(chunks[0], {"device_info", "id"})) + "\n";
  EXPECT_EQ(first.output(), "\n" + device) << "there is no device id before the start has ended";
  EXPECT_EQ(again.output(), device);
}

TEST_F(Road, ScreensAndEventsOfAGameWithItsOwnDrawingArrive) {
  Program game = run({KELVO_GAME_PROGRAM});
  EXPECT_EQ(game.wait(), 0);
  ASSERT_TRUE(service.waitForChunks(1)) << game.errors();
  EXPECT_EQ(namesIn(service.chunks()[0], "navigation_events"), (Texts{"Main menu", "Level 1", "Shop"}));
  EXPECT_EQ(namesIn(service.chunks()[0], "navigation_events", "navigation_id"),
            (Texts{"MenuScene", "LevelScene", "ShopScene"}));
  EXPECT_EQ(arrivedEvents(), (Texts{"Level started", "Bought"}));
  EXPECT_NE(game.output().find("Score 0                         Pause"), std::string::npos) << game.output();
}

TEST_F(Road, ARefusedChunkIsSentAgainWithTheSameEventsAtTheNextLaunch) {
  const std::pair<const char*, Script> cases[] = {
      {"status 500", 500},        {"status 429", 429},
      {"status 204", 204},        {"redirected to a page", Script::redirect("/")},
      {"reset", Script::cut()},   {"cut short", Script::cutShort()},
      {"never", Script::never()}, {"answer lost", Script::losingTheAnswer()}};
  for (const auto& [name, script] : cases) {
    SCOPED_TRACE(name);
    moveToFreshHome(name);
    const auto earlier = service.requests("/chunks").size();
    service.answer("/chunks", script);
    auto first = launch({"--app-id", "shop", "--wait", name == std::string("never") ? "1" : "10"});
    first.untilReady().log("Purchase").log("Thanks");
    EXPECT_EQ(first.quit(), 3);
    EXPECT_EQ(count(first.errors(), "events and 1 chunk wait for the next launch: "), 1u) << first.errors();
    ASSERT_TRUE(service.waitFor(earlier + 1, "/chunks"));
    const Value refused = service.requests("/chunks")[earlier].json();

    service.answerNormally("/chunks");
    EXPECT_EQ(launch().quit(), 0);
    Value again;
    for (const Value& chunk : service.chunks()) {
      if (at(chunk, {"chunk_meta", "id"}) == at(refused, {"chunk_meta", "id"})) again = chunk;
    }
    EXPECT_EQ(at(again, {"chunk_details", "app_events"}), at(refused, {"chunk_details", "app_events"}));
    EXPECT_EQ(at(again, {"session_info", "id"}), at(refused, {"session_info", "id"}));
    const Value time = at(again, {"chunk_meta", "reporting_times"});
    EXPECT_NE(time, at(refused, {"chunk_meta", "reporting_times"})) << "a resent chunk has a new reporting time";
    const std::string id = description(at(refused, {"chunk_meta", "id"}));
    EXPECT_EQ(stored("select reporting_times, status from chunkmeta where id = '" + id + "'"),
              Texts{description(time) + "|1"});
  }
}

TEST_F(Road, ChunksAreNumberedInSequenceCoverContiguousRangesAndArriveInOrder) {
  auto host = launch();
  host.untilReady();
  Texts names;
  std::size_t chunks = 0;
  for (const std::size_t upTo : {2U, 4U, 2504U}) {  // the last chunk is long enough to be read in slices
    while (names.size() < upTo) host.log(names.emplace_back("E" + std::to_string(names.size())));
    host.call("willResignActive");
    ASSERT_TRUE(service.waitForChunks(++chunks)) << host.errors();
  }
  EXPECT_EQ(host.quit(), 0);
  EXPECT_EQ(stored("select min(cid), max(cid) = count(*), max(end - start) >= 2499 from chunkmeta")[0], "1|1|1");
  const std::string endOfPreviousChunk = "coalesce((select end from chunkmeta where cid = c.cid - 1), 0)";
  EXPECT_EQ(stored("select cid from chunkmeta c where start != 1 + " + endOfPreviousChunk), Texts());
  EXPECT_EQ(arrivedEvents(), names);
}

}  // namespace
}  // namespace kelvo::test

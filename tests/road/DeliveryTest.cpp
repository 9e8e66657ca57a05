#include <filesystem>

#include "platform/JSON.h"
#include "road/Road.h"

namespace kelvo::test {
namespace {

Value eventsOf(const Value& chunk) {
  return at(chunk, {"chunk_details", "app_events"});
}

TEST_F(Road, WhatAHostLogsArrivesInOneChunkAndIsPurgedTwoLaunchesLater) {
  auto first = launch();
  first.untilReady().play(R"({"call": "didBecomeActive"})");
  first.play(R"({"call": "setUserIdentifier", "identifier": "u1"})");
  first.play(R"({"call": "setSessionCustomInfo", "info": {"plan": "gold"}})");
  first.play(
      R"({"name": "Buy", "info": {"item": {"id": 7, "tags": ["a", "b"]}, "gone": null}, "shouldFlatten": true})");
  first.play(R"({"call": "reportCustomError", "error": "No paper", "info": {"tray": 2}})");
  EXPECT_EQ(first.quit(), 0) << first.errors();

  const auto chunks = service.chunks();
  ASSERT_EQ(chunks.size(), 1u);
  const Value details = at(chunks[0], {"chunk_details"});
  const auto events = *at(details, {"app_events"}).get<Array>();
  ASSERT_EQ(events.size(), 2u);
  const Value expected =
      *parseJSON(R"({"item_id": 7, "item_tags": ["a", "b"], "klv_lt_count": 0, "klv_lt_count_slot": "0"})");
  EXPECT_EQ(at(events[1], {"additional_info"}), expected);
  EXPECT_EQ(at(details, {"user_attributes", "custom_user_id"}), Value("u1"));
  EXPECT_EQ(at(details, {"session_attributes", "plan"}), Value("gold"));
  EXPECT_EQ(at((*at(details, {"incidents"}).get<Array>())[0], {"incident_specific_details", "tray"}), Value(2));
  const auto system = *at(details, {"system_events"}).get<Array>();
  ASSERT_EQ(system.size(), 2u);
  EXPECT_EQ(at(system[0], {"name"}), Value("FOREGROUND"));
  EXPECT_EQ(at(system[1], {"name"}), Value("BACKGROUND")) << "the chunk that BACKGROUND cuts holds it";
  EXPECT_EQ(at(chunks[0], {"session_info", "is_first_session"}), Value(true));
  EXPECT_GT(at(chunks[0], {"session_info", "duration"}).asDouble(), 0);

  const std::string session = description(at(chunks[0], {"session_info", "id"}));
  EXPECT_TRUE(std::filesystem::exists(library(session)));
  EXPECT_EQ(launch().log("Again").quit(), 0);
  EXPECT_FALSE(std::filesystem::exists(library(session)));
  EXPECT_EQ(stored("select count(*) from sqlite_master where name = 'events_" + session + "'")[0], "0");
  EXPECT_EQ(stored("select count(*) from chunkmeta where sid = '" + session + "'")[0], "0");
  EXPECT_EQ(service.chunks().size(), 2u) << "nothing is sent twice";
}

struct Refusal {
  const char* name;
  Script script;
  long waitSeconds;
};

class RefusedChunk : public Road, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedChunk, IsSentAgainWithTheSameEventsAtTheNextLaunch) {
  service.answer("/chunks", GetParam().script);
  auto first = launch({"--app-id", "shop", "--wait", std::to_string(GetParam().waitSeconds)});
  first.untilReady().log("Purchase").log("Thanks");
  EXPECT_EQ(first.quit(), 3);
  EXPECT_EQ(count(first.errors(), "kelvo-log: 1 chunks wait for the next launch"), 1u) << first.errors();
  ASSERT_TRUE(service.waitFor(1, "/chunks"));
  const Value refused = service.requests("/chunks")[0].json();

  service.answerNormally("/chunks");
  EXPECT_EQ(launch().quit(), 0);
  std::vector<Value> sameId;
  for (const Value& chunk : service.chunks()) {
    if (at(chunk, {"chunk_meta", "id"}) == at(refused, {"chunk_meta", "id"})) sameId.push_back(chunk);
  }
  ASSERT_FALSE(sameId.empty());
  EXPECT_EQ(eventsOf(sameId.back()), eventsOf(refused));
  EXPECT_EQ(at(sameId.back(), {"session_info", "id"}), at(refused, {"session_info", "id"}));
  const auto time = [](const Value& chunk) { return at(chunk, {"chunk_meta", "reporting_times"}); };
  EXPECT_EQ(time(sameId.back()).get<Array>()->size(), 1u);
  EXPECT_FALSE(time(sameId.back()) == time(refused)) << "the reporting time is a fresh one";
  const std::string id = description(at(refused, {"chunk_meta", "id"}));
  EXPECT_EQ(stored("select reporting_times, status from chunkmeta where id = '" + id + "'"),
            std::vector<std::string>{description(time(sameId.back())) + "|1"});
}

INSTANTIATE_TEST_SUITE_P(Services, RefusedChunk,
                         testing::Values(Refusal{"status500", Script(500), 10}, Refusal{"status429", Script(429), 10},
                                         Refusal{"reset", Script::cut(), 10},
                                         Refusal{"cutShort", Script::cutShort(), 10},
                                         Refusal{"never", Script::never(), 1},
                                         Refusal{"lostAnswer", Script::losingTheAnswer(), 10}),
                         [](const auto& test) { return test.param.name; });

struct Breakage {
  const char* name;
  Script onEveryPath;
  int exitStatus;
};

class BrokenService : public Road, public testing::WithParamInterface<Breakage> {};

TEST_P(BrokenService, NeverReachesTheHostAndTheNextLaunchDelivers) {
  service.answer("/v2", GetParam().onEveryPath);
  auto first = launch({"--app-id", "shop", "--wait", "1"});
  first.play(R"({"call": "didBecomeActive"})").log("Event");
  EXPECT_EQ(first.quit(), GetParam().exitStatus) << first.errors();
  EXPECT_EQ(arrivedEvents(), std::vector<std::string>());

  service.answerNormally("/v2");
  EXPECT_EQ(launch().quit(), 0);
  const bool countsAsAccepted = GetParam().exitStatus == 0;  // a status of 200 does, whatever the body
  EXPECT_EQ(arrivedEvents().empty(), countsAsAccepted);
}

INSTANTIATE_TEST_SUITE_P(Services, BrokenService,
                         testing::Values(Breakage{"garbage", Script::garbage(), 0},
                                         Breakage{"status500", Script(500), 3}, Breakage{"reset", Script::cut(), 3},
                                         Breakage{"never", Script::never(), 3}),
                         [](const auto& test) { return test.param.name; });

TEST_F(Road, ChunkNumbersRunOnAndRangesAreContiguous) {
  auto host = launch();
  host.untilReady();
  for (const char* name : {"A", "B", "C"}) {
    host.log(name).log(name).play(R"({"call": "willResignActive"})");
    host.play(R"({"call": "wait", "seconds": 0.05})");
  }
  EXPECT_EQ(host.quit(), 0);
  std::int64_t expectedStart = 1;
  std::int64_t expectedNumber = 1;
  for (const auto& row : stored("select cid, start, end from chunkmeta order by cid")) {
    std::int64_t cid = 0, start = 0, end = 0;
    ASSERT_EQ(std::sscanf(row.c_str(), "%ld|%ld|%ld", &cid, &start, &end), 3);
    EXPECT_EQ(cid, expectedNumber++);
    EXPECT_EQ(start, expectedStart);
    expectedStart = end + 1;
  }
  EXPECT_GE(expectedNumber, 4);
  EXPECT_EQ(arrivedEvents(), (std::vector<std::string>{"A", "A", "B", "B", "C", "C"}));
}

TEST_F(Road, ARangeThatIsReadInSlicesArrivesWholeAndInOrder) {
  auto host = launch();
  host.untilReady();
  std::vector<std::string> names;
  for (int i = 0; i < 2500; ++i) host.log(names.emplace_back("E" + std::to_string(i)));
  EXPECT_EQ(host.quit(), 0);
  EXPECT_EQ(service.chunks().size(), 1u);
  EXPECT_EQ(arrivedEvents(), names);
}

TEST_F(Road, IntegersAndDoublesKeepTheirKindFromTheCallToTheWireAndBack) {
  const std::string info =
      R"({"min": -9223372036854775808, "max": 9223372036854775807, "big": 18446744073709551615, "one": 1.0, )"
      R"("tenth": 0.1, "yes": true, "nothing": 0})";
  EXPECT_EQ(launch().untilReady().play(R"({"name": "Numbers", "info": )" + info + "}").quit(), 0);
  const auto sent = (*eventsOf(service.chunks().at(0)).get<Array>())[1];
  const auto attributes = *at(sent, {"additional_info"}).get<Dictionary>();
  const Dictionary expected = *parseJSON(info)->get<Dictionary>();
  for (const auto& [key, value] : expected) {
    EXPECT_EQ(attributes[key], value) << key;
    EXPECT_EQ(attributes[key].isInteger(), value.isInteger()) << key;
  }
}

TEST_F(Road, AggregateEventsAreCountedByNameAndAttributeValue) {
  auto host = launch();
  host.untilReady();
  host.play(R"({"name": "Rate", "isAggregate": true})");
  host.play(R"({"name": "Rate", "info": {"stars": 5, "by": "Ann"}, "isAggregate": true})");
  host.play(R"({"name": "Rate", "info": {"stars": 5}, "isAggregate": true})");
  host.play(R"({"name": "Open", "isAggregate": true})");
  EXPECT_EQ(host.quit(), 0);
  EXPECT_EQ(stored("select name, e_count, attr_key, attr_value from aggregate_events order by rowid"),
            (std::vector<std::string>{"Rate|3||", "Rate|2|stars|5", "Rate|1|by|Ann", "Open|1||"}));
  const Value expected = *parseJSON(
      R"([{"name": "Open", "count": 1, "attributes": {}},
          {"name": "Rate", "count": 3, "attributes": {"by": [["Ann", 1]], "stars": [["5", 2]]}}])");
  EXPECT_EQ(at(service.chunks().at(0), {"chunk_details", "agg_events"}), expected);
  EXPECT_EQ(arrivedEvents(), std::vector<std::string>());
}

}  // namespace
}  // namespace kelvo::test

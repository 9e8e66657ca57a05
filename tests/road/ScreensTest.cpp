#include "road/Road.h"

namespace kelvo::test {
namespace {

class Screens : public Road {
 protected:
  using Texts = std::vector<std::string>;
  static Array screensOf(const Value& chunk) { return *at(chunk, {"chunk_details", "navigation_events"}).get<Array>(); }
  /// "id/name" of each.
  static Texts namesOf(const Value& chunk) {
    Texts names;
    for (const Value& event : screensOf(chunk)) {
      names.push_back(description(at(event, {"navigation_id"})) + "/" + description(at(event, {"name"})));
    }
    return names;
  }
};

TEST_F(Screens, ArriveInOrderWithTheirTimesTheLastOneInTheChunkOfItsBackground) {
  auto host = launch();
  host.untilReady().play(R"({"call": "didBecomeActive"})");
  host.play(R"({"call": "willShow", "screen": "Shop.Front", "title": "Welcome"})");
  host.play(R"({"call": "didShow", "screen": "Shop.Front", "title": "Welcome"})");
  host.play(R"({"call": "wait", "seconds": 1.1})").play(R"({"call": "didShow", "screen": "Item"})");
  host.play(R"({"call": "logScreenWithName", "name": "Photos"})").play(R"({"call": "willResignActive"})");
  ASSERT_TRUE(service.waitForChunks(1));
  host.play(R"({"call": "didBecomeActive"})").play(R"({"call": "didShow", "screen": "Basket"})");
  EXPECT_EQ(host.quit(), 0) << host.errors();

  const auto chunks = service.chunks();
  ASSERT_EQ(chunks.size(), 2u);
  EXPECT_EQ(namesOf(chunks[0]), (Texts{"Front/Welcome", "Item/Item", "Item/Photos"}));
  EXPECT_EQ(namesOf(chunks[1]), (Texts{"Item/Photos", "Basket/Basket"})) << "counted again from the return";
  EXPECT_GE(at(screensOf(chunks[0])[0], {"duration"}).asInt64(), 1);
  EXPECT_EQ(at((*at(chunks[0], {"chunk_details", "system_events"}).get<Array>())[1], {"name"}), Value("BACKGROUND"));
}

TEST_F(Screens, OfAGameThatDrawsItselfArrive) {
  Program game({KELVO_GAME_PROGRAM}, {{"KELVO_SERVER_BASE_URL", service.baseURL()}, {"KELVO_HOME", home()}});
  EXPECT_EQ(game.wait(), 0);
  ASSERT_TRUE(service.waitForChunks(1)) << game.errors();
  EXPECT_EQ(namesOf(service.chunks()[0]), (Texts{"MenuScene/Main menu", "LevelScene/Level 1", "ShopScene/Shop"}));
  EXPECT_EQ(arrivedEvents(), (Texts{"Level started", "Bought"}));
  EXPECT_NE(game.output().find("Score 0                         Pause"), std::string::npos) << game.output();
}

}  // namespace
}  // namespace kelvo::test

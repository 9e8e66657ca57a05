#include <filesystem>

#include "road/Road.h"

namespace kelvo::test {
namespace {

constexpr const char* kRescueFile = "com.kelvo.db.eventsbuffer";
const std::string kDelivery = "<key>KelvoDelivery</key><string>";

TEST_F(Road, ManyShortProgramsThatEndBeforeTheServiceAnswersLoseNothing) {
  service.answer("/enabled-status", Script::never());
  Texts names;
  for (int number = 0; number < 5; ++number) {
    const std::string name = names.emplace_back("E" + std::to_string(number));
    auto brief = launch({"--app-id", "shop", "--wait", "0"}, kWithoutLeakCheck);
    brief.log(name).call("setUserCustomInfo", R"("info": {")" + name + R"(": 1, "last": ")" + name + R"("})");
    EXPECT_EQ(brief.quit(), 3) << brief.errors();
  }
  service.answerNormally("/enabled-status");
  auto next = launch();
  next.untilReady();
  EXPECT_EQ(next.quit(), 0) << next.errors();
  EXPECT_EQ(arrivedEvents(), names);
  EXPECT_EQ(stored("select sum(count) from lifetime_events where name like 'E_'"), Texts{"5"});
  EXPECT_EQ(at(service.chunks().back(), {"chunk_details", "user_attributes"}),
            Value(Dictionary{{"E0", 1}, {"last", "E4"}, {"E1", 1}, {"E2", 1}, {"E3", 1}, {"E4", 1}}));
  EXPECT_FALSE(std::filesystem::exists(library(kRescueFile)));
  EXPECT_EQ(stored("select * from kelvo_rescued_files"), Texts());
}

TEST_F(Road, TheExitSavesTheAttributesOfTheSessionAndOfTheUser) {
  auto host = run({KELVO_MANNERS_HOST});
  host.writeLine("start");
  ASSERT_TRUE(host.waitForError("initialized!")) << host.errors();
  host.writeLine("attributes kept");
  host.closeInput();
  EXPECT_EQ(host.wait(), 0) << host.errors();
  int saved = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(library(""))) {
    const std::string name = entry.path().filename();
    if (name == "session_info" || name == "com.kelvo.db.user") saved += count(contentOf(entry.path()), "kept") == 1;
  }
  EXPECT_EQ(saved, 2);
  EXPECT_TRUE(service.chunks().empty()) << "no cut has saved the session";
}

TEST_F(Road, UnderCompleteAProcessThatFindsTheHomeInUseLeavesItsEventsToTheNextLaunch) {
  const auto second = [this](const std::string& delivery, int status) {
    const auto used = bundle("<key>Off</key><false/>", kDelivery + delivery + "</string>");
    auto host = launch({"--app-id", "shop"}, {{"KELVO_BUNDLE", used}});
    host.log(delivery).play(R"({"name": "Rate", "isAggregate": true})");
    EXPECT_EQ(host.call("willResignActive").log(delivery + " later").quit(), status);
    EXPECT_EQ(count(host.errors(), "<KLV ERROR> Process "), 1u) << host.errors();
    return count(host.errors(), "<KLV ERROR> KelvoDelivery is neither classic nor complete");
  };
  auto first = launch();
  ASSERT_TRUE(first.waitForError("initialized!"));
  EXPECT_EQ(second("complete", 3), 0u);
  EXPECT_EQ(second("classic", 4), 0u);
  EXPECT_EQ(second("every", 4), 1u);
  EXPECT_FALSE(std::filesystem::exists(library(kRescueFile))) << "the holder's file";
  writeFileForTest(library("com.kelvo.SDK.enable.status.json"), R"({"status":false})");
  EXPECT_EQ(second("complete", 4), 0u) << "collects nothing";
  writeFileForTest(library("com.kelvo.SDK.enable.status.json"), R"({"status":true})");
  EXPECT_EQ(first.log("Mine").quit(), 0) << first.errors();

  EXPECT_EQ(launch().untilReady().quit(), 0);
  EXPECT_EQ(arrivedEvents(), (Texts{"Mine", "complete", "complete later"}));
  EXPECT_EQ(description(at(service.chunks().back(), {"chunk_details", "agg_events"})),
            R"([{"name":"Rate","count":1,"attributes":{}}])");
}

}  // namespace
}  // namespace kelvo::test

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <random>
#include <regex>
#include <set>

#include "road/Road.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kDeletion = "appId=shop&userId=";  // of a deletion request, and of no other one
constexpr const char* kTrace = "Trace";                  // every text that the user leaves begins with it

class Erase : public Road {
 protected:
  Erase() { moveToFreshHome("erased"); }

  /// Makes every call that leaves a text of the user, and waits until it is stored.
  static void leaveTraces(Launch& host) {
    host.play(R"({"name": "TraceEvent", "info": {"TraceKey": "TraceValue"}})")
        .play(R"({"name": "TraceRate", "isAggregate": true, "info": {"TraceStars": "Trace5"}})")
        .call("setUserIdentifier", R"("identifier": "TraceUser")")
        .call("setUserCustomInfo", R"("info": {"TracePlan": "TraceGold"})")
        .call("setSessionCustomInfo", R"("info": {"TraceTheme": "TraceDark"})")
        .call("reportCustomError", R"("error": "TraceError", "info": {"TraceCode": "Trace7"})")
        .call("deviceToken", R"("text": "TraceToken")")
        .call("logScreenWithName", R"("name": "TraceScreen")")
        .call("didShow", R"("screen": "TraceView", "title": "TraceTitle")")
        .call("willResignActive");
  }

  /// Returns the files of the home whose name or content has `text`.
  [[nodiscard]] Texts filesWith(const std::string& text) const {
    Texts found;
    for (const auto& path : files()) {
      if (count(path, text) + count(contentOf(path), text) > 0) found.push_back(path);
    }
    return found;
  }

  [[nodiscard]] std::string consentFile() const { return homeOfLaunches() + "/Library/com.kelvo.consent.json"; }
  [[nodiscard]] bool everythingIsAnswered() const { return !std::filesystem::exists(consentFile()); }

  /// Returns the requests that ask for the deletion of the device `id`, or of any device.
  [[nodiscard]] std::vector<collector::ReceivedRequest> deletions(const std::string& id = {}) const {
    std::vector<collector::ReceivedRequest> found;
    for (auto& request : service.requests(kDeletion + id)) {
      if (request.method == "DELETE") found.push_back(std::move(request));
    }
    return found;
  }

  /// Returns the secret of this device, from its user defaults.
  [[nodiscard]] std::string secretOfThisDevice() const {
    std::smatch found;
    for (const auto& path : filesWith("klv_erase_secret")) {
      const std::string text = contentOf(path);
      if (std::regex_search(text, found, std::regex("klv_erase_secret</key>\\s*<string>([^<]*)<"))) return found[1];
    }
    return {};
  }

  /// Returns the devices that user-info requests have named, with what the collector keeps of their secrets.
  [[nodiscard]] std::map<std::string, std::string> devices() const {
    std::map<std::string, std::string> found;
    for (const auto& request : service.requests("/v2/api/user?appId=shop")) {
      if (request.method != "POST") continue;
      found.emplace(description(at(request.json(), {"device_info", "id"})), request.header("x-kelvo-erase"));
    }
    return found;
  }

  /// Returns the last chunk with the event `name`, null if there is none.
  [[nodiscard]] Value chunkWith(const std::string& name) const {
    Value found;
    for (const Value& chunk : service.chunks()) {
      if (count(description(chunk), "\"" + name + "\"") > 0) found = chunk;
    }
    return found;
  }
};

TEST_F(Erase, LeavesNothingAndGoesOnAsANewDevice) {
  auto host = launch({"--app-id", "shop", "--delivery", "complete"});
  host.untilReady();
  ASSERT_TRUE(service.waitFor(1, "/v2/api/user"));
  ASSERT_EQ(devices().size(), 1u);
  const auto [id, keptSecret] = *devices().begin();
  const std::string secret = secretOfThisDevice();
  EXPECT_EQ(secret.size(), 64u);
  service.answer("/chunks", Script(503));  // what is accepted leaves the home
  leaveTraces(host);
  ASSERT_TRUE(service.waitFor(1, "/chunks"));
  for (const auto& text : {id, secret, std::string("TraceEvent"), std::string("TraceUser"), std::string("TraceDark")}) {
    EXPECT_TRUE(eventually([&, text = text] { return !filesWith(text).empty(); })) << text << " is stored nowhere";
  }
  const std::size_t chunksBefore = service.chunks().size();

  service.answer(kDeletion, Script(500));
  service.answerNormally("/chunks");
  host.log("TraceUnsent").call("erase").log("After").untilReady().call("getDeviceID");
  ASSERT_TRUE(service.waitFor(1, kDeletion));
  EXPECT_EQ(deletions(id).back().header("x-kelvo-erase"), keptSecret);
  EXPECT_EQ(service.requests("/chunks").front().header("x-kelvo-erase"), keptSecret);
  EXPECT_EQ(filesWith(id), Texts{consentFile()}) << "only the request itself needs it";
  EXPECT_EQ(filesWith(kTrace), Texts());
  EXPECT_EQ(host.quit(), 0) << host.errors();
  EXPECT_EQ(count(host.errors(), "A deletion request is not answered yet (status 500)"), 1u);

  service.answer(kDeletion, Script(404));
  auto next = launch({"--app-id", "shop", "--delivery", "complete"});
  EXPECT_TRUE(eventually([this] { return everythingIsAnswered(); })) << next.errors();
  EXPECT_EQ(next.quit(), 0);
  for (const auto& text : {id, secret, std::string(kTrace)}) EXPECT_EQ(filesWith(text), Texts()) << text;
  EXPECT_EQ(deletions(id).size(), 2u);
  EXPECT_EQ(deletions().size(), 2u) << "the new device stays";

  ASSERT_EQ(devices().size(), 2u);
  const Value after = chunkWith("After");
  EXPECT_EQ(count(host.output(), description(at(after, {"device_info", "id"}))), 1u);
  EXPECT_EQ(at(after, {"chunk_meta", "number"}), Value(1));
  EXPECT_EQ(count(description(at(after, {"chunk_details", "app_events"})), "klv_app_opened"), 1u);
  const auto chunks = service.chunks();
  for (std::size_t i = chunksBefore; i < chunks.size(); ++i) EXPECT_EQ(count(description(chunks[i]), kTrace), 0u);
}

TEST_F(Erase, ADenialErasesAndAGrantBeginsAsANewDevice) {
  service.answer(kDeletion, Script(200));
  const auto fileNames = [this] {
    std::set<std::string> names;
    for (const auto& path : files()) names.insert(std::filesystem::path(path).filename());
    return names;
  };
  const std::set<std::string> whatADenialLeaves{"com.kelvo.consent.json", "com.kelvo.lock"};
  auto host = run({KELVO_MANNERS_HOST});
  host.writeLine("options id=shop delivery=complete level=info");
  for (std::size_t generation = 1; generation <= 2; ++generation) {
    const std::string name = "Of" + std::to_string(generation);
    host.writeLine("TraceEvent");
    host.writeLine("attributes TraceText");
    host.writeLine(name);
    ASSERT_TRUE(eventually([&] { return count(host.errors(), "initialized!") == generation; })) << host.errors();
    host.writeLine("flush 20000");
    ASSERT_TRUE(eventually([&] { return count(host.output(), "flushed 0") == generation; })) << host.output();
    EXPECT_FALSE(chunkWith(name).isNull());
    host.writeLine("consent denied");
    EXPECT_TRUE(service.waitFor(generation, kDeletion));
    EXPECT_TRUE(eventually([&] { return fileNames() == whatADenialLeaves; }));
    EXPECT_TRUE(eventually([&] { return contentOf(consentFile()) == R"({"consent":"denied"})"; }));
    host.writeLine("TraceRefused");
    host.writeLine("consent granted");
  }
  host.writeLine("consent denied\nTraceRefused\nconsent granted\nOfTheSameMoment\nflush 20000");
  ASSERT_TRUE(eventually([&] { return count(host.output(), "flushed 0") == 3; })) << host.output() << host.errors();
  EXPECT_FALSE(chunkWith("OfTheSameMoment").isNull());
  host.writeLine("consent denied");
  host.closeInput();
  EXPECT_EQ(host.wait(), 0) << host.errors();
  for (const auto& [id, secret] : devices()) EXPECT_FALSE(deletions(id).empty() && count(host.errors(), id) > 0);
  EXPECT_EQ(filesWith(kTrace), Texts());
  for (const Value& chunk : service.chunks()) EXPECT_EQ(count(description(chunk), "TraceRefused"), 0u);
}

TEST_F(Erase, OfAProcessBesideAnotherOneIsLeftToTheNextLaunch) {
  const Texts complete{"--app-id", "shop", "--delivery", "complete"};
  auto holder = launch(complete);
  ASSERT_TRUE(holder.log("TraceHolder").waitForError("initialized!"));
  auto second = launch(complete);
  second.untilReady().log("TraceSecond").call("erase").log("TraceThird");
  ASSERT_TRUE(second.waitForError("Another process uses the home: the next launch erases its data")) << second.errors();
  EXPECT_EQ(second.quit(), 4) << second.errors();
  EXPECT_EQ(holder.log("TraceLast").quit(), 0) << "the home is still the holder's: " << holder.errors();
  EXPECT_FALSE(filesWith(kTrace).empty());
  service.answer(kDeletion, Script(200));
  auto next = launch(complete);
  EXPECT_TRUE(eventually([this] { return everythingIsAnswered(); })) << next.errors();
  EXPECT_EQ(filesWith(kTrace), Texts());
  EXPECT_EQ(next.quit(), 0);
  EXPECT_EQ(devices().size(), 2u);
}

TEST_F(Erase, OfAHomeThatSentNothingAsksForNoDeletion) {
  service.answer("/enabled-status", Script(200, R"({"enabled": 0})"));
  auto host = launch();
  EXPECT_EQ(host.log("TraceEvent").untilReady().call("erase").untilReady().quit(), 4) << host.errors();
  EXPECT_TRUE(deletions().empty());
  EXPECT_EQ(filesWith(kTrace), Texts());
}

TEST_F(Erase, LetsAnUploadUnderWayEndBeforeTheDeletionAndDropsItsOutcome) {
  service.answer("/chunks", Script::late(1500ms).times(1));
  service.answer(kDeletion, Script(200));  // the collector keeps what arrived
  auto host = launch({"--app-id", "shop", "--delivery", "complete"});
  host.untilReady().log("TraceEvent").call("willResignActive");
  ASSERT_TRUE(service.waitFor(1, "/chunks")) << host.errors();
  host.call("erase").untilReady().log("After");
  ASSERT_TRUE(service.waitFor(1, kDeletion));
  EXPECT_EQ(deletions().size(), 1u);
  EXPECT_GE(deletions().front().time - service.requests("/chunks").front().time, 1400) << "milliseconds";
  EXPECT_EQ(host.quit(), 0) << host.errors();
  EXPECT_EQ(filesWith(kTrace), Texts());
  EXPECT_EQ(arrivedEvents().back(), "After");
}

TEST_F(Erase, DuringTheStartAndBeforeAnExitKeepsLaterCallsOnly) {
  service.answer("/enabled-status", Script::never());
  auto early = launch({"--app-id", "shop", "--wait", "0"}, kWithoutLeakCheck);
  early.log("TraceEarly").call("erase").log("Early");
  EXPECT_EQ(early.quit(), 3) << early.errors();
  EXPECT_EQ(filesWith(kTrace), Texts());
  service.answerNormally("/enabled-status");

  auto late = launch({"--app-id", "shop", "--wait", "0"});
  late.untilReady().log("TraceLate").call("erase").log("TraceLater").call("erase").log("Late");
  late.quit();
  EXPECT_EQ(filesWith(kTrace), Texts());
  EXPECT_EQ(launch().untilReady().quit(), 0);
  EXPECT_EQ(arrivedEvents().back(), "Late");
  for (const Value& chunk : service.chunks()) EXPECT_EQ(count(description(chunk), kTrace), 0u);
}

TEST_F(Erase, TheRequestSurvivesTwentyKillsAtRandomMoments) {
  std::minstd_rand random(std::random_device{}());
  const auto pause = [&](unsigned most) { usleep(std::uniform_int_distribution<unsigned>(0, most)(random)); };
  service.answer(kDeletion, Script::cut());
  for (int kill = 0; kill < 20; ++kill) {
    if (kill % 5 == 3) service.answer(kDeletion, Script(503));
    if (kill % 5 == 4) service.answer(kDeletion, Script::never());
    auto host = launch({"--app-id", "shop", "--delivery", "complete"});
    if (kill % 2 == 0) {
      host.untilReady().play(R"({"name": "TraceEvent", "info": {"TraceKey": 1}})").call("erase");
      ASSERT_TRUE(host.waitForError("Erasing all data")) << host.errors();
      pause(60'000);
    } else {
      pause(200'000);
    }
    host.kill(SIGKILL);
    host.wait();
  }
  service.answer(kDeletion, Script(200));
  auto last = launch({"--app-id", "shop", "--delivery", "complete"});
  last.untilReady().call("erase").untilReady();
  EXPECT_TRUE(eventually([this] { return everythingIsAnswered(); })) << last.errors();
  EXPECT_EQ(last.quit(), 0) << last.errors();
  EXPECT_EQ(filesWith(kTrace), Texts());

  const auto named = devices();
  EXPECT_GE(named.size(), 10u);
  std::size_t erased = 0;
  for (const auto& [id, secret] : named) {
    const auto requests = deletions(id);
    if (requests.empty()) continue;
    ++erased;
    EXPECT_EQ(requests.back().status, 200) << id;
    EXPECT_EQ(requests.back().header("x-kelvo-erase"), secret);
    EXPECT_EQ(filesWith(id), Texts());
  }
  EXPECT_EQ(erased, named.size() - 1) << "all but the last device are erased";
}

TEST_F(Erase, WhileThreadsLogEndsInOneWorkingDevice) {
  auto host = run({KELVO_MANNERS_HOST});
  host.writeLine("options id=shop delivery=complete level=info");
  host.writeLine("burst 2000 100");
  for (int erasure = 0; erasure < 8; ++erasure) {
    host.writeLine("erase");
    host.writeLine("attributes TraceText");
    host.writeLine("background");
    host.writeLine("foreground");
    host.writeLine("pause " + std::to_string(erasure * 15'000));
  }
  host.writeLine("join");
  host.writeLine("erase");
  host.writeLine("Last");
  host.writeLine("flush 20000");
  ASSERT_TRUE(host.waitForOutput("flushed")) << host.errors();
  EXPECT_EQ(count(host.output(), "flushed 0"), 1u) << host.output();
  host.closeInput();
  EXPECT_EQ(host.wait(), 0) << host.errors();
  EXPECT_EQ(storedEvents(), Texts()) << "all that is accepted has left";
  EXPECT_EQ(arrivedEvents().back(), "Last");
  EXPECT_EQ(filesWith(kTrace), Texts());
  EXPECT_EQ(filesWith("burst"), Texts());
}

}  // namespace
}  // namespace kelvo::test

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "kelvo-collector/store/Store.h"
#include "road/Ledger.h"

namespace kelvo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::int64_t kLongAbsence = 2000;  // seconds; ends a session
// The journal has room for all large calls of a home, even if none is stored.
constexpr std::size_t kPadding = 8'000;
constexpr int kMostLargeCalls = 15;  // at a time
/// Prints a line once the call before it has returned.
const std::string kAcknowledgement = R"({"call": "getDeviceID"})";

/// Returns a number from the environment; `scripts/soak` sets these.
long setting(const char* name, long otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::atol(text) : otherwise;
}

/// Kills launches at random moments, home after home, while the service misbehaves. After one to five kills, a home has
/// two undisturbed launches. Under `complete`, every call that has returned must arrive.
class Kills : public Road, public testing::WithParamInterface<const char*> {
 protected:
  int between(int least, int most) { return std::uniform_int_distribution(least, most)(random_); }
  bool oneIn(int chances) { return between(1, chances) == 1; }
  void sleepUpTo(int most) { std::this_thread::sleep_for(std::chrono::microseconds(between(0, most * 1000))); }
  [[nodiscard]] bool isComplete() const { return std::string(GetParam()) == "complete"; }

  Findings liveInFreshHome();
  void seed(unsigned value) { random_.seed(value); }
  [[nodiscard]] int kills() const { return kills_; }

 private:
  using Moment = void (Kills::*)();

  Launch start(const std::string& wait = "10") {
    ++launch_;
    return launch({"--app-id", "shop", "--delivery", GetParam(), "--wait", wait},
                  movableClock(KELVO_TEST_CLOCK_LIBRARY, homeOfLaunches() + "/clock"));
  }
  static void awaitStart(Launch& host) {
    host.untilReady();
    EXPECT_TRUE(host.waitForError("initialized!")) << host.errors();
  }
  void makeCalls(Launch& host, int count);
  void kill(Launch& host, int withinMilliseconds);
  void noteReturned(const Launch& host, std::vector<int> calls);
  void misbehave();
  void behave();
  void beAway();

  // The moments of a kill.
  void duringTheStart();
  void duringABurst();
  void aroundCuts();
  void aroundBackgrounds();
  void duringTheFlush();
  void aroundARestart();
  void beforeReadiness();
  void besideAnotherProcess();

  static const std::vector<std::pair<const char*, Moment>>& moments();

  std::mt19937 random_;
  Ledger ledger_;
  int launch_ = 0;  // number of the launch in this home
  int kills_ = 0;
  std::map<pid_t, std::vector<int>> calls_;  // of the running launches, by number
  std::size_t padding_ = 0;                  // bytes of text in each application event of this home
  std::int64_t clock_ = 0;                   // seconds that the clock is ahead
  std::string diary_;                        // the launches in this home
};

const std::vector<std::pair<const char*, Kills::Moment>>& Kills::moments() {
  static const std::vector<std::pair<const char*, Moment>> all{
      {"start", &Kills::duringTheStart},    {"burst", &Kills::duringABurst},
      {"cut", &Kills::aroundCuts},          {"background", &Kills::aroundBackgrounds},
      {"flush", &Kills::duringTheFlush},    {"restart", &Kills::aroundARestart},
      {"unready", &Kills::beforeReadiness}, {"beside", &Kills::besideAnotherProcess}};
  return all;
}

void Kills::makeCalls(Launch& host, int count) {
  std::string lines;
  if (padding_ > 0) count = std::min(count, kMostLargeCalls);
  for (int i = 0; i < count; ++i) {
    const int kind = between(1, 20);
    const auto made = kind <= 16 ? Ledger::Kind::app : kind <= 18 ? Ledger::Kind::aggregate : Ledger::Kind::incident;
    lines += ledger_.newCall(made, launch_, made == Ledger::Kind::app ? padding_ : 0) + "\n" + kAcknowledgement + "\n";
    calls_[host.id()].push_back(ledger_.latestCall());
    if (oneIn(20))
      lines += R"({"call": "logScreenWithName", "name": "Screen"})"
               "\n";
    if (oneIn(20))
      lines += R"({"call": "setUserCustomInfo", "info": {"plan": "gold"}})"
               "\n";
  }
  if (!lines.empty()) host.play(lines.substr(0, lines.size() - 1));
}

void Kills::kill(Launch& host, int withinMilliseconds) {
  sleepUpTo(withinMilliseconds);
  const auto calls = calls_[host.id()];
  calls_.erase(host.id());
  host.kill(SIGKILL);
  host.wait();
  ++kills_;
  noteReturned(host, calls);
}

/// Notes the calls that have returned. The journal has them, unless it was not open yet.
void Kills::noteReturned(const Launch& host, std::vector<int> calls) {
  calls.resize(std::min(calls.size(), count(host.output(), "\n")));
  if (count(host.errors(), "The journal is open") > 0) ledger_.noteReturned(calls);
}

/// Scripts the answers to the next launch's chunks, and sometimes to its start-up requests.
void Kills::misbehave() {
  std::vector<Script> scripts;
  for (int left = between(0, 4); left > 0; --left) {
    const std::pair<const char*, Script> all[] = {{"500", 500},
                                                  {"503", 503},
                                                  {"204", 204},
                                                  {"redirect", Script::redirect("/")},
                                                  {"cut", Script::cut()},
                                                  {"never", Script::never()},
                                                  {"cutShort", Script::cutShort()},
                                                  {"loseAnswer", Script::losingTheAnswer()},
                                                  {"late", Script::late(milliseconds(between(1, 100)))}};
    const auto& [name, chosen] = all[between(0, static_cast<int>(std::size(all)) - 1)];
    diary_ += std::string(" ") + name;
    scripts.push_back(chosen.times(static_cast<std::size_t>(between(1, 3))));
  }
  if (!scripts.empty() && oneIn(3)) {
    scripts.back() = scripts.back().times(0);
    diary_ += " for ever";
  }
  service.answerInTurn("/chunks", scripts);
  if (oneIn(10)) service.answer("/v2", Script::late(milliseconds(between(1, 60))));
}

void Kills::behave() {
  for (const char* path : {"/chunks", "/v2", "/enabled-status"}) service.answerNormally(path);
}

/// Moves the wall clock as far as if nobody had used the host for a long time.
void Kills::beAway() {
  clock_ += kLongAbsence;
  std::fstream(homeOfLaunches() + "/clock", std::ios::in | std::ios::out | std::ios::binary)
      .write(reinterpret_cast<const char*>(&clock_), sizeof clock_);
}

void Kills::duringTheStart() {
  Launch host = start();
  makeCalls(host, between(0, 60));
  if (oneIn(3)) host.call("willResignActive");
  kill(host, 70);
}

void Kills::duringABurst() {
  Launch host = start();
  awaitStart(host);
  makeCalls(host, between(1, 400));
  kill(host, 60);
}

void Kills::aroundCuts() {
  Launch host = start();
  awaitStart(host);
  for (int bursts = between(1, 4); bursts > 0; --bursts) {
    makeCalls(host, between(1, 60));
    sleepUpTo(60);
  }
  kill(host, 40);
}

void Kills::aroundBackgrounds() {
  Launch host = start();
  awaitStart(host);
  for (int visits = between(1, 4); visits > 0; --visits) {
    if (oneIn(2)) host.call("didBecomeActive");
    makeCalls(host, between(0, 60));
    host.call("willResignActive");
    if (oneIn(2)) sleepUpTo(20);
  }
  makeCalls(host, between(0, 20));
  kill(host, 60);
}

void Kills::duringTheFlush() {
  Launch host = start();
  if (oneIn(2)) awaitStart(host);
  makeCalls(host, between(0, 3));
  kill(host, 50);
}

void Kills::aroundARestart() {
  Launch host = start();
  awaitStart(host);
  host.call("didBecomeActive");
  for (int absences = between(1, 3); absences > 0; --absences) {
    makeCalls(host, between(0, 40));
    host.call("willResignActive");
    sleepUpTo(60);
    beAway();
    host.call("didBecomeActive");
  }
  makeCalls(host, between(0, 40));
  if (oneIn(2)) host.call("willResignActive");
  kill(host, 80);
}

void Kills::beforeReadiness() {
  service.answer("/enabled-status", oneIn(2) ? Script::never() : Script::late(milliseconds(between(5, 60))));
  Launch host = start("0.03");
  for (int visits = between(1, 3); visits > 0; --visits) {
    makeCalls(host, between(0, 5));
    host.call("willResignActive");
    sleepUpTo(20);
  }
  makeCalls(host, between(0, 5));
  if (oneIn(2)) return kill(host, 60);
  diary_ += " exits";
  host.quit();
}

void Kills::besideAnotherProcess() {
  Launch host = start();
  awaitStart(host);
  makeCalls(host, between(0, 20));
  Launch second = start("0.03");
  makeCalls(second, between(0, 20));
  if (oneIn(2)) second.call("willResignActive");
  if (oneIn(2)) {
    kill(second, 60);
  } else {
    second.quit();
  }
  makeCalls(host, between(0, 20));
  kill(host, 40);
}

Findings Kills::liveInFreshHome() {
  const std::string home = test::home() + "/home";
  std::filesystem::remove_all(home);
  for (const auto& entry : std::filesystem::directory_iterator(test::home())) {
    if (entry.path().filename().string().rfind("program-", 0) == 0) std::filesystem::remove(entry.path());
  }
  moveToFreshHome("home");
  EXPECT_TRUE(service.store().reset());
  service.state().setConfigurationValue("max_fg_chunk_send_time", oneIn(2) ? 0.05 : 30.0);
  writeFileForTest(home + "/clock", std::string(sizeof clock_, '\0'));
  ledger_ = {};
  calls_.clear();
  padding_ = oneIn(8) ? kPadding : 0;
  launch_ = 0;
  clock_ = 0;
  diary_.clear();
  for (int left = between(1, 5); left > 0; --left) {
    const auto& [name, moment] =
        moments()[static_cast<std::size_t>(between(0, static_cast<int>(moments().size()) - 1))];
    diary_ += "launch " + std::to_string(launch_ + 1) + ": " + name;
    misbehave();
    (this->*moment)();
    behave();
    ledger_.readHome(home, launch_);
    ledger_.compareLibrarys(home, service.chunks(), launch_);
    diary_ += "\n";
  }
  for (int left = 2; left > 0; --left) {
    Launch host = start();
    host.untilReady();
    makeCalls(host, 2);
    const int status = host.quit();
    diary_ += "launch " + std::to_string(launch_) + ": undisturbed, status " + std::to_string(status) + "\n";
    ledger_.readHome(home, launch_);
    ledger_.compareLibrarys(home, service.chunks(), launch_);
  }
  Findings found = ledger_.compare(service.chunks(), isComplete());
  if (found.hasFault()) {
    found.faults["home " + std::to_string(kills_)].push_back("\n" + diary_);
    if (const char* keep = std::getenv("KELVO_SOAK_KEEP")) {
      std::filesystem::create_directories(keep);
      const std::string kept = std::string(keep) + "/" + std::to_string(::getpid()) + "-" + std::to_string(kills_);
      std::filesystem::copy(test::home(), kept, std::filesystem::copy_options::recursive);
      std::ofstream(kept + "/story") << found.story();
    }
  }
  return found;
}

TEST_P(Kills, AtAnyMomentLeaveEveryStoredEventToArriveOnce) {
  const auto chosen = static_cast<unsigned>(setting("KELVO_SOAK_SEED", static_cast<long>(std::random_device{}())));
  SCOPED_TRACE("seed " + std::to_string(chosen));
  seed(chosen);
  const long wanted = setting("KELVO_SOAK_KILLS", 20);
  const auto end = steady_clock::now() + std::chrono::seconds(setting("KELVO_SOAK_SECONDS", 3600));
  const bool isSoak = std::getenv("KELVO_SOAK_KILLS") != nullptr;
  Findings all;
  while (kills() < wanted && steady_clock::now() < end) {
    const int before = kills();
    const Findings found = liveInFreshHome();
    if (isSoak) {
      std::cout << "soak " << GetParam() << ' ' << kills() - before << ' ' << found.stored << ' ' << found.delivered
                << ' ' << found.lost << ' ' << found.doubled << ' ' << found.wrong << ' ' << found.miscounted << ' '
                << found.ledger << ' ' << found.waiting << ' ' << found.uncut << '\n'
                << found.story() << std::flush;
    }
    all += found;
  }
  EXPECT_FALSE(all.hasFault()) << (isSoak ? "" : all.story());
  EXPECT_GT(all.delivered, kills()) << "the kills came too early: almost nothing was stored";
}

INSTANTIATE_TEST_SUITE_P(Delivery, Kills, testing::Values("classic", "complete"),
                         [](const auto& test) { return test.param; });

TEST_F(Road, AKillRightAfterAThousandCallsLosesNone) {
  for (const bool hasStarted : {true, false}) {
    SCOPED_TRACE(hasStarted ? "in a session" : "before the service has answered");
    moveToFreshHome(hasStarted ? "started" : "starting");
    if (!hasStarted) service.answer("/enabled-status", Script::never());
    Program host = run({KELVO_MANNERS_HOST}, {{"KELVO_LOG", "debug"}});
    host.writeLine("options id=shop delivery=complete");
    ASSERT_TRUE(host.waitForError(hasStarted ? "initialized!" : "The journal is open")) << host.errors();
    host.writeLine("burst 125 0");  // on eight threads
    host.writeLine("join");
    host.writeLine("kill");
    EXPECT_EQ(host.wait(), -SIGKILL);

    service.answerNormally("/enabled-status");
    EXPECT_TRUE(service.store().reset());
    EXPECT_EQ(launch({"--app-id", "shop", "--delivery", "complete"}).untilReady().quit(), 0);
    const auto names = arrivedEvents();
    EXPECT_EQ(std::count(names.begin(), names.end(), "burst"), 1000);
    EXPECT_EQ(stored("select count from lifetime_events where name = 'burst'"), Texts{"1000"});
    EXPECT_EQ(stored("select total from kelvo_ledger where entry = 'stored'"),
              stored("select total from kelvo_ledger where entry = 'accepted'"));
  }
}

TEST_F(Road, AKillLosesNoScreenNoAttributeAndNoReportOfActivity) {
  for (int round = 0; round < 5; ++round) {
    moveToFreshHome("home " + std::to_string(round));
    EXPECT_TRUE(service.store().reset());
    Program host = run({KELVO_MANNERS_HOST}, {{"KELVO_LOG", "debug"}});
    host.writeLine("options id=shop delivery=complete");
    ASSERT_TRUE(host.waitForError("initialized!")) << host.errors();
    for (const char* line : {"attributes kept", "foreground", "screen Home", "screen List", "background"}) {
      host.writeLine(line);
    }
    host.writeLine("pause " + std::to_string(round * 2000));
    host.writeLine("kill");
    host.wait();
    EXPECT_EQ(launch({"--app-id", "shop", "--delivery", "complete"}).untilReady().quit(), 0);
    Texts arrived, attributes;
    std::set<std::string> chunks;  // the kill may have come between an answer and its note: the chunk comes again
    for (const Value& chunk : service.chunks()) {
      if (!chunks.insert(description(at(chunk, {"chunk_meta", "id"}))).second) continue;
      for (const char* list : {"navigation_events", "system_events"}) {
        for (const Value& event : at(chunk, {"chunk_details", list}).asArray().value_or(Array())) {
          arrived.push_back(description(at(event, {"name"})));
        }
      }
      const Value ofSession = at(chunk, {"chunk_details", "session_attributes", "text"});
      if (!ofSession.isNull()) attributes.push_back(description(ofSession));
    }
    std::sort(arrived.begin(), arrived.end());
    EXPECT_EQ(arrived, (Texts{"BACKGROUND", "BACKGROUND", "FOREGROUND", "Home", "List"})) << "one of kelvo-log";
    ASSERT_FALSE(attributes.empty());
    EXPECT_EQ(attributes.front(), "kept");
    EXPECT_EQ(at(service.chunks().back(), {"chunk_details", "user_attributes", "text"}), Value("kept"));
  }
}

TEST_F(Road, AKillLosesNoDeviceTokenAndNoEventOfAPlugIn) {
  Program host = run({KELVO_MANNERS_HOST}, {{"KELVO_LOG", "debug"}});
  host.writeLine("options id=shop delivery=complete");
  ASSERT_TRUE(host.waitForError("initialized!")) << host.errors();
  for (const char* line : {"token 0AFF", "interaction Tip", "kill"}) host.writeLine(line);
  host.wait();
  std::size_t events = 0;
  for (const Value& token : {Value("0AFF"), Value()}) {  // the first launch hands the token on, the second one has none
    EXPECT_TRUE(service.store().reset());
    EXPECT_EQ(launch({"--app-id", "shop", "--delivery", "complete"}).untilReady().log("Next").quit(), 0);
    ASSERT_FALSE(service.chunks().empty());
    for (const Value& chunk : service.chunks()) {
      EXPECT_EQ(at(chunk, {"device_info", "device_registration_token"}), token);
      events += count(description(chunk), "Tip");
    }
  }
  EXPECT_EQ(events, 1U);
}

TEST_F(Road, KillsDuringTheReplayLoseAndDoubleNothing) {
  Program host = run({KELVO_MANNERS_HOST}, {{"KELVO_LOG", "debug"}});
  host.writeLine("options id=shop delivery=complete");
  ASSERT_TRUE(host.waitForError("initialized!")) << host.errors();
  host.writeLine("burst 250 0");
  host.writeLine("join");
  host.writeLine("kill");
  host.wait();
  for (int kills = 0; kills < 4; ++kills) {
    Launch next = launch({"--app-id", "shop", "--delivery", "complete"});
    EXPECT_TRUE(eventually([&] {
      const auto lines = next.errors();
      return count(lines, "Storing ") + count(lines, "initialized!") > 0;
    }));
    next.kill(SIGKILL);
    next.wait();
  }
  EXPECT_EQ(launch({"--app-id", "shop", "--delivery", "complete"}).untilReady().quit(), 0);
  std::map<std::string, std::ptrdiff_t> bursts;  // by chunk: a kill may make one arrive twice
  for (const Value& chunk : service.chunks()) {
    const Array events = at(chunk, {"chunk_details", "app_events"}).asArray().value_or(Array());
    const auto isBurst = [](const Value& event) { return description(at(event, {"name"})) == "burst"; };
    bursts[description(at(chunk, {"chunk_meta", "id"}))] = std::count_if(events.begin(), events.end(), isBurst);
  }
  std::ptrdiff_t all = 0;
  for (const auto& [chunk, count] : bursts) all += count;
  EXPECT_EQ(all, 2000);
  EXPECT_EQ(stored("select count from lifetime_events where name = 'burst'"), Texts{"2000"});
}

TEST_F(Road, AFullJournalCountsTheCallsThatItDoesNotKeep) {
  service.answer("/enabled-status", Script::never());
  Program host = run({KELVO_MANNERS_HOST}, {{"KELVO_LOG", "debug"}});
  host.writeLine("options id=shop delivery=complete journal=65536");
  ASSERT_TRUE(host.waitForError("The journal is open")) << host.errors();
  host.writeLine("burst 250 0");
  host.writeLine("join");
  ASSERT_TRUE(host.waitForError(" calls are not in the journal")) << host.errors();
  host.kill(SIGKILL);
  host.wait();
  const std::string errors = host.errors();
  const auto line = errors.find(" calls are not in the journal");
  const int unkept = std::stoi(errors.substr(errors.rfind(' ', line - 1)));
  service.answerNormally("/enabled-status");
  EXPECT_EQ(launch({"--app-id", "shop", "--delivery", "complete"}).untilReady().quit(), 0);
  const auto names = arrivedEvents();
  EXPECT_GT(unkept, 0);
  EXPECT_EQ(std::count(names.begin(), names.end(), "burst"), 2000 - unkept);
}

TEST_F(Road, ANormalExitRightAfterAThousandCallsStoresThemAll) {
  Program host = run({KELVO_MANNERS_HOST});
  host.writeLine("start");
  ASSERT_TRUE(host.waitForError("initialized!"));
  host.writeLine("burst 125 0");  // on eight threads
  host.writeLine("join");
  host.closeInput();
  ASSERT_EQ(host.wait(), 0) << host.errors();
  EXPECT_EQ(host.output(), "KelvoiOSSDK finalizer\n");
  const auto events = storedEvents();
  EXPECT_EQ(std::count(events.begin(), events.end(), "burst"), 1000);
}

}  // namespace
}  // namespace kelvo::test

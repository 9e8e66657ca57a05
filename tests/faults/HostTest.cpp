#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>
#include <vector>

#include "faults/Faults.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

// --- Calls from many threads

class Bursts : public Faults {
 protected:
  /// Returns how often each call arrived; a call is a pair of thread and number.
  [[nodiscard]] std::map<std::pair<std::int64_t, std::int64_t>, int> arrivedCalls() const {
    std::map<std::pair<std::int64_t, std::int64_t>, int> calls;
    for (const Value& event : arrivedEvents("burst")) {
      const Value thread = at(event, {"additional_info", "thread"}), number = at(event, {"additional_info", "number"});
      ++calls[{thread.asInt64(), number.asInt64()}];
    }
    return calls;
  }

  /// Waits until all 10,000 calls have arrived. Fails if one arrived twice.
  void expectAllCallsOnce() {
    EXPECT_TRUE(eventually([this] { return arrivedCalls().size() == 10'000; }));
    for (const auto& [call, times] : arrivedCalls()) ASSERT_EQ(times, 1) << call.first << " " << call.second;
  }
};

TEST_F(Bursts, DuringTheStartAreAllDeliveredOnce) {
  service.answer("/enabled-status", Script::late(50ms));
  auto process = host();
  play(process, {"burst 1250 0", "start", "join", kStarted, "background"});
  expectAllCallsOnce();
  end(process);
}

TEST_F(Bursts, AcrossTheBackgroundAreAllDeliveredOnce) {
  auto process = host();
  play(process, {"start", kStarted, "burst 1250 300"});
  for (int i = 0; i < 20; ++i) play(process, {"background", "foreground", "pause 10000"});
  play(process, {"join", "background"});
  expectAllCallsOnce();
  end(process);
  EXPECT_EQ(count(process.errors(), "<KLV ERROR>"), 1U) << "the missing bundle logs one" << process.errors();
}

TEST_F(Bursts, DuringTheTerminationAreDropped) {
  service.state().setEnabled(false);
  service.answer("/enabled-status", Script::late(20ms));
  auto process = host();
  play(process, {"burst 1250 0", "start", "join"});
  EXPECT_TRUE(process.waitForError("Terminating Kelvo SDK"));
  process.writeLine("later");
  EXPECT_TRUE(process.waitForError("<KLV ERROR> SDK Disabled - ignoring event"));
  end(process);
  EXPECT_TRUE(service.requests("/chunks").empty());
  EXPECT_FALSE(std::filesystem::exists(documents("kelvo-db")));
}

TEST_F(Bursts, ThatContinueDuringTheExitDoNotDelayItAndLeaveNoGap) {
  auto process = host();
  play(process, {"start", kStarted, "burst 100000000 0"});
  std::this_thread::sleep_for(500ms);  // so that the exit comes during the calls
  const auto exitBegins = std::chrono::steady_clock::now();
  end(process);
  EXPECT_LT(std::chrono::steady_clock::now() - exitBegins, 10s);
  expectTheNextLaunchGoesOn();
  const auto calls = arrivedCalls();
  EXPECT_FALSE(calls.empty());
  for (const auto& [call, times] : calls) {
    ASSERT_TRUE(call.second == 0 || calls.count({call.first, call.second - 1}) == 1) << "a gap";
  }
}

// --- Exits during the start-up

TEST_F(Faults, EventsOfLaunchesThatEndBeforeTheServiceAnswersAreStoredAtTheNextOne) {
  service.answer("/enabled-status", Script::never());
  Program killed = host();
  play(killed, {"start", "/enabled-status", "First", "background"});
  const std::string rescued = library("com.kelvo.db.eventsbuffer");
  EXPECT_TRUE(eventually([&] { return count(contentOf(rescued), R"("id":"First")") == 1; })) << killed.errors();
  killed.kill(SIGKILL);
  killed.wait();

  Program brief = host();
  brief.writeLine("start");
  ASSERT_TRUE(service.waitFor(2, "/enabled-status")) << brief.errors();
  brief.writeLine("Second");
  end(brief);
  EXPECT_EQ(service.chunks().size(), 0U);

  service.answerNormally("/enabled-status");
  for (int launches = 0; launches < 2; ++launches) {
    expectTheNextLaunchGoesOn();
    EXPECT_EQ(arrived("First"), 1);
    EXPECT_EQ(arrived("Second"), 1);
    EXPECT_FALSE(std::filesystem::exists(rescued));
  }
}

// --- The clock

TEST_F(Faults, SettingTheClockBackOrForwardLosesNoEventAndStopsNoTimer) {
  if (kSanitizer == "address") GTEST_SKIP() << "this sanitizer bypasses the preloaded clock";
  const std::string file = home() + "/clock";
  const Machine machine{{}, {{"LD_PRELOAD", KELVO_TEST_CLOCK_LIBRARY}, {"KELVO_TEST_CLOCK", file}}};
  constexpr std::int64_t kYear = 365 * 24 * 3600;  // seconds
  long launches = 0;
  for (const std::int64_t shift : {-kYear, kYear, std::int64_t{-2}}) {
    SCOPED_TRACE(shift);
    writeFileForTest(file, std::string(sizeof shift, '\0'));
    service.state().setConfigurationValue("max_fg_chunk_send_time", 0.2);  // takes effect at the second launch
    auto faulty = launch(machine);
    faulty.untilReady().log("Before").call("getDeviceID");
    EXPECT_TRUE(eventually([&] { return !faulty.output().empty(); }));
    std::fstream(file, std::ios::in | std::ios::out | std::ios::binary)
        .write(reinterpret_cast<const char*>(&shift), sizeof shift);
    faulty.call("didBecomeActive").log("During");
    const auto sent = service.chunks().size();
    EXPECT_TRUE(launches == 0 || service.waitForChunks(sent + 1)) << "the timer does not fire";
    EXPECT_EQ(faulty.quit(), 0) << faulty.errors();
    ++launches;
    EXPECT_EQ(arrived("Before"), launches);
    EXPECT_EQ(arrived("During"), launches);
    const Value last = service.chunks().back();
    const Value times = at(last, {"chunk_meta", "reporting_times"});
    const auto elapsed = (*times.get<Array>())[0].asInt64() - at(last, {"session_info", "launch_time"}).asInt64();
    EXPECT_NEAR(static_cast<double>(elapsed / 1000), static_cast<double>(shift), 60) << "the clock was set";
    expectTheNextLaunchGoesOn();
  }
}

// --- Standard error

TEST_F(Faults, NoLogLineReachesAnotherFileIfStandardErrorIsClosed) {
  setLogLevel("debug");
  std::size_t launches = 0;
  for (const char* closed : {"2>&-", "1>&- 2>&-", ""}) {
    SCOPED_TRACE(closed);
    auto process = host({{"/bin/bash", "-c", std::string("exec \"$0\" \"$@\" ") + closed}});
    process.writeLine("start");
    ASSERT_TRUE(service.waitFor(++launches, "/v2/api/user"));
    // In the last case, a file of the host gets the descriptor of standard error after the start.
    if (*closed == '\0') play(process, {kStarted, "reuse " + home() + "/of-the-host"});
    play(process, Texts(10, "During"));
    process.writeLine("background");
    const long logged = 10 * static_cast<long>(launches);
    EXPECT_TRUE(eventually([&] { return arrived("During") >= logged; }));
    EXPECT_EQ(arrived("During"), logged);
    end(process);
  }
  EXPECT_TRUE(std::filesystem::exists(home() + "/of-the-host"));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(home())) {
    const bool isOutput = entry.path().filename().string().rfind("program-", 0) == 0;
    EXPECT_EQ(isOutput ? 0U : count(contentOf(entry.path()), "<KLV "), 0U) << entry.path();
  }
  for (const auto& request : service.requests()) EXPECT_EQ(count(request.body, "<KLV "), 0U);
}

TEST_F(Faults, AStandardErrorThatNobodyReadsHoldsNobodyUp) {
  // The process itself keeps the pipe's reading end open, and never reads.
  auto process = host({{"/bin/bash", "-c", "mkfifo $0; exec 3<>$0; exec \"$@\" 2>$0", home() + "/pipe"}});
  play(process, {"start", "/v2/api/user"});
  const std::string word(40, 'x');
  constexpr long kLines = 6000;  // more than the log's queue holds
  play(process, Texts(kLines, word));
  play(process, {"During", "background"});
  EXPECT_TRUE(eventually([&] { return arrived("During") > 0; }));
  EXPECT_EQ(arrived(word), kLines);
  const auto exitBegins = std::chrono::steady_clock::now();
  end(process);
  EXPECT_LT(std::chrono::steady_clock::now() - exitBegins, 5s);
}

}  // namespace
}  // namespace kelvo::test

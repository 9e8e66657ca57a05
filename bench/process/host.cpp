// The measured host: plays the part that its first argument names, under the delivery rules that the second one names,
// and prints its figures. It uses the public headers only.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "Attributes.h"
#include "kelvo/Application.h"
#include "kelvo/KelvoSDK.h"
#include "process/Measuring.h"

namespace kelvo::bench {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kEventsOfARun = 50000;
constexpr std::size_t kEventsOfAChunk = 10000;
constexpr std::size_t kCalls = 10000;
constexpr std::size_t kPacedCalls = 1000;
constexpr std::size_t kForegroundCalls = 4000;
constexpr std::size_t kBurst = 1000;
constexpr std::size_t kWarmUpEvents = 200;
constexpr auto kSettleTime = milliseconds(300);
constexpr auto kIdleTime = std::chrono::seconds(10);
/// Between two looks at a long run, so that looking costs little of what is measured.
constexpr auto kSeldom = milliseconds(1);

std::uint64_t stored() {
  return KelvoSDK::ledger().thisProcess.stored;
}
std::uint64_t accepted() {
  return KelvoSDK::ledger().thisProcess.accepted;
}

void logOne(std::size_t number) {
  KelvoSDK::logAppEventWithName(name(number), attributes(number));
}

void initialise(const std::string& rules) {
  rules == "classic" ? KelvoSDK::initializeKelvoWithID("bench") : KelvoSDK::start(Options("bench"));
}

/// Starts the library, and waits for the end of the start-up and for the events of a warm-up.
void start(const std::string& rules) {
  initialise(rules);
  waitFor([] { return stored() > 0; });
  std::this_thread::sleep_for(kSettleTime);
  const auto before = stored();
  for (std::size_t i = 0; i < kWarmUpEvents; ++i) logOne(i);
  waitFor([&] { return stored() >= before + kWarmUpEvents; });
}

void calls() {
  printPercentiles(durations(kCalls, {}, logOne));
}

/// One call a millisecond. The CPU time includes what the sleeping caller needs.
void paced(std::size_t count) {
  const auto before = stored();
  const double cpu = cpuSeconds();
  printPercentiles(durations(count, milliseconds(1), logOne));
  waitFor([&] { return stored() >= before + count; }, kSeldom);
  printFigure("cpu", (cpuSeconds() - cpu) * 1000 / static_cast<double>(count));
}

void durable() {
  const auto before = stored();
  const double cpu = cpuSeconds();
  const auto begin = Clock::now();
  for (std::size_t i = 0; i < kEventsOfARun; ++i) logOne(i);
  waitFor([&] { return stored() >= before + kEventsOfARun; }, kSeldom);
  const double seconds = secondsSince(begin);
  printFigure("rate", static_cast<double>(kEventsOfARun) / seconds);
  printFigure("cpu", (cpuSeconds() - cpu) * 1000 / static_cast<double>(kEventsOfARun));
}

void burst() {
  const auto before = stored();
  for (std::size_t i = 0; i < kBurst; ++i) logOne(i);
  const auto begin = Clock::now();
  waitFor([&] { return stored() >= before + kBurst; });
  printFigure("milliseconds", secondsSince(begin) * 1e3);
}

void chunk() {
  Application::didBecomeActive();
  const auto before = stored();
  for (std::size_t i = 0; i < kEventsOfAChunk; ++i) logOne(i);
  waitFor([&] { return stored() >= before + kEventsOfAChunk; });
  std::this_thread::sleep_for(kSettleTime);
  const auto begin = Clock::now();
  Application::willResignActive();
  waitFor([] { return accepted() >= kEventsOfAChunk; });
  printFigure("milliseconds", secondsSince(begin) * 1e3);
}

void foreground() {
  Application::didBecomeActive();
  paced(kForegroundCalls);
  printFigure("accepted", static_cast<double>(accepted()));
}

/// Ends the process `pause` after the last of 1,000 calls. The part `relaunch` is to find them.
void killed(milliseconds pause) {
  for (std::size_t i = 0; i < kBurst; ++i) logOne(i);
  std::this_thread::sleep_for(pause);
  std::raise(SIGKILL);
}

/// Returns when everything that the killed process has left is stored: later calls follow it.
void relaunch(const std::string& rules) {
  initialise(rules);
  waitFor([] { return stored() > 0; });
  const auto before = stored();
  KelvoSDK::logAppEventWithName("Relaunched");
  waitFor([&] { return stored() > before; });
  std::this_thread::sleep_for(kSettleTime);
}

/// Returns the voluntary context switches of each thread except the main thread, by thread id.
std::map<std::string, std::int64_t> switches() {
  std::map<std::string, std::int64_t> result;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string thread = entry.path().filename();
    if (thread == std::to_string(::getpid())) continue;
    std::ifstream file(entry.path() / "status");
    for (std::string line; std::getline(file, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0) result[thread] = std::stoll(line.substr(line.find(':') + 1));
    }
  }
  return result;
}

/// The program that started this process reads its memory until it closes this process's standard input.
void idle() {
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const auto before = switches();
  std::this_thread::sleep_for(kIdleTime);
  const auto after = switches();
  std::int64_t total = 0;
  for (const auto& [thread, count] : after) {
    const auto known = before.find(thread);
    total += count - (known == before.end() ? 0 : known->second);
  }
  printFigure("threads", static_cast<double>(after.size()));
  printFigure("switches", static_cast<double>(total));
  static_cast<void>(std::getchar());
}

void firstChunk(const std::string& rules) {
  initialise(rules);
  logOne(0);
  if (KelvoSDK::flushAndWait(std::chrono::minutes(1)).outcome != FlushOutcome::delivered) std::_Exit(1);
  printFigure("at", now());
}

int play(const std::string& part, const std::string& rules) {
  if (part == "first-chunk") return firstChunk(rules), 0;
  if (part == "relaunch") return relaunch(rules), 0;
  start(rules);
  if (part == "calls")
    calls();
  else if (part == "paced")
    paced(kPacedCalls);
  else if (part == "durable")
    durable();
  else if (part == "burst")
    burst();
  else if (part == "chunk")
    chunk();
  else if (part == "foreground")
    foreground();
  else if (part == "kill")
    killed(milliseconds(0));
  else if (part == "kill-50")
    killed(milliseconds(50));
  else if (part == "idle")
    idle();
  else
    return 2;
  return 0;
}

}  // namespace
}  // namespace kelvo::bench

int main(int count, char** arguments) {
  if (count != 3) return 2;
  kelvo::bench::endWith(kelvo::bench::play(arguments[1], arguments[2]));
}

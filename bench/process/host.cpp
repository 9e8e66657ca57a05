// The measured host: plays the part that its first argument names, and prints its figures.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Attributes.h"
#include "kelvo/KelvoSDK.h"
#include "process/Measuring.h"
#include "records/KLVChunk.h"
#include "records/KLVEvents.h"
#include "records/KLVSession.h"
#include "storage/KLVDataHandler.h"

namespace kelvo::bench {
namespace {

constexpr std::size_t kEventsOfARun = 50000;
constexpr std::size_t kEventsOfAChunk = 10000;
constexpr std::size_t kCalls = 10000;
constexpr std::size_t kBurst = 1000;
constexpr std::size_t kWarmUpEvents = 200;
constexpr int kClockWarmUps = 1000;
constexpr auto kSettleTime = std::chrono::milliseconds(300);
constexpr auto kIdleTime = std::chrono::seconds(30);

DatabaseWatcher watcher;

void logOne(std::size_t number) {
  KelvoSDK::logAppEventWithName(name(number), attributes(number));
}

void start() {
  KelvoSDK::initializeKelvoWithID("bench");
  waitFor([] { return watcher.stored() > 0; });
  std::this_thread::sleep_for(kSettleTime);  // lets the rest of the start-up finish
}

void logAndWait(std::size_t count) {
  const auto before = watcher.stored();
  for (std::size_t i = 0; i < count; ++i) logOne(i);
  waitFor([&] { return watcher.stored() >= before + static_cast<std::int64_t>(count); });
}

double percentile(const std::vector<double>& sorted, double part) {
  return sorted[std::min(sorted.size() - 1, static_cast<std::size_t>(part * static_cast<double>(sorted.size())))];
}

/// Measures the duration of each of `calls` calls, with a `pause` before each.
void measureCalls(const std::string& prefix, std::size_t calls, std::chrono::microseconds pause) {
  std::vector<double> microseconds(calls, 0);
  for (int i = 0; i < kClockWarmUps; ++i) static_cast<void>(Clock::now());
  for (std::size_t i = 0; i < calls; ++i) {
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
    const auto begin = Clock::now();
    logOne(i);
    microseconds[i] = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
  }
  std::sort(microseconds.begin(), microseconds.end());
  printFigure(prefix + "p50", percentile(microseconds, 0.5));
  printFigure(prefix + "p99", percentile(microseconds, 0.99));
  printFigure(prefix + "p999", percentile(microseconds, 0.999));
}

void latency() {
  start();
  logAndWait(kWarmUpEvents);
  measureCalls("", kCalls, {});
  std::this_thread::sleep_for(std::chrono::seconds(1));
  measureCalls("paced_", kCalls / 10, std::chrono::microseconds(500));
}

void durable() {
  start();
  logAndWait(kWarmUpEvents);
  const double cpu = cpuSeconds();
  const auto begin = Clock::now();
  logAndWait(kEventsOfARun);
  const double seconds = secondsSince(begin);
  printFigure("rate", static_cast<double>(kEventsOfARun) / seconds);
  printFigure("cpu", (cpuSeconds() - cpu) * 1000 / static_cast<double>(kEventsOfARun));
}

void burst() {
  start();
  logAndWait(kWarmUpEvents);
  const auto before = watcher.stored();
  for (std::size_t i = 0; i < kBurst; ++i) logOne(i);
  const auto begin = Clock::now();
  waitFor([&] { return watcher.stored() >= before + static_cast<std::int64_t>(kBurst); });
  printFigure("seconds", secondsSince(begin));
}

void chunk() {
  start();
  Application::didBecomeActive();
  logAndWait(kEventsOfAChunk);
  std::this_thread::sleep_for(kSettleTime);
  const auto begin = Clock::now();
  Application::willResignActive();
  waitFor([] { return watcher.acceptedEvents() >= static_cast<std::int64_t>(kEventsOfAChunk); });
  printFigure("seconds", secondsSince(begin));
}

/// Returns the voluntary context switches of each thread except the main thread, by thread id.
std::map<std::string, std::int64_t> switches() {
  std::map<std::string, std::int64_t> result;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string thread = entry.path().filename().string();
    if (std::stoi(thread) == ::getpid()) continue;
    std::ifstream file(entry.path() / "status");
    for (std::string line; std::getline(file, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0) result[thread] = std::stoll(line.substr(line.find(':') + 1));
    }
  }
  return result;
}

void idle() {
  start();
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
  const PrivateMemory memory = privateMemory(::getpid());
  printFigure("memory", static_cast<double>(memory.clean + memory.dirty));
  printFigure("dirty", static_cast<double>(memory.dirty));
}

void firstChunk() {
  const auto begin = Clock::now();
  KelvoSDK::initializeKelvoWithID("bench");
  Application::didBecomeActive();
  logOne(0);
  // BACKGROUND cuts a chunk of stored events only, so wait until the first event is stored.
  waitFor([] { return watcher.stored() > 1; });
  Application::willResignActive();
  waitFor([] { return watcher.acceptedChunks() > 0; });
  printFigure("seconds", secondsSince(begin));
}

/// Logs `events` events in one session, which cuts a chunk every second. Waits for the store between pieces, because a
/// long session does not log everything in one burst.
void longSession(std::size_t events) {
  start();
  const double cpu = cpuSeconds();
  constexpr std::size_t kPieces = 10;
  Application::didBecomeActive();
  for (std::size_t piece = 0; piece < kPieces; ++piece) {
    const auto begin = Clock::now();
    for (std::size_t i = 0; i < 10; ++i) logAndWait(events / kPieces / 10);
    printFigure("piece" + std::to_string(piece), secondsSince(begin));
  }
  const auto begin = Clock::now();
  Application::willResignActive();
  waitFor([&] { return watcher.acceptedEvents() >= static_cast<std::int64_t>(events); });
  printFigure("last_chunk", secondsSince(begin));
  printFigure("cpu_seconds", cpuSeconds() - cpu);
  printFigure("requests", static_cast<double>(watcher.acceptedChunks()));
}

/// Fills the home as earlier launches would: with `sessions` sessions of `chunks` unsent chunks each, ten events per
/// chunk. With 0 chunks, each session has ten events that were never cut.
void prepare(std::size_t sessions, std::size_t chunks) {
  constexpr std::size_t kEvents = 10;
  for (std::size_t s = 0; s < sessions; ++s) {
    const std::string id = std::to_string(1000 + s) + "-earlier";
    KLVDataHandler handler(id);
    handler.startWithCompletionHandler({});
    for (std::size_t i = 0; i < std::max<std::size_t>(1, chunks) * kEvents; ++i) {
      auto event = std::make_shared<KLVObservationEvent>(KLVEventType::app);
      event->setIdentifier(name(i));
      event->setCustomInfo(attributes(i));
      handler.saveEventInfo(event, id);
    }
    for (std::size_t c = 0; c < chunks; ++c) {
      static_cast<void>(handler.saveChunkMetaInfo(
          std::make_shared<KLVChunkMetaInfo>(id, c + 1, c * kEvents + 1, (c + 1) * kEvents, Array{1})));
    }
    const Dictionary launched{{"launch_time", 1},
                              {"launch_time_string", "long ago"},
                              {"is_first_session", false},
                              {"launch_type", "normal"},
                              {"duration", 1},
                              {"is_fatal", false},
                              {"process_name", "bench"},
                              {"is_background", false},
                              {"startup_time", 0}};
    const auto session = std::make_shared<KLVSession>(id);
    session->setAdditionalInfo(launched);
    handler.saveSessionInfo(session, id);
    std::promise<void> done;
    handler.whenStored([&] { done.set_value(); });
    done.get_future().wait();
  }
}

/// Starts in a home that `prepare` filled. Ends when the service has accepted `events` events or, with `purged`, when
/// the earlier sessions are deleted.
void launch(std::size_t events, bool purged) {
  const double cpu = cpuSeconds();
  const auto begin = Clock::now();
  KelvoSDK::initializeKelvoWithID("bench");
  // Seldom, because each query reads the whole schema again while tables change.
  const auto interval = std::chrono::milliseconds(20);
  if (purged) {
    waitFor([] { return watcher.stored() > 0 && watcher.sessions() <= 2; }, interval);
  } else {
    waitFor([&] { return watcher.acceptedEvents() >= static_cast<std::int64_t>(events); }, interval);
  }
  printFigure("seconds", secondsSince(begin));
  printFigure("cpu_seconds", cpuSeconds() - cpu);
  printFigure("requests", static_cast<double>(watcher.acceptedChunks()));
}

std::size_t numberIn(const char* text) {
  return static_cast<std::size_t>(std::strtoull(text, nullptr, 10));
}

int play(int count, char** arguments) {
  const std::string part = count > 1 ? arguments[1] : "";
  const auto number = [&](int at) { return at < count ? numberIn(arguments[at]) : 0; };
  if (part == "latency")
    latency();
  else if (part == "durable")
    durable();
  else if (part == "burst")
    burst();
  else if (part == "chunk")
    chunk();
  else if (part == "idle")
    idle();
  else if (part == "first-chunk")
    firstChunk();
  else if (part == "long-session")
    longSession(number(2));
  else if (part == "prepare")
    prepare(number(2), number(3));
  else if (part == "launch")
    launch(number(2), false);
  else if (part == "purge")
    launch(0, true);
  else
    return 2;
  return 0;
}

}  // namespace
}  // namespace kelvo::bench

int main(int count, char** arguments) {
  const int result = kelvo::bench::play(count, arguments);
  std::fflush(stdout);
  std::_Exit(result);  // skip the exit hooks: they are not measured
}

// The host with much stored data: plays the part that its first argument names, and prints its figures.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "Attributes.h"
#include "kelvo/Application.h"
#include "kelvo/KelvoSDK.h"
#include "platform/Directories.h"
#include "process/Measuring.h"
#include "records/KLVChunk.h"
#include "records/KLVEvents.h"
#include "records/KLVSession.h"
#include "storage/KLVDataHandler.h"

namespace kelvo::bench {
namespace {

constexpr std::size_t kPieces = 10;
constexpr std::size_t kEventsPerChunk = 10;
constexpr const char* kEarlier = "-earlier";

LedgerCounts ledger() {
  return KelvoSDK::ledger().thisProcess;
}

/// Logs `events` events in one session, which cuts a chunk every second. Waits for the store between pieces, because a
/// long session does not log everything in one burst.
void longSession(std::size_t events) {
  Options options("bench");
  options.maxStoredBytes = 0;  // no limit: events come faster than the service accepts them
  KelvoSDK::start(options);
  waitFor([] { return ledger().stored > 0; });
  const double cpu = cpuSeconds();
  const auto start = Clock::now();
  Application::didBecomeActive();
  for (std::size_t piece = 0; piece < kPieces; ++piece) {
    const auto begin = Clock::now();
    for (std::size_t part = 0; part < 10; ++part) {
      const auto before = ledger().stored;
      for (std::size_t i = 0; i < events / kPieces / 10; ++i) {
        KelvoSDK::logAppEventWithName(name(i), attributes(i));
      }
      waitFor([&] { return ledger().stored >= before + events / kPieces / 10; });
    }
    if (piece == 0) printFigure("first", secondsSince(begin));
    if (piece + 1 == kPieces) printFigure("last", secondsSince(begin));
  }
  printFigure("seconds", secondsSince(start));
  Application::willResignActive();
  waitFor([&] { return ledger().accepted >= events; });
  printFigure("cpu", cpuSeconds() - cpu);
}

/// Fills the home as earlier launches would: with `sessions` sessions of `chunks` unsent chunks each, ten events per
/// chunk. With 0 chunks, each session has ten events that were never cut.
void prepare(std::size_t sessions, std::size_t chunks) {
  for (std::size_t s = 0; s < sessions; ++s) {
    const std::string id = std::to_string(1000 + s) + kEarlier;
    KLVDataHandler handler(id);
    handler.startWithCompletionHandler({});
    for (std::size_t i = 0; i < std::max<std::size_t>(1, chunks) * kEventsPerChunk; ++i) {
      auto event = std::make_shared<KLVObservationEvent>(KLVEventType::app);
      event->setIdentifier(name(i));
      event->setCustomInfo(attributes(i));
      handler.saveEventInfo(event, id);
    }
    for (std::size_t c = 0; c < chunks; ++c) {
      static_cast<void>(handler.saveChunkMetaInfo(
          std::make_shared<KLVChunkMetaInfo>(id, c + 1, c * kEventsPerChunk + 1, (c + 1) * kEventsPerChunk, Array{1})));
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

/// A purge deletes a session's directory last.
bool hasEarlierSessions() {
  std::error_code changed;
  for (std::filesystem::directory_iterator entry(Directories::library(), changed), end; entry != end;
       entry.increment(changed)) {
    if (changed || entry->path().native().ends_with(kEarlier)) return true;
  }
  return false;
}

/// Starts in a home that `prepare` filled. Ends when the service has accepted `events` events or, if that is 0, when
/// the earlier sessions are deleted.
void launch(std::size_t events) {
  const double cpu = cpuSeconds();
  const auto begin = Clock::now();
  KelvoSDK::initializeKelvoWithID("bench");
  const auto isDone = [&] { return events > 0 ? ledger().accepted >= events : !hasEarlierSessions(); };
  waitFor(isDone, std::chrono::milliseconds(5));
  printFigure("seconds", secondsSince(begin));
  printFigure("cpu", cpuSeconds() - cpu);
}

int play(int count, char** arguments) {
  const std::string part = count > 1 ? arguments[1] : "";
  const auto number = [&](int at) {
    return at < count ? static_cast<std::size_t>(std::strtoull(arguments[at], nullptr, 10)) : 0;
  };
  if (part == "long-session")
    longSession(number(2));
  else if (part == "prepare")
    prepare(number(2), number(3));
  else if (part == "launch")
    launch(number(2));
  else if (part == "purge")
    launch(0);
  else
    return 2;
  return 0;
}

}  // namespace
}  // namespace kelvo::bench

int main(int count, char** arguments) {
  kelvo::bench::endWith(kelvo::bench::play(count, arguments));
}

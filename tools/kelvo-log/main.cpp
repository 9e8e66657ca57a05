#include <cstdio>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <string>

#include "core/KLVController.h"
#include "facade/ExitWork.h"
#include "kelvo-log/Arguments.h"
#include "kelvo-log/Homes.h"
#include "kelvo-log/Player.h"
#include "kelvo-log/Progress.h"
#include "kelvo-log/Waiting.h"
#include "kelvo/KelvoSDK.h"
#include "platform/Bundle.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+Counts.h"

/// The symbol by which a program asks for the library's load hooks. Defined here, it keeps them out: this tool starts
/// the library itself, and ends without a farewell line.
extern "C" const int kelvo_load_hooks = 0;

namespace kelvo::log {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kLinesBetweenWaits = 500;
// A cut after so many lines or bytes keeps every request short. Services limit the length of a body.
constexpr std::size_t kLinesBetweenCuts = 5000;
constexpr std::size_t kTextBetweenCuts = 1024 * 1024;
constexpr std::chrono::seconds kLongestStart(35);
constexpr milliseconds kBetweenReports(100);

enum ExitStatus { kDelivered = 0, kBadLines = 1, kWrongUsage = 2, kNotDelivered = 3, kNotCollecting = 4 };

KLVController& controller() {
  return KLVController::sharedController();
}

/// Starts the library if the bundle says so, as the load hooks do in a host.
void startFromBundle() {
  if (Bundle::main().infoDictionary().empty()) return;
  useHomeOf(applicationIdOfBundle());
  controller().initialize();
}

/// Keeps the calls from piling up in memory.
class Pace {
 public:
  void played(const std::string& line) {
    text_ += line.size();
    if (++lines_ % kLinesBetweenWaits == 0) {
      if (controller().isSDKInitCalled()) waitUntilStarted(deadlineIn(kLongestStart));
      waitUntilStored();
    }
    if (lines_ - linesAtCut_ < kLinesBetweenCuts && text_ < kTextBetweenCuts) return;
    KelvoSDK::flush(milliseconds(0), {});
    linesAtCut_ = lines_;
    text_ = 0;
  }

 private:
  std::size_t lines_ = 0;
  std::size_t linesAtCut_ = 0;
  std::size_t text_ = 0;  // bytes since the latest cut
};

/// Plays all lines. Returns the number of bad lines.
int playAll(std::istream& input, Progress& progress) {
  int bad = 0;
  long number = 0;
  Pace pace;
  for (std::string line; std::getline(input, line);) {
    ++number;
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    try {
      play(line);
    } catch (const BadLine& fault) {
      ++bad;
      progress.clear();
      std::fprintf(stderr, "kelvo-log: line %ld: %s\n", number, fault.what());
    }
    progress.linePlayed();
    pace.played(line);
  }
  return bad;
}

/// Flushes, and shows the progress meanwhile.
FlushResult flush(milliseconds deadline, Progress& progress) {
  const auto result = std::make_shared<std::promise<FlushResult>>();
  auto future = result->get_future();
  KelvoSDK::flush(deadline, [result](const FlushResult& now) { result->set_value(now); });
  while (future.wait_for(kBetweenReports) != std::future_status::ready) progress.show();
  return future.get();
}

/// Flushes until everything is delivered, or no chunk is accepted for `seconds`.
FlushResult deliver(double seconds, Progress& progress) {
  const auto deadline = std::chrono::duration_cast<milliseconds>(deadlineIn(std::chrono::duration<double>(seconds)) -
                                                                 std::chrono::steady_clock::now());
  for (auto before = controller().deliveryState().deliveredChunks;;) {
    auto result = flush(deadline, progress);
    if (result.outcome != FlushOutcome::deadline || result.deliveredChunks == before) return result;
    before = result.deliveredChunks;
  }
}

/// Returns the exit status, and prints the summary. In a shell's pipe, a run that delivered everything prints nothing.
ExitStatus statusOf(const FlushResult& result, const Arguments& arguments, bool isOnTerminal, int bad) {
  const auto say = [&](const std::string& text) {
    if (!arguments.isQuiet) std::fprintf(stderr, "kelvo-log: %s\n", text.c_str());
  };
  if (result.outcome == FlushOutcome::notCollecting) {
    say(result.reason);
    return controller().leavesEventsToNextLaunch() ? kNotDelivered : kNotCollecting;
  }
  if (result.outcome != FlushOutcome::delivered) {
    say(KLVUtilities::numberOf(result.waitingEvents, "event") + " and " +
        KLVUtilities::numberOf(result.waitingChunks, "chunk") + " wait for the next launch: " + result.reason);
    return kNotDelivered;
  }
  // The library logs this event before any played one.
  if (controller().getLifetimeCountForEventWithName(std::string(kKLVAppOpened)) == 0) {
    say("not everything could be stored");
    return kNotDelivered;
  }
  if (isOnTerminal) {
    say(KLVUtilities::numberOf(result.deliveredEvents, "event") + " delivered in " +
        KLVUtilities::numberOf(result.deliveredChunks, "chunk"));
  }
  return bad > 0 ? kBadLines : kDelivered;
}

ExitStatus finish(const Arguments& arguments, int bad, Progress& progress) {
  if (!controller().isSDKInitCalled()) {
    std::fprintf(stderr,
                 "kelvo-log: the library was never started: give --app-id, or a bundle with an application id\n");
    return kWrongUsage;
  }
  // During the start-up, the library would write the calls to a file for the next launch. So let it start first.
  const bool isStarted = waitUntilStarted(deadlineIn(std::chrono::duration<double>(arguments.waitSeconds)));
  if (!isInBackground()) Application::willResignActive();
  if (!isStarted) waitUntilStored();
  const auto result = isStarted ? deliver(arguments.waitSeconds, progress) : flush(milliseconds(0), progress);
  progress.clear();
  return statusOf(result, arguments, progress.isShown(), bad);
}

ExitStatus run(const Arguments& arguments) {
  std::ifstream file;
  if (arguments.file) {
    file.open(*arguments.file);
    if (!file) {
      std::fprintf(stderr, "kelvo-log: cannot read %s\n", arguments.file->c_str());
      return kWrongUsage;
    }
  }
  setDraining(arguments.waitSeconds, arguments.isQuiet);
  KLVLogger::chooseLevel(KLVLogger::Level::error);
  startFromBundle();
  if (arguments.delivery != nullptr) {
    if (controller().isSDKInitCalled()) {
      std::fprintf(stderr, "kelvo-log: --delivery comes too late: the bundle has started the library\n");
      return kWrongUsage;
    }
    KLVDeliveryRules::choose(*arguments.delivery);
  }
  if (arguments.appId) start(*arguments.appId);
  Progress progress(arguments.isQuiet);
  const int bad = playAll(arguments.file ? file : std::cin, progress);
  return finish(arguments, bad, progress);
}

}  // namespace
}  // namespace kelvo::log

int main(int count, char** texts) {
  using namespace kelvo::log;
  const auto arguments = Arguments::parse(count, texts);
  if (!arguments) return kWrongUsage;
  if (arguments->wantsHelp) {
    printHelp();
    return kDelivered;
  }
  const int status = run(*arguments);
  kelvo::finishAtExit();
  return status;
}

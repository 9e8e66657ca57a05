#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>

#include "core/KLVController.h"
#include "kelvo-log/Delivery.h"
#include "kelvo-log/Player.h"
#include "kelvo/KelvoSDK.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::log {
namespace {

constexpr int kLinesBetweenWaits = 500;

enum ExitStatus { kDelivered = 0, kBadLines = 1, kWrongUsage = 2, kNotDelivered = 3, kNotCollecting = 4 };

constexpr const char* kHelp =
    R"(usage: kelvo-log [--app-id ID] [--delivery RULES] [--wait SECONDS] [FILE]

Makes host calls through the library. Reads FILE or standard input, one JSON
object per line, and makes each call as its line arrives. Skips blank lines and
lines that begin with #. Without --app-id, the application id comes from the
bundle's Info.plist. At the end, waits until every chunk is accepted, for --wait
seconds at most (default 10).

--delivery names the rules of delivery: complete delivers every event once;
classic (default) keeps the losses that the system requires. If the bundle has an
application id, it starts the library, and its KelvoDelivery names the rules.

"call" names the call (default logAppEventWithName). The calls and their members:
  initializeKelvoWithID   id             getDeviceID
  logAppEventWithName     name, info, isAggregate, shouldFlatten
  logClientEventWithName  name, info, shouldFlatten
  logScreenWithName       name           willShow, didShow     screen, title
  setUserCustomInfo       info           setSessionCustomInfo  info
  reportCustomError       error, info    deviceToken           text, or hex
  setUserIdentifier       identifier     wait, waitUntilReady  seconds
  didBecomeActive, willResignActive
  listen                  type ("App", "Client", "Agg" ...), or
                          identifier (type number and name: "4___Purchase")
    prints each later event that matches as one line of JSON
  sync                    type ("rta" or "survey"), version (default 1), seconds
    updates the saved actions from the service, and prints if it called back in
    time

Environment: KELVO_SERVER_BASE_URL (the service), KELVO_HOME (the home),
KELVO_BUNDLE (the bundle). Exit status: 0 all delivered; 1 all delivered, but
bad lines were skipped; 2 wrong usage; 3 not everything was delivered;
4 collection is disabled, or another process uses the home.
)";

struct Options {
  std::optional<std::string> appId;
  const KLVDeliveryRules* delivery = nullptr;  ///< null if not given
  double waitSeconds = 10;
  std::optional<std::string> file;
};

std::optional<double> parseSeconds(const char* text) {
  double seconds = 0;
  const char* end = text + std::strlen(text);
  const auto [rest, error] = std::from_chars(text, end, seconds);
  if (error != std::errc() || rest != end || !std::isfinite(seconds) || seconds < 0) return std::nullopt;
  return seconds;
}

/// Returns nullopt for wrong usage, after printing the reason.
std::optional<Options> parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const bool hasValue = i + 1 < argc;
    if (argument == "--app-id" && hasValue) {
      options.appId = argv[++i];
    } else if (argument == "--wait" && hasValue) {
      const auto seconds = parseSeconds(argv[++i]);
      if (!seconds) {
        std::fprintf(stderr, "kelvo-log: --wait takes seconds, not %s\n", argv[i]);
        return std::nullopt;
      }
      options.waitSeconds = *seconds;
    } else if (argument == "--delivery" && hasValue) {
      options.delivery = KLVDeliveryRules::named(argv[++i]);
      if (options.delivery == nullptr) {
        std::fprintf(stderr, "kelvo-log: --delivery takes complete or classic, not %s\n", argv[i]);
        return std::nullopt;
      }
    } else if ((!argument.empty() && argument[0] == '-' && argument != "-") || options.file) {
      std::fprintf(stderr, "kelvo-log: unknown argument %s; see kelvo-log --help\n", argument.c_str());
      return std::nullopt;
    } else {
      options.file = argument;
    }
  }
  return options;
}

/// Plays all lines. Returns the number of bad lines.
int playAll(std::istream& input) {
  int bad = 0;
  int played = 0;
  long number = 0;
  for (std::string line; std::getline(input, line);) {
    ++number;
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    try {
      play(line);
    } catch (const BadLine& fault) {
      ++bad;
      std::fprintf(stderr, "kelvo-log: line %ld: %s\n", number, fault.what());
    }
    if (++played % kLinesBetweenWaits == 0) keepPace();
  }
  return bad;
}

ExitStatus finish(const Options& options, int bad) {
  auto& controller = KLVController::sharedController();
  if (!controller.isSDKInitCalled()) {
    std::fprintf(stderr,
                 "kelvo-log: the library was never started: give --app-id, or a bundle with an application id\n");
    return kWrongUsage;
  }
  const Deadline deadline = deadlineIn(std::chrono::duration<double>(options.waitSeconds));
  // During the start-up, the library would write the calls to a file for the next launch. So let it start first.
  const bool started = waitUntilStarted(deadline);
  Application::willResignActive();
  if (!started) {
    waitUntilStored();
    std::fprintf(stderr, "kelvo-log: the start-up has not ended; all events wait for the next launch\n");
    return kNotDelivered;
  }
  if (controller.leavesEventsToNextLaunch()) {
    std::fprintf(stderr, "kelvo-log: another process uses this home; all events wait for the next launch\n");
    return kNotDelivered;
  }
  if (!controller.enableSDK()) {
    std::fprintf(stderr,
                 "kelvo-log: nothing is collected: collection is disabled, or another process uses this home\n");
    return kNotCollecting;
  }
  if (const std::size_t left = chunksLeftBehind(deadline); left > 0) {
    std::fprintf(stderr, "kelvo-log: %zu chunks wait for the next launch\n", left);
    return kNotDelivered;
  }
  if (!storedFirstEvent()) {
    std::fprintf(stderr, "kelvo-log: not everything could be stored\n");
    return kNotDelivered;
  }
  return bad > 0 ? kBadLines : kDelivered;
}

int run(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(kHelp, stdout);
    return kDelivered;
  }
  const auto options = parse(argc, argv);
  if (!options) return kWrongUsage;
  std::ifstream file;
  const bool readsFile = options->file && *options->file != "-";
  if (readsFile) {
    file.open(*options->file);
    if (!file) {
      std::fprintf(stderr, "kelvo-log: cannot read %s\n", options->file->c_str());
      return kWrongUsage;
    }
  }
  if (options->delivery != nullptr) {
    if (KLVController::sharedController().isSDKInitCalled()) {
      std::fprintf(stderr, "kelvo-log: --delivery comes too late: the bundle has started the library\n");
      return kWrongUsage;
    }
    KLVDeliveryRules::choose(*options->delivery);
  }
  if (options->appId) KelvoSDK::initializeKelvoWithID(*options->appId);
  return finish(*options, playAll(readsFile ? file : std::cin));
}

}  // namespace
}  // namespace kelvo::log

int main(int argc, char** argv) {
  return kelvo::log::run(argc, argv);
}

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

namespace kelvo::log {
namespace {

constexpr int kLinesBetweenStores = 500;

enum ExitStatus { kDelivered = 0, kBadLines = 1, kWrongUsage = 2, kNotDelivered = 3, kNotCollecting = 4 };

constexpr const char* kHelp =
    R"(usage: kelvo-log [--app-id ID] [--wait SECONDS] [FILE]

Plays host calls through the library: reads FILE or standard input, one JSON
object a line, and plays each line as it arrives. Blank lines and lines that
begin with # are skipped. Without --app-id, the bundle's Info.plist decides. At
the end it waits up to --wait seconds (10) until every chunk is accepted.

"call" names the call; without it, logAppEventWithName:
  initializeKelvoWithID   id             getDeviceID
  logAppEventWithName     name, info, isAggregate, shouldFlatten
  logClientEventWithName  name, info, shouldFlatten
  logScreenWithName       name           willShow, didShow     screen, title
  setUserCustomInfo       info           setSessionCustomInfo  info
  reportCustomError       error, info    deviceToken           text, or hex
  setUserIdentifier       identifier     wait, waitUntilReady  seconds
  didBecomeActive, willResignActive
  listen: from now on each delivered event of a type ("App", "Client", "Agg" ...)
    or exact identifier ("4___Purchase") is printed as one JSON line
  sync: type ("rta", "survey"), version (1), seconds: brings the saved actions in
    step with the service, and prints whether the callback came in time

Environment: KELVO_SERVER_BASE_URL (the service), KELVO_HOME (where data lies),
KELVO_BUNDLE (the bundle). Exit status: 0 all delivered; 1 delivered, but bad
lines were skipped; 2 wrong usage; 3 something was not delivered; 4 collection
is disabled, or another process uses the home.
)";

struct Options {
  std::optional<std::string> appId;
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

/// nullopt, after a line, for wrong usage.
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
    } else if ((!argument.empty() && argument[0] == '-' && argument != "-") || options.file) {
      std::fprintf(stderr, "kelvo-log: cannot make sense of %s; --help tells the usage\n", argument.c_str());
      return std::nullopt;
    } else {
      options.file = argument;
    }
  }
  return options;
}

/// Plays all lines; the number of bad ones.
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
    if (++played % kLinesBetweenStores == 0) keepPace();
  }
  return bad;
}

ExitStatus finish(const Options& options, int bad) {
  auto& controller = KLVController::sharedController();
  if (!controller.isSDKInitCalled()) {
    std::fprintf(stderr, "kelvo-log: the library was never started: give --app-id, or a bundle that names an id\n");
    return kWrongUsage;
  }
  const Deadline deadline = deadlineIn(std::chrono::duration<double>(options.waitSeconds));
  // What is reported to a library that still starts goes to a file for the next launch, so let it start first.
  const bool started = waitUntilStarted(deadline);
  Application::willResignActive();
  if (!started) {
    waitUntilStored();
    std::fprintf(stderr, "kelvo-log: the start-up has not ended; what was played waits for the next launch\n");
    return kNotDelivered;
  }
  if (!controller.enableSDK()) {
    std::fprintf(stderr, "kelvo-log: nothing is collected: disabled, or another process uses this home\n");
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
  if (options->appId) KelvoSDK::initializeKelvoWithID(*options->appId);
  return finish(*options, playAll(readsFile ? file : std::cin));
}

}  // namespace
}  // namespace kelvo::log

int main(int argc, char** argv) {
  return kelvo::log::run(argc, argv);
}

#include "kelvo-log/Arguments.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/Bundle.h"

namespace kelvo::log {
namespace {

constexpr const char* kHelp =
    R"(usage: kelvo-log [--app-id ID] [--delivery RULES] [--wait SECONDS] [--quiet]
                 [FILE]

Makes host calls through the library. Reads FILE or standard input, one JSON
object per line, and makes each call as its line arrives. Skips blank lines and
lines that begin with #. Without --app-id, the application id comes from the
bundle's Info.plist. At the end, waits until every chunk is accepted, and gives
up after --wait seconds (default 10) without an accepted chunk.

--delivery names the rules of delivery: complete delivers every event once;
classic (default) keeps the losses that the system requires. If the bundle has an
application id, it starts the library, and its KelvoDelivery names the rules.
--quiet writes neither progress (on a terminal) nor the summary at the end.

"call" names the call (default logAppEventWithName). The calls and their members:
  initializeKelvoWithID   id             getDeviceID, erase
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
A line with any other member, or without a name where there must be one, is a bad
line.

Environment: KELVO_SERVER_BASE_URL (the service), KELVO_HOME (the home; default
${XDG_DATA_HOME:-~/.local/share}/kelvo/kelvo-log/ID), KELVO_BUNDLE (the bundle).
Exit status: 0 all delivered; 1 all delivered, but bad lines were skipped;
2 wrong usage; 3 not everything was delivered; 4 collection is disabled, or
another process uses the home.
)";

std::optional<double> parseSeconds(const char* text) {
  double seconds = 0;
  const char* end = text + std::strlen(text);
  const auto [rest, error] = std::from_chars(text, end, seconds);
  if (error != std::errc() || rest != end || !std::isfinite(seconds) || seconds < 0) return std::nullopt;
  return seconds;
}

template <class... Texts>
std::nullopt_t wrong(const char* format, Texts... texts) {
  std::fprintf(stderr, format, texts...);
  return std::nullopt;
}

}  // namespace

std::optional<Arguments> Arguments::parse(int count, char** texts) {
  Arguments all;
  for (int i = 1; i < count; ++i) {
    if (std::strcmp(texts[i], "--help") == 0) {
      all.wantsHelp = true;
      return all;
    }
  }
  for (int i = 1; i < count; ++i) {
    const std::string_view text = texts[i];
    const bool hasValue = i + 1 < count;
    if (text == "--app-id" && hasValue) {
      all.appId = texts[++i];
    } else if (text == "--wait" && hasValue) {
      const auto seconds = parseSeconds(texts[++i]);
      if (!seconds) return wrong("kelvo-log: --wait takes seconds, not %s\n", texts[i]);
      all.waitSeconds = *seconds;
    } else if (text == "--delivery" && hasValue) {
      all.delivery = KLVDeliveryRules::named(texts[++i]);
      if (all.delivery == nullptr) {
        return wrong("kelvo-log: --delivery takes complete or classic, not %s\n", texts[i]);
      }
    } else if (text == "--quiet") {
      all.isQuiet = true;
    } else if ((text.starts_with('-') && text != "-") || all.file) {
      return wrong("kelvo-log: unknown argument %s; see kelvo-log --help\n", texts[i]);
    } else {
      all.file = text;
    }
  }
  if (all.file == "-") all.file.reset();
  return all;
}

void printHelp() {
  std::fputs(kHelp, stdout);
}

std::string applicationIdOfBundle() {
  const auto meta = Bundle::main().infoDictionary()["Kelvo"].asDictionary();
  return meta ? (*meta)["Core"].asText().value_or("") : "";
}

}  // namespace kelvo::log

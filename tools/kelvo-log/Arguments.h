#pragma once

#include <optional>
#include <string>

#include "util/KLVDeliveryRules.h"

namespace kelvo::log {

inline constexpr double kDefaultWaitSeconds = 10;

struct Arguments {
  bool wantsHelp = false;
  bool isQuiet = false;
  std::optional<std::string> appId;
  const KLVDeliveryRules* delivery = nullptr;  ///< null if not given
  double waitSeconds = kDefaultWaitSeconds;
  std::optional<std::string> file;  ///< nullopt for standard input

  /// Returns nullopt for wrong usage, after printing the reason. With --help anywhere, nothing else counts.
  static std::optional<Arguments> parse(int count, char** texts);
};

void printHelp();

/// Returns the application id in the bundle, empty if there is none. Such a bundle starts the library.
std::string applicationIdOfBundle();
inline bool bundleStartsLibrary() {
  return !applicationIdOfBundle().empty();
}

}  // namespace kelvo::log

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelvo {

/// The kinds of event; the numbers are stored and sent.
enum class KLVEventType : std::uint64_t {
  system = 0,
  ceNavigation = 1,
  navigation = 2,
  userInteraction = 3,
  app = 4,
  client = 5,
  aggregate = 6,
  push = 7,
  inApp = 8,
  inlineView = 9,
  nudge = 10,
  inlineText = 11,
  inlineCoachmark = 12,
  walkthrough = 13,
  screenshot = 14,
  survey = 15,
  // Kept: 16 has no name; it prints as "undefined" and no text parses to it.
  session = 17,
  chunk = 18,
  customError = 19,
  applicationCrash = 20,
  unknown = UINT64_MAX,  ///< what an undefined name parses to
};

/// "System", "CENavigation", ... "ApplicationCrash"; "undefined" for any other value.
std::string_view stringFromType(KLVEventType type);
/// Case-sensitive; any other text logs a warning and gives `unknown`.
KLVEventType typeFromString(std::string_view name);

/// The key of one exact event, "<type number>___<identifier>": listeners register under it.
std::string identifierKey(KLVEventType type, std::string_view identifier);

inline constexpr std::string_view kKLVAppOpened = "klv_app_opened";
inline constexpr std::string_view kKLVForeground = "FOREGROUND";
inline constexpr std::string_view kKLVBackground = "BACKGROUND";

}  // namespace kelvo

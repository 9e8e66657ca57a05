#pragma once

#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// The version number of the library. A floating-point number, because paths and records show it as one ("288.000000").
inline constexpr double kKLVSDKVersion = 288;

/// The library: its version, its start time and the intervals that it reports.
class KLVSDKInfo final : public KLVInfo {
 public:
  /// Uses the version number as the identifier and ignores its argument.
  explicit KLVSDKInfo(std::string identifier);
  [[nodiscard]] std::string_view className() const override { return "KLVSDKInfo"; }
};

}  // namespace kelvo

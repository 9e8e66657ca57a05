#pragma once

#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// The version number of the library.
inline constexpr double kKLVSDKVersion = 288;

/// The library itself: version, start time, and the intervals that it reports.
class KLVSDKInfo final : public KLVInfo {
 public:
  /// The identifier given is replaced by the version number.
  explicit KLVSDKInfo(std::string identifier);
  [[nodiscard]] std::string_view className() const override { return "KLVSDKInfo"; }
};

}  // namespace kelvo

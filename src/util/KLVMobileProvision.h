#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// How the host application was distributed, read from the provisioning profile in its bundle.
class KLVMobileProvision {
 public:
  enum class ReleaseMode { unknown = 0, simulator = 1, developer = 2, adHoc = 3, appStore = 4, enterprise = 5 };

  /// The embedded profile; the first one that parses is kept for the process. nullopt when there is none or it is
  /// malformed.
  static std::optional<Dictionary> getMobileProvision();
  /// The profile that the text of a signed file holds.
  static std::optional<Dictionary> profileIn(const std::string& text);
  /// Never `unknown`; `simulator` without a profile.
  static ReleaseMode releaseMode();
  static ReleaseMode releaseModeOf(const std::optional<Dictionary>& profile);
  /// "Simulator", "Developer", "AdHoc", "AppStore" or "Enterprise".
  static std::string releaseModeString();
};

}  // namespace kelvo

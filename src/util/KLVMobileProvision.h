#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Reads from the provisioning profile in the bundle how the host application was distributed. Thread-safe.
class KLVMobileProvision {
 public:
  enum class ReleaseMode { unknown = 0, simulator = 1, developer = 2, adHoc = 3, appStore = 4, enterprise = 5 };

  /// Returns the profile embedded in the bundle, nullopt if there is none or it is malformed. Reads the file until one
  /// profile parses, and keeps that one for the life of the process.
  static std::optional<Dictionary> getMobileProvision();
  /// Returns the profile inside `text`, the content of a signed file; nullopt if it holds none.
  static std::optional<Dictionary> profileIn(const std::string& text);
  /// Returns the release mode of the embedded profile. Never returns `unknown`.
  static ReleaseMode releaseMode();
  /// Returns the release mode of `profile`, `simulator` for nullopt or an empty profile.
  static ReleaseMode releaseModeOf(const std::optional<Dictionary>& profile);
  /// Returns `releaseMode()` as "Simulator", "Developer", "AdHoc", "AppStore" or "Enterprise".
  static std::string releaseModeString();
};

}  // namespace kelvo

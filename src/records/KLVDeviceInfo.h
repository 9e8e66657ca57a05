#pragma once

#include <optional>
#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// The device. Its identifier is made at the first launch and then kept permanently in the user defaults.
class KLVDeviceInfo final : public KLVInfo {
 public:
  /// Uses the device id as the identifier and ignores its argument. May write the user defaults.
  explicit KLVDeviceInfo(std::string identifier);
  [[nodiscard]] std::string_view className() const override { return "KLVDeviceInfo"; }

  [[nodiscard]] std::string getDeviceID() const { return identifier(); }
  [[nodiscard]] std::string getHardwareModel() const;
  void logDeviceToken(const std::string& token);

  /// Returns the advertising identifier, which Linux does not have: always nullopt.
  static std::optional<std::string> getIDFA();
};

}  // namespace kelvo

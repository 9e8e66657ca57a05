#pragma once

#include <optional>
#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// The device. Its identifier is made once and kept in the user defaults for good.
class KLVDeviceInfo final : public KLVInfo {
 public:
  /// The identifier given is replaced by the device id.
  explicit KLVDeviceInfo(std::string identifier);
  [[nodiscard]] std::string_view className() const override { return "KLVDeviceInfo"; }

  [[nodiscard]] std::string getDeviceID() const { return identifier(); }
  [[nodiscard]] std::string getHardwareModel() const;
  void logDeviceToken(const std::string& token);

  /// Returns the advertising identifier, which Linux does not have: always nullopt.
  static std::optional<std::string> getIDFA();
};

}  // namespace kelvo

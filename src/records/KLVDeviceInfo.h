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

  /// Returns the advertising identifier from the class registered as "ASIdentifierManager" (an
  /// `AdvertisingIdentifierManager`). Returns nullopt if no class is registered, or if it throws, which is logged.
  static std::optional<std::string> getIDFA();
};

/// The interface of a class that is registered as "ASIdentifierManager".
class AdvertisingIdentifierManager {
 public:
  virtual ~AdvertisingIdentifierManager() = default;
  /// Returns a UUID, all zeros if the user refused tracking.
  virtual std::string advertisingIdentifier() = 0;
};

}  // namespace kelvo

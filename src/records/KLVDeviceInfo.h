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

  /// The advertising identifier, from the class registered as "ASIdentifierManager" (an
  /// `AdvertisingIdentifierManager`); nullopt when there is none.
  static std::optional<std::string> getIDFA();
};

/// What a product of the class registered as "ASIdentifierManager" must be.
class AdvertisingIdentifierManager {
 public:
  virtual ~AdvertisingIdentifierManager() = default;
  /// A UUID; all zeros when the user refused tracking.
  virtual std::string advertisingIdentifier() = 0;
};

}  // namespace kelvo

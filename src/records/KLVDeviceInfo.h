#pragma once

#include <optional>
#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// The device. Its identifier is made at the first launch and then kept permanently in the user defaults.
///
/// Names of tables and directories are made from the identifier, and somebody may have changed it to a text that breaks
/// them. Then each start writes one ERROR line. The rule `replacesForeignDeviceIds` decides whether the library keeps
/// that identifier or saves a new one.
class KLVDeviceInfo final : public KLVInfo {
 public:
  /// Uses the device id as the identifier and ignores its argument. May write the user defaults.
  explicit KLVDeviceInfo(std::string identifier);
  [[nodiscard]] std::string_view className() const override { return "KLVDeviceInfo"; }

  [[nodiscard]] std::string getDeviceID() const { return identifier(); }
  [[nodiscard]] std::string getHardwareModel() const;
  void logDeviceToken(const std::string& token);

  /// Returns the secret that was made with the device id, 64 hexadecimal digits. The device of an older version gets
  /// one now, which is saved. Blocks on the disk then.
  static std::string eraseSecret();

  /// Returns `deviceId` as a part of names: every character but ASCII letters, digits, "-" and "." is replaced by "-",
  /// and the rest after 64 characters is cut off. Returns "-" for the empty text.
  static std::string namePart(const std::string& deviceId);

  /// Returns the advertising identifier, which Linux does not have: always nullopt.
  static std::optional<std::string> getIDFA();
};

}  // namespace kelvo

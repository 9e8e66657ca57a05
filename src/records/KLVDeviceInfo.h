#pragma once

#include <optional>
#include <string>

#include "platform/ThreadSafety.h"
#include "records/KLVInfo.h"
#include "util/KLVWaitingCall.h"

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
  /// `call`: the host call that gives the token.
  void logDeviceToken(const std::string& token, KLVWaitingCall call = {}) EXCLUDES(tokenMutex_);
  /// The same for a call of an earlier process. Does nothing if this process has a token.
  void logEarlierToken(const std::string& token, KLVWaitingCall call) EXCLUDES(tokenMutex_);
  /// Returns the call that has given the token. It is finished once a chunk's row has the record.
  [[nodiscard]] KLVWaitingCall tokenCall() const EXCLUDES(tokenMutex_);

  /// Returns the secret that was made with the device id, 64 hexadecimal digits. The device of an older version gets
  /// one now, which is saved. Blocks on the disk then.
  static std::string eraseSecret();

  /// Returns `deviceId` as a part of names: every character but ASCII letters, digits, "-" and "." is replaced by "-",
  /// and the rest after 64 characters is cut off. Returns "-" for the empty text.
  static std::string namePart(const std::string& deviceId);

  /// Returns the advertising identifier, which Linux does not have: always nullopt.
  static std::optional<std::string> getIDFA();

 private:
  mutable Mutex tokenMutex_;
  bool hasToken_ GUARDED_BY(tokenMutex_) = false;
  KLVWaitingCall tokenCall_ GUARDED_BY(tokenMutex_);
};

}  // namespace kelvo

#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "kelvo/Options.h"
#include "kelvo/Value.h"
#include "platform/ThreadSafety.h"
#include "records/KLVAppInfo.h"

namespace kelvo {

/// Applies what the bundle and the host's options say about this process. Thread-safe.
///
/// It also holds the log line of a load that could not start the library, because the host may still start it: `start`
/// drops the line; `initializeKelvoWithID` and the end of the process write it.
class HostSettings {
 public:
  static HostSettings& shared();

  /// Returns whether the program acts for another user (see Privileges.h), so that the library must not start. The
  /// first time, logs one ERROR line and tells the host.
  static bool refusesForeignRights();

  /// Applies "KelvoDelivery", "KelvoFarewell", "KelvoConsent" and "KelvoJournalBytes" of the `Info.plist`. Called at
  /// load.
  void applyBundle(const Dictionary& info) EXCLUDES(mutex_);
  /// Applies all options but the id of the application and of its user. Called once, before the start-up.
  void apply(const Options& options) EXCLUDES(mutex_);
  /// Applies only those about output and consent: sink, level, farewell, whether consent is required. Drops the held
  /// line.
  void applyOutput(const Options& options) EXCLUDES(mutex_);

  /// Replaces the bundle's name and version in the record, if the host has given its own.
  void rename(KLVAppInfo& app) EXCLUDES(mutex_);

  /// Returns whether the process writes its farewell line when it ends. Takes no lock.
  [[nodiscard]] bool saysFarewell() const noexcept { return saysFarewell_; }
  void chooseFarewell(bool says) noexcept { saysFarewell_ = says; }

  /// Returns whether the host or its bundle requires the user's consent. Takes no lock.
  [[nodiscard]] bool requiresConsent() const noexcept { return requiresConsent_; }

  /// Keeps `write`, which logs the line of the load.
  void holdLine(std::function<void()> write) EXCLUDES(mutex_);
  /// Writes the line, if there is one that was neither written nor dropped.
  void writeHeldLine() EXCLUDES(mutex_);
  void dropHeldLine() EXCLUDES(mutex_) { holdLine({}); }

 private:
  std::atomic<bool> saysFarewell_{true};
  std::atomic<bool> requiresConsent_{false};
  Mutex mutex_;
  std::function<void()> heldLine_ GUARDED_BY(mutex_);
  bool bundleNamesDelivery_ GUARDED_BY(mutex_) = false;
  std::string appName_ GUARDED_BY(mutex_);
  std::string appVersion_ GUARDED_BY(mutex_);
};

}  // namespace kelvo

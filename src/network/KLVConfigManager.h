#pragma once

#include <functional>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "network/KLVHTTPSession.h"

namespace kelvo {

/// The controller methods that the configuration manager calls.
class KLVConfigManagerDelegate {
 public:
  virtual std::string applicationIdentifier() = 0;
  virtual void setAndSaveEnableSDKState(bool enabled) = 0;
  virtual void getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) = 0;

 protected:
  ~KLVConfigManagerDelegate() = default;  // never deleted through this type
};

/// Holds the remote configuration of this run, and downloads the one for the next start.
///
/// The constructor loads the file that an earlier run saved, or else the built-in default. Nothing changes the
/// configuration after that, so all methods are thread-safe.
class KLVConfigManager {
 public:
  /// Loads the configuration and passes its "enable" to `delegate` (false if it is missing or not a bool). `delegate`
  /// must outlive the manager.
  explicit KLVConfigManager(KLVConfigManagerDelegate& delegate);

  /// Returns the configuration of this run, nullopt if even the default could not be parsed.
  [[nodiscard]] const std::optional<Dictionary>& configDetails() const noexcept { return configDetails_; }

  /// Returns true if `configDetails` comes from a saved file and is valid. Otherwise the saved hash does not count, and
  /// the configuration is to be downloaded again.
  [[nodiscard]] bool hasSavedConfiguration() const noexcept { return hasSavedConfiguration_; }

  /// Downloads the configuration and saves it for the next start. Returns at once. `completion` is called on the HTTP
  /// callback queue, but only after a successful save; a failure is logged.
  void getAndSaveLatestConfigurationWithCompletionHandler(std::function<void()> completion);

  /// Returns the built-in configuration for `applicationIdentifier` as JSON text, with a comma after its last path.
  static std::string defaultConfig(const std::string& applicationIdentifier);
  /// Returns the built-in configuration, nullopt (and an error line) if the application id makes it invalid JSON.
  [[nodiscard]] std::optional<Dictionary> getDefaultConfiguration() const;
  /// Returns true if "service_paths" and "enable" are present and not null. Their types do not matter.
  static bool isValidSDKConfiguration(const Value& configuration);

 private:
  KLVConfigManagerDelegate& delegate_;
  std::optional<Dictionary> configDetails_;
  bool hasSavedConfiguration_ = false;
};

}  // namespace kelvo

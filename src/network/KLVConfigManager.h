#pragma once

#include <functional>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "network/KLVHTTPSession.h"

namespace kelvo {

/// What the configuration manager asks of the controller.
class KLVConfigManagerDelegate {
 public:
  virtual std::string applicationIdentifier() = 0;
  virtual void setAndSaveEnableSDKState(bool enabled) = 0;
  virtual void getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) = 0;

 protected:
  ~KLVConfigManagerDelegate() = default;  // never deleted through this type
};

/// The remote configuration: loaded once when the manager is made, from the file that an earlier run saved or else
/// from the built-in default. A configuration downloaded during a run takes effect at the next start.
class KLVConfigManager {
 public:
  /// Loads the configuration in force and reports its "enable" to the delegate, which must outlive the manager.
  explicit KLVConfigManager(KLVConfigManagerDelegate& delegate);

  /// nullopt when even the default could not be parsed. Safe from any thread.
  [[nodiscard]] const std::optional<Dictionary>& configDetails() const noexcept { return configDetails_; }

  /// Downloads the configuration and saves it; `completion` is called on the HTTP callback queue, only after a
  /// successful save.
  void getAndSaveLatestConfigurationWithCompletionHandler(std::function<void()> completion);

  /// The built-in configuration of `applicationIdentifier` as JSON text, with a comma after its last path.
  static std::string defaultConfig(const std::string& applicationIdentifier);
  [[nodiscard]] std::optional<Dictionary> getDefaultConfiguration() const;
  /// True with a "service_paths" and an "enable" that are not null, whatever their types.
  static bool isValidSDKConfiguration(const Value& configuration);

 private:
  KLVConfigManagerDelegate& delegate_;
  std::optional<Dictionary> configDetails_;
};

}  // namespace kelvo

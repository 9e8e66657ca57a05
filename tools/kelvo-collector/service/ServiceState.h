#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo::collector {

/// What the service has to say: the switch, the configuration, the client-event lists and the actions. Every hash is
/// derived from the content that it stands for, so it changes exactly when the content does.
///
/// Safe to use from any thread; a change shows in the next answer.
class ServiceState {
 public:
  /// One campaign's configuration at one revision. Neither `pid` nor `mid` may contain "_" or ",".
  struct Action {
    std::string pid;
    std::string mid;
    Dictionary config;  ///< "_id" and "pid" are added when they are missing
  };

  /// Enabled, a complete configuration that cuts a chunk every 30 seconds, no client events, no actions.
  ServiceState();

  void setEnabled(bool enabled);
  /// The configuration object itself; the text "<app-id>" in a text of "service_paths" stands for the asking
  /// application.
  void setConfiguration(Dictionary configuration);
  /// One member of the configuration, the others as they are.
  void setConfigurationValue(const std::string& key, Value value);
  /// Names of host events: kept as client events, only counted, ignored.
  void setClientEvents(Array client, Array aggregate, Array ignored);
  /// The actions of "rta" or "survey", in place of the earlier ones.
  void setActions(const std::string& type, std::vector<Action> actions);

  /// The configuration as it was set.
  [[nodiscard]] Dictionary configuration() const;
  /// The actions of "rta" or "survey", each with "pid", "mid" and "config".
  [[nodiscard]] Array actions(const std::string& type) const;

  // The answers, as the library reads them.
  [[nodiscard]] Dictionary enabledStatus() const;
  [[nodiscard]] Dictionary configurationReply(const std::string& applicationId) const;
  [[nodiscard]] Dictionary clientEventsValidation() const;
  [[nodiscard]] Dictionary clientEventsReply() const;
  /// Any type but "rta" means the survey actions.
  [[nodiscard]] Dictionary actionsValidation(const std::string& type) const;
  /// The actions of the given PIDs only; all when none is given.
  [[nodiscard]] Dictionary actionsReply(const std::string& type, const std::vector<std::string>& pids) const;

 private:
  [[nodiscard]] const std::vector<Action>& actionsOf(const std::string& type) const;

  mutable std::mutex mutex_;
  bool enabled_ = true;
  Dictionary configuration_;
  Dictionary clientEvents_;
  std::map<std::string, std::vector<Action>> actions_;
};

}  // namespace kelvo::collector

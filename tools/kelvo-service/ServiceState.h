#pragma once

#include <map>
#include <string>
#include <vector>

#include "kelvo/Value.h"
#include "platform/ThreadSafety.h"

namespace kelvo::service {

/// The content that the service serves: the enable switch, the configuration, the client-event lists and the actions.
///
/// Each hash is computed from its content, so it changes exactly when the content does. A change shows in the next
/// answer. Thread-safe.
class ServiceState {
 public:
  /// One revision (`mid`) of one campaign (`pid`). Neither id may contain "_" or ",".
  struct Action {
    std::string pid;
    std::string mid;
    Dictionary config;  ///< `setActions` adds "_id" and "pid" if they are missing
  };

  /// Starts enabled, with a complete configuration (a chunk every 30 seconds), no client events and no actions.
  ServiceState();

  void setEnabled(bool enabled) EXCLUDES(mutex_);
  /// Replaces the whole configuration. In a path of "service_paths", the text "<app-id>" is replaced by the
  /// id of the requesting application.
  void setConfiguration(Dictionary configuration) EXCLUDES(mutex_);
  /// Sets one key of the configuration.
  void setConfigurationValue(const std::string& key, Value value) EXCLUDES(mutex_);
  /// Sets the lists of event names: `client` events are counted and delivered to plug-ins but not stored, `aggregate`
  /// events are only counted, `ignored` events are dropped.
  void setClientEvents(Array client, Array aggregate, Array ignored) EXCLUDES(mutex_);
  /// Replaces all actions of `type`, "rta" or "survey".
  void setActions(const std::string& type, std::vector<Action> actions) EXCLUDES(mutex_);

  /// Returns the configuration as it was set.
  [[nodiscard]] Dictionary configuration() const EXCLUDES(mutex_);
  /// Returns the actions of `type`, "rta" or "survey", each with "pid", "mid" and "config".
  [[nodiscard]] Array actions(const std::string& type) const EXCLUDES(mutex_);

  // The answers in the form that the library reads.
  [[nodiscard]] Dictionary enabledStatus() const EXCLUDES(mutex_);
  [[nodiscard]] Dictionary configurationReply(const std::string& applicationId) const EXCLUDES(mutex_);
  [[nodiscard]] Dictionary clientEventsValidation() const EXCLUDES(mutex_);
  [[nodiscard]] Dictionary clientEventsReply() const EXCLUDES(mutex_);
  /// Any `type` other than "rta" means the survey actions, here and in `actionsReply`.
  [[nodiscard]] Dictionary actionsValidation(const std::string& type) const EXCLUDES(mutex_);
  /// Returns the actions of `pids`, or all actions if `pids` is empty.
  [[nodiscard]] Dictionary actionsReply(const std::string& type, const std::vector<std::string>& pids) const
      EXCLUDES(mutex_);

 private:
  [[nodiscard]] const std::vector<Action>& actionsOf(const std::string& type) const REQUIRES(mutex_);

  mutable Mutex mutex_;
  bool enabled_ GUARDED_BY(mutex_) = true;
  Dictionary configuration_ GUARDED_BY(mutex_);
  Dictionary clientEvents_ GUARDED_BY(mutex_);
  std::map<std::string, std::vector<Action>> actions_ GUARDED_BY(mutex_);  // has a key for each of the two types
};

}  // namespace kelvo::service

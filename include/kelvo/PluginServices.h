#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvo/Event.h"
#include "kelvo/Export.h"
#include "kelvo/Nilable.h"
#include "kelvo/Value.h"
#include "kelvo/ViewTree.h"

namespace kelvo {

class EventListener;

/// The outcome of a plug-in's HTTP request.
struct HTTPAnswer {
  int status = 0;     ///< the status code, 0 if no response arrived
  std::string body;   ///< the response's bytes, often empty
  std::string error;  ///< the reason why no response arrived, otherwise empty
};
using HTTPCallback = std::function<void(const HTTPAnswer&)>;

/// The library's functions for plug-ins. All are thread-safe, and none throws. An exception from a block, completion or
/// listener is logged. While collection is disabled, functions that change, dispatch or send something do nothing but
/// log one ERROR line. Functions that read data return nothing.
class KELVO_EXPORT PluginServices {
 public:
  /// Downloads the changes of the configuration of `type` ("rta" for real-time actions, any other text for surveys) and
  /// saves them. `version` is the plug-in's own version. Calls `completion` once on the HTTP callback queue, after a
  /// failure, too: the plug-in then starts from the saved configuration. Never calls it if the service's answer has no
  /// hash or no campaigns.
  static void getSyncDataForActionType(const std::string& type, const std::string& version,
                                       std::function<void()> completion) noexcept;
  /// Returns the saved configuration of `type`: a map from each action's "_id" to the action, whose "pid" is its
  /// campaign. Empty if nothing is saved. Blocks: reads a file.
  [[nodiscard]] static Dictionary getConfigForActionType(const std::string& type) noexcept;
  /// Returns the record of the saved configuration, a map from each campaign (PID) to its revision (MID); nullopt if
  /// nothing is saved. Blocks: reads a file.
  [[nodiscard]] static std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) noexcept;
  /// Replaces that record. A nil or empty dictionary is refused with one ERROR line.
  static void persistPIDMIDDict(OptionalDictionary record, const std::string& type) noexcept;

  /// Registers `listener` for every later event of `type`, or for the event of `key` (an `identifierKey`). A repeated
  /// registration has no effect. nullptr is ignored.
  static void registerForEventWithType(KLVEventType type, const std::shared_ptr<EventListener>& listener) noexcept;
  static void registerIdentifer(const std::string& key, const std::shared_ptr<EventListener>& listener) noexcept;
  /// Removes `listener`: it receives no later events. An event that is already being delivered may still arrive. Kept:
  /// the first function has no effect on a listener that is not also registered by a key equal to the type's name.
  static void deregisterForEventWithType(KLVEventType type, const std::shared_ptr<EventListener>& listener) noexcept;
  static void deRegisterIdentifer(const std::string& key, const std::shared_ptr<EventListener>& listener) noexcept;

  /// Dispatches an event of the plug-in to the listeners. `type` is one of those that the library itself never makes:
  ///
  /// | Type                                                                 | Stored | Sent to the service |
  /// |----------------------------------------------------------------------|--------|---------------------|
  /// | `userInteraction`                                                    | yes    | in "user_events"    |
  /// | `applicationCrash`                                                   | yes    | in "incidents"      |
  /// | `push`, `screenshot`, `walkthrough`, `inlineText`, `inlineCoachmark` | yes    | no                  |
  /// | `inApp`, `inlineView`, `nudge`, `survey`                             | no     | no                  |
  ///
  /// No lifetime count grows. The service's lists apply to the name as usual: they may turn the event into a client
  /// event or an aggregate, which is counted, or drop it. `name` is the type's name if it is nil or empty; a crash has
  /// a random UUID as its name, and `name` as its attribute "error_message". Attributes lose nulls and empty values;
  /// they are not flattened. An event of another type is refused with one ERROR line: log it through `KelvoSDK`.
  /// Returns at once; the bus delivers the event later, also to a listener that dispatches it.
  static void dispatchEvent(KLVEventType type, OptionalText name, OptionalDictionary attributes = {}) noexcept;

  /// Saves `info` under `identifier` for this launch and later ones, for example how often an action was shown. A nil
  /// or empty dictionary or identifier is ignored.
  static void saveFrequencyInfo(OptionalDictionary info, OptionalText identifier) noexcept;
  /// Returns the saved info, nullopt if there is none. Blocks: reads a file, after all earlier saves.
  [[nodiscard]] static std::optional<Dictionary> retrieveFrequencyConfigWithIdentifier(
      OptionalText identifier) noexcept;

  /// Returns how often application and client events of these names were stored since installation, as a map from name
  /// to count; nullopt if `names` is empty. The count may lack events that still wait to be stored. Kept: 0 for a name
  /// with a single quote. Blocks: reads the database.
  [[nodiscard]] static std::optional<Dictionary> getLifetimeCountForEvents(
      const std::vector<std::string>& names) noexcept;
  /// Returns the count of one name, with the same limits.
  [[nodiscard]] static std::int64_t getLifetimeCountForEventWithName(const std::string& name) noexcept;
  /// Returns the id of the current session: its launch time in milliseconds since 1970, "-" and the device id. nullopt
  /// before the start-up has begun a session.
  [[nodiscard]] static std::optional<std::string> getSessionId() noexcept;

  /// Returns how many sessions this device has begun since installation, the current one included.
  [[nodiscard]] static std::int64_t getLifetimeSessionCount() noexcept;
  /// Returns the retention day: 0 in the first 24 hours after installation. Kept: each later launch adds the whole days
  /// since installation to it.
  [[nodiscard]] static std::int64_t getRetentionDay() noexcept;

  // Requests with JSON bodies, under the rules of the library's own requests: the same endpoint, authorities, proxies
  // and limits; cleartext to loopback addresses only. `path` is appended to the endpoint. A nil path or body is refused
  // with one WARN line; so is a path that gives no URL. `completion` is called once on the HTTP callback queue, or
  // never if the request is refused or the process ends. `headers` maps names to texts.

  /// `path` is the whole URL if it contains "https:".
  static void getDataFromURLPath(OptionalText path, HTTPCallback completion) noexcept;
  /// As above for `path`. `body` is sent as a JSON object; an empty `Dictionary()` is not nil.
  static void postDataToURL(OptionalText path, OptionalDictionary body, OptionalDictionary headers,
                            HTTPCallback completion) noexcept;
  /// Kept: appends even a whole URL to the endpoint.
  static void makeDeleteRequestToURLPath(OptionalText path, OptionalDictionary headers,
                                         HTTPCallback completion) noexcept;

  /// Calls `closure` on the main queue every `seconds`, until the process ends. It cannot be cancelled. Does nothing if
  /// `seconds` is not above 0.
  static void registerForTimerNotificationWithInterval(double seconds, std::function<void()> closure) noexcept;
  /// Calls `block` once, after `seconds`, on the controller's serial queue. It must not block: host calls do their work
  /// there. A delay that is negative or not a number counts as 0, and one above 1e9 seconds as 1e9. An empty block is
  /// ignored.
  static void executeAfterDelay(double seconds, std::function<void()> block) noexcept;

  /// Returns true while an action is being shown, if plug-ins say so. The library only stores the flag, for plug-ins
  /// that must not show actions at the same time.
  [[nodiscard]] static bool actionInProgress() noexcept;
  static void setActionInProgress(bool inProgress) noexcept;

  /// Returns the view of the key window that `identifier` names, nullptr if there is none. `searchType` is "i" (by
  /// native id or tag), "t" (by tag) or "p" (by path); any other text means by tag, then by path. Must be called on the
  /// main queue, where timers and the tasks of the host's loop run. On another thread it logs one ERROR line and
  /// returns nullptr.
  [[nodiscard]] static std::shared_ptr<View> getViewWithIdentifier(OptionalText identifier,
                                                                   const std::string& searchType) noexcept;
};

}  // namespace kelvo

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

/// Plug-ins, and the functions that the library offers to them. A host switches a plug-in on by its class name, with
/// the value true, in the "Kelvo" dictionary of its `Info.plist`:
///
///     class Greeter final : public kelvo::Plugin {
///       void initialize(const kelvo::Dictionary&) override {
///         const auto key = kelvo::identifierKey(kelvo::KLVEventType::app, "Purchase");
///         kelvo::PluginServices::registerIdentifer(key, shared_from_this());
///       }
///       void onEvent(const kelvo::Event& event) override { ... }
///     };
///     KELVO_PLUGIN(Greeter);
///
/// The class is linked into the application, or into a shared object `libkelvo-<Name>.so` in the application's bundle.
/// The library loads the shared object if no class of that name is linked in. Such an object must link the shared
/// library, and only hosts of the shared library load it.
namespace kelvo {

/// Receives events from the bus. The bus shares the ownership of a listener while it is registered.
class KELVO_EXPORT EventListener {
 public:
  EventListener();
  virtual ~EventListener();
  EventListener(const EventListener&) = delete;
  EventListener& operator=(const EventListener&) = delete;

  /// Called on the bus's serial queue, for one event and one listener at a time. A listener that blocks delays every
  /// later event, but no host call. An exception is logged, and the next listener is called. Events may still arrive
  /// during exit, after the application's static objects are destroyed.
  virtual void onEvent(const Event& event) = 0;

 private:
  friend class PluginServices;
  class Adapter;
  static std::shared_ptr<Adapter> adapterOf(const std::shared_ptr<EventListener>& listener);
  const std::unique_ptr<Adapter> adapter_;
};

/// The base of all plug-ins. The library makes each plug-in once, after the start-up has begun a session, and never
/// destroys it. If the constructor or `initialize` throws, the library drops the plug-in with one ERROR line; listeners
/// that it has registered stay registered.
class KELVO_EXPORT Plugin : public EventListener, public std::enable_shared_from_this<Plugin> {
 public:
  Plugin() = default;
  ~Plugin() override;

  /// Called once, on the HTTP callback queue (on a pool thread if the class was registered late). The start-up waits
  /// for it. `configuration` is the remote configuration in force. `shared_from_this()` may be registered as a listener
  /// from now on.
  virtual void initialize(const Dictionary& configuration) = 0;
  void onEvent(const Event&) override {}

  /// Registers a class under its name; `KELVO_PLUGIN` calls it. Later classes of the same name are ignored.
  /// Thread-safe. Returns true, always.
  static bool registerClass(const char* name, std::shared_ptr<Plugin> (*make)()) noexcept;
};

/// The library's functions for plug-ins. All are thread-safe, and none throws. An exception from a block, completion or
/// listener is logged. While collection is disabled, `getSyncDataForActionType`, `persistPIDMIDDict` and
/// `saveFrequencyInfo` do nothing but log one ERROR line. Other functions then return no data.
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

  /// Saves `info` under `identifier` for this launch and later ones, for example how often an action was shown. A nil
  /// or empty dictionary or identifier is ignored. Blocks: reads a file.
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

/// Registers the plug-in `Class` under its name without the namespace. Use it once, in a source file, in the namespace
/// of the class. In a static library, the host must also use another symbol of that source, or the linker drops it.
#define KELVO_PLUGIN(Class)                                                               \
  [[maybe_unused]] static const bool kelvoPlugin##Class = ::kelvo::Plugin::registerClass( \
      #Class, []() -> std::shared_ptr<::kelvo::Plugin> { return std::make_shared<Class>(); })

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

/// What a plug-in is, and what it may ask of the library. A host switches a plug-in on by its class name, with the
/// value true, in the "Kelvo" dictionary of its `Info.plist`:
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
/// The class is linked into the application, or lies in a shared object `libkelvo-<Name>.so` in the application's
/// bundle, which is loaded when no class of that name is linked in. Such an object links the shared library, and only
/// hosts of the shared library load it.
namespace kelvo {

/// Whoever wants events. The bus holds a listener for as long as it is registered.
class KELVO_EXPORT EventListener {
 public:
  EventListener();
  virtual ~EventListener();
  EventListener(const EventListener&) = delete;
  EventListener& operator=(const EventListener&) = delete;

  /// Called on the bus's serial queue, one event at a time over all listeners: one that blocks holds up every later
  /// event of the application (no call of the host, though). What it throws is logged, and the next listener is called.
  /// Events may still come while the process exits, after the application's static objects are gone.
  virtual void onEvent(const Event& event) = 0;

 private:
  friend class PluginServices;
  class Adapter;
  static std::shared_ptr<Adapter> adapterOf(const std::shared_ptr<EventListener>& listener);
  const std::unique_ptr<Adapter> adapter_;
};

/// Base of all plug-ins: made once, when the start-up has begun a session, and kept for the life of the process. A
/// plug-in whose constructor or `initialize` throws is dropped with one ERROR line; what it had registered until then
/// stays registered.
class KELVO_EXPORT Plugin : public EventListener, public std::enable_shared_from_this<Plugin> {
 public:
  Plugin() = default;
  ~Plugin() override;

  /// `configuration` is the remote configuration in force. The start-up waits for this call, which comes on the HTTP
  /// callback queue. From here on `shared_from_this()` may be registered as a listener.
  virtual void initialize(const Dictionary& configuration) = 0;
  void onEvent(const Event&) override {}

  /// What `KELVO_PLUGIN` calls. The first class under a name stays.
  static bool registerClass(const char* name, std::shared_ptr<Plugin> (*make)()) noexcept;
};

/// What a plug-in may ask: the controller's operations under their own names. Safe from any thread; none throws. What
/// a block, completion or listener throws is logged and goes no further. Once collection is disabled, calls that would
/// change or send something give one ERROR line, and the others give nothing.
class KELVO_EXPORT PluginServices {
 public:
  /// Brings the saved configuration of `type` ("rta"; anything else means the surveys) in step with the service, at
  /// `version` of the plug-in's own. `completion` means: boot from the saved configuration now. It comes once, on the
  /// HTTP callback queue, also when the service could not be reached; it never comes when the service's answer names no
  /// hash or no campaigns.
  static void getSyncDataForActionType(const std::string& type, const std::string& version,
                                       std::function<void()> completion) noexcept;
  /// The saved configuration of `type`: each action's "_id" to the action, which names its campaign as "pid". Empty
  /// when there is none. Reads a file.
  [[nodiscard]] static Dictionary getConfigForActionType(const std::string& type) noexcept;
  /// Which revision (MID) of which campaign (PID) the saved configuration holds; nullopt when nothing is kept. Reads a
  /// file.
  [[nodiscard]] static std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) noexcept;
  /// Replaces that record; a missing or empty dictionary is refused with an ERROR line.
  static void persistPIDMIDDict(OptionalDictionary record, const std::string& type) noexcept;

  /// `listener` gets every event of `type`, or the one event of `key` (an `identifierKey`), from now on; once each,
  /// however often it is registered so. A null listener is ignored.
  static void registerForEventWithType(KLVEventType type, const std::shared_ptr<EventListener>& listener) noexcept;
  static void registerIdentifer(const std::string& key, const std::shared_ptr<EventListener>& listener) noexcept;
  /// No event that happens later reaches `listener`; one that is on its way still may. Kept: the first has no effect on
  /// a listener that is not also registered by the key that is the type's name.
  static void deregisterForEventWithType(KLVEventType type, const std::shared_ptr<EventListener>& listener) noexcept;
  static void deRegisterIdentifer(const std::string& key, const std::shared_ptr<EventListener>& listener) noexcept;

  /// Keeps `info` under `identifier`, for this launch and later ones: how often something was shown, and when. A
  /// missing or empty dictionary or identifier is ignored.
  static void saveFrequencyInfo(OptionalDictionary info, OptionalText identifier) noexcept;
  /// nullopt when nothing is kept. Reads a file, behind all that was saved before.
  [[nodiscard]] static std::optional<Dictionary> retrieveFrequencyConfigWithIdentifier(
      OptionalText identifier) noexcept;

  /// How often application and client events of these names were logged since installation; nullopt for no names. One
  /// that is being stored at this moment may be missing. Reads the database.
  [[nodiscard]] static std::optional<Dictionary> getLifetimeCountForEvents(
      const std::vector<std::string>& names) noexcept;
  [[nodiscard]] static std::int64_t getLifetimeCountForEventWithName(const std::string& name) noexcept;
  /// The id of the current session: its launch in milliseconds since 1970, "-" and the device id.
  [[nodiscard]] static std::optional<std::string> getSessionId() noexcept;

  /// Calls `closure` on the main loop every `seconds` for the life of the process; there is no way to cancel it. An
  /// interval that is not above 0 schedules nothing.
  static void registerForTimerNotificationWithInterval(double seconds, std::function<void()> closure) noexcept;
  /// Runs `block` once on the controller's serial queue, where host calls do their work: it must not block. A negative
  /// delay counts as 0.
  static void executeAfterDelay(double seconds, std::function<void()> block) noexcept;

  /// Whether an action is being shown. The library only keeps the flag, so that plug-ins spare each other.
  [[nodiscard]] static bool actionInProgress() noexcept;
  static void setActionInProgress(bool inProgress) noexcept;

  /// The view of the key window that an action points at; nullptr when there is none. `searchType`: "i" by native id
  /// or tag, "t" by tag, "p" by path; any other by tag first, then by path. On the main queue only (a timer's closure
  /// runs there, and every task of the host's loop); elsewhere it gives nullptr and one ERROR line.
  [[nodiscard]] static std::shared_ptr<View> getViewWithIdentifier(OptionalText identifier,
                                                                   const std::string& searchType) noexcept;
};

}  // namespace kelvo

/// Registers the plug-in `Class` under its name, without its namespace; stands once, in a source, in the namespace of
/// the class. In a static library of the host's own, something else of that source must be used, too, or the linker
/// leaves it out.
#define KELVO_PLUGIN(Class)                                                               \
  [[maybe_unused]] static const bool kelvoPlugin##Class = ::kelvo::Plugin::registerClass( \
      #Class, []() -> std::shared_ptr<::kelvo::Plugin> { return std::make_shared<Class>(); })

#pragma once

#include <exception>
#include <optional>
#include <string>

#include "kelvo/Application.h"
#include "kelvo/Export.h"
#include "kelvo/Nilable.h"
#include "kelvo/Value.h"

namespace kelvo {

/// Client-side analytics for the process that links it. Everything a host calls is here and in `Application`.
///
///     kelvo::KelvoSDK::initializeKelvoWithID("my-app");
///     kelvo::KelvoSDK::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
///
/// Every operation may be called from any thread at any time (before the start, after the service has disabled
/// collection, during exit), returns at once without waiting for a disk, the network or a lock held across
/// either, and never throws. Arguments are taken over as they are at the call. Wrong or missing arguments, and
/// calls while collection is disabled, give one log line and have no other effect.
///
/// What is logged before the start-up has reached the database is kept in memory and stored then.
class KELVO_EXPORT KelvoSDK {
 public:
  /// Starts the library for the application `appId`. Only the first call with a valid (non-empty) id in a process
  /// counts, and none is needed when the bundle's `Info.plist` names an id under "Kelvo" / "Core": then the library
  /// has started when it was loaded.
  static void initializeKelvoWithID(OptionalText appId) noexcept;

  /// The host's own id of its user; kept with the user's attributes. Refused until the start-up has ended.
  static void setUserIdentifier(OptionalText identifier) noexcept;

  /// The user sees the screen `title` now, a named screen inside the one that `Application::didShow` reported last. It
  /// is recorded with the time spent on it when the next screen appears, or when the application leaves the foreground.
  static void logScreenWithName(OptionalText title) noexcept;

  /// Adds or replaces attributes of the user (kept for later launches) or of the session.
  static void setUserCustomInfo(OptionalDictionary info) noexcept;
  static void setSessionCustomInfo(OptionalDictionary info) noexcept;

  /// An error that the host noticed, with its description (`what()`) and attributes. It is sent as an incident.
  static void reportCustomError(OptionalText error, OptionalDictionary info = {}) noexcept;
  static void reportCustomError(const std::exception& error, OptionalDictionary info = {}) noexcept;

  /// An event for plug-ins on this device: counted, but neither stored nor sent.
  /// Nested dictionaries become JSON text under their key; with `shouldFlatten`, one more level becomes keys of its
  /// own, joined by "_".
  static void logClientEventWithName(OptionalText name, OptionalDictionary info = {}) noexcept;
  static void logClientEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten) noexcept;

  /// An event of the application with its attributes. An aggregate event is not stored itself: the session counts
  /// how often its name and each value of each attribute occurred.
  static void logAppEventWithName(OptionalText name, OptionalDictionary info = {}) noexcept;
  static void logAppEventWithName(OptionalText name, OptionalDictionary info, bool isAggregate) noexcept;
  static void logAppEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten,
                                  bool isAggregate) noexcept;

  /// The id of this device, a UUID made at the first start and kept; nullopt until the start-up has made or read it,
  /// and in a forked child.
  [[nodiscard]] static std::optional<std::string> getDeviceID() noexcept;
};

}  // namespace kelvo

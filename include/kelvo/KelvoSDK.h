#pragma once

#include <exception>
#include <optional>
#include <string>

#include "kelvo/Application.h"
#include "kelvo/Export.h"
#include "kelvo/Nilable.h"
#include "kelvo/Value.h"

namespace kelvo {

/// Client-side analytics for the process that links it. A host calls this class and `Application` only.
///
///     kelvo::KelvoSDK::initializeKelvoWithID("my-app");
///     kelvo::KelvoSDK::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
///
/// Every function is thread-safe and may be called at any time: before the start, after the service has disabled
/// collection, during exit. It returns at once: it never blocks on a disk, on the network, or on a lock that is held
/// across either. It never throws, and in a forked child it does nothing.
///
/// Arguments are copied; `Value` documents how unsuitable values are repaired. Attributes lose nulls, dates, bytes, and
/// empty texts and dictionaries. A call costs a WARN or ERROR line and has no other effect if a required argument is
/// nil, if an attribute is an empty array, or while collection is disabled.
///
/// Calls before the database is ready are kept in memory and stored once it is. Normal exit and
/// `Application::willResignActive` save the events among them to a file for the next launch.
class KELVO_EXPORT KelvoSDK {
 public:
  /// Starts the library for the application `appId`. Only the first call with an id that is not empty counts. A host
  /// whose bundle's `Info.plist` names an id under "Kelvo" / "Core" needs no call: the library starts when it is
  /// loaded.
  static void initializeKelvoWithID(OptionalText appId) noexcept;

  /// Sets the host's own id of its user as an attribute of the user. nil is refused with an ERROR line. So is a call
  /// before the end of the start-up, unless the delivery rules are `complete`.
  static void setUserIdentifier(OptionalText identifier) noexcept;

  /// Reports that the user now sees the screen `title`, a named screen inside the one that `Application::didShow`
  /// reported last. The library records the screen and the time spent on it, in whole seconds, when the next screen
  /// appears or the application leaves the foreground.
  static void logScreenWithName(OptionalText title) noexcept;

  /// Adds attributes to the user (kept for later launches) or to the current session, or replaces those of the same
  /// name.
  static void setUserCustomInfo(OptionalDictionary info) noexcept;
  static void setSessionCustomInfo(OptionalDictionary info) noexcept;

  /// Reports an error in the host, with its description (`what()` of an exception) and optional attributes. It is
  /// stored and sent as an incident.
  static void reportCustomError(OptionalText error, OptionalDictionary info = {}) noexcept;
  static void reportCustomError(const std::exception& error, OptionalDictionary info = {}) noexcept;

  /// Logs an event for the plug-ins on this device: it is counted, but neither stored nor sent.
  /// A nested dictionary becomes JSON text under its key. With `shouldFlatten`, one more level becomes keys of its own,
  /// joined by "_".
  static void logClientEventWithName(OptionalText name, OptionalDictionary info = {}) noexcept;
  static void logClientEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten) noexcept;

  /// Logs an event of the application with its attributes, which are flattened like those of a client event. An
  /// aggregate event is not stored: the session counts its name, and each value of each of its attributes.
  static void logAppEventWithName(OptionalText name, OptionalDictionary info = {}) noexcept;
  static void logAppEventWithName(OptionalText name, OptionalDictionary info, bool isAggregate) noexcept;
  static void logAppEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten,
                                  bool isAggregate) noexcept;

  /// Returns the id of this device, a UUID. The first launch makes it; later launches read it. Returns nullopt until
  /// the start-up has it, and in a forked child.
  [[nodiscard]] static std::optional<std::string> getDeviceID() noexcept;
};

}  // namespace kelvo

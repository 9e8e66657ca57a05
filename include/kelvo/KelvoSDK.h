#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "kelvo/Application.h"
#include "kelvo/Consent.h"
#include "kelvo/EventOptions.h"
#include "kelvo/Export.h"
#include "kelvo/Flush.h"
#include "kelvo/Ledger.h"
#include "kelvo/Nilable.h"
#include "kelvo/Options.h"
#include "kelvo/Value.h"

namespace kelvo {

/// Client-side analytics for the process that links it. A host calls this class and `Application` only.
///
///     kelvo::KelvoSDK::start(kelvo::Options("my-app"));
///     kelvo::KelvoSDK::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
///
/// Every function is thread-safe and may be called at any time: before the start, after the service has disabled
/// collection, during exit. It returns at once: except for `flushAndWait`, it never blocks on a disk, on the network,
/// or on a lock that is held across either. It never throws, and in a forked child it does nothing.
///
/// Arguments are copied; `Value` documents how unsuitable values are repaired. Attributes lose nulls, dates, bytes, and
/// empty texts and dictionaries. A call costs a WARN or ERROR line and has no other effect if a required argument is
/// nil, if an attribute is an empty array, or while collection is disabled.
///
/// Calls before the database is ready are kept in memory and stored once it is. Normal exit and
/// `Application::willResignActive` save the events among them to a file for the next launch.
///
/// With `Options::consentRequired`, the library does nothing before the user has granted consent: it creates no file,
/// no thread and no socket. It holds calls in memory, and its log lines, too; a process that ends first drops the
/// calls.
class KELVO_EXPORT KelvoSDK {
 public:
  /// Starts the library with `options`. Only the first start of a process with an id that is not empty counts. A later
  /// one is ignored with one INFO line, also after the bundle has started the library.
  ///
  /// Reads one small file of the home, with the user's decision about consent, before it returns.
  ///
  /// The defaults suit a new host: every event is delivered once, only errors are logged, nothing is printed.
  static void start(Options options) noexcept;

  /// Starts the library under the classic rules, with the settings of the bundle: all INFO lines are logged, and the
  /// process prints one line when it ends. A host whose bundle's `Info.plist` names an id under "Kelvo" / "Core" needs
  /// no call: the library starts when it is loaded. Only the first start of a process counts (see `start`).
  static void initializeKelvoWithID(OptionalText appId) noexcept;

  /// What the library does at present.
  enum class State {
    running,            ///< it collects
    waitingForConsent,  ///< it holds calls in memory until the user decides; it touches nothing
    consentDenied,      ///< the user has denied consent: nothing is collected
    disabledByService,  ///< the service, or its last known answer, has switched collection off
    switchedOffHere,    ///< the user or administrator of this machine has switched Kelvo off; it touches nothing
    homeInUse,          ///< another process uses the home; `reason` says whether events wait for the next launch
    failed,             ///< no valid application id, no usable home, or no database: nothing can be stored
  };
  struct Status {
    State state;
    std::string reason;  ///< one sentence for people, without a full stop; never empty
  };

  /// Calls `callback` with the present status as soon as it is known, and again with each new one. Any number of
  /// callbacks may be added; none is ever removed. They run one at a time on a library queue; while the library waits
  /// for consent, it has no thread, and they run inside `start` or this function. An exception from one is logged. An
  /// empty `callback` is ignored. A forked child and an exiting process get no calls.
  static void onReady(std::function<void(const Status&)> callback) noexcept;

  /// Applies the user's decision about the collection of data, and remembers it in the home for later launches. Before
  /// the start, the decision is kept in memory, and the start applies it. `undecided` is ignored with one WARN line.
  ///
  /// `granted`: if consent was required, the start-up runs now, and the held calls are played in their order, with the
  /// times at which they were made. After a denial, collection begins as a new device.
  ///
  /// `denied`: nothing is collected any more. Held calls are dropped. Everything that the library has stored on this
  /// device is erased. If anything was ever sent, the service is asked to erase it, too, until it confirms.
  ///
  /// A host that does not require consent may call this at any time, too; a denial in its home counts for it as well.
  /// Where Kelvo is switched off, a grant is not stored, and a denial only if the home exists.
  static void setConsent(Consent consent) noexcept;

  /// Returns the latest decision: of `setConsent`, or the one that the start has found in the home. Without one,
  /// returns `granted` after a start that does not require consent, else `undecided`. In a forked child, `undecided`.
  [[nodiscard]] static Consent consent() noexcept;

  /// Returns every kind of data that this build may collect, for a page that informs the user. The keys are names of
  /// the kinds, such as "device_info.hardware_model". Each value is a dictionary of texts in English: "what" it is, its
  /// "purpose", "stored" (where on this device) and "kept" (for how long, on this device). The same on every call;
  /// empty in a forked child.
  [[nodiscard]] static Dictionary describeData() noexcept;

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
  static void logClientEventWithName(OptionalText name, OptionalDictionary info, EventOptions options) noexcept;
  static void logClientEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten) noexcept;

  /// Logs an event of the application with its attributes, which are flattened like those of a client event. An
  /// aggregate event is not stored: the session counts its name, and each value of each of its attributes.
  static void logAppEventWithName(OptionalText name, OptionalDictionary info = {}) noexcept;
  static void logAppEventWithName(OptionalText name, OptionalDictionary info, EventOptions options) noexcept;
  static void logAggregateEvent(OptionalText name, OptionalDictionary info = {}, EventOptions options = {}) noexcept;
  /// The same with bare flags, which are easily mixed up: prefer the functions above.
  static void logAppEventWithName(OptionalText name, OptionalDictionary info, bool isAggregate) noexcept;
  static void logAppEventWithName(OptionalText name, OptionalDictionary info, bool shouldFlatten,
                                  bool isAggregate) noexcept;

  /// Returns the id of this device, a UUID. The first launch makes it; later launches read it. Returns nullopt until
  /// the start-up has it, and in a forked child.
  [[nodiscard]] static std::optional<std::string> getDeviceID() noexcept;

  /// Erases everything that the library has stored on this device: events, counts, records, configuration, identifiers.
  /// Earlier calls that are not sent yet are dropped. If anything was ever sent, the service is asked to erase it, too,
  /// until it confirms. Then collection continues as a new device, with later calls. Does not change the consent. If a
  /// file cannot be deleted, nothing more is collected before a launch that can. Returns at once.
  static void erase() noexcept;

  /// Returns what became of the events of this process, and of all since the installation or the last erasure. The
  /// latter are those of this process alone until the database is open, and in a process that leaves the home to
  /// another one. Reads memory only, and may be called often. In a forked child, every count is 0.
  [[nodiscard]] static Ledger ledger() noexcept;

  /// Cuts all events of earlier calls into chunks now and posts everything that waits. Calls `callback` once, on a
  /// library queue (before the start and while consent is undecided: on the caller's or the start's thread), as soon as
  /// the service has accepted all of it, nothing more can follow, or `deadline` has passed. A start-up that is under
  /// way is waited for, within the deadline; the cut follows it in any case. With a deadline of 0 or less, the result
  /// is the state after the cut, or the present one while the start-up is under way. Under `complete`, refused chunks
  /// are posted again until the deadline, but never before a time that the service asks for; under `classic`, the first
  /// refusal of a chunk ends the flush. The callback does not come once the process exits. An empty `callback` is
  /// allowed.
  static void flush(std::chrono::milliseconds deadline, std::function<void(const FlushResult&)> callback) noexcept;

  /// As `flush`, and returns the result. This is the only call that blocks: up to `deadline`, and at most one second
  /// more while it counts what waits. Called from a callback of the library, it returns `insideCallback` at once.
  /// During exit and in a forked child, it returns at once, too.
  static FlushResult flushAndWait(std::chrono::milliseconds deadline) noexcept;
};

}  // namespace kelvo

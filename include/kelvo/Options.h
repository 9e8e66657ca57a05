#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "kelvo/Log.h"

namespace kelvo {

/// The rules of delivery. `classic` keeps known losses; `complete` stores, counts and delivers every event once.
enum class Delivery { classic, complete };

/// The settings of `KelvoSDK::start`, which copies them. Every member has a default; an empty text means "not set".
///
/// The environment overrides these options, and they override the bundle's `Info.plist`, which overrides the build.
struct Options {
  Options() = default;
  explicit Options(std::string id) : appId(std::move(id)) {}

  /// The application's id at the service. Required: without an id, `start` fails with one ERROR line.
  std::string appId{};

  /// The address of the service, `https://HOST[:PORT]`; `http:` for loopback addresses only. Overridden by
  /// `KELVO_SERVER_BASE_URL`. Empty: "KelvoServerBaseURL" of the bundle, else the build's default.
  std::string serverBaseURL{};

  /// A file of certificate authorities in PEM form, which replaces the system's. Empty: "KelvoCAFile" of the bundle,
  /// else the system's authorities.
  std::string caFile{};

  /// The directory of all data of the library, used by one process at a time. A relative path counts from the current
  /// directory. Overridden by `KELVO_HOME`. Empty: a directory of this program below the user's data directory.
  std::string home{};

  /// Takes the place of the executable's name, which names the default home and the file of the preferences: for a
  /// program that an interpreter runs. Ignored if the bundle has an identifier, or if it cannot be a file's name.
  std::string programName{};

  /// The host's own id of its user: `KelvoSDK::setUserIdentifier` before anything is sent. Empty: the stored id stays.
  std::string userIdentifier{};

  /// The application's name and version in everything that is sent. Empty: those of the bundle.
  std::string appName{};
  std::string appVersion{};

  /// nullopt: "KelvoDelivery" of the bundle if that is valid, else `complete`.
  std::optional<Delivery> delivery{};

  /// The lowest level of a line that is written; `off` writes none. Overridden by `KELVO_LOG`. The service cannot
  /// change it.
  LogLevel logLevel = LogLevel::error;

  /// Receives the log lines in place of standard error (see `Application::setLogSink`). Installed before anything else.
  /// Empty: a sink that the host has set earlier stays, else standard error.
  LogSink logSink{};

  /// Whether the process writes the line "KelvoiOSSDK finalizer" to standard output when it ends. Overrides
  /// "KelvoFarewell" of the bundle.
  bool farewell = false;

  /// Whether nothing may be collected, stored or sent until `KelvoSDK::setConsent` was called with `granted`, in this
  /// launch or an earlier one. "KelvoConsent" = "required" of the bundle has the same effect; so has any other value of
  /// this key, after one ERROR line.
  bool consentRequired = false;

  /// The number of calls that are held in memory until then. Beyond it, the oldest call is dropped: one WARN line when
  /// that begins, and `LedgerCounts::droppedBeforeConsent` counts the events.
  std::size_t maxHeldCalls = 1000;

  /// The number of calls that may wait to be stored. A call beyond it is refused: one WARN line a second.
  std::size_t maxWaitingCalls = 100000;

  /// The size of the library's data on the disk, in bytes. Beyond it, the oldest data is deleted, whole chunks at a
  /// time, with one WARN line each. 0: no limit. nullopt: 100 MiB under `Delivery::complete`, else no limit.
  std::optional<std::uint64_t> maxStoredBytes{};

  /// The age in days at which stored data is deleted in the same way. 0: never.
  std::uint32_t maxStoredDays = 0;

  /// The size of the journal in bytes: the file that keeps calls from their return until they are stored, so that a
  /// kill of the process loses none. 4 MiB hold about 10,000 waiting calls; later ones are as safe as without it.
  /// 0: no journal. Else from 64 KiB to 64 MiB; another number costs one ERROR line, and the default applies. nullopt:
  /// "KelvoJournalBytes" of the bundle, else 4 MiB. Only under `Delivery::complete`.
  std::optional<std::uint64_t> journalBytes{};

  /// Whether chunks carry the ledger (`KelvoSDK::ledger`), so that the service can tell a loss from an eviction.
  bool sendLedger = false;
};

}  // namespace kelvo

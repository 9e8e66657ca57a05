#pragma once

#include <cstdint>

namespace kelvo {

/// What became of events. Each logged event is in exactly one place, so that always
///
///     logged = refused + held + droppedBeforeConsent + ignored + counted + forPlugins + waitingInMemory + rescued
///              + stored + notStored
///
/// and, since the installation,
///
///     stored = notForUpload + accepted + waiting + evicted + lost
struct LedgerCounts {
  struct Refused {
    std::uint64_t nameless = 0;     ///< the name was nil or empty
    std::uint64_t uncleanable = 0;  ///< the attributes could not be cleaned
    std::uint64_t disabled = 0;     ///< the service, or this machine, has switched collection off
    std::uint64_t terminated = 0;   ///< another process uses the home, or consent is denied
    std::uint64_t storm = 0;        ///< more calls waited than `Options::maxWaitingCalls`
    [[nodiscard]] std::uint64_t total() const noexcept {
      return nameless + uncleanable + disabled + terminated + storm;
    }
  };
  struct Evicted {
    std::uint64_t forSpace = 0;  ///< beyond `Options::maxStoredBytes`
    std::uint64_t forAge = 0;    ///< beyond `Options::maxStoredDays`
    [[nodiscard]] std::uint64_t total() const noexcept { return forSpace + forAge; }
  };

  std::uint64_t logged = 0;                ///< by the host, by plug-ins, and by the library itself
  Refused refused{};                       ///< not collected at all
  std::uint64_t held = 0;                  ///< in memory, until the user decides about consent
  std::uint64_t droppedBeforeConsent = 0;  ///< held, and dropped: too many were, or consent was denied
  std::uint64_t ignored = 0;               ///< named by the service's stop list
  std::uint64_t counted = 0;               ///< aggregate events, of which the sums are stored
  std::uint64_t forPlugins = 0;            ///< client events, which are not stored
  std::uint64_t waitingInMemory = 0;       ///< on the way into the store
  std::uint64_t rescued = 0;               ///< in a file, from which a later launch stores them
  std::uint64_t stored = 0;                ///< in a row of the database, now or earlier
  std::uint64_t notStored = 0;             ///< lost by the rules of `Delivery::classic`, or by a failed write

  // Of the stored events:
  std::uint64_t notForUpload = 0;  ///< of a type that is never sent
  std::uint64_t sent = 0;          ///< in a chunk that was cut to be posted, accepted or not
  std::uint64_t accepted = 0;      ///< accepted by the service
  std::uint64_t waiting = 0;       ///< in the database, not accepted yet
  Evicted evicted{};               ///< deleted before they were accepted
  std::uint64_t lost = 0;          ///< in a damaged database that was set aside
};

/// The counts of this process, and all since the installation or the last erasure. Of this process, `accepted`,
/// `sent` and `evicted` include events that an earlier one has stored.
struct Ledger {
  LedgerCounts thisProcess{};
  LedgerCounts sinceInstallation{};
};

}  // namespace kelvo

#pragma once

#include <chrono>
#include <optional>

#include "platform/Clock.h"

namespace kelvo {

/// Decides when waiting chunks are posted again: the state, and pure functions of it. A waiting chunk is one that the
/// service has not accepted, and that is neither queued nor in flight.
///
/// - After a failure, waiting chunks are due after a delay. The delay doubles from 30 seconds to 30 minutes, and each
///   one is drawn at random from half to the whole of it. An acceptance resets it.
/// - At an acceptance, and when the host comes to the foreground, they are due at once, but at the
///   earliest 5 seconds after the latest round.
/// - At the host's demand, they are due at once.
/// - A time that the service asks for replaces the delay, and nothing is posted before it.
/// - After eight failures without an acceptance, the rest of a round waits for the next one.
struct KLVResendPolicy {
  using Instant = Clock::Instant;

  enum class Trigger {
    accepted,       ///< the service accepted a chunk; others wait
    acceptedAlone,  ///< the service accepted a chunk; no other waits
    failed,         ///< a chunk was refused, or could not be posted
    postponed,      ///< a chunk was not posted, because `mayPost` or `mayResend` forbids it
    foreground,     ///< the host came to the foreground, and chunks wait
    demanded,       ///< the host asks for delivery now, and chunks wait
  };

  unsigned failedRounds = 0;         ///< delays since the latest acceptance
  unsigned failuresInARow = 0;       ///< since the latest acceptance, or the start of the round
  std::optional<Instant> due;        ///< when waiting chunks are posted; nullopt if nothing failed
  std::optional<Instant> latest;     ///< the start of the latest round
  std::optional<Instant> notBefore;  ///< the end of the time that the service asked for

  /// Returns the state after `trigger`. `retryAfter` is the time that the service asks for in a refusal. `random` is
  /// from 0 to 1. If `due` is not later than `now` then, the caller begins a round: it queues all waiting chunks.
  [[nodiscard]] KLVResendPolicy after(Trigger trigger, Instant now, double random,
                                      std::optional<std::chrono::seconds> retryAfter = std::nullopt) const;
  /// Returns the state after the start of a round.
  [[nodiscard]] KLVResendPolicy afterStartOfRound(Instant now) const;

  /// Returns whether waiting chunks are to be posted at `now`.
  [[nodiscard]] bool isDue(Instant now) const { return due && *due <= now; }
  /// Returns whether a new chunk may be posted at `now`.
  [[nodiscard]] bool mayPost(Instant now) const { return !notBefore || *notBefore <= now; }
  /// Returns whether a queued chunk of a round may be posted at `now`.
  [[nodiscard]] bool mayResend(Instant now) const;
};

}  // namespace kelvo

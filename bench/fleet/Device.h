#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <vector>

#include "upload/KLVResendPolicy.h"

namespace kelvo::bench {

/// The sending side of one device under the `complete` rules: its chunks by number, from 1, and the library's own
/// policy of resends. It posts one chunk at a time. It holds no content: a chunk follows from its number. The caller
/// passes all times, so they may run faster than a clock. Not thread-safe.
class Device {
 public:
  using Instant = KLVResendPolicy::Instant;
  using Random = std::minstd_rand;

  /// Cuts a new chunk.
  void cut();
  /// Returns the number of the chunk to post now, nullopt if there is none or one is in flight.
  std::optional<std::uint32_t> next(Instant now, Random& random);
  /// The service has answered the posted chunk, or cannot be reached. `retryAfter` is the time that it asks for.
  void answered(bool isAccepted, std::optional<std::chrono::seconds> retryAfter, Instant now, Random& random);
  /// Returns when `next` may have a chunk again although nothing happens meanwhile; nullopt for never.
  [[nodiscard]] std::optional<Instant> wakeUp() const;

  [[nodiscard]] std::uint32_t lastNumber() const { return last_; }
  [[nodiscard]] std::uint32_t accepted() const { return accepted_; }
  [[nodiscard]] bool isPosting() const { return inFlight_ != 0; }

 private:
  struct Task {
    std::uint32_t number;
    bool isNew;
  };

  void note(KLVResendPolicy::Trigger trigger, std::optional<std::chrono::seconds> retryAfter, Instant now,
            Random& random);
  void beginRoundIfDue(Instant now);

  std::uint32_t last_ = 0;
  std::uint32_t accepted_ = 0;
  std::uint32_t inFlight_ = 0;  // 0 for none
  std::deque<Task> queue_;
  // A round begins with the postponed chunks.
  std::vector<std::uint32_t> postponed_;
  std::vector<std::uint32_t> failed_;
  KLVResendPolicy policy_;
};

}  // namespace kelvo::bench

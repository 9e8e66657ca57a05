#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Flush.h"

namespace kelvo {

/// Why a chunk was not accepted.
struct KLVDeliveryFailure {
  FlushOutcome outcome = FlushOutcome::noService;  ///< `noService`, `refused`, or `deadline` if it could not be read
  int status = 0;                                  ///< the HTTP status, 0 if none
  std::string reason;                              ///< for people
  bool isFinal = false;                            ///< every later chunk fails for the same reason
};

/// What became of the chunks of this process so far.
struct KLVDeliveryState {
  std::uint64_t deliveredEvents = 0;
  std::uint64_t deliveredChunks = 0;
  std::size_t underWay = 0;  ///< chunks that are queued or in flight
  std::size_t waiting = 0;   ///< chunks that are not accepted; those under way count, too
  std::uint64_t failures = 0;
  std::optional<KLVDeliveryFailure> latestFailure;
};

}  // namespace kelvo

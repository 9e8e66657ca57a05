#pragma once

#include <cstdint>
#include <string>

namespace kelvo {

/// How a flush ended.
enum class FlushOutcome {
  delivered,       ///< the service has accepted everything that was stored
  deadline,        ///< the deadline passed while the start-up ran, or before an answer came
  noService,       ///< a request ended without an answer: no service, no endpoint, no connection
  refused,         ///< the service answered with a status other than 200
  notCollecting,   ///< nothing is sent from this process: not started, disabled, home in use, forked child
  insideCallback,  ///< `flushAndWait` was called from a callback of the library, and did nothing
};

/// The result of a flush. Counts are exact at the moment of the result.
///
/// An event counts if it is stored for upload. Client events, and events of a service's list that are not stored, do
/// not count, nor do aggregate counts, which travel inside chunks.
struct FlushResult {
  FlushOutcome outcome = FlushOutcome::notCollecting;
  int status = 0;                     ///< the HTTP status of the latest refusal; 0 if `outcome` is not `refused`
  std::uint64_t deliveredEvents = 0;  ///< in the delivered chunks
  std::uint64_t deliveredChunks = 0;  ///< accepted since this process started the library
  std::uint64_t waitingEvents = 0;    ///< stored in this home by any launch and not accepted, with and without a chunk
  std::uint64_t waitingChunks = 0;    ///< cut by any launch and not accepted
  std::string reason;                 ///< one sentence for people, empty if `outcome` is `delivered`
};

}  // namespace kelvo

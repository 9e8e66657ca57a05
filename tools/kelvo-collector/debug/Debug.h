#pragma once

#include <cstdint>
#include <string>

#include "kelvo-collector/store/Store.h"
#include "kelvo-service/Service.h"

// The paths below /debug: they show the received data and steer the service. The store does not keep such requests.

namespace kelvo::collector {

class ScriptBook;
using service::Reply;
using service::Request;
using service::ServiceState;

/// The objects that a debug request reads and changes.
struct DebugTargets {
  ServiceState& state;
  Store& store;
  ScriptBook& scripts;
};

/// The answer to a debug request, and the further steps that the server must take.
struct DebugReply {
  enum class Effect : std::uint8_t { None, ServiceChanged, StoreReset };  ///< the open pages must learn about it
  /// With `Stream` and `Wait`, `reply` is empty: the server makes the answer, which takes time (see http/Live.h).
  enum class Delivery : std::uint8_t { Now, Stream, Wait };

  Reply reply;
  Effect effect = Effect::None;
  Delivery delivery = Delivery::Now;
};

/// Returns true for "/debug" and the paths below it.
[[nodiscard]] bool isDebugPath(const std::string& path);

/// Returns the answer to any request with a debug path. Thread-safe.
[[nodiscard]] DebugReply debugReply(const Request& request, const DebugTargets& targets);

/// Returns the answer to an unknown path: 404 with the list of all paths of the collector.
[[nodiscard]] Reply unknownPath();

}  // namespace kelvo::collector
